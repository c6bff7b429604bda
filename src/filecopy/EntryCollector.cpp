#include "EntryCollector_p.h"

#include "filesystem/Directory_p.h"

#include <QDir>
#include <QFile>

#include <algorithm>
#include <cerrno>
#include <vector>

#include <sys/stat.h>

namespace {

// The identity of a file, the same through every link or mount that leads to it.
struct FileId
{
    dev_t device;
    ino_t inode;

    bool operator==(const FileId &other) const
    {
        return device == other.device && inode == other.inode;
    }
};

FileId IdOf(const struct stat &status)
{
    return { status.st_dev, status.st_ino };
}

bool Contains(const std::vector<FileId> &ids, const FileId &id)
{
    return std::find(ids.cbegin(), ids.cend(), id) != ids.cend();
}

// The names in directory that a listing admits, in name order ignoring case.
std::vector<QByteArray> AdmittedNames(const std::vector<DirectoryEntry> &entries,
                                      const Directory &directory)
{
    std::vector<QByteArray> names;
    for (const DirectoryEntry &entry : entries) {
        if (isHiddenName(entry.name))
            continue;
        const EntryType type
                = entry.type == EntryType::Link ? directory.targetTypeOf(entry.name) : entry.type;
        if (type == EntryType::Directory || type == EntryType::File)
            names.push_back(entry.name);
    }
    sortIgnoringCase(names);
    return names;
}

} // namespace

// The directories that a collection must not enter: those on its way down
// from its root, and those above the root. Each of them contains the
// directory being listed, so entering one again through a link would repeat
// the descent without end.
class EntryCollector::Descent
{
public:
    explicit Descent(const QFileInfo &root) : root(root) { }

    bool AtRoot() const { return path.empty(); }
    void Enter(const FileId &id) { path.push_back(id); }
    void Leave() { path.pop_back(); }

    bool Encloses(const FileId &id)
    {
        // Looked up when first needed: most collections are of single files
        // or of directories without subdirectories.
        if (!aboveKnown) {
            aboveKnown = true;
            QString directory = root.canonicalFilePath();
            while (!directory.isEmpty() && directory != QLatin1String("/")) {
                directory = QFileInfo(directory).path();
                struct stat status;
                if (::stat(QFile::encodeName(directory).constData(), &status) == 0)
                    above.push_back(IdOf(status));
            }
        }
        return Contains(path, id) || Contains(above, id);
    }

private:
    const QFileInfo root;
    bool aboveKnown = false;
    std::vector<FileId> above;
    std::vector<FileId> path;
};

void EntryCollector::collect(const QFileInfo &info, QList<QFileInfo> &out, int depth)
{
    Descent descent(info);
    collectInto(info, out, depth, descent);
}

void EntryCollector::collectInto(const QFileInfo &info, QList<QFileInfo> &out, int depth,
                                 Descent &descent)
{
    // Checked first: the path of a name that could not be represented may
    // well name another file.
    if (isUnreadable(info)) {
        out.append(info);
        return;
    }
    // One look at the entry answers both questions.
    const bool isDir = info.isDir();
    if (!isDir && !info.exists())
        return;
    if (!isDir || depth == 0) {
        out.append(info);
        return;
    }

    const Directory directory = Directory::open(QFile::encodeName(info.absoluteFilePath()));
    if (!directory.isOpen()) {
        if (errno != ENOENT && errno != ENOTDIR) // not gone meanwhile
            markUnreadable(info, out);
        return;
    }
    const FileId id = IdOf(directory.status());
    if (!descent.AtRoot() && descent.Encloses(id))
        return;
    std::vector<DirectoryEntry> entries;
    if (!directory.list(entries)) {
        markUnreadable(info, out);
        return;
    }

    // A negative depth never reaches 0; it is kept as it is rather than
    // counted down towards an overflow.
    const int childDepth = depth > 0 ? depth - 1 : depth;
    const QDir parent(info.absoluteFilePath());
    const int collectedBefore = out.size();
    descent.Enter(id);
    for (const QByteArray &name : AdmittedNames(entries, directory)) {
        const QString decoded = QFile::decodeName(name);
        const QFileInfo child(parent, decoded);
        if (QFile::encodeName(decoded) != name)
            markUnreadable(child, out);
        else
            collectInto(child, out, childDepth, descent);
    }
    descent.Leave();
    // A directory that gave no entry (empty, hidden entries only, or only
    // links back up) is an entry of its own, so that it is recreated.
    if (out.size() == collectedBefore)
        out.append(info);
}

void EntryCollector::markUnreadable(const QFileInfo &entry, QList<QFileInfo> &out)
{
    m_unreadable.insert(entry.absoluteFilePath());
    out.append(entry);
}
