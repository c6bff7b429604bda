#include "FileTestSupport.h"

#include <Trellis/TFileSystemHelper.h>

#include <QtTest>

#include <numeric>

// A copy reads its source until reading finds the end, as a copy chunk by
// chunk does, and does not stop where the source's size said it would end:
// bytes added while the progress receiver runs are copied too, and a source
// whose size tells nothing, as most files under /proc, is copied whole.

// Counts the progress calls; at the first, appends to the source.
class GrowingSource : public QObject
{
    Q_OBJECT

public:
    QString source;
    QByteArray added;
    QList<qint64> reports;

    Q_INVOKABLE bool OnBytesWritten(qint64 bytes)
    {
        reports << bytes;
        if (reports.size() == 1) {
            QFile file(source);
            if (!file.open(QIODevice::Append) || file.write(added) != added.size())
                qWarning("could not add to %s", qPrintable(source));
        }
        return true;
    }
};

class tst_SourceEnd : public FileTestCase
{
    Q_OBJECT

private slots:
    void growsAtReport_data()
    {
        QTest::addColumn<int>("size");
        QTest::addColumn<int>("added");
        QTest::newRow("by less than a chunk") << 10000 << 5000;
        QTest::newRow("by several chunks") << 10000 << 9000;
        QTest::newRow("from one chunk") << 4096 << 1;
    }

    // The first call of a small file's copy comes at its last chunk, unless
    // the machine is slow enough to make it come earlier; either way what
    // the receiver adds then is copied and reported after it.
    void growsAtReport()
    {
        QFETCH(int, size);
        QFETCH(int, added);
        GrowingSource receiver;
        receiver.source = "source"_s;
        receiver.added = QByteArray(added, 'b');
        QVERIFY(writeFile(receiver.source, QByteArray(size, 'a')));
        const QString copy = "copy"_s;
        QVERIFY(TFileSystemHelper::FileCopyWithProgress(receiver.source, copy, &receiver,
                                                        "OnBytesWritten", false));
        QVERIFY2(receiver.reports.size() >= 2, "nothing was reported after the source grew");
        QCOMPARE(std::accumulate(receiver.reports.cbegin(), receiver.reports.cend(), qint64(0)),
                 qint64(size + added));
        QCOMPARE(readFile(copy), QByteArray(size, 'a') + receiver.added);
    }

    // A process's environment is a file of size 0 as long as it runs.
    void sizeTellsNothing()
    {
        QProcess child;
        QProcessEnvironment environment;
        environment.insert("TRELLIS_PADDING"_s, QString(10000, u'x'));
        child.setProcessEnvironment(environment);
        child.start("sh"_s, { "-c"_s, "read line"_s });
        QVERIFY2(child.waitForStarted(int(HangBound.count()) * 1000), "the child did not start");
        const QString source = "/proc/%1/environ"_s.arg(child.processId());
        const QByteArray contents = readFile(source);
        QCOMPARE(QFileInfo(source).size(), 0);
        QVERIFY2(contents.size() > 10000, contents.left(100).constData());

        const QString copy = "copy"_s;
        const bool copied = TFileSystemHelper::FileCopy(source, copy, false);
        child.closeWriteChannel();
        QVERIFY2(child.waitForFinished(int(HangBound.count()) * 1000), "the child did not end");
        QVERIFY(copied);
        QCOMPARE(readFile(copy), contents);
    }
};

QTEST_GUILESS_MAIN(tst_SourceEnd)
#include "tst_sourceend.moc"
