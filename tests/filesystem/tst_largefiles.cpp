#include "FileTestSupport.h"

#include <Trellis/TFileHash.h>
#include <Trellis/TFileSystemHelper.h>

#include <QtTest>

// A file past 2 GiB and 4 GiB, where 32-bit file offsets and sizes end, must be
// hashed, copied and deleted whole on 32-bit builds as on 64-bit ones. The
// source is sparse: zeros but for a few marked blocks, the ones across those
// limits included. Where the copy cannot keep the holes it is written out in
// full, so the test needs room for that and skips without it.
//
// A sparse file keeps its holes when it is copied: its contents are the
// same, and the copy takes no more room on the disk than the source.

// The source is past 4 GiB, and not a whole number of 4096-byte copy chunks.
static constexpr qint64 GiB = qint64(1) << 30, MiB = 1 << 20, MarkerSize = 4096,
                        FileSize = 4 * GiB + 3 * 4096 + 123;

class tst_LargeFiles : public FileTestCase
{
    Q_OBJECT

private slots:
    void copies_data()
    {
        QTest::addColumn<qint64>("size");
        QTest::addColumn<QList<qint64>>("markers"); // where the marked blocks start
        QTest::addColumn<QByteArray>("md5"); // what md5sum gives, when known
        QTest::newRow("past 4 GiB")
                << FileSize
                << QList<qint64> { 0, 2 * GiB - MarkerSize / 2, 4 * GiB - MarkerSize / 2,
                                   FileSize - MarkerSize }
                << QByteArray("807127f1afbe7d07b34cd1d85a265f56");
        // A few MiB, one letter a MiB: D data, - a hole.
        for (const QByteArray layout : { "-", "D-", "-D", "D-D", "D--D--D", "DD---------D" }) {
            QList<qint64> markers;
            for (qint64 at = 0; at < layout.size() * MiB; at += MarkerSize)
                if (layout[int(at / MiB)] == 'D')
                    markers << at;
            QTest::newRow(layout) << layout.size() * MiB << markers << QByteArray();
        }
    }

    // The copy has the source's contents (a chunk lost, repeated or written at
    // a wrapped offset changes the digest) and takes no more blocks of 512
    // bytes; both go with the directory. Each marked block has bytes of its own.
    void copies()
    {
        QFETCH(qint64, size);
        QFETCH(QList<qint64>, markers);
        QFETCH(QByteArray, md5);
        QFile file("source"_s);
        // Room for the copy; a file system without holes spends it on the source first.
        for (const bool written : { false, true })
            if (QStorageInfo("."_s).bytesAvailable() < size + 256 * MiB)
                QSKIP("needs room for the copy in the temporary directory");
            else if (!written && !(file.open(QIODevice::WriteOnly) && file.resize(size)))
                QFAIL("cannot make the source");
        for (const qint64 offset : markers)
            QVERIFY(file.seek(offset)
                    && file.write(randomBytes(MarkerSize, quint32(offset))) == MarkerSize);
        file.close();
        const qint64 sourceBlocks = status("source"_s).st_blocks;
        if (size < GiB && sourceBlocks * 512 >= size)
            QSKIP("this file system keeps no holes");
        QVERIFY(TFileSystemHelper::FileCopy("source"_s, "copy"_s, false));
        QCOMPARE(TFileHash::CalculateFileMD5("copy"_s).toHex(),
                 md5.isEmpty() ? TFileHash::CalculateFileMD5("source"_s).toHex() : md5);
        QVERIFY(size >= GiB || status("copy"_s).st_blocks <= sourceBlocks);
        QVERIFY(TFileSystemHelper::DeleteDirGeneric("."_s, false, false) && QDir().isEmpty());
    }
};

QTEST_GUILESS_MAIN(tst_LargeFiles)
#include "tst_largefiles.moc"
