#include "EntryCopier_p.h"

#include "EntryCollector_p.h"
#include "SourcePattern_p.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <utility>

EntryCopier::EntryCopier(const EntryCollector &collector, FileCopier::Report report)
    : m_collector(collector)
{
    m_options.report = std::move(report);
    m_options.stampFileTime = true;
    // A source gone before its copy is passed over, its destination
    // untouched, as a work item that has vanished.
    m_options.keepDestinationWithoutSource = true;
}

bool EntryCopier::copy(const QString &source, const SourcePattern &pattern,
                       const QString &destPrefix)
{
    if (const int unreadable = m_collector.readError(source)) {
        errno = unreadable;
        return false;
    }
    const QString destination = pattern.replaced(source, destPrefix);
    // Left unchanged, the path of an entry that the prefix does not match
    // would name the source itself.
    if (destination.isNull()) {
        errno = EINVAL;
        return false;
    }
    if (FileCopier::copy(QFile::encodeName(source), QFile::encodeName(destination), m_options,
                         FileCopier::MissingDirectory::Create, &m_kept))
        return true;
    // A directory is an entry when its listing gave nothing to copy: it is
    // made rather than copied, its source untouched (the copy of one ends
    // before the destination). Looked at only here, so that a file costs no
    // look of its own. The result of mkpath() is not looked at, by the
    // task's rules.
    const int copyError = errno;
    if (!QFileInfo(source).isDir()) {
        errno = copyError;
        return false;
    }
    QDir().mkpath(destination);
    return true;
}
