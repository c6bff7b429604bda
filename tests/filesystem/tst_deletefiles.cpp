#include "fstestsupport.h"

#include <Trellis/TFileSystemHelper.h>

#include <QTemporaryDir>
#include <QTest>

#include <cstring>
#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace FsTest;

namespace {

// Takes from the calling thread, while it lives, the capabilities that let
// root ignore file permissions and ownership, so that root sees the refusals
// an ordinary user sees.
class WithoutFileOverrides
{
public:
    WithoutFileOverrides()
    {
        m_header.version = _LINUX_CAPABILITY_VERSION_3;
        m_header.pid = 0;
        if (::syscall(SYS_capget, &m_header, m_saved) != 0)
            return;
        __user_cap_data_struct reduced[2];
        std::memcpy(reduced, m_saved, sizeof reduced);
        for (int capability : { CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH, CAP_FOWNER })
            reduced[0].effective &= ~(1u << capability);
        m_active = ::syscall(SYS_capset, &m_header, reduced) == 0;
    }
    ~WithoutFileOverrides()
    {
        if (m_active)
            ::syscall(SYS_capset, &m_header, m_saved);
    }
    bool isActive() const { return m_active; }

private:
    __user_cap_header_struct m_header {};
    __user_cap_data_struct m_saved[2] {};
    bool m_active = false;
};

} // namespace

class tst_DeleteFiles : public QObject
{
    Q_OBJECT

private slots:
    void outcomes_data();
    void outcomes();
    void unremovableFile();
};

void tst_DeleteFiles::outcomes_data()
{
    QTest::addColumn<QStringList>("entries");
    QTest::addColumn<QString>("filter");
    QTest::addColumn<QString>("dir");
    QTest::addColumn<int>("code");
    QTest::addColumn<QStringList>("deleted");
    QTest::addColumn<QStringList>("remaining");

    QTest::newRow("two of three") << names("a.log b.log c.txt") << "*.log"
                                  << "." << 1 << names("a.log b.log") << names("c.txt");
    QTest::newRow("case ignored, name order")
            << names("b.log A.log c.LOG d.txt") << "*.LOG"
            << "." << 1 << names("A.log b.log c.LOG") << names("d.txt");
    QTest::newRow("working directory") << names("a.log") << "*.log"
                                       << "" << 1 << names("a.log") << QStringList();
    QTest::newRow("hidden files and directories stay")
            << names(".x.log d.log/ e.log") << "*.log"
            << "." << 1 << names("e.log") << names(".x.log d.log");
    QTest::newRow("link removed, not its target")
            << names("target.txt link.log->target.txt") << "*.log"
            << "." << 1 << names("link.log") << names("target.txt");
    QTest::newRow("subdirectory untouched") << names("sub/a.log") << "*.log"
                                            << "." << 3 << QStringList() << names("sub sub/a.log");
    QTest::newRow("one pattern, not two") << names("a.log c.txt") << "*.log *.txt"
                                          << "." << 3 << QStringList() << names("a.log c.txt");
    QTest::newRow("broken link not seen") << names("gone.log->missing") << "*.log"
                                          << "." << 3 << QStringList() << names("gone.log");
    QTest::newRow("empty directory") << QStringList() << "*"
                                     << "." << 3 << QStringList() << QStringList();
    QTest::newRow("missing directory") << names("a.log") << "*.log"
                                       << "missing" << 4 << QStringList() << names("a.log");
    QTest::newRow("plain file") << names("a.log") << "*"
                                << "a.log" << 4 << QStringList() << names("a.log");
}

void tst_DeleteFiles::outcomes()
{
    QFETCH(QStringList, entries);
    QFETCH(QString, filter);
    QFETCH(QString, dir);
    QFETCH(int, code);
    QFETCH(QStringList, deleted);
    QFETCH(QStringList, remaining);
    QTemporaryDir root;
    QVERIFY(root.isValid());
    QVERIFY(makeEntries(root.path(), entries));
    const QString previous = QDir::currentPath();
    QVERIFY(QDir::setCurrent(root.path()));
    QStringList deletedFiles = names("stale entries");
    QStringList failedFiles = names("stale entries");

    const int result = TFileSystemHelper::DeleteFiles(filter, dir, deletedFiles, failedFiles);
    QDir::setCurrent(previous);

    QCOMPARE(result, code);
    QCOMPARE(deletedFiles, deleted);
    QCOMPARE(failedFiles, QStringList());
    QCOMPARE(snapshot(root.path()).keys(), remaining);
}

void tst_DeleteFiles::unremovableFile()
{
    // In a sticky directory owned by someone else, only the files one owns
    // can be removed.
    if (::geteuid() != 0)
        QSKIP("giving a file to another user needs root");
    QTemporaryDir root;
    QVERIFY(root.isValid());
    const QDir dir(root.path());
    QVERIFY(makeEntries(root.path(), names("a.log b.log c.log c.txt")));
    constexpr uid_t Nobody = 65534;
    for (const char *name : { "a.log", "c.log", "." })
        QCOMPARE(::chown(QFile::encodeName(dir.filePath(QLatin1String(name))).constData(), Nobody,
                         Nobody),
                 0);
    QCOMPARE(::chmod(QFile::encodeName(root.path()).constData(), 01777), 0);
    QStringList deletedFiles;
    QStringList failedFiles;

    int result;
    {
        WithoutFileOverrides asUser;
        QVERIFY(asUser.isActive());
        result = TFileSystemHelper::DeleteFiles(QStringLiteral("*.log"), root.path(), deletedFiles,
                                                failedFiles);
    }

    QCOMPARE(result, 2);
    QCOMPARE(deletedFiles, names("b.log"));
    QCOMPARE(failedFiles, names("a.log c.log"));
    QCOMPARE(snapshot(root.path()).keys(), names("a.log c.log c.txt"));
}

QTEST_GUILESS_MAIN(tst_DeleteFiles)
#include "tst_deletefiles.moc"
