#ifndef TRELLIS_COPY_COPYCONTROLLER_H
#define TRELLIS_COPY_COPYCONTROLLER_H

#include "CommandLine.h"
#include "Console.h"
#include "CopyAftercare.h"
#include "CopyPlan.h"
#include "CopyQuestions.h"
#include "CopyTally.h"
#include "CopyThread.h"
#include "ProgressLine.h"

#include <Trellis/TFileCopyTask.h>

#include <QObject>

#include <atomic>
#include <memory>

/*!
    Runs one trellis-copy request: plans it in the worker thread, hands the
    copy task living there one batch after the other, decides each conflict
    by the rule in force or through the user, reports failures with their
    causes, shows the progress and ends with a summary and an exit code.

    It lives in the main thread and talks to the task only through queued
    connections and queued invocations, except for Stop(), which must reach
    a running pass directly. The task always asks: every conflict comes
    here, so that a collision within the run is never overwritten by an
    "all" rule.
*/
class CopyController : public QObject
{
    Q_OBJECT

public:
    //! Prepares the copy that \a request describes; Start() begins it.
    explicit CopyController(const CommandLine &request, QObject *parent = nullptr);

    //! Stops the worker thread and waits for it before the task goes.
    ~CopyController() override;

    /*!
        Whether the plan is still being made in the worker thread. The walk
        writes nothing and cannot be interrupted, so a program that ended
        meanwhile need not wait for it.
    */
    bool isPlanning() const { return m_planning; }

public slots:
    //! Creates DEST and plans the copy in the worker thread.
    void Start();

    /*!
        Stops the copy for the POSIX signal \a signalNumber: exit code 130
        for SIGINT, 1 for the others, once the running pass has stopped.
    */
    void OnSignal(int signalNumber);

signals:
    //! Emitted once, after the summary, with the exit code.
    void Finished(int exitCode);

private:
    void OnPlanned(const std::shared_ptr<const CopyPlan> &plan);
    void StartBatch();
    void OnProgress(int percent);
    void OnFileCopied(const QFileInfo &entry);
    void OnEntryFailed(const QFileInfo &entry, int error);
    void OnState(int state, const QFileInfo &item);
    void OnConflict(const QFileInfo &item);
    void OnConflictAnswered(CopyQuestions::ConflictAnswer answer, const QString &renameTo);
    void OnFailureAnswered(CopyQuestions::FailureAnswer answer);
    void Decide(const QFileInfo &item);
    void Skip(const QFileInfo &item, bool failed = false);
    void Rename(const QFileInfo &item, const QString &renameTo);
    void Resume(TFileCopyTask::EFileExistsAction action);
    void Advance(const QFileInfo &entry);
    void ShowProgress();
    void Stop(int exitCode, const QString &verdict);
    void Finish(int exitCode, const QString &verdict);

    const CopyBatch &batch() const { return m_batches.at(m_batchIndex); }
    int EntriesOf(int item) const { return batch().EndEntry(item) - batch().FirstEntry(item); }

    const CommandLine m_request;
    // The rule for conflicts: the preset, or what an "all" answer set.
    CommandLine::ConflictRule m_rule;
    bool m_continueAfterFailures;

    // Declared before the thread, so destroyed after it has finished.
    TFileCopyTask m_task;
    CopyThread m_thread;
    std::atomic<bool> m_stopWanted { false };

    Console m_console;
    ProgressLine m_progressLine;
    CopyQuestions m_questions;
    CopyTally m_tally;
    CopyAftercare m_aftercare;

    std::shared_ptr<const CopyPlan> m_plan;
    QList<CopyBatch> m_batches; // the plan's, and those of renamed items
    int m_batchIndex = -1;
    int m_renamesInBatch = 0;
    qint64 m_totalBytes = 0;
    qint64 m_bytesBefore = 0; // of the batches done
    int m_percent = 0; // of the current batch
    int m_cursor = 0; // the entry being copied, in batch().entries()
    QFileInfo m_conflictItem;

    bool m_planning = false;
    bool m_passRunning = false;
    bool m_stopping = false;
    bool m_finished = false;
    int m_stopExitCode = 1;
    QString m_stopVerdict;
};

#endif // TRELLIS_COPY_COPYCONTROLLER_H
