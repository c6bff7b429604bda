#include "fstestsupport.h"

#include <Trellis/TFileHash.h>

#include <QTemporaryDir>
#include <QTest>

using namespace FsTest;

class tst_TFileHash : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;

private slots:
    void digest_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QByteArray>("expected"); // empty: what md5sum says
        // Around the 2048-byte piece the file is read in, and well beyond it.
        for (int size : { 0, 1, 2047, 2048, 2049, 5000, 3 * 1024 * 1024 + 123 }) {
            const QString file = m_dir.filePath(QString::number(size));
            QVERIFY(writeFile(file, randomBytes(size, quint32(size))));
            QTest::addRow("%d bytes", size) << file << QByteArray();
        }
        // There is no error result: what cannot be read gives the digest of no data.
        const QByteArray none("d41d8cd98f00b204e9800998ecf8427e");
        QTest::newRow("missing file") << m_dir.filePath(QStringLiteral("missing")) << none;
        QTest::newRow("directory") << m_dir.path() << none;
    }

    void digest()
    {
        QFETCH(QString, path);
        QFETCH(QByteArray, expected);
        if (expected.isEmpty()) {
            QCOMPARE(run(QStringLiteral("md5sum"), { path }, &expected), 0);
            expected.truncate(32);
        }
        QCOMPARE(TFileHash::CalculateFileMD5(path).toHex(), expected);
    }
};

QTEST_GUILESS_MAIN(tst_TFileHash)
#include "tst_tfilehash.moc"
