#include "FileTestSupport.h"

#include <Trellis/TFileSystemHelper.h>

#include <QtTest>

#include <cstring>

#include <unistd.h>

// Answers a copy's progress calls, true but for call number abortAt
// (counting from 0), and checks that each reports bytes that had reached the
// copy at path by then. At the first call it appends added to the file
// "source": the copy reads on to the end, not to the size it saw.
class ProgressCounter : public QObject
{
    Q_OBJECT

public:
    QString path;
    QByteArray added;
    int abortAt = -1, calls = 0;
    qint64 total = 0;
    bool consistent = true;

    Q_INVOKABLE bool OnBytesWritten(qint64 bytes)
    {
        total += bytes;
        consistent = consistent && bytes > 0 && QFileInfo(path).size() == total;
        if (calls == 0 && !added.isEmpty()) {
            QFile source("source"_s);
            consistent = consistent && source.open(QIODevice::Append)
                    && source.write(added) == added.size();
        }
        return calls++ != abortAt;
    }
};

// The copy of one file: its contents, mode, stamp and progress calls, sources
// that grow or whose size tells nothing, what it refuses to copy, the system
// calls that flush it, and what a copy that fails part way leaves.
class tst_FileCopy : public FileTestCase
{
    Q_OBJECT

private slots:
    void copies_data()
    {
        QTest::addColumn<int>("size");
        QTest::addColumn<int>("added"); // to the source at the first progress call
        QTest::addColumn<bool>("stamp");
        QTest::addColumn<QString>("existing"); // in out/ before the copy
        QTest::addColumn<QString>("destination");
        QTest::addColumn<QString>("copy"); // the one entry of out/ after
        const QString old = "copy.bin"_s;
        // Empty, with no progress call, and past a flush, long enough for several.
        for (int size : { 0, 24 * 1024 * 1024 + 5 })
            QTest::addRow("%d bytes", size) << size << 0 << true << old << old << old;
        QTest::newRow("not stamped") << 10000 << 0 << false << old << old << old;
        // The first call of a small file's copy comes at its last chunk,
        // unless the machine is slow enough to make it come earlier.
        QTest::newRow("grows by less than a chunk") << 10000 << 5000 << true << old << old << old;
        QTest::newRow("grows by several chunks") << 10000 << 9000 << true << old << old << old;
        QTest::newRow("grows from one chunk") << 4096 << 1 << true << old << old << old;
        QTest::newRow("extension lower-cased") << 5000 << 0 << true << "PHOTO.JPG PHOTO.jpg"_s
                                               << "PHOTO.JPG"_s
                                               << "PHOTO.jpg"_s;
        // The Kelvin sign's lower case is k: it is one of the rule's letters.
        QTest::newRow("extension beyond ASCII lower-cased")
                << 5000 << 0 << true << "x.\u212aAB x.kab"_s
                << "x.\u212aAB"_s
                << "x.kab"_s;
        // A link there, even to a missing file, is removed, not written through.
        QTest::newRow("link at the destination")
                << 5000 << 0 << true << "copy.bin->../elsewhere/target"_s << old << old;
    }

    // The copy has the source's bytes, its mode plus write for others and,
    // when asked, the offset clock's minute; each progress call reports the
    // bytes written since the previous one, and all add up to the size.
    void copies()
    {
        QFETCH(int, size);
        QFETCH(int, added);
        QFETCH(bool, stamp);
        QFETCH(QString, existing);
        QFETCH(QString, destination);
        QFETCH(QString, copy);
        if (QFile::decodeName(QFile::encodeName(destination)) != destination)
            QSKIP("The locale's encoding cannot represent the name");
        QVERIFY(writeFile("source"_s, randomBytes(size)) && makeTree("out"_s, existing)
                && QDir().mkdir("elsewhere"_s));
        const qint64 before = stampNow();
        ProgressCounter counter;
        counter.path = "out/"_s + copy;
        counter.added = QByteArray(added, 'b');
        QVERIFY(TFileSystemHelper::FileCopyWithProgress("source"_s, "out/"_s + destination,
                                                        &counter, "OnBytesWritten", stamp));
        QVERIFY(snapshot("out"_s).keys() == QStringList { copy } && QDir("elsewhere"_s).isEmpty());
        QVERIFY(!QFileInfo(counter.path).isSymLink() && mode("source"_s) == 0644
                && mode(counter.path) == 0646);
        QCOMPARE(run({ "cmp"_s, "source"_s, counter.path }), 0);
        QCOMPARE(isStamped(counter.path, before), stamp);
        QVERIFY(counter.consistent && counter.total == size + added);
    }

    // A process's environment is a file of size 0 as long as it runs: the
    // probe copies its own, the padding last.
    void sizeTellsNothing()
    {
        const QString padding = "TRELLIS_PADDING="_s + QString(10000, u'x');
        QCOMPARE(QFileInfo("/proc/self/environ"_s).size(), 0);
        QCOMPARE(run(QStringList { "env"_s, padding } + programNextToTest("filecopy_probe"_s)
                     + names("/proc/self/environ copy")),
                 0);
        QVERIFY(readFile("copy"_s).endsWith(padding.toLatin1() + '\0'));
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
               "source is a FIFO: fifo copy EOPNOTSUPP",
               "source is a character device: /dev/zero copy EOPNOTSUPP",
               "missing source: missing P.JPG ENOENT P.JPG P.jpg" })
            QTest::newRow(row) << QString::fromLatin1(row).section(u':', 1);
    }

    void refused()
    {
        QFETCH(QString, row);
        const QStringList words = row.split(u' ', Qt::SkipEmptyParts);
        QVERIFY(makeTree("."_s, "a P.jpg P.JPG to-a->a dir-link->. out/keep fifo|"_s)
                && ::link("a", "hard") == 0);
        auto expected = snapshot("."_s);
        for (const QString &entry : words.mid(3))
            expected.remove(entry);
        int cause = 0;
        const HangWatch watch("the copy"_s); // a FIFO could block it, /dev/zero keep it reading
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
        QStringList command = names("strace -f -qq -y -e trace=desc -o trace");
        if (!kernelCopy) // as on a kernel without copy_file_range()
            command << "-e"_s
                    << "inject=copy_file_range:error=ENOSYS"_s;
        command += programNextToTest("filecopy_probe"_s);
        const int exitCode = run(command << here + "/source"_s << here + "/copy"_s, &output);
        if (exitCode != 0 && !exists("trace"_s))
            QSKIP(qPrintable("strace cannot run here: "_s + QString::fromLocal8Bit(output)));
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
        QCOMPARE(run(names("prlimit --fsize=100000") + programNextToTest("filecopy_probe"_s)
                     + names("source copy")),
                 1);
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
};

QTEST_GUILESS_MAIN(tst_FileCopy)
#include "tst_filecopy.moc"
