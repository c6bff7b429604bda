#include "CopyController.h"

#include <Trellis/TFileCopyNotifier.h>

#include <QDir>

#include <cerrno>

CopyController::CopyController(const CommandLine &request, QObject *parent)
    : QObject(parent), m_request(request), m_rule(request.conflictRule),
      m_continueAfterFailures(!CopyQuestions::CanAsk()),
      m_aftercare(request.libraryMode, request.keepPartial, m_console)
{
    connect(&m_task, &TFileCopyTask::Progress, this, &CopyController::ShowProgress,
            Qt::QueuedConnection);
    connect(&m_task, &TFileCopyTask::FileCopied, this, &CopyController::OnFileCopied,
            Qt::QueuedConnection);
    connect(&m_task, &TFileCopyTask::State, this, &CopyController::OnState, Qt::QueuedConnection);
    connect(m_task.Notifier(), &TFileCopyNotifier::EntryFailed, this,
            &CopyController::OnEntryFailed, Qt::QueuedConnection);
    // A pass queued before a stop clears the request when it starts; its
    // first report in the worker thread asks again.
    const auto stopIfWanted = [this] {
        if (m_stopWanted.load())
            m_task.Stop();
    };
    connect(&m_task, &TFileCopyTask::Progress, &m_task, stopIfWanted, Qt::DirectConnection);
    connect(&m_task, &TFileCopyTask::FileCopied, &m_task, stopIfWanted, Qt::DirectConnection);
    connect(&m_questions, &CopyQuestions::ConflictAnswered, this,
            &CopyController::OnConflictAnswered);
    connect(&m_questions, &CopyQuestions::FailureAnswered, this,
            [this](CopyQuestions::FailureAnswer answer) {
                m_continueAfterFailures = answer == CopyQuestions::ContinueAll;
                if (answer == CopyQuestions::QuitAfterFailure)
                    Finish(1, QStringLiteral("Quit"));
                else
                    Resume(TFileCopyTask::Ask);
            });
    connect(&m_console, &Console::WriteFailed, this, [this](const QString &stream, int error) {
        m_console.Error(QStringLiteral("trellis-copy: cannot write to %1: %2")
                                .arg(stream, qt_error_string(error)));
        Stop(1, QStringLiteral("Stopped"));
    });
    m_thread.MoveToThisThread(&m_task);
}

void CopyController::Start()
{
    if (m_finished)
        return;
    const QFileInfo destination(m_request.destination);
    const QString directory = m_request.destinationIsFileName ? destination.absolutePath()
                                                              : destination.absoluteFilePath();
    if (!m_request.dryRun && !QDir().mkpath(directory)) {
        m_console.Error(
                QStringLiteral("trellis-copy: cannot create the directory %1").arg(directory));
        return Finish(1, QStringLiteral("Failed"));
    }
    m_thread.start();
    // The walk runs in the worker thread, so that a signal is seen at once.
    QMetaObject::invokeMethod(
            &m_task,
            [this] {
                const auto plan = std::make_shared<CopyPlan>(m_request, m_stopWanted);
                QMetaObject::invokeMethod(
                        this, [this, plan] { OnPlanned(plan); }, Qt::QueuedConnection);
            },
            Qt::QueuedConnection);
}

void CopyController::OnPlanned(const std::shared_ptr<CopyPlan> &plan)
{
    m_plan = plan;
    if (m_finished)
        return;
    for (const auto &[entry, reason] : plan->leftOut) {
        m_tally.AddLeftOut(reason);
        if (reason == TFileCopyNotifier::LinkIntoTree)
            m_console.Error(QStringLiteral("trellis-copy: not following %1: it leads back into "
                                           "the tree")
                                    .arg(entry.absoluteFilePath()));
        else if (verbose() || m_request.dryRun)
            m_console.Print(QStringLiteral("left out %1 (%2)")
                                    .arg(entry.absoluteFilePath(), CopyTally::Describe(reason)));
    }
    if (!m_request.dryRun)
        return StartBatch();
    m_console.Print(plan->DryRun(m_request.conflictRule).join(QLatin1Char('\n')));
    m_finished = true;
    emit Finished(0);
}

void CopyController::StartBatch()
{
    if (m_batchIndex >= 0)
        m_bytesBefore += batch().bytes();
    if (++m_batchIndex == m_plan->batches().size())
        return Finish(m_tally.failed > 0 ? 1 : 0, QStringLiteral("Done"));
    m_percent = m_cursor = m_renamesInBatch = 0;
    batch().CopyWith(m_task);
}

void CopyController::OnFileCopied(const QFileInfo &entry)
{
    ++m_tally.copied;
    m_cursor = batch().EntryRange(entry).second;
    const QString copy = batch().WrittenPath(entry);
    if (verbose())
        m_console.Print(QStringLiteral("%1 -> %2").arg(entry.absoluteFilePath(), copy));
    m_aftercare.Finished(entry, copy);
    ShowProgress(m_percent);
}

void CopyController::OnEntryFailed(const QFileInfo &entry, int error)
{
    m_cursor = batch().EntryRange(entry).second;
    if (error != ECANCELED) {
        ++m_tally.failed;
        m_console.Error(QStringLiteral("trellis-copy: cannot copy %1: %2")
                                .arg(entry.absoluteFilePath(), qt_error_string(error)));
    }
    m_aftercare.Failed(entry, batch().WrittenPath(entry));
}

void CopyController::OnState(int state, const QFileInfo &item)
{
    if (m_finished || !m_stopVerdict.isEmpty())
        return Finish(m_stopExitCode, m_stopVerdict);
    if (state != TFileCopyTask::StateFileExists && state != TFileCopyTask::StateCopyFailed)
        return StartBatch();
    m_conflictItem = item;
    if (state == TFileCopyTask::StateFileExists)
        return OnConflict();
    if (m_continueAfterFailures)
        return Resume(TFileCopyTask::Ask);
    m_console.ClearStatus();
    m_questions.AskFailure();
}

void CopyController::OnConflict()
{
    const QFileInfo &item = m_conflictItem;
    const QString destination = batch().ExistingDestination(item);
    const QString first = m_plan->CollidesWith(item);
    const bool canAsk = CopyQuestions::CanAsk();
    if (!first.isEmpty() && !(canAsk && m_request.conflictRule == CommandLine::Ask)) {
        m_console.Error(QStringLiteral("trellis-copy: cannot copy %1: it would be written to %2, "
                                       "where %3 was copied")
                                .arg(item.absoluteFilePath(), destination, first));
        return Skip(true);
    }
    if (first.isEmpty() && m_rule != CommandLine::Ask)
        return Decide();
    if (!canAsk) {
        m_console.Error(QStringLiteral("trellis-copy: %1 exists (copying %2), and standard input "
                                       "is not a terminal to ask on; use --on-conflict")
                                .arg(destination, item.absoluteFilePath()));
        return Finish(1, QStringLiteral("Stopped"));
    }
    m_console.ClearStatus();
    m_questions.AskConflict(item, QFileInfo(destination), first);
}

void CopyController::OnConflictAnswered(CopyQuestions::ConflictAnswer answer,
                                        const QString &renameTo)
{
    // An "all" answer, newer and different become the rule for the rest.
    const auto ruleFromNowOn = [this](CommandLine::ConflictRule rule) {
        m_rule = rule;
        Decide();
    };
    switch (answer) {
    case CopyQuestions::Overwrite:
        return Resume(TFileCopyTask::Overwrite);
    case CopyQuestions::OverwriteAll:
        return ruleFromNowOn(CommandLine::Overwrite);
    case CopyQuestions::Skip:
        return Skip();
    case CopyQuestions::SkipAll:
        return ruleFromNowOn(CommandLine::Skip);
    case CopyQuestions::Newer:
        return ruleFromNowOn(CommandLine::Newer);
    case CopyQuestions::Different:
        return ruleFromNowOn(CommandLine::Different);
    case CopyQuestions::Rename: {
        // Skipped here, the item is copied next in a batch of its own.
        const CopyPlan::Batch renamed(batch(), m_conflictItem, renameTo);
        m_plan->Insert(m_batchIndex + 1 + m_renamesInBatch++, renamed);
        m_cursor = batch().EntryRange(m_conflictItem).second;
        return Resume(TFileCopyTask::Skip);
    }
    case CopyQuestions::Quit:
        return Finish(1, QStringLiteral("Quit"));
    }
}

void CopyController::Decide()
{
    if (batch().Overwrites(m_rule, m_conflictItem))
        Resume(TFileCopyTask::Overwrite);
    else
        Skip();
}

void CopyController::Skip(bool failed)
{
    const auto [first, end] = batch().EntryRange(m_conflictItem);
    (failed ? m_tally.failed : m_tally.skipped) += end - first;
    if (verbose() && !failed)
        m_console.Print(QStringLiteral("skipped %1").arg(m_conflictItem.absoluteFilePath()));
    m_cursor = end;
    Resume(TFileCopyTask::Skip);
}

void CopyController::Resume(TFileCopyTask::EFileExistsAction action)
{
    QMetaObject::invokeMethod(
            &m_task, [this, action] { m_task.Continue(action); }, Qt::QueuedConnection);
}

void CopyController::ShowProgress(int percent)
{
    m_percent = percent;
    if (m_request.verbosity == CommandLine::Quiet || !m_console.StatusDue())
        return;
    const QList<QFileInfo> &entries = batch().entries();
    m_console.ShowStatus(
            m_tally.Progress(m_bytesBefore + batch().bytes() * m_percent / 100, m_plan->bytes()),
            m_cursor < entries.size() ? entries.at(m_cursor).absoluteFilePath() : QString());
}

void CopyController::Stop(int exitCode, const QString &verdict)
{
    if (m_finished || !m_stopVerdict.isEmpty())
        return;
    m_stopExitCode = exitCode;
    m_stopVerdict = verdict;
    m_stopWanted.store(true);
    m_task.Stop();
    // Otherwise the running pass stops soon and reports it.
    if (!m_plan || m_questions.isOpen())
        Finish(exitCode, verdict);
}

void CopyController::Finish(int exitCode, const QString &verdict)
{
    if (m_finished)
        return;
    m_finished = true;
    m_questions.Cancel();
    m_console.Print(m_tally.Summary(verdict, verbose()));
    emit Finished(exitCode);
}
