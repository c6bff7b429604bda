// End-to-end tests of the trellis-copy program: run in a pseudo-terminal
// where it asks, with plain pipes where it must not.

#include "CopyTestSupport.h"
#include "HangWatch.h"
#include "programcommand.h"

#include <QDeadlineTimer>

#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
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
    Run(const QStringList &words, bool terminal, const QString &tmpdir)
    {
        std::vector<QByteArray> arguments { "env", "TMPDIR=" + QFile::encodeName(tmpdir) };
        for (const QString &word : programCommand(QStringLiteral(TRELLIS_COPY_PROGRAM)) + words)
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
        const QDeadlineTimer deadline(PassTimeout);
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

} // namespace

class tst_TrellisCopy : public QObject
{
    Q_OBJECT

private slots:
    void runs_data();
    void runs();
};

// A row runs trellis-copy on a tree of its own (see MakeTree()) beside src/
// with a.txt, b.txt and c.txt, and file.txt, "@" standing for its directory:
// in a terminal when it has answers, otherwise without. The answers,
// separated by ",", are typed each after the next prompt with Enter;
// "text|answer" waits for text instead, and "^C" or "^D" is typed as that
// control character alone. Then it checks the exit code, output (texts
// separated by "|" that must appear) and files (see CheckFiles()).
void tst_TrellisCopy::runs_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QString>("tree");
    QTest::addColumn<QString>("answers");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("output");
    QTest::addColumn<QString>("files");

    // Usage errors: exit code 2, with message in the output, and nothing copied.
    const auto usage = [](const char *name, const char *command, const char *message) {
        AddRow(name, command, "", "", 2, message, "dst=- src/dst=-");
    };
    usage("one path", "@/src", "at least one SOURCE");
    usage("unknown option", "--fast @/src @/dst", "fast");
    usage("missing source", "@/src @/nothing @/dst", "@/nothing: no such file");
    usage("depth not a number", "--depth two @/src @/dst", "--depth");
    usage("unknown conflict action", "--on-conflict=rename @/src @/dst", "--on-conflict");
    usage("dest a file", "@/src @/file.txt", "not a directory");
    usage("dest inside a source", "@/src @/src/dst", "inside SOURCE");
    usage("source already in dest", "@/src/a.txt @/src", "already in DEST");
    usage("place marker in dest", "@/src @/dst%1", "digit");
    AddRow("help", "--help", "", "", 0, "--on-conflict|--depth|overwrite all|%1 in|Exit codes|130");
    const char *oneOld = "dst/src/a.txt=old";
    AddRow("--on-conflict=overwrite, trees from several parents",
           "--on-conflict=overwrite @/src @/other/e.txt @/dst",
           "dst/src/a.txt=old dst/src/b.txt=old src/sub/deeper/d.txt=d src/empty/ other/e.txt=e",
           "", 0, "Done: 6 copied, 0 skipped, 0 failed", "src==dst/src dst/e.txt=e");
    // a, the last item, conflicts: a one-shot Skip would be spent by then.
    AddRow("--on-conflict=skip", "--on-conflict=skip @/src @/dst", oneOld, "", 0,
           "Done: 2 copied, 1 skipped", "dst/src/a.txt=old dst/src/c.txt=c");
    AddRow("--on-conflict=ask without a terminal", "--on-conflict=ask @/src @/dst", oneOld, "", 1,
           "@/dst/src/a.txt exists", "dst/src/a.txt=old dst/src/c.txt=-");

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
    // The new prefix, with the base name a, is taken too: the question comes
    // again for it, and only this item goes there.
    asked("rename, onto a taken place", "r,back)? |@/taken/%1,o,s,s", 0,
          "@/taken/a/src/a.txt exists|Done: 2 copied, 2 skipped",
          "taken/a/src/a.txt=a dst/src/a.txt=old dst/src/b.txt=old taken/b=-");
    asked("answer not understood, rename taken back", "perhaps,rename,back)? |,o,o,o", 0,
          "Done: 4 copied, 0 skipped", "dst/src/a.txt=a dst/src/b.txt=b");
    asked("quit", "q", 1, "Quit: 0 copied, 0 skipped, 0 failed",
          "dst/src/a.txt=old dst/src/c.txt=- dst/d.txt=old");
    asked("end of input", "^D", 1, "Quit: 0 copied", "dst/src/a.txt=old dst/src/c.txt=-");

    AddRow("--depth 0, overwritten", "--depth 0 @/src @/dst", oneOld, "o", 0,
           "@/dst/src exists (copying @/src)|Done: 3 copied, 0 skipped", "src==dst/src");
    AddRow("files one by one by default", "@/src @/dst", oneOld, "o", 0,
           "@/dst/src/a.txt exists (copying @/src/a.txt)|Done: 3 copied, 0 skipped",
           "src==dst/src");
    AddRow("Ctrl-C at a question", "@/src @/dst", oneOld, "^C", 130, "Interrupted: 0 copied",
           "dst/src/a.txt=old dst/src/b.txt=-");
    // A terabyte (sparse, so it takes no room) keeps the copy busy well past
    // the Ctrl-C.
    AddRow("Ctrl-C during a copy", "@/huge.bin @/dst", "huge.bin~1099511627776", " huge.bin|^C",
           130,
           "stopped while copying @/huge.bin; its copy may be incomplete|"
           "Interrupted: 0 copied, 0 skipped, 0 failed");

    // No file can be created below a file, not even by root.
    const char *blocked = "dst/src=blocked";
    AddRow("failures, continue", "@/src @/dst", blocked, "c,continue,c", 1,
           "could not copy @/src/a.txt|could not copy @/src/b.txt|could not copy @/src/c.txt|"
           "Done: 0 copied, 0 skipped, 3 failed",
           "dst/src=blocked");
    AddRow("failures, quit", "@/src @/dst", blocked, "q", 1,
           "could not copy @/src/a.txt|Quit: 0 copied, 0 skipped, 1 failed");
    AddRow("failures without a terminal", "@/src @/dst", blocked, "", 1,
           "could not copy @/src/a.txt|could not copy @/src/c.txt|"
           "Done: 0 copied, 0 skipped, 3 failed");
}

void tst_TrellisCopy::runs()
{
    QFETCH(QString, command);
    QFETCH(QString, tree);
    QFETCH(QString, answers);
    QFETCH(int, exitCode);
    QFETCH(QString, output);
    QFETCH(QString, files);
    const bool terminal = !answers.isEmpty();
    QTemporaryDir dir;
    const QString root = QFileInfo(dir.path()).canonicalFilePath();
    const auto resolved = [&root](QString text) { return text.replace(QLatin1Char('@'), root); };
    MakeTree(root, QStringLiteral("src/a.txt=a src/b.txt=b src/c.txt=c file.txt=file ") + tree);

    // The program keeps a hidden temporary directory of its own in src/,
    // which it must never copy.
    Run run(resolved(command).split(QLatin1Char(' '), Qt::SkipEmptyParts), terminal,
            root + QStringLiteral("/src"));
    int prompts = 0;
    for (const QString &answer : answers.split(QLatin1Char(','), Qt::SkipEmptyParts)) {
        const QString awaited = answer.contains(QLatin1Char('|'))
                ? answer.section(QLatin1Char('|'), 0, 0)
                : QStringLiteral("quit? ");
        prompts += awaited == QLatin1String("quit? ");
        QVERIFY2(run.WaitFor(awaited.toLocal8Bit()), run.output.constData());
        const QString typed = resolved(answer.section(QLatin1Char('|'), -1));
        const QByteArray bytes = typed.startsWith(QLatin1Char('^'))
                ? QByteArray(1, char(typed[1].toLatin1() - '@'))
                : typed.toLocal8Bit() + '\n';
        QVERIFY(::write(run.fd, bytes.data(), bytes.size()) == bytes.size());
    }
    // The exit code, after the end of the output.
    int status = 0;
    QVERIFY2(run.WaitFor(), run.output.constData());
    {
        const HangWatch watch(QStringLiteral("trellis-copy to exit once its output ended"));
        QVERIFY(::waitpid(std::exchange(run.pid, -1), &status, 0) > 0);
    }
    QCOMPARE(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), exitCode);
    for (const QString &text : resolved(output).split(QLatin1Char('|')))
        QVERIFY2(run.output.contains(text.toLocal8Bit()), run.output.constData());
    // Every question was answered, and asked only once; the progress line is
    // redrawn in place on a terminal only.
    QCOMPARE(run.output.count("quit? "), prompts);
    QCOMPARE(run.output.contains("\r\033[K"), terminal);
    CheckFiles(root, files);
}

QTEST_GUILESS_MAIN(tst_TrellisCopy)
#include "tst_trelliscopy.moc"
