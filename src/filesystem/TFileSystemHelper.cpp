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

#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr qint64 CopyChunkSize = 4096;
constexpr qint64 SyncInterval = 16000000;
constexpr qint64 ProgressInterval = 100; // milliseconds
constexpr int TarTimeout = 30000; // milliseconds

bool statPath(const QString &path, struct stat *status, bool followLinks)
{
    const QByteArray name = QFile::encodeName(path);
    return (followLinks ? ::stat(name.constData(), status) : ::lstat(name.constData(), status))
            == 0;
}

bool isSameFile(const struct stat &a, const struct stat &b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// True when path, links followed, is the file described by file.
bool reaches(const QString &path, const struct stat &file)
{
    struct stat status;
    return statPath(path, &status, true) && isSameFile(status, file);
}

// Removes what is at path: a file, or a symbolic link as a link, also one
// whose target is missing (opening such a link for writing would create its
// target). True when nothing is left there to remove.
bool removeExisting(const QString &path)
{
    struct stat status;
    if (!statPath(path, &status, false))
        return true;
    return QFile::remove(path);
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

        const QDir sourceTree(sourceDir);
        const QFileInfoList files
                = sourceTree.entryInfoList(QDir::Files | QDir::NoDotAndDotDot, QDir::NoSort);
        const QFileInfoList dirs
                = sourceTree.entryInfoList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::NoSort);

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
    // matches with its own; it is built from the shared pattern's constant
    // properties alone, which any number of threads may read at once.
    QRegExp matcher(extension.pattern(), extension.caseSensitivity(), extension.patternSyntax());
    QString result = path;
    const int position = matcher.indexIn(result);
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
    const QString actualDestFile = FileCopyLowerCaseDestFilename(destFile);
    const bool renamed = actualDestFile != destFile;

    // The source is opened before anything is removed, so that a destination
    // reaching the same file can be recognised by device and inode.
    QFile source(srcFile);
    const bool sourceOpen = source.open(QIODevice::ReadOnly | QIODevice::Unbuffered);
    if (sourceOpen) {
        struct stat sourceStatus;
        if (::fstat(source.handle(), &sourceStatus) != 0 || reaches(destFile, sourceStatus)
            || (renamed && reaches(actualDestFile, sourceStatus)))
            return false;
    }

    const bool destFileRemoved = removeExisting(destFile);
    if (!(renamed ? removeExisting(actualDestFile) : destFileRemoved) || !sourceOpen)
        return false;

    // Unbuffered: every byte written is in the descriptor when fsync() runs,
    // and reads land in the caller's buffer without an intermediate copy.
    QFile destination(actualDestFile);
    if (!destination.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Unbuffered))
        return false;

    const bool reportProgress = receiver && member;
    char buffer[CopyChunkSize] = {};
    qint64 copied = 0;
    qint64 unsynced = 0;
    qint64 unreported = 0;
    qint64 lastReport = reportProgress ? TLocalTime::getCurrentTime() : 0;
    // The source's size is asked again only when the copy reaches it: asking
    // costs a system call, and a short read already means the end.
    qint64 sourceSize = source.size();

    const auto sync = [&] {
        ::fsync(destination.handle());
        unsynced = 0;
    };
    const auto report = [&] {
        bool goOn = true;
        QMetaObject::invokeMethod(receiver, member, Qt::AutoConnection, Q_RETURN_ARG(bool, goOn),
                                  Q_ARG(qint64, unreported));
        unreported = 0;
        lastReport = TLocalTime::getCurrentTime();
        return goOn;
    };

    for (;;) {
        const qint64 count = source.read(buffer, CopyChunkSize);
        if (count < 0)
            return false;
        if (count == 0)
            break;
        copied += count;
        const bool lastChunk = count < CopyChunkSize
                || (copied >= sourceSize && (sourceSize = source.size()) <= copied);
        if (destination.write(buffer, count) != count)
            return false;

        unsynced += count;
        if (unsynced >= SyncInterval || lastChunk)
            sync();

        if (!reportProgress)
            continue;
        unreported += count;
        if (TLocalTime::getCurrentTime() - lastReport < ProgressInterval && !lastChunk)
            continue;
        if (!report())
            return false;
    }

    // A source that shrank while it was read ends without a last chunk; what
    // it gave is still flushed and reported.
    if (unsynced > 0)
        sync();
    if (unreported > 0 && !report())
        return false;

    destination.setPermissions(source.permissions() | QFile::WriteOther);
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
        struct stat status;
        if (!statPath(path, &status, false))
            continue; // gone meanwhile
        bool deleted;
        if (S_ISLNK(status.st_mode)) {
            deleted = QFile::remove(path); // the link, never its target
        } else if (S_ISDIR(status.st_mode)) {
            deleted = DeleteDirGeneric(path, ignoreErrors, true);
        } else {
            // Owner write alone; a file with other names keeps its
            // permissions, which are theirs too.
            if (status.st_nlink == 1)
                QFile::setPermissions(path, QFile::WriteUser);
            deleted = QFile::remove(path);
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
