//
//  W A R N I N G
//  -------------
//
// This file is not part of the Trellis API. It is internal to the library
// and may change or disappear from one version to the next.

#ifndef TRELLIS_FILECOPIER_P_H
#define TRELLIS_FILECOPIER_P_H

#include "DataCopy_p.h"
#include "FileDescriptor_p.h"

#include <QByteArray>

#include <string_view>

class FlushPool;
class QObject;

// The single-file copy behind TFileSystemHelper::FileCopyWithProgress(), the
// tree copy and the copy task. Both files are named relative to a directory
// descriptor, so a tree copy never finds a file again by its path; AT_FDCWD
// with a path names a file as the caller does.
namespace FileCopier {

// Called with the bytes copied since the last call; false stops the copy.
using Report = DataCopy::Report;

// How a copy goes about it, beside the files it copies.
struct Options
{
    Report report; // the progress receiver; none when empty
    bool stampFileTime = false;
    // With a flush pool, the last flush is handed to the pool, after the
    // copy got its permissions and stamp, and the copy is durable only once
    // the pool has flushed it; without one it is durable when the call
    // returns.
    FlushPool *flushPool = nullptr;
    // Whether a source that is not there (it cannot be looked at, so
    // QFileInfo::exists() would say false) leaves the destination as it is,
    // rather than removed first as FileCopyWithProgress() removes it. A
    // source that is there but cannot be opened removes it either way.
    bool keepDestinationWithoutSource = false;
};

// Copies sourceName in sourceDir to destName in destDir, under
// lowerCaseExtension(destName), by the rules TFileSystemHelper.h gives for
// FileCopyWithProgress(). The copy is created new (O_EXCL, O_NOFOLLOW), so
// nothing that appears at its name meanwhile is ever written through.
bool copy(int sourceDir, const QByteArray &sourceName, int destDir, const QByteArray &destName,
          const Options &options);

enum class MissingDirectory { Fail, Create };

// A directory of copies by path, kept open from one copy to the next while
// they use the same one: the files of a directory mostly follow each other,
// and each would resolve the directory's path again.
class KeptDirectory
{
public:
    // The directory at path, opened (O_PATH) unless it is the one kept
    // open; with MissingDirectory::Create a directory that is not there is
    // made first, with its parents, as QDir::mkpath() makes it (its result
    // unchecked: the open fails when there is still no directory). -1, with
    // errno set, when it cannot be opened.
    int open(std::string_view path, MissingDirectory missing);

    // Whether the directory at path is the one kept open.
    bool holds(std::string_view path) const
    {
        return m_fd.isOpen()
                && std::string_view(m_path.constData(), std::size_t(m_path.size())) == path;
    }

    // Closes the directory kept open: the next open() looks its path up.
    void forget() { m_fd.close(); }

private:
    QByteArray m_path;
    FileDescriptor m_fd { -1 };
};

// The directories a run of copies by path keeps open: the one the sources
// come from and the one the copies go to.
struct KeptDirectories
{
    KeptDirectory source;
    KeptDirectory destination;

    void forget()
    {
        source.forget();
        destination.forget();
    }
};

// The same for two paths named as the caller names them; the destination's
// directory is opened, and the copy made relative to it. With kept
// directories, the source is opened relative to its directory too, and a
// directory kept open that has been removed meanwhile is looked up by its
// path again, as a copy by path would find it; without, the source is
// opened by its path, which costs one look fewer for a single copy.
bool copy(const QByteArray &sourcePath, const QByteArray &destPath, const Options &options,
          MissingDirectory missing = MissingDirectory::Fail, KeptDirectories *kept = nullptr);

// The same with kept directories, for files named by the paths of their
// directories, each ending in a slash ("." for the current one), and their
// names: what the copy by path makes of two paths it splits after their
// last '/'. A name holds no '/', and its bytes are followed by a NUL, as a
// QByteArray's own are.
bool copy(std::string_view sourceDirectory, const QByteArray &sourceName,
          std::string_view destDirectory, const QByteArray &destName, const Options &options,
          MissingDirectory missing, KeptDirectories &kept);

// A report that calls the slot member of receiver by name, as
// FileCopyWithProgress() does; empty when either is null.
Report reportTo(QObject *receiver, const char *member);

// name with a final '.' and three letters lower-cased: the rule of
// TFileSystemHelper::FileCopyLowerCaseDestFilename(), on a name's bytes. A
// name whose bytes the locale's encoding cannot decode is left as it is.
QByteArray lowerCaseExtension(const QByteArray &name);

} // namespace FileCopier

#endif // TRELLIS_FILECOPIER_P_H
