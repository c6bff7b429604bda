#include "ThreadCrew.h"

#include <Trellis/TCommBuffer.h>
#include <Trellis/TQueue.h>

#include <QRandomGenerator>
#include <QRegularExpression>
#include <QtTest>

#include <algorithm>
#include <atomic>
#include <climits>
#include <memory>
#include <thread>
#include <vector>

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
        QVERIFY(inert && inert->GetQueueId() == 2);
        QCOMPARE(code, TQueue::QueueErrNone); // for an inert queue too
        QCOMPARE(TQueue::CreateQueue(1, 1, QStringLiteral("first"), &code), nullptr);
        QCOMPARE(code, TQueue::QueueErrNameExists);
        QCOMPARE(TQueue::GetNextId(), 3u); // the refused queue drew none
        QCOMPARE(TQueue::FindQueue(QStringLiteral("FIRST")), nullptr); // names are case-sensitive
        QCOMPARE(TQueue::FindQueue(QStringLiteral("inert")), nullptr);
        QCOMPARE(TQueue::GetQueueName(1), QStringLiteral("first"));
        QCOMPARE(TQueue::GetQueueName(2), TQueue::InvalidQueueName);
        QCOMPARE(TQueue::GetQueueId(TQueue::InvalidQueueName), TQueue::InvalidQueueId);
        QCOMPARE(TQueue::DestroyQueue(TQueue::InvalidQueueId), TQueue::QueueErrNoQueue);

        // A queue built under a registered name is registered under its identifier
        // only, and its end leaves the other queue's entries alone.
        auto *namesake = new TQueue(16, 4, QStringLiteral("first"));
        QCOMPARE(TQueue::FindQueue(4), namesake);
        delete namesake;
        QCOMPARE(TQueue::FindQueue(4), nullptr);
        QCOMPARE(TQueue::FindQueue(QStringLiteral("first")), first.get());
        QCOMPARE(TQueue::FindQueue(1), first.get());
        first.reset();
        QCOMPARE(TQueue::FindQueue(QStringLiteral("first")), nullptr);
    }

    // Each row runs a script of calls on one queue of messageSize and messageCount
    // called name. Its words, each checked as it runs:
    //   s<length>[/<timeout>]=<code>  SendMsg() of length bytes (null when 0) returns code
    //   r<size>[/<timeout>]=<length>  ReceiveMsg() into size bytes gets the oldest message,
    //                                 of length bytes, and leaves the error variable alone
    //   r<size>[/<timeout>]=x<code>   ReceiveMsg() returns -1 and stores code
    //   n<count>                      GetWaitingMessageCount() returns count
    // S and R make the calls through the identifier registered for the name, which
    // is 0 for an inert queue. The timeout is w for QueueWaitForever or a number;
    // without one the call does not wait. A message's bytes tell its length, so
    // that receiving lengths in order shows the messages arrived in order.
    void calls_data()
    {
        QTest::addColumn<int>("messageSize");
        QTest::addColumn<int>("messageCount");
        QTest::addColumn<QString>("name");
        QTest::addColumn<QByteArray>("script");
        auto row = [](const char *tag, int size, int count, const char *script,
                      const char *name = "q") {
            QTest::newRow(tag) << size << count << QString::fromLatin1(name) << QByteArray(script);
        };
        row("size - 1 bytes, and empty", 100, 3, "s99=0 s100=64 s0=0 n2 r99=99 r0=0 n0");
        row("negative lengths", 100, 3, "s-1=64 s-100/w=64 s0=0 r-1=x64 n0");
        // The 50-byte message does not fit and is dropped; the next receive gets the next one.
        row("buffer as long, one short", 100, 2, "s50=0 s30=0 r49=x64 n1 s1=0 r30=30 r1=1");
        // A fourth send finds no slot; once one is free, the queue wraps around in order.
        row("three slots", 10, 3, "s1=0 s2=0 s3=0 s4=1 n3 r9=1 s4=0 n3 r9=2 r9=3 r9=4 r9=x1 n0");
        // Every timeout but the two is refused, after the length has been checked.
        row("other timeouts, after sizes", 100, 3,
            "s10/1=128 s10/1000=128 s200/7=64 s100/1=64 s9=0 r100/5=x128 r9/4294967294=x128 r9=9");
        row("by identifier", 8, 2, "S2=0 S8=64 S2/3=128 n1 R8/3=x128 R8=2 R8=x1");
        // Inert queues check length and timeout, then answer 2, also by identifier (0).
        row("inert: no name", 100, 3, "s10=2 s10/w=2 s10/1=128 s100/1=64 S10=2 n0", "");
        row("inert: no name, receive", 100, 3, "r100=x2 r100/w=x2 r100/5=x128 R100/w=x2", "");
        row("inert: size 0", 0, 3, "s0=64 r10=x2 R10=x2 n0");
        row("inert: count 0", 100, 0, "s10=2 s10/w=2 r10/w=x2 S10=2 n0");
    }

    void calls()
    {
        QFETCH(int, messageSize);
        QFETCH(int, messageCount);
        QFETCH(QString, name);
        QFETCH(QByteArray, script);
        TQueue queue(messageSize, messageCount, name);
        const unsigned int id = TQueue::GetQueueId(name);
        static const QRegularExpression word(QRegularExpression::anchoredPattern(
                QStringLiteral("([sSrRn])(-?\\d+)(?:/(w|\\d+))?(?:=(x?)(\\d+))?")));
        for (const QByteArray &text : script.split(' ')) {
            const QRegularExpressionMatch call = word.match(QString::fromLatin1(text));
            QVERIFY2(call.hasMatch(), text.constData());
            const char what = text.at(0);
            const bool byId = what == 'S' || what == 'R', fails = call.capturedLength(4) > 0;
            const int number = call.captured(2).toInt(), expected = call.captured(5).toInt();
            const unsigned int timeout = call.captured(3) == QLatin1String("w")
                    ? Forever
                    : call.captured(3).toUInt(); // no timeout: 0, QueueNoWait
            if (what == 'n') {
                QCOMPARE(queue.GetWaitingMessageCount(), number);
            } else if (what == 's' || what == 'S') {
                const QByteArray bytes(qMax(number, 0), char('A' + number % 26));
                const char *data = number == 0 ? nullptr : bytes.constData();
                QCOMPARE(byId ? TQueue::SendMsg(id, data, number, timeout)
                              : queue.SendMsg(data, number, timeout),
                         unsigned(expected));
            } else {
                std::vector<char> buffer(qMax(number, 1)); // exactly that long, for ASan
                unsigned int code = Untouched;
                const int length = byId
                        ? TQueue::ReceiveMsg(id, buffer.data(), number, timeout, &code)
                        : queue.ReceiveMsg(buffer.data(), number, timeout, &code);
                QCOMPARE(length, fails ? -1 : expected);
                QCOMPARE(code, fails ? unsigned(expected) : Untouched);
                if (!fails)
                    QCOMPARE(QByteArray(buffer.data(), length),
                             QByteArray(length, char('A' + length % 26)));
            }
        }
    }

    // Of two threads creating one name at once exactly one gets a queue; of two
    // destroying its identifier at once exactly one deletes it (a second delete
    // would show in the sanitizer build). Each round reuses the name.
    void racingCreatesAndDestroys()
    {
        for (int round = 0; round < 500; ++round) {
            std::atomic<int> ready { 0 }, created { 0 }, refused { 0 }, deleted { 0 };
            std::atomic<unsigned int> id { TQueue::InvalidQueueId };
            const auto race = [&] { // each loop on ready lets both threads go on together
                unsigned int code = Untouched;
                for (++ready; ready.load() < 2;)
                    std::this_thread::yield();
                TQueue *const queue = TQueue::CreateQueue(8, 1, QStringLiteral("contested"), &code);
                (queue ? created : refused) += code == (queue ? 0 : TQueue::QueueErrNameExists);
                if (queue)
                    id = queue->GetQueueId();
                for (++ready; ready.load() < 4;)
                    std::this_thread::yield();
                deleted += TQueue::DestroyQueue(id) == TQueue::QueueErrNone;
            };
            std::thread other(race);
            race();
            {
                const HangWatch watch(QStringLiteral("the other thread of round %1").arg(round));
                other.join();
            }
            QVERIFY(created == 1 && refused == 1 && deleted == 1);
        }
    }

    void producersAndConsumers_data()
    {
        QTest::addColumn<int>("producers");
        QTest::addColumn<int>("consumers");
        QTest::addColumn<int>("slotCount");
        QTest::addColumn<unsigned int>("timeout");
        QTest::addColumn<bool>("churn"); // calls by identifier while the registry changes
        for (const int count : { 1, 2, 1024 })
            QTest::addRow("4 x 4, %d slots, waiting", count) << 4 << 4 << count << Forever << false;
        QTest::newRow("8 x 8, one slot, waiting") << 8 << 8 << 1 << Forever << false;
        QTest::newRow("1 x 1, one slot, waiting") << 1 << 1 << 1 << Forever << false;
        QTest::newRow("1 x 3, receivers waiting on empty") << 1 << 3 << 8 << Forever << false;
        QTest::newRow("3 x 1, senders waiting on full") << 3 << 1 << 8 << Forever << false;
        QTest::newRow("4 x 4, not waiting") << 4 << 4 << 2 << TQueue::QueueNoWait << false;
        QTest::newRow("1 x 1 by identifier, registry changing") << 1 << 1 << 16 << Forever << true;
    }

    // Numbered messages from several producers to several consumers: each
    // arrives exactly once, and each producer's in the order they were sent.
    // Waiting calls block on a full or empty queue until another thread's call
    // wakes them (a lost wake-up hangs, and so fails, the test); calls that do not
    // wait retry.
    // With churn, the calls go through the queue's identifier while two more
    // threads create, find, use and destroy queues over and over, and one more
    // keeps sending to the identifier destroyed last: identifiers are never
    // reused, so that always answers 2.
    void producersAndConsumers()
    {
        QFETCH(int, producers);
        QFETCH(int, consumers);
        QFETCH(int, slotCount);
        QFETCH(unsigned int, timeout);
        QFETCH(bool, churn);
        // Producer p sends p * perProducer, p * perProducer + 1, ... in order; the
        // total is divisible by every thread count above.
        const int total = StressMessages, perProducer = total / producers;
        TQueue queue(sizeof(int) + 1, slotCount, QStringLiteral("shared"));
        const unsigned int id = queue.GetQueueId();
        std::atomic<int> faults { 0 }; // failed calls, messages out of order or out of range
        std::vector<std::atomic<int>> seen(total); // how often each message arrived
        ThreadCrew crew;
        for (int c = 0; c < consumers; ++c)
            crew.add(QStringLiteral("consumer %1").arg(c), total / consumers, [&](auto &received) {
                std::vector<int> last(producers, -1); // the last message from each producer
                for (; received < total / consumers; ++received) {
                    int message = -1;
                    unsigned int code = TQueue::QueueErrWouldBlock;
                    while ((churn ? TQueue::ReceiveMsg(id, &message, sizeof message, timeout, &code)
                                  : queue.ReceiveMsg(&message, sizeof message, timeout, &code))
                                   < 0
                           && code == TQueue::QueueErrWouldBlock)
                        std::this_thread::yield();
                    const bool valid = message >= 0 && message < total
                            && message > last[message / perProducer];
                    faults += !valid;
                    if (valid)
                        ++seen[last[message / perProducer] = message];
                }
            });
        for (int p = 0; p < producers; ++p)
            crew.add(QStringLiteral("producer %1").arg(p), perProducer, [&, p](auto &sent) {
                for (int message = p * perProducer; sent < perProducer; ++message, ++sent) {
                    unsigned int code;
                    while ((code = churn ? TQueue::SendMsg(id, &message, sizeof message, timeout)
                                         : queue.SendMsg(&message, sizeof message, timeout))
                           == TQueue::QueueErrWouldBlock)
                        std::this_thread::yield();
                    faults += code != TQueue::QueueErrNone;
                }
            });
        constexpr int Rounds = 2000;
        const int churners = churn ? 2 : 0;
        std::atomic<int> churnersLeft { churners };
        std::atomic<unsigned int> destroyedId { TQueue::InvalidQueueId };
        for (int c = 0; c < churners; ++c)
            crew.add(QStringLiteral("churner %1").arg(c), Rounds, [&, c](auto &rounds) {
                for (; rounds < Rounds; ++rounds) {
                    const QString name = QStringLiteral("churn %1 %2").arg(c).arg(rounds.load());
                    unsigned int code = Untouched;
                    TQueue *const churned = TQueue::CreateQueue(8, 2, name, &code);
                    const unsigned int churnedId = churned ? churned->GetQueueId() : 0;
                    char byte = 'x';
                    faults += !churned || code != 0 || TQueue::FindQueue(name) != churned
                            || TQueue::FindQueue(churnedId) != churned
                            || TQueue::GetQueueName(churnedId) != name
                            || TQueue::SendMsg(churnedId, "c", 1, TQueue::QueueNoWait) != 0
                            || TQueue::ReceiveMsg(churnedId, &byte, 1, TQueue::QueueNoWait, nullptr)
                                    != 1
                            || byte != 'c' || TQueue::DestroyQueue(churnedId) != 0
                            || TQueue::FindQueue(name) != nullptr;
                    destroyedId = churnedId;
                }
                --churnersLeft;
            });
        if (churn)
            crew.add(QStringLiteral("sender to destroyed queues"), 0, [&](auto &sent) {
                for (; churnersLeft > 0; ++sent)
                    faults += TQueue::SendMsg(destroyedId.load(), "d", 1, Forever)
                            != TQueue::QueueErrNoQueue;
            });
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
    // test). Bad counts and null
    // pointers change nothing; a size below 1 gives a buffer that holds nothing.
    void ringBufferBlockAtEveryPosition()
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
        QCOMPARE(buffer.Read(bytes, -1), -1);
        QCOMPARE(buffer.Read(nullptr, 1), -1);
        QCOMPARE(buffer.Read(nullptr, 0), 0);
        QCOMPARE(buffer.Read(bytes, INT_MAX), count);
        QCOMPARE(QByteArray(bytes, count), QByteArray("abcdefghi", count));
        QCOMPARE(buffer.GetFree(), capacity);
    }

    void ringBufferStreamsBetweenThreads_data()
    {
        QTest::addColumn<int>("capacity");
        for (const int capacity : { 1, 7, 1021, 65536 })
            QTest::addRow("capacity %d", capacity) << capacity;
    }

    // A writer and a reader stream many buffers' worth of bytes in random-sized
    // pieces, retrying instead of waiting; every byte arrives once and in order.
    void ringBufferStreamsBetweenThreads()
    {
        QFETCH(int, capacity);
        const int total = qBound(64 * 1024, capacity * 4096, 24 * 1024 * 1024);
        QByteArray stream(total, Qt::Uninitialized),
                received(total + 2 * capacity, Qt::Uninitialized);
        for (int i = 0; i < total; ++i) // a lost, doubled or misplaced piece cannot go unnoticed
            stream[i] = char(i ^ (i >> 7) ^ (i >> 13));
        TCommBuffer buffer(capacity);
        ThreadCrew crew;
        crew.add(QStringLiteral("writer"), total, [&](auto &written) {
            QRandomGenerator random(1);
            for (int count = 0; written < total; written += count) {
                count = qMin(int(random.bounded(1, capacity + 1)), total - written);
                while (!buffer.Write(stream.constData() + written, count))
                    std::this_thread::yield();
            }
        });
        crew.add(QStringLiteral("reader"), total, [&](auto &read) {
            QRandomGenerator random(2);
            for (int count = 0; read < total && count >= 0; read += count)
                if ((count
                     = buffer.Read(received.data() + read, random.bounded(1, 2 * capacity + 1)))
                    == 0)
                    std::this_thread::yield();
            received.truncate(read);
        });
        crew.run();
        QCOMPARE(received, stream);
        QCOMPARE(buffer.GetFree(), capacity);
    }
};

QTEST_GUILESS_MAIN(tst_Queue)

#include "tst_queue.moc"
