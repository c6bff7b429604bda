#ifndef TRELLIS_TTHREADEDOBJECT_H
#define TRELLIS_TTHREADEDOBJECT_H

#include <Trellis/trellis_export.h>

#include <QObject>
#include <QString>
#include <QThread>

#include <memory>

class TThread;
class TThreadedObjectPrivate;

/*!
    Base class for objects that live in a worker thread of their own.

    Each instance owns one worker thread and moves itself into it when it is
    constructed, so its slots, timers and events are handled there. When
    started, the worker thread:

    \list 1
    \li names itself at the operating-system level (the kernel keeps the first
        15 bytes of the name) and passes the whole name to the hook installed
        in ThreadNameProxy::proxy(), if any;
    \li emits AboutToInitialize(), runs Initialize() and emits Initialized();
    \li runs a Qt event loop until Stop() (or QThread::quit() on the worker)
        ends it;
    \li emits AboutToFinalize(), runs Finalize() and emits Finalized().
    \endlist

    Derive from it, implement the two hooks, start() it, talk to it through
    queued connections or QMetaObject::invokeMethod(), then Stop() it, wait()
    for it and delete it:

    \code
    Collector collector(QStringLiteral("collector"));
    collector.start();
    QMetaObject::invokeMethod(&collector, "Collect", Qt::QueuedConnection);
    ...
    collector.Stop();
    collector.wait();
    \endcode

    Calls queued to the object before start() wait and run in the worker
    thread once its event loop runs. After the thread has finished, a later
    start() runs the whole sequence again, naming and both hooks included.

    The constructor, start(), Stop(), wait(), isRunning(), MoveToThisThread()
    and the destructor are called from the application's threads, not from
    the worker thread. The class has no lock of its own.
*/
class TRELLIS_EXPORT TThreadedObject : public QObject
{
    Q_OBJECT

public:
    /*!
        Creates the object and its worker thread, named \a name, and moves the
        object into the worker thread, which is not started. The object has no
        parent. Events and queued calls addressed to it wait until the worker
        thread's event loop runs.
    */
    explicit TThreadedObject(const QString &name);

    /*!
        Deletes the worker thread. It neither stops nor waits for it: a started
        object must be stopped with Stop() and waited for with wait() first,
        and it must be deleted from outside the worker thread. Deleting it
        while its thread runs is a programming error that Qt answers by
        aborting the process.
    */
    ~TThreadedObject() override;

    /*!
        Starts the worker thread with \a priority. Does nothing while the
        thread is already running. After the thread has finished, starts it
        again, which runs the whole sequence again.
    */
    virtual void start(QThread::Priority priority = QThread::InheritPriority);

    /*!
        Emits AboutToStop() in the calling thread, then asks the worker's event
        loop to quit, and returns without waiting. The worker then runs
        Finalize() between AboutToFinalize() and Finalized(), and finishes. A
        Stop() that arrives while Initialize() runs ends the loop as soon as it
        begins. On an object that is not started, Stop() emits AboutToStop()
        and nothing else happens; a later start() runs as usual.
    */
    virtual void Stop();

    /*!
        Waits without a time limit until the worker thread has finished, and
        returns true. Returns true at once when the thread was never started or
        has already finished. Must not be called from the worker thread: there
        it returns false at once (with a warning from Qt) rather than waiting
        for itself.
    */
    virtual bool wait();

    /*!
        Returns true from start() until the worker thread has finished, that
        is while it initialises, runs its event loop or finalises; false
        otherwise.
    */
    virtual bool isRunning() const;

    /*!
        Moves \a object into the worker thread, so that its slots and events
        are handled there. Qt's rules of QObject::moveToThread() apply
        unchanged: \a object must have no parent and must be moved from the
        thread it lives in; otherwise Qt warns and the object stays where it
        is. A null \a object is ignored.
    */
    virtual void MoveToThisThread(QObject *object);

Q_SIGNALS:
    /*!
        Emitted by Stop() in the thread that calls it, before the worker's
        event loop is asked to quit.
    */
    void AboutToStop();

    //! Emitted in the worker thread just before Initialize().
    void AboutToInitialize();

    //! Emitted in the worker thread after Initialize(), before the event loop.
    void Initialized();

    //! Emitted in the worker thread after the event loop, just before Finalize().
    void AboutToFinalize();

    //! Emitted in the worker thread after Finalize(); the thread then finishes.
    void Finalized();

protected:
    /*!
        Runs in the worker thread each time it starts, after it has been named
        and before its event loop. Sets up what the object needs in its thread.
    */
    virtual void Initialize() = 0;

    /*!
        Runs in the worker thread each time its event loop has ended, before
        the thread finishes. Releases what Initialize() set up.
    */
    virtual void Finalize() = 0;

private:
    friend class TThread; // runs the hooks

    const std::unique_ptr<TThreadedObjectPrivate> d;
};

#endif // TRELLIS_TTHREADEDOBJECT_H
