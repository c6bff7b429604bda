#ifndef TRELLIS_TFILEHASH_H
#define TRELLIS_TFILEHASH_H

#include <Trellis/trellis_export.h>

#include <QByteArray>
#include <QString>

/*!
    The MD5 digest of a file's contents.

    All members are static and the class is never instantiated.
*/
class TRELLIS_EXPORT TFileHash
{
public:
    TFileHash() = delete;

    /*!
        Returns the raw 16-byte MD5 digest (RFC 1321) of the contents of the
        file \a fileName; QByteArray::toHex() turns it into the usual text.

        The file is read in 128 KiB pieces through one fixed buffer, so
        memory use does not grow with its size. There is no error result: a
        file that cannot be opened (missing, unreadable, a directory) gives the
        digest of no data, d41d8cd98f00b204e9800998ecf8427e, the same as an
        empty file, and a read error part-way gives the digest of the bytes
        read before it. Only a regular file or a block device is read: a
        FIFO, a socket or a character device such as /dev/zero gives the
        digest of no data at once, without blocking or reading without end.

        Blocks the calling thread while it reads the whole file. Shares
        nothing, so any number of threads may call it at once.
    */
    static QByteArray CalculateFileMD5(QString fileName);
};

#endif // TRELLIS_TFILEHASH_H
