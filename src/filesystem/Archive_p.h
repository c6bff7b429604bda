//
//  W A R N I N G
//  -------------
//
// This file is not part of the Trellis API. It is internal to the library
// and may change or disappear from one version to the next.

#ifndef TRELLIS_ARCHIVE_P_H
#define TRELLIS_ARCHIVE_P_H

#include <QString>
#include <QStringList>

// TFileSystemHelper's gzip-compressed tar archives, made and unpacked by the
// program tar, by the rules its header gives.
namespace Archive {
bool unpack(const QString &archiveFile, const QString &destDir);
// Packs files, named relative to baseDir or, without one, to the working
// directory.
bool pack(const QString &archiveFile, const QString *baseDir, const QStringList &files);
} // namespace Archive

#endif // TRELLIS_ARCHIVE_P_H
