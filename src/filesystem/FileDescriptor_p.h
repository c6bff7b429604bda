//
//  W A R N I N G
//  -------------
//
// This file is not part of the Trellis API. It is internal to the library
// and may change or disappear from one version to the next.

#ifndef TRELLIS_FILEDESCRIPTOR_P_H
#define TRELLIS_FILEDESCRIPTOR_P_H

#include <utility>

#include <sys/stat.h>
#include <unistd.h>

// Opens name, relative to the directory dir (AT_FDCWD: a path), for reading,
// without blocking, so that a FIFO cannot hold the call, and keeps it only
// when it has an end: a regular file or a block device, whose status is put
// in status. -1 for anything else (a directory, a FIFO, a socket, a
// character device such as /dev/zero: errno ENOTSUP, EISDIR for a
// directory) and on failure.
int openReadableFile(int dir, const char *name, struct stat &status);

// A file descriptor that is closed when it goes out of scope.
class FileDescriptor
{
public:
    explicit FileDescriptor(int fd) : m_fd(fd) { }
    ~FileDescriptor() { close(); }
    FileDescriptor(const FileDescriptor &) = delete;
    FileDescriptor &operator=(const FileDescriptor &) = delete;

    int get() const { return m_fd; }
    bool isOpen() const { return m_fd >= 0; }
    // Gives the descriptor up, to be closed by whoever takes it.
    int release() { return std::exchange(m_fd, -1); }
    // Closes the descriptor held, and holds fd instead.
    void reset(int fd)
    {
        close();
        m_fd = fd;
    }
    void close()
    {
        if (m_fd >= 0)
            ::close(m_fd);
        m_fd = -1;
    }

private:
    int m_fd;
};

#endif // TRELLIS_FILEDESCRIPTOR_P_H
