#include <Trellis/TFileHash.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRandomGenerator>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

class tst_TFileHash : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void matchesMd5sum_data();
    void matchesMd5sum();
    void knownDigests_data();
    void knownDigests();

private:
    QString writeFile(const QString &name, const QByteArray &contents);

    QTemporaryDir m_dir;
};

static int messageCount = 0;
static void countMessage(QtMsgType, const QMessageLogContext &, const QString &)
{
    ++messageCount;
}

static const QByteArray EmptyDigest = QByteArrayLiteral("d41d8cd98f00b204e9800998ecf8427e");

QString tst_TFileHash::writeFile(const QString &name, const QByteArray &contents)
{
    const QString path = m_dir.filePath(name);
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(contents) != contents.size())
        return QString();
    return path;
}

void tst_TFileHash::initTestCase()
{
    QVERIFY(m_dir.isValid());
}

void tst_TFileHash::matchesMd5sum_data()
{
    QTest::addColumn<int>("size");
    // Around the 2048-byte piece the file is read in, and well beyond it.
    for (int size : { 0, 1, 2047, 2048, 2049, 5000, 3 * 1024 * 1024 + 123 })
        QTest::addRow("%d bytes", size) << size;
}

void tst_TFileHash::matchesMd5sum()
{
    QFETCH(int, size);
    const QString md5sum = QStandardPaths::findExecutable(QStringLiteral("md5sum"));
    if (md5sum.isEmpty())
        QSKIP("md5sum is not installed");

    QRandomGenerator random(quint32(size) + 1);
    QByteArray contents(size, Qt::Uninitialized);
    for (char &byte : contents)
        byte = char(random.generate());
    const QString path = writeFile(QStringLiteral("random-%1").arg(size), contents);
    QVERIFY(!path.isEmpty());

    QProcess process;
    process.start(md5sum, { path });
    QVERIFY(process.waitForFinished());
    QCOMPARE(process.exitCode(), 0);
    const QByteArray expected = process.readAllStandardOutput().left(32);

    const QByteArray digest = TFileHash::CalculateFileMD5(path);
    QCOMPARE(digest.size(), 16);
    QCOMPARE(digest.toHex(), expected);
}

void tst_TFileHash::knownDigests_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QByteArray>("expected");

    QTest::newRow("abc") << writeFile(QStringLiteral("abc"), QByteArrayLiteral("abc"))
                         << QByteArrayLiteral("900150983cd24fb0d6963f7d28e17f72");
    QTest::newRow("empty file") << writeFile(QStringLiteral("empty"), QByteArray()) << EmptyDigest;
    QTest::newRow("missing path") << m_dir.filePath(QStringLiteral("missing")) << EmptyDigest;
    QTest::newRow("empty path") << QString() << EmptyDigest;
    QTest::newRow("directory") << m_dir.path() << EmptyDigest;
    const QString unreadable = writeFile(QStringLiteral("unreadable"), QByteArrayLiteral("abc"));
    // The superuser reads it anyway.
    if (QFile::setPermissions(unreadable, QFileDevice::WriteOwner)
        && !QFileInfo(unreadable).isReadable())
        QTest::newRow("unreadable file") << unreadable << EmptyDigest;
}

void tst_TFileHash::knownDigests()
{
    QFETCH(QString, path);
    QFETCH(QByteArray, expected);
    messageCount = 0;
    const QtMessageHandler previousHandler = qInstallMessageHandler(countMessage);
    const QByteArray digest = TFileHash::CalculateFileMD5(path);
    qInstallMessageHandler(previousHandler);
    QCOMPARE(digest.toHex(), expected);
    QCOMPARE(messageCount, 0); // nothing logged, whatever the path
}

QTEST_GUILESS_MAIN(tst_TFileHash)
#include "tst_tfilehash.moc"
