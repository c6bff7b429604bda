#ifndef TRELLIS_TLIGHTSEMAPHORE_H
#define TRELLIS_TLIGHTSEMAPHORE_H

#include "CpuRelax.h"

#include <atomic>
#include <cerrno>
#include <semaphore.h>

// A counting semaphore that stays in user space while it is not contended.
//
// The count lives in an atomic; it goes negative by one for every thread that
// sleeps in acquire(), and release() posts the kernel semaphore only for
// those sleepers. acquire() spins briefly before it commits to sleeping,
// because a hand-over between two busy threads is usually a matter of
// nanoseconds while a sleep and a wake-up cost microseconds.
//
// Internal to the library: the queue and the ring buffer use it for their
// slot and byte counts.
class TLightSemaphore
{
public:
    explicit TLightSemaphore(int initialCount = 0) : m_count(initialCount)
    {
        sem_init(&m_sleepers, 0, 0);
    }
    ~TLightSemaphore() { sem_destroy(&m_sleepers); }

    TLightSemaphore(const TLightSemaphore &) = delete;
    TLightSemaphore &operator=(const TLightSemaphore &) = delete;

    // Takes \a n units (n >= 0) if that many are there now; never waits.
    bool tryAcquire(int n = 1)
    {
        int count = m_count.load(std::memory_order_relaxed);
        while (count >= n) {
            if (m_count.compare_exchange_weak(count, count - n, std::memory_order_acquire,
                                              std::memory_order_relaxed))
                return true;
        }
        return false;
    }

    // Takes one unit, waiting as long as it takes.
    void acquire()
    {
        for (int spin = 0; spin < SpinCount; ++spin) {
            if (tryAcquire())
                return;
            cpuRelax();
        }
        if (m_count.fetch_sub(1, std::memory_order_acquire) > 0)
            return;
        while (sem_wait(&m_sleepers) != 0 && errno == EINTR) { }
    }

    // Gives back \a n units (n >= 0), waking as many sleepers as they can serve.
    void release(int n = 1)
    {
        const int before = m_count.fetch_add(n, std::memory_order_release);
        const int sleepers = before < 0 ? -before : 0;
        for (int i = 0; i < sleepers && i < n; ++i)
            sem_post(&m_sleepers);
    }

    // Units that could be taken now; 0 while threads are waiting.
    int available() const
    {
        const int count = m_count.load(std::memory_order_relaxed);
        return count > 0 ? count : 0;
    }

private:
    // About 2 microseconds on current x86 processors: long enough for a
    // busy partner to hand a unit over, short enough not to steal much from
    // it when threads outnumber processors (longer spins measured slower).
    static constexpr int SpinCount = 100;

    std::atomic<int> m_count;
    sem_t m_sleepers;
};

#endif // TRELLIS_TLIGHTSEMAPHORE_H
