#ifndef TRELLIS_COPY_SOURCESPLITTER_H
#define TRELLIS_COPY_SOURCESPLITTER_H

#include <QFileInfo>
#include <QList>

/*!
    Splits a source into the work items that the copy task asks about one
    by one, listing directories the way the task does: files and
    subdirectories without hidden entries, in name order ignoring case,
    symbolic links followed.
*/
class SourceSplitter
{
public:
    /*!
        Returns the work items of \a source split \a depth directory levels
        down, depth first: \a source itself when it is not a directory or
        \a depth is 0, otherwise the items of its entries split one level
        less, or \a source itself when it holds no visible entry. A negative
        \a depth splits down to single files and empty directories.

        A directory that is, or contains, the directory being listed (a link
        leading back up) is left out, so every split ends.
    */
    static QList<QFileInfo> Split(const QFileInfo &source, int depth);

    //! Whether \a path is \a directory or lies inside it (both absolute and clean).
    static bool IsSameOrInside(const QString &path, const QString &directory);

private:
    static void SplitInto(const QFileInfo &info, int depth, QList<QFileInfo> &items);
};

#endif // TRELLIS_COPY_SOURCESPLITTER_H
