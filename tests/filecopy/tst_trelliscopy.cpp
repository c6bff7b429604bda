// End-to-end tests of the trellis-copy program: run in a pseudo-terminal
// where it asks, with plain pipes where it must not.

#include "AsNobody.h"
#include "CopyTestSupport.h"
#include "HangWatch.h"
#include "programcommand.h"

#include <QDeadlineTimer>
#include <QRegularExpression>

#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <vector>

namespace {

// trellis-copy with its standard input, output and error on a
// pseudo-terminal of its own, as a user at a terminal would run it, or with
// its input from /dev/null and its output and errors on one pipe; its
// temporary files go to tmpdir. Killed when destroyed unless finished.
struct Run
{
    Run(const QStringList &words, bool terminal, const QString &tmpdir, bool asNobody)
    {
        std::vector<QByteArray> arguments { "env", "TMPDIR=" + QFile::encodeName(tmpdir) };
        for (const QString &word : (asNobody ? ::asNobody() : QStringList())
                     + programCommand(QStringLiteral(TRELLIS_COPY_PROGRAM)) + words)
            arguments.push_back(QFile::encodeName(word));
        std::vector<char *> argv;
        for (QByteArray &argument : arguments)
            argv.push_back(argument.data());
        argv.push_back(nullptr);
        int output[2] = { -1, -1 };
        if (terminal) {
            struct winsize size = { 50, 300, 0, 0 };
            pid = ::forkpty(&fd, nullptr, nullptr, &size);
        } else if (::pipe2(output, O_CLOEXEC) == 0) {
            fd = output[0];
            pid = ::fork();
        }
        if (pid == 0) {
            if (!terminal) {
                ::dup2(::open("/dev/null", O_RDONLY), STDIN_FILENO);
                ::dup2(output[1], STDOUT_FILENO);
                ::dup2(output[1], STDERR_FILENO);
            }
            ::execvp(argv[0], argv.data());
            ::_exit(127);
        }
        ::close(output[1]);
    }

    ~Run()
    {
        if (pid > 0 && ::kill(pid, SIGKILL) == 0)
            ::waitpid(pid, nullptr, 0);
        ::close(fd);
    }

    // Reads until text appears after the previous match, or with no text to
    // the end of the output; false at the deadline (or the end).
    bool WaitFor(const QByteArray &text = QByteArray())
    {
        const QDeadlineTimer deadline(HangBoundMsecs);
        int at = -1;
        while (text.isEmpty() || (at = output.indexOf(text, searchFrom)) < 0) {
            struct pollfd ready = { fd, POLLIN, 0 };
            const int waited = ::poll(&ready, 1, int(qMax<qint64>(0, deadline.remainingTime())));
            if (waited < 0 && errno == EINTR)
                continue;
            char bytes[4096];
            const ssize_t count = waited > 0 ? ::read(fd, bytes, sizeof bytes) : -1;
            // A terminal reports EIO, a pipe its end, once the program has closed its side.
            if (count <= 0)
                return text.isEmpty() && waited > 0;
            output.append(bytes, int(count));
        }
        searchFrom = at + text.size();
        return true;
    }

    pid_t pid = -1;
    int fd = -1; // the terminal, or the pipe's end to read from
    QByteArray output;
    int searchFrom = 0;
};

void AddRow(const char *name, const char *command, const char *tree, const char *answers,
            int exitCode, const char *output, const char *files = "")
{
    QTest::newRow(name) << QString::fromUtf8(command) << QString::fromUtf8(tree)
                        << QString::fromUtf8(answers) << exitCode << QString::fromUtf8(output)
                        << QString::fromUtf8(files);
}

// The entries of tree that makeTree() makes; MakeSpecials() makes the others.
QString PlainEntries(const QString &tree)
{
    return QString(tree).remove(QRegularExpression(QStringLiteral("\\S+(!|@\\d+)")));
}

// After makeTree(), makes the entries of tree that it does not: "path!" a
// read-only directory, and "path@year" gives the existing file that year's
// first day as its modification time.
void MakeSpecials(const QString &root, const QString &tree)
{
    for (const QString &entry : tree.split(QLatin1Char(' '), Qt::SkipEmptyParts)) {
        const QByteArray path = QFile::encodeName(root + QLatin1Char('/') + entry.chopped(1));
        if (entry.endsWith(QLatin1Char('!'))) {
            QVERIFY(QDir().mkpath(QFile::decodeName(path)) && ::chmod(path.constData(), 0555) == 0);
        } else if (entry.contains(QLatin1Char('@'))) {
            QFile file(root + QLatin1Char('/') + entry.section(QLatin1Char('@'), 0, 0));
            const QDateTime time(QDate(entry.section(QLatin1Char('@'), 1).toInt(), 1, 1),
                                 QTime(0, 0));
            QVERIFY2(file.open(QIODevice::ReadWrite)
                             && file.setFileTime(time, QFileDevice::FileModificationTime),
                     qPrintable(entry));
        }
    }
}

} // namespace

class tst_TrellisCopy : public QObject
{
    Q_OBJECT

private slots:
    void runs_data();
    void runs();
    void copiesKeepModeAndTime();
};

// A row runs trellis-copy on a tree of its own (see makeTree() and
// MakeSpecials()) beside src/ with a.txt, b.txt and c.txt, file.txt and an
// empty tmp/, its temporary directory, "@" standing for their directory:
// in a terminal when it has answers, otherwise without. The answers,
// separated by ",", are typed each after the next prompt with Enter;
// "text|answer" waits for text instead; "^C" or "^D" is typed as that
// control character alone, "!TERM" sends SIGTERM, and "!close" closes the
// output (the run then has pipes, not a terminal). '' in the command is an
// empty argument. Then it checks the exit code, output (texts separated by
// "|" that must appear) and files (see CheckFiles()).
void tst_TrellisCopy::runs_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QString>("tree");
    QTest::addColumn<QString>("answers");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("output");
    QTest::addColumn<QString>("files");

    // Usage errors: exit code 2, with message in the output, and nothing copied.
    const auto usage = [](const char *name, const char *command, const char *message,
                          const char *tree = "") {
        AddRow(name, command, tree, "", 2, message, "dst=- src/dst=-");
    };
    usage("one path", "@/src", "at least one SOURCE");
    usage("unknown option", "--fast @/src @/dst", "fast");
    usage("missing source", "@/src @/nothing @/dst", "@/nothing: no such file");
    usage("empty DEST", "@/src ''", "an empty path");
    usage("FIFO as SOURCE, never opened", "@/fifo @/dst", "@/fifo: not a file or directory",
          "fifo|");
    usage("dangling link as SOURCE", "@/dangling @/dst", "a symbolic link to nothing",
          "dangling->nothing");
    usage("depth not a number", "--depth two @/src @/dst", "--depth");
    usage("unknown conflict rule", "--on-conflict=rename @/src @/dst", "--on-conflict");
    usage("dest a file", "@/src @/file.txt", "not a directory");
    usage("dest inside a source", "@/src @/src/dst", "inside SOURCE");
    usage("source already in dest", "@/src/a.txt @/src", "already in DEST");
    usage("place marker in dest", "@/src @/dst%1", "digit");
    AddRow("help", "--help", "", "", 0,
           "permission bits and modification time|--library-mode|--keep-partial|newer|"
           "different|Exit codes|130");
    AddRow("-v is --verbose", "-v @/src @/dst", "", "", 0,
           "@/src/c.txt -> @/dst/src/c.txt|Done: 3 copied", "src==dst/src");
    AddRow("a file to a new name, as cp", "@/file.txt @/new.txt", "", "", 0, "Done: 1 copied",
           "new.txt=file");
    const char *oneOld = "dst/src/a.txt=old";
    AddRow("dry run", "-n @/src @/dst", oneOld, "", 0,
           "@/src/a.txt would be asked about|@/src/b.txt -> @/dst/src/b.txt|nothing copied",
           "dst/src/a.txt=old dst/src/b.txt=-");
    AddRow("--on-conflict=overwrite, trees from several parents",
           "--on-conflict=overwrite @/src @/other/e.txt @/dst",
           "dst/src/a.txt=old dst/src/b.txt=old src/sub/deeper/d.txt=d src/empty/ other/e.txt=e",
           "", 0, "Done: 6 copied, 0 skipped, 0 failed", "src==dst/src dst/e.txt=e");
    AddRow("--on-conflict=skip", "--on-conflict=skip @/src @/dst", oneOld, "", 0,
           "Done: 2 copied, 1 skipped", "dst/src/a.txt=old dst/src/c.txt=c");
    AddRow("--on-conflict=ask without a terminal", "--on-conflict=ask @/src @/dst", oneOld, "", 1,
           "@/dst/src/a.txt exists", "dst/src/a.txt=old dst/src/c.txt=-");
    AddRow("--on-conflict=newer", "--on-conflict=newer @/src @/dst",
           "dst/src/a.txt=old dst/src/b.txt=old dst/src/a.txt@2000 src/b.txt@2001 "
           "dst/src/b.txt@2002",
           "", 0, "Done: 2 copied, 1 skipped", "dst/src/a.txt=a dst/src/b.txt=old dst/src/c.txt=c");
    AddRow("--on-conflict=different", "--on-conflict=different @/src @/dst",
           "dst/src/a.txt=A dst/src/b.txt=bb src/a.txt@2000 dst/src/a.txt@2000", "", 0,
           "Done: 2 copied, 1 skipped", "dst/src/a.txt=A dst/src/b.txt=b");

    // Both land on P.jpg: never one over the other unasked.
    const char *collision = "src/P.JPG=upper src/P.jpg=lower";
    AddRow("two names collide, reported", "--on-conflict=overwrite @/src @/dst", collision, "", 1,
           "it would be written to @/dst/src/P.jpg, where @/src/P.|Done: 4 copied, 0 skipped, "
           "1 failed",
           "dst/src=/a.txt,b.txt,c.txt,P.jpg");
    AddRow("two names collide, asked, renamed", "@/src @/dst", collision, "r,back? |Q.jpg", 0,
           "Both land on one name|Done: 5 copied, 0 skipped, 0 failed",
           "dst/src=/a.txt,b.txt,c.txt,P.jpg,Q.jpg");
    AddRow("left out, and a link cycle not followed", "@/src @/dst",
           "src/.hidden=h src/fifo| src/dangling->nothing src/sub/up->.. src/sub/d.txt=d", "", 0,
           "not following @/src/sub/up: it leads back into the tree|Done: 4 copied, 0 skipped, "
           "0 failed in|left out: 1 hidden name, 1 FIFO, 1 dangling link, 1 link into the tree; "
           "--verbose lists them",
           "dst/src/sub=/d.txt dst/src/.hidden=-");

    // A second batch, other/d.txt, conflicts as well.
    const auto asked = [](const char *name, const char *answers, int exitCode, const char *output,
                          const char *files) {
        AddRow(name, "@/src @/other/d.txt @/dst",
               "dst/src/a.txt=old dst/src/b.txt=old dst/d.txt=old other/d.txt=d "
               "taken/a/src/a.txt=taken",
               answers, exitCode, output, files);
    };
    asked("overwrite, skip, overwrite", "o,s,overwrite", 0, "Done: 3 copied, 1 skipped",
          "dst/src/a.txt=a dst/src/b.txt=old dst/src/c.txt=c dst/d.txt=d");
    asked("overwrite all, also in the next batch", "a", 0, "Done: 4 copied, 0 skipped",
          "dst/src/a.txt=a dst/src/b.txt=b dst/d.txt=d");
    asked("skip all", "Skip-All", 0, "Done: 1 copied, 3 skipped",
          "dst/src/a.txt=old dst/src/b.txt=old dst/src/c.txt=c dst/d.txt=old");
    asked("rename to a new name", "r,back? |a-new.txt,s,s", 0, "Done: 2 copied, 2 skipped",
          "dst/src/a-new.txt=a dst/src/a.txt=old");
    // The new prefix, with the base name a, is taken too: the question comes
    // again for it, after the rest of its batch, and only this item goes there.
    asked("rename to a prefix, onto a taken place", "r,back? |@/taken/%1,o,o,s", 0,
          "@/taken/a/src/a.txt (5 bytes|Done: 3 copied, 1 skipped",
          "taken/a/src/a.txt=a dst/src/a.txt=old dst/src/b.txt=b taken/b=-");
    asked("answer not understood, rename taken back", "perhaps,rename,back? |,o,o,o", 0,
          "Done: 4 copied, 0 skipped", "dst/src/a.txt=a dst/src/b.txt=b");
    asked("quit", "q", 1, "Quit: 0 copied, 0 skipped, 0 failed",
          "dst/src/a.txt=old dst/src/c.txt=- dst/d.txt=old");
    asked("end of input", "^D", 1, "Quit: 0 copied", "dst/src/a.txt=old dst/src/c.txt=-");
    AddRow("--depth 0, overwritten", "--depth 0 @/src @/dst", oneOld, "o", 0,
           "@/dst/src (directory|Done: 3 copied, 0 skipped", "src==dst/src");
    AddRow("Ctrl-C at a question", "@/src @/dst", oneOld, "^C", 130, "Interrupted: 0 copied",
           "dst/src/a.txt=old dst/src/b.txt=-");

    // A terabyte (sparse, so it takes no room) keeps the copy busy well past
    // the stop, which must leave no partial file and nothing in tmp/.
    const auto stopped = [](const char *name, const char *command, const char *answers,
                            int exitCode, const char *output, const char *files) {
        AddRow(name, command, "huge.bin~1099511627776", answers, exitCode, output, files);
    };
    const char *nothingLeft = "dst/huge.bin=- tmp=/";
    stopped("Ctrl-C during a copy", "@/huge.bin @/dst/", "@/huge.bin|^C", 130,
            "removed the incomplete copy @/dst/huge.bin|Interrupted: 0 copied", nothingLeft);
    stopped("SIGTERM during a copy", "@/huge.bin @/dst/", "@/huge.bin|!TERM", 1,
            "removed the incomplete copy @/dst/huge.bin|Stopped by Terminated", nothingLeft);
    stopped("output closed during a copy", "@/huge.bin @/dst/", "huge.bin|!close", 1, "",
            nothingLeft);
    stopped("Ctrl-C, --keep-partial", "--keep-partial @/huge.bin @/dst/", "@/huge.bin|^C", 130,
            "kept the incomplete copy @/dst/huge.bin", "tmp=/");

    // No file can be created below a file, not even by root.
    const char *blocked = "dst/src=blocked";
    const char *notADirectory = "cannot copy @/src/a.txt: Not a directory|cannot copy "
                                "@/src/b.txt: Not a directory|cannot copy @/src/c.txt";
    AddRow("failures, continue", "@/src @/dst", blocked, "c,continue", 1, notADirectory,
           "dst/src=blocked");
    AddRow("failures, continue all", "@/src @/dst", blocked, "a", 1,
           "Done: 0 copied, 0 skipped, 3 failed");
    AddRow("failures, quit", "@/src @/dst", blocked, "q", 1,
           "cannot copy @/src/a.txt: Not a directory|Quit: 0 copied, 0 skipped, 1 failed");
    AddRow("failures without a terminal", "@/src @/dst", blocked, "", 1, notADirectory);
    // Root writes anywhere, so root runs the program as the user nobody.
    AddRow("no permission to write", "@/src @/dst", "dst/src!", "", 1,
           "cannot copy @/src/a.txt: Permission denied|Done: 0 copied, 0 skipped, 3 failed");
}

void tst_TrellisCopy::runs()
{
    QFETCH(QString, command);
    QFETCH(QString, tree);
    QFETCH(QString, answers);
    QFETCH(int, exitCode);
    QFETCH(QString, output);
    QFETCH(QString, files);
    const bool closesOutput = answers.contains(QLatin1String("!close"));
    const bool terminal = !answers.isEmpty() && !closesOutput;
    const bool asNobody = tree.contains(QLatin1Char('!')) && ::geteuid() == 0;
    QTemporaryDir dir;
    const QString root = QFileInfo(dir.path()).canonicalFilePath();
    QVERIFY(::chmod(QFile::encodeName(root).constData(), 0755) == 0);
    const auto resolved = [&root](QString text) { return text.replace(QLatin1Char('@'), root); };
    QVERIFY(makeTree(root,
                     QStringLiteral("src/a.txt=a src/b.txt=b src/c.txt=c file.txt=file tmp/ ")
                             + PlainEntries(tree)));
    MakeSpecials(root, tree);

    QStringList words = resolved(command).split(QLatin1Char(' '), Qt::SkipEmptyParts);
    words.replaceInStrings(QRegularExpression(QStringLiteral("^''$")), QString());
    Run run(words, terminal, root + QStringLiteral("/tmp"), asNobody);
    int prompts = 0;
    for (const QString &answer : answers.split(QLatin1Char(','), Qt::SkipEmptyParts)) {
        const QString awaited = answer.contains(QLatin1Char('|'))
                ? answer.section(QLatin1Char('|'), 0, 0)
                : QStringLiteral("quit? ");
        prompts += awaited == QLatin1String("quit? ");
        QVERIFY2(run.WaitFor(resolved(awaited).toLocal8Bit()),
                 qPrintable(QStringLiteral("awaited \"%1\" in: %2")
                                    .arg(awaited, QString::fromLocal8Bit(run.output))));
        const QString typed = resolved(answer.section(QLatin1Char('|'), -1));
        if (typed == QLatin1String("!TERM")) {
            QVERIFY(::kill(run.pid, SIGTERM) == 0);
        } else if (typed == QLatin1String("!close")) {
            QVERIFY(::close(std::exchange(run.fd, -1)) == 0);
        } else {
            const QByteArray bytes = typed.startsWith(QLatin1Char('^'))
                    ? QByteArray(1, char(typed[1].toLatin1() - '@'))
                    : typed.toLocal8Bit() + '\n';
            QVERIFY(::write(run.fd, bytes.data(), bytes.size()) == bytes.size());
        }
    }
    // The exit code, after the end of the output.
    int status = 0;
    QVERIFY2(closesOutput || run.WaitFor(), run.output.constData());
    {
        const HangWatch watch(QStringLiteral("trellis-copy to exit once its output ended"));
        QVERIFY(::waitpid(std::exchange(run.pid, -1), &status, 0) > 0);
    }
    QVERIFY2((WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status)) == exitCode,
             run.output.constData());
    for (const QString &text : resolved(output).split(QLatin1Char('|'), Qt::SkipEmptyParts))
        QVERIFY2(run.output.contains(text.toLocal8Bit()), run.output.constData());
    // Every question was answered, and asked only once; the progress line is
    // redrawn in place on a terminal only.
    QCOMPARE(run.output.count("quit? "), prompts);
    QCOMPARE(run.output.contains("\r\033[K"), terminal);
    CheckFiles(root, files);
}

// A copy has its source's permission bits and modification time, unless
// --library-mode keeps the library's: write for others added, and the time
// of the copy.
void tst_TrellisCopy::copiesKeepModeAndTime()
{
    QTemporaryDir dir;
    const QString source = dir.filePath(QStringLiteral("a.txt"));
    QVERIFY(makeTree(dir.path(), QStringLiteral("a.txt=a")));
    MakeSpecials(dir.path(), QStringLiteral("a.txt@2001"));
    QVERIFY(QFile::setPermissions(source, QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup));
    for (const bool libraryMode : { false, true }) {
        const QString copy = dir.filePath(libraryMode ? QStringLiteral("library.txt")
                                                      : QStringLiteral("own.txt"));
        QStringList words = { source, copy };
        if (libraryMode)
            words.prepend(QStringLiteral("--library-mode"));
        Run run(words, false, dir.path(), false);
        QVERIFY2(run.WaitFor("Done: 1 copied"), run.output.constData());
        const QFileInfo original(source), copied(copy);
        QCOMPARE(copied.permissions() == original.permissions(), !libraryMode);
        QCOMPARE(copied.permissions().testFlag(QFile::WriteOther), libraryMode);
        QCOMPARE(copied.lastModified() == original.lastModified(), !libraryMode);
    }
}

QTEST_GUILESS_MAIN(tst_TrellisCopy)
#include "tst_trelliscopy.moc"
