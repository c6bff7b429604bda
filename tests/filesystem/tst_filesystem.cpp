#include "FileTestSupport.h"

#include <Trellis/TFileHash.h>
#include <Trellis/TFileSystemHelper.h>
#include <Trellis/TLocalTime.h>

#include <QtTest>

#include <cerrno>
#include <csignal>
#include <thread>

#include <sys/fsuid.h>
#include <unistd.h>

// Names, digests, tree copies and deletes, and archives.
class tst_FileSystem : public FileTestCase
{
    Q_OBJECT

private slots:
    // A name is valid when making it valid changes nothing and leaves it not
    // empty; the result of making a name valid is valid unless empty.
    void nameChecks_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("madeValid"); // by GetValidFileName()
        for (const QString &row : names("Report (final)=Report (final)|Ärger中=Ärger中|=|"
                                        "report.txt=report_txt|.hidden.=_hidden_",
                                        '|'))
            QTest::newRow(qPrintable(row)) << row.section(u'=', 0, 0) << row.section(u'=', 1);
        for (const QChar c : "\\/:*?\"<>|"_s)
            QTest::addRow("contains %c", c.toLatin1()) << QString(c) + c << "__"_s;
    }

    void nameChecks()
    {
        QFETCH(QString, name);
        QFETCH(QString, madeValid);
        QCOMPARE(TFileSystemHelper::IsValidFileName(name), name == madeValid && !name.isEmpty());
        TFileSystemHelper::GetValidFileName(name);
        QCOMPARE(name, madeValid);
        QCOMPARE(TFileSystemHelper::IsValidFileName(name), !name.isEmpty());
    }

    void extensions_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("matched"); // A, U, L: by the any-, upper-, lower-case pattern
        QTest::addColumn<QString>("lowerCased");
        for (const QString &row :
             names("/card/PHOTO.JPG AU- /card/PHOTO.jpg|Notes.TxT A-- Notes.txt|"
                   "a.jpg A-L a.jpg|.ABC AU- .abc|movie.MPEG --- movie.MPEG|"
                   "data.X1Y --- data.X1Y|/DIR.ABC/f --- /DIR.ABC/f|x.\u212aAB A-- x.kab",
                   '|'))
            QTest::newRow(qPrintable(row.section(u' ', 0, 0)))
                    << row.section(u' ', 0, 0) << row.section(u' ', 1, 1) << row.section(u' ', 2);
    }

    // Each pattern captures a three-letter extension of its case at the end;
    // the Kelvin sign's lower case is k. Meanwhile another thread lower-cases
    // another extension beyond ASCII, which takes the pattern: a match shared
    // between threads would hand one the other's extension.
    void extensions()
    {
        QFETCH(QString, path);
        QFETCH(QString, matched);
        QFETCH(QString, lowerCased);
        QRegExp patterns[] = { TFileSystemHelper::CaseInsensitiveFilenameExtensionRegExp(),
                               TFileSystemHelper::UpperCaseFilenameExtensionRegExp(),
                               TFileSystemHelper::LowerCaseFilenameExtensionRegExp() };
        for (QRegExp &pattern : patterns) {
            const bool matches = matched.at(&pattern - patterns) != u'-';
            QCOMPARE(pattern.indexIn(path), matches ? path.size() - 4 : -1);
            QCOMPARE(pattern.cap(1), matches ? path.right(3) : QString());
        }
        std::atomic<bool> stop { false };
        std::thread other([&stop] {
            while (!stop)
                TFileSystemHelper::FileCopyLowerCaseDestFilename("/f.\u212aYZ"_s);
        });
        const auto join = qScopeGuard([&] {
            stop = true;
            const HangWatch watch("the other lower-casing thread to stop"_s);
            other.join();
        });
        for (int round = 0; round < 5000; ++round)
            QCOMPARE(TFileSystemHelper::FileCopyLowerCaseDestFilename(path), lowerCased);
    }

    // The digest is md5sum's, of an empty file, of files that end on either
    // side of where the padding needs a block of its own (55/56 bytes) and
    // of a block's end, of files that end around a read's end (128 KiB), and
    // of one read in many pieces. There is no error result: what cannot be
    // read, or has no end or may block its reader, gives the digest of no data.
    void digest()
    {
        QVERIFY(makeTree("."_s, "fifo|"_s));
        const HangWatch watch("the digests"_s);
        for (const QString &path : names("0 1 55 56 63 64 65 119 120 131071 131072 131073 3145851 "
                                         "missing . fifo /dev/zero")) {
            QByteArray expected("d41d8cd98f00b204e9800998ecf8427e");
            if (path.at(0).isDigit() && writeFile(path, randomBytes(path.toInt(), path.toUInt())))
                QCOMPARE(run({ "md5sum"_s, path }, &expected), 0);
            QCOMPARE(TFileHash::CalculateFileMD5(path).toHex(), expected.left(32));
        }
    }

    // Each row: the entries made besides the common ones | the destination |
    // the result | what the destination holds after, none when refused |
    // what the copy says it left out.
    void copyDir_data()
    {
        QTest::addColumn<QString>("row");
        const char *rows[][2] = {
            // Overlapping trees are refused before anything is written. The
            // kernel resolves "to-a/.." to src; a lexical reading would not.
            { "the source itself", "|src|0||" },
            { "inside, through a link", "|to-src/new|0||" },
            { "through a link and '..'", "|to-a/../new|0||" },
            // A linked directory that would be copied into itself is not entered
            // and counts as a failed subdirectory: its parent's files stay behind.
            { "link to an ancestor", "src/a/up->..|dest|0|a a/inner a/inner/g b b/h old|" },
            { "link to the destination",
              "src/a/o->../../dest|dest|0|a a/inner a/inner/g b b/h old|" },
            // dest/a leads to src/b: copying src/a there would overwrite src/b.
            { "destination link into the source", "dest/a->../src/b|dest|0|a b b/h old|" },
            // A file copy cannot replace a directory with contents.
            { "failing file",
              "dest/a/f/blocker|dest|0|a a/f a/f/blocker a/g a/inner a/inner/g b b/h old|" },
            { "merged into the destination",
              "dest/top|dest|1|a a/f a/g a/inner a/inner/g b b/h old top|" },
            // Names with a dot in front stay behind; links are copied as what
            // they lead to, but for a broken one; missing parents are made.
            { "new destination, links and hidden names",
              "src/.hidden src/.hiddendir/f src/empty/ src/to-top->top src/broken->missing "
              "src/linked-dir->../ext "
              "ext/e.txt|new/parents/dest|1|a a/f a/g a/inner a/inner/g b b/h empty linked-dir "
              "linked-dir/e.txt "
              "to-top top|src/.hidden src/.hiddendir src/broken" },
        };
        for (const auto &row : rows)
            QTest::newRow(row[0]) << QString::fromUtf8(row[1]);
    }

    // The source is never changed. What a copy that succeeds copied is a real
    // file or directory, stamped, and diff -r finds the source's contents.
    void copyDir()
    {
        QFETCH(QString, row);
        const QStringList part = row.split(u'|');
        const QString entries = part[0], destination = part[1], copied = part[3], leftOut = part[4];
        const bool result = part[2] == u'1';
        QVERIFY(makeTree("."_s,
                         entries
                                 + " src/top src/a/f src/a/g src/a/inner/g src/b/h dest/old "
                                   "to-src->src to-a->src/a"_s));
        const auto sourceBefore = snapshot("src"_s), before = snapshot("."_s);
        const qint64 beforeStamp = stampNow();
        QStringList leftOutSeen;
        QCOMPARE(TFileSystemHelper::CopyDir("src"_s, destination, &leftOutSeen), result);
        QCOMPARE(leftOutSeen.join(u' '), leftOut);
        QCOMPARE(snapshot("src"_s), sourceBefore);
        if (copied.isEmpty())
            QCOMPARE(snapshot("."_s), before);
        if (copied.isEmpty())
            return;
        QCOMPARE(snapshot(destination).keys(), copied.split(u' '));
        QVERIFY(isStamped(destination, beforeStamp));
        for (const QString &entry : copied.split(u' ')) {
            const QString copy = destination + u'/' + entry, original = "src/"_s + entry;
            QVERIFY2(!result || !exists(original)
                             || (!QFileInfo(copy).isSymLink() && isStamped(copy, beforeStamp)),
                     qPrintable(entry));
        }
        QVERIFY(!result || run(names("diff -r -x .* -x broken -x old src") << destination) == 0);
    }

    // Each row: the entries made, then ": filter, directory = code:", then the
    // files reported deleted and, after "|", what is left. Hidden files,
    // directories, link targets and subdirectories are left alone; the filter
    // is one pattern, and one that cannot be read matches nothing.
    void deleteFiles_data()
    {
        QTest::addColumn<QString>("row");
        for (const char *row :
             { "b.log A.log c.LOG d.txt .x.log e.log/ f.log->d.txt: *.LOG, . = 1: A.log b.log "
               "c.LOG f.log | .x.log d.txt e.log",
               "a.log: *.log,  = 1: a.log |",
               "sub/a.log gone.log->missing: *.log, . = 3: | gone.log sub sub/a.log",
               "a.log c.txt: *.log *.txt, . = 3: | a.log c.txt", "a[b.log: a[b*, . = 3: | a[b.log",
               "a.log: *, missing = 4: | a.log", "a.log: *, a.log = 4: | a.log",
               // In a sticky directory, only the owner of a file may remove
               // it: the user nobody owns only b.log.
               "a.log b.log c.log c.txt: *.log, . = 2: b.log | a.log c.log c.txt" })
            QTest::newRow(row) << QString::fromUtf8(row);
    }

    void deleteFiles()
    {
        QFETCH(QString, row);
        const QStringList part = row.split(u':');
        const int code = part[1].section(u'=', 1).toInt();
        if (code == 2 && ::geteuid() != 0)
            QSKIP("only root can act as the user nobody");
        QVERIFY(makeTree("."_s, part[0]));
        QStringList deleted = names("stale entries"), failed = deleted;
        if (code == 2) {
            QCOMPARE(::chmod(".", 01777) | ::chown("b.log", 65534, 65534), 0);
            ::setfsuid(65534);
        }
        static int messages;
        messages = 0;
        const QtMessageHandler previousHandler = qInstallMessageHandler(
                [](QtMsgType, const QMessageLogContext &, const QString &) { ++messages; });
        const int result = TFileSystemHelper::DeleteFiles(
                part[1].section(u',', 0, 0).trimmed(),
                part[1].section(u',', 1).section(u'=', 0, 0).trimmed(), deleted, failed);
        qInstallMessageHandler(previousHandler);
        ::setfsuid(0);
        QCOMPARE(messages, 0); // nothing is logged
        QCOMPARE(result, code);
        QCOMPARE(deleted.join(u' '), part[2].section(u'|', 0, 0).trimmed());
        QCOMPARE(failed.join(u' '), code == 2 ? "a.log c.log"_s : QString());
        QCOMPARE(snapshot("."_s).keys().join(u' '), part[2].section(u'|', 1).trimmed());
    }

    void deleteDirGeneric_data()
    {
        QTest::addColumn<QStringList>("entries");
        QTest::addColumn<bool>("ignoreErrors");
        QTest::addColumn<bool>("deleteRootDir");
        QTest::addColumn<bool>("result");
        QTest::addColumn<QStringList>("left"); // what must be left in the directory
        QTest::addColumn<QStringList>("gone"); // what must be gone (walk order decides the rest)
        // With links to a directory and a file outside the tree, and more
        // subdirectories than threads delete them.
        QStringList tree = names("f1 f2 sub/g sub/deeper/h sub/empty/ "
                                 "sub/to-dir->../../outside/dir to-o->../outside/o"),
                    all
                = names("f1 f2 sub sub/deeper sub/deeper/h sub/empty sub/g sub/to-dir to-o");
        for (int i = 0; i < 40; ++i) {
            tree << "w%1/x"_s.arg(i) << "w%1/d/y"_s.arg(i);
            all << "w%1"_s.arg(i) << "w%1/x"_s.arg(i);
        }
        for (int how = 0; how < 4; ++how) {
            const bool ignore = how & 1, root = how & 2;
            const char *tag = ignore ? (root ? "ignore, delete root" : "ignore, keep root")
                                     : (root ? "stop, delete root" : "stop, keep root");
            QTest::addRow("%s, clean tree", tag)
                    << tree << ignore << root << true << QStringList() << all;
            // blocked cannot be removed: its .keep is not seen.
            QTest::addRow("%s, blocked subdirectory", tag)
                    << tree + names("blocked/.keep blocked/x") << ignore << root
                    << (ignore && !root) << names("blocked blocked/.keep")
                    << (ignore ? all : QStringList()) + names("blocked/x");
            QTest::addRow("%s, hidden file at the top", tag)
                    << tree + names(".keep") << ignore << root << !root << names(".keep") << all;
        }
    }

    // Links inside the tree go as links, what they lead to stays; a
    // hard-linked file keeps its mode; a file without any permission goes.
    void deleteDirGeneric()
    {
        QFETCH(QStringList, entries);
        QFETCH(bool, ignoreErrors);
        QFETCH(bool, deleteRootDir);
        QFETCH(bool, result);
        QFETCH(QStringList, left);
        QFETCH(QStringList, gone);
        QVERIFY(makeTree("root"_s, entries)
                && makeTree("."_s, "outside/o outside/dir/p outside/hard"_s));
        const auto restore = qScopeGuard([] { ::chmod("outside/dir", 0700); });
        QCOMPARE(::chmod("root/f1", 0) | ::chmod("outside/dir", 0500) | ::chmod("outside/o", 0404)
                         | ::chmod("outside/hard", 0440) | ::link("outside/hard", "root/hard"),
                 0);
        const auto outside = snapshot("outside"_s);
        QCOMPARE(TFileSystemHelper::DeleteDirGeneric("root"_s, ignoreErrors, deleteRootDir),
                 result);
        QCOMPARE(snapshot("outside"_s), outside);
        QCOMPARE(exists("root"_s), !deleteRootDir || !left.isEmpty());
        const auto after = snapshot("root"_s);
        for (const QString &entry : left + gone)
            QVERIFY2(after.contains(entry) == left.contains(entry), qPrintable(entry));
    }

    // Missing paths and plain files give true and stay as they are; a link at
    // the top names its target, which is emptied; the link stays.
    void deleteDirGenericWithoutATree()
    {
        QVERIFY(makeTree("."_s, "file dir/f top->dir"_s));
        const auto before = snapshot("."_s);
        QVERIFY(TFileSystemHelper::DeleteDirGeneric("missing"_s, false, true)
                && TFileSystemHelper::DeleteDirGeneric("file"_s, false, true));
        QCOMPARE(snapshot("."_s), before);
        QVERIFY(!TFileSystemHelper::DeleteDirGeneric("top"_s, false, true));
        QCOMPARE(snapshot("."_s).keys(), names("dir file top"));
    }

    // Packed by one side, unpacked by the other and compared, with an archive
    // that tar could take for a remote one or for standard input, a target
    // directory and files whose names look like options: tar would run
    // "touch pwned" if the last reached it as options. Zip() packs relative
    // to a base directory and to the working directory, and tar lists what it
    // packed; tar packs what Unzip() unpacks.
    void archiveRoundTrips()
    {
        const QStringList files = names(
                "log|conf|a b*|--checkpoint=1|--checkpoint-action=exec=touch pwned|-v", '|');
        QVERIFY(writeFile("base/log"_s, randomBytes(70000)));
        // Each of the others holds its own name.
        for (const QString &name : names("conf/a.ini|conf/deep/b * ?.ini", '|') + files.mid(2))
            QVERIFY(writeFile("base/"_s + name, name.toUtf8()));
        QVERIFY(TFileSystemHelper::Zip("host:a.tgz"_s, "base"_s, files));
        QVERIFY(QDir::setCurrent("base"_s) && TFileSystemHelper::Zip("../b.tgz"_s, files)
                && QDir::setCurrent(".."_s));
        QCOMPARE(run(names("tar -czf ./- -C base .")), 0);
        for (const QString &archive : { "host:a.tgz"_s, "b.tgz"_s, "-"_s }) {
            QVERIFY(QDir("-out"_s).removeRecursively() && QDir().mkdir("-out"_s));
            QVERIFY(TFileSystemHelper::Unzip(archive, "-out"_s));
            QVERIFY2(run(names("diff -r base ./-out")) == 0, qPrintable(archive));
            if (archive == "-"_s)
                continue;
            // Entries relative to the base, only the names tar would take for
            // options with "./"; the names with a space and a '*' as they stand.
            QByteArray listing;
            QCOMPARE(run({ "tar"_s, "-tzf"_s, "./"_s + archive }, &listing), 0);
            QStringList members = names(listing.constData(), '\n');
            members.sort();
            QCOMPARE(members,
                     names("./--checkpoint-action=exec=touch pwned|./--checkpoint=1|./-v|"
                           "a b*|conf/|conf/a.ini|conf/deep/|conf/deep/b * ?.ini|log",
                           '|'));
        }
        QVERIFY(!exists("pwned"_s) && !exists("base/pwned"_s));
    }

    // tar ending with an error still gives true; tar not found gives false;
    // tar still running after 30 seconds (the test waits them out) is killed.
    void archiveResults()
    {
        QVERIFY(TFileSystemHelper::Unzip("missing.tgz"_s, "out"_s)
                && TFileSystemHelper::Zip("empty.tgz"_s, "base"_s, {}));
        const QByteArray path = qgetenv("PATH"), here = QFile::encodeName(QDir::currentPath()),
                         sleep = QFile::encodeName(QStandardPaths::findExecutable("sleep"_s));
        const auto restorePath = qScopeGuard([&] { qputenv("PATH", path); });
        QVERIFY(qputenv("PATH", here + "/nowhere"));
        QVERIFY(!TFileSystemHelper::Zip("a.tgz"_s, names("log"))
                && !TFileSystemHelper::Unzip("a.tgz"_s, "out"_s));
        QVERIFY(writeFile("fakebin/tar"_s, "#!/bin/sh\necho $$ > pid\nexec " + sleep + " 120\n")
                && ::chmod("fakebin/tar", 0700) == 0 && qputenv("PATH", here + "/fakebin"));
        QVERIFY(!TFileSystemHelper::Unzip("a.tgz"_s, "out"_s));
        const pid_t pid = readFile("pid"_s).trimmed().toInt();
        QVERIFY(pid > 0 && ::kill(pid, 0) == -1 && errno == ESRCH);
    }
};

QTEST_GUILESS_MAIN(tst_FileSystem)
#include "tst_filesystem.moc"
