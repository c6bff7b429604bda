#ifndef TRELLIS_COPY_COPYBATCH_H
#define TRELLIS_COPY_COPYBATCH_H

#include <QFileInfo>
#include <QHash>
#include <QList>
#include <QString>
#include <QStringList>

/*!
    The work items of the sources that share one parent directory: what one
    TFileCopyTask::CopyFiles() call copies, and the paths that go with them.

    Every item's destination is its absolute path with the parent directory
    replaced by a destination prefix, so that each source lands under the
    prefix with its own name. Items are kept in the order they are copied.
*/
class CopyBatch
{
public:
    /*!
        Plans the batches for \a sources (absolute, clean paths), one per
        parent directory in the order of its first source, each source split
        \a depth levels down (SourceSplitter::Split()).
    */
    static QList<CopyBatch> Plan(const QStringList &sources, int depth);

    //! The items, in the order they are copied.
    const QList<QFileInfo> &items() const { return m_items; }

    /*!
        The sources to hand to CopyFiles() with depth 0: \a lastItem first,
        since the task works its list from the end, then the items in reverse,
        as objects of their own that share no cached status with items().
    */
    QList<QFileInfo> TaskSources(const QFileInfo &lastItem) const;

    /*!
        The source prefix for CopyFiles(): the parent directory, escaped, as
        one alternative; \a exactPath, matched whole, as the other, so that
        this one path maps to the destination prefix itself.
    */
    QString SourcePattern(const QString &exactPath) const;

    //! The index of \a item in items(), or -1.
    int IndexOf(const QFileInfo &item) const;

    /*!
        The index of the first item from \a from on that is \a entry or holds
        it, or -1.
    */
    int IndexHolding(const QFileInfo &entry, int from) const;

    //! The path of \a entry below the parent directory, as shown to users.
    QString RelativePath(const QFileInfo &entry) const;

    /*!
        Where the task copies \a entry under \a prefix, a %1 in which stands
        for the entry's complete base name.
    */
    QString DestinationPath(const QFileInfo &entry, const QString &prefix) const;

    //! Whether \a prefix holds a place marker (a '%' and a digit).
    static bool HasPlaceMarker(const QString &prefix);

private:
    explicit CopyBatch(const QString &parentPath);
    void Append(const QList<QFileInfo> &items);

    QString m_parentPath; // without a trailing '/', so empty for the root
    QList<QFileInfo> m_items;
    QHash<QString, int> m_indexes;
};

#endif // TRELLIS_COPY_COPYBATCH_H
