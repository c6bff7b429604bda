//
//  W A R N I N G
//  -------------
//
// This file is not part of the Trellis API. It is internal to the library
// and may change or disappear from one version to the next.

#ifndef TRELLIS_FILECOPIER_P_H
#define TRELLIS_FILECOPIER_P_H

#include <QByteArray>

class FlushPool;
class QObject;

// The single-file copy behind TFileSystemHelper::FileCopyWithProgress() and
// the tree copy. Both files are named relative to a directory descriptor,
// so a tree copy never finds a file again by its path; AT_FDCWD with a path
// names a file as the caller does.
namespace FileCopier {

// Copies sourceName in sourceDir to destName in destDir, under
// lowerCaseExtension(destName), by the rules TFileSystemHelper.h gives for
// FileCopyWithProgress(). The copy is created new (O_EXCL, O_NOFOLLOW), so
// nothing that appears at its name meanwhile is ever written through.
//
// With a flush pool, the last flush is handed to the pool, after the copy
// got its permissions and stamp, and the copy is durable only once the pool
// has flushed it; without one it is durable when the call returns.
bool copy(int sourceDir, const QByteArray &sourceName, int destDir, const QByteArray &destName,
          QObject *receiver, const char *member, bool stampFileTime,
          FlushPool *flushPool = nullptr);

// name with a final '.' and three letters A to Z lower-cased: the rule of
// TFileSystemHelper::FileCopyLowerCaseDestFilename(), on a name's bytes.
QByteArray lowerCaseExtension(const QByteArray &name);

} // namespace FileCopier

#endif // TRELLIS_FILECOPIER_P_H
