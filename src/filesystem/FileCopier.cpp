#include "FileCopier_p.h"

#include "FileDescriptor_p.h"
#include "FlushPool_p.h"
#include "time/FileStamp_p.h"

#include "TFileSystemHelper.h"

#include <QDir>
#include <QFile>
#include <QMetaObject>
#include <QObject>

#include <algorithm>
#include <cerrno>
#include <string_view>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

// With a 32-bit off_t, files past 2 GiB could be neither copied nor removed
// correctly; 32-bit builds must be compiled with -D_FILE_OFFSET_BITS=64 (the
// build does so).
static_assert(sizeof(off_t) == 8, "Trellis needs a 64-bit off_t");

namespace {

// How often a name that reappears at the destination after its removal is
// removed again before the copy gives up.
constexpr int CreateAttempts = 8;

// The bytes of a '.' and three characters of up to four bytes each.
constexpr int MaxExtensionBytes = 13;

bool isSameFile(const struct stat &a, const struct stat &b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// What lies at a destination name before a copy.
enum class Occupant { Nothing, Source, Other };

// One look without following a link answers for the common cases: nothing
// there, or a file that is not a link and so reaches the source only by
// being it. Only a link costs a second look, through it. Without a source,
// anything there is Other.
Occupant occupant(int dir, const QByteArray &name, const struct stat *source)
{
    struct stat status;
    if (::fstatat(dir, name.constData(), &status, AT_SYMLINK_NOFOLLOW) != 0)
        return Occupant::Nothing;
    if (source && S_ISLNK(status.st_mode) && ::fstatat(dir, name.constData(), &status, 0) != 0)
        return Occupant::Other; // a link to nothing
    return source && isSameFile(status, *source) ? Occupant::Source : Occupant::Other;
}

// Removes a file, or a symbolic link as a link; true when nothing is left
// under name.
bool removeName(int dir, const QByteArray &name)
{
    return ::unlinkat(dir, name.constData(), 0) == 0 || errno == ENOENT;
}

// Creates the copy as a new file. A name that something put back after the
// removals is removed again, a few times; the copy never opens what it did
// not create.
int createDestination(int dir, const QByteArray &name)
{
    for (int attempt = 0; attempt < CreateAttempts; ++attempt) {
        const int fd
                = ::openat(dir, name.constData(),
                           O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC, 0666);
        if (fd >= 0)
            return fd;
        if ((errno != EEXIST && errno != EINTR) || !removeName(dir, name))
            return -1;
    }
    return -1;
}

// The permissions QFile::setPermissions(source.permissions() |
// QFile::WriteOther) gives a copy. QFile reports besides the owner's bits
// what the calling user may do with the file, and grants that to the owner
// of the copy; an owner bit that is set already needs no question.
mode_t copyMode(int sourceDir, const char *sourceName, mode_t sourceMode)
{
    mode_t mode = (sourceMode & (S_IRWXU | S_IRWXG | S_IRWXO)) | S_IWOTH;
    const std::pair<mode_t, int> ownerBits[]
            = { { S_IRUSR, R_OK }, { S_IWUSR, W_OK }, { S_IXUSR, X_OK } };
    for (const auto &[bit, access] : ownerBits) {
        if (!(mode & bit) && ::faccessat(sourceDir, sourceName, access, 0) == 0)
            mode |= bit;
    }
    return mode;
}

// A source opened for a copy, or why it could not be opened.
struct Source
{
    Source(int dir, const char *name)
        : dir(dir), name(name), file(openReadableFile(dir, name, status)),
          error(file.isOpen() ? 0 : errno)
    { }

    // Whether a copy must end before it touches the destination, with the
    // cause in errno: the source is not there, and the destination is to be
    // left as it is.
    bool endsCopy(const FileCopier::Options &options) const
    {
        struct stat there;
        if (file.isOpen() || !options.keepDestinationWithoutSource
            || (error != ENOENT && ::fstatat(dir, name, &there, 0) == 0))
            return false;
        errno = error;
        return true;
    }

    const int dir;
    const char *const name;
    struct stat status;
    FileDescriptor file;
    const int error;
};

// Copies the open source to destName in destDir.
bool copyFrom(Source &source, int destDir, const QByteArray &destName,
              const FileCopier::Options &options)
{
    if (source.endsCopy(options))
        return false;
    const bool sourceOpen = source.file.isOpen();
    const QByteArray actualDestName = FileCopier::lowerCaseExtension(destName);
    const bool renamed = actualDestName != destName;
    const struct stat *sourceFile = sourceOpen ? &source.status : nullptr;
    const Occupant atDest = occupant(destDir, destName, sourceFile);
    const Occupant atActualDest = renamed ? occupant(destDir, actualDestName, sourceFile) : atDest;
    if (atDest == Occupant::Source || atActualDest == Occupant::Source) {
        errno = EINVAL;
        return false;
    }

    const bool destFileRemoved = atDest == Occupant::Nothing || removeName(destDir, destName);
    const bool actualDestRemoved = renamed
            ? atActualDest == Occupant::Nothing || removeName(destDir, actualDestName)
            : destFileRemoved;
    if (!actualDestRemoved)
        return false;
    if (!sourceOpen) {
        errno = source.error;
        return false;
    }

    FileDescriptor destination(createDestination(destDir, actualDestName));
    if (!destination.isOpen())
        return false;

    if (!DataCopy(source.file.get(), source.status, destination.get(), options.report,
                  !options.flushPool)
                 .run())
        return false;

    // Permissions and stamp go to the file this call created, through its
    // descriptor; every byte is written, so nothing changes the stamp later.
    ::fchmod(destination.get(), copyMode(source.dir, source.name, source.status.st_mode));
    if (options.stampFileTime)
        stampWithOffsetClock(destination.get());
    if (options.flushPool)
        options.flushPool->flushAndClose(destination.release());
    return true;
}

// A path as the directory it names a file in and the file's name, both
// read in place: the name ends the path, and with it its NUL.
struct PathParts
{
    std::string_view directory; // up to the last slash, with it; "." for a name alone
    std::string_view name;
};

PathParts splitPath(const QByteArray &path)
{
    const std::string_view whole(path.constData(), std::size_t(path.size()));
    const std::size_t slash = whole.rfind('/');
    if (slash == std::string_view::npos)
        return { ".", whole };
    return { whole.substr(0, slash + 1), whole.substr(slash + 1) };
}

// The path of name in directory, as splitPath() takes it apart.
QByteArray joined(std::string_view directory, const QByteArray &name)
{
    if (directory == ".")
        return name;
    return QByteArray(directory.data(), int(directory.size())) + name;
}

} // namespace

QByteArray FileCopier::lowerCaseExtension(const QByteArray &name)
{
    // The rule's letters are those whose case maps into a to z, a few
    // beyond ASCII among them (the Kelvin sign): a name that ends in any
    // such byte goes through the rule itself, when it can be decoded.
    const auto tail = name.cend() - std::min(int(name.size()), MaxExtensionBytes);
    if (std::any_of(tail, name.cend(), [](char c) { return uchar(c) >= 0x80; })) {
        const QString decoded = QFile::decodeName(name);
        if (QFile::encodeName(decoded) != name)
            return name;
        return QFile::encodeName(TFileSystemHelper::FileCopyLowerCaseDestFilename(decoded));
    }
    const int size = name.size();
    if (size < 4 || name.at(size - 4) != '.')
        return name;
    for (int i = size - 3; i < size; ++i) {
        const char c = name.at(i);
        if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z')))
            return name;
    }
    QByteArray lowered = name;
    for (int i = size - 3; i < size; ++i)
        lowered[i] = char(lowered.at(i) | 0x20);
    return lowered;
}

bool FileCopier::copy(int sourceDir, const QByteArray &sourceName, int destDir,
                      const QByteArray &destName, const Options &options)
{
    // The source is opened before anything is removed, so that a destination
    // reaching the same file can be recognised by device and inode.
    Source source(sourceDir, sourceName.constData());
    return copyFrom(source, destDir, destName, options);
}

int FileCopier::KeptDirectory::open(std::string_view path, MissingDirectory missing)
{
    if (holds(path))
        return m_fd.get();
    m_path = QByteArray(path.data(), int(path.size()));
    // Only a way to the names in it, which needs no permission to read it
    // and no look at its status.
    const auto openDirectory
            = [this] { return ::open(m_path.constData(), O_PATH | O_DIRECTORY | O_CLOEXEC); };
    m_fd.reset(openDirectory());
    if (!m_fd.isOpen() && errno == ENOENT && missing == MissingDirectory::Create) {
        const bool made = QDir().mkpath(QFile::decodeName(m_path));
        const int whyNot = errno;
        m_fd.reset(openDirectory());
        if (!m_fd.isOpen() && !made)
            errno = whyNot; // the cause is what kept the directory from being made
    }
    return m_fd.get();
}

bool FileCopier::copy(const QByteArray &sourcePath, const QByteArray &destPath,
                      const Options &options, MissingDirectory missing, KeptDirectories *kept)
{
    const PathParts source = splitPath(sourcePath);
    const PathParts dest = splitPath(destPath);
    // The names read where they stand, at the ends of the paths, which
    // outlive the copy.
    const auto inPlace = [](std::string_view name) {
        return QByteArray::fromRawData(name.data(), int(name.size()));
    };
    if (kept)
        return copy(source.directory, inPlace(source.name), dest.directory, inPlace(dest.name),
                    options, missing, *kept);
    Source file(AT_FDCWD, sourcePath.constData());
    // Before the destination's directory is made, where a source that
    // cannot be opened must leave the destination as it is.
    if (file.endsCopy(options))
        return false;
    KeptDirectory destDirectory;
    const int destDir = destDirectory.open(dest.directory, missing);
    return destDir >= 0 && copyFrom(file, destDir, inPlace(dest.name), options);
}

bool FileCopier::copy(std::string_view sourceDirectory, const QByteArray &sourceName,
                      std::string_view destDirectory, const QByteArray &destName,
                      const Options &options, MissingDirectory missing, KeptDirectories &kept)
{
    const bool keptOpen
            = kept.destination.holds(destDirectory) || kept.source.holds(sourceDirectory);
    const auto copyOnce = [&] {
        const int sourceDir = kept.source.open(sourceDirectory, MissingDirectory::Fail);
        // A source directory that cannot be opened leaves the source to be
        // opened by its path, which tells why it cannot be read.
        const QByteArray sourcePath
                = sourceDir >= 0 ? QByteArray() : joined(sourceDirectory, sourceName);
        Source file(sourceDir >= 0 ? sourceDir : AT_FDCWD,
                    sourceDir >= 0 ? sourceName.constData() : sourcePath.constData());
        // Before the destination's directory is made, as above.
        if (file.endsCopy(options))
            return false;
        const int destDir = kept.destination.open(destDirectory, missing);
        return destDir >= 0 && copyFrom(file, destDir, destName, options);
    };
    if (copyOnce())
        return true;
    // Nothing can be created in a directory that was removed, nor found in one.
    if (!keptOpen || errno != ENOENT)
        return false;
    kept.forget();
    return copyOnce();
}

FileCopier::Report FileCopier::reportTo(QObject *receiver, const char *member)
{
    if (!receiver || !member)
        return {};
    return [receiver, member](qint64 bytes) {
        bool goOn = true;
        QMetaObject::invokeMethod(receiver, member, Qt::AutoConnection, Q_RETURN_ARG(bool, goOn),
                                  Q_ARG(qint64, bytes));
        return goOn;
    };
}
