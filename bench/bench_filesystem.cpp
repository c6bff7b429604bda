// The file-system helpers against the command-line tools that do the same
// work with the same durability, all with a warm page cache:
//
//   filecopy  FileCopy of a 1 GiB file; cp followed by sync FILE, rsync
//             --fsync and dd conv=fsync
//   copydir   CopyDir of 20,000 files of 4 KiB in 200 directories (one fsync
//             per file); rsync -a --fsync, and cp -r followed by one syncfs
//   deletedir DeleteDirGeneric of that tree; rm -rf
//   md5       TFileHash::CalculateFileMD5 of the 1 GiB file; md5sum
//
// bench_filesystem [CASE...] runs the named cases, all of them by default,
// with 4, 2, 4 and 5 rounds after a warm-up round (TRELLIS_BENCH_ROUNDS sets
// them all): about 10 minutes on a quiet machine, longer when other work
// competes for the disk. The files (about 3 GiB) live in a temporary
// directory under TRELLIS_BENCH_DIR, or beside this program when that is not
// set, and are removed at the end. Every trial starts with the file systems
// synced, so no trial pays for another's write-back. The file copy removes
// the previous copy first; every directory copy writes a tree of its own,
// kept until the case ends; every delete removes a fresh copy of the tree.

#include "RoundDriver.h"

#include <Trellis/TFileHash.h>
#include <Trellis/TFileSystemHelper.h>

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QStorageInfo>
#include <QTemporaryDir>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include <unistd.h>

namespace {

constexpr qint64 BigFileBytes = qint64(1) << 30;
constexpr int TreeDirs = 200;
constexpr int FilesPerDir = 100;
constexpr int TreeFiles = TreeDirs * FilesPerDir;
constexpr int TreeFileBytes = 4096;
// The big file and a copy of it, and the tree (80 MiB of data) with the nine
// copies of the directory-copy case at its default rounds, with room to spare.
constexpr qint64 NeededBytes = 4 * BigFileBytes;

[[noreturn]] void fail(const QString &what)
{
    std::fprintf(stderr, "bench_filesystem: %s\n", qPrintable(what));
    std::exit(1);
}

void check(bool ok, const QString &what)
{
    if (!ok)
        fail(what);
}

// Runs program with arguments, without a shell, its output discarded, and
// fails the benchmark unless it exits with 0.
void run(const QString &program, const QStringList &arguments)
{
    QProcess process;
    process.setStandardOutputFile(QProcess::nullDevice());
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.start(program, arguments);
    check(process.waitForFinished(-1) && process.exitStatus() == QProcess::NormalExit
                  && process.exitCode() == 0,
          program + QLatin1Char(' ') + arguments.join(QLatin1Char(' '))
                  + QStringLiteral(" failed"));
}

// What program prints, for the one check of the digest.
QByteArray outputOf(const QString &program, const QStringList &arguments)
{
    QProcess process;
    process.start(program, arguments);
    check(process.waitForFinished(-1) && process.exitCode() == 0,
          program + QStringLiteral(" failed"));
    return process.readAllStandardOutput();
}

double secondsOf(const std::function<void()> &work)
{
    QElapsedTimer timer;
    timer.start();
    work();
    return double(timer.nsecsElapsed()) / 1e9;
}

// Removes a file or tree left by the previous trial and writes back whatever
// is dirty, so the next trial starts from the same clean state.
void clear(const QString &path)
{
    std::error_code ignored;
    std::filesystem::remove_all(QFile::encodeName(path).toStdString(), ignored);
    ::sync();
}

// Bytes that neither compress nor repeat, from a xorshift generator.
void fill(char *data, std::size_t size, std::uint64_t &state)
{
    for (std::size_t i = 0; i + sizeof state <= size; i += sizeof state) {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        std::memcpy(data + i, &state, sizeof state);
    }
}

void makeBigFile(const QString &path)
{
    QFile file(path);
    check(file.open(QIODevice::WriteOnly), QStringLiteral("cannot create ") + path);
    std::vector<char> block(1 << 20);
    std::uint64_t state = 88172645463325252u;
    for (qint64 written = 0; written < BigFileBytes; written += qint64(block.size())) {
        fill(block.data(), block.size(), state);
        check(file.write(block.data(), qint64(block.size())) == qint64(block.size()),
              QStringLiteral("cannot write ") + path);
    }
}

void makeTree(const QString &root)
{
    std::uint64_t state = 2463534242u;
    char contents[TreeFileBytes];
    for (int d = 0; d < TreeDirs; ++d) {
        const QString dir = root + QStringLiteral("/dir%1").arg(d, 3, 10, QLatin1Char('0'));
        check(QDir().mkpath(dir), QStringLiteral("cannot create ") + dir);
        for (int f = 0; f < FilesPerDir; ++f) {
            fill(contents, sizeof contents, state);
            QFile file(dir + QStringLiteral("/file%1.dat").arg(f, 3, 10, QLatin1Char('0')));
            check(file.open(QIODevice::WriteOnly)
                          && file.write(contents, sizeof contents) == sizeof contents,
                  QStringLiteral("cannot write ") + file.fileName());
        }
    }
}

int countFiles(const QString &root)
{
    int count = 0;
    for (const auto &entry :
         std::filesystem::recursive_directory_iterator(QFile::encodeName(root).toStdString()))
        count += entry.is_regular_file();
    return count;
}

class Bench
{
public:
    explicit Bench(const QString &scratch)
        : m_bigFile(scratch + QStringLiteral("/big.bin")),
          m_copy(scratch + QStringLiteral("/copy.bin")), m_tree(scratch + QStringLiteral("/tree")),
          m_treeCopy(scratch + QStringLiteral("/tree-copy"))
    { }

    void fileCopy(int rounds)
    {
        ensureBigFile();
        RoundDriver driver("file copy, 1 GiB, flushed to disk", "MB/s");
        const auto trial = [this](std::function<void()> copy) {
            return [this, copy] {
                clear(m_copy);
                const double seconds = secondsOf(copy);
                check(QFileInfo(m_copy).size() == BigFileBytes, QStringLiteral("short copy"));
                return double(BigFileBytes) / 1e6 / seconds;
            };
        };
        driver.add("TFileSystemHelper::FileCopy", trial([this] {
                       check(TFileSystemHelper::FileCopy(m_bigFile, m_copy, true),
                             QStringLiteral("FileCopy failed"));
                   }));
        driver.add("cp + sync FILE", trial([this] {
                       run(QStringLiteral("cp"), { m_bigFile, m_copy });
                       run(QStringLiteral("sync"), { m_copy });
                   }));
        driver.add(
                "rsync --fsync", trial([this] {
                    run(QStringLiteral("rsync"), { QStringLiteral("--fsync"), m_bigFile, m_copy });
                }));
        driver.add("dd bs=4M conv=fsync", trial([this] {
                       run(QStringLiteral("dd"),
                           { QStringLiteral("if=") + m_bigFile, QStringLiteral("of=") + m_copy,
                             QStringLiteral("bs=4M"), QStringLiteral("conv=fsync"),
                             QStringLiteral("status=none") });
                   }));
        driver.run(rounds);
        clear(m_copy);
    }

    void copyDir(int rounds)
    {
        ensureTree();
        RoundDriver driver("directory copy, 20,000 files of 4 KiB in 200 directories, each file "
                           "flushed",
                           "files/s");
        // Every trial writes a new tree, and all are removed after the last
        // round: the file system skips inodes freed in the last minutes when
        // it creates files, so removing a tree of 20,000 files before a trial
        // would slow that trial down by an amount that varies from one to
        // the next.
        QStringList copies;
        const auto trial = [this, &copies](std::function<void(const QString &)> copy) {
            return [this, &copies, copy] {
                const QString destination = m_treeCopy + QString::number(copies.size());
                copies.append(destination);
                ::sync();
                const double seconds = secondsOf([&] { copy(destination); });
                check(countFiles(destination) == TreeFiles, QStringLiteral("incomplete tree copy"));
                return TreeFiles / seconds;
            };
        };
        driver.add("TFileSystemHelper::CopyDir", trial([this](const QString &destination) {
                       check(TFileSystemHelper::CopyDir(m_tree, destination),
                             QStringLiteral("CopyDir failed"));
                   }));
        driver.add("rsync -a --fsync", trial([this](const QString &destination) {
                       run(QStringLiteral("rsync"),
                           { QStringLiteral("-a"), QStringLiteral("--fsync"),
                             m_tree + QLatin1Char('/'), destination });
                   }));
        driver.add("cp -r + sync -f (no fsync per file)", trial([this](const QString &destination) {
                       run(QStringLiteral("cp"), { QStringLiteral("-r"), m_tree, destination });
                       run(QStringLiteral("sync"), { QStringLiteral("-f"), destination });
                   }));
        driver.run(rounds);
        for (const QString &copy : copies)
            clear(copy);
    }

    void deleteDir(int rounds)
    {
        ensureTree();
        RoundDriver driver("directory delete, 20,000 files of 4 KiB in 200 directories", "files/s");
        const auto trial = [this](std::function<void()> remove) {
            return [this, remove] {
                clear(m_treeCopy);
                run(QStringLiteral("cp"), { QStringLiteral("-r"), m_tree, m_treeCopy });
                ::sync();
                const double seconds = secondsOf(remove);
                check(!QFileInfo::exists(m_treeCopy), QStringLiteral("tree left behind"));
                return TreeFiles / seconds;
            };
        };
        driver.add("TFileSystemHelper::DeleteDirGeneric", trial([this] {
                       check(TFileSystemHelper::DeleteDirGeneric(m_treeCopy, false, true),
                             QStringLiteral("DeleteDirGeneric failed"));
                   }));
        driver.add("rm -rf", trial([this] {
                       run(QStringLiteral("rm"), { QStringLiteral("-rf"), m_treeCopy });
                   }));
        driver.run(rounds);
    }

    void md5(int rounds)
    {
        ensureBigFile();
        const QByteArray digest = TFileHash::CalculateFileMD5(m_bigFile).toHex();
        check(outputOf(QStringLiteral("md5sum"), { m_bigFile }).startsWith(digest + ' '),
              QStringLiteral("md5sum disagrees with TFileHash"));
        RoundDriver driver("MD5 of a 1 GiB file", "MB/s");
        const auto trial = [](std::function<void()> hash) {
            return [hash] { return double(BigFileBytes) / 1e6 / secondsOf(hash); };
        };
        driver.add("TFileHash::CalculateFileMD5",
                   trial([this] { TFileHash::CalculateFileMD5(m_bigFile); }));
        driver.add("md5sum", trial([this] { run(QStringLiteral("md5sum"), { m_bigFile }); }));
        driver.run(rounds);
    }

private:
    void ensureBigFile()
    {
        if (QFileInfo(m_bigFile).size() == BigFileBytes)
            return;
        makeBigFile(m_bigFile);
        ::sync();
    }

    void ensureTree()
    {
        if (QFileInfo::exists(m_tree))
            return;
        makeTree(m_tree);
        ::sync();
    }

    const QString m_bigFile;
    const QString m_copy;
    const QString m_tree;
    const QString m_treeCopy;
};

void printLoad(const char *when)
{
    QFile loadavg(QStringLiteral("/proc/loadavg"));
    if (loadavg.open(QIODevice::ReadOnly))
        std::printf("load average %s: %s", when, loadavg.readLine().constData());
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QStringList cases = app.arguments().mid(1);
    const QStringList known { QStringLiteral("filecopy"), QStringLiteral("copydir"),
                              QStringLiteral("deletedir"), QStringLiteral("md5") };
    if (cases.isEmpty())
        cases = known;
    for (const QString &name : cases)
        check(known.contains(name),
              QStringLiteral("unknown case %1 (known: %2)")
                      .arg(name, known.join(QLatin1Char(' '))));

    QString base = qEnvironmentVariable("TRELLIS_BENCH_DIR");
    if (base.isEmpty())
        base = app.applicationDirPath();
    const qint64 available = QStorageInfo(base).bytesAvailable();
    if (available < NeededBytes) {
        std::printf("bench_filesystem: skipped, %.1f GiB free in %s and %.1f GiB needed\n",
                    double(available) / (1 << 30), qPrintable(base),
                    double(NeededBytes) / (1 << 30));
        return 0;
    }
    QTemporaryDir scratch(base + QStringLiteral("/bench_filesystem-XXXXXX"));
    check(scratch.isValid(), QStringLiteral("cannot create a directory in ") + base);

    printLoad("at start");
    Bench bench(scratch.path());
    for (const QString &name : cases) {
        if (name == QLatin1String("filecopy"))
            bench.fileCopy(4);
        else if (name == QLatin1String("copydir"))
            bench.copyDir(2);
        else if (name == QLatin1String("deletedir"))
            bench.deleteDir(4);
        else
            bench.md5(5);
    }
    printLoad("at end");
    return 0;
}
