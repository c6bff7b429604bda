#include "HangWatch.h"
#include "TLightSemaphore.h"

#include <QtTest>

#include <atomic>

#include <unistd.h>

// The queue's semaphore, driven through interleavings that a stress run hits
// only now and then: each thread of a scenario stops at the points of
// acquire() and release() that the scenario names, until the test lets it go
// on. (The queue's own test runs it under load.)

namespace {

enum Point { Finished = 0, Announced = 1, AboutToSleep = 2, AboutToWake = 4, WakeUpMissed = 8 };

// One thread of a scenario, called name in the messages, that runs work. It
// stops once at each point of stopAt and says when it has stopped or finished.
struct Actor
{
    Actor(const char *name, int stopAt, std::function<void()> work)
        : name(QLatin1String(name)), stopAt(stopAt), thread([this, work] {
              current = this, tid = gettid();
              work();
              finished = true, event.release();
          })
    { }
    ~Actor()
    {
        resume.release(3); // past any stop left after a failed check
        const HangWatch watch(name + QStringLiteral(" to finish"));
        thread.join();
    }

    // Waits until the thread stops or finishes; returns where (Finished).
    Point next()
    {
        const HangWatch watch(name + QStringLiteral(" to stop or finish"));
        event.acquire(); // released at each stop and at the end
        return finished ? Finished : Point(stoppedAt.load());
    }

    // Lets the thread go on from its stop; returns where it stops next.
    Point goOn() { return resume.release(), next(); }

    // Lets the thread go on and waits until it sleeps in the kernel: once it
    // has taken its go-ahead, nothing but the semaphore's wait blocks it.
    void goOnToSleep()
    {
        resume.release();
        const HangWatch watch(name + QStringLiteral(" to sleep in the kernel"));
        QFile stat(QStringLiteral("/proc/self/task/%1/stat").arg(tid)); // "tid (name) state ..."
        while (resume.available()
               || !(stat.open(QIODevice::ReadOnly) && stat.readAll().contains(") S ")))
            stat.close(), std::this_thread::yield();
    }

    // The test points of the semaphore, in the actor's thread.
    static void reach(Point point)
    {
        if (Actor *const self = current; self && self->stopAt & point)
            self->stopAt &= ~point, self->stoppedAt = point, self->event.release(),
                                    self->resume.acquire();
    }

    static void announced() { reach(Announced); }
    static void aboutToSleep() { reach(AboutToSleep); }
    static void aboutToWake() { reach(AboutToWake); }
    static void wakeUpMissed() { reach(WakeUpMissed); }

    static inline thread_local Actor *current = nullptr;
    const QString name;
    int stopAt; // touched by the actor's thread only
    std::atomic<int> stoppedAt { 0 }, tid { 0 };
    std::atomic<bool> finished { false };
    QSemaphore event, resume;
    std::thread thread; // last: it starts with the fields above ready
};

using Semaphore = TBasicLightSemaphore<Actor>; // Actor gives its test points

} // namespace

class tst_TLightSemaphore : public QObject
{
    Q_OBJECT

private slots:
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
        Actor holder("the holder", Announced | AboutToSleep, [&] { units.acquire(); });
        QCOMPARE(holder.next(), Announced);
        Actor releaser("the releaser", AboutToWake, [&] { units.release(); });
        QCOMPARE(releaser.next(), AboutToWake);
        const bool holderWaits = holder.goOn() == AboutToSleep; // with the unit taken
        Actor sleeper("the sleeper", AboutToSleep, [&] { units.acquire(); });
        QCOMPARE(sleeper.next(), AboutToSleep);
        sleeper.goOnToSleep();
        if (holderWaits) // first in the kernel's line, so the wake-up goes to the other
            holder.goOnToSleep();
        QVERIFY2(releaser.goOn() == Finished, "the releaser stopped twice");
        QVERIFY(!holderWaits || holder.next() == Finished); // with its unit
        QVERIFY(units.available() == 0 && !sleeper.finished);
        units.release();
        QVERIFY(sleeper.next() == Finished && units.available() == 0);
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
        Actor sleeper("the sleeper", Announced | AboutToSleep, [&] { units.acquire(); });
        QCOMPARE(sleeper.next(), Announced);
        Actor first("the first releaser", AboutToWake | WakeUpMissed, [&] { units.release(); });
        QCOMPARE(first.next(), AboutToWake);
        QVERIFY(units.tryAcquire()); // the first unit
        QCOMPARE(sleeper.goOn(), AboutToSleep);
        QCOMPARE(first.goOn(), WakeUpMissed);
        sleeper.goOnToSleep();
        Actor second("the second releaser", 0, [&] { units.release(); });
        QVERIFY(second.next() == Finished && first.goOn() == Finished);
        QCOMPARE(sleeper.next(), Finished); // woken for the second unit
        QCOMPARE(units.available(), 0);
    }
};

QTEST_GUILESS_MAIN(tst_TLightSemaphore)
#include "tst_tlightsemaphore.moc"
