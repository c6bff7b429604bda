#include "FlushPool_p.h"

#include <unistd.h>

namespace {

void flushAndCloseHere(int fd)
{
    ::fsync(fd);
    ::close(fd);
}

} // namespace

FlushPool::FlushPool() : m_jobs(MaxThreads, MaxWaiting, [](int &fd) { flushAndCloseHere(fd); }) { }

void FlushPool::flushAndClose(int fd)
{
    if (!m_jobs.handOver(fd, JobPool<int>::WhenFull::Wait))
        flushAndCloseHere(fd); // no thread to be had
}

void FlushPool::waitForAll()
{
    m_jobs.waitForAll();
}
