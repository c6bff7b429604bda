#include "TFileHash.h"

#include <QCryptographicHash>
#include <QFile>

QByteArray TFileHash::CalculateFileMD5(QString fileName)
{
    QCryptographicHash hash(QCryptographicHash::Md5);
    // Buffered on purpose: QFile fetches 16 KiB per system call and hands it
    // out in 2048-byte pieces, which costs far less than one system call per
    // piece (reading 1 GiB unbuffered took about four times as long).
    QFile file(fileName);
    // QFile would print a warning for an empty name; the library logs nothing.
    if (!fileName.isEmpty() && file.open(QIODevice::ReadOnly)) {
        char buffer[2048];
        qint64 count;
        while ((count = file.read(buffer, sizeof buffer)) > 0)
            hash.addData(QByteArray::fromRawData(buffer, int(count)));
    }
    return hash.result();
}
