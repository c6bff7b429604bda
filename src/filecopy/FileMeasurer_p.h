//
//  W A R N I N G
//  -------------
//
// This file is not part of the Trellis API. It is internal to the library
// and may change or disappear from one version to the next.

#ifndef TRELLIS_FILEMEASURER_P_H
#define TRELLIS_FILEMEASURER_P_H

#include "filesystem/Directory_p.h"
#include "filesystem/JobPool_p.h"

#include <QByteArray>

#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

// Measures the files a walk lists: one look at each (fstatat(), through
// links), relative to the directory that listed it. Each look is a system
// call, and the rest of a walk makes few, so with more than one processor
// a thread of the measurer's own takes looks while the walk goes on, and
// the walk takes the others; with one processor, or when no thread can be
// had, the walk takes them all.
//
// The looks are gathered per directory and handed over when the walk
// measures a file of another directory, or finishes. A directory is kept
// open until its files were looked at: once MaxWaitingDirectories wait for
// the thread, the walk looks at the next directory's files itself, so that
// it never waits and holds few descriptors.
class FileMeasurer
{
public:
    static constexpr std::size_t MaxWaitingDirectories = 8;
    // A directory with fewer files is looked at in the walk's thread while
    // there is no thread of the measurer's own yet: starting one would cost
    // more than it saves.
    static constexpr std::size_t MinFilesForThread = 32;

    // What a look found: the size of the file asked for under key, or -1
    // for a name gone since its listing.
    struct Size
    {
        std::size_t key;
        qint64 bytes;
    };

    FileMeasurer() = default;
    FileMeasurer(const FileMeasurer &) = delete;
    FileMeasurer &operator=(const FileMeasurer &) = delete;

    // Asks for a look at name in directory, answered under key.
    void measure(const std::shared_ptr<const Directory> &directory, const QByteArray &name,
                 std::size_t key);

    // Waits for every look asked for and gives what they found, in no
    // particular order. The measurer may be used again afterwards.
    std::vector<Size> finish();

private:
    struct Batch
    {
        std::shared_ptr<const Directory> directory;
        std::vector<QByteArray> names;
        std::vector<std::size_t> keys;
    };

    void handOver();
    void look(const Batch &batch);

    Batch m_gathering; // the files of the directory the walk is in
    std::mutex m_foundMutex;
    std::vector<Size> m_found; // guarded by m_foundMutex
    // Made for the first directory that has MinFilesForThread files; ends,
    // waiting for its looks, before what they found is read.
    std::optional<JobPool<Batch>> m_thread;
};

#endif // TRELLIS_FILEMEASURER_P_H
