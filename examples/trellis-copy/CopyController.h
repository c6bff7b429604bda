#ifndef TRELLIS_COPY_COPYCONTROLLER_H
#define TRELLIS_COPY_COPYCONTROLLER_H

#include "Console.h"
#include "CopyAftercare.h"
#include "CopyPlan.h"
#include "CopyQuestions.h"
#include "CopyTally.h"

#include <Trellis/TFileCopyTask.h>
#include <Trellis/TThreadedObject.h>

#include <memory>

/*!
    Runs one request: plans it, hands the copy task in the worker thread one
    batch after another, and decides each conflict (the task always asks, so
    that no "all" rule overwrites a collision) and failure. Only the task's
    Stop() is called across threads; everything else is queued.
*/
class CopyController : public QObject
{
    Q_OBJECT

public:
    explicit CopyController(const CommandLine &request, QObject *parent = nullptr);

    //! The walk of planning writes nothing: it need not be waited for.
    bool isPlanning() const { return m_thread.isRunning() && !m_plan; }

    void Start();
    //! Stops the copy, and finishes once the running pass has stopped.
    void Stop(int exitCode, const QString &verdict);

signals:
    void Finished(int exitCode);

private:
    void OnPlanned(const std::shared_ptr<CopyPlan> &plan);
    void StartBatch();
    void OnFileCopied(const QFileInfo &entry);
    void OnEntryFailed(const QFileInfo &entry, int error);
    void OnState(int state, const QFileInfo &item);
    void OnConflict(); // these four about m_conflictItem
    void OnConflictAnswered(CopyQuestions::ConflictAnswer answer, const QString &renameTo);
    void Decide();
    void Skip(bool failed = false);
    void Resume(TFileCopyTask::EFileExistsAction action);
    //! With \a percent of the current batch done.
    void ShowProgress(int percent);
    void Finish(int exitCode, const QString &verdict);

    const CopyPlan::Batch &batch() const { return m_plan->batches().at(m_batchIndex); }
    bool verbose() const { return m_request.verbosity == CommandLine::Verbose; }

    const CommandLine m_request;
    CommandLine::ConflictRule m_rule; // the preset, or what an "all" answer set
    bool m_continueAfterFailures;

    std::atomic<bool> m_stopWanted { false };
    Console m_console;
    CopyQuestions m_questions;
    CopyTally m_tally;
    CopyAftercare m_aftercare;

    std::shared_ptr<CopyPlan> m_plan;
    int m_batchIndex = -1;
    int m_renamesInBatch = 0;
    qint64 m_bytesBefore = 0; // of the batches done
    int m_percent = 0; // of the current batch
    int m_cursor = 0; // the entry being copied, in batch().entries()
    QFileInfo m_conflictItem; // or the failed one

    bool m_finished = false;
    int m_stopExitCode = 1;
    QString m_stopVerdict; // set once a stop is under way

    struct Thread : TThreadedObject // the task needs no set-up of its own in it
    {
        Thread() : TThreadedObject(QStringLiteral("trellis-copy")) { }
        ~Thread() override
        {
            Stop();
            wait();
        }
        void Initialize() override { }
        void Finalize() override { }
    };
    // Last, so that the thread has finished before anything goes, and the task after it.
    TFileCopyTask m_task;
    Thread m_thread;
};

#endif // TRELLIS_COPY_COPYCONTROLLER_H
