//
//  W A R N I N G
//  -------------
//
// This file is not part of the Trellis API. It is internal to the library
// and may change or disappear from one version to the next.

#ifndef TRELLIS_DIRECTORY_P_H
#define TRELLIS_DIRECTORY_P_H

#include <QByteArray>

#include <algorithm>
#include <vector>

#include <sys/stat.h>

// What a directory listing says an entry is. The file system usually tells
// without a further look at the disk; where it does not, the entry is
// looked at without following a link.
enum class EntryType { Directory, File, Link, Special, Gone };

struct DirectoryEntry
{
    QByteArray name; // as the file system gives it, in no particular encoding
    EntryType type;
};

// Names beginning with '.' are hidden: the walks leave them alone, as a
// directory listing by Qt's rules does.
inline bool isHiddenName(const QByteArray &name)
{
    return name.startsWith('.');
}

// Whether file names are encoded in UTF-8, which passes ASCII through
// unchanged both ways. Asked anew each time: an application may change the
// locale's codec.
bool localeIsUtf8();

inline bool isAscii(const QByteArray &name)
{
    return std::all_of(name.cbegin(), name.cend(), [](char c) { return uchar(c) < 0x80; });
}

// What a walk by the rules of a Qt directory listing (QDir::Dirs |
// QDir::Files, neither hidden nor system entries) makes of an entry: a
// directory or a file, a link counting as what it leads to; one it leaves
// out (a hidden name, a special file, a link to nothing or to a special
// file); or one that vanished meanwhile.
enum class Listed { Directory, File, LeftOut, Gone };

// Sorts names ignoring case, as QDir::Name | QDir::IgnoreCase sorts; names
// equal but for case in byte order, so that the order is always the same.
void sortIgnoringCase(std::vector<QByteArray> &names);
void sortIgnoringCase(std::vector<DirectoryEntry> &entries);

// An open directory, known by its descriptor and closed when the object
// ends. Everything below it is reached relative to the descriptor, so a
// directory above it that is renamed, or swapped for a symbolic link, after
// it was opened never redirects a call.
//
// Every call keeps errno as the failing system call left it.
class Directory
{
public:
    enum class Links { Follow, DoNotFollow };

    Directory() = default;
    Directory(Directory &&other) noexcept;
    Directory &operator=(Directory &&other) noexcept;
    Directory(const Directory &) = delete;
    Directory &operator=(const Directory &) = delete;
    ~Directory() { close(); }

    // Opens the directory that path names as the caller names it: a
    // symbolic link there, or on the way, is followed. Not open on failure,
    // and when path names no directory (errno ENOTDIR). A directory that may
    // be searched but not read is opened all the same, to reach the names
    // in it; its listing then fails.
    static Directory open(const QByteArray &path);

    // Opens the directory name holds, relative to this one. With
    // Links::DoNotFollow a symbolic link there is not opened (errno ELOOP
    // or ENOTDIR).
    Directory openChild(const QByteArray &name, Links links) const;

    bool isOpen() const { return m_fd >= 0; }
    int fd() const { return m_fd; }
    const struct stat &status() const { return m_status; }
    bool isSame(const struct stat &other) const
    {
        return m_status.st_dev == other.st_dev && m_status.st_ino == other.st_ino;
    }
    void close();

    // The entries other than "." and "..", in the order the file system
    // gives them. False when the listing failed part-way or could not
    // start; entries holds what was read.
    bool list(std::vector<DirectoryEntry> &entries) const;

    // The type of name, without following a link.
    EntryType typeOf(const QByteArray &name) const;
    // The type of what name leads to, following links: never Link; Gone for
    // a link to nothing.
    EntryType targetTypeOf(const QByteArray &name) const;

    // How a listing by Qt's rules takes entry, one of this directory's.
    Listed listedAs(const DirectoryEntry &entry) const;

private:
    explicit Directory(int fd);
    static Directory openAt(int dirFd, const QByteArray &name, int extraFlags);

    int m_fd = -1;
    struct stat m_status
    {
    };
};

#endif // TRELLIS_DIRECTORY_P_H
