#include "TreeCopy_p.h"

#include "DirectoryPath_p.h"
#include "FileCopier_p.h"
#include "FlushPool_p.h"
#include "time/FileStamp_p.h"

#include <QDir>
#include <QFile>

#include <cerrno>

#include <sys/stat.h>

namespace {

// What one source directory gives the copy, by the rules of a directory
// listing in Qt: no hidden names, no special files, no links to nothing; a
// link counts as what it leads to. Each part in name order ignoring case.
struct Listing
{
    std::vector<QByteArray> directories;
    std::vector<QByteArray> files;
    std::vector<QByteArray> leftOut; // only when asked for
    bool complete = true; // false when the directory could not be listed
};

Listing list(const Directory &directory, bool withLeftOut)
{
    Listing listing;
    std::vector<DirectoryEntry> entries;
    listing.complete = directory.list(entries);
    for (const DirectoryEntry &entry : entries) {
        switch (directory.listedAs(entry)) {
        case Listed::Directory:
            listing.directories.push_back(entry.name);
            break;
        case Listed::File:
            listing.files.push_back(entry.name);
            break;
        case Listed::LeftOut:
            if (withLeftOut)
                listing.leftOut.push_back(entry.name);
            break;
        case Listed::Gone:
            break;
        }
    }
    sortIgnoringCase(listing.directories);
    sortIgnoringCase(listing.files);
    sortIgnoringCase(listing.leftOut);
    return listing;
}

// The deepest directory of path that exists, as the kernel reads the path
// (links followed), and the names below it still to be created. Not open
// when a part of the path cannot be passed (not a directory, no search
// permission).
Directory deepestExisting(const QByteArray &path, QList<QByteArray> &missing)
{
    Directory directory = Directory::open(path.startsWith('/') ? "/" : ".");
    const QList<QByteArray> names = path.split('/');
    for (int i = 0; i < names.size() && directory.isOpen(); ++i) {
        if (names[i].isEmpty())
            continue;
        Directory child = directory.openChild(names[i], Directory::Links::Follow);
        if (!child.isOpen() && errno == ENOENT) {
            missing = names.mid(i);
            missing.removeAll(QByteArray());
            return directory;
        }
        directory = std::move(child);
    }
    return directory;
}

// Whether directory is the one status describes or lies below it, going up
// through ".." to the root of the file system.
bool liesWithin(const Directory &directory, const struct stat &status)
{
    if (directory.isSame(status))
        return true;
    struct stat below = directory.status();
    Directory current = directory.openChild("..", Directory::Links::Follow);
    while (current.isOpen()) {
        if (current.isSame(status))
            return true;
        if (current.isSame(below))
            return false; // the root, its own parent
        below = current.status();
        current = current.openChild("..", Directory::Links::Follow);
    }
    return false;
}

// One CopyDir() call: the two descents, and one frame per directory of
// them, iteratively, so the tree's depth is not the stack's.
class Copy
{
public:
    Copy(Directory source, Directory destination, const QString &sourceTop, QStringList *leftOut)
        : m_source(std::move(source)), m_destination(std::move(destination)),
          m_sourceTop(sourceTop), m_leftOut(leftOut)
    { }

    bool run()
    {
        pushFrame({});
        bool result = true;
        while (!m_frames.empty()) {
            Frame &frame = m_frames.back();
            if (frame.nextDirectory < frame.listing.directories.size()) {
                const QByteArray name = frame.listing.directories[frame.nextDirectory++];
                if (!enter(name))
                    frame.ok = false; // the frame stays put: enter() added none
                continue;
            }
            result = leave();
        }
        // Every file copied is on the disk before the copy is reported.
        m_flushPool.waitForAll();
        return result;
    }

private:
    struct Frame
    {
        Listing listing;
        std::size_t nextDirectory;
        bool ok;
        QByteArray name; // in the parent directory
    };

    // Enters the source directory name and its copy, creating the copy
    // when missing. False, and nothing created, for a directory already on
    // the descent (a cycle of links) or on the destination's (a link that
    // leads into the copy); false too when either cannot be opened.
    bool enter(const QByteArray &name)
    {
        if (!m_source.push(name, Directory::Links::Follow))
            return false;
        const Directory *source = m_source.innermost();
        if (m_source.innermostRepeats() || m_destination.contains(source->status())) {
            m_source.pop();
            return false;
        }
        const Directory *destination = m_destination.innermost();
        if (!destination
            || (::mkdirat(destination->fd(), name.constData(), 0777) != 0 && errno != EEXIST)
            || !m_destination.push(name, Directory::Links::DoNotFollow)) {
            m_source.pop();
            return false;
        }
        if (m_source.contains(m_destination.innermost()->status())) {
            m_source.pop();
            m_destination.pop();
            return false;
        }
        pushFrame(name);
        return true;
    }

    void pushFrame(const QByteArray &name)
    {
        m_frames.push_back({ list(*m_source.innermost(), m_leftOut), 0, true, name });
        if (!m_leftOut)
            return;
        // Named by path, for the caller: the top as given, the rest as the
        // descent went.
        QString directory = m_sourceTop;
        for (std::size_t i = 1; i < m_frames.size(); ++i)
            directory += QLatin1Char('/') + QFile::decodeName(m_frames[i].name);
        for (const QByteArray &leftOut : m_frames.back().listing.leftOut)
            m_leftOut->append(directory + QLatin1Char('/') + QFile::decodeName(leftOut));
    }

    // The innermost directory's subdirectories are done: copies its files
    // when they all were, stamps its copy, and goes back up. The result of
    // the directory left.
    bool leave()
    {
        Frame frame = std::move(m_frames.back());
        m_frames.pop_back();
        bool ok = frame.ok && frame.listing.complete;
        const Directory *source = m_source.innermost();
        const Directory *destination = m_destination.innermost();
        if (!source || !destination) {
            ok = false;
        } else if (frame.ok) {
            FileCopier::Options options;
            options.stampFileTime = true;
            options.flushPool = &m_flushPool;
            for (const QByteArray &file : frame.listing.files)
                ok = FileCopier::copy(source->fd(), file, destination->fd(), file, options) && ok;
        }
        if (destination)
            stampWithOffsetClock(destination->fd());
        if (!m_frames.empty()) {
            m_source.pop();
            m_destination.pop();
            m_frames.back().ok = m_frames.back().ok && ok;
        }
        return ok;
    }

    DirectoryPath m_source;
    DirectoryPath m_destination;
    const QString m_sourceTop;
    QStringList *const m_leftOut;
    std::vector<Frame> m_frames;
    FlushPool m_flushPool;
};

} // namespace

bool TreeCopy::run(const QString &sourceDir, const QString &destDir, QStringList *leftOut)
{
    // A missing source lists nothing; one that cannot be opened otherwise
    // is a failure, after the destination is made all the same.
    Directory source = Directory::open(QFile::encodeName(sourceDir));
    const bool sourceMissing = !source.isOpen() && (errno == ENOENT || errno == ENOTDIR);

    QList<QByteArray> missing;
    Directory destination = deepestExisting(QFile::encodeName(destDir), missing);
    if (!destination.isOpen())
        return false;
    // A destination that is the source or lies inside it, by device and
    // inode, so that no alias (a link, a bind mount) gets past.
    if (source.isOpen() && liesWithin(destination, source.status()))
        return false;
    for (const QByteArray &name : missing) {
        if (::mkdirat(destination.fd(), name.constData(), 0777) != 0 && errno != EEXIST)
            return false;
        destination = destination.openChild(name, Directory::Links::DoNotFollow);
        if (!destination.isOpen())
            return false;
    }

    if (!source.isOpen()) {
        stampWithOffsetClock(destination.fd());
        return sourceMissing;
    }
    return Copy(std::move(source), std::move(destination), QDir::cleanPath(sourceDir), leftOut)
            .run();
}
