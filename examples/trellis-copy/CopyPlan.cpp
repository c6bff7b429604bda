#include "CopyPlan.h"

#include "ConflictJudge.h"

#include <Trellis/TFileCopyTask.h>

#include <QRegExp>
#include <QSet>

CopyPlan::CopyPlan(const CommandLine &request, const std::atomic<bool> &cancelled)
{
    QSet<QString> leftOutPaths;
    const TFileCopyTask::LeftOutReceiver leftOut =
            [this, &leftOutPaths](const QFileInfo &entry, TFileCopyNotifier::LeftOutReason reason) {
                // The split and the listing of an item may both meet an entry.
                if (!leftOutPaths.contains(entry.absoluteFilePath())) {
                    leftOutPaths.insert(entry.absoluteFilePath());
                    m_leftOut.append({ entry, reason });
                }
            };

    QList<QList<Item>> items; // by batch
    QHash<QString, int> batchOfParent;
    for (const QString &path : request.sources()) {
        if (cancelled.load())
            return;
        const QFileInfo source(path);
        // A single file copied to a new name matches its source prefix whole.
        const QString parent = request.destinationIsFileName()
                ? path
                : (source.absolutePath() == QLatin1String("/") ? QString() : source.absolutePath());
        auto batch = batchOfParent.constFind(parent);
        if (batch == batchOfParent.constEnd()) {
            batch = batchOfParent.insert(parent, m_batches.size());
            m_batches.append(CopyBatch(QRegExp::escape(parent), request.destination()));
            items.append(QList<Item>());
        }
        for (const QFileInfo &item : TFileCopyTask::WorkItems(source, request.depth(), leftOut)) {
            if (cancelled.load())
                return;
            items[*batch].append({ item, TFileCopyTask::Entries(item, leftOut) });
        }
    }
    FindCollisions(items);

    for (int batch = 0; batch < m_batches.size(); ++batch) {
        for (const Item &item : std::as_const(items.at(batch))) {
            if (!item.collides) {
                m_batches[batch].Append(item.item, item.entries);
                continue;
            }
            for (const QFileInfo &entry : item.entries)
                m_batches[batch].Append(entry, { entry });
        }
    }
}

void CopyPlan::FindCollisions(QList<QList<Item>> &items)
{
    QHash<QString, QString> firstWritten; // written path -> the entry written there first
    for (int batch = 0; batch < m_batches.size(); ++batch) {
        for (Item &item : items[batch]) {
            for (const QFileInfo &entry : std::as_const(item.entries)) {
                const QString written = m_batches.at(batch).WrittenPath(entry);
                const QString first = firstWritten.value(written);
                if (first.isEmpty()) {
                    firstWritten.insert(written, entry.absoluteFilePath());
                } else {
                    m_collisions.insert(entry.absoluteFilePath(), first);
                    item.collides = true;
                }
            }
        }
    }
}

QStringList CopyPlan::DryRun(CommandLine::ConflictRule rule) const
{
    QStringList lines;
    int copies = 0, questions = 0, overwrites = 0, skips = 0, collisions = 0;
    for (const CopyBatch &batch : m_batches) {
        for (int index = 0; index < batch.items().size(); ++index) {
            const QFileInfo &item = batch.items().at(index);
            const QString existing = batch.ExistingDestination(item);
            const QString first = CollidesWith(item);
            QString fate;
            if (!first.isEmpty()) {
                ++collisions;
                fate = QStringLiteral("collides with %1 at").arg(first);
            } else if (existing.isEmpty()) {
                for (int entry = batch.FirstEntry(index); entry < batch.EndEntry(index); ++entry)
                    lines.append(QStringLiteral("%1 -> %2")
                                         .arg(batch.entries().at(entry).absoluteFilePath(),
                                              batch.WrittenPath(batch.entries().at(entry))));
                copies += batch.EndEntry(index) - batch.FirstEntry(index);
                continue;
            } else if (rule == CommandLine::Ask) {
                ++questions;
                fate = QStringLiteral("would be asked about, exists at");
            } else if (ConflictJudge::Overwrites(rule, item, QFileInfo(existing))) {
                ++overwrites;
                fate = QStringLiteral("would overwrite");
            } else {
                ++skips;
                fate = QStringLiteral("would be skipped, exists at");
            }
            lines.append(QStringLiteral("%1 %2 %3")
                                 .arg(item.absoluteFilePath(), fate, batch.WrittenPath(item)));
        }
    }
    return lines << QStringLiteral(
                            "Dry run, nothing copied: %1 entries to copy, %2 conflicts to ask "
                            "about, %3 to overwrite, %4 to skip, %5 colliding names")
                            .arg(copies)
                            .arg(questions)
                            .arg(overwrites)
                            .arg(skips)
                            .arg(collisions);
}
