#include "FileTestSupport.h"
#include "programcommand.h"

#include <Trellis/TFileHash.h>
#include <Trellis/TFileSystemHelper.h>
#include <Trellis/TLocalTime.h>

#include <QtTest>

#include <cerrno>
#include <csignal>
#include <cstring>
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
    const QString probe = QCoreApplication::applicationDirPath() + "/filecopy_probe"_s;
    return run(prefix + programCommand(probe) + arguments, output);
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

} // namespace

// Answers a copy's progress calls, true but for call number abortAt
// (counting from 0), and checks that each reports bytes that had reached the
// copy at path by then.
class ProgressCounter : public QObject
{
    Q_OBJECT

public:
    QString path;
    int abortAt = -1, calls = 0;
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

    // A name is valid when making it valid changes nothing and leaves it not
    // empty; the result of making a name valid is valid unless empty.
    void nameChecks_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("madeValid"); // by GetValidFileName()
        for (const QString &row : names("Report (final)=Report (final)|Ärger中=Ärger中|=|"
                                        "report.txt=report_txt|.hidden.=_hidden_",
                                        '|'))
            QTest::newRow(qPrintable(row)) << row.section(u'=', 0, 0) << row.section(u'=', 1);
        for (const QChar c : "\\/:*?\"<>|"_s)
            QTest::addRow("contains %c", c.toLatin1()) << QString(c) + c << "__"_s;
    }

    void nameChecks()
    {
        QFETCH(QString, name);
        QFETCH(QString, madeValid);
        QCOMPARE(TFileSystemHelper::IsValidFileName(name), name == madeValid && !name.isEmpty());
        TFileSystemHelper::GetValidFileName(name);
        QCOMPARE(name, madeValid);
        QCOMPARE(TFileSystemHelper::IsValidFileName(name), !name.isEmpty());
    }

    void extensions_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("matched"); // A, U, L: by the any-, upper-, lower-case pattern
        QTest::addColumn<QString>("lowerCased");
        for (const QString &row :
             names("/card/PHOTO.JPG AU- /card/PHOTO.jpg|Notes.TxT A-- Notes.txt|"
                   "a.jpg A-L a.jpg|.ABC AU- .abc|movie.MPEG --- movie.MPEG|"
                   "data.X1Y --- data.X1Y|/DIR.ABC/f --- /DIR.ABC/f",
                   '|'))
            QTest::newRow(qPrintable(row.section(u' ', 0, 0)))
                    << row.section(u' ', 0, 0) << row.section(u' ', 1, 1) << row.section(u' ', 2);
    }

    // Each pattern captures a three-letter extension of its case at the end.
    // Meanwhile another thread lower-cases another extension: a match shared
    // between threads would hand one the other's extension.
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

    // The digest is md5sum's, of an empty file, of files that end on either
    // side of where the padding needs a block of its own (55/56 bytes) and
    // of a block's end, of files that end around a read's end (128 KiB), and
    // of one read in many pieces. There is no error result: what cannot be
    // read gives the digest of no data.
    void digest()
    {
        for (const QString &path :
             names("0 1 55 56 63 64 65 119 120 131071 131072 131073 3145851 missing .")) {
            QByteArray expected("d41d8cd98f00b204e9800998ecf8427e");
            if (path.at(0).isDigit() && writeFile(path, randomBytes(path.toInt(), path.toUInt())))
                QCOMPARE(run({ "md5sum"_s, path }, &expected), 0);
            QCOMPARE(TFileHash::CalculateFileMD5(path).toHex(), expected.left(32));
        }
    }

    void copies_data()
    {
        QTest::addColumn<int>("size");
        QTest::addColumn<bool>("stamp");
        QTest::addColumn<QString>("existing"); // in out/ before the copy
        QTest::addColumn<QString>("destination");
        QTest::addColumn<QString>("copy"); // the one entry of out/ after
        const QString old = "copy.bin"_s;
        // Empty, with no progress call, and past a flush, long enough for several.
        for (int size : { 0, 24 * 1024 * 1024 + 5 })
            QTest::addRow("%d bytes", size) << size << true << old << old << old;
        QTest::newRow("not stamped") << 10000 << false << old << old << old;
        QTest::newRow("extension lower-cased") << 5000 << true << "PHOTO.JPG PHOTO.jpg"_s
                                               << "PHOTO.JPG"_s
                                               << "PHOTO.jpg"_s;
        // The Kelvin sign's lower case is k: it is one of the rule's letters.
        QTest::newRow("extension beyond ASCII lower-cased") << 5000 << true << "x.\u212aAB x.kab"_s
                                                            << "x.\u212aAB"_s
                                                            << "x.kab"_s;
        // A link there, even to a missing file, is removed, not written through.
        QTest::newRow("link at the destination")
                << 5000 << true << "copy.bin->../elsewhere/target"_s << old << old;
    }

    // The copy has the source's bytes, its mode plus write for others and,
    // when asked, the offset clock's minute; each progress call reports the
    // bytes written since the previous one, and all add up to the size.
    void copies()
    {
        QFETCH(int, size);
        QFETCH(bool, stamp);
        QFETCH(QString, existing);
        QFETCH(QString, destination);
        QFETCH(QString, copy);
        if (QFile::decodeName(QFile::encodeName(destination)) != destination)
            QSKIP("The locale's encoding cannot represent the name");
        QVERIFY(writeFile("source"_s, randomBytes(size))
                && makeEntries("out"_s, existing.split(u' ')) && QDir().mkdir("elsewhere"_s));
        const qint64 before = stampNow();
        ProgressCounter counter;
        counter.path = "out/"_s + copy;
        QVERIFY(TFileSystemHelper::FileCopyWithProgress("source"_s, "out/"_s + destination,
                                                        &counter, "OnBytesWritten", stamp));
        QVERIFY(snapshot("out"_s).keys() == QStringList { copy } && QDir("elsewhere"_s).isEmpty());
        QVERIFY(!QFileInfo(counter.path).isSymLink() && mode("source"_s) == 0644
                && mode(counter.path) == 0646);
        QCOMPARE(run({ "cmp"_s, "source"_s, counter.path }), 0);
        QCOMPARE(isStamped(counter.path, before), stamp);
        QVERIFY(counter.consistent && counter.total == size);
    }

    // Each row: source, destination, the errno name the copy tells, then
    // what it removes. In the layout made, to-a links to a, hard is a hard
    // link to a and dir-link links to the directory itself. The old copy goes
    // under both names even when the source is missing.
    void refused_data()
    {
        QTest::addColumn<QString>("row");
        for (const char *row :
             { "same path: a a EINVAL", "same path, upper-case extension: P.JPG P.JPG EINVAL",
               "destination links to the source: a to-a EINVAL",
               "source links to the destination: to-a a EINVAL", "hard link: a hard EINVAL",
               "through a linked directory: a dir-link/a EINVAL",
               "lower-cased extension: P.jpg P.JPG EINVAL",
               "missing destination directory: a no/dir/copy ENOENT",
               "destination is a directory: a out EISDIR", "source is a directory: out copy EISDIR",
               "missing source: missing P.JPG ENOENT P.JPG P.jpg" })
            QTest::newRow(row) << QString::fromLatin1(row).section(u':', 1);
    }

    void refused()
    {
        QFETCH(QString, row);
        const QStringList words = row.split(u' ', Qt::SkipEmptyParts);
        QVERIFY(makeEntries("."_s, names("a P.jpg P.JPG to-a->a dir-link->. out/keep"))
                && ::link("a", "hard") == 0);
        auto expected = snapshot("."_s);
        for (const QString &entry : words.mid(3))
            expected.remove(entry);
        int cause = 0;
        QVERIFY(!TFileSystemHelper::FileCopy(words[0], words[1], true, &cause));
        QCOMPARE(QString::fromLatin1(::strerrorname_np(cause)), words[2]);
        QCOMPARE(snapshot("."_s), expected);
    }

    void systemCalls_data()
    {
        QTest::addColumn<int>("size"); // of the source file; -1: a tree of 40 files
        // Whether the kernel may copy (copy_file_range()); without it the
        // copy reads and writes, on the same schedule.
        QTest::addColumn<bool>("kernelCopy");
        QTest::newRow("empty") << 0 << true;
        QTest::newRow("10000 bytes") << 10000 << true;
        QTest::newRow("20,000,000 bytes") << 20000000 << true;
        QTest::newRow("20,000,000 bytes, read and written") << 20000000 << false;
        // CopyDir() leaves the last flush of each file to other threads: each
        // is flushed all the same, before the call returns.
        QTest::newRow("a tree") << -1 << true;
    }

    // Each copy is flushed once the chunk that brings it past 16,000,000
    // bytes since the last flush is written (another thread flushes, and may
    // start late), and after its last chunk; an empty one never. The calls
    // are read from a trace of the probe's copy.
    void systemCalls()
    {
        QFETCH(int, size);
        QFETCH(bool, kernelCopy);
        const QString here = QDir::current().canonicalPath();
        QStringList copies; // where the copies are made, as the trace names them
        for (int i = 0; i < (size < 0 ? 40 : 1); ++i) {
            const QString file = size < 0 ? "/d%1/f%2"_s.arg(i % 3).arg(i) : QString();
            QVERIFY(writeFile("source"_s + file,
                              randomBytes(size < 0 ? 5000 + i : size, quint32(i))));
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
        // copy_file_range(in, offset, out, offset, ...) writes to its third argument.
        const QRegularExpression call(
                "^(\\d+) +(?:(\\w+)\\((?:\\d+<[^>]*>, [^,]*, )?\\d+<([^>]*)>|<\\.\\.\\. (\\w+) resumed>)"_s);
        const QRegularExpression wrote("\\) += (\\d+)$"_s);
        const QStringList writes = names("write pwrite64 writev copy_file_range");
        QHash<QString, QString> unfinished; // the copy an interrupted write goes to, by thread
        QHash<QString, qint64> written; // bytes written to each copy so far
        QHash<QString, QList<qint64>> flushes; // bytes written to each copy when each flush began
        for (const QString &line : names(readFile("trace"_s).constData(), '\n')) {
            const QRegularExpressionMatch match = call.match(line);
            const QString name = match.captured(2), thread = match.captured(1);
            const qint64 bytes = wrote.match(line).captured(1).toLongLong();
            if (name == QLatin1String("fsync"))
                flushes[match.captured(3)] << written[match.captured(3)];
            else if (writes.contains(name) && line.endsWith("<unfinished ...>"_s))
                unfinished.insert(thread, match.captured(3));
            else if (writes.contains(name) || writes.contains(match.captured(4)))
                written[name.isEmpty() ? unfinished.take(thread) : match.captured(3)] += bytes;
        }
        for (const QString &copy : copies) {
            const qint64 total = QFileInfo(copy).size();
            const QList<qint64> seen = flushes.value(copy);
            const bool asDue = total == 0
                    ? seen.isEmpty()
                    : seen.size() == (total > 16003072 ? 2 : 1) && seen.last() == total
                            && seen.first() >= qMin(total, qint64(16003072));
            QStringList at;
            for (const qint64 bytes : seen)
                at << QString::number(bytes);
            QVERIFY2(asDue && written.value(copy) == total,
                     qPrintable("%1: %2 bytes written, flushes after %3"_s.arg(copy)
                                        .arg(written.value(copy))
                                        .arg(at.join(u' '))));
        }
    }

    // A copy that fails part way, at a write beyond the probe's file size
    // limit of 100,000 bytes or at a progress call that aborts it, is left as
    // far as it got, without the source's 0600 + 0002 or a stamp, and the
    // source as it was.
    void failingPartWay()
    {
        const QByteArray contents = randomBytes(6 * 1024 * 1024);
        QVERIFY(writeFile("source"_s, contents) && ::chmod("source", 0600) == 0);
        const QString sourceBefore = snapshot("."_s).value("source"_s);
        QCOMPARE(runProbe({}, names("source copy 100000")), 1);
        ProgressCounter counter;
        counter.path = "aborted"_s, counter.abortAt = 0;
        QVERIFY(!TFileSystemHelper::FileCopyWithProgress("source"_s, counter.path, &counter,
                                                         "OnBytesWritten", true));
        QVERIFY(counter.calls == 1 && readFile("copy"_s) == contents.left(100000)
                && readFile(counter.path) == contents.left(int(counter.total)));
        for (const QString &copy : { "copy"_s, counter.path })
            QVERIFY(mode(copy) == 0644 && status(copy).st_mtime > stampNow() + 60);
        QCOMPARE(snapshot("."_s).value("source"_s), sourceBefore);
    }

    // Each row: the entries made besides the common ones | the destination |
    // the result | what the destination holds after, none when refused |
    // what the copy says it left out.
    void copyDir_data()
    {
        QTest::addColumn<QString>("row");
        const char *rows[][2] = {
            // Overlapping trees are refused before anything is written. The
            // kernel resolves "to-a/.." to src; a lexical reading would not.
            { "the source itself", "|src|0||" },
            { "inside, through a link", "|to-src/new|0||" },
            { "through a link and '..'", "|to-a/../new|0||" },
            // A linked directory that would be copied into itself is not entered
            // and counts as a failed subdirectory: its parent's files stay behind.
            { "link to an ancestor", "src/a/up->..|dest|0|a a/inner a/inner/g b b/h old|" },
            { "link to the destination",
              "src/a/o->../../dest|dest|0|a a/inner a/inner/g b b/h old|" },
            // dest/a leads to src/b: copying src/a there would overwrite src/b.
            { "destination link into the source", "dest/a->../src/b|dest|0|a b b/h old|" },
            // A file copy cannot replace a directory with contents.
            { "failing file",
              "dest/a/f/blocker|dest|0|a a/f a/f/blocker a/g a/inner a/inner/g b b/h old|" },
            { "merged into the destination",
              "dest/top|dest|1|a a/f a/g a/inner a/inner/g b b/h old top|" },
            // Names with a dot in front stay behind; links are copied as what
            // they lead to, but for a broken one; missing parents are made.
            { "new destination, links and hidden names",
              "src/.hidden src/.hiddendir/f src/empty/ src/to-top->top src/broken->missing "
              "src/linked-dir->../ext "
              "ext/e.txt|new/parents/dest|1|a a/f a/g a/inner a/inner/g b b/h empty linked-dir "
              "linked-dir/e.txt "
              "to-top top|src/.hidden src/.hiddendir src/broken" },
        };
        for (const auto &row : rows)
            QTest::newRow(row[0]) << QString::fromUtf8(row[1]);
    }

    // The source is never changed. What is copied is a real file or
    // directory with the source's contents, stamped; diff -r agrees.
    void copyDir()
    {
        QFETCH(QString, row);
        const QStringList part = row.split(u'|');
        const QString entries = part[0], destination = part[1], copied = part[3], leftOut = part[4];
        const bool result = part[2] == u'1';
        QVERIFY(makeEntries(
                "."_s,
                (entries
                 + " src/top src/a/f src/a/g src/a/inner/g src/b/h dest/old to-src->src to-a->src/a"_s)
                        .split(u' ', Qt::SkipEmptyParts)));
        const auto sourceBefore = snapshot("src"_s), before = snapshot("."_s);
        const qint64 beforeStamp = stampNow();
        QStringList leftOutSeen;
        QCOMPARE(TFileSystemHelper::CopyDir("src"_s, destination, &leftOutSeen), result);
        QCOMPARE(leftOutSeen.join(u' '), leftOut);
        QCOMPARE(snapshot("src"_s), sourceBefore);
        if (copied.isEmpty())
            QCOMPARE(snapshot("."_s), before);
        if (copied.isEmpty())
            return;
        QCOMPARE(snapshot(destination).keys(), copied.split(u' '));
        QVERIFY(isStamped(destination, beforeStamp));
        for (const QString &entry : copied.split(u' ')) {
            const QString copy = destination + u'/' + entry, original = "src/"_s + entry;
            QVERIFY2(!exists(original) || !QFileInfo(copy).isFile()
                             || readFile(copy) == readFile(original),
                     qPrintable(entry));
            // Each copy is real and stamped.
            QVERIFY2(!result || !exists(original)
                             || (!QFileInfo(copy).isSymLink() && isStamped(copy, beforeStamp)),
                     qPrintable(entry));
        }
        QVERIFY(!result || run(names("diff -r -x .* -x broken -x old src") << destination) == 0);
    }

    // Each row: the entries made, then ": filter, directory = code:", then the
    // files reported deleted and, after "|", what is left. Hidden files,
    // directories, link targets and subdirectories are left alone; the filter
    // is one pattern, and one that cannot be read matches nothing.
    void deleteFiles_data()
    {
        QTest::addColumn<QString>("row");
        for (const char *row :
             { "b.log A.log c.LOG d.txt .x.log e.log/ f.log->d.txt: *.LOG, . = 1: A.log b.log "
               "c.LOG f.log | .x.log d.txt e.log",
               "a.log: *.log,  = 1: a.log |",
               "sub/a.log gone.log->missing: *.log, . = 3: | gone.log sub sub/a.log",
               "a.log c.txt: *.log *.txt, . = 3: | a.log c.txt", "a[b.log: a[b*, . = 3: | a[b.log",
               "a.log: *, missing = 4: | a.log", "a.log: *, a.log = 4: | a.log",
               // In a sticky directory, only the owner of a file may remove
               // it: the user nobody owns only b.log.
               "a.log b.log c.log c.txt: *.log, . = 2: b.log | a.log c.log c.txt" })
            QTest::newRow(row) << QString::fromUtf8(row);
    }

    void deleteFiles()
    {
        QFETCH(QString, row);
        const QStringList part = row.split(u':');
        const int code = part[1].section(u'=', 1).toInt();
        if (code == 2 && ::geteuid() != 0)
            QSKIP("only root can act as the user nobody");
        QVERIFY(makeEntries("."_s, part[0].split(u' ')));
        QStringList deleted = names("stale entries"), failed = deleted;
        if (code == 2) {
            QCOMPARE(::chmod(".", 01777) | ::chown("b.log", 65534, 65534), 0);
            ::setfsuid(65534);
        }
        static int messages;
        messages = 0;
        const QtMessageHandler previousHandler = qInstallMessageHandler(
                [](QtMsgType, const QMessageLogContext &, const QString &) { ++messages; });
        const int result = TFileSystemHelper::DeleteFiles(
                part[1].section(u',', 0, 0).trimmed(),
                part[1].section(u',', 1).section(u'=', 0, 0).trimmed(), deleted, failed);
        qInstallMessageHandler(previousHandler);
        ::setfsuid(0);
        QCOMPARE(messages, 0); // nothing is logged
        QCOMPARE(result, code);
        QCOMPARE(deleted.join(u' '), part[2].section(u'|', 0, 0).trimmed());
        QCOMPARE(failed.join(u' '), code == 2 ? "a.log c.log"_s : QString());
        QCOMPARE(snapshot("."_s).keys().join(u' '), part[2].section(u'|', 1).trimmed());
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
                                       "sub/to-dir->../../outside/dir to-o->../outside/o"),
                          all
                = names("f1 f2 sub sub/deeper sub/deeper/h sub/empty sub/g sub/to-dir to-o");
        // More subdirectories than threads delete them.
        QStringList wide, wideAll;
        for (int i = 0; i < 40; ++i)
            wide << "w%1/x"_s.arg(i) << "w%1/d/y"_s.arg(i),
                    wideAll << "w%1"_s.arg(i) << "w%1/x"_s.arg(i);
        for (int how = 0; how < 4; ++how) {
            const bool ignore = how & 1, root = how & 2;
            const char *tag = ignore ? (root ? "ignore, delete root" : "ignore, keep root")
                                     : (root ? "stop, delete root" : "stop, keep root");
            QTest::addRow("%s, clean tree", tag)
                    << tree << ignore << root << true << QStringList() << all;
            // blocked cannot be removed: its .keep is not seen.
            QTest::addRow("%s, blocked subdirectory", tag)
                    << tree + names("blocked/.keep blocked/x") << ignore << root
                    << (ignore && !root) << names("blocked blocked/.keep")
                    << (ignore ? all : QStringList()) + names("blocked/x");
            QTest::addRow("%s, many subdirectories, one blocked", tag)
                    << wide + names("f1 blocked/.keep") << ignore << root << (ignore && !root)
                    << names("blocked blocked/.keep") << (ignore ? wideAll : QStringList());
            QTest::addRow("%s, hidden file at the top", tag)
                    << tree + names(".keep") << ignore << root << !root << names(".keep") << all;
        }
    }

    // Links inside the tree go as links, what they lead to stays; a
    // hard-linked file keeps its mode; a file without any permission goes.
    void deleteDirGeneric()
    {
        QFETCH(QStringList, entries);
        QFETCH(bool, ignoreErrors);
        QFETCH(bool, deleteRootDir);
        QFETCH(bool, result);
        QFETCH(QStringList, left);
        QFETCH(QStringList, gone);
        QVERIFY(makeEntries("root"_s, entries)
                && makeEntries("."_s, names("outside/o outside/dir/p outside/hard")));
        const auto restore = qScopeGuard([] { ::chmod("outside/dir", 0700); });
        QCOMPARE(::chmod("root/f1", 0) | ::chmod("outside/dir", 0500) | ::chmod("outside/o", 0404)
                         | ::chmod("outside/hard", 0440) | ::link("outside/hard", "root/hard"),
                 0);
        const auto outside = snapshot("outside"_s);
        QCOMPARE(TFileSystemHelper::DeleteDirGeneric("root"_s, ignoreErrors, deleteRootDir),
                 result);
        QCOMPARE(snapshot("outside"_s), outside);
        QCOMPARE(exists("root"_s), !deleteRootDir || !left.isEmpty());
        const auto after = snapshot("root"_s);
        for (const QString &entry : left + gone)
            QVERIFY2(after.contains(entry) == left.contains(entry), qPrintable(entry));
    }

    // Missing paths and plain files give true and stay as they are; a link at
    // the top names its target, which is emptied; the link stays.
    void deleteDirGenericWithoutATree()
    {
        QVERIFY(makeEntries("."_s, names("file dir/f top->dir")));
        const auto before = snapshot("."_s);
        QVERIFY(TFileSystemHelper::DeleteDirGeneric("missing"_s, false, true)
                && TFileSystemHelper::DeleteDirGeneric("file"_s, false, true));
        QCOMPARE(snapshot("."_s), before);
        QVERIFY(!TFileSystemHelper::DeleteDirGeneric("top"_s, false, true));
        QCOMPARE(snapshot("."_s).keys(), names("dir file top"));
    }

    // Packed by one side, unpacked by the other and compared, with an archive
    // that tar could take for a remote one or for standard input, a target
    // directory and files whose names look like options: tar would run
    // "touch pwned" if the last reached it as options. Zip() packs relative
    // to a base directory and to the working directory; tar packs, Unzip()
    // unpacks.
    void archiveRoundTrips()
    {
        const QStringList files = names(
                "log|conf|a b*|--checkpoint=1|--checkpoint-action=exec=touch pwned|-v", '|');
        QVERIFY(writeFile("base/log"_s, randomBytes(70000))
                && makeEntries("base"_s,
                               names("conf/a.ini|conf/deep/b * ?.ini", '|') + files.mid(2)));
        QVERIFY(TFileSystemHelper::Zip("host:a.tgz"_s, "base"_s, files));
        QVERIFY(QDir::setCurrent("base"_s) && TFileSystemHelper::Zip("../b.tgz"_s, files)
                && QDir::setCurrent(".."_s));
        QCOMPARE(run(names("tar -czf ./- -C base .")), 0);
        for (const QString &archive : { "./host:a.tgz"_s, "./b.tgz"_s, "-"_s }) {
            QVERIFY(QDir("-out"_s).removeRecursively() && QDir().mkdir("-out"_s));
            if (archive == "-"_s) {
                QVERIFY(TFileSystemHelper::Unzip(archive, "-out"_s));
            } else {
                // Entries relative to the base, only the names tar would take for
                // options with "./"; the names with a space and a '*' as they stand.
                QByteArray listing;
                QCOMPARE(run({ "tar"_s, "-tzf"_s, archive }, &listing), 0);
                QStringList members = names(listing.constData(), '\n');
                members.sort();
                QCOMPARE(members,
                         names("./--checkpoint-action=exec=touch pwned|./--checkpoint=1|./-v|a "
                               "b*|conf/|"
                               "conf/a.ini|conf/deep/|conf/deep/b * ?.ini|log",
                               '|'));
                QCOMPARE(run(names("tar -xzf") << archive << names("-C -out")), 0);
            }
            QVERIFY2(run(names("diff -r base ./-out")) == 0, qPrintable(archive));
        }
        QVERIFY(!exists("pwned"_s) && !exists("base/pwned"_s));
    }

    // tar ending with an error still gives true; tar not found gives false;
    // tar still running after 30 seconds (the test waits them out) is killed.
    void archiveResults()
    {
        QVERIFY(TFileSystemHelper::Unzip("missing.tgz"_s, "out"_s)
                && TFileSystemHelper::Zip("empty.tgz"_s, "base"_s, {}));
        const QByteArray path = qgetenv("PATH"),
                         sleep = QFile::encodeName(QStandardPaths::findExecutable("sleep"_s));
        const auto restorePath = qScopeGuard([&] { qputenv("PATH", path); });
        QVERIFY(QDir().mkdir("emptybin"_s)
                && qputenv("PATH",
                           QFile::encodeName(QDir::current().absoluteFilePath("emptybin"_s))));
        QVERIFY(!TFileSystemHelper::Zip("a.tgz"_s, names("log"))
                && !TFileSystemHelper::Unzip("a.tgz"_s, "out"_s));
        QVERIFY(writeFile("fakebin/tar"_s, "#!/bin/sh\necho $$ > pid\nexec " + sleep + " 120\n")
                && ::chmod("fakebin/tar", 0700) == 0);
        QVERIFY(qputenv("PATH", QFile::encodeName(QDir::current().absoluteFilePath("fakebin"_s))));
        QVERIFY(!TFileSystemHelper::Unzip("a.tgz"_s, "out"_s));
        const pid_t pid = readFile("pid"_s).trimmed().toInt();
        QVERIFY(pid > 0 && ::kill(pid, 0) == -1 && errno == ESRCH);
    }
};

QTEST_GUILESS_MAIN(tst_FileSystem)
#include "tst_filesystem.moc"
