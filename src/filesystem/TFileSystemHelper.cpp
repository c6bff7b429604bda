#include "TFileSystemHelper.h"

#include <Trellis/TLocalTime.h>

#include <QCoreApplication>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QMetaObject>
#include <QObject>
#include <QProcess>
#include <QRegularExpression>

#include <algorithm>
#include <cerrno>
#include <future>
#include <memory>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

// With a 32-bit off_t, files past 2 GiB could be neither copied nor removed
// correctly; 32-bit builds must be compiled with -D_FILE_OFFSET_BITS=64 (the
// build does so).
static_assert(sizeof(off_t) == 8, "Trellis needs a 64-bit off_t");

namespace {

constexpr qint64 CopyChunkSize = 4096;
// Chunks are gathered and handed to the copy in writes of up to this many
// bytes, as a buffered QFile gathers them: the kernel's cost per write is
// several times that of copying a chunk, and a 4096-byte write per chunk
// would take half the speed of a large copy. A multiple of the chunk size.
constexpr qint64 WriteBatchSize = 1024 * 1024;
constexpr qint64 SyncInterval = 16000000;
// The copy hands each 4 MiB written since the last fsync() to the disk
// without waiting, so that the disk writes while the copy goes on and the
// next fsync() waits for the last part only; this takes about a third off
// the time spent in fsync() for a large file. A multiple of the chunk size.
constexpr qint64 WritebackInterval = 4 * 1024 * 1024;
constexpr qint64 ProgressInterval = 100; // milliseconds
constexpr int TarTimeout = 30000; // milliseconds

bool isSameFile(const struct stat &a, const struct stat &b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// A file descriptor that is closed when it goes out of scope.
class FileDescriptor
{
public:
    explicit FileDescriptor(int fd) : m_fd(fd) { }
    ~FileDescriptor() { close(); }
    FileDescriptor(const FileDescriptor &) = delete;
    FileDescriptor &operator=(const FileDescriptor &) = delete;

    int get() const { return m_fd; }
    bool isOpen() const { return m_fd >= 0; }
    void close()
    {
        if (m_fd >= 0)
            ::close(m_fd);
        m_fd = -1;
    }

private:
    int m_fd;
};

int openFile(const QByteArray &name, int flags)
{
    int fd;
    do {
        fd = ::open(name.constData(), flags | O_CLOEXEC, 0666);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

// Reads until size bytes are in data or the file ends, as QFile does: the
// number read, or -1 when an error came before any byte. atEnd is set when
// a read found the end of the file.
qint64 readChunk(int fd, char *data, qint64 size, bool &atEnd)
{
    qint64 done = 0;
    while (done < size) {
        const ssize_t count = ::read(fd, data + done, std::size_t(size - done));
        if (count > 0) {
            done += count;
        } else if (count == 0) {
            atEnd = true;
            break;
        } else if (errno != EINTR) {
            return done > 0 ? done : -1;
        }
    }
    return done;
}

// Writes until all size bytes are written or a write fails, as QFile does:
// the number written.
qint64 writeChunk(int fd, const char *data, qint64 size)
{
    qint64 done = 0;
    while (done < size) {
        const ssize_t count = ::write(fd, data + done, std::size_t(size - done));
        if (count > 0)
            done += count;
        else if (count == 0 || errno != EINTR)
            break;
    }
    return done;
}

// Gathers whole chunks read from a file and writes them to another in as
// few calls as its buffer allows. The buffer is allocated once, no larger
// than the file being copied needs.
class ChunkBatch
{
public:
    ChunkBatch(int destination, qint64 expectedSize)
        : m_destination(destination),
          m_capacity(std::clamp((expectedSize + CopyChunkSize - 1) / CopyChunkSize * CopyChunkSize,
                                CopyChunkSize, WriteBatchSize)),
          m_buffer(new char[std::size_t(m_capacity)])
    { }

    // Room for the next chunk, after the chunks gathered so far; flushes
    // first when the buffer is full. Null when that flush failed.
    char *nextChunk()
    {
        if (m_used + CopyChunkSize > m_capacity && !flush())
            return nullptr;
        return m_buffer.get() + m_used;
    }
    void commit(qint64 count) { m_used += count; }

    // Writes what was gathered; false when not all of it could be written.
    bool flush()
    {
        const qint64 written = writeChunk(m_destination, m_buffer.get(), m_used);
        const bool complete = written == m_used;
        m_used = 0;
        return complete;
    }

private:
    const int m_destination;
    const qint64 m_capacity;
    const std::unique_ptr<char[]> m_buffer;
    qint64 m_used = 0;
};

// Flushes a file to the disk while its copy goes on: a flush waits for the
// disk, and the copy can meanwhile read and write the next part (together
// that makes a large copy up to half again as fast). One flush runs at a
// time; the destructor waits for the last, so the descriptor outlives it.
class BackgroundSync
{
public:
    explicit BackgroundSync(int fd) : m_fd(fd) { }
    ~BackgroundSync() { wait(); }

    void start()
    {
        wait();
        try {
            m_running = std::async(std::launch::async, [fd = m_fd] { ::fsync(fd); });
        } catch (const std::system_error &) {
            ::fsync(m_fd); // no thread to be had: flush here
        }
    }

    void wait()
    {
        if (m_running.valid())
            m_running.get();
    }

private:
    const int m_fd;
    std::future<void> m_running;
};

qint64 fileSize(int fd)
{
    struct stat status;
    return ::fstat(fd, &status) == 0 ? qint64(status.st_size) : 0;
}

// Removes the name path; true when nothing is left there.
bool unlinkName(const QByteArray &path)
{
    return ::unlink(path.constData()) == 0 || errno == ENOENT;
}

// What lies at a destination path before a copy.
enum class Occupant { Nothing, Source, Other };

// One lstat() answers for the common cases: nothing there, or a file that
// is not a link and so reaches the source only by being it. Only a link
// costs a second call to follow it. Without a source, anything there is
// Other.
Occupant occupant(const QByteArray &path, const struct stat *source)
{
    struct stat status;
    if (::lstat(path.constData(), &status) != 0)
        return Occupant::Nothing;
    if (source && S_ISLNK(status.st_mode) && ::stat(path.constData(), &status) != 0)
        return Occupant::Other; // a link to nothing
    return source && isSameFile(status, *source) ? Occupant::Source : Occupant::Other;
}

// Removes what occupies path: a file, or a symbolic link as a link, also one
// whose target is missing (opening such a link for writing would create its
// target). True when nothing is left there to remove.
bool removeOccupant(const QByteArray &path, Occupant occupant)
{
    return occupant == Occupant::Nothing || unlinkName(path);
}

// Removes what is at path for DeleteDirGeneric(), a link as a link. A
// regular file that stays gets the permissions QFile::WriteUser alone,
// unless it has other names whose permissions those are too. The
// permissions of a file that is gone cannot be seen, so they are changed
// only when the removal failed: removing a file costs one system call. True
// when nothing is left at path.
bool removeEntry(const QString &path)
{
    const QByteArray name = QFile::encodeName(path);
    if (unlinkName(name))
        return true;
    struct stat status;
    if (::lstat(name.constData(), &status) != 0)
        return true; // gone meanwhile
    if (S_ISREG(status.st_mode) && status.st_nlink == 1)
        ::chmod(name.constData(), S_IWUSR);
    return false;
}

// The permissions QFile::setPermissions(source.permissions() |
// QFile::WriteOther) gives a copy. QFile reports besides the owner's bits
// what the calling user may do with the file, and grants that to the owner
// of the copy; an owner bit that is set already needs no question.
mode_t copyMode(const QByteArray &sourceName, mode_t sourceMode)
{
    mode_t mode = (sourceMode & (S_IRWXU | S_IRWXG | S_IRWXO)) | S_IWOTH;
    const std::pair<mode_t, int> ownerBits[]
            = { { S_IRUSR, R_OK }, { S_IWUSR, W_OK }, { S_IXUSR, X_OK } };
    for (const auto &[bit, access] : ownerBits) {
        if (!(mode & bit) && ::access(sourceName.constData(), access) == 0)
            mode |= bit;
    }
    return mode;
}

// The canonical path that path reaches once its missing trailing components
// exist: the longest existing leading part is resolved by the kernel, links
// followed, and the rest appended. Relative paths start at the working
// directory.
QString resolvedPath(const QString &path)
{
    QString existing
            = QDir::isAbsolutePath(path) ? path : QDir::currentPath() + QLatin1Char('/') + path;
    QString missing;
    for (;;) {
        const QString canonical = QFileInfo(existing).canonicalFilePath();
        if (!canonical.isEmpty())
            return QDir::cleanPath(canonical + QLatin1Char('/') + missing);
        const int slash = existing.lastIndexOf(QLatin1Char('/'));
        if (slash <= 0)
            return QDir::cleanPath(QLatin1Char('/') + existing.mid(slash + 1) + QLatin1Char('/')
                                   + missing);
        missing = existing.mid(slash + 1) + QLatin1Char('/') + missing;
        existing.truncate(slash);
    }
}

bool isWithin(const QString &path, const QString &dir)
{
    if (dir.isEmpty())
        return false;
    if (dir.endsWith(QLatin1Char('/'))) // the root directory
        return path.startsWith(dir);
    return path.startsWith(dir)
            && (path.size() == dir.size() || path.at(dir.size()) == QLatin1Char('/'));
}

// Where something created or written at destDir can land. QDir::mkpath()
// creates the lexically cleaned path while later writes go through destDir as
// the kernel resolves it, so both readings count.
struct Landing
{
    explicit Landing(const QString &destDir)
        : resolved(resolvedPath(destDir)), cleaned(resolvedPath(QDir::cleanPath(destDir)))
    { }
    bool within(const QString &dir) const
    {
        return isWithin(resolved, dir) || isWithin(cleaned, dir);
    }

    const QString resolved;
    const QString cleaned;
};

// One CopyDir() call: the source tree's canonical root and the canonical
// directories of the current descent, outermost first.
class TreeCopy
{
public:
    explicit TreeCopy(const QString &sourceDir)
        : m_sourceRoot(QFileInfo(sourceDir).canonicalFilePath())
    { }

    bool copy(const QString &sourceDir, const QString &destDir)
    {
        const QString source = QFileInfo(sourceDir).canonicalFilePath();
        const Landing landing(destDir);
        if (landing.within(m_sourceRoot) || landing.within(source) || m_descent.contains(source))
            return false;

        // One listing, in name order ignoring case, split into the
        // subdirectories and the files; each part keeps that order. The
        // listing knows each entry's type, so the split asks the disk nothing.
        QFileInfoList dirs;
        QFileInfoList files;
        const QFileInfoList entries = QDir(sourceDir).entryInfoList(
                QDir::Files | QDir::Dirs | QDir::NoDotAndDotDot, QDir::NoSort);
        for (const QFileInfo &entry : entries)
            (entry.isDir() ? dirs : files).append(entry);

        const QDir destTree(destDir);
        bool result = destTree.exists() || QDir().mkpath(destDir);
        if (result) {
            m_descent.append(source);
            for (const QFileInfo &dir : dirs)
                result = copy(dir.absoluteFilePath(), destDir + QLatin1Char('/') + dir.fileName())
                        && result;
            m_descent.removeLast();
        }
        if (result) {
            for (const QFileInfo &file : files)
                result = TFileSystemHelper::FileCopy(file.absoluteFilePath(),
                                                     destDir + QLatin1Char('/') + file.fileName(),
                                                     true)
                        && result;
        }
        TLocalTime::setFileTime(destTree.absolutePath());
        return result;
    }

private:
    const QString m_sourceRoot;
    QStringList m_descent;
};

// tar reads an operand beginning with '-' as an option; "./" keeps it a name.
QString tarOperand(const QString &name)
{
    return name.startsWith(QLatin1Char('-')) ? QLatin1String("./") + name : name;
}

// tar takes the argument of -f as it stands, except "-" (standard input or
// output) and a name with a ':' before its first '/' (host:file, a remote
// archive); "./" keeps both local files.
QString tarArchive(const QString &archiveFile)
{
    const int colon = archiveFile.indexOf(QLatin1Char(':'));
    const int slash = archiveFile.indexOf(QLatin1Char('/'));
    if (archiveFile == QLatin1String("-") || (colon > 0 && (slash < 0 || colon < slash)))
        return QLatin1String("./") + archiveFile;
    return archiveFile;
}

bool runTar(const QStringList &arguments)
{
    QProcess tar;
    tar.start(QStringLiteral("tar"), arguments, QIODevice::ReadWrite);
    if (tar.waitForFinished(TarTimeout))
        return true;
    if (tar.state() != QProcess::NotRunning) {
        // Ending it here spares the warning QProcess's destructor would print.
        tar.kill();
        tar.waitForFinished(-1);
    }
    return false;
}

QStringList tarOperands(const QStringList &files)
{
    QStringList operands;
    operands.reserve(files.size());
    for (const QString &file : files)
        operands.append(tarOperand(file));
    return operands;
}

} // namespace

const QString &TFileSystemHelper::GetInvalidFileNameString()
{
    static const QString invalidCharacters = QStringLiteral("\\/:*?\"<>|.");
    return invalidCharacters;
}

const QString &TFileSystemHelper::GetInvalidFileNameErrorMessage()
{
    static const QString message = QCoreApplication::translate(
            "TFileSystemHelper",
            "The special character '.' cannot appear at the start or end of the name");
    return message;
}

bool TFileSystemHelper::IsValidFileName(QString fileName)
{
    if (fileName.isEmpty())
        return false;
    for (const QChar invalid : GetInvalidFileNameString()) {
        if (fileName.indexOf(invalid) >= 0)
            return false;
    }
    // The rule the error message states; with '.' in the set above it can
    // only fail if that set changes.
    return !fileName.startsWith(QLatin1Char('.')) && !fileName.endsWith(QLatin1Char('.'));
}

void TFileSystemHelper::GetValidFileName(QString &fileName)
{
    const QChar replacement = QLatin1Char('_');
    for (const QChar invalid : GetInvalidFileNameString())
        fileName.replace(invalid, replacement);
    if (fileName.startsWith(QLatin1Char('.')))
        fileName[0] = replacement;
    if (fileName.endsWith(QLatin1Char('.')))
        fileName[fileName.size() - 1] = replacement;
}

const QRegExp &TFileSystemHelper::CaseInsensitiveFilenameExtensionRegExp()
{
    static const QRegExp pattern(QStringLiteral("\\.([a-z]{3})$"), Qt::CaseInsensitive,
                                 QRegExp::RegExp);
    return pattern;
}

const QRegExp &TFileSystemHelper::UpperCaseFilenameExtensionRegExp()
{
    static const QRegExp pattern(CaseInsensitiveFilenameExtensionRegExp().pattern().toUpper(),
                                 Qt::CaseSensitive, QRegExp::RegExp);
    return pattern;
}

const QRegExp &TFileSystemHelper::LowerCaseFilenameExtensionRegExp()
{
    static const QRegExp pattern(CaseInsensitiveFilenameExtensionRegExp().pattern().toLower(),
                                 Qt::CaseSensitive, QRegExp::RegExp);
    return pattern;
}

QString TFileSystemHelper::FileCopyLowerCaseDestFilename(const QString &path)
{
    static const QRegExp extension(CaseInsensitiveFilenameExtensionRegExp());
    // A match records its captures in the pattern object, so each call
    // matches with a copy of its own. The shared pattern is never matched
    // itself, so copying it only reads it (and shares its compiled form),
    // which any number of threads may do at once.
    QRegExp matcher(extension);
    // The pattern ends in '$', so only the last four characters can match:
    // the search starts there rather than trying every position before.
    QString result = path;
    const int position = matcher.indexIn(result, std::max(0, int(result.size()) - 4));
    if (position >= 0) {
        const QString lowered = matcher.cap(0).toLower();
        result.replace(position, lowered.size(), lowered);
    }
    return result;
}

bool TFileSystemHelper::FileCopyWithProgress(const QString &srcFile, const QString &destFile,
                                             QObject *receiver, const char *member,
                                             bool stampFileTime)
{
    // The files are handled through their descriptors: QFile would add
    // several system calls per file (a second status, a path-based status
    // and three access checks for the permissions) and a layer of calls per
    // chunk. Reads loop as QFile's do, so chunks are whole.
    const QString actualDestFile = FileCopyLowerCaseDestFilename(destFile);
    const bool renamed = actualDestFile != destFile;
    const QByteArray sourceName = QFile::encodeName(srcFile);
    const QByteArray destName = QFile::encodeName(destFile);
    const QByteArray actualDestName = renamed ? QFile::encodeName(actualDestFile) : destName;

    // The source is opened before anything is removed, so that a destination
    // reaching the same file can be recognised by device and inode. Like
    // QFile, a directory does not count as opened.
    FileDescriptor source(openFile(sourceName, O_RDONLY));
    struct stat sourceStatus;
    const bool sourceOpen = source.isOpen() && ::fstat(source.get(), &sourceStatus) == 0
            && !S_ISDIR(sourceStatus.st_mode);
    const struct stat *sourceFile = sourceOpen ? &sourceStatus : nullptr;
    const Occupant atDest = occupant(destName, sourceFile);
    const Occupant atActualDest = renamed ? occupant(actualDestName, sourceFile) : atDest;
    if (atDest == Occupant::Source || atActualDest == Occupant::Source)
        return false;

    const bool destFileRemoved = removeOccupant(destName, atDest);
    if (!(renamed ? removeOccupant(actualDestName, atActualDest) : destFileRemoved) || !sourceOpen)
        return false;

    FileDescriptor destination(openFile(actualDestName, O_WRONLY | O_CREAT | O_TRUNC));
    if (!destination.isOpen())
        return false;

    const bool reportProgress = receiver && member;
    ChunkBatch batch(destination.get(), sourceStatus.st_size);
    qint64 copied = 0;
    qint64 unsynced = 0;
    qint64 unreported = 0;
    qint64 lastReport = reportProgress ? TLocalTime::getCurrentTime() : 0;
    // The source's size is asked again only when the copy reaches it: asking
    // costs a system call, and a short read already means the end.
    qint64 sourceSize = sourceStatus.st_size;
    bool atEnd = false;

    // Every byte read so far reaches the descriptor before a flush to the
    // disk, and before any return: a copy that fails keeps what it read.
    // The last flush is complete, and all earlier ones, before the copy is
    // reported done.
    BackgroundSync backgroundSync(destination.get());
    const auto sync = [&](bool last) {
        const bool written = batch.flush();
        if (last) {
            backgroundSync.wait();
            ::fsync(destination.get());
        } else {
            backgroundSync.start();
        }
        unsynced = 0;
        return written;
    };
    const auto report = [&] {
        bool goOn = true;
        QMetaObject::invokeMethod(receiver, member, Qt::AutoConnection, Q_RETURN_ARG(bool, goOn),
                                  Q_ARG(qint64, unreported));
        unreported = 0;
        lastReport = TLocalTime::getCurrentTime();
        return goOn;
    };

    // A read that found the end ends the copy; the next one would only find
    // it again.
    while (!atEnd) {
        char *chunk = batch.nextChunk();
        if (!chunk)
            return false;
        const qint64 count = readChunk(source.get(), chunk, CopyChunkSize, atEnd);
        if (count < 0) {
            batch.flush();
            return false;
        }
        if (count == 0)
            break;
        batch.commit(count);
        copied += count;
        const bool lastChunk = count < CopyChunkSize
                || (copied >= sourceSize && (sourceSize = fileSize(source.get())) <= copied);

        unsynced += count;
        if (unsynced >= SyncInterval || lastChunk) {
            if (!sync(lastChunk))
                return false;
        } else if (unsynced % WritebackInterval == 0) {
            if (!batch.flush())
                return false;
            ::sync_file_range(destination.get(), copied - WritebackInterval, WritebackInterval,
                              SYNC_FILE_RANGE_WRITE);
        }

        if (!reportProgress)
            continue;
        unreported += count;
        if (TLocalTime::getCurrentTime() - lastReport < ProgressInterval && !lastChunk)
            continue;
        if (!report()) {
            batch.flush();
            return false;
        }
    }

    // A source that shrank while it was read ends without a last chunk; what
    // it gave is still flushed and reported.
    if (unsynced > 0 && !sync(true))
        return false;
    backgroundSync.wait();
    if (unreported > 0 && !report())
        return false;

    ::fchmod(destination.get(), copyMode(sourceName, sourceStatus.st_mode));
    destination.close();
    if (stampFileTime)
        TLocalTime::setFileTime(actualDestFile);
    return true;
}

bool TFileSystemHelper::FileCopy(const QString &srcFile, const QString &destFile,
                                 bool stampFileTime)
{
    return FileCopyWithProgress(srcFile, destFile, nullptr, nullptr, stampFileTime);
}

int TFileSystemHelper::DeleteFiles(const QString &nameFilter, const QString &dirPath,
                                   QStringList &deletedFiles, QStringList &failedFiles)
{
    deletedFiles.clear();
    failedFiles.clear();
    QDir dir(dirPath);
    if (!dir.exists())
        return 4;
    // Qt matches names through the filter's regular expression and, when
    // the filter makes none (an unbalanced '['), logs a warning for every
    // entry and matches nothing.
    if (!QRegularExpression(QRegularExpression::wildcardToRegularExpression(nameFilter)).isValid())
        return 3;
    dir.setNameFilters(QStringList(nameFilter));
    const QStringList names = dir.entryList(QDir::Files, QDir::NoSort);
    if (names.isEmpty())
        return 3;

    int result = 1;
    for (const QString &name : names) {
        if (dir.remove(name)) {
            deletedFiles.append(name);
        } else {
            failedFiles.append(name);
            result = 2;
        }
    }
    return result;
}

bool TFileSystemHelper::Unzip(QString archiveFile, QString destDir)
{
    return runTar(
            { QStringLiteral("-xzf"), tarArchive(archiveFile), QStringLiteral("-C"), destDir });
}

bool TFileSystemHelper::Zip(QString archiveFile, QString baseDir, QStringList files)
{
    return runTar(QStringList { QStringLiteral("-czf"), tarArchive(archiveFile),
                                QStringLiteral("-C"), baseDir }
                  + tarOperands(files));
}

bool TFileSystemHelper::Zip(QString archiveFile, QStringList files)
{
    return runTar(QStringList { QStringLiteral("-czf"), tarArchive(archiveFile) }
                  + tarOperands(files));
}

bool TFileSystemHelper::CopyDir(const QString &sourceDir, const QString &destDir)
{
    return TreeCopy(sourceDir).copy(sourceDir, destDir);
}

bool TFileSystemHelper::DeleteDirGeneric(const QString &dirPath, bool ignoreErrors,
                                         bool deleteRootDir)
{
    QDir dir(dirPath);
    if (!dir.exists())
        return true;

    QDirIterator entries(dir);
    while (entries.hasNext()) {
        entries.next();
        const QString name = entries.fileName();
        if (name == QLatin1String(".") || name == QLatin1String(".."))
            continue;
        const QString path = entries.filePath();
        // The listing knows each entry's type, links included, without
        // asking the disk. A directory is looked at once more just before it
        // is entered, so that a link put in its place is not followed.
        const QFileInfo entry = entries.fileInfo();
        bool deleted;
        if (entry.isDir() && !entry.isSymLink()) {
            struct stat status;
            if (::lstat(QFile::encodeName(path).constData(), &status) != 0)
                continue; // gone meanwhile
            deleted = S_ISDIR(status.st_mode) ? DeleteDirGeneric(path, ignoreErrors, true)
                                              : removeEntry(path);
        } else {
            deleted = removeEntry(path);
        }
        if (!deleted && !ignoreErrors)
            return false;
    }
    if (!deleteRootDir)
        return true;

    const QString name = dir.dirName();
    dir.cdUp();
    return dir.rmdir(name);
}
