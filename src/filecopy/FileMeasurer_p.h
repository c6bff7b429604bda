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

#include <atomic>
#include <cstddef>
#include <memory>
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

    FileMeasurer() = default;
    FileMeasurer(const FileMeasurer &) = delete;
    FileMeasurer &operator=(const FileMeasurer &) = delete;

    // Asks for a look at name in directory, whose size goes to *size, -1
    // for a name gone since its listing. *size must stay where it is, and
    // be left alone, until finish() returns.
    void measure(const std::shared_ptr<const Directory> &directory, const QByteArray &name,
                 qint64 *size);

    // Waits for every look asked for; true when a name was gone. The
    // measurer may be used again afterwards.
    bool finish();

private:
    struct Batch
    {
        std::shared_ptr<const Directory> directory;
        std::vector<QByteArray> names;
        std::vector<qint64 *> sizes;
    };

    void handOver();
    void look(const Batch &batch);

    Batch m_gathering; // the files of the directory the walk is in
    std::atomic<bool> m_anyGone { false };
    // Made for the first directory that has MinFilesForThread files; ends,
    // waiting for its looks, before what they found is read.
    std::optional<JobPool<Batch>> m_thread;
};

#endif // TRELLIS_FILEMEASURER_P_H
