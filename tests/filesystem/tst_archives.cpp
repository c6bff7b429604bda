#include "fstestsupport.h"

#include <Trellis/TFileSystemHelper.h>

#include <QTemporaryDir>
#include <QTest>

#include <cerrno>
#include <csignal>

using namespace FsTest;

namespace {

// Puts only the given directory on PATH while it lives.
class PathOverride
{
public:
    explicit PathOverride(const QString &dir) : m_saved(qgetenv("PATH"))
    {
        qputenv("PATH", QFile::encodeName(dir));
    }
    ~PathOverride() { qputenv("PATH", m_saved); }

private:
    const QByteArray m_saved;
};

} // namespace

class tst_Archives : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void arguments_data();
    void arguments();
    void zipUnpackedByTar_data();
    void zipUnpackedByTar();
    void unzipOfTarArchive();
    void namesAreNotOptions();
    void archiveWithColonStaysLocal();
    void failuresOfTarStillTrue();
    void withoutTar();
    void timeoutKillsTar();

private:
    QString path(const QString &name) const { return m_dir->filePath(name); }
    void makeFakeTar(bool sleeps);
    bool unpackedEqualsBase(const QString &archive);

    std::unique_ptr<QTemporaryDir> m_dir;
    QString m_base;
    QString m_previousDir;
};

void tst_Archives::initTestCase()
{
    if (!haveTool(QStringLiteral("tar")) || !haveTool(QStringLiteral("gzip"))
        || !haveTool(QStringLiteral("diff")))
        QSKIP("tar, gzip and diff are needed");
}

void tst_Archives::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
    m_base = path(QStringLiteral("base"));
    QVERIFY(writeFile(m_base + QStringLiteral("/log"), randomBytes(70000)));
    QVERIFY(writeFile(m_base + QStringLiteral("/conf/a.ini"), "a=1\n"));
    QVERIFY(writeFile(m_base + QStringLiteral("/conf/deep/b * ?.ini"), "b=2\n"));
    // Archives are written and read relative to the working directory.
    m_previousDir = QDir::currentPath();
    QVERIFY(QDir::setCurrent(m_dir->path()));
}

void tst_Archives::cleanup()
{
    QDir::setCurrent(m_previousDir);
}

// A tar that writes its arguments to the file "arguments", NUL-separated,
// and, when asked to, its process id to "pid" before sleeping for two
// minutes.
void tst_Archives::makeFakeTar(bool sleeps)
{
    QByteArray script = "#!/bin/sh\nprintf '%s\\0' \"$@\" > '"
            + QFile::encodeName(path(QStringLiteral("arguments"))) + "'\n";
    if (sleeps)
        script += "echo $$ > '" + QFile::encodeName(path(QStringLiteral("pid"))) + "'\nexec '"
                + QFile::encodeName(QStandardPaths::findExecutable(QStringLiteral("sleep")))
                + "' 120\n";
    const QString tar = path(QStringLiteral("fakebin/tar"));
    QVERIFY(writeFile(tar, script));
    QVERIFY(QFile::setPermissions(tar, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
}

bool tst_Archives::unpackedEqualsBase(const QString &archive)
{
    const QString out = path(QStringLiteral("unpacked"));
    QDir(out).removeRecursively();
    return QDir().mkpath(out)
            && run(QStringLiteral("tar"),
                   { QStringLiteral("-xzf"), archive, QStringLiteral("-C"), out })
            == 0
            && run(QStringLiteral("diff"), { QStringLiteral("-r"), m_base, out }) == 0;
}

void tst_Archives::arguments_data()
{
    QTest::addColumn<QString>("call");
    QTest::addColumn<QStringList>("parameters"); // archive, then the directory for unzip and zip-in
    QTest::addColumn<QStringList>("files");
    QTest::addColumn<QStringList>("expected");
    QTest::newRow("unzip") << "unzip" << names("/tmp/a.tar.gz /data") << QStringList()
                           << names("-xzf /tmp/a.tar.gz -C /data");
    QTest::newRow("zip in a directory")
            << "zip-in" << names("/tmp/a.tar.gz /data") << names("log conf")
            << names("-czf /tmp/a.tar.gz -C /data log conf");
    QTest::newRow("zip, names as they stand")
            << "zip" << names("a.tar.gz") << names("log|with space|*|a-b|d/-e", '|')
            << names("-czf|a.tar.gz|log|with space|*|a-b|d/-e", '|');
    QTest::newRow("names beginning with '-'")
            << "zip-in" << names("-a.tgz -base")
            << names("-x|--checkpoint=1|--checkpoint-action=exec=touch pwned|-", '|')
            << names("-czf|-a.tgz|-C|-base|./-x|./--checkpoint=1|./--checkpoint-action=exec=touch "
                     "pwned|./-",
                     '|');
    QTest::newRow("archive named '-'")
            << "unzip" << names("- -d") << QStringList() << names("-xzf ./- -C -d");
    QTest::newRow("archive looking remote")
            << "zip" << names("host:a.tgz") << names("log") << names("-czf ./host:a.tgz log");
    QTest::newRow("colon after a slash")
            << "zip" << names("dir/host:a.tgz") << names("log") << names("-czf dir/host:a.tgz log");
    QTest::newRow("empty list") << "zip-in" << names("a.tgz base") << QStringList()
                                << names("-czf a.tgz -C base");
}

void tst_Archives::arguments()
{
    QFETCH(QString, call);
    QFETCH(QStringList, parameters);
    QFETCH(QStringList, files);
    QFETCH(QStringList, expected);
    makeFakeTar(false);
    bool finished;
    {
        PathOverride onlyFakeTar(path(QStringLiteral("fakebin")));
        finished = call == QLatin1String("unzip")
                ? TFileSystemHelper::Unzip(parameters.at(0), parameters.at(1))
                : call == QLatin1String("zip-in")
                ? TFileSystemHelper::Zip(parameters.at(0), parameters.at(1), files)
                : TFileSystemHelper::Zip(parameters.at(0), files);
    }
    QVERIFY(finished);
    QByteArray arguments = readFile(path(QStringLiteral("arguments")));
    arguments.chop(1);
    QStringList received;
    for (const QByteArray &argument : arguments.split('\0'))
        received.append(QString::fromUtf8(argument));
    QCOMPARE(received, expected);
}

void tst_Archives::zipUnpackedByTar_data()
{
    QTest::addColumn<bool>("inBaseDir");
    QTest::newRow("relative to a base directory") << true;
    QTest::newRow("relative to the working directory") << false;
}

void tst_Archives::zipUnpackedByTar()
{
    QFETCH(bool, inBaseDir);
    const QString archive = path(QStringLiteral("a.tar.gz"));
    const QStringList files = names("log conf");
    if (inBaseDir) {
        QVERIFY(TFileSystemHelper::Zip(archive, m_base, files));
    } else {
        QVERIFY(QDir::setCurrent(m_base));
        QVERIFY(TFileSystemHelper::Zip(archive, files));
    }

    QByteArray listing;
    QCOMPARE(run(QStringLiteral("tar"), { QStringLiteral("-tzf"), archive }, &listing), 0);
    QStringList members = QString::fromUtf8(listing).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    members.sort();
    QCOMPARE(members, names("conf/|conf/a.ini|conf/deep/|conf/deep/b * ?.ini|log", '|'));
    QVERIFY(unpackedEqualsBase(archive));
}

void tst_Archives::unzipOfTarArchive()
{
    QCOMPARE(run(QStringLiteral("tar"),
                 { QStringLiteral("-czf"), QStringLiteral("real.tgz"), QStringLiteral("-C"), m_base,
                   QStringLiteral("log"), QStringLiteral("conf") }),
             0);
    const QString out = path(QStringLiteral("out"));
    QVERIFY(QDir().mkpath(out));

    QVERIFY(TFileSystemHelper::Unzip(QStringLiteral("real.tgz"), out));
    QCOMPARE(run(QStringLiteral("diff"), { QStringLiteral("-r"), m_base, out }), 0);
}

void tst_Archives::namesAreNotOptions()
{
    // Together these two would make tar run "touch pwned" if they reached it
    // as options.
    const QStringList files = names("--checkpoint=1|--checkpoint-action=exec=touch pwned|-v", '|');
    for (const QString &file : files)
        QVERIFY(writeFile(m_base + QLatin1Char('/') + file, file.toUtf8()));
    QVERIFY(QDir().mkpath(path(QStringLiteral("-out"))));

    QVERIFY(TFileSystemHelper::Zip(QStringLiteral("-a.tgz"), m_base,
                                   files + QStringList { QStringLiteral("log") }));
    QVERIFY(TFileSystemHelper::Unzip(QStringLiteral("-a.tgz"), QStringLiteral("-out")));

    QVERIFY(!exists(m_base + QStringLiteral("/pwned")));
    QVERIFY(!exists(path(QStringLiteral("pwned"))));
    QVERIFY(!exists(path(QStringLiteral("-out/pwned"))));
    for (const QString &file : files)
        QCOMPARE(readFile(path(QStringLiteral("-out/") + file)),
                 readFile(m_base + QLatin1Char('/') + file));
    QByteArray listing;
    QCOMPARE(run(QStringLiteral("tar"), { QStringLiteral("-tzf"), QStringLiteral("./-a.tgz") },
                 &listing),
             0);
    QCOMPARE(listing,
             QByteArray("./--checkpoint=1\n./--checkpoint-action=exec=touch pwned\n./-v\nlog\n"));
}

void tst_Archives::archiveWithColonStaysLocal()
{
    QVERIFY(TFileSystemHelper::Zip(QStringLiteral("host:a.tgz"), m_base, names("log conf")));
    QVERIFY(QFileInfo(path(QStringLiteral("host:a.tgz"))).size() > 0);
    QVERIFY(unpackedEqualsBase(QStringLiteral("./host:a.tgz")));
}

void tst_Archives::failuresOfTarStillTrue()
{
    const QString out = path(QStringLiteral("out"));
    QVERIFY(QDir().mkpath(out));
    QVERIFY(TFileSystemHelper::Unzip(QStringLiteral("missing.tgz"), out));
    QCOMPARE(QDir(out).entryList(QDir::NoDotAndDotDot | QDir::AllEntries), QStringList());

    QVERIFY(TFileSystemHelper::Zip(QStringLiteral("real.tgz"), m_base, names("log")));
    QVERIFY(TFileSystemHelper::Unzip(QStringLiteral("real.tgz"),
                                     path(QStringLiteral("no/such/dir"))));
    QVERIFY(!exists(path(QStringLiteral("no"))));

    // tar refuses to write an empty archive, and ends.
    QVERIFY(TFileSystemHelper::Zip(QStringLiteral("empty.tgz"), m_base, QStringList()));
}

void tst_Archives::withoutTar()
{
    QVERIFY(QDir().mkpath(path(QStringLiteral("emptybin"))));
    PathOverride noTar(path(QStringLiteral("emptybin")));
    QVERIFY(!TFileSystemHelper::Unzip(QStringLiteral("a.tgz"), m_base));
    QVERIFY(!TFileSystemHelper::Zip(QStringLiteral("a.tgz"), m_base, names("log")));
    QVERIFY(!TFileSystemHelper::Zip(QStringLiteral("a.tgz"), names("log")));
    QVERIFY(!exists(path(QStringLiteral("a.tgz"))));
}

void tst_Archives::timeoutKillsTar()
{
    // Takes the full 30 seconds the call waits for tar.
    makeFakeTar(true);
    bool finished;
    {
        PathOverride onlyFakeTar(path(QStringLiteral("fakebin")));
        finished = TFileSystemHelper::Unzip(QStringLiteral("a.tgz"), m_base);
    }
    QVERIFY(!finished);
    const pid_t pid = readFile(path(QStringLiteral("pid"))).trimmed().toInt();
    QVERIFY(pid > 0);
    QCOMPARE(::kill(pid, 0), -1);
    QCOMPARE(errno, ESRCH);
}

QTEST_GUILESS_MAIN(tst_Archives)
#include "tst_archives.moc"
