#include "fstestsupport.h"

#include <Trellis/TFileSystemHelper.h>

#include <QTemporaryDir>
#include <QTest>

#include <utility>

#include <unistd.h>

using namespace FsTest;

class tst_DirectoryTrees : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void copyMatchesSource();
    void copyMergesIntoDestination();
    void copyOfEmptyOrMissingSource_data();
    void copyOfEmptyOrMissingSource();
    void copyRefusesOverlap_data();
    void copyRefusesOverlap();
    void copyEndsOnLinkCycles_data();
    void copyEndsOnLinkCycles();
    void copyNeverWritesIntoSourceThroughDestinationLink();
    void copyWithFailingSubdirectory();
    void copyToUncreatableDestination();
    void deleteFlags_data();
    void deleteFlags();
    void deleteNonDirectory_data();
    void deleteNonDirectory();
    void deleteLeavesLinkTargetsAlone();
    void deleteThroughLinkedTop_data();
    void deleteThroughLinkedTop();

private:
    QString path(const QString &name) const { return m_dir->filePath(name); }

    std::unique_ptr<QTemporaryDir> m_dir;
};

void tst_DirectoryTrees::initTestCase()
{
    setUpStampClock();
}

void tst_DirectoryTrees::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
}

void tst_DirectoryTrees::copyMatchesSource()
{
    QVERIFY(makeEntries(path(QStringLiteral("src")),
                        names("x.txt sub/y.txt sub/deeper/ empty/ .hidden .hiddendir/f to-x->x.txt "
                              "broken->missing "
                              "linked-dir->../ext")));
    QVERIFY(writeFile(path(QStringLiteral("src/sub/deeper/z.bin")), randomBytes(300000)));
    QVERIFY(makeEntries(path(QStringLiteral("ext")), names("e.txt")));
    const QString dest = path(QStringLiteral("new/parents/dest"));

    const qint64 before = stampNow();
    QVERIFY(TFileSystemHelper::CopyDir(path(QStringLiteral("src")), dest));
    const qint64 after = stampNow();

    const auto copy = snapshot(dest);
    QCOMPARE(copy.keys(),
             names("empty linked-dir linked-dir/e.txt sub sub/deeper sub/deeper/z.bin sub/y.txt "
                   "to-x x.txt"));
    if (haveTool(QStringLiteral("diff"))) {
        QCOMPARE(run(QStringLiteral("diff"),
                     { QStringLiteral("-r"), QStringLiteral("-x"), QStringLiteral(".*"),
                       QStringLiteral("-x"), QStringLiteral("broken"), path(QStringLiteral("src")),
                       dest }),
                 0);
    }
    QStringList entries = copy.keys();
    entries.append(QString()); // the destination itself
    for (const QString &entry : std::as_const(entries)) {
        const QString entryPath = QDir(dest).filePath(entry);
        QVERIFY2(!QFileInfo(entryPath).isSymLink(), qPrintable(entry));
        const qint64 time = modificationTime(entryPath);
        QVERIFY2(time >= before && time <= after && time % 60 == 0, qPrintable(entry));
    }
}

void tst_DirectoryTrees::copyMergesIntoDestination()
{
    QVERIFY(makeEntries(path(QStringLiteral("src")), names("x.txt sub/y.txt")));
    QVERIFY(makeEntries(path(QStringLiteral("dest")), names("keep.txt sub/keep.txt")));
    QVERIFY(writeFile(path(QStringLiteral("dest/x.txt")), "old"));

    QVERIFY(TFileSystemHelper::CopyDir(path(QStringLiteral("src")), path(QStringLiteral("dest"))));
    QCOMPARE(snapshot(path(QStringLiteral("dest"))).keys(),
             names("keep.txt sub sub/keep.txt sub/y.txt x.txt"));
    QCOMPARE(readFile(path(QStringLiteral("dest/x.txt"))), QByteArray("x.txt"));
}

void tst_DirectoryTrees::copyOfEmptyOrMissingSource_data()
{
    QTest::addColumn<bool>("sourceExists");
    QTest::newRow("empty source") << true;
    QTest::newRow("missing source") << false;
}

void tst_DirectoryTrees::copyOfEmptyOrMissingSource()
{
    QFETCH(bool, sourceExists);
    if (sourceExists)
        QVERIFY(QDir().mkpath(path(QStringLiteral("src"))));
    const qint64 before = stampNow();
    QVERIFY(TFileSystemHelper::CopyDir(path(QStringLiteral("src")), path(QStringLiteral("dest"))));
    QVERIFY(snapshot(path(QStringLiteral("dest"))).isEmpty());
    QVERIFY(QFileInfo(path(QStringLiteral("dest"))).isDir());
    const qint64 time = modificationTime(path(QStringLiteral("dest")));
    QVERIFY(time >= before && time <= stampNow());
}

void tst_DirectoryTrees::copyRefusesOverlap_data()
{
    QTest::addColumn<QString>("destination");
    QTest::newRow("the source itself") << "src";
    QTest::newRow("inside the source") << "src/sub/new";
    QTest::newRow("the source, written differently") << "./src/sub/..//";
    QTest::newRow("inside, through a link") << "to-src/new";
    // The kernel resolves "to-sub/.." to src; a lexical reading would not.
    QTest::newRow("inside, through a link and '..'") << "to-sub/../new";
}

void tst_DirectoryTrees::copyRefusesOverlap()
{
    QFETCH(QString, destination);
    QVERIFY(makeEntries(m_dir->path(),
                        names("src/x.txt src/sub/y.txt to-src->src to-sub->src/sub")));
    const auto before = snapshot(m_dir->path());
    const QString previous = QDir::currentPath();
    QVERIFY(QDir::setCurrent(m_dir->path()));

    const bool copied = TFileSystemHelper::CopyDir(QStringLiteral("src"), destination);
    QDir::setCurrent(previous);
    QVERIFY(!copied);
    QCOMPARE(snapshot(m_dir->path()), before);
}

void tst_DirectoryTrees::copyEndsOnLinkCycles_data()
{
    QTest::addColumn<QString>("link");
    QTest::addColumn<QString>("linkedDir");
    QTest::newRow("link to an ancestor") << "src/a/up"
                                         << "..";
    QTest::newRow("link to itself") << "src/a/self"
                                    << ".";
    QTest::newRow("link to the destination") << "src/a/out"
                                             << "../../dest";
}

void tst_DirectoryTrees::copyEndsOnLinkCycles()
{
    // The linked directory is not copied and counts as a failed
    // subdirectory: its parent's files stay behind, the rest is copied.
    QFETCH(QString, link);
    QFETCH(QString, linkedDir);
    QVERIFY(makeEntries(path(QStringLiteral("src")),
                        names("top.txt a/f.txt a/inner/g.txt b/h.txt")));
    QVERIFY(makeEntries(path(QStringLiteral("dest")), names("old.txt")));
    QVERIFY(QFile::link(linkedDir, path(link)));

    QVERIFY(!TFileSystemHelper::CopyDir(path(QStringLiteral("src")), path(QStringLiteral("dest"))));
    QCOMPARE(snapshot(path(QStringLiteral("dest"))).keys(),
             names("a a/inner a/inner/g.txt b b/h.txt old.txt"));
}

void tst_DirectoryTrees::copyNeverWritesIntoSourceThroughDestinationLink()
{
    // dest/sub leads to src/other: copying src/sub there would overwrite
    // src/other/y.txt.
    QVERIFY(makeEntries(path(QStringLiteral("src")), names("x.txt sub/y.txt other/y.txt")));
    QVERIFY(writeFile(path(QStringLiteral("src/other/y.txt")), "must survive"));
    QVERIFY(makeEntries(path(QStringLiteral("dest")), names("sub->../src/other")));
    const auto source = snapshot(path(QStringLiteral("src")));

    QVERIFY(!TFileSystemHelper::CopyDir(path(QStringLiteral("src")), path(QStringLiteral("dest"))));
    QCOMPARE(snapshot(path(QStringLiteral("src"))), source);
}

void tst_DirectoryTrees::copyWithFailingSubdirectory()
{
    // dest/s1/f.txt is a directory with contents, which a file copy cannot replace.
    QVERIFY(makeEntries(path(QStringLiteral("src")),
                        names("top.txt s1/f.txt s1/g.txt s2/h.txt s2/deep/i.txt")));
    QVERIFY(makeEntries(path(QStringLiteral("dest")), names("s1/f.txt/blocker")));

    QVERIFY(!TFileSystemHelper::CopyDir(path(QStringLiteral("src")), path(QStringLiteral("dest"))));
    QCOMPARE(snapshot(path(QStringLiteral("dest"))).keys(),
             names("s1 s1/f.txt s1/f.txt/blocker s1/g.txt s2 s2/deep s2/deep/i.txt s2/h.txt"));
}

void tst_DirectoryTrees::copyToUncreatableDestination()
{
    QVERIFY(makeEntries(m_dir->path(), names("src/x.txt file")));
    const auto before = snapshot(m_dir->path());
    QVERIFY(!TFileSystemHelper::CopyDir(path(QStringLiteral("src")),
                                        path(QStringLiteral("file/dest"))));
    QCOMPARE(snapshot(m_dir->path()), before);
}

void tst_DirectoryTrees::deleteFlags_data()
{
    QTest::addColumn<QStringList>("entries");
    QTest::addColumn<bool>("ignoreErrors");
    QTest::addColumn<bool>("deleteRootDir");
    QTest::addColumn<bool>("result");
    QTest::addColumn<QStringList>("remaining"); // what must be left in the directory
    QTest::addColumn<QStringList>("gone"); // what must be gone (walk order decides the rest)

    const QStringList tree = names("f1 f2 sub/g sub/deeper/h sub/empty/");
    const QStringList blocked = tree + names("blocked/.keep blocked/x");
    const QStringList keep = tree + names(".keep");
    const QStringList all = names("f1 f2 sub sub/deeper sub/deeper/h sub/empty sub/g");
    for (bool deleteRoot : { false, true }) {
        const char *root = deleteRoot ? "delete root" : "keep root";
        for (bool ignore : { false, true }) {
            const char *errors = ignore ? "ignore errors" : "stop at error";
            QTest::addRow("%s, %s, clean tree", errors, root)
                    << tree << ignore << deleteRoot << true << QStringList() << all;
            // blocked cannot be removed: its .keep is not seen.
            QTest::addRow("%s, %s, blocked subdirectory", errors, root)
                    << blocked << ignore << deleteRoot << (ignore && !deleteRoot)
                    << names("blocked blocked/.keep")
                    << (ignore ? all : QStringList()) + names("blocked/x");
            QTest::addRow("%s, %s, hidden file at the top", errors, root)
                    << keep << ignore << deleteRoot << !deleteRoot << names(".keep") << all;
        }
    }
}

void tst_DirectoryTrees::deleteFlags()
{
    QFETCH(QStringList, entries);
    QFETCH(bool, ignoreErrors);
    QFETCH(bool, deleteRootDir);
    QFETCH(bool, result);
    QFETCH(QStringList, remaining);
    QFETCH(QStringList, gone);
    const QString root = path(QStringLiteral("root"));
    QVERIFY(QDir().mkpath(root));
    QVERIFY(makeEntries(root, entries));
    QVERIFY(QFile::setPermissions(root + QStringLiteral("/f1"),
                                  QFileDevice::Permissions())); // no bits at all

    QCOMPARE(TFileSystemHelper::DeleteDirGeneric(root, ignoreErrors, deleteRootDir), result);

    const bool rootRemoved = deleteRootDir && remaining.isEmpty();
    QCOMPARE(exists(root), !rootRemoved);
    const auto left = snapshot(root);
    for (const QString &entry : remaining)
        QVERIFY2(left.contains(entry), qPrintable(entry));
    for (const QString &entry : gone)
        QVERIFY2(!left.contains(entry), qPrintable(entry));
}

void tst_DirectoryTrees::deleteNonDirectory_data()
{
    QTest::addColumn<QString>("target");
    QTest::newRow("missing path") << "missing";
    QTest::newRow("regular file") << "file";
}

void tst_DirectoryTrees::deleteNonDirectory()
{
    QFETCH(QString, target);
    QVERIFY(makeEntries(m_dir->path(), names("file")));
    const auto before = snapshot(m_dir->path());
    for (bool ignoreErrors : { false, true }) {
        for (bool deleteRootDir : { false, true })
            QVERIFY(TFileSystemHelper::DeleteDirGeneric(path(target), ignoreErrors, deleteRootDir));
    }
    QCOMPARE(snapshot(m_dir->path()), before);
}

void tst_DirectoryTrees::deleteLeavesLinkTargetsAlone()
{
    QVERIFY(makeEntries(path(QStringLiteral("outside")), names("o.txt dir/p.txt hard.txt")));
    QVERIFY(QFile::setPermissions(path(QStringLiteral("outside/dir")),
                                  QFile::ReadOwner | QFile::ExeOwner));
    QVERIFY(QFile::setPermissions(path(QStringLiteral("outside/o.txt")),
                                  QFile::ReadOwner | QFile::ReadOther));
    QVERIFY(QFile::setPermissions(path(QStringLiteral("outside/hard.txt")),
                                  QFile::ReadOwner | QFile::ReadGroup));
    QVERIFY(makeEntries(path(QStringLiteral("root")),
                        names("sub/to-dir->../../outside/dir to-file->../outside/o.txt "
                              "to-outside->../outside")));
    QCOMPARE(::link(QFile::encodeName(path(QStringLiteral("outside/hard.txt"))).constData(),
                    QFile::encodeName(path(QStringLiteral("root/sub/hard.txt"))).constData()),
             0);
    const auto outside = snapshot(path(QStringLiteral("outside")));

    QVERIFY(TFileSystemHelper::DeleteDirGeneric(path(QStringLiteral("root")), false, true));
    QVERIFY(!exists(path(QStringLiteral("root"))));
    QCOMPARE(snapshot(path(QStringLiteral("outside"))), outside);
    QCOMPARE(mode(path(QStringLiteral("outside/dir"))), mode_t(0500));
}

void tst_DirectoryTrees::deleteThroughLinkedTop_data()
{
    QTest::addColumn<bool>("deleteRootDir");
    QTest::newRow("keep root") << false;
    QTest::newRow("delete root") << true;
}

void tst_DirectoryTrees::deleteThroughLinkedTop()
{
    // The directory a top-level link names is emptied; the link stays and
    // cannot be removed as a directory.
    QFETCH(bool, deleteRootDir);
    QVERIFY(makeEntries(m_dir->path(), names("target/a.txt target/sub/b.txt top->target")));
    QCOMPARE(TFileSystemHelper::DeleteDirGeneric(path(QStringLiteral("top")), false, deleteRootDir),
             !deleteRootDir);
    QCOMPARE(snapshot(m_dir->path()).keys(), names("target top"));
}

QTEST_GUILESS_MAIN(tst_DirectoryTrees)
#include "tst_directorytrees.moc"
