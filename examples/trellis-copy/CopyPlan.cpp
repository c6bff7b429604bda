#include "CopyPlan.h"

#include <Trellis/TFileCopyTask.h>
#include <Trellis/TFileSystemHelper.h>

#include <QDateTime>
#include <QDir>
#include <QRegExp>
#include <QSet>

#include <utility>

// The task can only put another destination prefix in place of the batch's,
// which gives an item a new directory but not a name of its own; so a new
// name takes a batch whose source prefix is the item's whole path.
CopyPlan::Batch::Batch(const Batch &batch, const QFileInfo &item, const QString &renameTo)
    : m_sourcePrefix(batch.m_sourcePrefix),
      m_destinationPrefix(QDir::cleanPath(QDir::current().absoluteFilePath(renameTo)))
{
    if (!renameTo.contains(QLatin1Char('/')) && !renameTo.contains(QLatin1String("%1"))) {
        m_sourcePrefix = QRegExp::escape(item.absoluteFilePath());
        m_destinationPrefix
                = QFileInfo(batch.WrittenPath(item)).absolutePath() + QLatin1Char('/') + renameTo;
    }
    const auto [first, end] = batch.EntryRange(item);
    Append(item, batch.entries().mid(first, end - first));
}

void CopyPlan::Batch::Append(const QFileInfo &item, const QList<QFileInfo> &entries)
{
    // Each entry has its range too, which tells the entry after it.
    for (const QFileInfo &entry : entries) {
        m_entryRanges.insert(entry.absoluteFilePath(), { m_entries.size(), m_entries.size() + 1 });
        m_entries.append(entry);
        m_bytes += entry.size();
    }
    m_entryRanges.insert(item.absoluteFilePath(),
                         { m_entries.size() - entries.size(), m_entries.size() });
    m_items.append(item);
}

void CopyPlan::Batch::CopyWith(TFileCopyTask &task) const
{
    QList<QFileInfo> sources;
    // Fresh objects: the task's thread fills in their cached status while
    // this thread keeps using the items. The task works from the end.
    for (auto item = m_items.crbegin(); item != m_items.crend(); ++item)
        sources.append(QFileInfo(item->absoluteFilePath()));
    // Only hands the batch over and queues the pass; callable from any thread.
    task.CopyFiles(sources, m_sourcePrefix, m_destinationPrefix, 0);
}

QString CopyPlan::Batch::WrittenPath(const QFileInfo &entry) const
{
    const QString path = TFileCopyTask::DestinationPath(entry, m_sourcePrefix, m_destinationPrefix);
    return entry.isDir() ? path : TFileSystemHelper::FileCopyLowerCaseDestFilename(path);
}

QString CopyPlan::Batch::ExistingDestination(const QFileInfo &item) const
{
    return TFileCopyTask::ExistingDestination(item, m_sourcePrefix, m_destinationPrefix);
}

bool CopyPlan::Batch::Overwrites(CommandLine::ConflictRule rule, const QFileInfo &item) const
{
    const QFileInfo destination(ExistingDestination(item));
    return rule == CommandLine::Overwrite
            || (rule == CommandLine::Newer && item.lastModified() > destination.lastModified())
            || (rule == CommandLine::Different
                && (item.size() != destination.size()
                    || item.lastModified() != destination.lastModified()));
}

CopyPlan::CopyPlan(const CommandLine &request, const std::atomic<bool> &cancelled)
{
    QSet<QString> leftOutPaths;
    const auto onLeftOut = [this, &leftOutPaths](const QFileInfo &entry,
                                                 TFileCopyNotifier::LeftOutReason reason) {
        // The split and the listing of an item may both meet an entry.
        if (!leftOutPaths.contains(entry.absoluteFilePath())) {
            leftOutPaths.insert(entry.absoluteFilePath());
            leftOut.append({ entry, reason });
        }
    };
    QHash<QString, QString> firstWritten; // written path -> the entry written there first
    QString previousParent;
    for (const QString &path : request.sources) {
        const QFileInfo source(path);
        // A single file copied to a new name matches its source prefix whole.
        const QString parent = request.destinationIsFileName  ? path
                : source.absolutePath() == QLatin1String("/") ? QString()
                                                              : source.absolutePath();
        // A batch for each run of sources in one directory, so that the copy keeps their order.
        if (parent != std::exchange(previousParent, parent) || m_batches.isEmpty())
            m_batches.append(Batch(QRegExp::escape(parent), request.destination));
        Batch &batch = m_batches.last();
        for (const QFileInfo &item : TFileCopyTask::WorkItems(source, request.depth, onLeftOut)) {
            if (cancelled.load())
                return;
            const QList<QFileInfo> entries = TFileCopyTask::Entries(item, onLeftOut);
            bool collides = false;
            for (const QFileInfo &entry : entries) {
                const QString written = batch.WrittenPath(entry);
                const QString first = firstWritten.value(written);
                if (!first.isEmpty())
                    m_collisions.insert(entry.absoluteFilePath(), first);
                else
                    firstWritten.insert(written, entry.absoluteFilePath());
                collides = collides || !first.isEmpty();
            }
            if (!collides) {
                batch.Append(item, entries);
                continue;
            }
            for (const QFileInfo &entry : entries)
                batch.Append(entry, { entry });
        }
    }
}

qint64 CopyPlan::bytes() const
{
    qint64 bytes = 0;
    for (const Batch &batch : m_batches)
        bytes += batch.bytes();
    return bytes;
}

QStringList CopyPlan::DryRun(CommandLine::ConflictRule rule) const
{
    enum Fate { Copied, Asked, Overwritten, Skipped, Colliding };
    const QString fates[]
            = { QString(), QStringLiteral("would be asked about, exists at"),
                QStringLiteral("would overwrite"), QStringLiteral("would be skipped, exists at") };
    int counts[5] = {};
    QStringList lines;
    for (const Batch &batch : m_batches) {
        for (const QFileInfo &item : batch.items()) {
            const QString first = CollidesWith(item);
            const Fate fate = !first.isEmpty()                  ? Colliding
                    : batch.ExistingDestination(item).isEmpty() ? Copied
                    : rule == CommandLine::Ask                  ? Asked
                    : batch.Overwrites(rule, item)              ? Overwritten
                                                                : Skipped;
            if (fate != Copied) {
                ++counts[fate];
                const QString how = fate == Colliding
                        ? QStringLiteral("collides with %1 at").arg(first)
                        : fates[fate];
                lines.append(QStringLiteral("%1 %2 %3")
                                     .arg(item.absoluteFilePath(), how, batch.WrittenPath(item)));
                continue;
            }
            const auto [firstEntry, end] = batch.EntryRange(item);
            for (const QFileInfo &entry : batch.entries().mid(firstEntry, end - firstEntry))
                lines.append(QStringLiteral("%1 -> %2")
                                     .arg(entry.absoluteFilePath(), batch.WrittenPath(entry)));
            counts[Copied] += end - firstEntry;
        }
    }
    return lines << QStringLiteral("Dry run, nothing copied: %1 entries to copy, %2 conflicts to "
                                   "ask about, %3 to overwrite, %4 to skip, %5 colliding names")
                            .arg(QString::number(counts[Copied]), QString::number(counts[Asked]),
                                 QString::number(counts[Overwritten]),
                                 QString::number(counts[Skipped]),
                                 QString::number(counts[Colliding]));
}
