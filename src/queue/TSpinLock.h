#ifndef TRELLIS_TSPINLOCK_H
#define TRELLIS_TSPINLOCK_H

#include "CpuRelax.h"

#include <atomic>
#include <thread>

// A non-recursive lock for critical sections of a few dozen nanoseconds,
// such as copying one message into a queue slot.
//
// lock() spins briefly and then yields the processor until the lock is free:
// a sleeping mutex costs a system call on each side whenever two threads
// meet, which is far longer than the section it guards. Yielding (rather than
// spinning on) keeps a preempted holder from being starved by its waiters when
// there are more threads than processors. Meets BasicLockable, so
// std::lock_guard works with it.
//
// Internal to the library.
class TSpinLock
{
public:
    TSpinLock() = default;
    TSpinLock(const TSpinLock &) = delete;
    TSpinLock &operator=(const TSpinLock &) = delete;

    void lock()
    {
        int spins = 0;
        while (m_locked.exchange(true, std::memory_order_acquire)) {
            // Wait on a plain load: the cache line stays shared until the
            // holder writes it.
            while (m_locked.load(std::memory_order_relaxed)) {
                if (spins < SpinCount) {
                    ++spins;
                    cpuRelax();
                } else {
                    std::this_thread::yield();
                }
            }
        }
    }

    void unlock() { m_locked.store(false, std::memory_order_release); }

private:
    // About 2 microseconds on current x86 processors.
    static constexpr int SpinCount = 100;

    std::atomic<bool> m_locked { false };
};

#endif // TRELLIS_TSPINLOCK_H
