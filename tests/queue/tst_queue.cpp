#include "ThreadCrew.h"

#include <Trellis/TCommBuffer.h>
#include <Trellis/TQueue.h>

#include <QRandomGenerator>
#include <QtTest>

#include <algorithm>
#include <climits>

static constexpr unsigned int Untouched = 0xC0FFEE, Forever = TQueue::QueueWaitForever;

// Messages per run of the threaded tests, divisible by every thread count
// they use; fewer under ThreadSanitizer, which makes every access many times
// slower and finds a race in a short run as well.
#if defined(__SANITIZE_THREAD__)
static constexpr int StressMessages = 24000;
#else
static constexpr int StressMessages = 240000;
#endif

// The two ways of passing data between threads: queues of messages with their
// registry, which is process-wide (identifiers start at 1 because each test
// program is a fresh process, and registry() runs first), and the byte ring
// buffer.
class tst_Queue : public QObject
{
    Q_OBJECT

private slots:
    // Identifiers count from 1, inert queues included; lookups by name and by
    // identifier; a deleted queue takes only the entries that refer to it with it.
    // (Destruction by identifier is in racingCreatesAndDestroys().)
    void registry()
    {
        unsigned int code = Untouched;
        std::unique_ptr<TQueue> first(TQueue::CreateQueue(16, 4, QStringLiteral("first")));
        const std::unique_ptr<TQueue> inert(
                TQueue::CreateQueue(0, 4, QStringLiteral("inert"), &code));
        QVERIFY(inert && inert->GetQueueId() == 2 && code == TQueue::QueueErrNone); // inert too
        QVERIFY(!TQueue::CreateQueue(1, 1, QStringLiteral("first"), &code)
                && code == TQueue::QueueErrNameExists);
        QCOMPARE(TQueue::GetNextId(), 3u); // the refused queue drew none
        // Names are case-sensitive; an inert queue has none.
        QVERIFY(!TQueue::FindQueue(QStringLiteral("FIRST"))
                && !TQueue::FindQueue(QStringLiteral("inert")));
        QVERIFY(TQueue::GetQueueName(1) == QLatin1String("first")
                && TQueue::GetQueueName(2) == TQueue::InvalidQueueName);
        QCOMPARE(TQueue::GetQueueId(TQueue::InvalidQueueName), TQueue::InvalidQueueId);
        QCOMPARE(TQueue::DestroyQueue(TQueue::InvalidQueueId), TQueue::QueueErrNoQueue);
        // A queue built under a registered name is registered under its identifier
        // only, and its end leaves the other queue's entries alone.
        auto *namesake = new TQueue(16, 4, QStringLiteral("first"));
        QCOMPARE(TQueue::FindQueue(4), namesake);
        delete namesake;
        QVERIFY(!TQueue::FindQueue(4) && TQueue::FindQueue(1) == first.get()
                && TQueue::FindQueue(QStringLiteral("first")) == first.get());
        first.reset();
        QCOMPARE(TQueue::FindQueue(QStringLiteral("first")), nullptr);
    }

    // Each row runs a script of calls on one queue of messageSize and messageCount
    // called name; each word is a call and what it must give, and a failure
    // shows the word as expected and as it went:
    //   s<length>[/<timeout>]=<code>  SendMsg() of length bytes (null when 0) returns code
    //   r<size>[/<timeout>]=<length>  ReceiveMsg() into size bytes gets the oldest message,
    //                                 of length bytes, and leaves the error variable alone
    //                                 (else "?" follows the length)
    //   r<size>[/<timeout>]=x<code>   ReceiveMsg() returns -1 and stores code
    //   n=<count>                     GetWaitingMessageCount() returns count
    // S and R make the calls through the identifier registered for the name, which
    // is 0 for an inert queue. The timeout is w for QueueWaitForever or a number;
    // without one the call does not wait. A message's bytes tell its length, so
    // that receiving lengths in order shows the messages arrived in order.
    void calls_data()
    {
        QTest::addColumn<int>("messageSize");
        QTest::addColumn<int>("messageCount");
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("script");
        auto row = [](const char *tag, int size, int count, const char *script,
                      const char *name = "q") {
            QTest::newRow(tag) << size << count << QString::fromLatin1(name)
                               << QString::fromLatin1(script);
        };
        row("size - 1 bytes, and empty", 100, 3, "s99=0 s100=64 s0=0 n=2 r99=99 r0=0 n=0");
        row("negative lengths", 100, 3, "s-1=64 s-100/w=64 s0=0 r-1=x64 n=0");
        // The 50-byte message does not fit and is dropped; the next receive gets the next one.
        row("buffer as long, one short", 100, 2, "s50=0 s30=0 r49=x64 n=1 s1=0 r30=30 r1=1");
        // A fourth send finds no slot; once one is free, the queue wraps around in order.
        row("three slots", 10, 3, "s1=0 s2=0 s3=0 s4=1 n=3 r9=1 s4=0 n=3 r9=2 r9=3 r9=4 r9=x1 n=0");
        // Every timeout but the two is refused, after the length has been checked.
        row("other timeouts, after sizes", 100, 3,
            "s10/1=128 s10/1000=128 s200/7=64 s100/1=64 s9=0 r100/5=x128 r9/4294967294=x128 r9=9");
        row("by identifier", 8, 2, "S2=0 S8=64 S2/3=128 n=1 R8/3=x128 R8=2 R8=x1");
        // Inert queues check length and timeout, then answer 2, also by identifier (0).
        row("inert: no name", 100, 3,
            "s10=2 s10/w=2 s10/1=128 s100/1=64 S10=2 n=0 r100=x2 r100/w=x2 r100/5=x128 R100/w=x2",
            "");
        row("inert: size 0", 0, 3, "s0=64 r10=x2 R10=x2 n=0");
        row("inert: count 0", 100, 0, "s10=2 s10/w=2 r10/w=x2 S10=2 n=0");
    }

    void calls()
    {
        QFETCH(int, messageSize);
        QFETCH(int, messageCount);
        QFETCH(QString, name);
        QFETCH(QString, script);
        TQueue queue(messageSize, messageCount, name);
        const unsigned int id = TQueue::GetQueueId(name);
        for (const QString &step : script.split(u' ')) {
            const QString call = step.section(u'=', 0, 0), wait = call.section(u'/', 1);
            const int number = call.mid(1).section(u'/', 0, 0).toInt();
            const unsigned int timeout = wait == QLatin1String("w") ? Forever : wait.toUInt();
            const bool byId = call.at(0).isUpper();
            QString outcome;
            if (call == QLatin1String("n")) {
                outcome = QString::number(queue.GetWaitingMessageCount());
            } else if (call.at(0).toLower() == u's') {
                const QByteArray bytes(qMax(number, 0), char('A' + number % 26));
                const char *data = number == 0 ? nullptr : bytes.constData();
                outcome = QString::number(byId ? TQueue::SendMsg(id, data, number, timeout)
                                               : queue.SendMsg(data, number, timeout));
            } else {
                std::vector<char> buffer(qMax(number, 1)); // exactly that long, for ASan
                unsigned int code = Untouched;
                const int length = byId
                        ? TQueue::ReceiveMsg(id, buffer.data(), number, timeout, &code)
                        : queue.ReceiveMsg(buffer.data(), number, timeout, &code);
                const bool intact = code == Untouched
                        && QByteArray(buffer.data(), qMax(length, 0))
                                == QByteArray(length, char('A' + length % 26));
                outcome = length < 0 ? QStringLiteral("x%1").arg(code)
                                     : QString::number(length) + QLatin1String(intact ? "" : "?");
            }
            QCOMPARE(call + u'=' + outcome, step);
        }
    }

    // Of two threads creating one name at once exactly one gets a queue; both
    // reach it by its identifier; of two destroying it at once exactly one
    // deletes it (a second delete would show in the sanitizer build), and the
    // identifier is not reused, so both then find no queue. Each round reuses
    // the name.
    void racingCreatesAndDestroys()
    {
        for (int round = 0; round < 500; ++round) {
            std::atomic<int> ready { 0 }, created { 0 }, refused { 0 }, sent { 0 }, deleted { 0 },
                    gone { 0 };
            std::atomic<unsigned int> id { TQueue::InvalidQueueId };
            const auto meet = [&](int all) { // lets both threads go on together
                for (++ready; ready.load() < all;)
                    std::this_thread::yield();
            };
            ThreadCrew crew;
            for (int t = 0; t < 2; ++t)
                crew.add(QStringLiteral("thread %1 of round %2").arg(t).arg(round), 1, [&](auto &) {
                    unsigned int code = Untouched;
                    meet(2);
                    TQueue *const queue
                            = TQueue::CreateQueue(8, 2, QStringLiteral("contested"), &code);
                    (queue ? created : refused) += code == (queue ? 0 : TQueue::QueueErrNameExists);
                    if (queue) // the refused thread must not write back a stale id
                        id = queue->GetQueueId();
                    meet(4);
                    sent += TQueue::SendMsg(id, "m", 1, TQueue::QueueNoWait)
                            == TQueue::QueueErrNone;
                    meet(6);
                    deleted += TQueue::DestroyQueue(id) == TQueue::QueueErrNone;
                    meet(8);
                    gone += TQueue::SendMsg(id, "m", 1, Forever) == TQueue::QueueErrNoQueue;
                });
            crew.run();
            QVERIFY(created == 1 && refused == 1 && sent == 2 && deleted == 1 && gone == 2);
        }
    }

    void producersAndConsumers_data()
    {
        QTest::addColumn<int>("slotCount");
        QTest::addColumn<unsigned int>("timeout");
        // One slot: senders and receivers wait on it by turns (a lost wake-up
        // once stalled this one for good).
        QTest::newRow("one slot, waiting") << 1 << Forever;
        QTest::newRow("not waiting") << 2 << TQueue::QueueNoWait;
    }

    // Numbered messages from four producers to four consumers: each arrives
    // exactly once, and each producer's in the order they were sent. Waiting
    // calls block on a full or empty queue until another thread's call wakes
    // them (a lost wake-up hangs, and so fails, the test); calls that do not
    // wait retry.
    void producersAndConsumers()
    {
        QFETCH(int, slotCount);
        QFETCH(unsigned int, timeout);
        // Producer p sends p * each, p * each + 1, ... in order.
        constexpr int Threads = 4;
        const int total = StressMessages, each = total / Threads;
        TQueue queue(sizeof(int) + 1, slotCount, QStringLiteral("shared"));
        std::atomic<int> faults { 0 }; // failed calls, messages out of order or out of range
        std::vector<std::atomic<int>> seen(total); // how often each message arrived
        ThreadCrew crew;
        for (int t = 0; t < Threads; ++t) {
            crew.add(QStringLiteral("consumer %1").arg(t), each, [&](auto &received) {
                std::vector<int> last(Threads, -1); // the last message from each producer
                for (int message = -1; received < each; ++received) {
                    unsigned int code = TQueue::QueueErrWouldBlock;
                    while (queue.ReceiveMsg(&message, sizeof message, timeout, &code) < 0
                           && code == TQueue::QueueErrWouldBlock)
                        std::this_thread::yield();
                    const bool valid
                            = message >= 0 && message < total && message > last[message / each];
                    faults += !valid;
                    if (valid)
                        ++seen[last[message / each] = message];
                }
            });
            crew.add(QStringLiteral("producer %1").arg(t), each, [&, t](auto &sent) {
                for (int message = t * each; sent < each; ++message, ++sent) {
                    unsigned int code;
                    while ((code = queue.SendMsg(&message, sizeof message, timeout))
                           == TQueue::QueueErrWouldBlock)
                        std::this_thread::yield();
                    faults += code != TQueue::QueueErrNone;
                }
            });
        }
        crew.run();
        QCOMPARE(faults.load(), 0);
        QCOMPARE(int(std::count(seen.begin(), seen.end(), 1)), total);
        QCOMPARE(queue.GetWaitingMessageCount(), 0);
    }

    void ringBufferBlockAtEveryPosition_data()
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
    // test). Bad counts and null pointers change nothing; a size below 1 gives a
    // buffer that holds nothing.
    void ringBufferBlockAtEveryPosition()
    {
        QFETCH(int, size);
        QFETCH(int, start);
        QFETCH(int, count);
        const int capacity = qMax(size, 0);
        TCommBuffer buffer(size);
        char bytes[16];
        QVERIFY(buffer.Write("01234567", start) && buffer.Read(bytes, 8) == start);
        for (const int bad : { -1, INT_MIN, INT_MAX, capacity + 1 })
            QVERIFY(!buffer.Write("abcdefghi", bad));
        QVERIFY(!buffer.Write(nullptr, 1) && buffer.Write(nullptr, 0));
        QVERIFY(buffer.Write("abcdefghi", count)
                && !buffer.Write("ABCDEFGHI", capacity + 1 - count));
        QVERIFY(buffer.GetUsed() == count && buffer.GetFree() == capacity - count);
        QVERIFY(buffer.Read(bytes, -1) == -1 && buffer.Read(nullptr, 1) == -1
                && buffer.Read(nullptr, 0) == 0);
        QCOMPARE(buffer.Read(bytes, INT_MAX), count);
        QCOMPARE(QByteArray(bytes, count), QByteArray("abcdefghi", count));
        QCOMPARE(buffer.GetFree(), capacity);
    }

    // A writer and a reader stream many buffers' worth of bytes in random-sized
    // pieces, retrying instead of waiting; every byte arrives once and in order,
    // through buffers of one byte and of many.
    void ringBufferStreamsBetweenThreads()
    {
        for (const int capacity : { 1, 7, 1021, 65536 }) {
            const int total = qBound(64 * 1024, capacity * 4096, 24 * 1024 * 1024);
            QByteArray stream(total, Qt::Uninitialized),
                    received(total + 2 * capacity, Qt::Uninitialized);
            // A lost, doubled or misplaced piece cannot go unnoticed.
            for (int i = 0; i < total; ++i)
                stream[i] = char(i ^ (i >> 7) ^ (i >> 13));
            TCommBuffer buffer(capacity);
            ThreadCrew crew;
            crew.add(QStringLiteral("writer, capacity %1").arg(capacity), total, [&](auto &sent) {
                QRandomGenerator random(1);
                for (int count = 0; sent < total; sent += count) {
                    count = qMin(int(random.bounded(1, capacity + 1)), total - sent);
                    while (!buffer.Write(stream.constData() + sent, count))
                        std::this_thread::yield();
                }
            });
            crew.add(QStringLiteral("reader, capacity %1").arg(capacity), total, [&](auto &read) {
                QRandomGenerator random(2);
                for (int count = 0; read < total && count >= 0; read += count)
                    if (!(count = buffer.Read(received.data() + read,
                                              random.bounded(1, 2 * capacity + 1))))
                        std::this_thread::yield();
                received.truncate(read);
            });
            crew.run();
            QVERIFY2(received == stream && buffer.GetFree() == capacity,
                     qPrintable(QString::number(capacity)));
        }
    }
};

QTEST_GUILESS_MAIN(tst_Queue)

#include "tst_queue.moc"
