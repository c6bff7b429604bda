#ifndef TRELLIS_COPY_COPYCONTROLLER_H
#define TRELLIS_COPY_COPYCONTROLLER_H

#include "CommandLine.h"
#include "CopyBatch.h"
#include "CopyQuestions.h"
#include "CopyThread.h"
#include "ProgressDisplay.h"

#include <Trellis/TFileCopyTask.h>

#include <QElapsedTimer>
#include <QObject>
#include <QTemporaryDir>

#include <atomic>

/*!
    Runs one trellis-copy request: owns the worker thread and the copy task
    living in it, hands the task one batch per source parent directory,
    answers its questions through the user (or the --on-conflict preset),
    shows its progress and ends with a summary and an exit code.

    It lives in the main thread and talks to the task only through queued
    connections and queued invocations, except for Stop(), which must reach
    a running pass directly.

    Every batch ends with one extra work item: an empty hidden temporary
    directory of its own, whose destination is DEST itself, so that it always conflicts and
    is skipped (or, under overwrite all, recreated as the DEST that exists).
    Being the last item, it keeps a failure of the last real item from
    ending the pass as finished: the task then reports it as
    StateCopyFailed, like every other failure.
*/
class CopyController : public QObject
{
    Q_OBJECT

public:
    //! Prepares the copy that \a request describes; Start() begins it.
    explicit CopyController(const CommandLine &request, QObject *parent = nullptr);

    //! Stops the worker thread and waits for it before the task goes.
    ~CopyController() override;

public slots:
    //! Creates DEST, plans the batches and starts the first one.
    void Start();

    /*!
        Asks the running pass to stop and ends with exit code 130 once it
        has; ends at once when no pass runs (the user is being asked).
    */
    void Interrupt();

signals:
    //! Emitted once, after the summary, with the exit code.
    void Finished(int exitCode);

private:
    void StartBatch();
    void OnProgress(int percent, int filesCopied, int fileSkipped);
    void OnFileCopied(const QFileInfo &file);
    void OnState(int state, const QFileInfo &currentFile);
    void OnConflict(const QFileInfo &item);
    void OnFailure(const QFileInfo &nextItem);
    void OnConflictAnswered(CopyQuestions::ConflictAnswer answer, const QString &renamePrefix);
    void OnFailureAnswered(bool goOn);
    void Resume(void (TFileCopyTask::*continueSlot)());
    void ResumeWithLastingAction();
    int IndexAfterPass(const QFileInfo &nextItem) const;
    void ShowProgress();
    void Finish(int exitCode, const QString &verdict);

    const CopyBatch &batch() const { return m_batches.at(m_batchIndex); }

    const CommandLine m_request;
    // The action that outlasts one item: the preset, or an "all" answer.
    TFileCopyTask::EFileExistsAction m_lastingAction;

    // Declared before the thread, so destroyed after it has finished.
    TFileCopyTask m_task;
    CopyThread m_thread;
    std::atomic<bool> m_stopWanted { false };

    QTemporaryDir m_closingDir;
    QFileInfo m_closingItem;
    QList<CopyBatch> m_batches;
    int m_batchIndex = -1;

    ProgressDisplay m_display;
    CopyQuestions m_questions;

    // Where the current batch stands.
    int m_cursor = 0; // the item being copied, in batch().items()
    QString m_currentEntry;
    int m_percent = 0;
    int m_batchCopied = 0;
    int m_batchSkipped = 0;
    bool m_closingItemCopied = false;
    QFileInfo m_conflictItem;
    QString m_renamePrefix;

    int m_copied = 0;
    int m_skipped = 0;
    int m_failed = 0;
    bool m_passRunning = false;
    bool m_interrupted = false;
    bool m_finished = false;
    QElapsedTimer m_clock;
};

#endif // TRELLIS_COPY_COPYCONTROLLER_H
