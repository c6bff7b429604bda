//
//  W A R N I N G
//  -------------
//
// This file is not part of the Trellis API. It is internal to the library
// and may change or disappear from one version to the next.

#ifndef TRELLIS_JOBPOOL_P_H
#define TRELLIS_JOBPOOL_P_H

#include "ThreadStart_p.h"

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

// Runs jobs on threads of its own, so that whoever hands them over goes on
// working. A thread is started when a job arrives while every thread there
// is busy, up to maxThreads; at most maxWaiting jobs wait for one. The
// destructor waits for every job handed over and not taken back, then ends
// the threads.
template<typename Job>
class JobPool
{
public:
    enum class WhenFull { Wait, Refuse };

    JobPool(std::size_t maxThreads, std::size_t maxWaiting, std::function<void(Job &)> run)
        : m_maxThreads(maxThreads), m_maxWaiting(maxWaiting), m_run(std::move(run))
    { }
    ~JobPool()
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
    JobPool(const JobPool &) = delete;
    JobPool &operator=(const JobPool &) = delete;

    // Takes job over, and true; false, job untouched, when it is the
    // caller's to run: no thread can be had, or maxWaiting jobs wait and
    // whenFull refuses rather than waits for room.
    bool handOver(Job &job, WhenFull whenFull)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        // A thread more only when every one there is busy.
        const bool allBusy = m_running + m_waiting.size() >= m_threads.size();
        if (allBusy && m_threads.size() < m_maxThreads
            && !tryStartThread(m_threads, [this] { work(); }) && m_threads.empty())
            return false;
        if (whenFull == WhenFull::Refuse && m_waiting.size() >= m_maxWaiting)
            return false;
        m_idle.wait(lock, [this] { return m_waiting.size() < m_maxWaiting; });
        m_waiting.push_back(std::move(job));
        lock.unlock();
        m_work.notify_one();
        return true;
    }

    // Takes the job handed over last that no thread has begun, for the
    // caller to run itself, and true; false when none waits. An owner with
    // nothing else to do helps rather than waits.
    bool takeWaiting(Job &job)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (m_waiting.empty())
            return false;
        job = std::move(m_waiting.back());
        m_waiting.pop_back();
        lock.unlock();
        m_idle.notify_all();
        return true;
    }

    // Returns when every job handed over so far has run.
    void waitForAll()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_idle.wait(lock, [this] { return m_waiting.empty() && m_running == 0; });
    }

private:
    void work()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        for (;;) {
            m_work.wait(lock, [this] { return !m_waiting.empty() || m_ending; });
            if (m_waiting.empty())
                return; // ending
            {
                // Ends before the job counts as run, with whatever it holds.
                Job job = std::move(m_waiting.front());
                m_waiting.pop_front();
                ++m_running;
                lock.unlock();
                m_idle.notify_all(); // room for one more
                m_run(job);
            }
            lock.lock();
            --m_running;
            if (m_waiting.empty() && m_running == 0)
                m_idle.notify_all();
        }
    }

    const std::size_t m_maxThreads;
    const std::size_t m_maxWaiting;
    const std::function<void(Job &)> m_run;
    std::mutex m_mutex;
    // Two conditions, so that a change that only the owner waits for does
    // not wake every idle thread, nor new work the owner.
    std::condition_variable m_work; // a job waits, or the pool ends
    std::condition_variable m_idle; // room in the queue, or nothing left to do
    std::deque<Job> m_waiting;
    std::size_t m_running = 0;
    bool m_ending = false;
    std::vector<std::thread> m_threads;
};

#endif // TRELLIS_JOBPOOL_P_H
