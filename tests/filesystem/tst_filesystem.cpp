#include "FileTestSupport.h"
#include "programcommand.h"

#include <Trellis/TFileHash.h>
#include <Trellis/TFileSystemHelper.h>
#include <Trellis/TLocalTime.h>

#include <QHash>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QScopeGuard>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <thread>

#include <sys/fsuid.h>
#include <unistd.h>

namespace {

QByteArray randomBytes(qint64 size, quint32 seed = 1)
{
    QByteArray bytes(int(size + 3) & ~3, Qt::Uninitialized);
    QRandomGenerator(seed).fillRange(reinterpret_cast<quint32 *>(bytes.data()), bytes.size() / 4);
    return bytes.left(int(size));
}

// Runs filecopy_probe (a copy in a process of its own) with arguments, after
// the command prefix.
int runProbe(const QStringList &prefix, const QStringList &arguments, QByteArray *output = nullptr)
{
    return run(prefix + programCommand(QCoreApplication::applicationDirPath() + "/filecopy_probe"_s)
                       + arguments,
               output);
}

// The stamp TLocalTime::setFileTime() gives now, in seconds since the epoch.
qint64 stampNow()
{
    const QDateTime now = TLocalTime::currentDateTime();
    return now.toSecsSinceEpoch() - now.time().second();
}

// Whether path was stamped at a whole minute from the stamp before on.
bool isStamped(const QString &path, qint64 before)
{
    const qint64 time = status(path).st_mtime;
    return time >= before && time <= stampNow() && time % 60 == 0;
}

// Calls Unzip(archive, dir), Zip(archive, dir, files) or Zip(archive, files)
// for how = "unzip archive dir", "zip archive dir" or "zip archive", with only
// the directory bin on PATH when it is given.
bool callTar(const char *how, const QStringList &files = {}, const char *bin = nullptr)
{
    const QByteArray path = qgetenv("PATH");
    const auto restorePath = qScopeGuard([&] { qputenv("PATH", path); });
    if (bin)
        qputenv("PATH", QDir::current().absoluteFilePath(QLatin1String(bin)).toUtf8());
    const QStringList call = names(how);
    return call[0] == QLatin1String("unzip") ? TFileSystemHelper::Unzip(call[1], call[2])
            : call.size() == 2               ? TFileSystemHelper::Zip(call[1], files)
                                             : TFileSystemHelper::Zip(call[1], call[2], files);
}

} // namespace

// Answers a copy's progress calls, true but for call number abortAt
// (counting from 0), and checks that each reports bytes that had reached the
// copy at path by then.
class ProgressCounter : public QObject
{
    Q_OBJECT

public:
    QString path;
    int abortAt = -1;
    int calls = 0;
    qint64 total = 0;
    bool consistent = true;

    Q_INVOKABLE bool OnBytesWritten(qint64 bytes)
    {
        total += bytes;
        consistent = consistent && bytes > 0 && QFileInfo(path).size() == total;
        return calls++ != abortAt;
    }
};

// Each test works in a fresh temporary directory made the working directory.
class tst_FileSystem : public QObject
{
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_dir;
    const QString m_startDir = QDir::currentPath();

private slots:
    void initTestCase()
    {
        ::umask(022);
        // In UTC, with the offset clock 400 days back, so that a stamp stands
        // apart from the time a file was written.
        qputenv("TZ", "UTC");
        tzset();
        TLocalTime::SetOffset(-400 * 24 * 3600);
        // LeakSanitizer cannot inspect a process that is being traced.
        qputenv("ASAN_OPTIONS", qgetenv("ASAN_OPTIONS") + ":detect_leaks=0");
    }
    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        QVERIFY(QDir::setCurrent(m_dir->path()));
    }
    void cleanup() { QDir::setCurrent(m_startDir); }

    void nameChecks_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<bool>("valid");
        QTest::addColumn<QString>("madeValid"); // by GetValidFileName()
        QTest::newRow("plain") << "Report (final)" << true << "Report (final)";
        QTest::newRow("non-ASCII") << "Ärger中" << true << "Ärger中";
        QTest::newRow("empty") << QString() << false << QString();
        QTest::newRow("extension") << "report.txt" << false << "report_txt";
        QTest::newRow("dots at both ends") << ".hidden." << false << "_hidden_";
        for (const QChar c : "\\/:*?\"<>|"_s)
            QTest::addRow("contains %c", c.toLatin1()) << QString(c) + c << false << "__";
    }

    void nameChecks()
    {
        QFETCH(QString, name);
        QFETCH(bool, valid);
        QFETCH(QString, madeValid);
        QCOMPARE(TFileSystemHelper::IsValidFileName(name), valid);
        TFileSystemHelper::GetValidFileName(name);
        QCOMPARE(name, madeValid);
        QCOMPARE(TFileSystemHelper::IsValidFileName(name), !name.isEmpty());
    }

    void extensions_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("matched"); // A, U, L: by the any-, upper-, lower-case pattern
        QTest::addColumn<QString>("lowerCased");
        QTest::newRow("upper") << "/card/PHOTO.JPG" << QStringLiteral("AU-") << "/card/PHOTO.jpg";
        QTest::newRow("mixed") << "Notes.TxT" << QStringLiteral("A--") << "Notes.txt";
        QTest::newRow("lower") << "a.jpg" << QStringLiteral("A-L") << "a.jpg";
        QTest::newRow("only an extension") << ".ABC" << QStringLiteral("AU-") << ".abc";
        QTest::newRow("four letters") << "movie.MPEG" << QStringLiteral("---") << "movie.MPEG";
        QTest::newRow("digit") << "data.X1Y" << QStringLiteral("---") << "data.X1Y";
        QTest::newRow("not at the end") << "/DIR.ABC/f" << QStringLiteral("---") << "/DIR.ABC/f";
    }

    void extensions()
    {
        QFETCH(QString, path);
        QFETCH(QString, matched);
        QFETCH(QString, lowerCased);
        QRegExp patterns[] = { TFileSystemHelper::CaseInsensitiveFilenameExtensionRegExp(),
                               TFileSystemHelper::UpperCaseFilenameExtensionRegExp(),
                               TFileSystemHelper::LowerCaseFilenameExtensionRegExp() };
        for (QRegExp &pattern : patterns) {
            const bool matches = matched.at(&pattern - patterns) != u'-';
            QCOMPARE(pattern.indexIn(path), matches ? path.size() - 4 : -1);
            QCOMPARE(pattern.cap(1), matches ? path.right(3) : QString());
        }
        // Meanwhile another thread lower-cases another extension: a match
        // shared between threads would hand one the other's extension.
        std::atomic<bool> stop { false };
        std::thread other([&stop] {
            while (!stop)
                TFileSystemHelper::FileCopyLowerCaseDestFilename("/f.XYZ"_s);
        });
        const auto join = qScopeGuard([&] {
            stop = true;
            const HangWatch watch("the other lower-casing thread to stop"_s);
            other.join();
        });
        for (int round = 0; round < 5000; ++round)
            QCOMPARE(TFileSystemHelper::FileCopyLowerCaseDestFilename(path), lowerCased);
    }

    void digest_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<int>("size"); // written there first; -1: nothing written
        // Around the 128 KiB piece the file is read in, and well beyond it.
        for (int size : { 0, 1, 2048, 131071, 131072, 131073, 3 * 1024 * 1024 + 123 })
            QTest::addRow("%d bytes", size) << QStringLiteral("file") << size;
        // There is no error result: what cannot be read gives the digest of no data.
        QTest::newRow("missing file") << QStringLiteral("missing") << -1;
        QTest::newRow("directory") << QStringLiteral(".") << -1;
    }

    void digest()
    {
        QFETCH(QString, path);
        QFETCH(int, size);
        QByteArray expected("d41d8cd98f00b204e9800998ecf8427e");
        if (size >= 0) {
            QVERIFY(writeFile(path, randomBytes(size, quint32(size))));
            QCOMPARE(run({ "md5sum"_s, path }, &expected), 0);
            expected.truncate(32);
        }
        QCOMPARE(TFileHash::CalculateFileMD5(path).toHex(), expected);
    }

    void copies_data()
    {
        QTest::addColumn<int>("size");
        QTest::addColumn<bool>("stamp");
        QTest::addColumn<QString>("existing"); // in out/ before the copy
        QTest::addColumn<QString>("destination");
        QTest::addColumn<QString>("copy"); // the one entry of out/ after
        const QString old = "copy.bin"_s;
        // Empty, with no progress call, and past a flush, long enough for
        // several. (Copies around the chunk size are in systemCalls.)
        for (int size : { 0, 24 * 1024 * 1024 + 5 })
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
        QVERIFY(writeFile("source"_s, randomBytes(size)));
        QVERIFY(makeEntries("out"_s, existing.split(u' ')));
        QVERIFY(QDir().mkdir("elsewhere"_s));
        const qint64 before = stampNow();

        ProgressCounter counter;
        counter.path = "out/"_s + copy;
        QVERIFY(TFileSystemHelper::FileCopyWithProgress("source"_s, "out/"_s + destination,
                                                        &counter, "OnBytesWritten", stamp));
        QCOMPARE(snapshot("out"_s).keys(), QStringList { copy });
        QVERIFY(QDir("elsewhere"_s).isEmpty());
        copy.prepend("out/"_s);
        QVERIFY(!QFileInfo(copy).isSymLink());
        QCOMPARE(run({ "cmp"_s, "source"_s, copy }), 0);
        QCOMPARE(mode("source"_s), mode_t(0644));
        QCOMPARE(mode(copy), mode_t(0646));
        QCOMPARE(isStamped(copy, before), stamp);
        // Each progress call reports the bytes written since the previous one.
        QVERIFY(counter.consistent);
        QCOMPARE(counter.total, qint64(size));
    }

    void refused_data()
    {
        QTest::addColumn<QString>("source");
        QTest::addColumn<QString>("destination");
        QTest::addColumn<QString>("removed");
        QTest::addColumn<QString>("error"); // the errno name the copy tells
        // In the layout refused() makes, to-a links to a, hard is a hard link
        // to a and dir-link links to the directory itself.
        const QString none;
        const QString same = QStringLiteral("EINVAL");
        QTest::newRow("same path") << "a" << QStringLiteral("a") << none << same;
        QTest::newRow("same path, upper-case extension")
                << "P.JPG" << QStringLiteral("P.JPG") << none << same;
        QTest::newRow("destination links to the source")
                << "a" << QStringLiteral("to-a") << none << same;
        QTest::newRow("source links to the destination")
                << "to-a" << QStringLiteral("a") << none << same;
        QTest::newRow("hard link") << "a" << QStringLiteral("hard") << none << same;
        QTest::newRow("through a linked directory")
                << "a" << QStringLiteral("dir-link/a") << none << same;
        QTest::newRow("lower-cased extension")
                << "P.jpg" << QStringLiteral("P.JPG") << none << same;
        QTest::newRow("missing destination directory")
                << "a" << QStringLiteral("no/dir/copy") << none << QStringLiteral("ENOENT");
        QTest::newRow("destination is a directory")
                << "a" << QStringLiteral("out") << none << QStringLiteral("EISDIR");
        QTest::newRow("source is a directory")
                << "out" << QStringLiteral("copy") << none << QStringLiteral("EISDIR");
        // The old copy goes under both names even when the source is missing.
        QTest::newRow("missing source")
                << "missing" << QStringLiteral("P.JPG") << QStringLiteral("P.JPG P.jpg")
                << QStringLiteral("ENOENT");
    }

    void refused()
    {
        QFETCH(QString, source);
        QFETCH(QString, destination);
        QFETCH(QString, removed);
        QFETCH(QString, error);
        QVERIFY(makeEntries("."_s, names("a P.jpg P.JPG to-a->a dir-link->. out/keep")));
        QCOMPARE(::link("a", "hard"), 0);
        auto expected = snapshot("."_s);
        for (const QString &entry : removed.split(u' '))
            expected.remove(entry);

        int cause = 0;
        QVERIFY(!TFileSystemHelper::FileCopy(source, destination, true, &cause));
        QCOMPARE(QString::fromLatin1(::strerrorname_np(cause)), error);
        QCOMPARE(snapshot("."_s), expected);
    }

    void systemCalls_data()
    {
        QTest::addColumn<int>("size"); // of the source file; -1: a tree of 40 files
        // The calls on each copy, in order: w a write that wrote, s a flush.
        QTest::addColumn<QString>("calls");
        // Whether the kernel may copy (copy_file_range()); without it the
        // copy reads and writes, on the same schedule.
        QTest::addColumn<bool>("kernelCopy");
        for (const bool kernelCopy : { true, false }) {
            const char *how = kernelCopy ? "" : ", read and written";
            QTest::addRow("empty%s", how) << 0 << QString() << kernelCopy;
            QTest::addRow("10000 bytes%s", how) << 10000 << QStringLiteral("w+s") << kernelCopy;
            QTest::addRow("two whole chunks%s", how) << 8192 << QStringLiteral("w+s") << kernelCopy;
            // Flushed once 16,000,000 bytes are copied since the last flush
            // (in another thread, which may start it late), and at the end.
            QTest::addRow("20,000,000 bytes%s", how)
                    << 20000000 << QStringLiteral("w+sw*s") << kernelCopy;
            // CopyDir() leaves the last flush of each file to other threads:
            // each is flushed all the same, before the call returns.
            QTest::addRow("a tree%s", how) << -1 << QStringLiteral("w+s") << kernelCopy;
        }
    }

    void systemCalls()
    {
        QFETCH(int, size);
        QFETCH(QString, calls);
        QFETCH(bool, kernelCopy);
        const QString here = QDir::current().canonicalPath();
        QStringList copies; // where the copies are made, as the trace names them
        if (size >= 0) {
            QVERIFY(writeFile("source"_s, randomBytes(size)));
            copies << here + "/copy"_s;
        }
        for (int i = 0; size < 0 && i < 40; ++i) {
            const QString file = "/d%1/f%2"_s.arg(i % 3).arg(i);
            QVERIFY(writeFile("source"_s + file, randomBytes(5000 + i, quint32(i))));
            copies << here + "/copy"_s + file;
        }
        QByteArray output;
        const int exitCode = runProbe(names(kernelCopy ? "" : "env TRELLIS_PROBE_NO_KERNEL_COPY=1")
                                              + names("strace -f -qq -y -e trace=desc -o trace"),
                                      { here + "/source"_s, here + "/copy"_s }, &output);
        if (exitCode != 0 && !exists("trace"_s))
            QSKIP(qPrintable("strace cannot run here: "_s + QString::fromLocal8Bit(output)));
        if (!kernelCopy && exitCode == 3)
            QSKIP("no seccomp filter can refuse copy_file_range() here (an emulator?)");
        QCOMPARE(exitCode, 0);
        QCOMPARE(run(names("diff -r source copy")), 0);

        // Each call reads "pid call(fd<path>, ...) = result". One that
        // another thread's call interrupted is split in two:
        // "pid call(fd<path>, ... <unfinished ...>" and, later,
        // "pid <... call resumed>...) = result".
        const QRegularExpression started("^(?:(\\d+) +)?(\\w+)\\(\\d+<([^>]*)>"_s);
        const QRegularExpression resumed("^(?:(\\d+) +)?<\\.\\.\\. \\w+ resumed>"_s);
        // copy_file_range(in, offset, out, offset, ...) writes to its third argument.
        const QRegularExpression copiedTo("copy_file_range\\(\\d+<[^>]*>, [^,]*, \\d+<([^>]*)>"_s);
        const QRegularExpression wrote("\\) += [1-9]\\d*$"_s);
        const QStringList writes = names("write pwrite64 writev copy_file_range");
        QHash<QString, QString> unfinishedWrites, seen; // the copy by thread; the calls by copy
        for (const QString &line : names(readFile("trace"_s).constData(), '\n')) {
            const QRegularExpressionMatch start = started.match(line), end = resumed.match(line);
            const QRegularExpressionMatch copying = copiedTo.match(line);
            const QString path = copying.hasMatch() ? copying.captured(1) : start.captured(3);
            if (start.captured(2) == QLatin1String("fsync"))
                seen[path] += u's';
            else if (writes.contains(start.captured(2)) && line.endsWith("<unfinished ...>"_s))
                unfinishedWrites.insert(start.captured(1), path);
            else if (writes.contains(start.captured(2)) && wrote.match(line).hasMatch())
                seen[path] += u'w';
            else if (end.hasMatch() && unfinishedWrites.contains(end.captured(1)))
                seen[unfinishedWrites.take(end.captured(1))]
                        += wrote.match(line).hasMatch() ? "w"_s : QString();
        }
        const QRegularExpression expected(QRegularExpression::anchoredPattern(calls));
        for (const QString &copy : copies)
            QVERIFY2(expected.match(seen.value(copy)).hasMatch(),
                     qPrintable("%1: %2"_s.arg(copy, seen.value(copy))));
    }

    void failingPartWay()
    {
        const QByteArray contents = randomBytes(6 * 1024 * 1024);
        QVERIFY(writeFile("source"_s, contents));
        QVERIFY(QFile::setPermissions("source"_s, QFile::ReadOwner | QFile::WriteOwner));
        const QString sourceBefore = snapshot("."_s).value("source"_s);
        // The probe's files may not grow past 100,000 bytes.
        QCOMPARE(runProbe({}, names("source copy 100000")), 1);
        QCOMPARE(readFile("copy"_s), contents.left(100000));
        ProgressCounter counter;
        counter.path = "aborted"_s;
        counter.abortAt = 0;
        QVERIFY(!TFileSystemHelper::FileCopyWithProgress("source"_s, counter.path, &counter,
                                                         "OnBytesWritten", true));
        QCOMPARE(counter.calls, 1);
        QCOMPARE(readFile(counter.path), contents.left(int(counter.total)));
        // Both are left as far as they got, without the source's 0600 + 0002
        // or a stamp, and the source as it was.
        for (const QString &copy : { "copy"_s, counter.path })
            QVERIFY(mode(copy) == 0644 && status(copy).st_mtime > stampNow() + 60);
        QCOMPARE(snapshot("."_s).value("source"_s), sourceBefore);
    }

    void copyDir_data()
    {
        QTest::addColumn<QString>("entries"); // made besides the common ones
        QTest::addColumn<QString>("destination");
        QTest::addColumn<bool>("result");
        QTest::addColumn<QString>("copied"); // what the destination holds after
        QTest::addColumn<QString>("leftOut"); // what the copy says it left out
        // Overlapping trees are refused before anything is written.
        const QString none;
        QTest::newRow("the source itself") << none << "src" << false << none << none;
        QTest::newRow("inside the source") << none << "src/a/new" << false << none << none;
        QTest::newRow("inside, through a link") << none << "to-src/new" << false << none << none;
        // The kernel resolves "to-a/.." to src; a lexical reading would not.
        QTest::newRow("through a link and '..'") << none << "to-a/../new" << false << none << none;
        // A linked directory that would be copied into itself is not entered
        // and counts as a failed subdirectory: its parent's files stay behind.
        const QString dest = "dest"_s;
        const QString withoutA = "a a/inner a/inner/g b b/h old"_s;
        QTest::newRow("link to an ancestor") << "src/a/up->.." << dest << false << withoutA << none;
        QTest::newRow("link to the destination")
                << "src/a/o->../../dest" << dest << false << withoutA << none;
        // dest/a leads to src/b: copying src/a there would overwrite src/b.
        QTest::newRow("destination link into the source")
                << "dest/a->../src/b" << dest << false << QStringLiteral("a b b/h old") << none;
        // A file copy cannot replace a directory with contents.
        QTest::newRow("failing file")
                << "dest/a/f/blocker" << dest << false
                << QStringLiteral("a a/f a/f/blocker a/g a/inner a/inner/g b b/h old") << none;
        QTest::newRow("merged into the destination")
                << "dest/top" << dest << true
                << QStringLiteral("a a/f a/g a/inner a/inner/g b b/h old top") << none;
        // Names with a dot in front stay behind; links are copied as what
        // they lead to, but for a broken one; missing parents are made.
        QTest::newRow("new destination, links and hidden names")
                << "src/.hidden src/.hiddendir/f src/empty/ src/to-top->top src/broken->missing "
                   "src/linked-dir->../ext ext/e.txt"
                << "new/parents/dest" << true
                << QStringLiteral("a a/f a/g a/inner a/inner/g b b/h empty linked-dir "
                                  "linked-dir/e.txt to-top top")
                << QStringLiteral("src/.hidden src/.hiddendir src/broken");
    }

    void copyDir()
    {
        QFETCH(QString, entries);
        QFETCH(QString, destination);
        QFETCH(bool, result);
        QFETCH(QString, copied);
        QFETCH(QString, leftOut);
        entries += QStringLiteral(
                " src/top src/a/f src/a/g src/a/inner/g src/b/h dest/old to-src->src "
                "to-a->src/a");
        QVERIFY(makeEntries("."_s, entries.split(u' ', Qt::SkipEmptyParts)));
        const auto sourceBefore = snapshot("src"_s);
        const auto before = snapshot("."_s);
        const qint64 beforeStamp = stampNow();

        QStringList leftOutSeen;
        QCOMPARE(TFileSystemHelper::CopyDir("src"_s, destination, &leftOutSeen), result);
        QCOMPARE(leftOutSeen.join(u' '), leftOut);
        QCOMPARE(snapshot("src"_s), sourceBefore);
        if (copied.isEmpty()) { // refused
            QCOMPARE(snapshot("."_s), before);
            return;
        }
        QCOMPARE(snapshot(destination).keys(), copied.split(u' '));
        QVERIFY(isStamped(destination, beforeStamp));
        for (const QString &entry : copied.split(u' ')) {
            const QString copy = destination + u'/' + entry;
            const QString original = "src/"_s + entry;
            if (QFileInfo(copy).isFile() && exists(original))
                QCOMPARE(readFile(copy), readFile(original));
            if (result && exists(original)) // each copy is real and stamped
                QVERIFY2(!QFileInfo(copy).isSymLink() && isStamped(copy, beforeStamp),
                         qPrintable(entry));
        }
        if (result)
            QCOMPARE(run(names("diff -r -x .* -x broken -x old src") << destination), 0);
    }

    void deleteFiles_data()
    {
        QTest::addColumn<QStringList>("entries");
        QTest::addColumn<QString>("filter");
        QTest::addColumn<QString>("dir");
        QTest::addColumn<int>("code");
        QTest::addColumn<QStringList>("deleted");
        QTest::addColumn<QStringList>("left");
        const QStringList none;
        QTest::newRow("hidden files, directories and link targets stay")
                << names("b.log A.log c.LOG d.txt .x.log e.log/ f.log->d.txt") << "*.LOG"
                << "." << 1 << names("A.log b.log c.LOG f.log") << names(".x.log d.txt e.log");
        QTest::newRow("working directory")
                << names("a.log") << "*.log" << QString() << 1 << names("a.log") << none;
        QTest::newRow("subdirectory and broken link not seen")
                << names("sub/a.log gone.log->missing") << "*.log"
                << "." << 3 << none << names("gone.log sub sub/a.log");
        QTest::newRow("one pattern, not two") << names("a.log c.txt") << "*.log *.txt"
                                              << "." << 3 << none << names("a.log c.txt");
        QTest::newRow("unbalanced bracket matches nothing, silently")
                << names("a[b.log") << "a[b*"
                << "." << 3 << none << names("a[b.log");
        QTest::newRow("missing directory") << names("a.log") << "*"
                                           << "missing" << 4 << none << names("a.log");
        QTest::newRow("plain file") << names("a.log") << "*"
                                    << "a.log" << 4 << none << names("a.log");
        // In a sticky directory, only the owner of a file may remove it.
        if (::geteuid() == 0)
            QTest::newRow("some cannot be removed")
                    << names("a.log b.log c.log c.txt") << "*.log"
                    << "." << 2 << names("b.log") << names("a.log c.log c.txt");
    }

    void deleteFiles()
    {
        QFETCH(QStringList, entries);
        QFETCH(QString, filter);
        QFETCH(QString, dir);
        QFETCH(int, code);
        QFETCH(QStringList, deleted);
        QFETCH(QStringList, left);
        QVERIFY(makeEntries("."_s, entries));
        QStringList deletedFiles = names("stale entries");
        QStringList failedFiles = deletedFiles;
        if (code == 2) { // as the user "nobody", who owns only b.log
            QCOMPARE(::chmod(".", 01777) | ::chown("b.log", 65534, 65534), 0);
            ::setfsuid(65534);
        }
        static int messages;
        messages = 0;
        const QtMessageHandler previousHandler = qInstallMessageHandler(
                [](QtMsgType, const QMessageLogContext &, const QString &) { ++messages; });
        const int result = TFileSystemHelper::DeleteFiles(filter, dir, deletedFiles, failedFiles);
        qInstallMessageHandler(previousHandler);
        ::setfsuid(0);
        QCOMPARE(messages, 0); // nothing is logged
        QCOMPARE(result, code);
        QCOMPARE(deletedFiles, deleted);
        QCOMPARE(failedFiles, code == 2 ? names("a.log c.log") : QStringList());
        QCOMPARE(snapshot("."_s).keys(), left);
    }

    void deleteDirGeneric_data()
    {
        QTest::addColumn<QStringList>("entries");
        QTest::addColumn<bool>("ignoreErrors");
        QTest::addColumn<bool>("deleteRootDir");
        QTest::addColumn<bool>("result");
        QTest::addColumn<QStringList>("left"); // what must be left in the directory
        QTest::addColumn<QStringList>("gone"); // what must be gone (walk order decides the rest)
        // With links to a directory and a file outside the tree.
        const QStringList tree = names("f1 f2 sub/g sub/deeper/h sub/empty/ "
                                       "sub/to-dir->../../outside/dir to-o->../outside/o");
        const QStringList all
                = names("f1 f2 sub sub/deeper sub/deeper/h sub/empty sub/g sub/to-dir to-o");
        // More subdirectories than threads delete them.
        QStringList wide, wideAll;
        for (int i = 0; i < 40; ++i) {
            wide << QStringLiteral("w%1/x").arg(i) << QStringLiteral("w%1/d/y").arg(i);
            wideAll << QStringLiteral("w%1").arg(i) << QStringLiteral("w%1/x").arg(i);
        }
        for (bool root : { false, true }) {
            for (bool ignore : { false, true }) {
                const char *how = ignore ? (root ? "ignore, delete root" : "ignore, keep root")
                                         : (root ? "stop, delete root" : "stop, keep root");
                QTest::addRow("%s, clean tree", how)
                        << tree << ignore << root << true << QStringList() << all;
                // blocked cannot be removed: its .keep is not seen.
                QTest::addRow("%s, blocked subdirectory", how)
                        << tree + names("blocked/.keep blocked/x") << ignore << root
                        << (ignore && !root) << names("blocked blocked/.keep")
                        << (ignore ? all : QStringList()) + names("blocked/x");
                QTest::addRow("%s, many subdirectories, one blocked", how)
                        << wide + names("f1 blocked/.keep") << ignore << root << (ignore && !root)
                        << names("blocked blocked/.keep") << (ignore ? wideAll : QStringList());
                QTest::addRow("%s, hidden file at the top", how)
                        << tree + names(".keep") << ignore << root << !root << names(".keep")
                        << all;
            }
        }
    }

    void deleteDirGeneric()
    {
        QFETCH(QStringList, entries);
        QFETCH(bool, ignoreErrors);
        QFETCH(bool, deleteRootDir);
        QFETCH(bool, result);
        QFETCH(QStringList, left);
        QFETCH(QStringList, gone);
        QVERIFY(makeEntries("root"_s, entries));
        QVERIFY(QFile::setPermissions("root/f1"_s, {})); // no bits at all
        // Links inside the tree go as links; a hard-linked file keeps its mode.
        QVERIFY(makeEntries("."_s, names("outside/o outside/dir/p outside/hard")));
        const auto restore = qScopeGuard([] { ::chmod("outside/dir", 0700); });
        QCOMPARE(::chmod("outside/dir", 0500) | ::chmod("outside/o", 0404)
                         | ::chmod("outside/hard", 0440) | ::link("outside/hard", "root/hard"),
                 0);
        const auto outside = snapshot("outside"_s);

        QCOMPARE(TFileSystemHelper::DeleteDirGeneric("root"_s, ignoreErrors, deleteRootDir),
                 result);
        QCOMPARE(snapshot("outside"_s), outside);
        QCOMPARE(exists("root"_s), !deleteRootDir || !left.isEmpty());
        const auto after = snapshot("root"_s);
        for (const QString &entry : left)
            QVERIFY2(after.contains(entry), qPrintable(entry));
        for (const QString &entry : gone)
            QVERIFY2(!after.contains(entry), qPrintable(entry));
    }

    // Missing paths and plain files give true and stay as they are; a link at
    // the top names its target, which is emptied; the link stays.
    void deleteDirGenericWithoutATree()
    {
        QVERIFY(makeEntries("."_s, names("file dir/f top->dir")));
        const auto before = snapshot("."_s);
        for (const char *path : { "missing", "file" })
            QVERIFY(TFileSystemHelper::DeleteDirGeneric(QLatin1String(path), false, true));
        QCOMPARE(snapshot("."_s), before);
        QVERIFY(!TFileSystemHelper::DeleteDirGeneric("top"_s, false, true));
        QCOMPARE(snapshot("."_s).keys(), names("dir file top"));
    }

    void archiveRoundTrips_data()
    {
        QTest::addColumn<QByteArray>("pack"); // a Zip() call as callTar() takes it, or tar
        QTest::newRow("Zip relative to a base directory") << QByteArray("zip host:a.tgz base");
        QTest::newRow("Zip relative to the working directory") << QByteArray("zip ../a.tgz");
        QTest::newRow("tar packs, Unzip unpacks") << QByteArray("tar");
    }

    // Packed by one side, unpacked by the other and compared, with an archive
    // that tar could take for a remote one or for standard input, a target
    // directory and files whose names look like options: tar would run
    // "touch pwned" if the last reached it as options.
    void archiveRoundTrips()
    {
        QFETCH(QByteArray, pack);
        const QStringList files = names(
                "log|conf|a b*|--checkpoint=1|--checkpoint-action=exec=touch pwned|-v", '|');
        QVERIFY(writeFile("base/log"_s, randomBytes(70000)));
        QVERIFY(makeEntries("base"_s, names("conf/a.ini|conf/deep/b * ?.ini", '|') + files.mid(2)));
        QVERIFY(QDir().mkdir("-out"_s));
        if (pack == "tar") {
            QCOMPARE(run(names("tar -czf ./- -C base .")), 0);
            QVERIFY(callTar("unzip - -out"));
        } else {
            const bool inBase = pack.count(' ') == 1; // Zip(archive, files)
            QVERIFY(QDir::setCurrent(inBase ? "base"_s : m_dir->path()));
            QVERIFY(callTar(pack.constData(), files));
            QVERIFY(QDir::setCurrent(m_dir->path()));
            const QString archive
                    = "./"_s + QFileInfo(QString::fromUtf8(pack.split(' ')[1])).fileName();
            // Entries relative to the base, only the names tar would take for
            // options with "./"; the names with a space and a '*' as they stand.
            QByteArray listing;
            QCOMPARE(run({ "tar"_s, "-tzf"_s, archive }, &listing), 0);
            QStringList members = names(listing.constData(), '\n');
            members.sort();
            QCOMPARE(
                    members,
                    names("./--checkpoint-action=exec=touch pwned|./--checkpoint=1|./-v|a b*|conf/|"
                          "conf/a.ini|conf/deep/|conf/deep/b * ?.ini|log",
                          '|'));
            QCOMPARE(run(names("tar -xzf") << archive << names("-C -out")), 0);
        }
        QCOMPARE(run(names("diff -r base ./-out")), 0);
        QVERIFY(!exists("pwned"_s) && !exists("base/pwned"_s));
    }

    void archiveResults()
    {
        // tar ending with an error still gives true; tar not found gives false.
        QVERIFY(callTar("unzip missing.tgz out"));
        QVERIFY(callTar("zip empty.tgz base"));
        QVERIFY(QDir().mkdir("emptybin"_s));
        QVERIFY(!callTar("zip a.tgz", names("log"), "emptybin"));
        QVERIFY(!callTar("unzip a.tgz out", {}, "emptybin"));
        // tar still running after 30 seconds (the test waits them out) is killed.
        QVERIFY(writeFile("fakebin/tar"_s,
                          "#!/bin/sh\necho $$ > pid\nexec "
                                  + QFile::encodeName(QStandardPaths::findExecutable("sleep"_s))
                                  + " 120\n"));
        QCOMPARE(::chmod("fakebin/tar", 0700), 0);
        QVERIFY(!callTar("unzip a.tgz out", {}, "fakebin"));
        const pid_t pid = readFile("pid"_s).trimmed().toInt();
        QVERIFY(pid > 0 && ::kill(pid, 0) == -1 && errno == ESRCH);
    }
};

QTEST_GUILESS_MAIN(tst_FileSystem)
#include "tst_filesystem.moc"
