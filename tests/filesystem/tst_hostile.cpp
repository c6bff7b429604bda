// The file-system helpers against trees that another process changes while
// they work, and against sources that are no regular files. Races are run
// for a fixed number of rounds, each driven by the attacker's own events,
// never by sleeps. Rows that need root skip, saying so, when not root.

#include "FileTestSupport.h"
#include "programcommand.h"

#include <Trellis/TFileCopyTask.h>
#include <Trellis/TFileHash.h>
#include <Trellis/TFileSystemHelper.h>

#include <QSignalSpy>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

#include <algorithm>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr uid_t Nobody = 65534;

// Hands the tree under path to the ordinary user the attacker runs as.
bool giveToNobody(const QString &path)
{
    return run({ "chown"_s, "-R"_s, "%1:%1"_s.arg(Nobody), path }) == 0;
}

// The state in which a copy task's first pass over source ends, items depth
// levels below it; -1 when it has not ended in two minutes. A file copied
// after source keeps a failure in source from ending the batch, which would
// read as state 4.
int copyTaskState(const QString &source, const QString &destination, int depth)
{
    const QString after = source + ".after"_s;
    if (!writeFile(after, "after"))
        return -1;
    TFileCopyTask task;
    QSignalSpy states(&task, &TFileCopyTask::State);
    task.CopyFiles({ QFileInfo(after), QFileInfo(source) },
                   QRegExp::escape(QFileInfo(source).path()), destination, depth);
    if (!states.wait(120000)) {
        qWarning("the copy task's pass did not end");
        return -1;
    }
    return states.first().first().toInt();
}

// The words that run a command as the ordinary user nobody.
QStringList asUserNobody()
{
    return { "setpriv"_s, "--reuid=%1"_s.arg(Nobody), "--regid=%1"_s.arg(Nobody),
             "--clear-groups"_s };
}

// The attacker process (hostile_attacker, next to this program), as root or
// as the ordinary user nobody; killed when the object ends.
class Attacker
{
public:
    Attacker(bool asNobody, const QStringList &arguments)
    {
        QStringList command
                = programCommand(QCoreApplication::applicationDirPath() + "/hostile_attacker"_s)
                + arguments;
        if (asNobody)
            command = asUserNobody() + command;
        m_process.start(command.takeFirst(), command);
    }
    ~Attacker()
    {
        m_process.kill();
        m_process.waitForFinished(-1);
    }

    // Whether it said it is in place.
    bool waitUntilReady()
    {
        const HangWatch watch("the attacker to be in place"_s);
        while (!m_process.canReadLine()) {
            if (!m_process.waitForReadyRead(-1))
                return false;
        }
        return m_process.readLine() == "ready\n";
    }

private:
    QProcess m_process;
};

} // namespace

class tst_Hostile : public QObject
{
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_dir;

    QString path(const QString &name) const { return m_dir->filePath(name); }

    // Why an attacker of another user cannot be started here; empty when it can.
    static QString whyNoOtherUser()
    {
        if (::geteuid() != 0)
            return "an attacker of another user needs root to start it"_s;
        if (QStandardPaths::findExecutable("setpriv"_s).isEmpty())
            return "setpriv, to start an attacker of another user, is missing"_s;
        return QString();
    }

    void byWhom()
    {
        QTest::addColumn<bool>("otherUser");
        QTest::newRow("attacker of the same user") << false;
        QTest::newRow("attacker of another user") << true;
    }

private slots:
    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        QVERIFY(m_dir->isValid());
        // The attacker of another user must reach its tree.
        QVERIFY(QFile::setPermissions(m_dir->path(),
                                      QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner
                                              | QFile::ReadOther | QFile::ExeOther));
    }

    // Directories of the tree are swapped for links to a directory outside
    // it while the tree is deleted: the walk removes the links and never
    // touches what they lead to.
    void deleteStaysInTheTree_data() { byWhom(); }
    void deleteStaysInTheTree()
    {
        QFETCH(bool, otherUser);
        if (otherUser && !whyNoOtherUser().isEmpty())
            QSKIP(qPrintable(whyNoOtherUser()));
        const QString outside = path("outside"_s);
        // Names the tree has too: a walk that removes by path through a link
        // would find them.
        QVERIFY(makeEntries(outside, names("f0 f1 f2 f3")));
        const auto untouched = snapshot(outside);

        for (int round = 0; round < 20; ++round) {
            const QString tree = path("tree"_s);
            for (int d = 0; d < 50; ++d)
                QVERIFY(makeEntries(tree + "/d%1"_s.arg(d), names("f0 f1 f2 f3")));
            if (otherUser)
                QVERIFY(giveToNobody(tree));
            {
                Attacker attacker(otherUser, { "swap-dirs"_s, tree, outside });
                QVERIFY(attacker.waitUntilReady());
                TFileSystemHelper::DeleteDirGeneric(tree, true, false);
            }
            QCOMPARE(snapshot(outside), untouched);
            QVERIFY(QDir(tree).removeRecursively());
        }
    }

    // Another process plants a link at a copy's destination, over and over:
    // the copy creates its file new and never writes through the link.
    void copyNeverWritesThroughALink_data() { byWhom(); }
    void copyNeverWritesThroughALink()
    {
        QFETCH(bool, otherUser);
        if (otherUser && !whyNoOtherUser().isEmpty())
            QSKIP(qPrintable(whyNoOtherUser()));
        const QString target = path("keep/precious"_s);
        QVERIFY(writeFile(target, "precious"));
        const auto untouched = snapshot(path("keep"_s));
        const QString source = path("source"_s);
        QVERIFY(writeFile(source, QByteArray(10000, 's')));
        const QString drop = path("drop"_s);
        QVERIFY(QDir().mkdir(drop));
        if (otherUser)
            QVERIFY(giveToNobody(drop));
        const QString destination = drop + "/copy.bin"_s;

        Attacker attacker(otherUser, { "plant-link"_s, destination, target });
        QVERIFY(attacker.waitUntilReady());
        for (int i = 0; i < 2000; ++i)
            TFileSystemHelper::FileCopy(source, destination, false);
        QCOMPARE(snapshot(path("keep"_s)), untouched);
    }

    // A name is bytes: one in no valid encoding is copied like any other.
    // The copy task names files by text, so it reports such a name as a
    // failure, at whatever depth it meets it.
    void namesInNoEncoding()
    {
        const QByteArray source = QFile::encodeName(path("source"_s));
        const QByteArray odd = "caf\xe9";
        QVERIFY(QDir().mkpath(path("source"_s)));
        QCOMPARE(::mkdir(source + '/' + odd, 0755), 0);
        for (const QByteArray &name : { odd + "/" + odd + ".txt", odd + ".txt" }) {
            QFile file(QFile::decodeName(source + '/' + name));
            const int fd = ::open(source + '/' + name, O_WRONLY | O_CREAT, 0644);
            QVERIFY(fd >= 0 && file.open(fd, QIODevice::WriteOnly, QFileDevice::AutoCloseHandle));
            QCOMPARE(file.write(name), qint64(name.size()));
        }
        QVERIFY(TFileSystemHelper::CopyDir(path("source"_s), path("copy"_s)));
        QCOMPARE(run({ "diff"_s, "-r"_s, path("source"_s), path("copy"_s) }), 0);
        QVERIFY(TFileSystemHelper::DeleteDirGeneric(path("copy"_s), false, true));
        QVERIFY(!QFileInfo::exists(path("copy"_s)));
        for (const int depth : { 0, 1, 2 })
            QCOMPARE(copyTaskState(path("source"_s), path("task"_s), depth),
                     int(TFileCopyTask::StateCopyFailed));
        // QTemporaryDir names what it removes by text: it would leave these.
        QVERIFY(TFileSystemHelper::DeleteDirGeneric(path("source"_s), false, true));
    }

    // Deeper than PATH_MAX and than the descriptors a process may hold: the
    // walks neither give up nor run out.
    void deepTrees()
    {
        int fd = ::open(QFile::encodeName(m_dir->path()), O_RDONLY | O_DIRECTORY);
        for (int level = 0; level < 3000; ++level) {
            const char *const name = level ? "d" : "deep";
            QCOMPARE(::mkdirat(fd, name, 0755), 0);
            const int child = ::openat(fd, name, O_RDONLY | O_DIRECTORY);
            ::close(fd);
            QVERIFY((fd = child) >= 0);
            const int file = ::openat(fd, "file.txt", O_WRONLY | O_CREAT, 0644);
            QVERIFY(file >= 0 && ::write(file, "x", 1) == 1 && ::close(file) == 0);
        }
        ::close(fd);
        QVERIFY(TFileSystemHelper::CopyDir(path("deep"_s), path("copy"_s)));
        // diff -r stops at PATH_MAX; find walks as deep as the tree goes.
        const auto listing = [this](const char *tree) {
            QByteArray found;
            if (run({ "find"_s, path(QLatin1String(tree)), "-printf"_s, "%P %y %s\\n"_s }, &found))
                return QByteArrayList { "find failed in " + QByteArray(tree) };
            QByteArrayList lines = found.split('\n');
            std::sort(lines.begin(), lines.end());
            return lines;
        };
        QCOMPARE(listing("copy"), listing("deep"));
        for (const QString &tree : { "deep"_s, "copy"_s }) {
            QVERIFY(TFileSystemHelper::DeleteDirGeneric(path(tree), false, true));
            QVERIFY(!QFileInfo::exists(path(tree)));
        }
    }

    // A directory that cannot be listed is a failure, never an empty one.
    // Root may list anything, so as root the test runs itself as nobody.
    void unreadableDirectoriesFail()
    {
        if (::geteuid() == 0) {
            if (!whyNoOtherUser().isEmpty())
                QSKIP(qPrintable(whyNoOtherUser()));
            QByteArray output;
            QVERIFY2(run(asUserNobody() + programCommand(QCoreApplication::applicationFilePath())
                                 << QString::fromLatin1(QTest::currentTestFunction()),
                         &output)
                             == 0,
                     output.constData());
            return;
        }
        QTemporaryDir own; // nobody cannot write in the root's temporary directory
        QVERIFY(own.isValid());
        const QString source = own.filePath("source"_s);
        QVERIFY(writeFile(source + "/locked/inside.txt"_s, "inside"));
        QVERIFY(QFile::setPermissions(source + "/locked"_s, QFile::ExeOwner));
        const auto unlock = qScopeGuard([&] {
            QFile::setPermissions(source + "/locked"_s,
                                  QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        });
        QVERIFY(!TFileSystemHelper::CopyDir(source, own.filePath("copy"_s)));
        for (const int depth : { 0, 1 })
            QCOMPARE(copyTaskState(source, own.filePath("task"_s), depth),
                     int(TFileCopyTask::StateCopyFailed));
        QVERIFY(!TFileSystemHelper::DeleteDirGeneric(source, false, true));
        QVERIFY(QFileInfo::exists(source + "/locked"_s));
    }

    // An archive from an untrusted medium writes nothing outside the
    // destination: Unzip refuses it whole. Each row's shell commands make,
    // in the temporary directory, the archives unpacked in turn into dest/
    // (first.tgz, when there, is unpacked before and may succeed);
    // outside/ holds a file of the same name the archives aim at.
    void unzipStaysInside_data()
    {
        QTest::addColumn<QString>("make");
        const QString stage = "mkdir -p stage && cd stage && "_s;
        QTest::newRow("absolute member")
                << QStringLiteral("tar -czPf last.tgz \"$PWD/outside/file\"");
        QTest::newRow("'..' member")
                << stage + QStringLiteral("tar -czPf ../last.tgz ../outside/file");
        QTest::newRow("member through a link of the archive")
                << stage + QStringLiteral("ln -s ../outside x && tar -czf ../last.tgz x x/file");
        QTest::newRow("member through a link an earlier archive made")
                << stage
                        + QStringLiteral(
                                "ln -s ../outside x && tar -czf ../first.tgz x && rm x && "
                                "mkdir x && echo new > x/file && tar -czf ../last.tgz x/file");
        QTest::newRow("member through a chain of links") << stage
                        + QStringLiteral("mkdir d && ln -s ../.. d/up && ln -s d/up y && "
                                         "ln -s y/outside z && tar -czf ../last.tgz d y z z/file");
    }
    void unzipStaysInside()
    {
        QFETCH(QString, make);
        const QString outside = path("outside"_s);
        QVERIFY(QDir().mkdir(outside));
        QVERIFY(writeFile(outside + "/file"_s, "outside"));
        QByteArray output;
        QVERIFY2(run({ "sh"_s, "-c"_s, "cd \"$0\" && "_s + make, m_dir->path() }, &output) == 0,
                 output.constData());
        // The shell's own staging tree may hold links out; only the archives count.
        QVERIFY(QDir(path("stage"_s)).removeRecursively());
        const auto untouched = snapshot(outside);

        const QString dest = path("dest"_s);
        QVERIFY(QDir().mkdir(dest));
        if (QFileInfo::exists(path("first.tgz"_s)))
            QVERIFY(TFileSystemHelper::Unzip(path("first.tgz"_s), dest));
        const auto before = snapshot(dest);
        QVERIFY(!TFileSystemHelper::Unzip(path("last.tgz"_s), dest));
        QCOMPARE(snapshot(dest), before);
        QCOMPARE(snapshot(outside), untouched);
    }

    // What has no end, or may block its reader, is refused at once: the copy
    // fails and creates nothing, the digest is that of no data.
    void specialFilesAreRefused_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::newRow("FIFO") << QStringLiteral("fifo");
        QTest::newRow("socket") << QStringLiteral("socket");
        QTest::newRow("character device") << QStringLiteral("/dev/zero");
    }
    void specialFilesAreRefused()
    {
        QFETCH(QString, kind);
        QString special = kind;
        int socketFd = -1;
        const auto closeSocket = qScopeGuard([&] {
            if (socketFd >= 0)
                ::close(socketFd);
        });
        if (kind == QLatin1String("fifo")) {
            special = path(kind);
            QCOMPARE(::mkfifo(QFile::encodeName(special).constData(), 0600), 0);
        } else if (kind == QLatin1String("socket")) {
            special = path(kind);
            socketFd = ::socket(AF_UNIX, SOCK_STREAM, 0);
            sockaddr_un address {};
            address.sun_family = AF_UNIX;
            const QByteArray name = QFile::encodeName(special);
            QVERIFY(size_t(name.size()) < sizeof address.sun_path);
            qstrcpy(address.sun_path, name.constData());
            QCOMPARE(::bind(socketFd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        }
        const QString copy = path("copy"_s);
        const HangWatch watch("the copy and the digest of %1"_s.arg(kind));
        QVERIFY(!TFileSystemHelper::FileCopy(special, copy, true));
        QVERIFY(!QFileInfo::exists(copy));
        QCOMPARE(TFileHash::CalculateFileMD5(special).toHex(),
                 QByteArray("d41d8cd98f00b204e9800998ecf8427e"));
    }
};

QTEST_GUILESS_MAIN(tst_Hostile)
#include "tst_hostile.moc"
