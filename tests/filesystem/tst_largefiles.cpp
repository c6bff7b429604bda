#include <Trellis/TFileHash.h>
#include <Trellis/TFileSystemHelper.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
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
constexpr qint64 SpareRoom = 256 << 20;
constexpr int MarkerSize = 4096;
constexpr qint64 MarkerOffsets[]
        = { 0, 2 * GiB - MarkerSize / 2, 4 * GiB - MarkerSize / 2, FileSize - MarkerSize };
// What md5sum gives for the source that writeSource() makes.
constexpr char SourceMd5[] = "c406087a0f2973e1ecbba032e662ccb0";

QByteArray marker(qint64 offset)
{
    const QByteArray text = "block at " + QByteArray::number(offset) + ' ';
    QByteArray block = text.repeated(MarkerSize / text.size() + 1);
    block.truncate(MarkerSize);
    return block;
}

bool writeSource(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || !file.resize(FileSize))
        return false;
    for (qint64 offset : MarkerOffsets) {
        if (!file.seek(offset) || file.write(marker(offset)) != MarkerSize)
            return false;
    }
    return true;
}

// Compares a copy with the source by its size and marked blocks, and returns
// what differs, or nothing. A chunk lost, repeated or written at a wrapped
// offset moves the data against the markers.
QString differenceFromSource(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QStringLiteral("cannot open ") + path;
    if (file.size() != FileSize)
        return QStringLiteral("size %1, not %2").arg(file.size()).arg(FileSize);
    for (qint64 offset : MarkerOffsets) {
        if (!file.seek(offset) || file.read(MarkerSize) != marker(offset))
            return QStringLiteral("the block at %1 differs").arg(offset);
    }
    return QString();
}

// Adds up the progress calls of a copy.
class ProgressSum : public QObject
{
    Q_OBJECT

public:
    qint64 total = 0;
    int calls = 0;
    bool allPositive = true;

    Q_INVOKABLE bool OnBytesWritten(qint64 bytes)
    {
        total += bytes;
        ++calls;
        allPositive = allPositive && bytes > 0;
        return true;
    }
};

} // namespace

class tst_LargeFiles : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void hash();
    void copyWithProgress();
    void copyAndDeleteTrees();

private:
    QString path(const QString &name) const { return m_dir.filePath(name); }
    QString lackOfRoom() const;

    QTemporaryDir m_dir;
    QString m_source;
};

// Tells why there is not enough free space for one copy, or nothing.
QString tst_LargeFiles::lackOfRoom() const
{
    QStorageInfo storage(m_dir.path());
    if (storage.bytesAvailable() >= FileSize + SpareRoom)
        return QString();
    return QStringLiteral("needs %1 MiB free in %2 to copy a file past 4 GiB; %3 MiB are")
            .arg((FileSize + SpareRoom) >> 20)
            .arg(storage.rootPath())
            .arg(storage.bytesAvailable() >> 20);
}

void tst_LargeFiles::initTestCase()
{
    QVERIFY(m_dir.isValid());
    QString lack = lackOfRoom();
    if (!lack.isEmpty())
        QSKIP(qPrintable(lack));
    QVERIFY(QDir(m_dir.path()).mkdir(QStringLiteral("tree")));
    m_source = path(QStringLiteral("tree/big.bin"));
    QVERIFY(writeSource(m_source));
    // A file system without holes has just spent the room on the source.
    lack = lackOfRoom();
    if (!lack.isEmpty())
        QSKIP(qPrintable(lack));
}

void tst_LargeFiles::hash()
{
    QCOMPARE(TFileHash::CalculateFileMD5(m_source).toHex(), QByteArray(SourceMd5));
}

void tst_LargeFiles::copyWithProgress()
{
    const QString copy = path(QStringLiteral("copy.bin"));
    ProgressSum progress;
    QVERIFY(TFileSystemHelper::FileCopyWithProgress(m_source, copy, &progress, "OnBytesWritten",
                                                    false));
    QCOMPARE(differenceFromSource(copy), QString());
    QCOMPARE(progress.total, FileSize);
    QVERIFY(progress.calls > 0 && progress.allPositive);
    QVERIFY(QFile::remove(copy));
}

void tst_LargeFiles::copyAndDeleteTrees()
{
    const QString copy = path(QStringLiteral("copied"));
    QVERIFY(TFileSystemHelper::CopyDir(path(QStringLiteral("tree")), copy));
    QCOMPARE(differenceFromSource(copy + QStringLiteral("/big.bin")), QString());

    QVERIFY(TFileSystemHelper::DeleteDirGeneric(copy, false, true));
    QVERIFY(!QFileInfo::exists(copy));
    QVERIFY(TFileSystemHelper::DeleteDirGeneric(path(QStringLiteral("tree")), false, true));
    QVERIFY(!QFileInfo::exists(path(QStringLiteral("tree"))));
}

QTEST_GUILESS_MAIN(tst_LargeFiles)
#include "tst_largefiles.moc"
