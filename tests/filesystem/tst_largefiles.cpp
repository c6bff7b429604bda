#include <Trellis/TFileHash.h>
#include <Trellis/TFileSystemHelper.h>

#include <QStorageInfo>
#include <QTemporaryDir>
#include <QTest>

// A file past 2 GiB and 4 GiB, where 32-bit file offsets and sizes end, must be
// hashed, copied and deleted whole on 32-bit builds as on 64-bit ones. The
// source is sparse: zeros but for a few marked blocks, the ones across those
// limits included. The copy is written out in full, so the test needs room
// for it and skips without it.

namespace {

constexpr qint64 GiB = qint64(1) << 30;
// Past 4 GiB, and not a whole number of 4096-byte copy chunks.
constexpr qint64 FileSize = 4 * GiB + 3 * 4096 + 123;
constexpr int MarkerSize = 4096;
constexpr qint64 MarkerOffsets[]
        = { 0, 2 * GiB - MarkerSize / 2, 4 * GiB - MarkerSize / 2, FileSize - MarkerSize };

QByteArray marker(qint64 offset)
{
    return QByteArray("block at " + QByteArray::number(offset) + ' ')
            .repeated(MarkerSize)
            .left(MarkerSize);
}

// Tells why there is not enough free space in dir for one more copy, or nothing.
QString lackOfRoom(const QString &dir)
{
    const qint64 needed = FileSize + (256 << 20);
    const QStorageInfo storage(dir);
    if (storage.bytesAvailable() >= needed)
        return QString();
    return QStringLiteral("needs %1 MiB free in %2 to copy a file past 4 GiB; %3 MiB are")
            .arg(needed >> 20)
            .arg(storage.rootPath())
            .arg(storage.bytesAvailable() >> 20);
}

} // namespace

class tst_LargeFiles : public QObject
{
    Q_OBJECT

private slots:
    void hashCopyAndDelete()
    {
        QTemporaryDir dir;
        const QString source = dir.filePath(QStringLiteral("big.bin"));
        QFile file(source);
        if (!lackOfRoom(dir.path()).isEmpty())
            QSKIP(qPrintable(lackOfRoom(dir.path())));
        QVERIFY(file.open(QIODevice::WriteOnly) && file.resize(FileSize));
        for (qint64 offset : MarkerOffsets)
            QVERIFY(file.seek(offset) && file.write(marker(offset)) == MarkerSize);
        file.close();
        // A file system without holes has just spent the room on the source.
        if (!lackOfRoom(dir.path()).isEmpty())
            QSKIP(qPrintable(lackOfRoom(dir.path())));
        // What md5sum gives for the source.
        QCOMPARE(TFileHash::CalculateFileMD5(source).toHex(),
                 QByteArray("c406087a0f2973e1ecbba032e662ccb0"));

        // A chunk lost, repeated or written at a wrapped offset moves the
        // data against the markers.
        QFile copy(dir.filePath(QStringLiteral("copy.bin")));
        QVERIFY(TFileSystemHelper::FileCopy(source, copy.fileName(), false));
        QVERIFY(copy.open(QIODevice::ReadOnly));
        QCOMPARE(copy.size(), FileSize);
        for (qint64 offset : MarkerOffsets)
            QVERIFY2(copy.seek(offset) && copy.read(MarkerSize) == marker(offset),
                     qPrintable(QString::number(offset)));
        copy.close();
        QVERIFY(TFileSystemHelper::DeleteDirGeneric(dir.path(), false, true));
        QVERIFY(!QFileInfo::exists(dir.path()));
    }
};

QTEST_GUILESS_MAIN(tst_LargeFiles)
#include "tst_largefiles.moc"
