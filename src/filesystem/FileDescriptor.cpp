#include "FileDescriptor_p.h"

#include <cerrno>

#include <fcntl.h>

int openReadableFile(int dir, const char *name, struct stat &status)
{
    int fd;
    do {
        fd = ::openat(dir, name, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0)
        return -1;
    if (::fstat(fd, &status) != 0 || !(S_ISREG(status.st_mode) || S_ISBLK(status.st_mode))
        || ::fcntl(fd, F_SETFL, 0) != 0) { // O_NONBLOCK was the only flag it can set
        ::close(fd);
        return -1;
    }
    return fd;
}
