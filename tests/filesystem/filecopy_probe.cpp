// filecopy_probe SOURCE DESTINATION [FILE-SIZE-LIMIT]
//
// Copies SOURCE to DESTINATION with TFileSystemHelper::FileCopy (no stamp),
// or with CopyDir when SOURCE is a directory, and exits with 0 when the copy
// returned true, 1 when it returned false and 2 on bad usage. With a limit, files this process
// writes may not grow past that many bytes: a write beyond it fails instead of killing the process.
// The tests run it under strace and with such a limit.

#include <Trellis/TFileSystemHelper.h>

#include <QFileInfo>

#include <csignal>
#include <cstdlib>
#include <sys/resource.h>

int main(int argc, char **argv)
{
    if (argc < 3 || argc > 4)
        return 2;
    if (argc == 4) {
        std::signal(SIGXFSZ, SIG_IGN);
        const rlim_t limit = std::strtoull(argv[3], nullptr, 10);
        const struct rlimit fileSize = { limit, limit };
        if (setrlimit(RLIMIT_FSIZE, &fileSize) != 0)
            return 2;
    }
    const QString source = QString::fromLocal8Bit(argv[1]);
    const QString destination = QString::fromLocal8Bit(argv[2]);
    const bool copied = QFileInfo(source).isDir()
            ? TFileSystemHelper::CopyDir(source, destination)
            : TFileSystemHelper::FileCopy(source, destination, false);
    return copied ? 0 : 1;
}
