#include "TreeDelete_p.h"

#include "DirectoryPath_p.h"

#include <QDir>
#include <QFile>

#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <unistd.h>

namespace {

// Removes a file, or a link as a link. A regular file that stays gets the
// permissions QFile::WriteUser alone, unless it has other names whose
// permissions those are too. The permissions of a removed file cannot be
// seen, so they are changed only when the removal failed, and then on the
// inode that was looked at, never on what the name holds a moment later.
// True when nothing is left under name.
bool removeFile(const Directory &directory, const QByteArray &name)
{
    if (::unlinkat(directory.fd(), name.constData(), 0) == 0 || errno == ENOENT)
        return true;
    const int fd = ::openat(directory.fd(), name.constData(), O_PATH | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0)
        return errno == ENOENT; // gone meanwhile
    struct stat status;
    if (::fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink == 1) {
        // A descriptor opened with O_PATH cannot be given to fchmod(); its
        // name under /proc reaches the same inode.
        char procName[32];
        std::snprintf(procName, sizeof procName, "/proc/self/fd/%d", fd);
        ::chmod(procName, S_IWUSR);
    }
    ::close(fd);
    return false;
}

// One directory of the descent: its listing, taken when the walk entered
// it, and how far the walk got.
struct Frame
{
    std::vector<DirectoryEntry> entries;
    std::size_t next = 0;
    QByteArray name; // in its parent
};

class Walk
{
public:
    Walk(Directory root, bool ignoreErrors) : m_path(std::move(root)), m_ignoreErrors(ignoreErrors)
    { }

    // Deletes what the root holds. False at the first failure when errors
    // are not ignored; with errors ignored, false only when the walk could
    // not get back to a directory it had left.
    bool run()
    {
        Frame root;
        if (!m_path.innermost()->list(root.entries) && !m_ignoreErrors)
            return false;
        m_frames.push_back(std::move(root));

        while (!m_frames.empty()) {
            Frame &frame = m_frames.back();
            if (frame.next == frame.entries.size()) {
                if (!leaveDirectory())
                    return false;
                continue;
            }
            // A copy: entering a directory adds a frame, which may move this one.
            const DirectoryEntry entry = frame.entries[frame.next++];
            if (!isHiddenName(entry.name) && !deleteEntry(entry))
                return false;
        }
        return true;
    }

private:
    // False when the walk must stop.
    bool deleteEntry(const DirectoryEntry &entry)
    {
        const Directory *directory = m_path.innermost();
        if (!directory)
            return false;
        switch (entry.type) {
        case EntryType::Directory:
            return enterDirectory(entry.name);
        case EntryType::File:
            return removeFile(*directory, entry.name) || m_ignoreErrors;
        case EntryType::Link:
            switch (directory->targetTypeOf(entry.name)) {
            case EntryType::Directory:
            case EntryType::File:
                break;
            default:
                return true; // not seen: a dangling link or one to a special file
            }
            return removeFile(*directory, entry.name) || m_ignoreErrors;
        case EntryType::Special:
        case EntryType::Gone:
            return true;
        }
        return true;
    }

    bool enterDirectory(const QByteArray &name)
    {
        const Directory *parent = m_path.innermost();
        if (!parent)
            return false;
        if (!m_path.push(name, Directory::Links::DoNotFollow)) {
            if (errno == ENOENT)
                return true; // gone meanwhile
            if (errno == ELOOP || errno == ENOTDIR) {
                // Replaced meanwhile: whatever is there now is deleted by
                // the rules for what it is, a link as a link.
                const EntryType type = parent->typeOf(name);
                return type == EntryType::Directory || deleteEntry({ name, type });
            }
            // One that cannot be entered is still removed when it is empty.
            return ::unlinkat(parent->fd(), name.constData(), AT_REMOVEDIR) == 0 || m_ignoreErrors;
        }
        Frame frame;
        frame.name = name;
        if (!m_path.innermost()->list(frame.entries) && !m_ignoreErrors)
            return false;
        m_frames.push_back(std::move(frame));
        return true;
    }

    // The innermost directory is done: back to its parent, which removes it.
    bool leaveDirectory()
    {
        const QByteArray name = std::move(m_frames.back().name);
        m_frames.pop_back();
        if (m_frames.empty())
            return true;
        m_path.pop();
        const Directory *parent = m_path.innermost();
        if (!parent)
            return false;
        return ::unlinkat(parent->fd(), name.constData(), AT_REMOVEDIR) == 0 || m_ignoreErrors;
    }

    DirectoryPath m_path;
    std::vector<Frame> m_frames;
    const bool m_ignoreErrors;
};

} // namespace

bool TreeDelete::run(const QString &dirPath, bool ignoreErrors, bool deleteRootDir)
{
    QDir dir(dirPath);
    if (!dir.exists())
        return true;
    Directory root = Directory::open(QFile::encodeName(dir.path()));
    const bool emptied = root.isOpen() && Walk(std::move(root), ignoreErrors).run();
    if (!emptied && !ignoreErrors)
        return false;
    if (!deleteRootDir)
        return emptied || ignoreErrors;

    // The top is the caller's to name, so it is removed through its parent
    // as the caller names it.
    const QString name = dir.dirName();
    dir.cdUp();
    return dir.rmdir(name);
}
