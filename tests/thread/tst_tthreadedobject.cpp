#include "HangWatch.h"

#include <Trellis/TThreadedObject.h>
#include <Trellis/ThreadNameProxy.h>

#include <QFile>
#include <QMetaMethod>
#include <QtTest>

#include <mutex>

#include <unistd.h>

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
    const bool inMain = QThread::currentThread() == QCoreApplication::instance()->thread();
    eventLog += (inMain ? QStringLiteral("main:") : QString()) + what + QLatin1Char(' ');
}

// A threaded object that logs its five signals (through direct connections)
// and its hooks. Initialize() logs its thread's name as the kernel has it, then
// "Initialize" only if wait() refuses at once to wait on its own thread (with
// a warning that each start() must expect).
class RecordingWorker : public TThreadedObject
{
public:
    explicit RecordingWorker(const QString &name) : TThreadedObject(name)
    {
        for (const auto signal :
             { &TThreadedObject::AboutToStop, &TThreadedObject::AboutToInitialize,
               &TThreadedObject::Initialized, &TThreadedObject::AboutToFinalize,
               &TThreadedObject::Finalized }) {
            const QString what = QString::fromLatin1(QMetaMethod::fromSignal(signal).name());
            connect(
                    this, signal, this, [what] { record(what); }, Qt::DirectConnection);
        }
    }

    // A check that fails returns early; the thread must not outlive the object,
    // nor log its last AboutToStop().
    ~RecordingWorker() override
    {
        disconnect(), Stop();
        const HangWatch watch(QStringLiteral("the worker thread to finish after Stop()"));
        wait();
    }

protected:
    void Initialize() override
    {
        QFile comm(QStringLiteral("/proc/self/task/%1/comm").arg(gettid()));
        record(comm.open(QIODevice::ReadOnly) ? QString::fromLatin1(comm.readAll().trimmed())
                                              : QStringLiteral("unreadable"));
        record(wait() ? QStringLiteral("waited") : QStringLiteral("Initialize"));
    }
    void Finalize() override { record(QStringLiteral("Finalize")); }
};

class tst_TThreadedObject : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void lifecycle_data();
    void lifecycle();
};

void tst_TThreadedObject::initTestCase()
{
    QCOMPARE(ThreadNameProxy::proxy().load(), nullptr);
#ifdef WITH_NAME_HOOK
    static struct : ThreadNameProxy
    {
        void SetThreadName(const char *name) override { record(QLatin1String(name)); }
    } hook; // logs each name as a word
    ThreadNameProxy::proxy() = &hook;
#endif
}

void tst_TThreadedObject::lifecycle_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QByteArray>("osName"); // the kernel's: the first 15 bytes in Latin-1
    QTest::newRow("20 characters, 15 kept")
            << QStringLiteral("Archive-Packer-No-19") << QByteArray("Archive-Packer-");
    QTest::newRow("empty") << QString() << QByteArray();
    QTest::newRow("Latin-1") << QStringLiteral("Zähler") << QByteArray("Z\xe4hler");
    QTest::newRow("beyond Latin-1") << QStringLiteral("Поток") << QByteArray("?????");
}

// Before the first start(), wait() returns at once, Stop() only signals, and
// a call queued to the worker waits for its loop. Each run then tells the hook
// the whole name, names the thread anew (a new thread has its creator's name),
// and emits the five signals around the hooks in the worker thread but
// AboutToStop() in the thread that calls Stop(). Run 0 is stopped once its
// loop ran the queued call; the others are stopped at once, which may reach
// the worker before, during or after Initialize(), and still finalises and
// finishes the thread. (Objects moved into the worker's thread with
// MoveToThisThread() are in the copy task test, which runs a task there.)
void tst_TThreadedObject::lifecycle()
{
    QFETCH(QString, name);
    QFETCH(QByteArray, osName);
    const QString hook = ThreadNameProxy::proxy().load()
            ? QString::fromLatin1(name.toLatin1() + ' ')
            : QString();
    const QString stop = QStringLiteral("main:AboutToStop ");
    QSemaphore ran; // outlives the worker's thread
    RecordingWorker worker(name);
    worker.MoveToThisThread(nullptr); // ignored
    QVERIFY(worker.wait());
    worker.Stop();
    QCOMPARE(std::exchange(eventLog, {}), stop);
    QMetaObject::invokeMethod(
            &worker, [&] { record(QStringLiteral("call")), ran.release(); }, Qt::QueuedConnection);
    for (int run = 0; run < 13; ++run) {
        QTest::ignoreMessage(QtWarningMsg, "QThread::wait: Thread tried to wait on itself");
        worker.start();
        QVERIFY(worker.isRunning() && (run > 0 || ran.tryAcquire(1, 60 * 1000)));
        worker.Stop();
        {
            const HangWatch watch(QStringLiteral("the worker thread of run %1 to finish").arg(run));
            QVERIFY(worker.wait() && !worker.isRunning() && worker.wait());
        }
        QString log = std::exchange(eventLog, {});
        QCOMPARE(log.count(stop), 1); // at any place in the runs stopped at once
        QCOMPARE(log.remove(stop),
                 QStringLiteral("%1AboutToInitialize %2 Initialize Initialized %3AboutToFinalize "
                                "Finalize Finalized ")
                         .arg(hook, QString::fromLatin1(osName),
                              run == 0 ? QStringLiteral("call ") : QString()));
    }
}

QTEST_GUILESS_MAIN(tst_TThreadedObject)
#include "tst_tthreadedobject.moc"
