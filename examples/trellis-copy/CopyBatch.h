#ifndef TRELLIS_COPY_COPYBATCH_H
#define TRELLIS_COPY_COPYBATCH_H

#include <QFileInfo>
#include <QHash>
#include <QList>
#include <QString>

/*!
    What one TFileCopyTask::CopyFiles() call copies: work items, each copied
    as a source of its own (depth 0), the prefixes that place them, and
    every entry that the items hold, as the task's plan gives them.

    Items and entries are kept in the order they are copied.
*/
class CopyBatch
{
public:
    /*!
        A batch whose items go where \a sourcePrefix (a regular expression,
        as CopyFiles() takes it) is replaced by \a destinationPrefix.
    */
    CopyBatch(const QString &sourcePrefix, const QString &destinationPrefix);

    //! Appends \a item, which holds \a entries (TFileCopyTask::Entries()).
    void Append(const QFileInfo &item, const QList<QFileInfo> &entries);

    QString sourcePrefix() const { return m_sourcePrefix; }
    QString destinationPrefix() const { return m_destinationPrefix; }
    const QList<QFileInfo> &items() const { return m_items; }
    const QList<QFileInfo> &entries() const { return m_entries; }
    //! The batch's size as the task measures it: every entry's size, directories included.
    qint64 bytes() const { return m_bytes; }

    //! The index of \a item in items(), or -1.
    int IndexOf(const QFileInfo &item) const;
    //! The range of the entries of the item at \a index: [first, end).
    int FirstEntry(int index) const { return m_itemStarts.at(index); }
    int EndEntry(int index) const { return m_itemStarts.at(index + 1); }

    //! The sources for CopyFiles(): the items, last first, as fresh objects.
    QList<QFileInfo> TaskSources() const;

    //! Where \a entry goes: TFileCopyTask::DestinationPath() with this batch's prefixes.
    QString DestinationPath(const QFileInfo &entry) const;
    //! The name the copy of \a entry is written under: for a file, with its extension lower-cased.
    QString WrittenPath(const QFileInfo &entry) const;
    /*!
        The destination of \a item that exists, under its written name or
        its own, or an empty string when neither exists.
    */
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
