#include "CopyBatch.h"

#include "SourceSplitter.h"

#include <QRegExp>
#include <QRegularExpression>

CopyBatch::CopyBatch(const QString &parentPath)
    : m_parentPath(parentPath == QLatin1String("/") ? QString() : parentPath)
{ }

QList<CopyBatch> CopyBatch::Plan(const QStringList &sources, int depth)
{
    QList<CopyBatch> batches;
    QHash<QString, int> batchOfParent;
    for (const QString &path : sources) {
        const QFileInfo source(path);
        const QString parent = source.absolutePath();
        auto found = batchOfParent.constFind(parent);
        if (found == batchOfParent.constEnd()) {
            found = batchOfParent.insert(parent, batches.size());
            batches.append(CopyBatch(parent));
        }
        batches[*found].Append(SourceSplitter::Split(source, depth));
    }
    return batches;
}

void CopyBatch::Append(const QList<QFileInfo> &items)
{
    for (const QFileInfo &item : items) {
        m_indexes.insert(item.absoluteFilePath(), m_items.size());
        m_items.append(item);
    }
}

QList<QFileInfo> CopyBatch::TaskSources(const QFileInfo &lastItem) const
{
    QList<QFileInfo> sources;
    sources.reserve(m_items.size() + 1);
    sources.append(QFileInfo(lastItem.absoluteFilePath()));
    // Fresh objects: the task's thread fills in their cached status while
    // this thread keeps using the items.
    for (auto item = m_items.crbegin(); item != m_items.crend(); ++item)
        sources.append(QFileInfo(item->absoluteFilePath()));
    return sources;
}

QString CopyBatch::SourcePattern(const QString &exactPath) const
{
    return QStringLiteral("(?:%1$|%2)")
            .arg(QRegExp::escape(exactPath), QRegExp::escape(m_parentPath));
}

int CopyBatch::IndexOf(const QFileInfo &item) const
{
    return m_indexes.value(item.absoluteFilePath(), -1);
}

int CopyBatch::IndexHolding(const QFileInfo &entry, int from) const
{
    const QString path = entry.absoluteFilePath();
    for (int index = qMax(from, 0); index < m_items.size(); ++index) {
        const QString itemPath = m_items.at(index).absoluteFilePath();
        if (path == itemPath || path.startsWith(itemPath + QLatin1Char('/')))
            return index;
    }
    return -1;
}

QString CopyBatch::RelativePath(const QFileInfo &entry) const
{
    return entry.absoluteFilePath().mid(m_parentPath.size() + 1);
}

QString CopyBatch::DestinationPath(const QFileInfo &entry, const QString &prefix) const
{
    // The same substitution as the task's: only a text with a place marker
    // goes through QString::arg(), which warns about one without.
    const QString effectivePrefix
            = HasPlaceMarker(prefix) ? prefix.arg(entry.completeBaseName()) : prefix;
    return effectivePrefix + entry.absoluteFilePath().mid(m_parentPath.size());
}

bool CopyBatch::HasPlaceMarker(const QString &prefix)
{
    static const QRegularExpression marker(QStringLiteral("%L?\\d"));
    return prefix.contains(marker);
}
