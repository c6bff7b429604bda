#include "Directory_p.h"

#include <QFile>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <utility>

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

namespace {

// Opening never blocks, not even on a name that turned into a FIFO or a
// device meanwhile, and never makes a terminal the process's own.
constexpr int OpenDirectoryFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;

int openDirectoryAt(int dirFd, const char *name, int extraFlags)
{
    int fd;
    do {
        fd = ::openat(dirFd, name, OpenDirectoryFlags | extraFlags);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

EntryType typeOf(const struct stat &status)
{
    if (S_ISDIR(status.st_mode))
        return EntryType::Directory;
    if (S_ISREG(status.st_mode))
        return EntryType::File;
    if (S_ISLNK(status.st_mode))
        return EntryType::Link;
    return EntryType::Special;
}

struct DirCloser
{
    void operator()(DIR *stream) const { ::closedir(stream); }
};

template<typename Item, typename NameOf>
void sortByNameIgnoringCase(std::vector<Item> &items, NameOf nameOf)
{
    if (items.size() < 2)
        return;
    // Names all in ASCII, most listings, order as their decoded text would
    // under UTF-8, without being decoded: ASCII lower-cases only A to Z.
    if (localeIsUtf8() && std::all_of(items.cbegin(), items.cend(), [nameOf](const Item &item) {
            return isAscii(nameOf(item));
        })) {
        std::sort(items.begin(), items.end(), [nameOf](const Item &a, const Item &b) {
            const int order = nameOf(a).compare(nameOf(b), Qt::CaseInsensitive);
            return order < 0 || (order == 0 && nameOf(a) < nameOf(b));
        });
        return;
    }
    // Each name is decoded and lower-cased once, not at every comparison.
    std::vector<std::pair<QString, Item>> keyed;
    keyed.reserve(items.size());
    for (Item &item : items)
        keyed.emplace_back(QFile::decodeName(nameOf(item)).toLower(), std::move(item));
    std::sort(keyed.begin(), keyed.end(), [nameOf](const auto &a, const auto &b) {
        return a.first < b.first || (a.first == b.first && nameOf(a.second) < nameOf(b.second));
    });
    for (std::size_t i = 0; i < items.size(); ++i)
        items[i] = std::move(keyed[i].second);
}

} // namespace

bool localeIsUtf8()
{
    return QFile::encodeName(QStringLiteral("\u00e9")) == "\xc3\xa9";
}

void sortIgnoringCase(std::vector<QByteArray> &names)
{
    sortByNameIgnoringCase(names,
                           [](const QByteArray &name) -> const QByteArray & { return name; });
}

void sortIgnoringCase(std::vector<DirectoryEntry> &entries)
{
    sortByNameIgnoringCase(
            entries, [](const DirectoryEntry &entry) -> const QByteArray & { return entry.name; });
}

Directory::Directory(int fd) : m_fd(fd)
{
    if (m_fd >= 0 && ::fstat(m_fd, &m_status) != 0)
        close();
}

Directory::Directory(Directory &&other) noexcept
    : m_fd(std::exchange(other.m_fd, -1)), m_status(other.m_status)
{ }

Directory &Directory::operator=(Directory &&other) noexcept
{
    if (this != &other) {
        close();
        m_fd = std::exchange(other.m_fd, -1);
        m_status = other.m_status;
    }
    return *this;
}

void Directory::close()
{
    if (m_fd >= 0) {
        const int savedErrno = errno;
        ::close(m_fd);
        errno = savedErrno;
    }
    m_fd = -1;
}

Directory Directory::open(const QByteArray &path)
{
    return openAt(AT_FDCWD, path, 0);
}

Directory Directory::openChild(const QByteArray &name, Links links) const
{
    return openAt(m_fd, name, links == Links::Follow ? 0 : O_NOFOLLOW);
}

Directory Directory::openAt(int dirFd, const QByteArray &name, int extraFlags)
{
    int fd = openDirectoryAt(dirFd, name.constData(), extraFlags);
    // A directory that may be searched but not read still serves to reach
    // and create the names in it; only its listing fails.
    if (fd < 0 && errno == EACCES)
        fd = ::openat(dirFd, name.constData(), O_PATH | O_DIRECTORY | O_CLOEXEC | extraFlags);
    return Directory(fd);
}

bool Directory::list(std::vector<DirectoryEntry> &entries) const
{
    // A descriptor of its own, so the listing has its own position: "."
    // relative to this descriptor is this very directory.
    const int fd = openDirectoryAt(m_fd, ".", 0);
    if (fd < 0)
        return false;
    const std::unique_ptr<DIR, DirCloser> stream(::fdopendir(fd));
    if (!stream) {
        ::close(fd);
        return false;
    }
    for (;;) {
        errno = 0;
        const dirent *entry = ::readdir(stream.get());
        if (!entry)
            return errno == 0;
        const QByteArray name(entry->d_name);
        if (name == "." || name == "..")
            continue;
        EntryType type;
        switch (entry->d_type) {
        case DT_DIR:
            type = EntryType::Directory;
            break;
        case DT_REG:
            type = EntryType::File;
            break;
        case DT_LNK:
            type = EntryType::Link;
            break;
        case DT_UNKNOWN:
            type = typeOf(name);
            break;
        default:
            type = EntryType::Special;
            break;
        }
        entries.push_back({ name, type });
    }
}

EntryType Directory::typeOf(const QByteArray &name) const
{
    struct stat status;
    if (::fstatat(m_fd, name.constData(), &status, AT_SYMLINK_NOFOLLOW) != 0)
        return EntryType::Gone;
    return ::typeOf(status);
}

EntryType Directory::targetTypeOf(const QByteArray &name) const
{
    struct stat status;
    if (::fstatat(m_fd, name.constData(), &status, 0) != 0)
        return EntryType::Gone;
    return ::typeOf(status);
}

Listed Directory::listedAs(const DirectoryEntry &entry) const
{
    if (isHiddenName(entry.name))
        return Listed::LeftOut;
    switch (entry.type == EntryType::Link ? targetTypeOf(entry.name) : entry.type) {
    case EntryType::Directory:
        return Listed::Directory;
    case EntryType::File:
        return Listed::File;
    case EntryType::Gone: // a link to nothing, or a name removed meanwhile
        return entry.type == EntryType::Link ? Listed::LeftOut : Listed::Gone;
    default:
        return Listed::LeftOut;
    }
}
