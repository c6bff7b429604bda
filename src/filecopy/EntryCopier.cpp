#include "EntryCopier_p.h"

#include "filesystem/Directory_p.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <algorithm>
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
    return FileCopier::copy(QFile::encodeName(source), QFile::encodeName(destination), m_options,
                            FileCopier::MissingDirectory::Create, &m_kept)
            || madeAsDirectory(source, destination);
}

bool EntryCopier::copy(const EntryCollector::Entry &entry, const SourcePattern &pattern,
                       const QString &destPrefix)
{
    const Listing *listing = entry.isListed() && m_collector.readError(entry) == 0
            ? &listingOf(entry, pattern, destPrefix)
            : nullptr;
    if (!listing || listing->destination.isNull())
        return copy(entry.path(), pattern, destPrefix);
    const QByteArray &name = encoded(entry.name());
    return FileCopier::copy(listing->sourceDirectory, name, listing->destDirectory, name, m_options,
                            FileCopier::MissingDirectory::Create, m_kept)
            || madeAsDirectory(entry.path(), listing->destination + entry.name().toString());
}

const EntryCopier::Listing &EntryCopier::listingOf(const EntryCollector::Entry &entry,
                                                   const SourcePattern &pattern,
                                                   const QString &destPrefix)
{
    if (entry.listedIn() == m_listing.directory && destPrefix == m_listing.destPrefix
        && pattern == m_listing.pattern)
        return m_listing;
    m_listing.directory = entry.listedIn();
    m_listing.pattern = pattern;
    m_listing.destPrefix = destPrefix;
    // Paths and names are encoded apart, which only an encoding that takes
    // each character on its own allows.
    const QString destination = pattern.replacedDirectory(m_listing.directory, destPrefix);
    const bool byName = destination.endsWith(QLatin1Char('/')) && localeIsUtf8();
    m_listing.destination = byName ? destination : QString();
    m_listing.sourceDirectory = byName ? m_listing.directory.toStdString() : std::string();
    m_listing.destDirectory = byName ? destination.toStdString() : std::string();
    return m_listing;
}

const QByteArray &EntryCopier::encoded(QStringView name)
{
    // Most names are ASCII, whose characters are their bytes.
    const auto isAscii = [](QChar c) { return c.unicode() < 0x80; };
    if (!std::all_of(name.begin(), name.end(), isAscii))
        return m_name = name.toUtf8();
    m_name.resize(int(name.size()));
    std::transform(name.begin(), name.end(), m_name.begin(),
                   [](QChar c) { return char(c.unicode()); });
    return m_name;
}

bool EntryCopier::madeAsDirectory(const QString &source, const QString &destination)
{
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
