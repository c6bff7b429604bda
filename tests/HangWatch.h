#ifndef TRELLIS_HANGWATCH_H
#define TRELLIS_HANGWATCH_H

#include <QString>
#include <QtGlobal>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

// How long a test waits for another thread or process before it calls the
// wait a hang: far longer than any wait takes in a sanitizer or emulator
// build on a loaded machine, and well inside CTest's limit of ten minutes, so
// that the log names what hung rather than CTest's timeout.
constexpr std::chrono::seconds HangBound { 120 };
// The bound in milliseconds, as Qt's waits take it.
constexpr int HangBoundMsecs = int(std::chrono::milliseconds(HangBound).count());

// Guards one wait on another thread: if the watch is still alive after the
// bound, it ends the test program with a message that says what was awaited
// (QtTest prefixes it with the test function and row). A hung thread can be
// neither stopped nor joined, so the program cannot go on to the next test.
//
//     {
//         const HangWatch watch([&] { return QStringLiteral("consumer %1 ...").arg(...); });
//         consumer.join();
//     }
//
// The description is built only on a hang, in the watch's own thread, so it
// may report counters that the awaited threads keep in atomics.
class HangWatch
{
public:
    explicit HangWatch(std::function<QString()> describe, std::chrono::seconds bound = HangBound)
        : m_watcher([this, describe = std::move(describe), bound] {
              std::unique_lock<std::mutex> locker(m_mutex);
              if (!m_ended.wait_for(locker, bound, [this] { return m_done; }))
                  qFatal("Still waiting after %lld s for %s", static_cast<long long>(bound.count()),
                         qPrintable(describe()));
          })
    { }
    explicit HangWatch(const QString &what) : HangWatch([what] { return what; }) { }

    ~HangWatch()
    {
        std::unique_lock<std::mutex> locker(m_mutex);
        m_done = true;
        m_ended.notify_one();
        locker.unlock();
        m_watcher.join();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_ended;
    bool m_done = false; // guarded by m_mutex
    std::thread m_watcher; // last: it starts with the fields above ready (and makes no copies)
};

#endif // TRELLIS_HANGWATCH_H
