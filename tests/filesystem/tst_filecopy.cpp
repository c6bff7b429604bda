#include "fstestsupport.h"
#include "programcommand.h"

#include <Trellis/TFileSystemHelper.h>

#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <unistd.h>

using namespace FsTest;

namespace {

// Records every progress call with the size the copy had on disk at that
// moment; answers false at call number abortAt (counting from 0).
class ProgressCounter : public QObject
{
    Q_OBJECT

public:
    QString destination;
    int abortAt = -1;
    QVector<qint64> values;
    QVector<qint64> sizesOnDisk;

    Q_INVOKABLE bool OnBytesWritten(qint64 bytes)
    {
        values.append(bytes);
        sizesOnDisk.append(QFileInfo(destination).size());
        return values.size() - 1 != abortAt;
    }
};

// The write and fsync calls a copy made on its destination, as strace saw them.
struct CopyTrace
{
    QVector<qint64> writes;
    QVector<int> syncsAfterWrite; // the number of writes before each fsync
    int readCalls = 0;
    int otherCalls = 0; // any other call on the source or destination
};

CopyTrace parseTrace(const QByteArray &trace, const QString &source, const QString &destination)
{
    static const QRegularExpression call(
            QStringLiteral("^(?:\\d+ +)?(\\w+)\\((.*)\\) += (-?\\d+)"));
    CopyTrace result;
    QByteArray sourceFd;
    QByteArray destinationFd;
    for (const QByteArray &line : trace.split('\n')) {
        const QRegularExpressionMatch match = call.match(QString::fromLocal8Bit(line));
        if (!match.hasMatch())
            continue;
        const QString name = match.captured(1);
        const QString arguments = match.captured(2);
        const QByteArray value = match.captured(3).toLatin1();
        if (name == QLatin1String("openat")) {
            if (arguments.contains(QLatin1Char('"') + source + QLatin1Char('"')))
                sourceFd = value;
            else if (arguments.contains(QLatin1Char('"') + destination + QLatin1Char('"')))
                destinationFd = value;
            continue;
        }
        const QByteArray fd = arguments.section(QLatin1Char(','), 0, 0).toLatin1();
        if (fd.isEmpty() || (fd != sourceFd && fd != destinationFd))
            continue;
        if (name == QLatin1String("close"))
            (fd == sourceFd ? sourceFd : destinationFd).clear();
        else if (name == QLatin1String("read") && fd == sourceFd)
            ++result.readCalls;
        else if (name == QLatin1String("write") && fd == destinationFd)
            result.writes.append(value.toLongLong());
        else if (name == QLatin1String("fsync") && fd == destinationFd)
            result.syncsAfterWrite.append(result.writes.size());
        else
            ++result.otherCalls;
    }
    return result;
}

} // namespace

class tst_FileCopy : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void copies_data();
    void copies();
    void progress_data();
    void progress();
    void progressAbort();
    void unusableProgressMethod_data();
    void unusableProgressMethod();
    void lowerCasedName();
    void sameFile_data();
    void sameFile();
    void failures_data();
    void failures();
    void linkAtDestinationIsReplaced();
    void systemCalls_data();
    void systemCalls();
    void failingPartWay();

private:
    QString path(const QString &name) const { return m_dir->filePath(name); }
    QStringList probe() const;

    std::unique_ptr<QTemporaryDir> m_dir;
};

void tst_FileCopy::initTestCase()
{
    ::umask(022);
    setUpStampClock();
}

void tst_FileCopy::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
}

QStringList tst_FileCopy::probe() const
{
    return programCommand(QCoreApplication::applicationDirPath()
                          + QStringLiteral("/filecopy_probe"));
}

void tst_FileCopy::copies_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<bool>("stamp");
    // Around the 4096-byte chunk, and well beyond it.
    for (int size : { 0, 1, 4095, 4096, 4097, 10000, (1 << 20) + 7 })
        QTest::addRow("%d bytes, stamped", size) << size << true;
    QTest::newRow("10000 bytes, not stamped") << 10000 << false;
}

void tst_FileCopy::copies()
{
    QFETCH(int, size);
    QFETCH(bool, stamp);
    const QString source = path(QStringLiteral("source.bin"));
    const QString copy = path(QStringLiteral("sub/copy.bin"));
    QVERIFY(writeFile(source, randomBytes(size)));
    QVERIFY(QFile::setPermissions(
            source, QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup | QFile::ReadOther));
    QVERIFY(writeFile(copy, "old contents, longer than some of the sources"));

    const qint64 before = stampNow();
    QVERIFY(TFileSystemHelper::FileCopy(source, copy, stamp));
    const qint64 after = stampNow();

    if (haveTool(QStringLiteral("cmp")))
        QCOMPARE(run(QStringLiteral("cmp"), { source, copy }), 0);
    QCOMPARE(readFile(copy), readFile(source));
    QCOMPARE(mode(copy), mode_t(0646));
    const qint64 time = modificationTime(copy);
    QCOMPARE(time >= before && time <= after && time % 60 == 0, stamp);
}

void tst_FileCopy::progress_data()
{
    QTest::addColumn<int>("size");
    QTest::newRow("empty") << 0;
    QTest::newRow("three chunks") << 10000;
    QTest::newRow("many chunks") << 24 * 1024 * 1024 + 5;
}

void tst_FileCopy::progress()
{
    QFETCH(int, size);
    const QString source = path(QStringLiteral("source.bin"));
    QVERIFY(writeFile(source, randomBytes(size)));
    ProgressCounter counter;
    counter.destination = path(QStringLiteral("copy.bin"));

    QVERIFY(TFileSystemHelper::FileCopyWithProgress(source, counter.destination, &counter,
                                                    "OnBytesWritten", true));

    QCOMPARE(readFile(counter.destination), readFile(source));
    if (size == 0) {
        QVERIFY(counter.values.isEmpty());
        return;
    }
    // Each value is what was written since the previous call, and the last
    // call comes with the last chunk.
    qint64 total = 0;
    for (int i = 0; i < counter.values.size(); ++i) {
        QVERIFY(counter.values.at(i) > 0);
        total += counter.values.at(i);
        QCOMPARE(counter.sizesOnDisk.at(i), total);
    }
    QCOMPARE(total, qint64(size));
}

void tst_FileCopy::progressAbort()
{
    const QString source = path(QStringLiteral("source.bin"));
    QVERIFY(writeFile(source, randomBytes(6 * 1024 * 1024)));
    QVERIFY(QFile::setPermissions(source, QFile::ReadOwner | QFile::WriteOwner));
    ProgressCounter counter;
    counter.destination = path(QStringLiteral("copy.bin"));
    counter.abortAt = 0;

    const qint64 after = stampNow();
    QVERIFY(!TFileSystemHelper::FileCopyWithProgress(source, counter.destination, &counter,
                                                     "OnBytesWritten", true));

    QCOMPARE(counter.values.size(), 1);
    QCOMPARE(QFileInfo(counter.destination).size(), counter.values.first());
    QCOMPARE(readFile(counter.destination), readFile(source).left(int(counter.values.first())));
    QCOMPARE(mode(counter.destination), mode_t(0644)); // as created, not the source's 0600 + 0002
    QVERIFY(modificationTime(counter.destination) > after + 60); // not stamped
}

void tst_FileCopy::unusableProgressMethod_data()
{
    QTest::addColumn<QByteArray>("member");
    QTest::addColumn<bool>("otherThread");
    QTest::addColumn<QString>("warning");
    QTest::newRow("no such method")
            << QByteArray("NoSuchMethod") << false << QStringLiteral("No such method");
    QTest::newRow("receiver in another thread")
            << QByteArray("OnBytesWritten") << true
            << QStringLiteral("return values in queued connections");
}

void tst_FileCopy::unusableProgressMethod()
{
    QFETCH(QByteArray, member);
    QFETCH(bool, otherThread);
    QFETCH(QString, warning);
    const QString source = path(QStringLiteral("source.bin"));
    QVERIFY(writeFile(source, randomBytes(10000)));
    ProgressCounter counter;
    QThread thread;
    if (otherThread) {
        thread.start();
        counter.moveToThread(&thread);
    }
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression(warning));

    const bool copied = TFileSystemHelper::FileCopyWithProgress(
            source, path(QStringLiteral("copy.bin")), &counter, member.constData(), false);
    thread.quit();
    thread.wait();
    QVERIFY(copied);
    QVERIFY(counter.values.isEmpty());
    QCOMPARE(readFile(path(QStringLiteral("copy.bin"))), readFile(source));
}

void tst_FileCopy::lowerCasedName()
{
    const QString source = path(QStringLiteral("in/source.bin"));
    QVERIFY(writeFile(source, randomBytes(5000)));
    QVERIFY(writeFile(path(QStringLiteral("out/PHOTO.JPG")), "old upper"));
    QVERIFY(writeFile(path(QStringLiteral("out/PHOTO.jpg")), "old lower"));

    QVERIFY(TFileSystemHelper::FileCopy(source, path(QStringLiteral("out/PHOTO.JPG")), false));

    QCOMPARE(QDir(path(QStringLiteral("out"))).entryList(QDir::Files),
             QStringList { QStringLiteral("PHOTO.jpg") });
    QCOMPARE(readFile(path(QStringLiteral("out/PHOTO.jpg"))), readFile(source));
}

void tst_FileCopy::sameFile_data()
{
    QTest::addColumn<QString>("source");
    QTest::addColumn<QString>("destination");
    // Each layout is made by sameFile(): a.txt and PHOTO.jpg are files,
    // PHOTO.JPG another file, to-a a link to a.txt, hard a hard link to
    // a.txt, dir-link a link to the directory itself.
    QTest::newRow("same path") << "a.txt"
                               << "a.txt";
    QTest::newRow("same path, upper-case extension") << "PHOTO.JPG"
                                                     << "PHOTO.JPG";
    QTest::newRow("destination links to the source") << "a.txt"
                                                     << "to-a";
    QTest::newRow("source links to the destination") << "to-a"
                                                     << "a.txt";
    QTest::newRow("hard link") << "a.txt"
                               << "hard";
    QTest::newRow("through a linked directory") << "a.txt"
                                                << "dir-link/a.txt";
    QTest::newRow("lower-cased extension") << "PHOTO.jpg"
                                           << "PHOTO.JPG";
}

void tst_FileCopy::sameFile()
{
    QFETCH(QString, source);
    QFETCH(QString, destination);
    QVERIFY(writeFile(path(QStringLiteral("a.txt")), "the only copy"));
    QVERIFY(writeFile(path(QStringLiteral("PHOTO.jpg")), "the photo"));
    QVERIFY(writeFile(path(QStringLiteral("PHOTO.JPG")), "another photo"));
    QVERIFY(QFile::link(QStringLiteral("a.txt"), path(QStringLiteral("to-a"))));
    QCOMPARE(::link(QFile::encodeName(path(QStringLiteral("a.txt"))).constData(),
                    QFile::encodeName(path(QStringLiteral("hard"))).constData()),
             0);
    QVERIFY(QFile::link(m_dir->path(), path(QStringLiteral("dir-link"))));
    const auto before = snapshot(m_dir->path());

    QVERIFY(!TFileSystemHelper::FileCopy(path(source), path(destination), true));
    QCOMPARE(snapshot(m_dir->path()), before);
}

void tst_FileCopy::failures_data()
{
    QTest::addColumn<QStringList>("files");
    QTest::addColumn<QString>("source");
    QTest::addColumn<QString>("destination");
    QTest::addColumn<QStringList>("remaining");
    QTest::newRow("missing source") << names("x.TXT x.txt keep") << "missing"
                                    << "x.TXT" << names("keep");
    QTest::newRow("missing destination directory") << names("source") << "source"
                                                   << "no/such/dir/copy" << names("source");
    QTest::newRow("destination is a directory") << names("source out/keep") << "source"
                                                << "out" << names("out out/keep source");
}

void tst_FileCopy::failures()
{
    QFETCH(QStringList, files);
    QFETCH(QString, source);
    QFETCH(QString, destination);
    QFETCH(QStringList, remaining);
    for (const QString &file : files)
        QVERIFY(writeFile(path(file), file.toUtf8()));

    QVERIFY(!TFileSystemHelper::FileCopy(path(source), path(destination), true));
    QCOMPARE(snapshot(m_dir->path()).keys(), remaining);
    for (const QString &file : files) {
        if (remaining.contains(file))
            QCOMPARE(readFile(path(file)), file.toUtf8());
    }
}

void tst_FileCopy::linkAtDestinationIsReplaced()
{
    // A link at the destination, even one to a missing file, is removed, not
    // written through.
    QVERIFY(writeFile(path(QStringLiteral("source")), "data"));
    QVERIFY(QDir().mkpath(path(QStringLiteral("elsewhere"))));
    QVERIFY(QFile::link(path(QStringLiteral("elsewhere/target")), path(QStringLiteral("copy"))));

    QVERIFY(TFileSystemHelper::FileCopy(path(QStringLiteral("source")),
                                        path(QStringLiteral("copy")), false));
    QVERIFY(!QFileInfo(path(QStringLiteral("copy"))).isSymLink());
    QCOMPARE(readFile(path(QStringLiteral("copy"))), QByteArray("data"));
    QVERIFY(!exists(path(QStringLiteral("elsewhere/target"))));
}

void tst_FileCopy::systemCalls_data()
{
    QTest::addColumn<qint64>("size");
    QTest::addColumn<QVector<int>>("syncsAfterWrite");
    QTest::newRow("empty") << qint64(0) << QVector<int> {};
    QTest::newRow("10000 bytes") << qint64(10000) << QVector<int> { 3 };
    QTest::newRow("two whole chunks") << qint64(8192) << QVector<int> { 2 };
    // 3907 chunks are the first to reach 16,000,000 bytes.
    QTest::newRow("20,000,000 bytes") << qint64(20000000) << QVector<int> { 3907, 4883 };
}

void tst_FileCopy::systemCalls()
{
    QFETCH(qint64, size);
    QFETCH(QVector<int>, syncsAfterWrite);
    if (!haveTool(QStringLiteral("strace")))
        QSKIP("strace is not installed");
    const QString source = path(QStringLiteral("source.bin"));
    const QString copy = path(QStringLiteral("copy.bin"));
    const QString tracePath = path(QStringLiteral("trace"));
    QVERIFY(writeFile(source, randomBytes(size)));

    QProcess strace;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    // LeakSanitizer cannot inspect a process that is being traced.
    environment.insert(QStringLiteral("ASAN_OPTIONS"),
                       environment.value(QStringLiteral("ASAN_OPTIONS"))
                               + QStringLiteral(":detect_leaks=0"));
    strace.setProcessEnvironment(environment);
    strace.start(QStringLiteral("strace"),
                 QStringList { QStringLiteral("-f"), QStringLiteral("-qq"), QStringLiteral("-e"),
                               QStringLiteral("trace=desc"), QStringLiteral("-o"), tracePath }
                         + probe() + QStringList { source, copy });
    QVERIFY(strace.waitForFinished(300000));
    if (strace.exitCode() != 0 && readFile(tracePath).isEmpty())
        QSKIP(qPrintable(QStringLiteral("strace cannot trace here: ")
                         + QString::fromLocal8Bit(strace.readAll())));
    QCOMPARE(strace.exitCode(), 0);
    QCOMPARE(readFile(copy), readFile(source));

    const CopyTrace trace = parseTrace(readFile(tracePath), source, copy);
    QVector<qint64> chunks(int(size / 4096), 4096);
    if (size % 4096)
        chunks.append(size % 4096);
    QCOMPARE(trace.writes, chunks);
    QCOMPARE(trace.syncsAfterWrite, syncsAfterWrite);
    // A few calls to open, size and close the files, none per chunk.
    QVERIFY2(trace.readCalls <= chunks.size() + 2, qPrintable(QString::number(trace.readCalls)));
    QVERIFY2(trace.otherCalls <= 12, qPrintable(QString::number(trace.otherCalls)));
}

void tst_FileCopy::failingPartWay()
{
    // The copy runs in a child whose files may not grow past 100,000 bytes.
    const QByteArray contents = randomBytes(1000000);
    const QString source = path(QStringLiteral("source.bin"));
    const QString copy = path(QStringLiteral("copy.bin"));
    QVERIFY(writeFile(source, contents));
    const qint64 sourceTime = modificationTime(source);

    const QStringList command = probe();
    QCOMPARE(run(command.first(),
                 command.mid(1) + QStringList { source, copy, QStringLiteral("100000") }),
             1);
    QCOMPARE(readFile(source), contents);
    QCOMPARE(modificationTime(source), sourceTime);
    QCOMPARE(QFileInfo(copy).size(), qint64(100000));
    QCOMPARE(readFile(copy), contents.left(100000));
}

QTEST_GUILESS_MAIN(tst_FileCopy)
#include "tst_filecopy.moc"
