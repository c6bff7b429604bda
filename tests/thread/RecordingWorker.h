#ifndef TRELLIS_RECORDINGWORKER_H
#define TRELLIS_RECORDINGWORKER_H

#include <Trellis/TThreadedObject.h>

#include <QList>
#include <QMutex>
#include <QSemaphore>
#include <QStringList>

#include <pthread.h>

// What happened, and in which thread; written from several threads.
class EventLog
{
public:
    void record(const QString &what)
    {
        QMutexLocker locker(&m_mutex);
        m_events.append(what);
        m_threads.append(QThread::currentThread());
    }
    QStringList events() const
    {
        QMutexLocker locker(&m_mutex);
        return m_events;
    }
    QList<QThread *> threads() const
    {
        QMutexLocker locker(&m_mutex);
        return m_threads;
    }

private:
    mutable QMutex m_mutex;
    QStringList m_events;
    QList<QThread *> m_threads;
};

// A threaded object that logs its five signals (through direct connections),
// its hooks and its Ping() slot, and notes the operating-system name of its
// thread as Initialize() sees it.
class RecordingWorker : public TThreadedObject
{
    Q_OBJECT

public:
    explicit RecordingWorker(const QString &name) : TThreadedObject(name)
    {
        logSignal(&TThreadedObject::AboutToStop, QStringLiteral("AboutToStop"));
        logSignal(&TThreadedObject::AboutToInitialize, QStringLiteral("AboutToInitialize"));
        logSignal(&TThreadedObject::Initialized, QStringLiteral("Initialized"));
        logSignal(&TThreadedObject::AboutToFinalize, QStringLiteral("AboutToFinalize"));
        logSignal(&TThreadedObject::Finalized, QStringLiteral("Finalized"));
        connect(
                this, &TThreadedObject::Initialized, this, [this] { m_initialized.release(); },
                Qt::DirectConnection);
    }

    // A check that fails returns early; the thread must not outlive the object.
    ~RecordingWorker() override
    {
        Stop();
        wait();
    }

    // The events of one run that is stopped while its loop runs.
    static QStringList fullRun()
    {
        return { QStringLiteral("AboutToInitialize"), QStringLiteral("Initialize"),
                 QStringLiteral("Initialized"),       QStringLiteral("AboutToStop"),
                 QStringLiteral("AboutToFinalize"),   QStringLiteral("Finalize"),
                 QStringLiteral("Finalized") };
    }

    // Waits until the worker has emitted Initialized() once more.
    bool waitUntilInitialized() { return m_initialized.tryAcquire(1, 60 * 1000); }

    // Starts, waits until the loop runs, stops and waits for the end.
    bool runOnce()
    {
        start();
        if (!waitUntilInitialized())
            return false;
        Stop();
        return wait();
    }

    // The kernel's name for the worker thread, valid once Initialized() came.
    QByteArray osName() const { return m_osName; }

    Q_INVOKABLE void Ping() { log.record(QStringLiteral("Ping")); }

    EventLog log;

protected:
    void Initialize() override
    {
        char name[16] = {};
        pthread_getname_np(pthread_self(), name, sizeof name);
        m_osName = name;
        log.record(QStringLiteral("Initialize"));
    }
    void Finalize() override { log.record(QStringLiteral("Finalize")); }

private:
    void logSignal(void (TThreadedObject::*signal)(), const QString &what)
    {
        connect(
                this, signal, this, [=] { log.record(what); }, Qt::DirectConnection);
    }

    QSemaphore m_initialized;
    QByteArray m_osName;
};

#endif // TRELLIS_RECORDINGWORKER_H
