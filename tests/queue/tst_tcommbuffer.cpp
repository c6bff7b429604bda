#include <Trellis/TCommBuffer.h>

#include <QByteArray>
#include <QRandomGenerator>
#include <QTest>
#include <QThread>

#include <climits>
#include <thread>

namespace {
// Byte i of the test streams: varied enough that a lost, doubled or
// misplaced block cannot go unnoticed whatever the buffer's size.
char streamByte(qint64 i)
{
    return char(i ^ (i >> 7) ^ (i >> 13));
}

QByteArray streamBytes(qint64 from, int count)
{
    QByteArray bytes(count, Qt::Uninitialized);
    for (int k = 0; k < count; ++k)
        bytes[k] = streamByte(from + k);
    return bytes;
}

QByteArray readBytes(TCommBuffer &buffer, int maxCount)
{
    QByteArray bytes(maxCount, Qt::Uninitialized);
    const int count = buffer.Read(bytes.data(), maxCount);
    bytes.resize(qMax(count, 0));
    return bytes;
}
} // namespace

class tst_TCommBuffer : public QObject
{
    Q_OBJECT

private slots:
    void fillAndDrain();
    void wrapsAround_data();
    void wrapsAround();
    void exactCapacity_data();
    void exactCapacity();
    void zeroCountsChangeNothing();
    void badInputsAreHarmless_data();
    void badInputsAreHarmless();
    void streamsBetweenThreads();
};

void tst_TCommBuffer::fillAndDrain()
{
    TCommBuffer buffer(8);
    QCOMPARE(buffer.GetFree(), 8);
    QCOMPARE(buffer.GetUsed(), 0);
    char byte;
    QCOMPARE(buffer.Read(&byte, 1), 0);

    QVERIFY(buffer.Write("abcde", 5));
    QCOMPARE(buffer.GetFree(), 3);
    QCOMPARE(buffer.GetUsed(), 5);
    QVERIFY(!buffer.Write("wxyz", 4));
    QCOMPARE(buffer.GetFree(), 3);
    QCOMPARE(buffer.GetUsed(), 5);
    QVERIFY(buffer.Write("fgh", 3));
    QCOMPARE(buffer.GetFree(), 0);

    QCOMPARE(readBytes(buffer, 2), QByteArray("ab"));
    QCOMPARE(readBytes(buffer, 100), QByteArray("cdefgh"));
    QCOMPARE(buffer.GetFree(), 8);
    QCOMPARE(buffer.GetUsed(), 0);
}

void tst_TCommBuffer::wrapsAround_data()
{
    QTest::addColumn<int>("start");
    QTest::addColumn<int>("count");
    for (int start = 0; start < 8; ++start) {
        for (int count = 1; count <= 8; ++count)
            QTest::addRow("start %d, %d bytes", start, count) << start << count;
    }
}

// A block written at any position of a size-8 buffer, whether it wraps or
// not, reads back whole and in order, in one piece or in two.
void tst_TCommBuffer::wrapsAround()
{
    QFETCH(int, start);
    QFETCH(int, count);
    TCommBuffer buffer(8);
    const QByteArray lead = streamBytes(100, start);
    QVERIFY(buffer.Write(lead.constData(), start));
    QCOMPARE(readBytes(buffer, start), lead);

    const QByteArray block = streamBytes(0, count);
    QVERIFY(buffer.Write(block.constData(), count));
    QCOMPARE(buffer.GetFree(), 8 - count);
    const int firstPart = count / 2;
    QCOMPARE(readBytes(buffer, firstPart) + readBytes(buffer, 8), block);
    QCOMPARE(buffer.GetFree(), 8);
}

void tst_TCommBuffer::exactCapacity_data()
{
    QTest::addColumn<int>("size");
    QTest::newRow("1") << 1;
    QTest::newRow("8") << 8;
    QTest::newRow("4097") << 4097;
}

void tst_TCommBuffer::exactCapacity()
{
    QFETCH(int, size);
    const QByteArray tooMuch = streamBytes(0, size + 1);
    TCommBuffer buffer(size);
    QVERIFY(!buffer.Write(tooMuch.constData(), size + 1));
    QCOMPARE(buffer.GetFree(), size);
    QVERIFY(buffer.Write(tooMuch.constData(), size));
    QCOMPARE(buffer.GetUsed(), size);
    QVERIFY(!buffer.Write(tooMuch.constData(), 1));
    QCOMPARE(readBytes(buffer, size + 1), tooMuch.left(size));
}

void tst_TCommBuffer::zeroCountsChangeNothing()
{
    TCommBuffer buffer(8);
    QVERIFY(buffer.Write("abc", 3));
    QVERIFY(buffer.Write("xyz", 0));
    QVERIFY(buffer.Write(nullptr, 0));
    char bytes[8];
    QCOMPARE(buffer.Read(bytes, 0), 0);
    QCOMPARE(buffer.Read(nullptr, 0), 0);
    QCOMPARE(buffer.GetUsed(), 3);
    QCOMPARE(buffer.GetFree(), 5);
    QCOMPARE(readBytes(buffer, 8), QByteArray("abc"));
}

void tst_TCommBuffer::badInputsAreHarmless_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<int>("capacity");
    QTest::newRow("size 8") << 8 << 8;
    QTest::newRow("size 0") << 0 << 0;
    QTest::newRow("size -1") << -1 << 0;
    QTest::newRow("size INT_MIN") << INT_MIN << 0;
}

void tst_TCommBuffer::badInputsAreHarmless()
{
    QFETCH(int, size);
    QFETCH(int, capacity);
    TCommBuffer buffer(size);
    QCOMPARE(buffer.GetFree(), capacity);
    QCOMPARE(buffer.GetUsed(), 0);

    char bytes[8] = "abcdefg";
    QVERIFY(!buffer.Write(bytes, -1));
    QVERIFY(!buffer.Write(bytes, INT_MIN));
    QVERIFY(!buffer.Write(nullptr, 1));
    QVERIFY(!buffer.Write(bytes, INT_MAX));
    QCOMPARE(buffer.Read(bytes, 1), 0);
    QCOMPARE(buffer.GetFree(), capacity);
    QCOMPARE(buffer.GetUsed(), 0);

    if (capacity > 0)
        QVERIFY(buffer.Write(bytes, 1));
    QCOMPARE(buffer.Read(bytes, -1), -1);
    QCOMPARE(buffer.Read(bytes, INT_MIN), -1);
    QCOMPARE(buffer.Read(nullptr, 1), -1);
    QCOMPARE(buffer.GetUsed(), qMin(capacity, 1));
    QCOMPARE(buffer.Read(bytes, INT_MAX), qMin(capacity, 1));
}

// A writer and a reader stream several megabytes in random-sized pieces
// through a small buffer whose size divides nothing evenly, retrying instead
// of waiting; every byte arrives once and in order.
void tst_TCommBuffer::streamsBetweenThreads()
{
    constexpr int Size = 1021;
    constexpr qint64 Total = 6 * 1024 * 1024;
    TCommBuffer buffer(Size);

    std::thread writer([&buffer] {
        QRandomGenerator random(1);
        for (qint64 written = 0; written < Total;) {
            const int count = int(qMin<qint64>(random.bounded(1, Size + 1), Total - written));
            const QByteArray block = streamBytes(written, count);
            while (!buffer.Write(block.constData(), count))
                QThread::yieldCurrentThread();
            written += count;
        }
    });

    QRandomGenerator random(2);
    QByteArray block(2 * Size, Qt::Uninitialized);
    qint64 mismatches = 0;
    qint64 read = 0;
    while (read < Total) {
        const int count = buffer.Read(block.data(), random.bounded(1, 2 * Size));
        if (count < 0)
            break;
        if (count == 0)
            QThread::yieldCurrentThread();
        for (int k = 0; k < count; ++k)
            mismatches += block[k] != streamByte(read + k);
        read += count;
    }
    writer.join();

    QCOMPARE(read, Total);
    QCOMPARE(mismatches, 0);
    QCOMPARE(buffer.GetUsed(), 0);
    QCOMPARE(buffer.GetFree(), Size);
}

QTEST_GUILESS_MAIN(tst_TCommBuffer)
#include "tst_tcommbuffer.moc"
