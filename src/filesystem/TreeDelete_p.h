//
//  W A R N I N G
//  -------------
//
// This file is not part of the Trellis API. It is internal to the library
// and may change or disappear from one version to the next.

#ifndef TRELLIS_TREEDELETE_P_H
#define TRELLIS_TREEDELETE_P_H

#include <QString>

// TFileSystemHelper::DeleteDirGeneric(): empties a directory tree, and on
// request removes its top, walking it through descriptors (see
// DirectoryPath), so that no entry below the top is ever found again by
// its path.
namespace TreeDelete {
bool run(const QString &dirPath, bool ignoreErrors, bool deleteRootDir);
}

#endif // TRELLIS_TREEDELETE_P_H
