// The file-system helpers against trees that another process changes while
// they work, and against names and trees that are hard to walk. Races are run
// for a fixed number of rounds, each driven by the attacker's own events,
// never by sleeps. Rows that need root skip, saying so, when not root.

#include "AsNobody.h"
#include "FileTestSupport.h"

#include <Trellis/TFileCopyTask.h>
#include <Trellis/TFileSystemHelper.h>

#include <QtTest>

#include <fcntl.h>
#include <unistd.h>

namespace {

// The state in which a copy task's first pass over source ends, items depth
// levels below it; -1 when it has not ended in the bound. A file copied
// after source keeps a failure in source from ending the batch, which would
// read as state 4.
int copyTaskState(const QString &path, const QString &destination, int depth)
{
    const QFileInfo source(QDir::current().absoluteFilePath(path)),
            after(source.filePath() + ".after"_s);
    TFileCopyTask task;
    QSignalSpy states(&task, &TFileCopyTask::State);
    if (writeFile(after.filePath(), "after"))
        task.CopyFiles({ after, source }, QRegExp::escape(source.path()),
                       QDir::current().absoluteFilePath(destination), depth);
    if (states.wait(HangBoundMsecs))
        return states.first().first().toInt();
    qWarning("the copy task's pass did not end");
    return -1;
}

} // namespace

class tst_Hostile : public FileTestCase
{
    Q_OBJECT

private slots:
    // Another process, of this user or of another one, attacks:
    // - delete: directories of a tree are swapped for links to a directory
    //   outside it while the tree is deleted, as the walk opens them; the walk
    //   removes the links and never touches what they lead to;
    // - copy: a link is planted at a copy's destination, over and over; the
    //   copy creates its file new and never writes through the link.
    void attacks_data()
    {
        QTest::addColumn<bool>("copy");
        QTest::addColumn<bool>("otherUser");
        QTest::newRow("delete, by the same user") << false << false;
        QTest::newRow("delete, by another user") << false << true;
        QTest::newRow("copy, by the same user") << true << false;
        QTest::newRow("copy, by another user") << true << true;
    }
    void attacks()
    {
        QFETCH(bool, copy);
        QFETCH(bool, otherUser);
        if (const QString why = whyNotAsNobody(); otherUser && !why.isEmpty())
            QSKIP(qPrintable(why));
        // Names the tree has too: a walk that removes by path through a link
        // would find them.
        QVERIFY(makeTree("."_s, "outside/f0 outside/f1 outside/f2 outside/f3 source tree/"_s));
        const auto untouched = snapshot("outside"_s);
        for (int round = 0; round < (copy ? 1 : 20); ++round) {
            for (int d = 0; d < (copy ? 0 : 50); ++d)
                QVERIFY(makeTree("tree/d%1"_s.arg(d), "f0 f1 f2 f3"_s));
            QVERIFY(!otherUser || run({ "chown"_s, "-R"_s, "%1:%1"_s.arg(Nobody), "tree"_s }) == 0);
            // Links lead out of tree/ to ../outside.
            QStringList command = (otherUser ? asNobody() : QStringList())
                    + programNextToTest("hostile_attacker"_s)
                    + names(copy ? "plant-link tree/copy ../outside/f0"
                                 : "swap-dirs tree ../outside");
            QProcess attacker; // killed at its end, also when a check fails
            attacker.start(command.takeFirst(), command);
            const HangWatch watch(
                    "the attacker to be in place, then the attacked calls to return"_s);
            while (!attacker.canReadLine())
                QVERIFY(attacker.waitForReadyRead(-1));
            QCOMPARE(attacker.readLine(), QByteArray("ready\n"));
            for (int i = 0; copy && i < 2000; ++i)
                TFileSystemHelper::FileCopy("source"_s, "tree/copy"_s, false);
            if (!copy)
                TFileSystemHelper::DeleteDirGeneric("tree"_s, true, false);
            attacker.kill(), attacker.waitForFinished(-1);
            QCOMPARE(snapshot("outside"_s), untouched);
            QVERIFY(QDir("tree"_s).removeRecursively() && QDir().mkdir("tree"_s));
        }
    }

    // Names are bytes, and trees deeper than PATH_MAX and than the
    // descriptors a process may hold: the walks neither give up nor run out,
    // and copy a name in no valid encoding like any other. diff -r stops at
    // PATH_MAX; find walks as deep as the tree goes. The copy task names
    // files by text, so it reports such a name as a failure, at whatever
    // depth it meets it.
    void deepTreesOfNamesInNoEncoding()
    {
        const char *const name = "caf\351", *const file = "caf\351.txt"; // Latin-1
        int fd = ::open(".", O_RDONLY | O_DIRECTORY);
        for (int level = 0; level < 2500; ++level) {
            const char *const directory = level ? name : "deep";
            const int child = ::mkdirat(fd, directory, 0755) == 0
                    ? ::openat(fd, directory, O_RDONLY | O_DIRECTORY)
                    : -1;
            const int written = ::openat(child, file, O_WRONLY | O_CREAT, 0644);
            QVERIFY(::close(fd) == 0 && (fd = child) >= 0 && ::write(written, "x", 1) == 1
                    && ::close(written) == 0);
        }
        ::close(fd);
        for (const int depth : { 0, 1, 2 })
            QCOMPARE(copyTaskState("deep"_s, "task"_s, depth), int(TFileCopyTask::StateCopyFailed));
        QVERIFY(TFileSystemHelper::CopyDir("deep"_s, "copy"_s));
        QByteArray listings[2];
        for (const int copy : { 0, 1 })
            QCOMPARE(run({ "sh"_s, "-c"_s,
                           "find \"$0\" -printf '%P %y %s\\n' >\"$0.list\" && sort \"$0.list\""_s,
                           copy ? "copy"_s : "deep"_s },
                         &listings[copy]),
                     0);
        QCOMPARE(listings[1], listings[0]);
        // QTemporaryDir names what it removes by text: it would leave these.
        for (const QString &tree : { "deep"_s, "copy"_s })
            QVERIFY(TFileSystemHelper::DeleteDirGeneric(tree, false, true) && !exists(tree));
    }

    // A directory that cannot be listed is a failure, never an empty one.
    // Root may list anything, so as root the test runs itself as nobody.
    void unreadableDirectoriesFail()
    {
        RUN_AS_NOBODY_WHEN_ROOT();
        QVERIFY(writeFile("source/locked/inside.txt"_s, "inside")
                && ::chmod("source/locked", 0100) == 0);
        const auto unlock = qScopeGuard([] { ::chmod("source/locked", 0700); });
        QVERIFY(!TFileSystemHelper::CopyDir("source"_s, "copy"_s));
        for (const int depth : { 0, 1 })
            QCOMPARE(copyTaskState("source"_s, "task"_s, depth),
                     int(TFileCopyTask::StateCopyFailed));
        QVERIFY(!TFileSystemHelper::DeleteDirGeneric("source"_s, false, true)
                && exists("source/locked"_s));
    }

    // An archive from an untrusted medium writes nothing outside the
    // destination: Unzip refuses it whole. Each row's shell commands make,
    // in the temporary directory, the archives unpacked in turn into dest/
    // (first.tgz, when there, is unpacked before and may succeed);
    // outside/ holds a file of the same name the archives aim at.
    void unzipStaysInside_data()
    {
        QTest::addColumn<QString>("make");
        QTest::newRow("absolute member") << "cd .. && tar -czPf last.tgz \"$PWD/outside/file\""_s;
        QTest::newRow("'..' member") << "tar -czPf ../last.tgz ../outside/file"_s;
        QTest::newRow("member through a link of the archive")
                << "ln -s ../outside x && tar -czf ../last.tgz x x/file"_s;
        QTest::newRow("member through a link an earlier archive made")
                << "ln -s ../outside x && tar -czf ../first.tgz x && rm x && mkdir x && "
                   "echo new > x/file && tar -czf ../last.tgz x/file"_s;
        QTest::newRow("member through a chain of links")
                << "mkdir d && ln -s ../.. d/up && ln -s d/up y && ln -s y/outside z && "
                   "tar -czf ../last.tgz d y z z/file"_s;
    }
    void unzipStaysInside()
    {
        QFETCH(QString, make);
        const QString outside = "outside"_s, dest = "dest"_s;
        QVERIFY(writeFile(outside + "/file"_s, "outside") && QDir().mkdir(dest));
        QByteArray output;
        const int status = run({ "sh"_s, "-c"_s, "mkdir stage && cd stage && "_s + make }, &output);
        QVERIFY2(status == 0, output.constData());
        // The shell's own staging tree may hold links out; only the archives count.
        QVERIFY(QDir("stage"_s).removeRecursively());
        const auto untouched = snapshot(outside);
        QVERIFY(!exists("first.tgz"_s) || TFileSystemHelper::Unzip("first.tgz"_s, dest));
        const auto before = snapshot(dest);
        QVERIFY(!TFileSystemHelper::Unzip("last.tgz"_s, dest));
        QCOMPARE(snapshot(dest), before);
        QCOMPARE(snapshot(outside), untouched);
    }
};

QTEST_GUILESS_MAIN(tst_Hostile)
#include "tst_hostile.moc"
