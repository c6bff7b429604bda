#include "RecordingWorker.h"

#include <QtTest>

#include <atomic>

// No naming hook is installed in this program: everything here also shows
// that threaded objects work without one.
class tst_TThreadedObject : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void lifecycle_data();
    void lifecycle();
    void queuedCallBeforeStart();
    void runningStates();
    void stopBeforeStart();
    void stopRightAfterStart();
    void waitFromWorkerThread();
    void moveToThisThread();
    void osThreadName_data();
    void osThreadName();
};

void tst_TThreadedObject::lifecycle_data()
{
    QTest::addColumn<int>("runs");
    QTest::newRow("once") << 1;
    QTest::newRow("restarted twice") << 3;
}

void tst_TThreadedObject::lifecycle()
{
    QFETCH(int, runs);
    RecordingWorker worker(QStringLiteral("lifecycle"));
    QThread *const workerThread = worker.thread();
    QThread *const here = QThread::currentThread();
    QVERIFY(workerThread != here);

    QStringList expectedEvents;
    QList<QThread *> expectedThreads;
    for (int run = 0; run < runs; ++run) {
        QVERIFY(worker.runOnce());
        // Each run names its thread anew: it starts with its creator's name.
        QCOMPARE(worker.osName(), QByteArray("lifecycle"));
        expectedEvents += RecordingWorker::fullRun();
        expectedThreads += { workerThread, workerThread, workerThread, here,
                             workerThread, workerThread, workerThread };
    }
    QCOMPARE(worker.log.events(), expectedEvents);
    QCOMPARE(worker.log.threads(), expectedThreads);
}

void tst_TThreadedObject::queuedCallBeforeStart()
{
    RecordingWorker worker(QStringLiteral("queued"));
    QVERIFY(QMetaObject::invokeMethod(&worker, "Ping", Qt::QueuedConnection));
    // The call belongs to the worker thread; this thread's loop leaves it alone.
    QCoreApplication::processEvents();
    QVERIFY(worker.log.events().isEmpty());

    worker.start();
    QTRY_VERIFY(worker.log.events().contains(QStringLiteral("Ping")));
    worker.Stop();
    QVERIFY(worker.wait());

    QStringList expected = RecordingWorker::fullRun();
    expected.insert(expected.indexOf(QStringLiteral("AboutToStop")), QStringLiteral("Ping"));
    QCOMPARE(worker.log.events(), expected);
    QCOMPARE(worker.log.threads().at(expected.indexOf(QStringLiteral("Ping"))), worker.thread());
}

void tst_TThreadedObject::runningStates()
{
    RecordingWorker worker(QStringLiteral("states"));
    QVERIFY(!worker.isRunning());
    QVERIFY(worker.wait()); // never started: returns at once

    worker.start();
    QVERIFY(worker.isRunning());
    QVERIFY(worker.waitUntilInitialized());
    QVERIFY(worker.isRunning());

    worker.Stop();
    QVERIFY(worker.wait());
    QVERIFY(!worker.isRunning());
    QVERIFY(worker.wait()); // finished: returns at once
}

void tst_TThreadedObject::stopBeforeStart()
{
    RecordingWorker worker(QStringLiteral("early stop"));
    worker.Stop();
    QCOMPARE(worker.log.events(), QStringList { QStringLiteral("AboutToStop") });
    QCOMPARE(worker.log.threads(), QList<QThread *> { QThread::currentThread() });
    QVERIFY(!worker.isRunning());

    // The early stop does not linger: the next start runs its event loop.
    worker.start();
    QVERIFY(worker.waitUntilInitialized());
    QVERIFY(QMetaObject::invokeMethod(&worker, "Ping", Qt::QueuedConnection));
    QTRY_VERIFY(worker.log.events().contains(QStringLiteral("Ping")));
    worker.Stop();
    QVERIFY(worker.wait());
    QStringList expected = RecordingWorker::fullRun();
    expected.insert(expected.indexOf(QStringLiteral("AboutToStop")), QStringLiteral("Ping"));
    expected.prepend(QStringLiteral("AboutToStop"));
    QCOMPARE(worker.log.events(), expected);
}

void tst_TThreadedObject::stopRightAfterStart()
{
    // Stop() may reach the worker before, during or after Initialize(); in
    // every case the worker finalises and finishes.
    for (int attempt = 0; attempt < 50; ++attempt) {
        RecordingWorker worker(QStringLiteral("quick stop"));
        worker.start();
        worker.Stop();
        QVERIFY(worker.wait());
        QStringList events = worker.log.events();
        QCOMPARE(events.removeAll(QStringLiteral("AboutToStop")), 1);
        QStringList expected = RecordingWorker::fullRun();
        expected.removeAll(QStringLiteral("AboutToStop"));
        QCOMPARE(events, expected);
    }
}

void tst_TThreadedObject::waitFromWorkerThread()
{
    RecordingWorker worker(QStringLiteral("self wait"));
    std::atomic<int> result { -1 };
    connect(
            &worker, &TThreadedObject::Initialized, &worker, [&] { result = worker.wait(); },
            Qt::DirectConnection);
    QTest::ignoreMessage(QtWarningMsg, "QThread::wait: Thread tried to wait on itself");
    QVERIFY(worker.runOnce());
    QCOMPARE(result.load(), 0);
}

void tst_TThreadedObject::moveToThisThread()
{
    RecordingWorker worker(QStringLiteral("mover"));
    worker.MoveToThisThread(nullptr); // ignored

    QObject parentless;
    worker.MoveToThisThread(&parentless);
    QCOMPARE(parentless.thread(), worker.thread());

    QObject parent;
    QObject *const child = new QObject(&parent);
    QTest::ignoreMessage(QtWarningMsg, "QObject::moveToThread: Cannot move objects with a parent");
    worker.MoveToThisThread(child);
    QCOMPARE(child->thread(), QThread::currentThread());

    std::atomic<QThread *> ranIn { nullptr };
    QMetaObject::invokeMethod(
            &parentless, [&] { ranIn = QThread::currentThread(); }, Qt::QueuedConnection);
    worker.start();
    QTRY_COMPARE(ranIn.load(), worker.thread());
    worker.Stop();
    QVERIFY(worker.wait());
}

void tst_TThreadedObject::osThreadName_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QByteArray>("osName");
    QTest::newRow("empty") << QString() << QByteArray();
    QTest::newRow("short") << QStringLiteral("disk") << QByteArray("disk");
    QTest::newRow("15 bytes") << QStringLiteral("abcdefghijklmno") << QByteArray("abcdefghijklmno");
    QTest::newRow("16 bytes") << QStringLiteral("abcdefghijklmnop")
                              << QByteArray("abcdefghijklmno");
    QTest::newRow("20 characters")
            << QStringLiteral("Queue-Relay-Worker-7") << QByteArray("Queue-Relay-Wor");
    QTest::newRow("Latin-1") << QStringLiteral("Zähler") << QByteArray("Z\xe4hler");
    QTest::newRow("beyond Latin-1") << QStringLiteral("Поток") << QByteArray("?????");
}

void tst_TThreadedObject::osThreadName()
{
    QFETCH(QString, name);
    QFETCH(QByteArray, osName);
    RecordingWorker worker(name);
    QVERIFY(worker.runOnce());
    QCOMPARE(worker.osName(), osName);
}

QTEST_GUILESS_MAIN(tst_TThreadedObject)
#include "tst_tthreadedobject.moc"
