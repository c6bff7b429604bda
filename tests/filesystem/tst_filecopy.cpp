#include "fstestsupport.h"
#include "programcommand.h"

#include <Trellis/TFileSystemHelper.h>

#include <QHash>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>

#include <unistd.h>

using namespace FsTest;

// Records every progress call with the size the copy had on disk at that
// moment; answers false at call number abortAt (counting from 0).
class ProgressCounter : public QObject
{
    Q_OBJECT

public:
    QString copy;
    int abortAt = -1;
    QVector<qint64> values;
    QVector<qint64> sizesOnDisk;

    Q_INVOKABLE bool OnBytesWritten(qint64 bytes)
    {
        values.append(bytes);
        sizesOnDisk.append(QFileInfo(copy).size());
        return values.size() - 1 != abortAt;
    }
};

// Each test works in a fresh temporary directory made the working directory.
class tst_FileCopy : public QObject
{
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_dir;
    const QString m_startDir = QDir::currentPath();

    // Runs filecopy_probe (a copy in a process of its own) with arguments,
    // under the command prefix if one is given.
    static int runProbe(QStringList prefix, const QStringList &arguments, QByteArray *output)
    {
        prefix += programCommand(QCoreApplication::applicationDirPath()
                                 + QStringLiteral("/filecopy_probe"))
                + arguments;
        const QString program = prefix.takeFirst();
        return run(program, prefix, output);
    }

private slots:
    void initTestCase()
    {
        ::umask(022);
        setUpStampClock();
        // LeakSanitizer cannot inspect a process that is being traced.
        qputenv("ASAN_OPTIONS", qgetenv("ASAN_OPTIONS") + ":detect_leaks=0");
    }
    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        QVERIFY(QDir::setCurrent(m_dir->path()));
    }
    void cleanup() { QDir::setCurrent(m_startDir); }

    void copies_data()
    {
        QTest::addColumn<int>("size");
        QTest::addColumn<bool>("stamp");
        QTest::addColumn<QString>("existing"); // in out/ before the copy
        QTest::addColumn<QString>("destination");
        QTest::addColumn<QString>("copy"); // the one entry of out/ after
        const QString old = QStringLiteral("copy.bin");
        // Around the 4096-byte chunk, and well beyond it.
        for (int size : { 0, 1, 4095, 4096, 4097, 10000, (1 << 20) + 7 })
            QTest::addRow("%d bytes", size) << size << true << old << old << old;
        QTest::newRow("not stamped") << 10000 << false << old << old << old;
        QTest::newRow("extension lower-cased")
                << 5000 << true << QStringLiteral("PHOTO.JPG PHOTO.jpg") << "PHOTO.JPG"
                << QStringLiteral("PHOTO.jpg");
        // A link there, even to a missing file, is removed, not written through.
        QTest::newRow("link at the destination")
                << 5000 << true << "copy.bin->../elsewhere/target" << old << old;
    }

    void copies()
    {
        QFETCH(int, size);
        QFETCH(bool, stamp);
        QFETCH(QString, existing);
        QFETCH(QString, destination);
        QFETCH(QString, copy);
        QVERIFY(writeFile(QStringLiteral("source"), randomBytes(size)));
        QVERIFY(makeEntries(QStringLiteral("out"), existing.split(QLatin1Char(' '))));
        QVERIFY(QDir().mkdir(QStringLiteral("elsewhere")));
        const qint64 before = stampNow();

        QVERIFY(TFileSystemHelper::FileCopy(QStringLiteral("source"),
                                            QStringLiteral("out/") + destination, stamp));
        QCOMPARE(snapshot(QStringLiteral("out")).keys(), QStringList { copy });
        QVERIFY(QDir(QStringLiteral("elsewhere")).isEmpty());
        copy.prepend(QStringLiteral("out/"));
        QVERIFY(!QFileInfo(copy).isSymLink());
        QCOMPARE(run(QStringLiteral("cmp"), { QStringLiteral("source"), copy }), 0);
        QCOMPARE(mode(QStringLiteral("source")), mode_t(0644));
        QCOMPARE(mode(copy), mode_t(0646));
        QCOMPARE(isStamped(copy, before), stamp);
    }

    void progress_data()
    {
        QTest::addColumn<int>("size");
        QTest::addColumn<int>("abortAt");
        QTest::newRow("empty") << 0 << -1;
        QTest::newRow("three chunks") << 10000 << -1;
        QTest::newRow("many chunks") << 24 * 1024 * 1024 + 5 << -1;
        QTest::newRow("aborted at the first call") << 6 * 1024 * 1024 << 0;
    }

    void progress()
    {
        QFETCH(int, size);
        QFETCH(int, abortAt);
        const QString source = QStringLiteral("source");
        QVERIFY(writeFile(source, randomBytes(size)));
        QVERIFY(QFile::setPermissions(source, QFile::ReadOwner | QFile::WriteOwner));
        ProgressCounter counter;
        counter.copy = QStringLiteral("copy");
        counter.abortAt = abortAt;

        QCOMPARE(TFileSystemHelper::FileCopyWithProgress(source, counter.copy, &counter,
                                                         "OnBytesWritten", true),
                 abortAt < 0);
        // Each value is what was written since the previous call.
        qint64 total = 0;
        for (int i = 0; i < counter.values.size(); ++i) {
            QVERIFY(counter.values.at(i) > 0);
            total += counter.values.at(i);
            QCOMPARE(counter.sizesOnDisk.at(i), total);
        }
        QCOMPARE(readFile(counter.copy), readFile(source).left(int(total)));
        if (abortAt < 0) {
            QCOMPARE(total, qint64(size)); // the last call comes with the last chunk
            return;
        }
        // Left as far as it got, without the source's 0600 + 0002 or a stamp.
        QCOMPARE(counter.values.size(), abortAt + 1);
        QCOMPARE(mode(counter.copy), mode_t(0644));
        QVERIFY(status(counter.copy).st_mtime > stampNow() + 60);
    }

    void refused_data()
    {
        QTest::addColumn<QString>("source");
        QTest::addColumn<QString>("destination");
        QTest::addColumn<QString>("removed");
        // In the layout refused() makes, to-a links to a, hard is a hard link
        // to a and dir-link links to the directory itself.
        const QString none;
        QTest::newRow("same path") << "a" << QStringLiteral("a") << none;
        QTest::newRow("same path, upper-case extension")
                << "P.JPG" << QStringLiteral("P.JPG") << none;
        QTest::newRow("destination links to the source") << "a" << QStringLiteral("to-a") << none;
        QTest::newRow("source links to the destination") << "to-a" << QStringLiteral("a") << none;
        QTest::newRow("hard link") << "a" << QStringLiteral("hard") << none;
        QTest::newRow("through a linked directory") << "a" << QStringLiteral("dir-link/a") << none;
        QTest::newRow("lower-cased extension") << "P.jpg" << QStringLiteral("P.JPG") << none;
        QTest::newRow("missing destination directory")
                << "a" << QStringLiteral("no/dir/copy") << none;
        QTest::newRow("destination is a directory") << "a" << QStringLiteral("out") << none;
        // The old copy goes under both names even when the source is missing.
        QTest::newRow("missing source")
                << "missing" << QStringLiteral("P.JPG") << QStringLiteral("P.JPG P.jpg");
    }

    void refused()
    {
        QFETCH(QString, source);
        QFETCH(QString, destination);
        QFETCH(QString, removed);
        QVERIFY(makeEntries(QStringLiteral("."),
                            names("a P.jpg P.JPG to-a->a dir-link->. out/keep")));
        QCOMPARE(::link("a", "hard"), 0);
        auto expected = snapshot(QStringLiteral("."));
        for (const QString &entry : removed.split(QLatin1Char(' ')))
            expected.remove(entry);

        QVERIFY(!TFileSystemHelper::FileCopy(source, destination, true));
        QCOMPARE(snapshot(QStringLiteral(".")), expected);
    }

    void systemCalls_data()
    {
        QTest::addColumn<qint64>("size");
        // Where the flushes come: a write must end at each of these offsets
        // and a flush begin after it.
        QTest::addColumn<QVector<qint64>>("syncPoints");
        QTest::newRow("empty") << qint64(0) << QVector<qint64> {};
        QTest::newRow("10000 bytes") << qint64(10000) << QVector<qint64> { 10000 };
        QTest::newRow("two whole chunks") << qint64(8192) << QVector<qint64> { 8192 };
        // 3907 chunks of 4096 bytes are the first to reach 16,000,000 bytes.
        QTest::newRow("20,000,000 bytes")
                << qint64(20000000) << QVector<qint64> { 16003072, 20000000 };
    }

    void systemCalls()
    {
        QFETCH(qint64, size);
        QFETCH(QVector<qint64>, syncPoints);
        const QString source = QDir::current().canonicalPath() + QStringLiteral("/source");
        const QString copy = QDir::current().canonicalPath() + QStringLiteral("/copy");
        QVERIFY(writeFile(source, randomBytes(size)));
        QByteArray output;
        const int exitCode = runProbe(names("strace -f -qq -y -e trace=desc -o trace"),
                                      { source, copy }, &output);
        if (exitCode != 0 && !exists(QStringLiteral("trace")))
            QSKIP(qPrintable(QStringLiteral("strace cannot run here: ")
                             + QString::fromLocal8Bit(output)));
        QCOMPARE(exitCode, 0);
        QCOMPARE(readFile(copy), readFile(source));

        // Each call reads "pid call(fd<path>, ...) = result". One that
        // another thread's call interrupted is split in two:
        // "pid call(fd<path>, <unfinished ...>" and, later,
        // "pid <... call resumed>..., count) = result".
        const QRegularExpression started(
                QStringLiteral("^(?:(\\d+) +)?(\\w+)\\(\\d+<([^>]*)>(.*)$"));
        const QRegularExpression resumed(
                QStringLiteral("^(?:(\\d+) +)?<\\.\\.\\. (\\w+) resumed>(.*)$"));
        const QRegularExpression count(QStringLiteral(", (\\d+)\\) += -?\\d+$"));
        QHash<QString, QString> unfinishedPaths; // by thread
        QVector<qint64> reads; // the bytes asked for
        QVector<qint64> writeEnds;
        QVector<qint64> syncs; // the bytes written when each flush began
        qint64 written = 0;
        for (const QString &line : names(readFile(QStringLiteral("trace")).constData(), '\n')) {
            const QRegularExpressionMatch start = started.match(line);
            const QRegularExpressionMatch end = resumed.match(line);
            const QString name = (start.hasMatch() ? start : end).captured(2);
            QString path = start.captured(3);
            if (line.endsWith(QLatin1String("<unfinished ...>")))
                unfinishedPaths.insert(start.captured(1), path);
            else if (end.hasMatch())
                path = unfinishedPaths.take(end.captured(1));
            const qint64 bytes = count.match(line).captured(1).toLongLong();
            if (path == source && name == QLatin1String("read") && bytes > 0)
                reads.append(bytes);
            else if (path == copy && name == QLatin1String("write") && bytes > 0)
                writeEnds.append(written += bytes);
            else if (path == copy && name == QLatin1String("fsync") && start.hasMatch())
                syncs.append(written);
        }
        // The source is read in chunks of 4096 bytes (a short read is
        // followed by one for the rest of its chunk, which finds the end);
        // they reach the copy in larger writes, each flush after the chunks
        // it covers.
        QVERIFY(std::all_of(reads.cbegin(), reads.cend(), [](qint64 n) { return n <= 4096; }));
        QCOMPARE(reads.count(4096), int(size / 4096) + 1);
        QCOMPARE(written, size);
        QCOMPARE(syncs.size(), syncPoints.size());
        for (int i = 0; i < syncs.size(); ++i) {
            QVERIFY2(writeEnds.contains(syncPoints[i]), qPrintable(QString::number(syncPoints[i])));
            QVERIFY(syncs[i] >= syncPoints[i]);
        }
        if (!syncs.isEmpty())
            QCOMPARE(syncs.last(), size);
    }

    void failingPartWay()
    {
        // The probe's files may not grow past 100,000 bytes.
        const QByteArray contents = randomBytes(1000000);
        QVERIFY(writeFile(QStringLiteral("source"), contents));
        const auto before = snapshot(QStringLiteral("."));
        QCOMPARE(runProbe({}, names("source copy 100000"), nullptr), 1);
        QCOMPARE(snapshot(QStringLiteral(".")).value(QStringLiteral("source")),
                 before.value(QStringLiteral("source")));
        QCOMPARE(readFile(QStringLiteral("copy")), contents.left(100000));
    }
};

QTEST_GUILESS_MAIN(tst_FileCopy)
#include "tst_filecopy.moc"
