//
//  W A R N I N G
//  -------------
//
// This file is not part of the Trellis API. It is internal to the library
// and may change or disappear from one version to the next.

#ifndef TRELLIS_FLUSHPOOL_P_H
#define TRELLIS_FLUSHPOOL_P_H

#include "JobPool_p.h"

#include <cstddef>

// Flushes files to the disk in threads of its own, and closes them, so that
// whoever hands them over goes on working. A flush waits for a commit of the
// file system's journal; one flush at a time waits for each commit alone,
// several in flight share them.
//
// At most MaxThreads flushes run at once, and at most MaxWaiting files wait
// for one: handing over another waits for room.
class FlushPool
{
public:
    static constexpr std::size_t MaxThreads = 4;
    static constexpr std::size_t MaxWaiting = 16;

    FlushPool();

    // Takes fd over: it is flushed (fsync(), whose result is not looked at)
    // and closed. Flushed in the calling thread when no thread can be had.
    void flushAndClose(int fd);

    // Returns when every file handed over so far is flushed and closed.
    void waitForAll();

private:
    JobPool<int> m_jobs;
};

#endif // TRELLIS_FLUSHPOOL_P_H
