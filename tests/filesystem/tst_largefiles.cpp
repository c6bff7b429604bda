#include <Trellis/TFileHash.h>
#include <Trellis/TFileSystemHelper.h>

#include <QStorageInfo>
#include <QTemporaryDir>
#include <QTest>

// A file past 2 GiB and 4 GiB, where 32-bit file offsets and sizes end, must be
// hashed, copied and deleted whole on 32-bit builds as on 64-bit ones. The
// source is sparse: zeros but for a few marked blocks, the ones across those
// limits included. Every copy is written out in full, so the test needs room
// for one copy and skips without it.

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

// Compares a copy with the source by its size and marked blocks, and returns
// what differs, or nothing. A chunk lost, repeated or written at a wrapped
// offset moves the data against the markers.
QString differenceFromSource(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly) || file.size() != FileSize)
        return QStringLiteral("%1 has %2 bytes").arg(path).arg(file.size());
    for (qint64 offset : MarkerOffsets) {
        if (!file.seek(offset) || file.read(MarkerSize) != marker(offset))
            return QStringLiteral("the block at %1 differs").arg(offset);
    }
    return QString();
}

} // namespace

class tst_LargeFiles : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;

    QString path(const char *name) const { return m_dir.filePath(QLatin1String(name)); }

    // Tells why there is not enough free space for one more copy, or nothing.
    QString lackOfRoom() const
    {
        const qint64 needed = FileSize + (256 << 20);
        const QStorageInfo storage(m_dir.path());
        if (storage.bytesAvailable() >= needed)
            return QString();
        return QStringLiteral("needs %1 MiB free in %2 to copy a file past 4 GiB; %3 MiB are")
                .arg(needed >> 20)
                .arg(storage.rootPath())
                .arg(storage.bytesAvailable() >> 20);
    }

private slots:
    void initTestCase()
    {
        QString lack = lackOfRoom();
        if (!lack.isEmpty())
            QSKIP(qPrintable(lack));
        QVERIFY(QDir(m_dir.path()).mkdir(QStringLiteral("tree")));
        QFile source(path("tree/big.bin"));
        QVERIFY(source.open(QIODevice::WriteOnly) && source.resize(FileSize));
        for (qint64 offset : MarkerOffsets)
            QVERIFY(source.seek(offset) && source.write(marker(offset)) == MarkerSize);
        source.close();
        // A file system without holes has just spent the room on the source.
        lack = lackOfRoom();
        if (!lack.isEmpty())
            QSKIP(qPrintable(lack));
    }

    void hash()
    {
        // What md5sum gives for the source.
        QCOMPARE(TFileHash::CalculateFileMD5(path("tree/big.bin")).toHex(),
                 QByteArray("c406087a0f2973e1ecbba032e662ccb0"));
    }

    void copyAndDelete()
    {
        QVERIFY(TFileSystemHelper::FileCopy(path("tree/big.bin"), path("copy.bin"), false));
        QCOMPARE(differenceFromSource(path("copy.bin")), QString());
        QVERIFY(QFile::remove(path("copy.bin")));

        QVERIFY(TFileSystemHelper::CopyDir(path("tree"), path("copied")));
        QCOMPARE(differenceFromSource(path("copied/big.bin")), QString());
        for (const char *tree : { "copied", "tree" }) {
            QVERIFY(TFileSystemHelper::DeleteDirGeneric(path(tree), false, true));
            QVERIFY(!QFileInfo::exists(path(tree)));
        }
    }
};

QTEST_GUILESS_MAIN(tst_LargeFiles)
#include "tst_largefiles.moc"
