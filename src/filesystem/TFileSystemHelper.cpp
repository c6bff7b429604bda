#include "TFileSystemHelper.h"

#include "Archive_p.h"
#include "FileCopier_p.h"
#include "FilterDelete_p.h"
#include "TreeCopy_p.h"
#include "TreeDelete_p.h"

#include <QCoreApplication>
#include <QFile>

#include <algorithm>
#include <cerrno>

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

namespace {

enum class AsciiExtension { None, Lower, NotLower, Unknown };

// What the last four characters of path are, as far as plain ASCII can
// tell: the pattern's case-insensitive [a-z] may also match letters beyond
// ASCII whose case maps into it, which only the pattern can decide.
AsciiExtension asciiExtension(const QString &path)
{
    const int size = path.size();
    if (size < 4 || path.at(size - 4) != QLatin1Char('.'))
        return AsciiExtension::None;
    AsciiExtension kind = AsciiExtension::Lower;
    for (int i = size - 3; i < size; ++i) {
        const char16_t c = path.at(i).unicode();
        if (c >= 'A' && c <= 'Z')
            kind = AsciiExtension::NotLower;
        else if (c > 0x7f)
            return AsciiExtension::Unknown;
        else if (c < 'a' || c > 'z')
            return AsciiExtension::None;
    }
    return kind;
}

} // namespace

QString TFileSystemHelper::FileCopyLowerCaseDestFilename(const QString &path)
{
    static const QRegExp extension(CaseInsensitiveFilenameExtensionRegExp());
    // Every copy passes its name through here: the common cases are
    // answered without the pattern.
    switch (asciiExtension(path)) {
    case AsciiExtension::None:
    case AsciiExtension::Lower:
        return path;
    case AsciiExtension::NotLower:
        return path.left(path.size() - 3) + path.right(3).toLower();
    case AsciiExtension::Unknown:
        break;
    }
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
    return FileCopyWithProgress(srcFile, destFile, receiver, member, stampFileTime, nullptr);
}

bool TFileSystemHelper::FileCopyWithProgress(const QString &srcFile, const QString &destFile,
                                             QObject *receiver, const char *member,
                                             bool stampFileTime, int *error)
{
    FileCopier::Options options;
    options.report = FileCopier::reportTo(receiver, member);
    options.stampFileTime = stampFileTime;
    const bool copied
            = FileCopier::copy(QFile::encodeName(srcFile), QFile::encodeName(destFile), options);
    if (error)
        *error = copied ? 0 : errno;
    return copied;
}

bool TFileSystemHelper::FileCopy(const QString &srcFile, const QString &destFile,
                                 bool stampFileTime)
{
    return FileCopyWithProgress(srcFile, destFile, nullptr, nullptr, stampFileTime, nullptr);
}

bool TFileSystemHelper::FileCopy(const QString &srcFile, const QString &destFile,
                                 bool stampFileTime, int *error)
{
    return FileCopyWithProgress(srcFile, destFile, nullptr, nullptr, stampFileTime, error);
}

int TFileSystemHelper::DeleteFiles(const QString &nameFilter, const QString &dirPath,
                                   QStringList &deletedFiles, QStringList &failedFiles)
{
    return FilterDelete::run(nameFilter, dirPath, deletedFiles, failedFiles);
}

bool TFileSystemHelper::Unzip(QString archiveFile, QString destDir)
{
    return Archive::unpack(archiveFile, destDir);
}

bool TFileSystemHelper::Zip(QString archiveFile, QString baseDir, QStringList files)
{
    return Archive::pack(archiveFile, &baseDir, files);
}

bool TFileSystemHelper::Zip(QString archiveFile, QStringList files)
{
    return Archive::pack(archiveFile, nullptr, files);
}

bool TFileSystemHelper::CopyDir(const QString &sourceDir, const QString &destDir)
{
    return TreeCopy::run(sourceDir, destDir);
}

bool TFileSystemHelper::CopyDir(const QString &sourceDir, const QString &destDir,
                                QStringList *leftOut)
{
    return TreeCopy::run(sourceDir, destDir, leftOut);
}

bool TFileSystemHelper::DeleteDirGeneric(const QString &dirPath, bool ignoreErrors,
                                         bool deleteRootDir)
{
    return TreeDelete::run(dirPath, ignoreErrors, deleteRootDir);
}
