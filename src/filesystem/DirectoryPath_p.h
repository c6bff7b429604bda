//
//  W A R N I N G
//  -------------
//
// This file is not part of the Trellis API. It is internal to the library
// and may change or disappear from one version to the next.

#ifndef TRELLIS_DIRECTORYPATH_P_H
#define TRELLIS_DIRECTORYPATH_P_H

#include "Directory_p.h"

#include <cstddef>
#include <vector>

// The directories of a walk's current descent, from the walk's root to the
// directory it is in, each opened relative to the one above it.
//
// A tree may be deeper than the process may hold descriptors, so only the
// root and the innermost few directories stay open. A directory whose
// descriptor was closed is opened again, when the walk comes back to it,
// from the nearest open directory above it, name by name with the same rule
// for links as the first time; each must be the very directory it was
// (device and inode), or the walk cannot go back to it. Nothing is ever
// found again through a path string, and the walk's own depth is bounded
// by neither descriptors nor the thread's stack.
class DirectoryPath
{
public:
    explicit DirectoryPath(Directory root);

    // Opens name below the innermost directory and makes it the innermost.
    // False, with errno, when it cannot be opened or when the innermost
    // directory cannot be reopened (errno ESTALE when it is no longer
    // there as it was).
    bool push(const QByteArray &name, Directory::Links links);
    // Leaves the innermost directory; never the root.
    void pop();

    // The innermost directory, opened again if need be; null when that
    // fails (errno as for push()).
    const Directory *innermost();

    std::size_t depth() const { return m_levels.size() - 1; }
    // Whether a directory of the descent, the root included, is the one
    // status describes (device and inode).
    bool contains(const struct stat &status) const;
    // Whether the innermost directory is also one further out: the descent
    // went round a cycle of links.
    bool innermostRepeats() const;

private:
    struct Level
    {
        Directory directory;
        QByteArray name;
        Directory::Links links;
        dev_t device;
        ino_t inode;
    };

    std::size_t indexOf(dev_t device, ino_t inode) const;
    bool reopen(std::size_t index);
    void closeOutermost();

    std::vector<Level> m_levels;
    std::size_t m_open = 1;
};

#endif // TRELLIS_DIRECTORYPATH_P_H
