#include "fstestsupport.h"

#include <Trellis/TFileSystemHelper.h>

#include <QScopeGuard>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

#include <cerrno>
#include <csignal>

using namespace FsTest;

// Each test works in a fresh temporary directory made the working directory,
// holding the tree "base" to pack.
class tst_Archives : public QObject
{
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_dir;
    const QString m_startDir = QDir::currentPath();

    // Calls Unzip(archive, dir), Zip(archive, dir, files) or Zip(archive, files)
    // for how = "unzip archive dir", "zip archive dir" or "zip archive", with
    // only bin on PATH when it is given.
    static bool call(const QStringList &how, const QStringList &files = {},
                     const char *bin = nullptr)
    {
        const QByteArray path = qgetenv("PATH");
        const auto restorePath = qScopeGuard([&] { qputenv("PATH", path); });
        if (bin)
            qputenv("PATH", QDir::current().absoluteFilePath(QLatin1String(bin)).toUtf8());
        return how[0] == QLatin1String("unzip") ? TFileSystemHelper::Unzip(how[1], how[2])
                : how.size() == 2               ? TFileSystemHelper::Zip(how[1], files)
                                                : TFileSystemHelper::Zip(how[1], how[2], files);
    }

    // A tar in fakebin/ that writes its arguments to "arguments", one a line,
    // and its process id to "pid" before it runs command.
    static bool makeFakeTar(const QByteArray &command)
    {
        return writeFile(QStringLiteral("fakebin/tar"),
                         "#!/bin/sh\nprintf '%s\\n' \"$@\" > arguments\necho $$ > pid\n" + command)
                && ::chmod("fakebin/tar", 0700) == 0;
    }

    static void compareTrees(const QString &packed, const QString &unpacked)
    {
        QCOMPARE(run(QStringLiteral("diff"), { QStringLiteral("-r"), packed, unpacked }), 0);
    }

private slots:
    void initTestCase()
    {
        for (const char *tool : { "tar", "gzip", "diff" }) {
            if (QStandardPaths::findExecutable(QLatin1String(tool)).isEmpty())
                QSKIP("tar, gzip and diff are needed");
        }
    }
    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        QVERIFY(QDir::setCurrent(m_dir->path()));
        QVERIFY(writeFile(QStringLiteral("base/log"), randomBytes(70000)));
        QVERIFY(makeEntries(QStringLiteral("base"), names("conf/a.ini|conf/deep/b * ?.ini", '|')));
        QVERIFY(QDir().mkdir(QStringLiteral("out")));
    }
    void cleanup() { QDir::setCurrent(m_startDir); }

    void arguments_data()
    {
        QTest::addColumn<QStringList>("call"); // unzip or zip, the archive, the directory
        QTest::addColumn<QStringList>("files");
        QTest::addColumn<QString>("expected");
        QTest::newRow("names as they stand")
                << names("zip a.tgz") << names("log|w s|*|a-b|d/-e", '|')
                << "-czf a.tgz log w s * a-b d/-e";
        QTest::newRow("names beginning with '-'") << names("zip -a.tgz -b") << names("-x --c=1 -")
                                                  << "-czf -a.tgz -C -b ./-x ./--c=1 ./-";
        QTest::newRow("archive named '-'")
                << names("unzip - -d") << QStringList() << "-xzf ./- -C -d";
        QTest::newRow("archive looking remote")
                << names("zip host:a.tgz") << names("log") << "-czf ./host:a.tgz log";
        QTest::newRow("colon after a slash")
                << names("zip d/host:a.tgz") << names("log") << "-czf d/host:a.tgz log";
    }

    void arguments()
    {
        QFETCH(QStringList, call);
        QFETCH(QStringList, files);
        QFETCH(QString, expected);
        QVERIFY(makeFakeTar(""));
        QVERIFY(tst_Archives::call(call, files, "fakebin"));
        QCOMPARE(QString::fromUtf8(readFile(QStringLiteral("arguments")).simplified()), expected);
    }

    void zipUnpackedByTar_data()
    {
        QTest::addColumn<QStringList>("call");
        QTest::newRow("relative to a base directory") << names("zip a.tgz base");
        QTest::newRow("relative to the working directory") << names("zip ../a.tgz");
        QTest::newRow("archive name with a colon") << names("zip host:a.tgz base");
    }

    void zipUnpackedByTar()
    {
        QFETCH(QStringList, call);
        QVERIFY(QDir::setCurrent(call.size() == 2 ? QStringLiteral("base") : m_dir->path()));
        QVERIFY(tst_Archives::call(call, names("log conf")));
        QVERIFY(QDir::setCurrent(m_dir->path()));

        const QString local = QStringLiteral("./") + QFileInfo(call[1]).fileName();
        QByteArray listing;
        QCOMPARE(run(QStringLiteral("tar"), { QStringLiteral("-tzf"), local }, &listing), 0);
        QStringList members = names(listing.constData(), '\n');
        members.sort();
        QCOMPARE(members, names("conf/|conf/a.ini|conf/deep/|conf/deep/b * ?.ini|log", '|'));
        QCOMPARE(run(QStringLiteral("tar"),
                     QStringList { QStringLiteral("-xzf"), local } + names("-C out")),
                 0);
        compareTrees(QStringLiteral("base"), QStringLiteral("out"));
    }

    void unzipOfTarArchive()
    {
        QCOMPARE(run(QStringLiteral("tar"), names("-czf real.tgz -C base log conf")), 0);
        QVERIFY(call(names("unzip real.tgz out")));
        compareTrees(QStringLiteral("base"), QStringLiteral("out"));
    }

    void namesAreNotOptions()
    {
        // Together these two would make tar run "touch pwned" if they reached it as options.
        const QStringList files
                = names("--checkpoint=1|--checkpoint-action=exec=touch pwned|-v", '|');
        QVERIFY(makeEntries(QStringLiteral("base"), files)
                && QDir().rename(QStringLiteral("out"), QStringLiteral("-out")));
        QVERIFY(call(names("zip -a.tgz base"), files));
        QVERIFY(call(names("unzip -a.tgz -out")));

        for (const char *pwned : { "base/pwned", "pwned", "-out/pwned" })
            QVERIFY2(!exists(QLatin1String(pwned)), pwned);
        for (const QString &file : files)
            QCOMPARE(readFile(QStringLiteral("-out/") + file), file.toUtf8());
        QByteArray listing;
        QCOMPARE(run(QStringLiteral("tar"), names("-tzf ./-a.tgz"), &listing), 0);
        QCOMPARE(listing,
                 QByteArray("./--checkpoint=1\n./--checkpoint-action=exec=touch pwned\n./-v\n"));
    }

    void endedIsTrue()
    {
        // tar ending with an error still gives true; tar not found gives false.
        QVERIFY(call(names("unzip missing.tgz out")));
        QVERIFY(call(names("zip empty.tgz base")));
        QVERIFY(QDir().mkdir(QStringLiteral("emptybin")));
        QVERIFY(!call(names("zip a.tgz"), names("log"), "emptybin"));
        QVERIFY(!call(names("unzip a.tgz out"), {}, "emptybin"));
        QVERIFY(QDir(QStringLiteral("out")).isEmpty() && !exists(QStringLiteral("a.tgz")));
    }

    void timeoutKillsTar()
    {
        // Takes the full 30 seconds the call waits for tar.
        QVERIFY(makeFakeTar(
                "exec " + QFile::encodeName(QStandardPaths::findExecutable(QStringLiteral("sleep")))
                + " 120\n"));
        QVERIFY(!call(names("unzip a.tgz out"), {}, "fakebin"));
        const pid_t pid = readFile(QStringLiteral("pid")).trimmed().toInt();
        QVERIFY(pid > 0);
        QVERIFY(::kill(pid, 0) == -1 && errno == ESRCH);
    }
};

QTEST_GUILESS_MAIN(tst_Archives)
#include "tst_archives.moc"
