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

#include "BenchSupport.h"
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

using namespace bench;

constexpr qint64 BigFileBytes = qint64(1) << 30;
constexpr int TreeDirs = 200;
constexpr int FilesPerDir = 100;
constexpr int TreeFiles = TreeDirs * FilesPerDir;
// The big file and a copy of it, and the tree (80 MiB of data) with the nine
// copies of the directory-copy case at its default rounds, with room to spare.
constexpr qint64 NeededBytes = 4 * BigFileBytes;

// What program prints, for the one check of the digest.
QByteArray outputOf(const QString &program, const QStringList &arguments)
{
    QProcess process;
    process.start(program, arguments);
    check(process.waitForFinished(-1) && process.exitCode() == 0,
          program + QStringLiteral(" failed"));
    return process.readAllStandardOutput();
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
        makeTree(m_tree, TreeDirs, FilesPerDir);
        ::sync();
    }

    const QString m_bigFile;
    const QString m_copy;
    const QString m_tree;
    const QString m_treeCopy;
};

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList cases = selectedCases(app,
                                            { QStringLiteral("filecopy"), QStringLiteral("copydir"),
                                              QStringLiteral("deletedir"), QStringLiteral("md5") });

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
