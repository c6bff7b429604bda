#include "TreeDelete_p.h"

#include "DirectoryPath_p.h"
#include "ThreadStart_p.h"

#include <QDir>
#include <QFile>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <thread>

#include <fcntl.h>
#include <unistd.h>

namespace {

// Deleting is mostly waiting for the file system, which serves several
// directories at once even on one processor.
constexpr std::size_t MaxThreads = 4;

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

// A walk below the root, by one thread. Walks of other threads may share
// the failure flag: with errors not ignored, the first failure of any stops
// them all.
class Walk
{
public:
    Walk(Directory root, bool ignoreErrors, std::atomic<bool> &failed)
        : m_path(std::move(root)), m_ignoreErrors(ignoreErrors), m_failed(failed)
    { }

    // Deletes entries, listed from the root, and everything below them.
    // False at the first failure when errors are not ignored; with errors
    // ignored, false only when the walk could not get back to a directory
    // it had left.
    bool run(std::vector<DirectoryEntry> entries)
    {
        if (!m_path.innermost()->isOpen())
            return stop();
        m_frames.push_back({ std::move(entries), 0, QByteArray() });
        while (!m_frames.empty()) {
            if (m_failed.load(std::memory_order_relaxed) && !m_ignoreErrors)
                return stop();
            Frame &frame = m_frames.back();
            if (frame.next == frame.entries.size()) {
                if (!leaveDirectory())
                    return stop();
                continue;
            }
            // A copy: entering a directory adds a frame, which may move this one.
            const DirectoryEntry entry = frame.entries[frame.next++];
            if (!isHiddenName(entry.name) && !deleteEntry(entry))
                return stop();
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

    // Ends a walk that failed, ready for the next run().
    bool stop()
    {
        m_failed = true;
        while (m_path.depth() > 0)
            m_path.pop();
        m_frames.clear();
        return false;
    }

    DirectoryPath m_path;
    std::vector<Frame> m_frames;
    const bool m_ignoreErrors;
    std::atomic<bool> &m_failed;
};

// Empties root: its subdirectories by up to MaxThreads threads, the calling
// one among them, each taking the next subdirectory left; what else it
// holds in the calling thread. Fewer threads when no more can be started.
bool empty(const Directory &root, bool ignoreErrors)
{
    std::vector<DirectoryEntry> entries;
    if (!root.list(entries) && !ignoreErrors)
        return false;
    const auto firstSubdirectory
            = std::stable_partition(entries.begin(), entries.end(), [](const DirectoryEntry &e) {
                  return e.type != EntryType::Directory;
              });
    std::vector<DirectoryEntry> subdirectories(firstSubdirectory, entries.end());
    entries.erase(firstSubdirectory, entries.end());

    std::atomic<bool> failed { false };
    std::atomic<std::size_t> next { 0 };
    const auto work = [&] {
        // Each thread its own descriptor of the root, for its own descent.
        Walk walk(root.openChild(".", Directory::Links::DoNotFollow), ignoreErrors, failed);
        for (std::size_t i = next++; i < subdirectories.size(); i = next++)
            walk.run({ subdirectories[i] });
    };
    std::vector<std::thread> helpers;
    while (helpers.size() + 1 < std::min(MaxThreads, subdirectories.size())
           && tryStartThread(helpers, work)) { }
    work();
    for (std::thread &helper : helpers)
        helper.join();
    Walk(root.openChild(".", Directory::Links::DoNotFollow), ignoreErrors, failed)
            .run(std::move(entries));
    return !failed;
}

} // namespace

bool TreeDelete::run(const QString &dirPath, bool ignoreErrors, bool deleteRootDir)
{
    QDir dir(dirPath);
    if (!dir.exists())
        return true;
    const Directory root = Directory::open(QFile::encodeName(dir.path()));
    const bool emptied = root.isOpen() && empty(root, ignoreErrors);
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
