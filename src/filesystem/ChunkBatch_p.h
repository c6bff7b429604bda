//
//  W A R N I N G
//  -------------
//
// This file is not part of the Trellis API. It is internal to the library
// and may change or disappear from one version to the next.

#ifndef TRELLIS_CHUNKBATCH_P_H
#define TRELLIS_CHUNKBATCH_P_H

#include <QtGlobal>

#include <memory>

// The copy reads its source in chunks of this many bytes.
constexpr qint64 CopyChunkSize = 4096;

// Reads until size bytes are in data or the file ends, as QFile does: the
// number read, or -1 when an error came before any byte. atEnd is set when
// a read found the end of the file.
qint64 readChunk(int fd, char *data, qint64 size, bool &atEnd);

// The size of the open file fd, 0 when it cannot be told.
qint64 fileSize(int fd);

// Gathers whole chunks read from a file and writes them to another in as
// few calls as its buffer allows. The buffer is allocated once, no larger
// than the file being copied needs.
class ChunkBatch
{
public:
    ChunkBatch(int destination, qint64 expectedSize);

    // Room for the next chunk, after the chunks gathered so far; flushes
    // first when the buffer is full. Null when that flush failed.
    char *nextChunk();
    void commit(qint64 count) { m_used += count; }

    // Writes what was gathered; false when not all of it could be written.
    bool flush();

private:
    const int m_destination;
    const qint64 m_capacity;
    const std::unique_ptr<char[]> m_buffer;
    qint64 m_used = 0;
};

#endif // TRELLIS_CHUNKBATCH_P_H
