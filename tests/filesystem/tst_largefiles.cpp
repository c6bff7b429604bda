#include <Trellis/TFileHash.h>
#include <Trellis/TFileSystemHelper.h>

#include <QStorageInfo>
#include <QTemporaryDir>
#include <QTest>

#include <sys/stat.h>

// A file past 2 GiB and 4 GiB, where 32-bit file offsets and sizes end, must be
// hashed, copied and deleted whole on 32-bit builds as on 64-bit ones. The
// source is sparse: zeros but for a few marked blocks, the ones across those
// limits included. Where the copy cannot keep the holes it is written out in
// full, so the test needs room for that and skips without it.
//
// A sparse file keeps its holes when it is copied: its contents are the
// same, and the copy takes no more room on the disk than the source.

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

    void sparseCopy_data()
    {
        // One letter a MiB: D data, - a hole.
        QTest::addColumn<QByteArray>("layout");
        for (const char *layout : { "-", "D-", "-D", "D-D", "-D-", "D--D--D", "DD---------D" })
            QTest::newRow(layout) << QByteArray(layout);
    }

    void sparseCopy()
    {
        QFETCH(QByteArray, layout);
        constexpr qint64 MiB = 1 << 20;
        QTemporaryDir dir;
        const QString source = dir.filePath(QStringLiteral("sparse.bin"));
        QFile file(source);
        QVERIFY(file.open(QIODevice::WriteOnly) && file.resize(layout.size() * MiB));
        for (int i = 0; i < layout.size(); ++i) {
            if (layout.at(i) == 'D')
                QVERIFY(file.seek(i * MiB)
                        && file.write(marker(i).repeated(MiB / MarkerSize)) == MiB);
        }
        file.close();
        const auto blocks = [](const QString &path) {
            struct stat status;
            return ::stat(QFile::encodeName(path).constData(), &status) == 0
                    ? qint64(status.st_blocks)
                    : -1;
        };
        if (blocks(source) * 512 >= file.size())
            QSKIP("this file system keeps no holes");

        const QString copy = dir.filePath(QStringLiteral("copy.bin"));
        QVERIFY(TFileSystemHelper::FileCopy(source, copy, false));
        QCOMPARE(QFileInfo(copy).size(), QFileInfo(source).size());
        QCOMPARE(TFileHash::CalculateFileMD5(copy), TFileHash::CalculateFileMD5(source));
        QVERIFY2(blocks(copy) <= blocks(source),
                 qPrintable(QStringLiteral("%1 blocks against %2")
                                    .arg(blocks(copy))
                                    .arg(blocks(source))));
    }
};

QTEST_GUILESS_MAIN(tst_LargeFiles)
#include "tst_largefiles.moc"
