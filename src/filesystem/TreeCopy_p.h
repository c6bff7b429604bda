//
//  W A R N I N G
//  -------------
//
// This file is not part of the Trellis API. It is internal to the library
// and may change or disappear from one version to the next.

#ifndef TRELLIS_TREECOPY_P_H
#define TRELLIS_TREECOPY_P_H

#include <QString>
#include <QStringList>

// TFileSystemHelper::CopyDir(): copies a directory tree into another,
// walking both through descriptors (see DirectoryPath), so that no entry
// below either top is ever found again by its path. With leftOut, the paths
// of what the rules leave out are appended to it.
namespace TreeCopy {
bool run(const QString &sourceDir, const QString &destDir, QStringList *leftOut = nullptr);
}

#endif // TRELLIS_TREECOPY_P_H
