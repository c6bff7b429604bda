#ifndef TRELLIS_TLIGHTSEMAPHORE_H
#define TRELLIS_TLIGHTSEMAPHORE_H

#include "CacheLine.h"
#include "CpuRelax.h"

#include <atomic>
#include <cstdint>
#include <thread>

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

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
// sleepers, notes the wake-up generation, looks at the units once more and
// then sleeps on the generation with a futex, which the kernel lets it do
// only while the generation is still the one it noted. release() adds its
// units, then reads the count of sleepers, and if there are any it moves the
// generation on, which turns back every sleeper still on its way into the
// kernel, and wakes as many of those already there as it gave units. One of
// the two always sees the other's change, so no wake-up is lost. A wake-up
// is no token that some thread must collect: a thread that finds a unit
// never waits for anything, and a woken thread is one more thread that looks
// at the units, takes one or sleeps again.
//
// Waking costs a system call, so release() makes one only for a thread that
// is in the kernel, and claims it from a count of such threads first: two
// releases at the same time then do not both wake the one sleeper, nor does
// a release wake anyone for a thread that is already awake.
//
// Internal to the library: the queue and the ring buffer use it for their
// slot and byte counts.

// The points in acquire() and release() where a test can stop a thread to
// force an interleaving. The library's semaphore has none: these compile to
// nothing.
struct TLightSemaphoreNoTestPoints
{
    static void announced() { } // acquire(): counted as a sleeper, units not yet looked at
    static void aboutToSleep() { } // acquire(): about to wait in the kernel
    static void aboutToWake() { } // release(): units given, generation moved, none woken yet
    static void wakeUpMissed() { } // release(): a claimed wake-up found nobody asleep
};

template<typename TestPoints>
class TBasicLightSemaphore
{
    using Total = std::uint64_t;
    using Generation = std::uint32_t;

public:
    explicit TBasicLightSemaphore(int initialCount = 0)
        : m_givenSeen(Total(initialCount)), m_given(Total(initialCount))
    { }

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
            const Generation generation = m_generation.load();
            if (tryAcquire()) {
                m_sleepers.fetch_sub(1);
                return;
            }
            m_inKernel.fetch_add(1);
            TestPoints::aboutToSleep();
            // A release that wakes this thread has counted it out already.
            if (!sleepWhileGenerationIs(generation)) {
                m_inKernel.fetch_sub(1);
                m_sleepers.fetch_sub(1);
            }
        }
    }

    // Gives back \a n units (n >= 0), waking as many sleepers as they can serve.
    void release(int n = 1)
    {
        m_given.fetch_add(Total(n));
        if (n > 0 && m_sleepers.load() > 0) {
            m_generation.fetch_add(1);
            TestPoints::aboutToWake();
            wakeSleepers(n);
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

    // Wakes up to \a n threads asleep in the kernel, one at a time. Each
    // wake-up is claimed from the count of threads in the kernel before it is
    // made, so that releases at the same time do not wake one sleeper twice
    // over, and a woken thread stays counted out.
    void wakeSleepers(int n)
    {
        while (n > 0 && claimThreadInKernel()) {
            if (futexWake(1) == 1) {
                m_sleepers.fetch_sub(1);
                --n;
                continue;
            }
            // The claimed thread was not asleep yet: it is on its way in, to
            // sleep on a generation it noted after this release moved it, or
            // on its way back. Give its count back. A release that found the
            // count used up by this claim meanwhile woke nobody; so while
            // units are left, try again.
            TestPoints::wakeUpMissed();
            m_inKernel.fetch_add(1);
            if (available() == 0)
                return;
            std::this_thread::yield(); // let the thread on its way get there
        }
    }

    bool claimThreadInKernel()
    {
        int count = m_inKernel.load();
        while (count > 0) {
            if (m_inKernel.compare_exchange_weak(count, count - 1))
                return true;
        }
        return false;
    }

    // Sleeps while the generation is still \a noted. Returns true when a
    // release woke the thread, false when the generation had moved on or a
    // signal came; the kernel returns for no other reason. (A generation
    // would have to come round again, after 2^32 wake-ups, between noting it
    // and this call for the kernel to take a moved one for the noted one.)
    bool sleepWhileGenerationIs(Generation noted)
    {
        return syscall(SYS_futex, futexWord(), FUTEX_WAIT_PRIVATE, noted, nullptr, nullptr, 0) == 0;
    }

    // Returns how many threads it woke.
    int futexWake(int count)
    {
        return int(syscall(SYS_futex, futexWord(), FUTEX_WAKE_PRIVATE, count, nullptr, nullptr, 0));
    }

    Generation *futexWord() { return reinterpret_cast<Generation *>(&m_generation); }

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
    // Written only on the way to sleep and back, and by givers that wake.
    alignas(CacheLine) std::atomic<int> m_sleepers { 0 };
    // The sleepers past their last look at the units, on their way into
    // the kernel or asleep there, less those claimed by a release.
    std::atomic<int> m_inKernel { 0 };
    std::atomic<Generation> m_generation { 0 }; // the futex word
    static_assert(sizeof(std::atomic<Generation>) == sizeof(Generation)
                          && std::atomic<Generation>::is_always_lock_free,
                  "the kernel waits on the atomic's own bytes");
};

using TLightSemaphore = TBasicLightSemaphore<TLightSemaphoreNoTestPoints>;

#endif // TRELLIS_TLIGHTSEMAPHORE_H
