#include "HangWatch.h"

#include <Trellis/TThreadedObject.h>
#include <Trellis/ThreadNameProxy.h>

#include <QtTest>

// Built twice: as tst_tthreadedobject, without a naming hook, and as
// tst_threadnameproxy, which installs a hook that logs the names it is given
// (its own process, because the hook is process-wide).

// What happened, in order, each word followed by a space; "main:" marks what
// ran in the main thread. The test reads and clears it only when no worker
// thread runs.
static std::mutex logMutex; // a std::mutex, which ThreadSanitizer sees through
static QString eventLog;

static void record(const QString &what)
{
    const std::lock_guard<std::mutex> locker(logMutex);
    eventLog.append(QLatin1String(QThread::currentThread() == qApp->thread() ? "main:" : ""))
            .append(what + u' ');
}

// A threaded object that logs its five signals (called directly, in the
// emitting thread) and its hooks. Initialize() logs its thread's name as the
// kernel has it, then "Initialize" only if wait() refuses at once to wait on
// its own thread (with a warning that each start() must expect).
#define RECORD(signal)                                                                             \
    connect(this, &TThreadedObject::signal, [] { record(QStringLiteral(#signal)); })

struct RecordingWorker : TThreadedObject
{
    explicit RecordingWorker(const QString &name) : TThreadedObject(name)
    {
        RECORD(AboutToStop), RECORD(AboutToInitialize), RECORD(Initialized);
        RECORD(AboutToFinalize), RECORD(Finalized);
    }
    // A check that fails returns early; the thread must not outlive the object,
    // nor log its last AboutToStop().
    ~RecordingWorker() override
    {
        disconnect(), Stop();
        const HangWatch watch(QStringLiteral("the worker thread to finish after Stop()"));
        wait();
    }
    void Initialize() override
    {
        QFile comm(QStringLiteral("/proc/thread-self/comm"));
        record(QString::fromLatin1(comm.open(QIODevice::ReadOnly) ? comm.readAll().trimmed()
                                                                  : "?"));
        record(wait() ? QStringLiteral("waited") : QStringLiteral("Initialize"));
    }
    void Finalize() override { record(QStringLiteral("Finalize")); }
};

#ifdef WITH_NAME_HOOK
// Logs each name it is given as a word; installed before any threaded object starts.
static struct NameLog : ThreadNameProxy
{
    NameLog() { proxy() = this; }
    void SetThreadName(const char *name) override { record(QLatin1String(name)); }
} hook;
#endif

class tst_TThreadedObject : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void lifecycle_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QByteArray>("osName"); // the kernel's: the first 15 bytes in Latin-1
        QTest::newRow("20 characters, 15 kept")
                << QStringLiteral("Archive-Packer-No-19") << QByteArray("Archive-Packer-");
        QTest::newRow("empty") << QString() << QByteArray();
        // Characters beyond Latin-1 become '?'.
        QTest::newRow("non-ASCII") << QStringLiteral("Zä-Поток") << QByteArray("Z\xe4-?????");
    }

    // Before the first start(), wait() returns at once, Stop() only signals, and
    // a call queued to the worker waits for its loop. Each run then tells the hook
    // the whole name (in Latin-1), names the thread anew (a new thread has its
    // creator's name), and emits the five signals around the hooks in the worker
    // thread but AboutToStop() in the thread that calls Stop(). Run 0 is stopped
    // once its loop ran the queued call; the others are stopped at once, which
    // may reach the worker before, during or after Initialize(), and still
    // finalises and finishes the thread. (Objects moved into the worker's thread
    // with MoveToThisThread() are in the copy task test, which runs a task there.)
    void lifecycle()
    {
        QFETCH(QString, name);
        QFETCH(QByteArray, osName);
        const QString stop = QStringLiteral("main:AboutToStop ");
        QString expected
                = QStringLiteral("AboutToInitialize %1 Initialize Initialized %2AboutToFinalize "
                                 "Finalize Finalized ")
                          .arg(QString::fromLatin1(osName));
        if (ThreadNameProxy::proxy().load()) // the hook is told first
            expected.prepend(QString::fromLatin1(name.toLatin1() + ' '));
        QSemaphore ran; // outlives the worker's thread
        RecordingWorker worker(name);
        worker.MoveToThisThread(nullptr); // ignored
        worker.Stop(); // only signals
        QVERIFY(worker.wait() && std::exchange(eventLog, {}) == stop);
        QMetaObject::invokeMethod(
                &worker, [&] { record(QStringLiteral("call")), ran.release(); },
                Qt::QueuedConnection);
        for (int run = 0; run < 13; ++run) {
            QTest::ignoreMessage(QtWarningMsg, "QThread::wait: Thread tried to wait on itself");
            worker.start();
            QVERIFY(worker.isRunning() && (run > 0 || ran.tryAcquire(1, 60 * 1000)));
            worker.Stop();
            const HangWatch watch(QStringLiteral("the worker thread of run %1").arg(run));
            QVERIFY(worker.wait() && !worker.isRunning() && worker.wait());
            QCOMPARE(eventLog.count(stop), 1); // at any place in the runs stopped at once
            QCOMPARE(std::exchange(eventLog, {}).remove(stop),
                     expected.arg(run ? QString() : QStringLiteral("call ")));
        }
    }
};

QTEST_GUILESS_MAIN(tst_TThreadedObject)
#include "tst_tthreadedobject.moc"
