#include "CopyController.h"

#include "ConflictJudge.h"
#include "PlanReport.h"

#include <Trellis/TFileCopyNotifier.h>

#include <QDir>
#include <QRegExp>

#include <cerrno>
#include <csignal>
#include <cstring>

namespace {

QString Reason(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

} // namespace

CopyController::CopyController(const CommandLine &request, QObject *parent)
    : QObject(parent), m_request(request), m_rule(request.conflictRule()),
      m_continueAfterFailures(!CopyQuestions::CanAsk()), m_progressLine(m_console.isLive()),
      m_aftercare(request.libraryMode(), request.keepPartial(), m_console)
{
    connect(&m_task, &TFileCopyTask::Progress, this, &CopyController::OnProgress,
            Qt::QueuedConnection);
    connect(&m_task, &TFileCopyTask::FileCopied, this, &CopyController::OnFileCopied,
            Qt::QueuedConnection);
    connect(&m_task, &TFileCopyTask::State, this, &CopyController::OnState, Qt::QueuedConnection);
    connect(m_task.Notifier(), &TFileCopyNotifier::EntryFailed, this,
            &CopyController::OnEntryFailed, Qt::QueuedConnection);
    // A pass queued before a stop clears the request when it starts; its
    // first report in the worker thread asks again.
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
    connect(&m_console, &Console::WriteFailed, this, [this](const QString &stream, int error) {
        m_console.Error(
                QStringLiteral("trellis-copy: cannot write to %1: %2").arg(stream, Reason(error)));
        Stop(1, QStringLiteral("Stopped"));
    });
    m_thread.MoveToThisThread(&m_task);
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
    const QString directory = m_request.destinationIsFileName()
            ? QFileInfo(m_request.destination()).absolutePath()
            : m_request.destination();
    if (!m_request.dryRun() && !QDir().mkpath(directory)) {
        m_console.Error(
                QStringLiteral("trellis-copy: cannot create the directory %1").arg(directory));
        Finish(1, QStringLiteral("Failed"));
        return;
    }
    m_planning = true;
    m_thread.start();
    // The walk runs in the worker thread, so that a signal is seen at once.
    QMetaObject::invokeMethod(
            &m_task,
            [this] {
                const auto plan = std::make_shared<const CopyPlan>(m_request, m_stopWanted);
                QMetaObject::invokeMethod(
                        this, [this, plan] { OnPlanned(plan); }, Qt::QueuedConnection);
            },
            Qt::QueuedConnection);
}

void CopyController::OnPlanned(const std::shared_ptr<const CopyPlan> &plan)
{
    m_planning = false;
    if (m_finished)
        return;
    m_plan = plan;
    m_batches = plan->batches();
    m_totalBytes = plan->bytes();
    const PlanReport report(*plan, m_request, m_console);
    report.ReportLeftOut(m_tally);
    if (m_request.dryRun()) {
        report.ListDryRun();
        m_finished = true;
        emit Finished(0);
        return;
    }
    StartBatch();
}

void CopyController::StartBatch()
{
    if (m_batchIndex >= 0)
        m_bytesBefore += batch().bytes();
    if (++m_batchIndex == m_batches.size()) {
        Finish(m_tally.failed > 0 ? 1 : 0, QStringLiteral("Done"));
        return;
    }
    m_percent = m_cursor = m_renamesInBatch = 0;
    m_passRunning = true;
    // CopyFiles() only hands the batch over and queues the pass into the
    // task's thread; it may be called from any thread.
    m_task.CopyFiles(batch().TaskSources(), batch().sourcePrefix(), batch().destinationPrefix(), 0);
}

void CopyController::OnProgress(int percent)
{
    m_percent = percent;
    ShowProgress();
}

void CopyController::OnFileCopied(const QFileInfo &entry)
{
    ++m_tally.copied;
    Advance(entry);
    const QString copy = batch().WrittenPath(entry);
    if (m_request.verbosity() == CommandLine::Verbose)
        m_console.Print(QStringLiteral("%1 -> %2").arg(entry.absoluteFilePath(), copy));
    m_aftercare.Finished(entry, copy);
    ShowProgress();
}

void CopyController::OnEntryFailed(const QFileInfo &entry, int error)
{
    Advance(entry);
    if (error != ECANCELED) {
        ++m_tally.failed;
        m_console.Error(QStringLiteral("trellis-copy: cannot copy %1: %2")
                                .arg(entry.absoluteFilePath(), Reason(error)));
    }
    m_aftercare.Failed(entry, batch().WrittenPath(entry));
}

void CopyController::OnState(int state, const QFileInfo &item)
{
    m_passRunning = false;
    if (m_finished)
        return;
    if (m_stopping) {
        Finish(m_stopExitCode, m_stopVerdict);
        return;
    }
    switch (state) {
    case TFileCopyTask::StateFileExists:
        OnConflict(item);
        return;
    case TFileCopyTask::StateCopyFailed:
        m_cursor = batch().FirstEntry(qMax(0, batch().IndexOf(item)));
        if (m_continueAfterFailures) {
            Resume(TFileCopyTask::Ask);
        } else {
            m_console.ClearStatus();
            m_questions.AskFailure();
        }
        return;
    default:
        StartBatch();
    }
}

void CopyController::OnConflict(const QFileInfo &item)
{
    m_conflictItem = item;
    m_cursor = batch().FirstEntry(qMax(0, batch().IndexOf(item)));
    const QString destination = batch().ExistingDestination(item);
    const QString first = m_plan->CollidesWith(item);
    const bool canAsk = CopyQuestions::CanAsk() && m_request.conflictRule() == CommandLine::Ask;
    if (!first.isEmpty() && !canAsk) {
        m_console.Error(QStringLiteral("trellis-copy: cannot copy %1: it would be written to %2, "
                                       "where %3 was copied")
                                .arg(item.absoluteFilePath(), destination, first));
        Skip(item, true);
        return;
    }
    if (first.isEmpty() && m_rule != CommandLine::Ask) {
        Decide(item);
        return;
    }
    if (!CopyQuestions::CanAsk()) {
        m_console.Error(QStringLiteral("trellis-copy: %1 exists (copying %2), and standard input "
                                       "is not a terminal to ask on; use --on-conflict")
                                .arg(destination, item.absoluteFilePath()));
        Finish(1, QStringLiteral("Stopped"));
        return;
    }
    const QString collision = first.isEmpty()
            ? QString()
            : QStringLiteral("Both land on one name: %1 was copied there in this run.\n")
                      .arg(first);
    m_console.ClearStatus();
    m_questions.AskConflict(QStringLiteral("%1exists:    %2 (%3)\ncopying:   %4 (%5)\n")
                                    .arg(collision, destination,
                                         CopyQuestions::Facts(QFileInfo(destination)),
                                         item.absoluteFilePath(), CopyQuestions::Facts(item)));
}

void CopyController::OnConflictAnswered(CopyQuestions::ConflictAnswer answer,
                                        const QString &renameTo)
{
    switch (answer) {
    case CopyQuestions::Overwrite:
        Resume(TFileCopyTask::Overwrite);
        return;
    case CopyQuestions::Skip:
        Skip(m_conflictItem);
        return;
    case CopyQuestions::OverwriteAll:
    case CopyQuestions::SkipAll:
    case CopyQuestions::Newer:
    case CopyQuestions::Different: {
        static const CommandLine::ConflictRule rules[]
                = { CommandLine::Overwrite, CommandLine::Overwrite, CommandLine::Skip,
                    CommandLine::Skip,      CommandLine::Newer,     CommandLine::Different };
        m_rule = rules[answer];
        Decide(m_conflictItem);
        return;
    }
    case CopyQuestions::Rename:
        Rename(m_conflictItem, renameTo);
        return;
    case CopyQuestions::Quit:
        Finish(1, QStringLiteral("Quit"));
        return;
    }
}

void CopyController::OnFailureAnswered(CopyQuestions::FailureAnswer answer)
{
    if (answer == CopyQuestions::QuitAfterFailure) {
        Finish(1, QStringLiteral("Quit"));
        return;
    }
    m_continueAfterFailures = answer == CopyQuestions::ContinueAll;
    Resume(TFileCopyTask::Ask);
}

void CopyController::Decide(const QFileInfo &item)
{
    const QFileInfo destination(batch().ExistingDestination(item));
    if (ConflictJudge::Overwrites(m_rule, item, destination))
        Resume(TFileCopyTask::Overwrite);
    else
        Skip(item);
}

void CopyController::Skip(const QFileInfo &item, bool failed)
{
    const int index = batch().IndexOf(item);
    (failed ? m_tally.failed : m_tally.skipped) += EntriesOf(index);
    if (m_request.verbosity() == CommandLine::Verbose && !failed)
        m_console.Print(QStringLiteral("skipped %1").arg(item.absoluteFilePath()));
    m_cursor = batch().EndEntry(index);
    Resume(TFileCopyTask::Skip);
}

// The task can only put another destination prefix in place of the
// batch's, which gives an item a new directory but not a new name of its
// own; so the item is skipped here and copied next in a batch of its own.
void CopyController::Rename(const QFileInfo &item, const QString &renameTo)
{
    const int index = batch().IndexOf(item);
    const bool newName
            = !renameTo.contains(QLatin1Char('/')) && !renameTo.contains(QLatin1String("%1"));
    CopyBatch renamed = newName
            ? CopyBatch(QRegExp::escape(item.absoluteFilePath()),
                        QFileInfo(batch().DestinationPath(item)).absolutePath() + QLatin1Char('/')
                                + renameTo)
            : CopyBatch(batch().sourcePrefix(),
                        QDir::cleanPath(QDir::current().absoluteFilePath(renameTo)));
    renamed.Append(item, batch().entries().mid(batch().FirstEntry(index), EntriesOf(index)));
    m_cursor = batch().EndEntry(index);
    m_totalBytes += renamed.bytes();
    m_batches.insert(m_batchIndex + 1 + m_renamesInBatch++, renamed);
    Resume(TFileCopyTask::Skip);
}

void CopyController::Resume(TFileCopyTask::EFileExistsAction action)
{
    m_passRunning = true;
    TFileCopyTask *task = &m_task;
    QMetaObject::invokeMethod(
            task, [task, action] { task->Continue(action); }, Qt::QueuedConnection);
}

void CopyController::Advance(const QFileInfo &entry)
{
    const QList<QFileInfo> &entries = batch().entries();
    const QString path = entry.absoluteFilePath();
    for (int index = m_cursor; index < entries.size(); ++index) {
        if (entries.at(index).absoluteFilePath() == path) {
            m_cursor = index + 1;
            return;
        }
    }
}

void CopyController::ShowProgress()
{
    if (m_request.verbosity() == CommandLine::Quiet || !m_progressLine.Due())
        return;
    const QList<QFileInfo> &entries = batch().entries();
    const QString entry
            = m_cursor < entries.size() ? entries.at(m_cursor).absoluteFilePath() : QString();
    m_console.ShowStatus(m_progressLine.Text(m_bytesBefore + batch().bytes() * m_percent / 100,
                                             m_totalBytes, m_tally.copied, m_tally.skipped,
                                             m_tally.failed, entry, Console::Width()));
}

void CopyController::OnSignal(int signalNumber)
{
    if (signalNumber == SIGINT)
        Stop(130, QStringLiteral("Interrupted"));
    else
        Stop(1,
             QStringLiteral("Stopped by %1")
                     .arg(QString::fromLocal8Bit(::strsignal(signalNumber))));
}

void CopyController::Stop(int exitCode, const QString &verdict)
{
    if (m_finished || m_stopping)
        return;
    m_stopping = true;
    m_stopExitCode = exitCode;
    m_stopVerdict = verdict;
    m_stopWanted.store(true);
    m_task.Stop();
    m_questions.Cancel();
    if (!m_passRunning)
        Finish(exitCode, verdict);
}

void CopyController::Finish(int exitCode, const QString &verdict)
{
    if (m_finished)
        return;
    m_finished = true;
    m_questions.Cancel();
    m_console.Print(m_tally.Summary(verdict, m_request.verbosity() == CommandLine::Verbose));
    emit Finished(exitCode);
}
