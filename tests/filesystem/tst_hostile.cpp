// The file-system helpers against trees that another process changes while
// they work, and against sources that are no regular files. Races are run
// for a fixed number of rounds, each driven by the attacker's own events,
// never by sleeps. Rows that need root skip, saying so, when not root.

#include "HangWatch.h"

#include <Trellis/TFileHash.h>
#include <Trellis/TFileSystemHelper.h>

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

#include <functional>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr uid_t Nobody = 65534;

bool writeFile(const QString &path, const QByteArray &content)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
}

// Every entry below dir, with its mode and content: what must not change.
QStringList fingerprint(const QString &dir)
{
    QStringList entries;
    const QFileInfoList infos = QDir(dir).entryInfoList(
            QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
    for (const QFileInfo &info : infos) {
        struct stat status;
        ::lstat(QFile::encodeName(info.filePath()).constData(), &status);
        QFile file(info.filePath());
        const QByteArray content = file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
        entries << QStringLiteral("%1 %2 %3")
                           .arg(info.fileName())
                           .arg(status.st_mode, 0, 8)
                           .arg(QString::fromLatin1(content.toHex()));
    }
    return entries;
}

// Hands the tree under path to the ordinary user the attacker runs as.
bool giveToNobody(const QString &path)
{
    return QProcess::execute(QStringLiteral("chown"),
                             { QStringLiteral("-R"), QStringLiteral("%1:%1").arg(Nobody), path })
            == 0;
}

// The attacker process (hostile_attacker, next to this program), as root or
// as the ordinary user nobody; killed when the object ends.
class Attacker
{
public:
    Attacker(bool asNobody, const QStringList &arguments)
    {
        const QString program
                = QCoreApplication::applicationDirPath() + QStringLiteral("/hostile_attacker");
        if (asNobody)
            m_process.start(QStringLiteral("setpriv"),
                            QStringList { QStringLiteral("--reuid=%1").arg(Nobody),
                                          QStringLiteral("--regid=%1").arg(Nobody),
                                          QStringLiteral("--clear-groups"), program }
                                    + arguments);
        else
            m_process.start(program, arguments);
    }
    ~Attacker()
    {
        m_process.kill();
        m_process.waitForFinished(-1);
    }

    // Whether it said it is in place.
    bool waitUntilReady()
    {
        const HangWatch watch(QStringLiteral("the attacker to be in place"));
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
            return QStringLiteral("an attacker of another user needs root to start it");
        if (QStandardPaths::findExecutable(QStringLiteral("setpriv")).isEmpty())
            return QStringLiteral("setpriv, to start an attacker of another user, is missing");
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
        const QString outside = path(QStringLiteral("outside"));
        QVERIFY(QDir().mkdir(outside));
        // Names the tree has too: a walk that removes by path through a link
        // would find them.
        for (int f = 0; f < 4; ++f)
            QVERIFY(writeFile(outside + QStringLiteral("/f%1").arg(f), "keep"));
        const QStringList untouched = fingerprint(outside);

        for (int round = 0; round < 20; ++round) {
            const QString tree = path(QStringLiteral("tree"));
            for (int d = 0; d < 50; ++d) {
                const QString dir = tree + QStringLiteral("/d%1").arg(d);
                QVERIFY(QDir().mkpath(dir));
                for (int f = 0; f < 4; ++f)
                    QVERIFY(writeFile(dir + QStringLiteral("/f%1").arg(f), "tree"));
            }
            if (otherUser)
                QVERIFY(giveToNobody(tree));
            {
                Attacker attacker(otherUser, { QStringLiteral("swap-dirs"), tree, outside });
                QVERIFY(attacker.waitUntilReady());
                TFileSystemHelper::DeleteDirGeneric(tree, true, false);
            }
            QCOMPARE(fingerprint(outside), untouched);
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
        const QString target = path(QStringLiteral("precious"));
        QVERIFY(writeFile(target, "precious"));
        const QStringList untouched = fingerprint(m_dir->path());
        const QString source = path(QStringLiteral("source"));
        QVERIFY(writeFile(source, QByteArray(10000, 's')));
        const QString drop = path(QStringLiteral("drop"));
        QVERIFY(QDir().mkdir(drop));
        if (otherUser)
            QVERIFY(giveToNobody(drop));
        const QString destination = drop + QStringLiteral("/copy.bin");

        Attacker attacker(otherUser, { QStringLiteral("plant-link"), destination, target });
        QVERIFY(attacker.waitUntilReady());
        for (int i = 0; i < 2000; ++i)
            TFileSystemHelper::FileCopy(source, destination, false);
        QCOMPARE(fingerprint(m_dir->path()).filter(QStringLiteral("precious")),
                 untouched.filter(QStringLiteral("precious")));
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
        const QString copy = path(QStringLiteral("copy"));
        const HangWatch watch(QStringLiteral("the copy and the digest of %1").arg(kind));
        QVERIFY(!TFileSystemHelper::FileCopy(special, copy, true));
        QVERIFY(!QFileInfo::exists(copy));
        QCOMPARE(TFileHash::CalculateFileMD5(special).toHex(),
                 QByteArray("d41d8cd98f00b204e9800998ecf8427e"));
    }
};

QTEST_GUILESS_MAIN(tst_Hostile)
#include "tst_hostile.moc"
