#include <Trellis/TCommBuffer.h>

#include <QRandomGenerator>
#include <QTest>

#include <climits>
#include <thread>

class tst_TCommBuffer : public QObject
{
    Q_OBJECT

private slots:
    void blockAtEveryPosition_data();
    void blockAtEveryPosition();
    void streamsBetweenThreads();
};

void tst_TCommBuffer::blockAtEveryPosition_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<int>("start");
    QTest::addColumn<int>("count");
    for (int start = 0; start < 8; ++start)
        for (int count = 0; count <= 8; ++count)
            QTest::addRow("size 8, start %d, %d bytes", start, count) << 8 << start << count;
    for (const int size : { 0, -1, INT_MIN })
        QTest::addRow("size %d", size) << size << 0 << 0;
}

// A block written at any position of a buffer, wrapping or not, takes exactly
// its room, a write of one byte more than the rest is refused whole, and the
// block reads back in order (reads of part of what is there are in the stream
// test). Bad counts and null
// pointers change nothing; a size below 1 gives a buffer that holds nothing.
void tst_TCommBuffer::blockAtEveryPosition()
{
    QFETCH(int, size);
    QFETCH(int, start);
    QFETCH(int, count);
    const int capacity = qMax(size, 0);
    TCommBuffer buffer(size);
    char bytes[16];
    QVERIFY(buffer.Write("01234567", start));
    QCOMPARE(buffer.Read(bytes, 8), start);
    for (const int bad : { -1, INT_MIN, INT_MAX, capacity + 1 })
        QVERIFY(!buffer.Write("abcdefghi", bad));
    QVERIFY(!buffer.Write(nullptr, 1));
    QVERIFY(buffer.Write(nullptr, 0));
    QVERIFY(buffer.Write("abcdefghi", count));
    QVERIFY(!buffer.Write("ABCDEFGHI", capacity + 1 - count));
    QCOMPARE(buffer.GetUsed(), count);
    QCOMPARE(buffer.GetFree(), capacity - count);
    for (const int bad : { -1, INT_MIN })
        QCOMPARE(buffer.Read(bytes, bad), -1);
    QCOMPARE(buffer.Read(nullptr, 1), -1);
    QCOMPARE(buffer.Read(nullptr, 0), 0);
    QCOMPARE(buffer.Read(bytes, INT_MAX), count);
    QCOMPARE(QByteArray(bytes, count), QByteArray("abcdefghi", count));
    QCOMPARE(buffer.GetFree(), capacity);
}

// A writer and a reader stream several megabytes in random-sized pieces
// through a small buffer whose size divides nothing evenly, retrying instead
// of waiting; every byte arrives once and in order.
void tst_TCommBuffer::streamsBetweenThreads()
{
    constexpr int Size = 1021, Total = 6 * 1024 * 1024;
    QByteArray stream(Total, Qt::Uninitialized), received(Total, Qt::Uninitialized);
    for (int i = 0; i < Total; ++i) // a lost, doubled or misplaced piece cannot go unnoticed
        stream[i] = char(i ^ (i >> 7) ^ (i >> 13));
    TCommBuffer buffer(Size);
    std::thread writer([&] {
        QRandomGenerator random(1);
        for (int written = 0, count = 0; written < Total; written += count) {
            count = qMin(int(random.bounded(1, Size + 1)), Total - written);
            while (!buffer.Write(stream.constData() + written, count))
                std::this_thread::yield();
        }
    });

    QRandomGenerator random(2);
    int read = 0;
    for (int count = 0; read < Total && count >= 0; read += count) {
        count = qMin(int(random.bounded(1, 2 * Size)), Total - read);
        if ((count = buffer.Read(received.data() + read, count)) == 0)
            std::this_thread::yield();
    }
    writer.join();
    QCOMPARE(read, Total);
    QCOMPARE(received, stream);
    QCOMPARE(buffer.GetFree(), Size);
}

QTEST_GUILESS_MAIN(tst_TCommBuffer)
#include "tst_tcommbuffer.moc"
