//
//  W A R N I N G
//  -------------
//
// This file is not part of the Trellis API. It is internal to the library
// and may change or disappear from one version to the next.

#ifndef TRELLIS_FILEDESCRIPTOR_P_H
#define TRELLIS_FILEDESCRIPTOR_P_H

#include <unistd.h>

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
