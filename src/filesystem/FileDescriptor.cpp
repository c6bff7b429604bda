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
    int error = 0;
    if (::fstat(fd, &status) != 0)
        error = errno;
    else if (S_ISDIR(status.st_mode))
        error = EISDIR;
    else if (!S_ISREG(status.st_mode) && !S_ISBLK(status.st_mode))
        error = ENOTSUP;
    else if (::fcntl(fd, F_SETFL, 0) != 0) // O_NONBLOCK was the only flag it can set
        error = errno;
    if (error != 0) {
        ::close(fd);
        errno = error;
        return -1;
    }
    return fd;
}
