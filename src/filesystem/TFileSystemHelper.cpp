#include "TFileSystemHelper.h"
#include "Directory_p.h"
#include "FileCopier_p.h"
#include "TreeCopy_p.h"
#include "TreeDelete_p.h"

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

constexpr int TarTimeout = 30000; // milliseconds

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
    // The destination's directory is the caller's to name; the copy is
    // made relative to it.
    const QByteArray destPath = QFile::encodeName(destFile);
    const int slash = destPath.lastIndexOf('/');
    const QByteArray destDirPath = slash < 0 ? QByteArray(".")
            : slash == 0                     ? QByteArray("/")
                                             : destPath.left(slash);
    const Directory destDir = Directory::open(destDirPath);
    if (!destDir.isOpen())
        return false;
    return FileCopier::copy(AT_FDCWD, QFile::encodeName(srcFile), destDir.fd(),
                            destPath.mid(slash + 1), receiver, member, stampFileTime);
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
    return TreeCopy::run(sourceDir, destDir);
}

bool TFileSystemHelper::DeleteDirGeneric(const QString &dirPath, bool ignoreErrors,
                                         bool deleteRootDir)
{
    return TreeDelete::run(dirPath, ignoreErrors, deleteRootDir);
}
