// filecopy_probe SOURCE DESTINATION
//
// Copies SOURCE to DESTINATION with TFileSystemHelper::FileCopy (no stamp),
// or with CopyDir when SOURCE is a directory, and exits with 0 when the copy
// returned true, 1 when it returned false and 2 on bad usage. The tests run
// it under strace, and under a file size limit: a write beyond the limit
// fails instead of killing the process.

#include <Trellis/TFileSystemHelper.h>

#include <QFileInfo>

#include <csignal>

int main(int argc, char **argv)
{
    if (argc != 3 || std::signal(SIGXFSZ, SIG_IGN) == SIG_ERR)
        return 2;
    const QString source = QString::fromLocal8Bit(argv[1]),
                  destination = QString::fromLocal8Bit(argv[2]);
    return QFileInfo(source).isDir() ? !TFileSystemHelper::CopyDir(source, destination)
                                     : !TFileSystemHelper::FileCopy(source, destination, false);
}
