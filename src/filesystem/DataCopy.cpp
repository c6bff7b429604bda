#include "DataCopy_p.h"

#include <Trellis/TLocalTime.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr qint64 SyncInterval = 16000000;
// Each 4 MiB written since the last flush is handed to the disk without
// waiting, so that the disk writes while the copy goes on and the next
// flush waits for the last part only; this takes about a third off the time
// spent flushing a large file. A multiple of the chunk size.
constexpr qint64 WritebackInterval = 4 * 1024 * 1024;
constexpr qint64 ProgressInterval = 100; // milliseconds

// Whether copy_file_range() failed because it cannot copy between these
// files, rather than because reading or writing failed.
bool kernelCannotCopy(int error)
{
    return error == EXDEV || error == EINVAL || error == ENOSYS || error == EOPNOTSUPP
            || error == EBADF;
}

} // namespace

DataCopy::DataCopy(int source, const struct stat &status, int destination, Report report,
                   bool lastFlush)
    : m_source(source), m_destination(destination), m_report(std::move(report)),
      m_lastFlush(lastFlush), m_sourceSize(status.st_size),
      m_sparse(S_ISREG(status.st_mode) && qint64(status.st_blocks) * 512 < status.st_size),
      m_batch(destination, status.st_size), m_backgroundSync(destination)
{ }

bool DataCopy::run()
{
    if (m_report)
        m_lastReport = TLocalTime::getCurrentTime();
    for (;;) {
        bool atEnd = false;
        // Up to the next point where the schedule flushes or writes back,
        // in whole chunks, as a copy chunk by chunk would reach it.
        const qint64 toSync
                = (SyncInterval - m_unsynced + CopyChunkSize - 1) / CopyChunkSize * CopyChunkSize;
        const qint64 toWriteback = WritebackInterval - m_unsynced % WritebackInterval;
        const qint64 count = copyPiece(std::min(toSync, toWriteback), atEnd);
        if (count < 0) {
            m_batch.flush();
            return false;
        }
        if (count == 0)
            break;
        m_copied += count;
        // The last chunk is the one that leaves nothing to read by the
        // source's size. The size seen at the start holds until reading
        // finds more after a last chunk; then the source has grown, and its
        // size is asked again whenever the copy reaches it.
        if (m_passedLast && !atEnd && m_copied >= m_sourceSize)
            m_sourceSize = fileSize(m_source);
        const bool last = atEnd || m_copied >= m_sourceSize;
        m_passedLast = m_passedLast || last;

        m_unsynced += count;
        if (m_unsynced >= SyncInterval || last) {
            if (!flush(last))
                return false;
        } else if (m_unsynced % WritebackInterval == 0) {
            if (!m_batch.flush())
                return false;
            ::sync_file_range(m_destination, m_copied - WritebackInterval, WritebackInterval,
                              SYNC_FILE_RANGE_WRITE);
        }

        if (m_report) {
            m_unreported += count;
            if (TLocalTime::getCurrentTime() - m_lastReport >= ProgressInterval || last) {
                if (!report()) {
                    m_batch.flush();
                    return false;
                }
                // The receiver may have added to the source.
                continue;
            }
        }
        // Otherwise the copy ends where reading found the end. After a last
        // chunk found by the size, it reads on until it does: a source may
        // have grown, or have a size that tells nothing (a block device,
        // most files under /proc), and is copied to its end all the same.
        if (atEnd)
            break;
    }

    // A source that shrank while it was copied ends without a last piece;
    // what it gave is still flushed and reported.
    if (m_unsynced > 0 && !flush(true))
        return false;
    m_backgroundSync.wait();
    return m_unreported == 0 || report();
}

// Copies up to size bytes, whole chunks, in the kernel while it can, else
// one chunk through the batch. The bytes copied, -1 on failure.
qint64 DataCopy::copyPiece(qint64 size, bool &atEnd)
{
    if (m_inKernel) {
        const qint64 count = copyInKernel(size, atEnd);
        if (count != 0 || atEnd || m_inKernel)
            return count;
    }
    char *chunk = m_batch.nextChunk();
    if (!chunk)
        return -1;
    const qint64 count = readChunk(m_source, chunk, CopyChunkSize, atEnd);
    if (count > 0)
        m_batch.commit(count);
    return count;
}

// Gives up copying in the kernel, and returns 0, when the kernel cannot copy
// between these two files at all.
qint64 DataCopy::copyInKernel(qint64 size, bool &atEnd)
{
    qint64 done = 0;
    while (done < size) {
        qint64 wanted = size - done;
        if (m_sparse) {
            // The source was opened at its start: its position is what
            // the copy has passed.
            done += skipHole(m_copied + done, wanted);
            if (done == size || m_copied + done >= m_sourceSize)
                break;
            wanted = std::min(size - done, dataBeforeHole(m_copied + done));
        }
        const ssize_t count = ::copy_file_range(m_source, nullptr, m_destination, nullptr,
                                                std::size_t(wanted), 0);
        if (count > 0) {
            done += count;
            // Asking once more only to find the end costs a call a file.
            if (m_copied + done >= m_sourceSize)
                break;
        } else if (count == 0) {
            atEnd = true;
            break;
        } else if (errno == EINTR) {
            continue;
        } else if (done == 0 && kernelCannotCopy(errno)) {
            m_inKernel = false;
            break;
        } else {
            return done > 0 ? done : -1;
        }
    }
    return done;
}

// Moves both files past the hole at position, up to size bytes of it, and gives the copy the length
// it reaches, so that the hole is one in the copy too. The bytes passed; 0 where the source has
// data, or where the file system cannot tell.
qint64 DataCopy::skipHole(off_t position, qint64 size)
{
    off_t data = ::lseek(m_source, position, SEEK_DATA);
    if (data < 0 && errno == ENXIO)
        data = std::max(off_t(m_sourceSize), position); // a hole up to the end
    if (data <= position)
        return 0;
    const off_t end = position + std::min(qint64(data - position), size);
    if (::lseek(m_source, end, SEEK_SET) != end || ::lseek(m_destination, end, SEEK_SET) != end
        || ::ftruncate(m_destination, end) != 0) {
        // Back where the copy was: it goes on as if there were no hole.
        ::lseek(m_source, position, SEEK_SET);
        ::lseek(m_destination, position, SEEK_SET);
        return 0;
    }
    return end - position;
}

// The bytes from position to the source's next hole (the end of the file
// is one); any number when the file system cannot tell.
qint64 DataCopy::dataBeforeHole(off_t position)
{
    const off_t hole = ::lseek(m_source, position, SEEK_HOLE);
    if (hole < 0 || ::lseek(m_source, position, SEEK_SET) != position)
        return std::numeric_limits<qint64>::max();
    return hole > position ? qint64(hole - position) : std::numeric_limits<qint64>::max();
}

// Writes what the batch holds and flushes: in the background, unless it is
// the last flush, which is complete, and all earlier ones, before the copy
// is reported done.
bool DataCopy::flush(bool last)
{
    const bool written = m_batch.flush();
    if (last) {
        m_backgroundSync.wait();
        if (m_lastFlush)
            ::fsync(m_destination);
    } else {
        m_backgroundSync.start();
    }
    m_unsynced = 0;
    return written;
}

// What a report counts has reached the copy: the receiver may look.
bool DataCopy::report()
{
    if (!m_batch.flush())
        return false;
    const bool goOn = m_report(m_unreported);
    m_unreported = 0;
    m_lastReport = TLocalTime::getCurrentTime();
    if (!goOn)
        errno = ECANCELED;
    return goOn;
}
