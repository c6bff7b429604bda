#include "TFileHash.h"

#include "ChunkBatch_p.h"
#include "FileDescriptor_p.h"
#include "Md5Digest_p.h"

#include <QFile>

#include <memory>

#include <fcntl.h>

namespace {

// Large enough that the system calls cost nothing beside the digest, small
// enough to stay in the processor's cache while it is hashed.
constexpr int HashReadSize = 128 * 1024;

} // namespace

QByteArray TFileHash::CalculateFileMD5(QString fileName)
{
    Md5Digest digest;
    // Only what has an end is read, and nothing can block the call.
    struct stat status;
    const FileDescriptor file(
            openReadableFile(AT_FDCWD, QFile::encodeName(fileName).constData(), status));
    if (file.isOpen()) {
        ::posix_fadvise(file.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
        // Read straight into one fixed buffer: a buffered QFile would copy
        // every byte once more before the digest sees it.
        const auto buffer = std::make_unique<char[]>(HashReadSize);
        bool atEnd = false;
        qint64 count;
        while (!atEnd && (count = readChunk(file.get(), buffer.get(), HashReadSize, atEnd)) > 0)
            digest.addData(buffer.get(), std::size_t(count));
    }
    return digest.result();
}
