#ifndef TRELLIS_COPY_COPYPLAN_H
#define TRELLIS_COPY_COPYPLAN_H

#include "CommandLine.h"

#include <Trellis/TFileCopyNotifier.h>

#include <QFileInfo>
#include <QHash>

#include <atomic>

class TFileCopyTask;

/*!
    Everything a run will copy, from the copy task's own plan, before any byte
    is written. An entry written where another of the run was (A.JPG and A.jpg
    both become A.jpg) is an item of its own: the task then finds the earlier
    copy, a conflict, since it looks for existing destinations per item only.
*/
class CopyPlan
{
public:
    //! What one CopyFiles() call copies: work items (at depth 0) with their entries, in order.
    class Batch
    {
    public:
        //! \a sourcePrefix is a regular expression, as CopyFiles() takes it.
        Batch(const QString &sourcePrefix, const QString &destinationPrefix)
            : m_sourcePrefix(sourcePrefix), m_destinationPrefix(destinationPrefix)
        { }
        //! A batch of \a item alone, from \a batch, renamed as the user typed: see --help.
        Batch(const Batch &batch, const QFileInfo &item, const QString &renameTo);

        void Append(const QFileInfo &item, const QList<QFileInfo> &entries);
        void CopyWith(TFileCopyTask &task) const;

        const QList<QFileInfo> &items() const { return m_items; }
        const QList<QFileInfo> &entries() const { return m_entries; }
        //! As the task measures it: every entry's size, directories included.
        qint64 bytes() const { return m_bytes; }
        //! The entries of \a item, or \a item the entry, are entries()[first, second).
        QPair<int, int> EntryRange(const QFileInfo &item) const
        {
            return m_entryRanges.value(item.absoluteFilePath());
        }

        //! The name the copy of \a entry is written under: a file's with its extension lower-cased.
        QString WrittenPath(const QFileInfo &entry) const;
        //! What exists at \a item's destination, as the copy task tests it, or "".
        QString ExistingDestination(const QFileInfo &item) const;
        //! Whether \a rule overwrites the existing destination of \a item.
        bool Overwrites(CommandLine::ConflictRule rule, const QFileInfo &item) const;

    private:
        QString m_sourcePrefix;
        QString m_destinationPrefix;
        QList<QFileInfo> m_items;
        QList<QFileInfo> m_entries;
        QHash<QString, QPair<int, int>> m_entryRanges; // by item and by entry
        qint64 m_bytes = 0;
    };

    //! Gives up soon after \a cancelled becomes true. May run in any thread.
    CopyPlan(const CommandLine &request, const std::atomic<bool> &cancelled);

    //! The entries the task's rules leave out, and why.
    QList<QPair<QFileInfo, TFileCopyNotifier::LeftOutReason>> leftOut;

    const QList<Batch> &batches() const { return m_batches; }
    //! For a renamed item.
    void Insert(int index, const Batch &batch) { m_batches.insert(index, batch); }
    //! Of all batches, as the task measures them.
    qint64 bytes() const;
    //! The entry written earlier in the run where \a entry is written, or "".
    QString CollidesWith(const QFileInfo &entry) const
    {
        return m_collisions.value(entry.absoluteFilePath());
    }
    //! What a dry run lists under \a rule: each item's fate, then the counts.
    QStringList DryRun(CommandLine::ConflictRule rule) const;

private:
    QList<Batch> m_batches;
    QHash<QString, QString> m_collisions;
};

#endif // TRELLIS_COPY_COPYPLAN_H
