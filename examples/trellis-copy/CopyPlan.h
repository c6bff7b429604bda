#ifndef TRELLIS_COPY_COPYPLAN_H
#define TRELLIS_COPY_COPYPLAN_H

#include "CopyBatch.h"

#include <Trellis/TFileCopyNotifier.h>

#include <QHash>
#include <QList>

#include <atomic>

class CommandLine;

/*!
    Everything a trellis-copy run will copy, worked out before any byte is
    written, from the copy task's own plan (TFileCopyTask::WorkItems() and
    Entries()): the batches, the entries the task's rules leave out, and
    the entries that would land on a name another entry of the run is
    written under first (A.JPG and A.jpg both become A.jpg).

    The task checks for an existing destination per work item only, so an
    item holding such an entry is split into its entries, each an item of
    its own: the later one then finds the earlier one's copy and is a
    conflict, never written over it unasked.
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
        Plans the copy that \a request describes: one batch per parent
        directory of the sources, in the order of its first source, or one
        for a single file copied to a new name. Gives up, leaving the plan
        incomplete, soon after \a cancelled becomes true. Reads the file
        system only; may run in any thread.
    */
    CopyPlan(const CommandLine &request, const std::atomic<bool> &cancelled);

    const QList<CopyBatch> &batches() const { return m_batches; }
    const QList<LeftOut> &leftOut() const { return m_leftOut; }
    //! The bytes of all batches, as the task measures them.
    qint64 bytes() const;

    /*!
        The entry whose copy is written earlier in the run under the name
        that \a entry is written under, or an empty string.
    */
    QString CollidesWith(const QFileInfo &entry) const
    {
        return m_collisions.value(entry.absoluteFilePath());
    }

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
