#ifndef TRELLIS_COPY_COPYPLAN_H
#define TRELLIS_COPY_COPYPLAN_H

#include "CommandLine.h"
#include "CopyBatch.h"

#include <Trellis/TFileCopyNotifier.h>

#include <atomic>

/*!
    Everything a run will copy, worked out from the copy task's own plan
    (TFileCopyTask::WorkItems() and Entries()) before any byte is written:
    the batches, the entries the task's rules leave out, and the entries
    that land on a name another entry of the run is written under first
    (A.JPG and A.jpg both become A.jpg).

    The task looks for an existing destination per work item only, so an
    item holding such an entry is split into items of one entry each: the
    later one then finds the earlier one's copy, a conflict.
*/
class CopyPlan
{
public:
    struct LeftOut
    {
        QFileInfo entry;
        TFileCopyNotifier::LeftOutReason reason;
    };

    /*!
        One batch per parent directory of the sources, or one for a single
        file copied to a new name. Gives up soon after \a cancelled becomes
        true. Reads the file system only; may run in any thread.
    */
    CopyPlan(const CommandLine &request, const std::atomic<bool> &cancelled);

    const QList<CopyBatch> &batches() const { return m_batches; }
    const QList<LeftOut> &leftOut() const { return m_leftOut; }
    //! The entry written earlier in the run where \a entry is written, or "".
    QString CollidesWith(const QFileInfo &entry) const
    {
        return m_collisions.value(entry.absoluteFilePath());
    }

    //! What a dry run lists under \a rule: each item's fate, then the counts.
    QStringList DryRun(CommandLine::ConflictRule rule) const;

private:
    struct Item
    {
        QFileInfo item;
        QList<QFileInfo> entries;
        bool collides = false;
    };
    void FindCollisions(QList<QList<Item>> &items);

    QList<CopyBatch> m_batches;
    QList<LeftOut> m_leftOut;
    QHash<QString, QString> m_collisions;
};

#endif // TRELLIS_COPY_COPYPLAN_H
