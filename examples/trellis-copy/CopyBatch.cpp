#include "CopyBatch.h"

#include <Trellis/TFileCopyTask.h>
#include <Trellis/TFileSystemHelper.h>

CopyBatch::CopyBatch(const QString &sourcePrefix, const QString &destinationPrefix)
    : m_sourcePrefix(sourcePrefix), m_destinationPrefix(destinationPrefix)
{ }

void CopyBatch::Append(const QFileInfo &item, const QList<QFileInfo> &entries)
{
    m_indexes.insert(item.absoluteFilePath(), m_items.size());
    m_items.append(item);
    m_entries.append(entries);
    m_itemStarts.append(m_entries.size());
    for (const QFileInfo &entry : entries)
        m_bytes += entry.size();
}

void CopyBatch::CopyWith(TFileCopyTask &task) const
{
    QList<QFileInfo> sources;
    // Fresh objects: the task's thread fills in their cached status while
    // this thread keeps using the items. The task works from the end.
    for (auto item = m_items.crbegin(); item != m_items.crend(); ++item)
        sources.append(QFileInfo(item->absoluteFilePath()));
    // Only hands the batch over and queues the pass; callable from any thread.
    task.CopyFiles(sources, m_sourcePrefix, m_destinationPrefix, 0);
}

QString CopyBatch::DestinationPath(const QFileInfo &entry) const
{
    return TFileCopyTask::DestinationPath(entry, m_sourcePrefix, m_destinationPrefix);
}

QString CopyBatch::WrittenPath(const QFileInfo &entry) const
{
    const QString path = DestinationPath(entry);
    return entry.isDir() ? path : TFileSystemHelper::FileCopyLowerCaseDestFilename(path);
}

QString CopyBatch::ExistingDestination(const QFileInfo &item) const
{
    for (const QString &path : { WrittenPath(item), DestinationPath(item) }) {
        if (QFileInfo::exists(path))
            return path;
    }
    return QString();
}
