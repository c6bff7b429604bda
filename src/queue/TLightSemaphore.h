#ifndef TRELLIS_TLIGHTSEMAPHORE_H
#define TRELLIS_TLIGHTSEMAPHORE_H

#include "CacheLine.h"
#include "CpuRelax.h"

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <semaphore.h>

// A counting semaphore that stays in user space while it is not contended.
//
// The count is kept as two running totals, units given and units taken, on
// cache lines of their own, and the takers remember the givers' total as they
// last read it. A taker then reads the givers' line only when the total it
// remembers does not cover what it wants, and a giver writes only its own
// line: a producer and a consumer that keep ahead of each other exchange a
// cache line once per batch of units, not twice per unit as they would
// around one shared count. The totals are 64 bits wide, so they do not wrap
// in the life of a process; their difference is the count, which never
// exceeds INT_MAX.
//
// acquire() spins briefly before it commits to sleeping, because a hand-over
// between two busy threads is usually a matter of nanoseconds while a sleep
// and a wake-up cost microseconds. A sleeper announces itself in a count of
// sleepers, which release() reads after adding its units: one of the two
// always sees the other's change, so no wake-up is lost. release() wakes at
// most one sleeper per unit and claims each one it wakes, so the kernel
// semaphore counts exactly the wake-ups still to be collected.
//
// Internal to the library: the queue and the ring buffer use it for their
// slot and byte counts.

// The points in acquire() and release() where a test can stop a thread to
// force an interleaving. The library's semaphore has none: these compile to
// nothing.
struct TLightSemaphoreNoTestPoints
{
    static void announced() { }    // acquire(): counted as a sleeper, units not yet looked at
    static void aboutToSleep() { } // acquire(): about to wait in the kernel
    static void aboutToWake() { }  // release(): units given, no sleeper woken yet
};

template<typename TestPoints>
class TBasicLightSemaphore
{
    using Total = std::uint64_t;

public:
    explicit TBasicLightSemaphore(int initialCount = 0)
        : m_givenSeen(Total(initialCount)), m_given(Total(initialCount))
    {
        sem_init(&m_wakeups, 0, 0);
    }
    ~TBasicLightSemaphore() { sem_destroy(&m_wakeups); }

    TBasicLightSemaphore(const TBasicLightSemaphore &) = delete;
    TBasicLightSemaphore &operator=(const TBasicLightSemaphore &) = delete;

    // Takes \a n units (n >= 0) if that many are there now; never waits.
    bool tryAcquire(int n = 1)
    {
        Total taken = m_taken.load();
        while (covers(taken, n)) {
            if (m_taken.compare_exchange_weak(taken, taken + Total(n)))
                return true;
        }
        return false;
    }

    // tryAcquire() for a semaphore whose takers are serialized by a lock of
    // their own, such as the ring buffer's writer lock: the new total is
    // stored, without the locked instruction of a compare-and-swap.
    bool tryAcquireAsSoleTaker(int n)
    {
        const Total taken = m_taken.load(std::memory_order_relaxed);
        if (!covers(taken, n))
            return false;
        // Released, so that available() in another thread never pairs this
        // total with an older given total than the one that covered it.
        m_taken.store(taken + Total(n), std::memory_order_release);
        return true;
    }

    // Takes one unit, waiting as long as it takes.
    void acquire()
    {
        // Spinning looks at the count only now and then: every look pulls the
        // givers' line away from them, while a giver left alone for a moment
        // hands over a whole batch.
        for (int look = 0; look < SpinLooks; ++look) {
            if (tryAcquire())
                return;
            for (int pause = 0; pause < PausesBetweenLooks; ++pause)
                cpuRelax();
        }
        for (;;) {
            m_sleepers.fetch_add(1);
            TestPoints::announced();
            if (tryAcquire()) {
                // A releaser that has claimed this thread meanwhile has
                // posted, or is about to: collect that wake-up.
                if (!claimSleeper()) {
                    TestPoints::aboutToSleep();
                    collectWakeUp();
                }
                return;
            }
            TestPoints::aboutToSleep();
            collectWakeUp();
            if (tryAcquire())
                return;
        }
    }

    // Gives back \a n units (n >= 0), waking as many sleepers as they can serve.
    void release(int n = 1)
    {
        m_given.fetch_add(Total(n));
        for (int woken = 0; woken < n && claimSleeper(); ++woken) {
            TestPoints::aboutToWake();
            sem_post(&m_wakeups);
        }
    }

    // release() for a semaphore with one giving thread at a time and nobody
    // in acquire(), such as the ring buffer's byte counts. The new total is
    // published with a plain store, which the processor retires at once; the
    // locked addition of release() would stall it, on every call, until the
    // givers' line came back from a taker that had just read it.
    void releaseAsSoleGiver(int n)
    {
        m_given.store(m_given.load(std::memory_order_relaxed) + Total(n),
                      std::memory_order_release);
    }

    // Units that could be taken now.
    int available() const
    {
        // Taken never overtakes given, so reading taken first keeps the
        // difference from going negative.
        const Total taken = m_taken.load();
        return int(m_given.load() - taken);
    }

private:
    // Whether n units are given beyond the total \a taken. Reads the givers'
    // line only when the total the takers saw last falls short.
    bool covers(Total taken, int n)
    {
        if (std::int64_t(m_givenSeen.load(std::memory_order_acquire) - taken) >= n)
            return true;
        const Total given = m_given.load();
        m_givenSeen.store(given, std::memory_order_release);
        return std::int64_t(given - taken) >= n;
    }

    // Counts one announced sleeper as woken, if there is one.
    bool claimSleeper()
    {
        int sleepers = m_sleepers.load();
        while (sleepers > 0) {
            if (m_sleepers.compare_exchange_weak(sleepers, sleepers - 1))
                return true;
        }
        return false;
    }

    void collectWakeUp()
    {
        while (sem_wait(&m_wakeups) != 0 && errno == EINTR) { }
    }

    // About 5 microseconds of spinning in all on current x86 processors,
    // looking every 1.2: long enough for a busy partner to hand units over,
    // short enough not to steal much from it when threads outnumber
    // processors. Looking more often measured slower.
    static constexpr int SpinLooks = 4;
    static constexpr int PausesBetweenLooks = 64;

    // Written by takers only. m_givenSeen is m_given as a taker last read it.
    alignas(CacheLine) std::atomic<Total> m_taken { 0 };
    std::atomic<Total> m_givenSeen;
    // Written by givers only.
    alignas(CacheLine) std::atomic<Total> m_given;
    // Written only on the way to sleep and on the way back.
    alignas(CacheLine) std::atomic<int> m_sleepers { 0 };
    sem_t m_wakeups;
};

using TLightSemaphore = TBasicLightSemaphore<TLightSemaphoreNoTestPoints>;

#endif // TRELLIS_TLIGHTSEMAPHORE_H
