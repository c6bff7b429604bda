#ifndef TRELLIS_BENCH_BENCHSUPPORT_H
#define TRELLIS_BENCH_BENCHSUPPORT_H

// Helpers shared by the file benchmarks: running external tools, timing,
// building trees of incompressible files, and starting every trial from the
// same clean state.

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QString>
#include <QStringList>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>

#include <unistd.h>

namespace bench {

// The size of every file in the trees that makeTree() builds.
constexpr int TreeFileBytes = 4096;

[[noreturn]] inline void fail(const QString &what)
{
    std::fprintf(stderr, "%s: %s\n", qPrintable(QCoreApplication::applicationName()),
                 qPrintable(what));
    std::exit(1);
}

inline void check(bool ok, const QString &what)
{
    if (!ok)
        fail(what);
}

// Runs program with arguments, without a shell, its output discarded, and
// fails the benchmark unless it exits with 0.
inline void run(const QString &program, const QStringList &arguments)
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

inline double secondsOf(const std::function<void()> &work)
{
    QElapsedTimer timer;
    timer.start();
    work();
    return double(timer.nsecsElapsed()) / 1e9;
}

// Removes a file or tree left by the previous trial and writes back whatever
// is dirty, so the next trial starts from the same clean state.
inline void clear(const QString &path)
{
    std::error_code ignored;
    std::filesystem::remove_all(QFile::encodeName(path).toStdString(), ignored);
    ::sync();
}

// Bytes that neither compress nor repeat, from a xorshift generator.
inline void fill(char *data, std::size_t size, std::uint64_t &state)
{
    for (std::size_t i = 0; i + sizeof state <= size; i += sizeof state) {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        std::memcpy(data + i, &state, sizeof state);
    }
}

// Builds under root dirs directories of filesPerDir files of TreeFileBytes.
inline void makeTree(const QString &root, int dirs, int filesPerDir)
{
    std::uint64_t state = 2463534242u;
    char contents[TreeFileBytes];
    for (int d = 0; d < dirs; ++d) {
        const QString dir = root + QStringLiteral("/dir%1").arg(d, 3, 10, QLatin1Char('0'));
        check(QDir().mkpath(dir), QStringLiteral("cannot create ") + dir);
        for (int f = 0; f < filesPerDir; ++f) {
            fill(contents, sizeof contents, state);
            QFile file(dir + QStringLiteral("/file%1.dat").arg(f, 3, 10, QLatin1Char('0')));
            check(file.open(QIODevice::WriteOnly)
                          && file.write(contents, sizeof contents) == sizeof contents,
                  QStringLiteral("cannot write ") + file.fileName());
        }
    }
}

inline int countFiles(const QString &root)
{
    int count = 0;
    for (const auto &entry :
         std::filesystem::recursive_directory_iterator(QFile::encodeName(root).toStdString()))
        count += entry.is_regular_file();
    return count;
}

// The cases named on the command line, all of known when none is; fails on
// a name not in known.
inline QStringList selectedCases(const QCoreApplication &app, const QStringList &known)
{
    const QStringList named = app.arguments().mid(1);
    for (const QString &name : named)
        check(known.contains(name),
              QStringLiteral("unknown case %1 (known: %2)")
                      .arg(name, known.join(QLatin1Char(' '))));
    return named.isEmpty() ? known : named;
}

inline void printLoad(const char *when)
{
    QFile loadavg(QStringLiteral("/proc/loadavg"));
    if (loadavg.open(QIODevice::ReadOnly))
        std::printf("load average %s: %s", when, loadavg.readLine().constData());
}

} // namespace bench

#endif // TRELLIS_BENCH_BENCHSUPPORT_H
