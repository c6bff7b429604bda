#include "CopyController.h"

#include <Trellis/TFileSystemHelper.h>

#include <QDir>

namespace {

// Compares paths as text: QFileInfo's operator== would ask the file system.
bool SamePath(const QFileInfo &a, const QFileInfo &b)
{
    return a.absoluteFilePath() == b.absoluteFilePath();
}

} // namespace

CopyController::CopyController(const CommandLine &request, QObject *parent)
    : QObject(parent), m_request(request), m_lastingAction(request.conflictAction()),
      m_task(request.conflictAction()),
      // Hidden, so that no listing of a source directory takes it in.
      m_closingDir(QDir::tempPath() + QStringLiteral("/.trellis-copy-XXXXXX"))
{
    connect(&m_task, &TFileCopyTask::Progress, this, &CopyController::OnProgress,
            Qt::QueuedConnection);
    connect(&m_task, &TFileCopyTask::FileCopied, this, &CopyController::OnFileCopied,
            Qt::QueuedConnection);
    connect(&m_task, &TFileCopyTask::State, this, &CopyController::OnState, Qt::QueuedConnection);
    // A pass queued before an interrupt clears the stop request when it
    // starts; its first report in the worker thread asks again.
    TFileCopyTask *task = &m_task;
    const auto stopIfWanted = [this, task] {
        if (m_stopWanted.load())
            task->Stop();
    };
    connect(&m_task, &TFileCopyTask::Progress, &m_task, stopIfWanted, Qt::DirectConnection);
    connect(&m_task, &TFileCopyTask::FileCopied, &m_task, stopIfWanted, Qt::DirectConnection);
    connect(&m_questions, &CopyQuestions::ConflictAnswered, this,
            &CopyController::OnConflictAnswered);
    connect(&m_questions, &CopyQuestions::FailureAnswered, this,
            &CopyController::OnFailureAnswered);
    m_thread.MoveToThisThread(&m_task);
    m_clock.start();
}

CopyController::~CopyController()
{
    m_thread.Stop();
    m_thread.wait();
}

void CopyController::Start()
{
    if (m_finished)
        return;
    if (!QDir().mkpath(m_request.destination())) {
        m_display.Message(
                QStringLiteral("trellis-copy: cannot create %1").arg(m_request.destination()));
        Finish(1, QStringLiteral("Failed"));
        return;
    }
    if (!m_closingDir.isValid()) {
        m_display.Message(QStringLiteral("trellis-copy: cannot create a temporary directory: %1")
                                  .arg(m_closingDir.errorString()));
        Finish(1, QStringLiteral("Failed"));
        return;
    }
    m_closingItem = QFileInfo(QDir::cleanPath(QFileInfo(m_closingDir.path()).absoluteFilePath()));
    m_batches = CopyBatch::Plan(m_request.sources(), m_request.depth());
    m_thread.start();
    StartBatch();
}

void CopyController::StartBatch()
{
    m_copied += m_batchCopied;
    m_skipped += m_batchSkipped;
    m_batchCopied = m_batchSkipped = m_percent = m_cursor = 0;
    m_closingItemCopied = false;
    if (++m_batchIndex == m_batches.size()) {
        Finish(m_failed > 0 ? 1 : 0, QStringLiteral("Done"));
        return;
    }
    const CopyBatch &current = batch();
    m_currentEntry = current.RelativePath(current.items().constFirst());
    m_passRunning = true;
    // CopyFiles() only hands the batch over and queues the pass into the
    // task's thread; it may be called from any thread.
    m_task.CopyFiles(current.TaskSources(m_closingItem),
                     current.SourcePattern(m_closingItem.absoluteFilePath()),
                     m_request.destination(), 0);
}

void CopyController::OnProgress(int percent, int filesCopied, int fileSkipped)
{
    Q_UNUSED(filesCopied) // counted by FileCopied(), which leaves out the closing item
    m_percent = percent;
    // 100 comes only after the closing item, which is skipped unless copied.
    const bool closingItemSkipped = percent == 100 && !m_closingItemCopied;
    m_batchSkipped = qMax(0, fileSkipped - (closingItemSkipped ? 1 : 0));
    ShowProgress();
}

void CopyController::OnFileCopied(const QFileInfo &file)
{
    if (SamePath(file, m_closingItem)) {
        m_closingItemCopied = true;
        return;
    }
    ++m_batchCopied;
    const CopyBatch &current = batch();
    const int index = current.IndexHolding(file, m_cursor);
    const bool wholeItem = index >= 0 && SamePath(current.items().at(index), file);
    if (index >= 0)
        m_cursor = wholeItem ? index + 1 : index;
    // After a whole item, the next one is presumably being copied now.
    m_currentEntry = current.RelativePath(
            wholeItem && m_cursor < current.items().size() ? current.items().at(m_cursor) : file);
    ShowProgress();
}

void CopyController::OnState(int state, const QFileInfo &currentFile)
{
    m_passRunning = false;
    if (m_finished)
        return;
    if (m_interrupted) {
        if (!currentFile.filePath().isEmpty()) {
            const int index = IndexAfterPass(currentFile);
            if (index > 0)
                m_display.Message(QStringLiteral("trellis-copy: stopped while copying %1; its "
                                                 "copy may be incomplete")
                                          .arg(batch().items().at(index - 1).absoluteFilePath()));
        }
        Finish(130, QStringLiteral("Interrupted"));
        return;
    }
    switch (state) {
    case TFileCopyTask::StateFileExists:
        if (SamePath(currentFile, m_closingItem))
            Resume(&TFileCopyTask::ContinueSkip);
        else
            OnConflict(currentFile);
        return;
    case TFileCopyTask::StateCopyFailed:
        OnFailure(currentFile);
        return;
    default:
        StartBatch();
    }
}

void CopyController::OnConflict(const QFileInfo &item)
{
    const CopyBatch &current = batch();
    m_cursor = qMax(0, current.IndexOf(item));
    m_currentEntry = current.RelativePath(item);
    // A rename prefix belongs to the item it was given for; asked again about
    // that item, the question is about the renamed destination.
    if (!SamePath(item, m_conflictItem))
        m_renamePrefix.clear();
    m_conflictItem = item;
    QString destination = current.DestinationPath(
            item, m_renamePrefix.isEmpty() ? m_request.destination() : m_renamePrefix);
    const QString writtenName = TFileSystemHelper::FileCopyLowerCaseDestFilename(destination);
    if (!QFileInfo::exists(destination) && item.isFile() && QFileInfo::exists(writtenName))
        destination = writtenName;

    if (!CopyQuestions::CanAsk()) {
        m_display.Message(QStringLiteral("trellis-copy: %1 exists (copying %2), and standard input "
                                         "is not a terminal to ask on; use "
                                         "--on-conflict=overwrite or --on-conflict=skip")
                                  .arg(destination, item.absoluteFilePath()));
        Finish(1, QStringLiteral("Stopped"));
        return;
    }
    m_display.Clear();
    m_questions.AskConflict(destination, item.absoluteFilePath(), current.RelativePath(item),
                            item.completeBaseName());
}

void CopyController::OnConflictAnswered(CopyQuestions::ConflictAnswer answer,
                                        const QString &renamePrefix)
{
    switch (answer) {
    case CopyQuestions::Overwrite:
        Resume(&TFileCopyTask::ContinueOverwrite);
        return;
    case CopyQuestions::OverwriteAll:
        m_lastingAction = TFileCopyTask::OverwriteAll;
        Resume(&TFileCopyTask::ContinueOverwriteAll);
        return;
    case CopyQuestions::Skip:
        Resume(&TFileCopyTask::ContinueSkip);
        return;
    case CopyQuestions::SkipAll:
        m_lastingAction = TFileCopyTask::SkipAll;
        Resume(&TFileCopyTask::ContinueSkipAll);
        return;
    case CopyQuestions::Rename: {
        m_renamePrefix = renamePrefix;
        m_passRunning = true;
        TFileCopyTask *task = &m_task;
        // Ask again if the new destination exists too.
        QMetaObject::invokeMethod(
                task,
                [task, renamePrefix] { task->ContinueRename(TFileCopyTask::Ask, renamePrefix); },
                Qt::QueuedConnection);
        return;
    }
    case CopyQuestions::Quit:
    case CopyQuestions::NotUnderstood:
        Finish(1, QStringLiteral("Quit"));
        return;
    }
}

void CopyController::OnFailure(const QFileInfo &nextItem)
{
    ++m_failed;
    const CopyBatch &current = batch();
    const int index = IndexAfterPass(nextItem);
    m_cursor = qMax(0, index);
    const QFileInfo failed = current.items().value(index - 1);
    m_display.Message(QStringLiteral("trellis-copy: could not copy %1%2")
                              .arg(failed.absoluteFilePath(),
                                   failed.isDir() ? QStringLiteral(" (the rest of it was left)")
                                                  : QString()));
    if (CopyQuestions::CanAsk())
        m_questions.AskFailure();
    else
        ResumeWithLastingAction();
}

void CopyController::OnFailureAnswered(bool goOn)
{
    if (goOn)
        ResumeWithLastingAction();
    else
        Finish(1, QStringLiteral("Quit"));
}

void CopyController::Resume(void (TFileCopyTask::*continueSlot)())
{
    m_passRunning = true;
    QMetaObject::invokeMethod(&m_task, continueSlot, Qt::QueuedConnection);
}

void CopyController::ResumeWithLastingAction()
{
    m_passRunning = true;
    TFileCopyTask *task = &m_task;
    const TFileCopyTask::EFileExistsAction action = m_lastingAction;
    QMetaObject::invokeMethod(
            task, [task, action] { task->Continue(action); }, Qt::QueuedConnection);
}

// The index in batch().items() of the item that a pass left pending next;
// the items before it have been processed.
int CopyController::IndexAfterPass(const QFileInfo &nextItem) const
{
    return SamePath(nextItem, m_closingItem) ? batch().items().size() : batch().IndexOf(nextItem);
}

void CopyController::ShowProgress()
{
    const QString label = m_batches.size() > 1
            ? QStringLiteral("[%1/%2]").arg(m_batchIndex + 1).arg(m_batches.size())
            : QString();
    m_display.Show(label, m_percent, m_copied + m_batchCopied, m_skipped + m_batchSkipped,
                   m_currentEntry);
}

void CopyController::Interrupt()
{
    if (m_finished)
        return;
    m_interrupted = true;
    m_stopWanted.store(true);
    m_task.Stop();
    m_questions.Cancel();
    if (!m_passRunning)
        Finish(130, QStringLiteral("Interrupted"));
}

void CopyController::Finish(int exitCode, const QString &verdict)
{
    if (m_finished)
        return;
    m_finished = true;
    m_questions.Cancel();
    m_display.Print(QStringLiteral("%1: %2 copied, %3 skipped, %4 failed in %5 s")
                            .arg(verdict)
                            .arg(m_copied + m_batchCopied)
                            .arg(m_skipped + m_batchSkipped)
                            .arg(m_failed)
                            .arg(m_clock.elapsed() / 1000.0, 0, 'f', 2));
    emit Finished(exitCode);
}
