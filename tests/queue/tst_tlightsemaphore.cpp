#include "HangWatch.h"
#include "TLightSemaphore.h"

#include <QFile>
#include <QSemaphore>
#include <QtTest>

#include <atomic>
#include <thread>

#include <unistd.h>

// The queue's semaphore, driven through interleavings that a stress run hits
// only now and then: each thread of a scenario stops at the points of
// acquire() and release() that the scenario names, until the test lets it go
// on. (The queue's own test runs it under load.)

namespace {

enum Point { Announced = 1, AboutToSleep = 2, AboutToWake = 4, WakeUpMissed = 8 };

// One thread of a scenario, called name in the messages. It stops once at
// each point of stopAt and says when it has stopped or finished.
class Actor
{
public:
    Actor(const char *name, int stopAt) : m_name(QLatin1String(name)), m_stopAt(stopAt) { }
    ~Actor()
    {
        m_resume.release(3); // past any stop left after a failed check
        const HangWatch watch(m_name + QStringLiteral(" to finish"));
        m_thread.join();
    }

    template<typename Work>
    void start(Work work)
    {
        m_thread = std::thread([this, work] {
            current = this;
            m_tid = gettid();
            work();
            m_finished = true;
            m_event.release();
        });
    }

    // Waits until the thread stops at a point or finishes; returns the point,
    // or 0 once it has finished.
    int waitForStopOrEnd()
    {
        const HangWatch watch(m_name + QStringLiteral(" to stop or finish"));
        if (!m_finished)
            m_event.acquire();
        return m_finished ? 0 : m_stoppedAt.load();
    }

    void goOn()
    {
        m_stoppedAt = 0;
        m_resume.release();
    }

    bool finished() const { return m_finished; }

    // Waits until the thread, let go on from its last stop, sleeps in the
    // kernel: past its stop, nothing but the semaphore's wait blocks it.
    void waitUntilAsleep() const
    {
        const HangWatch watch(m_name + QStringLiteral(" to sleep in the kernel"));
        while (!asleepInKernel())
            std::this_thread::yield();
    }

    static thread_local Actor *current;

    // The test points of the semaphore, in the actor's thread.
    static void reach(Point point)
    {
        Actor *const self = current;
        if (!self || !(self->m_stopAt & point))
            return;
        self->m_stopAt &= ~point;
        self->m_goingOn = false;
        self->m_stoppedAt = point;
        self->m_event.release();
        self->m_resume.acquire();
        self->m_goingOn = true;
    }

private:
    bool asleepInKernel() const
    {
        QFile stat(QStringLiteral("/proc/self/task/%1/stat").arg(m_tid.load()));
        if (!m_goingOn || m_finished || !stat.open(QIODevice::ReadOnly))
            return false;
        const QByteArray fields = stat.readAll(); // "tid (name) state ..."
        return fields.mid(fields.lastIndexOf(')') + 2, 1) == "S";
    }

    const QString m_name;
    int m_stopAt; // touched by the actor's thread only
    std::atomic<int> m_stoppedAt { 0 };
    std::atomic<bool> m_goingOn { true }, m_finished { false };
    std::atomic<pid_t> m_tid { 0 };
    QSemaphore m_event, m_resume;
    std::thread m_thread;
};

thread_local Actor *Actor::current = nullptr;

struct ScriptedPoints
{
    static void announced() { Actor::reach(Announced); }
    static void aboutToSleep() { Actor::reach(AboutToSleep); }
    static void aboutToWake() { Actor::reach(AboutToWake); }
    static void wakeUpMissed() { Actor::reach(WakeUpMissed); }
};

using Semaphore = TBasicLightSemaphore<ScriptedPoints>;

} // namespace

class tst_TLightSemaphore : public QObject
{
    Q_OBJECT

private slots:

    // A unit given after a thread last looked for one, but before it sleeps,
    // still reaches it: the release finds nobody asleep to wake, and the thread
    // does not sleep through the release.
    void releaseJustBeforeASleepIsNotLost()
    {
        Semaphore units(0);
        Actor sleeper("the sleeper", AboutToSleep), releaser("the releaser", WakeUpMissed);
        sleeper.start([&] { units.acquire(); });
        QCOMPARE(sleeper.waitForStopOrEnd(), int(AboutToSleep));
        releaser.start([&] { units.release(); });
        QCOMPARE(releaser.waitForStopOrEnd(), int(WakeUpMissed));
        sleeper.goOn();
        QCOMPARE(sleeper.waitForStopOrEnd(), 0);
        releaser.goOn();
        QCOMPARE(releaser.waitForStopOrEnd(), 0);
        QCOMPARE(units.available(), 0);
    }

    // The one unit of a release goes to a thread that had already announced
    // itself as a sleeper, while the releaser is between giving it and waking a
    // sleeper; meanwhile another thread goes to sleep for want of a unit. The
    // holder must return, however the kernel hands out the releaser's wake-up:
    // a holder that waits for a wake-up it takes to be its own may see it go to
    // the other sleeper, and then sleeps on its unit for good (with one slot in
    // a queue, no other thread can then move).
    void holderOfAUnitNeverWaitsForAWakeUp()
    {
        Semaphore units(0);
        Actor holder("the holder", Announced | AboutToSleep), releaser("the releaser", AboutToWake),
                sleeper("the sleeper", AboutToSleep);

        holder.start([&] { units.acquire(); });
        QCOMPARE(holder.waitForStopOrEnd(), int(Announced));
        releaser.start([&] { units.release(); });
        QCOMPARE(releaser.waitForStopOrEnd(), int(AboutToWake));
        holder.goOn(); // takes the unit
        const bool holderWaits = holder.waitForStopOrEnd() == AboutToSleep;

        sleeper.start([&] { units.acquire(); });
        QCOMPARE(sleeper.waitForStopOrEnd(), int(AboutToSleep));
        sleeper.goOn();
        sleeper.waitUntilAsleep();
        if (holderWaits) { // first in the kernel's line, so the wake-up goes to the other
            holder.goOn();
            holder.waitUntilAsleep();
        }
        releaser.goOn();
        QVERIFY2(releaser.waitForStopOrEnd() == 0, "the releaser stopped twice");

        {
            const HangWatch watch(QStringLiteral("the holder to return with its unit"),
                                  std::chrono::seconds(10));
            QVERIFY(holder.waitForStopOrEnd() == 0);
        }
        QCOMPARE(units.available(), 0);
        QVERIFY(!sleeper.finished());
        units.release();
        QCOMPARE(sleeper.waitForStopOrEnd(), 0);
        QCOMPARE(units.available(), 0);
    }

    // A release's wake-up misses a thread that is on its way into the kernel,
    // having noted the generation after the release moved it (another thread
    // took the unit meanwhile); the thread then sleeps. A second release that
    // comes while the first still holds its claim on the thread finds nobody to
    // wake, so the first, once it has given its claim back, must wake the thread
    // for the second's unit.
    void missedWakeUpIsMadeGoodForAnotherRelease()
    {
        Semaphore units(0);
        Actor sleeper("the sleeper", Announced | AboutToSleep),
                first("the first releaser", AboutToWake | WakeUpMissed),
                second("the second releaser", 0);

        sleeper.start([&] { units.acquire(); });
        QCOMPARE(sleeper.waitForStopOrEnd(), int(Announced));
        first.start([&] { units.release(); });
        QCOMPARE(first.waitForStopOrEnd(), int(AboutToWake));
        QVERIFY(units.tryAcquire()); // the first unit
        sleeper.goOn();
        QCOMPARE(sleeper.waitForStopOrEnd(), int(AboutToSleep));
        first.goOn();
        QCOMPARE(first.waitForStopOrEnd(), int(WakeUpMissed));
        sleeper.goOn();
        sleeper.waitUntilAsleep();
        second.start([&] { units.release(); });
        QCOMPARE(second.waitForStopOrEnd(), 0);
        first.goOn();
        QCOMPARE(first.waitForStopOrEnd(), 0);
        {
            const HangWatch watch(QStringLiteral("the sleeper to wake for the second unit"),
                                  std::chrono::seconds(10));
            QCOMPARE(sleeper.waitForStopOrEnd(), 0);
        }
        QCOMPARE(units.available(), 0);
    }
};

QTEST_GUILESS_MAIN(tst_TLightSemaphore)
#include "tst_tlightsemaphore.moc"
