#ifndef TRELLIS_COPY_COPYBATCH_H
#define TRELLIS_COPY_COPYBATCH_H

#include <QFileInfo>
#include <QHash>

class TFileCopyTask;

/*!
    What one TFileCopyTask::CopyFiles() call copies: work items, each a
    source of its own (depth 0), the prefixes that place them, and the
    entries they hold as TFileCopyTask::Entries() gives them, all in the
    order they are copied.
*/
class CopyBatch
{
public:
    //! \a sourcePrefix is a regular expression, as CopyFiles() takes it.
    CopyBatch(const QString &sourcePrefix, const QString &destinationPrefix);

    void Append(const QFileInfo &item, const QList<QFileInfo> &entries);

    QString sourcePrefix() const { return m_sourcePrefix; }
    const QList<QFileInfo> &items() const { return m_items; }
    const QList<QFileInfo> &entries() const { return m_entries; }
    //! The size as the task measures it: every entry's, directories included.
    qint64 bytes() const { return m_bytes; }

    //! The index of \a item in items(), or -1.
    int IndexOf(const QFileInfo &item) const
    {
        return m_indexes.value(item.absoluteFilePath(), -1);
    }
    //! The entries of the item at \a index are [FirstEntry(index), EndEntry(index)).
    int FirstEntry(int index) const { return m_itemStarts.at(index); }
    int EndEntry(int index) const { return m_itemStarts.at(index + 1); }

    //! Hands the batch to \a task.
    void CopyWith(TFileCopyTask &task) const;

    QString DestinationPath(const QFileInfo &entry) const;
    //! The name the copy of \a entry is written under: a file's with its extension lower-cased.
    QString WrittenPath(const QFileInfo &entry) const;
    //! The destination of \a item that exists, under its written name or its own, or "".
    QString ExistingDestination(const QFileInfo &item) const;

private:
    QString m_sourcePrefix;
    QString m_destinationPrefix;
    QList<QFileInfo> m_items;
    QList<QFileInfo> m_entries;
    QList<int> m_itemStarts { 0 };
    QHash<QString, int> m_indexes;
    qint64 m_bytes = 0;
};

#endif // TRELLIS_COPY_COPYBATCH_H
