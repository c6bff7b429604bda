#include "fstestsupport.h"

#include <Trellis/TFileSystemHelper.h>

#include <QTemporaryDir>
#include <QTest>

#include <sys/fsuid.h>
#include <unistd.h>

using namespace FsTest;

// Each test works in a fresh temporary directory made the working directory.
class tst_DirectoryTrees : public QObject
{
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_dir;
    const QString m_startDir = QDir::currentPath();

private slots:
    void initTestCase() { setUpStampClock(); }
    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        QVERIFY(QDir::setCurrent(m_dir->path()));
    }
    void cleanup() { QDir::setCurrent(m_startDir); }

    void copyMatchesSource()
    {
        QVERIFY(makeEntries(QStringLiteral("src"),
                            names("x.txt sub/y.txt sub/deeper/ empty/ .hidden .hiddendir/f "
                                  "to-x->x.txt broken->missing linked-dir->../ext ../ext/e.txt")));
        QVERIFY(writeFile(QStringLiteral("src/sub/deeper/z.bin"), randomBytes(300000)));
        const QString dest = QStringLiteral("new/parents/dest");
        const qint64 before = stampNow();

        QVERIFY(TFileSystemHelper::CopyDir(QStringLiteral("src"), dest));
        QStringList copied = names("empty linked-dir linked-dir/e.txt sub sub/deeper "
                                   "sub/deeper/z.bin sub/y.txt to-x x.txt");
        QCOMPARE(snapshot(dest).keys(), copied);
        QCOMPARE(run(QStringLiteral("diff"), names("-r -x .* -x broken src") << dest), 0);
        for (const QString &entry : copied << QString()) { // the destination itself too
            const QString path = QDir(dest).filePath(entry);
            QVERIFY2(!QFileInfo(path).isSymLink() && isStamped(path, before), qPrintable(entry));
        }
    }

    void copyDir_data()
    {
        QTest::addColumn<QString>("entries"); // made besides the common ones
        QTest::addColumn<QString>("destination");
        QTest::addColumn<bool>("result");
        QTest::addColumn<QString>("copied"); // what the destination holds after
        // Overlapping trees are refused before anything is written.
        const QString none;
        QTest::newRow("the source itself") << none << "src" << false << none;
        QTest::newRow("inside the source") << none << "src/a/new" << false << none;
        QTest::newRow("the source, written differently") << none << "./src/a/..//" << false << none;
        QTest::newRow("inside, through a link") << none << "to-src/new" << false << none;
        // The kernel resolves "to-a/.." to src; a lexical reading would not.
        QTest::newRow("through a link and '..'") << none << "to-a/../new" << false << none;
        // A linked directory that would be copied into itself is not entered
        // and counts as a failed subdirectory: its parent's files stay behind.
        const QString dest = QStringLiteral("dest");
        const QString withoutA = QStringLiteral("a a/inner a/inner/g b b/h old");
        QTest::newRow("link to an ancestor") << "src/a/up->.." << dest << false << withoutA;
        QTest::newRow("link to itself") << "src/a/self->." << dest << false << withoutA;
        QTest::newRow("link to the destination")
                << "src/a/o->../../dest" << dest << false << withoutA;
        // dest/a leads to src/b: copying src/a there would overwrite src/b.
        QTest::newRow("destination link into the source")
                << "dest/a->../src/b" << dest << false << QStringLiteral("a b b/h old");
        // A file copy cannot replace a directory with contents.
        QTest::newRow("failing file")
                << "dest/a/f/blocker" << dest << false
                << QStringLiteral("a a/f a/f/blocker a/g a/inner a/inner/g b b/h old");
        QTest::newRow("merged into the destination")
                << "dest/top" << dest << true
                << QStringLiteral("a a/f a/g a/inner a/inner/g b b/h old top");
    }

    void copyDir()
    {
        QFETCH(QString, entries);
        QFETCH(QString, destination);
        QFETCH(bool, result);
        QFETCH(QString, copied);
        entries += QStringLiteral(
                " src/top src/a/f src/a/g src/a/inner/g src/b/h dest/old to-src->src "
                "to-a->src/a");
        QVERIFY(makeEntries(QStringLiteral("."),
                            entries.split(QLatin1Char(' '), Qt::SkipEmptyParts)));
        const auto sourceBefore = snapshot(QStringLiteral("src"));
        const auto before = snapshot(QStringLiteral("."));
        const qint64 beforeStamp = stampNow();

        QCOMPARE(TFileSystemHelper::CopyDir(QStringLiteral("src"), destination), result);
        QCOMPARE(snapshot(QStringLiteral("src")), sourceBefore);
        if (copied.isEmpty()) { // refused
            QCOMPARE(snapshot(QStringLiteral(".")), before);
            return;
        }
        QCOMPARE(snapshot(destination).keys(), copied.split(QLatin1Char(' ')));
        QVERIFY(isStamped(destination, beforeStamp));
        for (const QString &entry : copied.split(QLatin1Char(' '))) {
            const QString copy = destination + QLatin1Char('/') + entry;
            if (QFileInfo(copy).isFile() && exists(QStringLiteral("src/") + entry))
                QCOMPARE(readFile(copy), readFile(QStringLiteral("src/") + entry));
        }
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
        QVERIFY(makeEntries(QStringLiteral("."), entries));
        QStringList deletedFiles = names("stale entries");
        QStringList failedFiles = deletedFiles;
        if (code == 2) { // as the user "nobody", who owns only b.log
            QCOMPARE(::chmod(".", 01777) | ::chown("b.log", 65534, 65534), 0);
            ::setfsuid(65534);
        }
        const int result = TFileSystemHelper::DeleteFiles(filter, dir, deletedFiles, failedFiles);
        ::setfsuid(0);
        QCOMPARE(result, code);
        QCOMPARE(deletedFiles, deleted);
        QCOMPARE(failedFiles, code == 2 ? names("a.log c.log") : QStringList());
        QCOMPARE(snapshot(QStringLiteral(".")).keys(), left);
    }

    void deleteDirGeneric_data()
    {
        QTest::addColumn<QStringList>("entries");
        QTest::addColumn<bool>("ignoreErrors");
        QTest::addColumn<bool>("deleteRootDir");
        QTest::addColumn<bool>("result");
        QTest::addColumn<QStringList>("left"); // what must be left in the directory
        QTest::addColumn<QStringList>("gone"); // what must be gone (walk order decides the rest)
        const QStringList tree = names("f1 f2 sub/g sub/deeper/h sub/empty/");
        const QStringList all = names("f1 f2 sub sub/deeper sub/deeper/h sub/empty sub/g");
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
        QVERIFY(makeEntries(QStringLiteral("root"), entries));
        QVERIFY(QFile::setPermissions(QStringLiteral("root/f1"), {})); // no bits at all

        QCOMPARE(TFileSystemHelper::DeleteDirGeneric(QStringLiteral("root"), ignoreErrors,
                                                     deleteRootDir),
                 result);
        QCOMPARE(exists(QStringLiteral("root")), !deleteRootDir || !left.isEmpty());
        const auto after = snapshot(QStringLiteral("root"));
        for (const QString &entry : left)
            QVERIFY2(after.contains(entry), qPrintable(entry));
        for (const QString &entry : gone)
            QVERIFY2(!after.contains(entry), qPrintable(entry));
    }

    void deleteDirGenericLeavesOutsideAlone()
    {
        // Links inside the tree go as links; a hard-linked file keeps its mode.
        QVERIFY(makeEntries(
                QStringLiteral("."),
                names("outside/o outside/dir/p outside/hard root/sub/to-dir->../../outside/dir "
                      "root/to-o->../outside/o root/to-outside->../outside top->outside")));
        QCOMPARE(::chmod("outside/dir", 0500) | ::chmod("outside/o", 0404)
                         | ::chmod("outside/hard", 0440) | ::link("outside/hard", "root/sub/hard"),
                 0);
        const auto outside = snapshot(QStringLiteral("outside"));
        QVERIFY(TFileSystemHelper::DeleteDirGeneric(QStringLiteral("root"), false, true));
        QVERIFY(!exists(QStringLiteral("root")));
        QCOMPARE(snapshot(QStringLiteral("outside")), outside);

        // Missing paths and plain files give true and stay as they are.
        const auto before = snapshot(QStringLiteral("."));
        for (const char *path : { "missing", "outside/o" })
            QVERIFY(TFileSystemHelper::DeleteDirGeneric(QLatin1String(path), false, true));
        QCOMPARE(snapshot(QStringLiteral(".")), before);
        // A link at the top names its target, which is emptied; the link stays.
        QVERIFY(QFile::setPermissions(QStringLiteral("outside/dir"),
                                      QFile::WriteUser | QFile::ExeUser | QFile::ReadUser));
        QVERIFY(!TFileSystemHelper::DeleteDirGeneric(QStringLiteral("top"), false, true));
        QCOMPARE(snapshot(QStringLiteral(".")).keys(), names("outside top"));
    }
};

QTEST_GUILESS_MAIN(tst_DirectoryTrees)
#include "tst_directorytrees.moc"
