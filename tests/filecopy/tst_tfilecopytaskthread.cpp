#include "CopyTaskRecorder.h"

#include <Trellis/TThreadedObject.h>

#include <QMutex>
#include <QSemaphore>
#include <QtTest>

#include <atomic>

class Worker : public TThreadedObject
{
public:
    Worker() : TThreadedObject(QStringLiteral("copier")) { }
    // A failed check returns early; the thread must not outlive the object.
    ~Worker() override
    {
        Stop();
        wait();
    }

protected:
    void Initialize() override { }
    void Finalize() override { }
};

// Sends answers from the test thread.
class Answerer : public QObject
{
    Q_OBJECT

signals:
    void Answer(TFileCopyTask::EFileExistsAction action);
};

// The threads that emitted the task's signals, in order.
class EmitterLog
{
public:
    void Record(const char *signal)
    {
        QMutexLocker locker(&mutex);
        entries.append({ QLatin1String(signal), QThread::currentThread() });
    }
    QList<QPair<QString, QThread *>> Entries()
    {
        QMutexLocker locker(&mutex);
        return entries;
    }

private:
    QMutex mutex;
    QList<QPair<QString, QThread *>> entries;
};

class tst_TFileCopyTaskThread : public QObject
{
    Q_OBJECT

private slots:
    void runsInAWorkerThread();
};

void tst_TFileCopyTaskThread::runsInAWorkerThread()
{
    QTemporaryDir tmp;
    const QString src = tmp.path() + QStringLiteral("/src");
    const QString dst = tmp.path() + QStringLiteral("/dst");
    const QString big = tmp.path() + QStringLiteral("/big");
    for (const char *name : { "a.txt", "b.txt", "c.txt" })
        QVERIFY(WriteFile(src + QLatin1Char('/') + QLatin1String(name), QByteArray(100, name[0])));
    QVERIFY(WriteFile(dst + QStringLiteral("/b.txt"), "old"));
    QVERIFY(WriteFile(big + QStringLiteral("/x.txt"), "x"));
    QVERIFY(WriteFile(big + QStringLiteral("/y.bin"), QByteArray(8 * 1024 * 1024, 'y')));
    EmitterLog emitters;
    QSemaphore reached, resume;
    std::atomic<bool> holdNextReport { false };

    TFileCopyTask task;
    Worker worker;
    CopyTaskRecorder recorder(&task, tmp.path());
    Answerer answerer;
    QVERIFY(connect(&answerer, &Answerer::Answer, &task, &TFileCopyTask::Continue,
                    Qt::QueuedConnection));
    connect(
            &task, &TFileCopyTask::Progress, &task,
            [&] {
                emitters.Record("Progress");
                // Holds the pass, mutex and all, inside a file until the test
                // thread has called Stop().
                if (QThread::currentThread() == worker.thread() && holdNextReport.exchange(false)) {
                    reached.release();
                    resume.acquire();
                }
            },
            Qt::DirectConnection);
    connect(
            &task, &TFileCopyTask::FileCopied, &task, [&] { emitters.Record("FileCopied"); },
            Qt::DirectConnection);
    connect(
            &task, &TFileCopyTask::State, &task, [&] { emitters.Record("State"); },
            Qt::DirectConnection);
    worker.MoveToThisThread(&task);
    QCOMPARE(task.thread(), worker.thread());
    worker.start();

    // A question, answered through a queued connection from this thread.
    task.CopyFiles({ QFileInfo(src + QStringLiteral("/a.txt")),
                     QFileInfo(src + QStringLiteral("/b.txt")),
                     QFileInfo(src + QStringLiteral("/c.txt")) },
                   QRegExp::escape(src), dst, 0);
    QCOMPARE(recorder.events, Lines({ "Progress 0 0 0" }));
    QTRY_COMPARE_WITH_TIMEOUT(recorder.states, 1, PassTimeout);
    emit answerer.Answer(TFileCopyTask::OverwriteAll);
    QTRY_COMPARE_WITH_TIMEOUT(recorder.states, 2, PassTimeout);
    QCOMPARE(recorder.events,
             Lines({ "Progress 0 0 0", "Progress 33 0 0", "FileCopied src/c.txt",
                     "State 2 src/b.txt", "Progress 67 1 0", "FileCopied src/b.txt",
                     "Progress 99 2 0", "FileCopied src/a.txt", "Progress 100 3 0", "State 4 -" }));
    QVERIFY(SameTrees(src, dst));

    // A stop from this thread while the pass holds the mutex inside y.bin;
    // then a resume queued by name.
    recorder.events.clear();
    holdNextReport = true;
    task.CopyFiles({ QFileInfo(big + QStringLiteral("/x.txt")),
                     QFileInfo(big + QStringLiteral("/y.bin")) },
                   QRegExp::escape(big), dst, 0);
    QVERIFY(reached.tryAcquire(1, PassTimeout));
    task.Stop();
    resume.release();
    QTRY_COMPARE_WITH_TIMEOUT(recorder.states, 3, PassTimeout);
    QCOMPARE(recorder.Only(QStringLiteral("State")), Lines({ "State 4 big/x.txt" }));
    QVERIFY(recorder.Only(QStringLiteral("FileCopied")).isEmpty());
    qRegisterMetaType<TFileCopyTask::EFileExistsAction>("EFileExistsAction");
    QVERIFY(QMetaObject::invokeMethod(
            &task, "Continue", Qt::QueuedConnection,
            Q_ARG(TFileCopyTask::EFileExistsAction, TFileCopyTask::SkipAll)));
    QTRY_COMPARE_WITH_TIMEOUT(recorder.states, 4, PassTimeout);
    QCOMPARE(recorder.events.mid(recorder.events.size() - 3),
             Lines({ "FileCopied big/x.txt", "Progress 100 1 0", "State 4 -" }));

    // Only the Progress(0, 0, 0) of each CopyFiles() comes from the calling thread.
    const auto entries = emitters.Entries();
    QCOMPARE(entries.constFirst(), qMakePair(QStringLiteral("Progress"), QThread::currentThread()));
    int fromTestThread = 0;
    for (const auto &entry : entries) {
        if (entry.second == QThread::currentThread())
            ++fromTestThread;
        else
            QCOMPARE(entry.second, worker.thread());
    }
    QCOMPARE(fromTestThread, 2);
}

QTEST_GUILESS_MAIN(tst_TFileCopyTaskThread)
#include "tst_tfilecopytaskthread.moc"
