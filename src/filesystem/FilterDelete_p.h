//
//  W A R N I N G
//  -------------
//
// This file is not part of the Trellis API. It is internal to the library
// and may change or disappear from one version to the next.

#ifndef TRELLIS_FILTERDELETE_P_H
#define TRELLIS_FILTERDELETE_P_H

#include <QString>
#include <QStringList>

// TFileSystemHelper::DeleteFiles(): removes the files of one directory that
// match a name filter, relative to the directory's descriptor.
namespace FilterDelete {
int run(const QString &nameFilter, const QString &dirPath, QStringList &deletedFiles,
        QStringList &failedFiles);
}

#endif // TRELLIS_FILTERDELETE_P_H
