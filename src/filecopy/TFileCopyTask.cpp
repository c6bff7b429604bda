#include "TFileCopyTask.h"

#include "DestinationPrefix_p.h"
#include "EntryCollector_p.h"
#include "EntryCopier_p.h"
#include "SourcePattern_p.h"
#include "filesystem/FlushPool_p.h"

#include <QMetaMethod>
#include <QMetaType>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <mutex>
#include <utility>

#include <unistd.h>

namespace {

// How deep a work item is collected when it is measured and when it is copied.
constexpr int WorkItemDepth = 100;

// A QFileInfo of the same path that shares no cached state with info, for
// signals whose receivers may use it in another thread.
QFileInfo Detached(const QFileInfo &info)
{
    return QFileInfo(info.filePath());
}

// Whether action decides differently for an item whose destination exists:
// the overwriting actions, and values outside the enum, copy it either way.
bool ConflictMatters(TFileCopyTask::EFileExistsAction action)
{
    return action == TFileCopyTask::Ask || action == TFileCopyTask::Skip
            || action == TFileCopyTask::SkipAll;
}

} // namespace

class TFileCopyTaskPrivate
{
public:
    TFileCopyTaskPrivate(TFileCopyTask *q, TFileCopyNotifier *notifier,
                         TFileCopyTask::EFileExistsAction action)
        : q(q), notifier(notifier),
          reportLeftOut(
                  [notifier](const QFileInfo &entry, TFileCopyNotifier::LeftOutReason reason) {
                      emit notifier->EntryLeftOut(Detached(entry), reason);
                  }),
          fileExistsAction(action),
          copier(collector, [q](qint64 bytes) { return q->OnBytesWritten(bytes); })
    { }

    QString EffectivePrefix() const { return altDestPrefix.isEmpty() ? destPrefix : altDestPrefix; }

    void ExpandBatch()
    {
        bytesTotal = 0;
        pending.clear();
        collector.clear();
        const auto unmatched
                = [this](const EntryCollector::Entry &item) { return !srcPattern.matches(item); };
        for (const QFileInfo &source : std::as_const(sources)) {
            // Collected straight into the list, which can be long: what the
            // pattern does not match is taken out again.
            const auto first = pending.size();
            collector.collect(source, pending, depth, &reportLeftOut);
            pending.erase(std::remove_if(pending.begin() + first, pending.end(), unmatched),
                          pending.end());
            for (auto item = pending.cbegin() + first; item != pending.cend(); ++item) {
                // The item was looked at moments ago; only a directory's
                // size needs another look, at its contents.
                if (!item->isDir) {
                    bytesTotal += item->size;
                } else {
                    EntryCollector::Entries entries;
                    collector.collect(*item, entries, WorkItemDepth);
                    for (const EntryCollector::Entry &entry : entries)
                        bytesTotal += entry.size;
                }
            }
        }
        bytesDone = 0;
        state = TFileCopyTask::StateCopying;
    }

    // Copies an entry and tells of it; false when it failed.
    bool CopyEntry(const EntryCollector::Entry &entry, const DestinationPrefix &prefix)
    {
        if (copier.copy(entry, srcPattern, prefix.For(entry))) {
            ++filesCopied;
            // Made only for a receiver, and for this entry alone, so that no
            // receiver in another thread shares its cache with the pass.
            static const QMetaMethod fileCopied
                    = QMetaMethod::fromSignal(&TFileCopyTask::FileCopied);
            if (q->isSignalConnected(fileCopied))
                emit q->FileCopied(entry.info());
            return true;
        }
        // Gone before its copy, which left its destination alone: passed
        // over as a vanished work item is.
        const int error = errno;
        if (error == ENOENT && !QFileInfo::exists(entry.path()))
            return true;
        emit notifier->EntryFailed(entry.info(), error);
        return false;
    }

    int RunningPercent() const
    {
        // 100 belongs to the end of a completed batch. More bytes than were
        // measured (files that grew) or nothing measured reads 99 as well.
        if (bytesDone >= bytesTotal)
            return 99;
        return std::min(99, qRound(double(bytesDone) / double(bytesTotal) * 100.0));
    }

    TFileCopyTask *const q;
    TFileCopyNotifier *const notifier; // a child of the task
    const TFileCopyTask::LeftOutReceiver reportLeftOut;

    // A std::mutex rather than a QMutex: the same lock, but one whose
    // hand-overs ThreadSanitizer sees, also when it is contended.
    std::mutex mutex;
    int filesCopied = 0;
    int filesSkipped = 0;
    int state = TFileCopyTask::StateFinished;
    qint64 bytesTotal = 0;
    qint64 bytesDone = 0;
    TFileCopyTask::EFileExistsAction fileExistsAction;
    QList<QFileInfo> sources;
    EntryCollector::Entries pending; // the items still to copy, the next one last
    int depth = 0;
    QString destPrefix;
    QString altDestPrefix;
    SourcePattern srcPattern { QRegExp() };
    EntryCollector collector;
    // Reports to OnBytesWritten() as FileCopyWithProgress() would, in this
    // thread, without looking the slot up by name for every report. Its
    // flush pool and kept directories are the running pass's: forgotten at
    // its end, so that no pass finds a directory by an earlier pass's look.
    EntryCopier copier;
    std::atomic<bool> stopRequested { false };
};

TFileCopyTask::TFileCopyTask(EFileExistsAction action)
    : QObject(nullptr),
      d(std::make_unique<TFileCopyTaskPrivate>(this, new TFileCopyNotifier(this), action))
{
    qRegisterMetaType<QFileInfo>("QFileInfo");
}

TFileCopyTask::~TFileCopyTask() = default;

void TFileCopyTask::CopyFiles(const QList<QFileInfo> &sources, const QString &srcPrefix,
                              const QString &destPrefix, int depth)
{
    const std::lock_guard<std::mutex> locker(d->mutex);
    // Objects of the task's own: the caller's keep caches that the caller's
    // thread may fill while the pass reads these in the task's thread.
    d->sources.clear();
    d->sources.reserve(sources.size());
    for (const QFileInfo &source : sources)
        d->sources.append(Detached(source));
    d->srcPattern = SourcePattern::forPrefix(srcPrefix);
    d->destPrefix = destPrefix;
    d->filesCopied = 0;
    d->filesSkipped = 0;
    d->state = StatePreparing;
    d->bytesTotal = 0;
    d->bytesDone = 0;
    d->depth = depth;
    // Queued while the mutex is held, so the pass cannot start before the
    // batch is complete.
    QMetaObject::invokeMethod(this, &TFileCopyTask::Run, Qt::QueuedConnection);
    emit Progress(0, 0, 0);
}

TFileCopyNotifier *TFileCopyTask::Notifier() const
{
    return d->notifier;
}

QList<QFileInfo> TFileCopyTask::WorkItems(const QFileInfo &source, int depth,
                                          const LeftOutReceiver &leftOut)
{
    EntryCollector::Entries items;
    EntryCollector().collect(Detached(source), items, depth, leftOut ? &leftOut : nullptr);
    return EntryCollector::infos(items);
}

QList<QFileInfo> TFileCopyTask::Entries(const QFileInfo &workItem, const LeftOutReceiver &leftOut)
{
    return WorkItems(workItem, WorkItemDepth, leftOut);
}

QString TFileCopyTask::DestinationPath(const QFileInfo &entry, const QString &srcPrefix,
                                       const QString &destPrefix)
{
    return SourcePattern::forPrefix(srcPrefix).replaced(
            EntryCollector::absolutePath(entry),
            DestinationPrefix(destPrefix).For(entry.filePath()));
}

QString TFileCopyTask::ExistingDestination(const QFileInfo &workItem, const QString &srcPrefix,
                                           const QString &destPrefix)
{
    return DestinationPrefix(destPrefix)
            .existingDestination(Detached(workItem), SourcePattern::forPrefix(srcPrefix));
}

void TFileCopyTask::Stop()
{
    d->stopRequested = true;
}

void TFileCopyTask::SetFileExistAction(EFileExistsAction action)
{
    const std::lock_guard<std::mutex> locker(d->mutex);
    d->fileExistsAction = action;
}

void TFileCopyTask::Continue(EFileExistsAction action)
{
    const std::lock_guard<std::mutex> locker(d->mutex);
    d->fileExistsAction = action;
    // An answer that arrives before a new batch was expanded (one meant for
    // the batch it replaced) must not skip the expansion.
    if (d->state != StatePreparing)
        d->state = StateCopying;
    QMetaObject::invokeMethod(this, &TFileCopyTask::Run, Qt::QueuedConnection);
}

void TFileCopyTask::ContinueOverwrite()
{
    Continue(Overwrite);
}

void TFileCopyTask::ContinueOverwriteAll()
{
    Continue(OverwriteAll);
}

void TFileCopyTask::ContinueSkip()
{
    Continue(Skip);
}

void TFileCopyTask::ContinueSkipAll()
{
    Continue(SkipAll);
}

void TFileCopyTask::ContinueRename(EFileExistsAction action, const QString &altDestPrefix)
{
    {
        const std::lock_guard<std::mutex> locker(d->mutex);
        d->altDestPrefix = altDestPrefix;
    }
    Continue(action);
}

void TFileCopyTask::Run()
{
    // Cleared before the lock: a stop requested before this pass began is
    // not meant for it.
    d->stopRequested = false;
    std::unique_lock<std::mutex> locker(d->mutex);
    // The last flush of each file is left to threads of the pass's own, so
    // that copying goes on meanwhile; the pass ends when all are done.
    FlushPool flushPool;
    d->copier.setFlushPool(&flushPool);

    if (d->state == StatePreparing)
        d->ExpandBatch();
    if (d->pending.empty()) {
        emit Progress(100, 0, 0);
        d->state = StateFinished;
    }

    EntryCollector::Entries entries; // the current item's, in one buffer for all
    while (d->state == StateCopying) {
        const DestinationPrefix prefix(d->EffectivePrefix());
        const EntryCollector::Entry &measured = d->pending.back();
        const bool conflictMatters = ConflictMatters(d->fileExistsAction);
        entries.clear();
        bool skip = false;
        if (!conflictMatters && !measured.isDir) {
            // A file that only has to be copied is copied as the batch
            // measured it: the copy finds out for itself whether it is
            // still there.
            entries.push_back(measured);
        } else {
            // Any other item is looked at anew.
            const QFileInfo item = measured.info();
            if (conflictMatters && !prefix.existingDestination(item, d->srcPattern).isNull()) {
                if (d->fileExistsAction == Ask)
                    d->state = StateFileExists;
                else
                    skip = true; // Skip or SkipAll
            }
            if (d->state == StateCopying)
                d->collector.collect(
                        item, entries, WorkItemDepth, skip ? nullptr : &d->reportLeftOut,
                        skip ? EntryCollector::Sizes::Measured : EntryCollector::Sizes::NotNeeded);
        }

        if (d->state == StateCopying) {
            for (const EntryCollector::Entry &entry : entries) {
                if (skip) {
                    ++d->filesSkipped;
                    d->bytesDone += entry.size;
                } else if (!d->CopyEntry(entry, prefix)) {
                    d->state = StateCopyFailed;
                    break;
                }
                if (d->stopRequested)
                    break;
            }
            d->pending.pop_back();
            d->altDestPrefix.clear();
            if (d->fileExistsAction == Overwrite || d->fileExistsAction == Skip)
                d->fileExistsAction = Ask;
        }

        if (d->pending.empty() || d->stopRequested) {
            d->state = StateFinished;
            ::sync();
        }
    }

    // Every file that the pass copied is on the disk before it reports.
    flushPool.waitForAll();
    d->copier.setFlushPool(nullptr);
    d->copier.forgetDirectories();
    // A stop asked for by a receiver of this pass's reports, also of the
    // one for nothing to do, holds back the report of a completed batch.
    if (d->pending.empty() && !d->stopRequested)
        emit Progress(100, d->filesCopied, d->filesSkipped);
    const int state = d->state;
    const QFileInfo currentFile = d->pending.empty() ? QFileInfo() : d->pending.back().info();
    locker.unlock();
    emit State(state, currentFile);
}

bool TFileCopyTask::OnBytesWritten(qint64 bytes)
{
    d->bytesDone += bytes;
    emit Progress(d->RunningPercent(), d->filesCopied, d->filesSkipped);
    return !d->stopRequested;
}

bool TFileCopyTask::CopyFile(const QFileInfo &fileInfo, QRegExp pattern, const QString &destPrefix)
{
    const QString source = EntryCollector::absolutePath(fileInfo);
    // The batch's own pattern is prepared already.
    if (pattern == d->srcPattern.regExp())
        return d->copier.copy(source, d->srcPattern, destPrefix);
    return d->copier.copy(source, SourcePattern(pattern), destPrefix);
}
