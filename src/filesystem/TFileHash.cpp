#include "TFileHash.h"

#include "FileDescriptor_p.h"

#include <QCryptographicHash>
#include <QFile>

#include <fcntl.h>

QByteArray TFileHash::CalculateFileMD5(QString fileName)
{
    QCryptographicHash hash(QCryptographicHash::Md5);
    // Only what has an end is read, and nothing can block the call.
    struct stat status;
    const int fd = openReadableFile(AT_FDCWD, QFile::encodeName(fileName).constData(), status);
    // Buffered on purpose: QFile fetches 16 KiB per system call and hands it
    // out in 2048-byte pieces, which costs far less than one system call per
    // piece (reading 1 GiB unbuffered took about four times as long).
    QFile file;
    if (fd >= 0 && file.open(fd, QIODevice::ReadOnly, QFileDevice::AutoCloseHandle)) {
        char buffer[2048];
        qint64 count;
        while ((count = file.read(buffer, sizeof buffer)) > 0)
            hash.addData(QByteArray::fromRawData(buffer, int(count)));
    }
    return hash.result();
}
