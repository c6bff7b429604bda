#include "SourceSplitter.h"

#include <QDir>

QList<QFileInfo> SourceSplitter::Split(const QFileInfo &source, int depth)
{
    QList<QFileInfo> items;
    SplitInto(source, depth, items);
    return items;
}

void SourceSplitter::SplitInto(const QFileInfo &info, int depth, QList<QFileInfo> &items)
{
    if (!info.isDir() || depth == 0) {
        items.append(info);
        return;
    }
    const QString canonicalPath = info.canonicalFilePath();
    const QFileInfoList entries
            = QDir(info.absoluteFilePath())
                      .entryInfoList(QDir::Dirs | QDir::Files | QDir::NoDotAndDotDot,
                                     QDir::Name | QDir::IgnoreCase);
    const int itemsBefore = items.size();
    for (const QFileInfo &entry : entries) {
        if (entry.isDir() && IsSameOrInside(canonicalPath, entry.canonicalFilePath()))
            continue;
        SplitInto(entry, depth - 1, items);
    }
    if (items.size() == itemsBefore)
        items.append(info);
}

bool SourceSplitter::IsSameOrInside(const QString &path, const QString &directory)
{
    return path == directory || directory == QLatin1String("/")
            || path.startsWith(directory + QLatin1Char('/'));
}
