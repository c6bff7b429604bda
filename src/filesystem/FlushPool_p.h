//
//  W A R N I N G
//  -------------
//
// This file is not part of the Trellis API. It is internal to the library
// and may change or disappear from one version to the next.

#ifndef TRELLIS_FLUSHPOOL_P_H
#define TRELLIS_FLUSHPOOL_P_H

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

// Flushes files to the disk in threads of its own, and closes them, so that
// whoever hands them over goes on working. A flush waits for a commit of the
// file system's journal; one flush at a time waits for each commit alone,
// several in flight share them.
//
// At most MaxThreads flushes run at once, and at most MaxWaiting files wait
// for one: handing over another waits for room.
class FlushPool
{
public:
    static constexpr std::size_t MaxThreads = 4;
    static constexpr std::size_t MaxWaiting = 16;

    FlushPool() = default;
    ~FlushPool();
    FlushPool(const FlushPool &) = delete;
    FlushPool &operator=(const FlushPool &) = delete;

    // Takes fd over: it is flushed (fsync(), whose result is not looked at)
    // and closed. Flushed in the calling thread when no thread can be had.
    void flushAndClose(int fd);

    // Returns when every file handed over so far is flushed and closed.
    void waitForAll();

private:
    void work();
    bool startThread();

    std::mutex m_mutex;
    // Two conditions, so that a change that only the owner waits for does
    // not wake every idle thread, nor new work the owner.
    std::condition_variable m_work; // a file waits, or the pool ends
    std::condition_variable m_idle; // room in the queue, or nothing left to do
    std::deque<int> m_waiting;
    std::size_t m_flushing = 0;
    bool m_ending = false;
    std::vector<std::thread> m_threads;
};

#endif // TRELLIS_FLUSHPOOL_P_H
