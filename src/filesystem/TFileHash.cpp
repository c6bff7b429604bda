#include "TFileHash.h"

#include <QCryptographicHash>
#include <QFile>

QByteArray TFileHash::CalculateFileMD5(QString fileName)
{
    QCryptographicHash hash(QCryptographicHash::Md5);
    // Unbuffered: each read goes straight from the kernel into the buffer
    // below instead of through QFile's own buffer first.
    QFile file(fileName);
    if (file.open(QIODevice::ReadOnly | QIODevice::Unbuffered)) {
        char buffer[2048];
        qint64 count;
        while ((count = file.read(buffer, sizeof buffer)) > 0)
            hash.addData(buffer, int(count));
    }
    return hash.result();
}
