// End-to-end tests of the trellis-copy program: run in a pseudo-terminal
// where it asks, with plain pipes where it must not.

#include "CopyTaskRecorder.h"
#include "programcommand.h"

#include <QDeadlineTimer>
#include <QtTest>

#include <cerrno>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <vector>

namespace {

const QStringList Command = programCommand(QStringLiteral(TRELLIS_COPY_PROGRAM));

// Generous: the program ends each batch with sync(), and sanitizer builds on
// a loaded machine are slow. Only a failing test waits this long.
constexpr int Timeout = 120000;

// trellis-copy in a pseudo-terminal of its own, as a user at a terminal
// would run it: its output is read with deadlines, answers are typed.
class TerminalRun
{
public:
    explicit TerminalRun(const QStringList &arguments)
    {
        std::vector<QByteArray> words;
        for (const QString &argument : Command + arguments)
            words.push_back(QFile::encodeName(argument));
        std::vector<char *> argv;
        for (QByteArray &word : words)
            argv.push_back(word.data());
        argv.push_back(nullptr);
        struct winsize size = {};
        size.ws_row = 50;
        size.ws_col = 300;
        m_pid = ::forkpty(&m_master, nullptr, nullptr, &size);
        if (m_pid == 0) {
            ::execv(argv[0], argv.data());
            ::_exit(127);
        }
    }

    ~TerminalRun()
    {
        if (m_pid > 0) {
            ::kill(m_pid, SIGKILL);
            ::waitpid(m_pid, nullptr, 0);
        }
        if (m_master >= 0)
            ::close(m_master);
    }

    bool started() const { return m_pid > 0; }

    // Reads until text appears after the previous match.
    bool WaitFor(const QByteArray &text)
    {
        const QDeadlineTimer deadline(Timeout);
        int at;
        while ((at = output.indexOf(text, m_searchFrom)) < 0) {
            if (!ReadSome(deadline))
                return false;
        }
        m_searchFrom = at + text.size();
        return true;
    }

    void Type(const QByteArray &text)
    {
        QCOMPARE(::write(m_master, text.data(), text.size()), ssize_t(text.size()));
    }

    // Reads to the end of the output and returns the exit code, -1 on time-out.
    int Finish()
    {
        const QDeadlineTimer deadline(Timeout);
        while (ReadSome(deadline)) { }
        if (!m_ended)
            return -1;
        int status = 0;
        ::waitpid(std::exchange(m_pid, -1), &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    QByteArray output;

private:
    // False at the end of the output or the deadline.
    bool ReadSome(const QDeadlineTimer &deadline)
    {
        struct pollfd ready = { m_master, POLLIN, 0 };
        const int waited = ::poll(&ready, 1, int(qMax<qint64>(0, deadline.remainingTime())));
        if (waited < 0 && errno == EINTR)
            return true;
        if (waited <= 0)
            return false;
        char bytes[4096];
        const ssize_t count = ::read(m_master, bytes, sizeof bytes);
        if (count <= 0) {
            // The terminal reports EIO once the program has closed its side.
            m_ended = true;
            return false;
        }
        output.append(bytes, int(count));
        return true;
    }

    pid_t m_pid = -1;
    int m_master = -1;
    int m_searchFrom = 0;
    bool m_ended = false;
};

// trellis-copy with standard input, output and error on pipes.
struct PlainRun
{
    explicit PlainRun(const QStringList &arguments,
                      const QProcessEnvironment &environment
                      = QProcessEnvironment::systemEnvironment())
    {
        QProcess process;
        process.setProcessEnvironment(environment);
        process.setStandardInputFile(QProcess::nullDevice());
        process.start(Command.first(), Command.mid(1) + arguments);
        if (process.waitForFinished(Timeout) && process.exitStatus() == QProcess::NormalExit)
            exitCode = process.exitCode();
        else
            process.kill();
        output = process.readAllStandardOutput();
        errors = process.readAllStandardError();
    }

    int exitCode = -1;
    QByteArray output;
    QByteArray errors;
};

// Paths in test data start with "@/", which stands for the test's directory.
QStringList Resolved(QStringList texts, const QString &root)
{
    texts.replaceInStrings(QStringLiteral("@/"), root + QLatin1Char('/'));
    return texts;
}

// Compares files with "path=content" expectations, "path=-" for an absent file.
void CheckFiles(const QString &root, const QStringList &expectations)
{
    for (const QString &expected : expectations) {
        const QString path = root + QLatin1Char('/') + expected.section(QLatin1Char('='), 0, 0);
        const QString content = expected.section(QLatin1Char('='), 1);
        if (content == QLatin1String("-"))
            QVERIFY2(!QFileInfo::exists(path), qPrintable(path));
        else
            QCOMPARE(QString::fromUtf8(ReadFile(path)), content);
    }
}

} // namespace

class tst_TrellisCopy : public QObject
{
    Q_OBJECT

private slots:
    void init();

    void refusesBadUsage_data();
    void refusesBadUsage();
    void helpExplainsOptionsAnswersAndExitCodes();
    void copiesTreesFromSeveralParents();
    void copiesNothingOfItsOwnFromATemporaryDirectoryInASource();
    void actsOnConflictsWithoutATerminal_data();
    void actsOnConflictsWithoutATerminal();
    void takesAnswersAtTheTerminal_data();
    void takesAnswersAtTheTerminal();
    void splitsAtTheGivenDepth_data();
    void splitsAtTheGivenDepth();
    void reportsFailuresAndGoesOnOrQuits_data();
    void reportsFailuresAndGoesOnOrQuits();
    void interruptStopsACopyInProgress();
    void interruptEndsAQuestion();

private:
    QTemporaryDir m_dir;
    QString m_root;
    int m_runs = 0;
};

void tst_TrellisCopy::init()
{
    QVERIFY(m_dir.isValid());
    // A directory of its own for every run.
    m_root = QStringLiteral("%1/%2").arg(QFileInfo(m_dir.path()).canonicalFilePath()).arg(++m_runs);
    QVERIFY(QDir().mkpath(m_root));
    QVERIFY(WriteFile(m_root + QStringLiteral("/src/a.txt"), "new a"));
    QVERIFY(WriteFile(m_root + QStringLiteral("/src/b.txt"), "new b"));
    QVERIFY(WriteFile(m_root + QStringLiteral("/src/c.txt"), "new c"));
    QVERIFY(WriteFile(m_root + QStringLiteral("/file.txt"), "a file"));
}

void tst_TrellisCopy::refusesBadUsage_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("message");
    const QString dst = QStringLiteral("@/dst");
    QTest::newRow("no paths") << QStringList() << QStringLiteral("at least one SOURCE");
    QTest::newRow("one path") << QStringList { QStringLiteral("@/src") }
                              << QStringLiteral("at least one SOURCE");
    QTest::newRow("unknown option")
            << QStringList { QStringLiteral("--fast"), QStringLiteral("@/src"), dst }
            << QStringLiteral("fast");
    QTest::newRow("missing source")
            << QStringList { QStringLiteral("@/src"), QStringLiteral("@/nothing"), dst }
            << QStringLiteral("@/nothing: no such file");
    QTest::newRow("depth not a number")
            << QStringList { QStringLiteral("--depth"), QStringLiteral("two"),
                             QStringLiteral("@/src"), dst }
            << QStringLiteral("--depth");
    QTest::newRow("unknown conflict action")
            << QStringList { QStringLiteral("--on-conflict=rename"), QStringLiteral("@/src"), dst }
            << QStringLiteral("--on-conflict");
    QTest::newRow("dest a file") << QStringList { QStringLiteral("@/src"),
                                                  QStringLiteral("@/file.txt") }
                                 << QStringLiteral("not a directory");
    QTest::newRow("dest inside a source")
            << QStringList { QStringLiteral("@/src"), QStringLiteral("@/src/dst") }
            << QStringLiteral("inside SOURCE");
    QTest::newRow("source already in dest")
            << QStringList { QStringLiteral("@/src/a.txt"), QStringLiteral("@/src") }
            << QStringLiteral("already in DEST");
    QTest::newRow("place marker in dest")
            << QStringList { QStringLiteral("@/src"), QStringLiteral("@/dst%1") }
            << QStringLiteral("digit");
}

void tst_TrellisCopy::refusesBadUsage()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, message);
    const PlainRun run(Resolved(arguments, m_root));
    QCOMPARE(run.exitCode, 2);
    QVERIFY2(
            QString::fromLocal8Bit(run.errors).contains(Resolved({ message }, m_root).constFirst()),
            run.errors.constData());
    QVERIFY(!QFileInfo::exists(m_root + QStringLiteral("/dst")));
    QVERIFY(!QFileInfo::exists(m_root + QStringLiteral("/src/dst")));
}

void tst_TrellisCopy::helpExplainsOptionsAnswersAndExitCodes()
{
    const PlainRun run({ QStringLiteral("--help") });
    QCOMPARE(run.exitCode, 0);
    for (const char *topic : { "--on-conflict", "--depth", "overwrite all", "skip all", "rename",
                               "%1 in", "quit", "continue", "Exit codes", "130", "Ctrl-C" })
        QVERIFY2(run.output.contains(topic), topic);
}

void tst_TrellisCopy::copiesTreesFromSeveralParents()
{
    QVERIFY(WriteFile(m_root + QStringLiteral("/src/sub/deeper/d.txt"), "d"));
    QVERIFY(QDir().mkpath(m_root + QStringLiteral("/src/empty")));
    QVERIFY(WriteFile(m_root + QStringLiteral("/other/e.txt"), "e"));
    const PlainRun run(Resolved(
            { QStringLiteral("@/src"), QStringLiteral("@/other/e.txt"), QStringLiteral("@/dst") },
            m_root));
    QCOMPARE(run.exitCode, 0);
    QVERIFY(SameTrees(m_root + QStringLiteral("/src"), m_root + QStringLiteral("/dst/src")));
    QCOMPARE(ReadFile(m_root + QStringLiteral("/dst/e.txt")), QByteArray("e"));
    // a, b, c, d, the empty directory and e.
    QVERIFY2(run.output.contains("Done: 6 copied, 0 skipped, 0 failed"), run.output.constData());
    QVERIFY2(!run.output.contains('\r') && !run.output.contains('\033'), run.output.constData());
}

void tst_TrellisCopy::copiesNothingOfItsOwnFromATemporaryDirectoryInASource()
{
    // The program keeps a temporary directory of its own while it runs.
    QVERIFY(QDir().mkpath(m_root + QStringLiteral("/src/tmp")));
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("TMPDIR"), m_root + QStringLiteral("/src/tmp"));
    const PlainRun run(Resolved(Lines({ "@/src", "@/dst" }), m_root), environment);
    QCOMPARE(run.exitCode, 0);
    QVERIFY(SameTrees(m_root + QStringLiteral("/src"), m_root + QStringLiteral("/dst/src")));
}

void tst_TrellisCopy::actsOnConflictsWithoutATerminal_data()
{
    QTest::addColumn<QString>("option");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QStringList>("files");
    QTest::addColumn<QString>("message");
    QTest::newRow("overwrite") << QStringLiteral("--on-conflict=overwrite") << 0
                               << Lines({ "dst/src/a.txt=new a", "dst/src/c.txt=new c" })
                               << QStringLiteral("Done: 3 copied, 0 skipped");
    QTest::newRow("skip") << QStringLiteral("--on-conflict=skip") << 0
                          << Lines({ "dst/src/a.txt=old a", "dst/src/c.txt=new c" })
                          << QStringLiteral("Done: 1 copied, 2 skipped");
    QTest::newRow("ask") << QStringLiteral("--on-conflict=ask") << 1
                         << Lines({ "dst/src/a.txt=old a", "dst/src/c.txt=-" })
                         << QStringLiteral("@/dst/src/a.txt exists");
}

void tst_TrellisCopy::actsOnConflictsWithoutATerminal()
{
    QFETCH(QString, option);
    QFETCH(int, exitCode);
    QFETCH(QStringList, files);
    QFETCH(QString, message);
    QVERIFY(WriteFile(m_root + QStringLiteral("/dst/src/a.txt"), "old a"));
    QVERIFY(WriteFile(m_root + QStringLiteral("/dst/src/b.txt"), "old b"));
    const PlainRun run(
            Resolved({ option, QStringLiteral("@/src"), QStringLiteral("@/dst") }, m_root));
    QCOMPARE(run.exitCode, exitCode);
    CheckFiles(m_root, files);
    QVERIFY2(QString::fromLocal8Bit(run.output + run.errors)
                     .contains(Resolved({ message }, m_root).constFirst()),
             (run.output + run.errors).constData());
}

void tst_TrellisCopy::takesAnswersAtTheTerminal_data()
{
    QTest::addColumn<QStringList>("answers");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QStringList>("files");
    QTest::addColumn<QString>("summary");
    // The sources: src (a and b exist at the destination, c does not) and,
    // in a second batch, other/d.txt (exists).
    QTest::newRow("overwrite, skip, overwrite")
            << Lines({ "o\n", "s\n", "overwrite\n" }) << 0
            << Lines({ "dst/src/a.txt=new a", "dst/src/b.txt=old b", "dst/src/c.txt=new c",
                       "dst/d.txt=new d" })
            << QStringLiteral("Done: 3 copied, 1 skipped");
    QTest::newRow("overwrite all, also in the next batch")
            << Lines({ "a\n" }) << 0
            << Lines({ "dst/src/a.txt=new a", "dst/src/b.txt=new b", "dst/d.txt=new d" })
            << QStringLiteral("Done: 4 copied, 0 skipped");
    QTest::newRow("skip all") << Lines({ "Skip-All\n" }) << 0
                              << Lines({ "dst/src/a.txt=old a", "dst/src/b.txt=old b",
                                         "dst/src/c.txt=new c", "dst/d.txt=old d" })
                              << QStringLiteral("Done: 1 copied, 3 skipped");
    QTest::newRow("rename with the base name")
            << Lines({ "r\n", "@/free/%1\n", "s\n", "s\n" }) << 0
            << Lines({ "free/a/src/a.txt=new a", "dst/src/a.txt=old a", "dst/src/b.txt=old b",
                       "free/b/src/b.txt=-" })
            << QStringLiteral("Done: 2 copied, 2 skipped");
    QTest::newRow("rename onto a taken place asks again")
            << Lines({ "r\n", "@/taken\n", "o\n", "s\n", "s\n" }) << 0
            << Lines({ "taken/src/a.txt=new a", "dst/src/a.txt=old a" })
            << QStringLiteral("Done: 2 copied, 2 skipped");
    QTest::newRow("rename taken back") << Lines({ "rename\n", "\n", "o\n", "s\n", "s\n" }) << 0
                                       << Lines({ "dst/src/a.txt=new a", "dst/src/b.txt=old b" })
                                       << QStringLiteral("Done: 2 copied, 2 skipped");
    QTest::newRow("answer not understood")
            << Lines({ "perhaps\n", "o\n", "o\n", "o\n" }) << 0
            << Lines({ "dst/src/a.txt=new a", "dst/src/b.txt=new b" })
            << QStringLiteral("Done: 4 copied, 0 skipped");
    QTest::newRow("quit") << Lines({ "q\n" }) << 1
                          << Lines({ "dst/src/a.txt=old a", "dst/src/c.txt=-", "dst/d.txt=old d" })
                          << QStringLiteral("Quit: 0 copied, 0 skipped, 0 failed");
    QTest::newRow("end of input") << Lines({ "\x04" }) << 1
                                  << Lines({ "dst/src/a.txt=old a", "dst/src/c.txt=-" })
                                  << QStringLiteral("Quit: 0 copied");
}

void tst_TrellisCopy::takesAnswersAtTheTerminal()
{
    QFETCH(QStringList, answers);
    QFETCH(int, exitCode);
    QFETCH(QStringList, files);
    QFETCH(QString, summary);
    QVERIFY(WriteFile(m_root + QStringLiteral("/dst/src/a.txt"), "old a"));
    QVERIFY(WriteFile(m_root + QStringLiteral("/dst/src/b.txt"), "old b"));
    QVERIFY(WriteFile(m_root + QStringLiteral("/dst/d.txt"), "old d"));
    QVERIFY(WriteFile(m_root + QStringLiteral("/other/d.txt"), "new d"));
    QVERIFY(WriteFile(m_root + QStringLiteral("/taken/src/a.txt"), "taken a"));

    TerminalRun run(Resolved(
            { QStringLiteral("@/src"), QStringLiteral("@/other/d.txt"), QStringLiteral("@/dst") },
            m_root));
    QVERIFY(run.started());
    for (const QString &answer : Resolved(answers, m_root)) {
        QVERIFY2(run.WaitFor("? "), run.output.constData());
        run.Type(answer.toLocal8Bit());
    }
    QCOMPARE(run.Finish(), exitCode);
    CheckFiles(m_root, files);
    QVERIFY2(run.output.contains(summary.toLatin1()), run.output.constData());
    // The progress line is redrawn in place.
    QVERIFY2(run.output.contains("\r\033[K"), run.output.constData());
    if (QTest::currentDataTag() == QByteArray("rename onto a taken place asks again"))
        QVERIFY2(run.output.contains(
                         (m_root + QStringLiteral("/taken/src/a.txt exists")).toLocal8Bit()),
                 run.output.constData());
}

void tst_TrellisCopy::splitsAtTheGivenDepth_data()
{
    QTest::addColumn<QStringList>("depth");
    QTest::addColumn<QString>("answer");
    QTest::addColumn<QString>("question");
    QTest::addColumn<QString>("summary");
    QTest::newRow("each source one item, overwritten")
            << QStringList { QStringLiteral("--depth"), QStringLiteral("0") }
            << QStringLiteral("o\n") << QStringLiteral("@/dst/src exists (copying @/src)")
            << QStringLiteral("Done: 3 copied, 0 skipped");
    QTest::newRow("each source one item, skipped")
            << QStringList { QStringLiteral("--depth=0") } << QStringLiteral("s\n")
            << QStringLiteral("@/dst/src exists (copying @/src)")
            << QStringLiteral("Done: 0 copied, 3 skipped");
    QTest::newRow("files one by one by default")
            << QStringList() << QStringLiteral("o\n")
            << QStringLiteral("@/dst/src/a.txt exists (copying @/src/a.txt)")
            << QStringLiteral("Done: 3 copied, 0 skipped");
    QTest::newRow("one level down")
            << QStringList { QStringLiteral("--depth"), QStringLiteral("1") }
            << QStringLiteral("o\n")
            << QStringLiteral("@/dst/src/a.txt exists (copying @/src/a.txt)")
            << QStringLiteral("Done: 3 copied, 0 skipped");
}

void tst_TrellisCopy::splitsAtTheGivenDepth()
{
    QFETCH(QStringList, depth);
    QFETCH(QString, answer);
    QFETCH(QString, question);
    QFETCH(QString, summary);
    QVERIFY(WriteFile(m_root + QStringLiteral("/dst/src/a.txt"), "old a"));

    TerminalRun run(depth + Resolved({ QStringLiteral("@/src"), QStringLiteral("@/dst") }, m_root));
    QVERIFY(run.started());
    QVERIFY2(run.WaitFor(Resolved({ question }, m_root).constFirst().toLocal8Bit()),
             run.output.constData());
    QVERIFY2(run.WaitFor("? "), run.output.constData());
    run.Type(answer.toLatin1());
    QCOMPARE(run.Finish(), 0);
    QVERIFY2(run.output.contains(summary.toLatin1()), run.output.constData());
    // One question only.
    QCOMPARE(run.output.count("quit? "), 1);
    if (answer == QLatin1String("o\n"))
        QVERIFY(SameTrees(m_root + QStringLiteral("/src"), m_root + QStringLiteral("/dst/src")));
    else
        QVERIFY(!QFileInfo::exists(m_root + QStringLiteral("/dst/src/b.txt")));
}

void tst_TrellisCopy::reportsFailuresAndGoesOnOrQuits_data()
{
    QTest::addColumn<bool>("terminal");
    QTest::addColumn<QStringList>("answers");
    QTest::addColumn<int>("reported"); // of a, b and c, in that order
    QTest::addColumn<QString>("summary");
    QTest::newRow("terminal, continue") << true << Lines({ "c\n", "continue\n", "c\n" }) << 3
                                        << QStringLiteral("Done: 0 copied, 0 skipped, 3 failed");
    QTest::newRow("terminal, quit") << true << Lines({ "q\n" }) << 1
                                    << QStringLiteral("Quit: 0 copied, 0 skipped, 1 failed");
    QTest::newRow("no terminal") << false << QStringList() << 3
                                 << QStringLiteral("Done: 0 copied, 0 skipped, 3 failed");
}

void tst_TrellisCopy::reportsFailuresAndGoesOnOrQuits()
{
    QFETCH(bool, terminal);
    QFETCH(QStringList, answers);
    QFETCH(int, reported);
    QFETCH(QString, summary);
    // No file can be created below a file, not even by root.
    QVERIFY(WriteFile(m_root + QStringLiteral("/dst/src"), "in the way"));
    const QStringList arguments = Resolved(Lines({ "@/src", "@/dst" }), m_root);

    QByteArray output;
    if (terminal) {
        TerminalRun run(arguments);
        QVERIFY(run.started());
        for (const QString &answer : answers) {
            QVERIFY2(run.WaitFor("? "), run.output.constData());
            run.Type(answer.toLatin1());
        }
        QCOMPARE(run.Finish(), 1);
        output = run.output;
    } else {
        const PlainRun run(arguments);
        QCOMPARE(run.exitCode, 1);
        output = run.output + run.errors;
    }
    const QStringList names = Lines({ "a", "b", "c" });
    for (int index = 0; index < names.size(); ++index) {
        const QString report
                = QStringLiteral("could not copy %1/src/%2.txt").arg(m_root, names.at(index));
        QVERIFY2(output.contains(report.toLocal8Bit()) == (index < reported), output.constData());
    }
    QVERIFY2(output.contains(summary.toLatin1()), output.constData());
}

void tst_TrellisCopy::interruptStopsACopyInProgress()
{
    // A source that never ends keeps the copy busy until it is stopped.
    TerminalRun run(Resolved({ QStringLiteral("/dev/zero"), QStringLiteral("@/dst") }, m_root));
    QVERIFY(run.started());
    // 99% is the copier's own report from inside the file.
    QVERIFY2(run.WaitFor(" 99% "), run.output.constData());
    run.Type("\x03");
    QCOMPARE(run.Finish(), 130);
    QVERIFY2(run.output.contains("stopped while copying /dev/zero; its copy may be incomplete"),
             run.output.constData());
    QVERIFY2(run.output.contains("Interrupted: 0 copied, 0 skipped, 0 failed"),
             run.output.constData());
}

void tst_TrellisCopy::interruptEndsAQuestion()
{
    QVERIFY(WriteFile(m_root + QStringLiteral("/dst/src/a.txt"), "old a"));
    TerminalRun run(Resolved({ QStringLiteral("@/src"), QStringLiteral("@/dst") }, m_root));
    QVERIFY(run.started());
    QVERIFY2(run.WaitFor("quit? "), run.output.constData());
    run.Type("\x03");
    QCOMPARE(run.Finish(), 130);
    QVERIFY2(run.output.contains("Interrupted: 0 copied"), run.output.constData());
    CheckFiles(m_root,
               { QStringLiteral("dst/src/a.txt=old a"), QStringLiteral("dst/src/b.txt=-") });
}

QTEST_GUILESS_MAIN(tst_TrellisCopy)
#include "tst_trelliscopy.moc"
