#include <Trellis/TThreadedObject.h>
#include <Trellis/ThreadNameProxy.h>

#include <QFile>
#include <QMetaMethod>
#include <QMutex>
#include <QtTest>

#include <atomic>
#include <unistd.h>

// Built twice: as tst_tthreadedobject, without a naming hook, and as
// tst_threadnameproxy, which installs a hook that logs the names it is given
// (its own process, because the hook is process-wide).

// What happened, in order; marked "main:" when it ran in the main thread.
static QMutex logMutex;
static QStringList eventLog;

static void record(const QString &what)
{
    const QMutexLocker locker(&logMutex);
    const bool inMain = QThread::currentThread() == QCoreApplication::instance()->thread();
    eventLog.append(inMain ? QStringLiteral("main:") + what : what);
}

static QStringList takeLog()
{
    const QMutexLocker locker(&logMutex);
    return std::exchange(eventLog, {});
}

// The log of one run of a worker called name that is stopped while its loop
// runs, in which the loop logs inLoop.
static QStringList fullRun(const QString &name, const QStringList &inLoop = {})
{
    const bool hooked = ThreadNameProxy::proxy().load();
    return (hooked ? QStringList { QStringLiteral("hook:") + name } : QStringList())
            + QStringLiteral("AboutToInitialize Initialize Initialized").split(QLatin1Char(' '))
            + inLoop
            + QStringLiteral("main:AboutToStop AboutToFinalize Finalize Finalized")
                      .split(QLatin1Char(' '));
}

// A threaded object that logs its five signals (through direct connections)
// and its hooks, and reads its thread's name from the kernel in Initialize().
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
        connect(
                this, &TThreadedObject::Initialized, this, [this] { m_initialized.release(); },
                Qt::DirectConnection);
    }

    // A check that fails returns early; the thread must not outlive the object,
    // nor log its last AboutToStop().
    ~RecordingWorker() override { disconnect(), Stop(), wait(); }

    // Starts, waits until the loop runs, stops and waits for the end.
    bool runOnce()
    {
        start();
        const bool initialized = m_initialized.tryAcquire(1, 60 * 1000);
        Stop();
        return wait() && initialized;
    }

    QByteArray osName; // the kernel's name of the worker thread in the last run

protected:
    void Initialize() override
    {
        QFile comm(QStringLiteral("/proc/self/task/%1/comm").arg(gettid()));
        osName = comm.open(QIODevice::ReadOnly) ? comm.readAll().chopped(1) : "unreadable";
        record(QStringLiteral("Initialize"));
    }
    void Finalize() override { record(QStringLiteral("Finalize")); }

private:
    QSemaphore m_initialized;
};

class tst_TThreadedObject : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void lifecycle_data();
    void lifecycle();
    void queuedCallsAndStops();
    void stopRightAfterStart();
};

void tst_TThreadedObject::initTestCase()
{
    QCOMPARE(ThreadNameProxy::proxy().load(), nullptr);
#ifdef WITH_NAME_HOOK
    static struct : ThreadNameProxy
    {
        void SetThreadName(const char *name) override
        {
            record(QStringLiteral("hook:") + QString::fromLatin1(name));
        }
    } hook;
    ThreadNameProxy::proxy() = &hook;
#endif
}

void tst_TThreadedObject::lifecycle_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QByteArray>("osName"); // its first 15 bytes, in Latin-1
    QTest::addColumn<int>("runs");
    QTest::newRow("short") << QStringLiteral("disk") << QByteArray("disk") << 1;
    QTest::newRow("15 bytes") << QStringLiteral("abcdefghijklmno") << QByteArray("abcdefghijklmno")
                              << 3;
    QTest::newRow("20 characters")
            << QStringLiteral("Archive-Packer-No-19") << QByteArray("Archive-Packer-") << 1;
    QTest::newRow("empty") << QString() << QByteArray() << 1;
    QTest::newRow("Latin-1") << QStringLiteral("Zähler") << QByteArray("Z\xe4hler") << 1;
    QTest::newRow("beyond Latin-1") << QStringLiteral("Поток") << QByteArray("?????") << 2;
}

// Each run tells the hook the whole name, emits the five signals around the
// hooks in the worker thread but AboutToStop() in the thread that calls
// Stop(), and names its thread anew (a new thread has its creator's name).
void tst_TThreadedObject::lifecycle()
{
    QFETCH(QString, name);
    QFETCH(QByteArray, osName);
    QFETCH(int, runs);
    RecordingWorker worker(name);
    QStringList expected;
    for (int run = 0; run < runs; ++run) {
        QVERIFY(worker.runOnce());
        QCOMPARE(worker.osName, osName);
        expected += fullRun(QString::fromLatin1(name.toLatin1()));
    }
    QCOMPARE(takeLog(), expected);
}

// Calls queued before start(), to the object and to one moved into its
// thread, run in the worker thread once its loop runs; a Stop() before
// start() only signals; wait() returns at once unless the thread runs, and
// refuses to wait in the worker thread.
void tst_TThreadedObject::queuedCallsAndStops()
{
    QObject moved; // destroyed after the worker thread has finished
    RecordingWorker worker(QStringLiteral("queued"));
    worker.MoveToThisThread(&moved);
    worker.MoveToThisThread(nullptr); // ignored
    QVERIFY(worker.wait());
    worker.Stop();
    QSemaphore ran;
    QMetaObject::invokeMethod(
            &worker, [] { record(QStringLiteral("call")); }, Qt::QueuedConnection);
    QMetaObject::invokeMethod(
            &moved, [&] { record(QStringLiteral("moved")), ran.release(); }, Qt::QueuedConnection);
    QCoreApplication::processEvents(); // this thread's loop leaves them alone
    QVERIFY(!worker.isRunning());

    worker.start();
    QVERIFY(worker.isRunning());
    QVERIFY(ran.tryAcquire(1, 60 * 1000));
    QVERIFY(worker.isRunning());
    worker.Stop();
    QVERIFY(worker.wait());
    QVERIFY(!worker.isRunning());
    QVERIFY(worker.wait());
    QCOMPARE(takeLog(),
             QStringList { QStringLiteral("main:AboutToStop") }
                     + fullRun(QStringLiteral("queued"),
                               { QStringLiteral("call"), QStringLiteral("moved") }));

    std::atomic<int> result { -1 };
    connect(
            &worker, &TThreadedObject::Initialized, &worker, [&] { result = worker.wait(); },
            Qt::DirectConnection);
    QTest::ignoreMessage(QtWarningMsg, "QThread::wait: Thread tried to wait on itself");
    QVERIFY(worker.runOnce());
    QCOMPARE(result.load(), 0);
}

// Stop() may reach the worker before, during or after Initialize(); in every
// case the worker finalises and finishes.
void tst_TThreadedObject::stopRightAfterStart()
{
    QStringList expected = fullRun(QStringLiteral("quick stop"));
    expected.removeOne(QStringLiteral("main:AboutToStop"));
    takeLog();
    for (int attempt = 0; attempt < 50; ++attempt) {
        RecordingWorker worker(QStringLiteral("quick stop"));
        worker.start();
        worker.Stop();
        QVERIFY(worker.wait());
        QStringList log = takeLog();
        QCOMPARE(log.removeAll(QStringLiteral("main:AboutToStop")), 1);
        QCOMPARE(log, expected);
    }
}

QTEST_GUILESS_MAIN(tst_TThreadedObject)
#include "tst_tthreadedobject.moc"
