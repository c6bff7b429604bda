//
//  W A R N I N G
//  -------------
//
// This file is not part of the Trellis API. It is internal to the library
// and may change or disappear from one version to the next.

#ifndef TRELLIS_DATACOPY_P_H
#define TRELLIS_DATACOPY_P_H

#include "BackgroundSync_p.h"
#include "ChunkBatch_p.h"

#include <QtGlobal>

#include <functional>

#include <sys/stat.h>

// Moves the contents of one open file to the end of another, on the schedule
// that TFileSystemHelper::FileCopyWithProgress() documents for chunks of
// CopyChunkSize bytes: a flush to the disk after the chunk that crosses
// each 16,000,000 bytes since the last one and after the last chunk, and
// progress reports at most every 100 ms and after the last chunk, together
// counting every byte copied.
//
// The bytes are copied in the kernel (copy_file_range(), which also lets a
// file system share blocks) in pieces that end where the schedule has
// something to do; where the kernel refuses (across file systems on old
// kernels, a block device), they are read and written in chunks. The holes
// of a sparse source are left holes in the copy, as long as the kernel
// copies: a hole counts as copied when the copy passes it.
class DataCopy
{
public:
    // Called with the bytes copied since the last report; false stops the
    // copy.
    using Report = std::function<bool(qint64 bytes)>;

    // source: the source's status as last seen. Without lastFlush the last
    // flush is left to the caller.
    DataCopy(int source, const struct stat &status, int destination, Report report, bool lastFlush);

    // Copies up to the source's end. False when reading or writing failed
    // or a report stopped the copy; what was read is written all the same.
    bool run();

private:
    qint64 copyPiece(qint64 size, bool &atEnd);
    qint64 copyInKernel(qint64 size, bool &atEnd);
    qint64 skipHole(off_t position, qint64 size);
    qint64 dataBeforeHole(off_t position);
    bool flush(bool last);
    bool report();

    const int m_source;
    const int m_destination;
    const Report m_report;
    const bool m_lastFlush;
    qint64 m_sourceSize;
    qint64 m_copied = 0;
    bool m_inKernel = true;
    bool m_passedLast = false; // a last chunk was copied: the size may be stale
    // Fewer blocks than bytes: the source may have holes worth looking for.
    const bool m_sparse;
    ChunkBatch m_batch;
    BackgroundSync m_backgroundSync;
    qint64 m_unsynced = 0;
    qint64 m_unreported = 0;
    qint64 m_lastReport = 0;
};

#endif // TRELLIS_DATACOPY_P_H
