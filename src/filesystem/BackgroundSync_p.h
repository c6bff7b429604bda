//
//  W A R N I N G
//  -------------
//
// This file is not part of the Trellis API. It is internal to the library
// and may change or disappear from one version to the next.

#ifndef TRELLIS_BACKGROUNDSYNC_P_H
#define TRELLIS_BACKGROUNDSYNC_P_H

#include <future>

// Flushes a file to the disk while its copy goes on: a flush waits for the
// disk, and the copy can meanwhile read and write the next part (together
// that makes a large copy up to half again as fast). One flush runs at a
// time; the destructor waits for the last, so the descriptor outlives it.
// The result of fsync() is not looked at.
class BackgroundSync
{
public:
    explicit BackgroundSync(int fd) : m_fd(fd) { }
    ~BackgroundSync() { wait(); }
    BackgroundSync(const BackgroundSync &) = delete;
    BackgroundSync &operator=(const BackgroundSync &) = delete;

    void start();
    void wait();

private:
    const int m_fd;
    std::future<void> m_running;
};

#endif // TRELLIS_BACKGROUNDSYNC_P_H
