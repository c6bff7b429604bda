#include "ChunkBatch_p.h"

#include <algorithm>
#include <cerrno>

#include <sys/stat.h>
#include <unistd.h>

namespace {

// Chunks are gathered and handed to the copy in writes of up to this many
// bytes, as a buffered QFile gathers them: the kernel's cost per write is
// several times that of copying a chunk, and a 4096-byte write per chunk
// would take half the speed of a large copy. A multiple of the chunk size.
constexpr qint64 WriteBatchSize = 1024 * 1024;

// Writes until all size bytes are written or a write fails, as QFile does:
// the number written.
qint64 writeChunk(int fd, const char *data, qint64 size)
{
    qint64 done = 0;
    while (done < size) {
        const ssize_t count = ::write(fd, data + done, std::size_t(size - done));
        if (count > 0)
            done += count;
        else if (count == 0 || errno != EINTR)
            break;
    }
    return done;
}

} // namespace

qint64 readChunk(int fd, char *data, qint64 size, bool &atEnd)
{
    qint64 done = 0;
    while (done < size) {
        const ssize_t count = ::read(fd, data + done, std::size_t(size - done));
        if (count > 0) {
            done += count;
        } else if (count == 0) {
            atEnd = true;
            break;
        } else if (errno != EINTR) {
            return done > 0 ? done : -1;
        }
    }
    return done;
}

qint64 fileSize(int fd)
{
    struct stat status;
    return ::fstat(fd, &status) == 0 ? qint64(status.st_size) : 0;
}

ChunkBatch::ChunkBatch(int destination, qint64 expectedSize)
    : m_destination(destination),
      m_capacity(std::clamp((expectedSize + CopyChunkSize - 1) / CopyChunkSize * CopyChunkSize,
                            CopyChunkSize, WriteBatchSize)),
      m_buffer(new char[std::size_t(m_capacity)])
{ }

char *ChunkBatch::nextChunk()
{
    if (m_used + CopyChunkSize > m_capacity && !flush())
        return nullptr;
    return m_buffer.get() + m_used;
}

bool ChunkBatch::flush()
{
    const qint64 written = writeChunk(m_destination, m_buffer.get(), m_used);
    const bool complete = written == m_used;
    m_used = 0;
    return complete;
}
