#include "EntryCollector_p.h"

#include "FileMeasurer_p.h"
#include "filesystem/Directory_p.h"

#include <QFile>

#include <algorithm>
#include <cerrno>
#include <memory>
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

using LeftOutReason = TFileCopyNotifier::LeftOutReason;

// Why a name that is neither a directory nor a file, through links, is left
// out: what it leads to, or that it leads nowhere.
LeftOutReason ReasonFor(const Directory &directory, const QByteArray &name)
{
    struct stat status;
    if (::fstatat(directory.fd(), name.constData(), &status, 0) != 0)
        return TFileCopyNotifier::DanglingLink;
    if (S_ISFIFO(status.st_mode))
        return TFileCopyNotifier::Fifo;
    if (S_ISSOCK(status.st_mode))
        return TFileCopyNotifier::Socket;
    return TFileCopyNotifier::Device;
}

// Appends the listed name to path as text; false when the text would not
// name it again, as with bytes the locale's encoding cannot represent. An
// ASCII name, most of them, needs neither the codec nor the way back under
// UTF-8.
bool AppendName(QString &path, const QByteArray &name, bool utf8)
{
    if (utf8 && isAscii(name)) {
        path.append(QLatin1String(name));
        return true;
    }
    const QString text = QFile::decodeName(name);
    path.append(text);
    return QFile::encodeName(text) == name;
}

} // namespace

// What the paths of entries are made of.
struct EntryCollector::Place
{
    QString filePath; // an entry named by its path: that path, as given
    // That entry's absolute, clean path; a listing's: the listed
    // directory's, ending in a slash.
    QString path;
    QString names; // a listing's: the names it admitted, one after the other
};

EntryCollector::Entry::Entry(const QString &filePath, const QString &path, qint64 size, bool isDir)
    : size(size), isDir(isDir), m_place(std::make_shared<const Place>(Place { filePath, path, {} }))
{ }

QString EntryCollector::Entry::filePath() const
{
    return isListed() ? path() : m_place->filePath;
}

QString EntryCollector::Entry::path() const
{
    // A listed name is never empty.
    if (!isListed())
        return m_place->path;
    QString path;
    path.reserve(m_place->path.size() + m_nameSize);
    path.append(m_place->path).append(m_place->names.constData() + m_nameAt, m_nameSize);
    return path;
}

const QString &EntryCollector::Entry::listedIn() const
{
    return m_place->path;
}

QStringView EntryCollector::Entry::name() const
{
    return QStringView(m_place->names).mid(int(m_nameAt), m_nameSize);
}

bool EntryCollector::Entry::pathStartsWith(const QString &text) const
{
    const QString &start = m_place->path;
    if (!isListed() || text.size() <= start.size())
        return start.startsWith(text);
    return text.startsWith(start) && name().startsWith(QStringView(text).mid(start.size()));
}

// One collection's walk: what it admits, where what it leaves out goes, and
// the directories it must not enter: those on its way down from its root,
// and those above the root. Each of them contains the directory being
// listed, so entering one again through a link would repeat the descent
// without end.
class EntryCollector::Descent
{
public:
    Descent(const QFileInfo &root, const TFileCopyTask::LeftOutReceiver *leftOut, Sizes sizes)
        : measures(sizes == Sizes::Measured), root(root), leftOut(leftOut)
    { }

    void LeaveOut(const QFileInfo &entry, LeftOutReason reason) const
    {
        if (leftOut)
            (*leftOut)(entry, reason);
    }

    // The entries of directory that a listing admits, in name order
    // ignoring case, each a Directory or a File as the listing takes it
    // (through links); the others are left out, and told in that order too.
    std::vector<DirectoryEntry> Admitted(std::vector<DirectoryEntry> &listing,
                                         const Directory &directory,
                                         const QString &pathPrefix) const
    {
        std::vector<DirectoryEntry> admitted;
        std::vector<QByteArray> leftOutNames;
        for (DirectoryEntry &entry : listing) {
            const Listed listed = directory.listedAs(entry);
            if (listed == Listed::Directory || listed == Listed::File) {
                entry.type = listed == Listed::Directory ? EntryType::Directory : EntryType::File;
                admitted.push_back(std::move(entry));
            } else if (listed == Listed::LeftOut && leftOut) {
                leftOutNames.push_back(entry.name);
            }
        }
        sortIgnoringCase(admitted);
        sortIgnoringCase(leftOutNames);
        for (const QByteArray &name : leftOutNames)
            LeaveOut(QFileInfo(pathPrefix + QFile::decodeName(name)),
                     isHiddenName(name) ? TFileCopyNotifier::HiddenName
                                        : ReasonFor(directory, name));
        return admitted;
    }

    // The files the descent takes as they are, measured while it goes on
    // when sizes are wanted.
    const bool measures;
    FileMeasurer measurer;

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
    const TFileCopyTask::LeftOutReceiver *const leftOut; // null: nothing told
    bool aboveKnown = false;
    std::vector<FileId> above;
    std::vector<FileId> path;
};

void EntryCollector::collect(const QFileInfo &info, Entries &out, int depth,
                             const TFileCopyTask::LeftOutReceiver *leftOut, Sizes sizes)
{
    if (readError(info) != 0) {
        out.emplace_back(info.filePath(), absolutePath(info), 0, false);
        return;
    }
    // One look at the root answers every question.
    const bool isDir = info.isDir();
    if (!isDir && !info.exists())
        return;
    collect(Entry(info.filePath(), absolutePath(info), info.size(), isDir), out, depth, leftOut,
            sizes);
}

void EntryCollector::collect(const Entry &entry, Entries &out, int depth,
                             const TFileCopyTask::LeftOutReceiver *leftOut, Sizes sizes)
{
    Descent descent(entry.info(), leftOut, sizes);
    const auto collectedBefore = out.size();
    collectInto(entry, out, depth, descent);
    // A name gone since its listing is passed over.
    if (descent.measurer.finish())
        out.erase(std::remove_if(out.begin() + collectedBefore, out.end(),
                                 [](const Entry &gone) { return gone.size < 0; }),
                  out.end());
}

QList<QFileInfo> EntryCollector::infos(const Entries &entries)
{
    QList<QFileInfo> infos;
    infos.reserve(int(entries.size()));
    for (const Entry &entry : entries)
        infos.append(entry.info());
    return infos;
}

void EntryCollector::collectInto(Entry entry, Entries &out, int depth, Descent &descent)
{
    // Checked first: the path of a name that could not be represented may
    // well name another file.
    if (readError(entry) != 0) {
        out.push_back(std::move(entry));
        return;
    }
    if (!entry.isDir || depth == 0) {
        out.push_back(std::move(entry));
        return;
    }

    const QString path = entry.path();
    const auto directory
            = std::make_shared<const Directory>(Directory::open(QFile::encodeName(path)));
    if (!directory->isOpen()) {
        if (errno != ENOENT && errno != ENOTDIR) // not gone meanwhile
            markUnreadable(std::move(entry), errno, out);
        return;
    }
    const FileId id = IdOf(directory->status());
    if (!descent.AtRoot() && descent.Encloses(id)) {
        descent.LeaveOut(entry.info(), TFileCopyNotifier::LinkIntoTree);
        return;
    }
    std::vector<DirectoryEntry> listing;
    if (!directory->list(listing)) {
        markUnreadable(std::move(entry), errno, out);
        return;
    }
    // A directory that gives no entry stands for itself, at its size now.
    entry.size = directory->status().st_size;

    // A negative depth never reaches 0; it is kept as it is rather than
    // counted down towards an overflow.
    const int childDepth = depth > 0 ? depth - 1 : depth;
    // What the paths of its entries are made of: its own, and their names.
    const auto place = std::make_shared<Place>();
    place->path = path.endsWith(QLatin1Char('/')) ? path : path + QLatin1Char('/');
    const std::size_t collectedBefore = out.size();
    descent.Enter(id);
    const std::vector<DirectoryEntry> admitted = descent.Admitted(listing, *directory, place->path);
    int namesSize = 0;
    for (const DirectoryEntry &listed : admitted)
        namesSize += listed.name.size();
    place->names.reserve(namesSize);
    const bool utf8 = localeIsUtf8();
    for (const DirectoryEntry &listed : admitted) {
        const int nameAt = place->names.size();
        const bool representable = AppendName(place->names, listed.name, utf8);
        Entry child(place, quint32(nameAt), quint16(place->names.size() - nameAt),
                    listed.type == EntryType::Directory);
        if (!representable) {
            markUnreadable(std::move(child), EILSEQ, out);
            continue;
        }
        if (child.isDir && childDepth != 0) {
            collectInto(std::move(child), out, childDepth, descent);
            continue;
        }
        // Taken as it is, and measured as QFileInfo would, through links.
        out.push_back(std::move(child));
        if (descent.measures && readError(out.back()) == 0)
            descent.measurer.measure(directory, listed.name, &out.back().size);
    }
    descent.Leave();
    // A directory that gave no entry (empty, hidden entries only, or only
    // links back up) is an entry of its own, so that it is recreated.
    if (out.size() == collectedBefore)
        out.push_back(std::move(entry));
}

void EntryCollector::markUnreadable(Entry entry, int error, Entries &out)
{
    m_unreadable.insert(entry.path(), error != 0 ? error : EIO);
    entry.size = 0;
    out.push_back(std::move(entry));
}

QString EntryCollector::absolutePath(const QFileInfo &entry)
{
    const QString path = entry.filePath();
    const QLatin1Char slash('/');
    // No "." or ".." component, no empty one, no slash at the end.
    const auto unclean = [slash](QChar c, QChar next) {
        return c == slash && (next == slash || next == QLatin1Char('.'));
    };
    const bool clean = path.startsWith(slash)
            && std::adjacent_find(path.cbegin(), path.cend(), unclean) == path.cend()
            && (path.size() == 1 || !path.endsWith(slash));
    return clean ? path : entry.absoluteFilePath();
}
