#include "FlushPool_p.h"

#include "ThreadStart_p.h"

#include <unistd.h>

namespace {

void flushAndCloseHere(int fd)
{
    ::fsync(fd);
    ::close(fd);
}

} // namespace

FlushPool::~FlushPool()
{
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_idle.wait(lock, [this] { return m_waiting.empty(); });
        m_ending = true;
    }
    m_work.notify_all();
    for (std::thread &thread : m_threads)
        thread.join();
}

void FlushPool::flushAndClose(int fd)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    // A thread more only when every one there is busy.
    const bool allBusy = m_flushing + m_waiting.size() >= m_threads.size();
    if (allBusy && m_threads.size() < MaxThreads && !startThread() && m_threads.empty()) {
        lock.unlock();
        flushAndCloseHere(fd);
        return;
    }
    m_idle.wait(lock, [this] { return m_waiting.size() < MaxWaiting; });
    m_waiting.push_back(fd);
    lock.unlock();
    m_work.notify_one();
}

void FlushPool::waitForAll()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_idle.wait(lock, [this] { return m_waiting.empty() && m_flushing == 0; });
}

bool FlushPool::startThread()
{
    return tryStartThread(m_threads, [this] { work(); });
}

void FlushPool::work()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        m_work.wait(lock, [this] { return !m_waiting.empty() || m_ending; });
        if (m_waiting.empty())
            return; // ending
        const int fd = m_waiting.front();
        m_waiting.pop_front();
        ++m_flushing;
        lock.unlock();
        m_idle.notify_all(); // room for one more
        flushAndCloseHere(fd);
        lock.lock();
        --m_flushing;
        if (m_waiting.empty() && m_flushing == 0)
            m_idle.notify_all();
    }
}
