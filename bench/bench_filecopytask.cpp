// The batch copy task against the plain directory copy it builds on, and
// against rsync, all with a warm page cache:
//
//   disk     TFileCopyTask (action OverwriteAll, split at depth 0 and at
//            depth 100), TFileSystemHelper::CopyDir and rsync -a --fsync on
//            20,000 files of 4 KiB in 200 directories, each file flushed
//   scaling  the task (depth 100) and CopyDir on tmpfs, where a flush costs
//            next to nothing, at 2,000, 20,000 and 100,000 files of 4 KiB,
//            100 per directory, every size in every round; prints the time
//            per file at each size and the largest of them over the least
//
// bench_filecopytask [CASE...] runs the named cases, both by default, with 1
// and 9 rounds after a warm-up round (TRELLIS_BENCH_ROUNDS sets them all):
// a few minutes on a quiet machine, and several times that when other work
// competes for the disk, where each trial flushes 20,000 files.
// The disk trees live in a temporary directory under TRELLIS_BENCH_DIR, or
// beside this program when that is not set; the tmpfs trees under
// TRELLIS_BENCH_TMPFS, /dev/shm by default. Each trial starts after its
// previous copy was removed and the file systems were synced.

#include "BenchSupport.h"
#include "RoundDriver.h"

#include <Trellis/TFileCopyTask.h>
#include <Trellis/TFileSystemHelper.h>

#include <QCoreApplication>
#include <QEventLoop>
#include <QFileInfo>
#include <QRegExp>
#include <QStorageInfo>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>
#include <deque>
#include <functional>
#include <numeric>
#include <string>
#include <vector>

namespace {

using namespace bench;

constexpr int FilesPerDir = 100;
constexpr int DiskTreeDirs = 200;
constexpr int ScalingDirs[] = { 20, 200, 1000 };

// Two copies of a tree of dirs directories beside the tree, with room to spare.
constexpr qint64 neededBytes(int dirs)
{
    return qint64(dirs) * FilesPerDir * TreeFileBytes * 4;
}

// Copies the tree at source into destination/<source's name> with a task
// that overwrites whatever exists, splitting the batch at depth, and waits
// in an event loop for the end of the pass.
void copyWithTask(const QString &source, const QString &destination, int depth)
{
    TFileCopyTask task(TFileCopyTask::OverwriteAll);
    QEventLoop loop;
    int finalState = -1;
    QObject::connect(&task, &TFileCopyTask::State, &loop, [&](int state, const QFileInfo &) {
        finalState = state;
        loop.quit();
    });
    const QFileInfo sourceInfo(source);
    task.CopyFiles({ sourceInfo }, QRegExp::escape(sourceInfo.absolutePath()), destination, depth);
    loop.exec();
    check(finalState == TFileCopyTask::StateFinished,
          QStringLiteral("the task ended in state %1").arg(finalState));
}

// A trial that copies the tree at source into a destination of its own,
// removed before the trial, and returns files per second. Each contender
// keeps its copy until its next trial, a round later: the file system avoids
// reusing inodes freed in the last few seconds, and creating files right
// after a large removal would cost whoever comes next.
RoundDriver::Trial copyTrial(const QString &destination, int files,
                             std::function<void(const QString &)> copy)
{
    return [destination, files, copy] {
        clear(destination);
        const double seconds = secondsOf([&] { copy(destination); });
        check(countFiles(destination) == files,
              QStringLiteral("incomplete copy in ") + destination);
        return files / seconds;
    };
}

// A temporary directory under base holding a tree of dirs directories of
// FilesPerDir files, and the prefix of the copies' paths beside it.
struct Workspace
{
    Workspace(const QString &base, int dirs)
        : scratch(base + QStringLiteral("/bench_filecopytask-XXXXXX")),
          tree(scratch.path() + QStringLiteral("/tree")),
          copies(scratch.path() + QStringLiteral("/copy-")), files(dirs * FilesPerDir)
    {
        check(scratch.isValid(), QStringLiteral("cannot create a directory in ") + base);
        makeTree(tree, dirs, FilesPerDir);
        ::sync();
    }

    QTemporaryDir scratch;
    const QString tree;
    const QString copies;
    const int files;
};

QString scratchBase(const char *variable, const QString &fallback)
{
    const QString base = qEnvironmentVariable(variable);
    return base.isEmpty() ? fallback : base;
}

// Whether base has room for needed bytes; says so when it has not.
bool hasRoom(const QString &base, qint64 needed)
{
    const qint64 available = QStorageInfo(base).bytesAvailable();
    if (available >= needed)
        return true;
    std::printf("skipped: %.1f GiB free in %s and %.1f GiB needed\n", double(available) / (1 << 30),
                qPrintable(base), double(needed) / (1 << 30));
    return false;
}

void diskCase(const QString &base, int rounds)
{
    if (!hasRoom(base, neededBytes(DiskTreeDirs)))
        return;
    const Workspace space(base, DiskTreeDirs);
    const QString &tree = space.tree;
    const QString &copies = space.copies;
    const int files = space.files;

    RoundDriver driver("batch copy on disk, 20,000 files of 4 KiB in 200 directories, each file "
                       "flushed",
                       "files/s");
    driver.add("TFileSystemHelper::CopyDir",
               copyTrial(copies + QStringLiteral("copydir"), files, [&](const QString &to) {
                   check(TFileSystemHelper::CopyDir(tree, to), QStringLiteral("CopyDir failed"));
               }));
    for (const int depth : { 0, 100 })
        driver.add("TFileCopyTask OverwriteAll, depth " + std::to_string(depth),
                   copyTrial(copies + QStringLiteral("task%1").arg(depth), files,
                             [&, depth](const QString &to) { copyWithTask(tree, to, depth); }));
    driver.add("rsync -a --fsync",
               copyTrial(copies + QStringLiteral("rsync"), files, [&](const QString &to) {
                   run(QStringLiteral("rsync"),
                       { QStringLiteral("-a"), QStringLiteral("--fsync"), tree + QLatin1Char('/'),
                         to });
               }));
    driver.run(rounds);
}

void scalingCase(const QString &base, int rounds)
{
    if (!hasRoom(base,
                 neededBytes(std::accumulate(std::begin(ScalingDirs), std::end(ScalingDirs), 0))))
        return;
    const std::vector<std::string> names { "TFileSystemHelper::CopyDir",
                                           "TFileCopyTask OverwriteAll, depth 100" };
    // A driver for each size, the sizes taking turns a round each: the times
    // per file of one round are taken seconds apart, while this machine's
    // speed drifts over minutes.
    std::deque<Workspace> spaces;
    std::deque<RoundDriver> drivers;
    for (const int dirs : ScalingDirs) {
        const Workspace &space = spaces.emplace_back(base, dirs);
        RoundDriver &driver = drivers.emplace_back(
                "batch copy on tmpfs, " + std::to_string(space.files) + " files of 4 KiB",
                "files/s");
        driver.add(names[0],
                   copyTrial(space.copies + QStringLiteral("copydir"), space.files,
                             [&space](const QString &to) {
                                 check(TFileSystemHelper::CopyDir(space.tree, to),
                                       QStringLiteral("CopyDir failed"));
                             }));
        driver.add(names[1],
                   copyTrial(space.copies + QStringLiteral("task"), space.files,
                             [&space](const QString &to) { copyWithTask(space.tree, to, 100); }));
    }
    rounds = RoundDriver::rounds(rounds);
    std::printf("== batch copy on tmpfs, every size in every round: %d rounds\n\n", rounds);
    std::fflush(stdout);
    for (RoundDriver &driver : drivers)
        driver.runRound(0, false); // the warm-up
    for (int round = 0; round < rounds; ++round) {
        for (std::size_t i = 0; i < drivers.size(); ++i)
            drivers[(std::size_t(round) + i) % drivers.size()].runRound(round, true);
    }
    for (const RoundDriver &driver : drivers) {
        driver.printTitle(rounds);
        driver.printTable();
    }

    std::printf("== batch copy on tmpfs: median time per file\n%-38s", "contender");
    for (const int dirs : ScalingDirs)
        std::printf(" %10d files", dirs * FilesPerDir);
    std::printf(" %14s\n", "largest/least");
    for (std::size_t contender = 0; contender < names.size(); ++contender) {
        std::vector<double> times;
        for (const RoundDriver &driver : drivers)
            times.push_back(1 / RoundDriver::median(driver.rates(contender)));
        std::printf("%-38s", names[contender].c_str());
        for (const double seconds : times)
            std::printf(" %13.2f us", seconds * 1e6);
        const auto [least, largest] = std::minmax_element(times.begin(), times.end());
        std::printf(" %14.2f\n", *largest / *least);
    }
    std::printf("\n");
    std::fflush(stdout);
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList cases
            = selectedCases(app, { QStringLiteral("disk"), QStringLiteral("scaling") });

    printLoad("at start");
    for (const QString &name : cases) {
        if (name == QLatin1String("disk"))
            diskCase(scratchBase("TRELLIS_BENCH_DIR", app.applicationDirPath()), 1);
        else
            scalingCase(scratchBase("TRELLIS_BENCH_TMPFS", QStringLiteral("/dev/shm")), 9);
    }
    printLoad("at end");
    return 0;
}
