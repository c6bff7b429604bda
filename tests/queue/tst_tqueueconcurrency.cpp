#include <Trellis/TQueue.h>

#include <QSemaphore>
#include <QtTest>

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

// Many threads on one queue: every message arrives exactly once and each
// sender's messages keep their order, whether the calls wait or not.
class tst_TQueueConcurrency : public QObject
{
    Q_OBJECT

private slots:
    void producersAndConsumers_data();
    void producersAndConsumers();
    void waiterIsWoken_data();
    void waiterIsWoken();
};

namespace {

struct Numbered
{
    int producer;
    int sequence;
};

// Sends and receives that retry on QueueErrWouldBlock when they must not wait.
// Other failures are noted in failure (QtTest's checks belong to the main
// thread).
std::atomic<unsigned int> failure { TQueue::QueueErrNone };

void sendOne(TQueue &queue, bool byIdentifier, unsigned int timeout, const Numbered &message)
{
    for (;;) {
        const unsigned int code = byIdentifier
                ? TQueue::SendMsg(queue.GetQueueId(), &message, sizeof message, timeout)
                : queue.SendMsg(&message, sizeof message, timeout);
        if (code != TQueue::QueueErrWouldBlock) {
            if (code != TQueue::QueueErrNone)
                failure = code;
            return;
        }
        std::this_thread::yield();
    }
}

Numbered receiveOne(TQueue &queue, bool byIdentifier, unsigned int timeout)
{
    Numbered message { -1, -1 };
    for (;;) {
        unsigned int code = TQueue::QueueErrNone;
        const int length = byIdentifier
                ? TQueue::ReceiveMsg(queue.GetQueueId(), &message, sizeof message, timeout, &code)
                : queue.ReceiveMsg(&message, sizeof message, timeout, &code);
        if (length >= 0 || code != TQueue::QueueErrWouldBlock) {
            if (length != int(sizeof message))
                failure = code;
            return message;
        }
        std::this_thread::yield();
    }
}

std::vector<std::thread> startThreads(int count, const std::function<void(int)> &body)
{
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i)
        threads.emplace_back(body, i);
    return threads;
}

} // namespace

void tst_TQueueConcurrency::producersAndConsumers_data()
{
    QTest::addColumn<int>("producers");
    QTest::addColumn<int>("consumers");
    QTest::addColumn<int>("slotCount");
    QTest::addColumn<unsigned int>("timeout");
    QTest::addColumn<bool>("byIdentifier");

    const unsigned int noWait = TQueue::QueueNoWait;
    const unsigned int waitForever = TQueue::QueueWaitForever;
    QTest::newRow("4 x 4, waiting") << 4 << 4 << 64 << waitForever << false;
    QTest::newRow("4 x 4, one slot, waiting") << 4 << 4 << 1 << waitForever << false;
    QTest::newRow("1 x 3, waiting, by identifier") << 1 << 3 << 8 << waitForever << true;
    QTest::newRow("3 x 1, waiting") << 3 << 1 << 8 << waitForever << false;
    QTest::newRow("4 x 4, not waiting") << 4 << 4 << 2 << noWait << false;
    QTest::newRow("2 x 2, not waiting, by identifier") << 2 << 2 << 3 << noWait << true;
}

void tst_TQueueConcurrency::producersAndConsumers()
{
    QFETCH(int, producers);
    QFETCH(int, consumers);
    QFETCH(int, slotCount);
    QFETCH(unsigned int, timeout);
    QFETCH(bool, byIdentifier);

    const int total = 240000; // divisible by every thread count above
    const int perProducer = total / producers;
    const int perConsumer = total / consumers;
    TQueue queue(sizeof(Numbered) + 1, slotCount, QStringLiteral("shared"));

    // received[c] is what consumer c got, in the order it got it.
    std::vector<std::vector<Numbered>> received(consumers);
    auto consumerThreads = startThreads(consumers, [&](int consumer) {
        received[consumer].reserve(perConsumer);
        for (int i = 0; i < perConsumer; ++i)
            received[consumer].push_back(receiveOne(queue, byIdentifier, timeout));
    });
    auto producerThreads = startThreads(producers, [&](int producer) {
        for (int sequence = 0; sequence < perProducer; ++sequence)
            sendOne(queue, byIdentifier, timeout, { producer, sequence });
    });
    for (auto &thread : producerThreads)
        thread.join();
    for (auto &thread : consumerThreads)
        thread.join();
    QCOMPARE(failure.load(), TQueue::QueueErrNone);

    std::vector<std::vector<bool>> seen(producers, std::vector<bool>(perProducer, false));
    for (const auto &messages : received) {
        QCOMPARE(int(messages.size()), perConsumer);
        std::vector<int> last(producers, -1);
        for (const Numbered &message : messages) {
            QVERIFY(message.producer >= 0 && message.producer < producers);
            QVERIFY(message.sequence >= 0 && message.sequence < perProducer);
            QVERIFY2(message.sequence > last[message.producer], "out of order");
            last[message.producer] = message.sequence;
            QVERIFY2(!seen[message.producer][message.sequence], "duplicated");
            seen[message.producer][message.sequence] = true;
        }
    }
    // total messages received, none twice: so none was lost.
    QCOMPARE(queue.GetWaitingMessageCount(), 0);
}

// A sender blocked on a full queue and a receiver blocked on an empty one
// return as soon as another thread moves the queue on.
void tst_TQueueConcurrency::waiterIsWoken_data()
{
    QTest::addColumn<bool>("receiverWaits");
    QTest::newRow("receiver on an empty queue") << true;
    QTest::newRow("sender on a full queue") << false;
}

void tst_TQueueConcurrency::waiterIsWoken()
{
    QFETCH(bool, receiverWaits);
    TQueue queue(8, 1, QStringLiteral("wake"));
    char buffer[8];

    for (int round = 0; round < 500; ++round) {
        const int expected = receiverWaits ? 0 : 1; // messages waiting before the waiter
        if (!receiverWaits)
            QCOMPARE(queue.SendMsg("old", 3, TQueue::QueueNoWait), TQueue::QueueErrNone);
        QSemaphore started;
        int result = -1;
        std::thread waiter([&] {
            started.release();
            result = receiverWaits ? queue.ReceiveMsg(buffer, 8, TQueue::QueueWaitForever)
                                   : int(queue.SendMsg("new", 3, TQueue::QueueWaitForever));
        });
        started.acquire();
        QCOMPARE(queue.GetWaitingMessageCount(), expected);
        if (receiverWaits) {
            QCOMPARE(queue.SendMsg("new", 3, TQueue::QueueNoWait), TQueue::QueueErrNone);
        } else {
            char old[8];
            QCOMPARE(queue.ReceiveMsg(old, 8, TQueue::QueueWaitForever), 3);
            QCOMPARE(QByteArray(old, 3), QByteArray("old"));
        }
        waiter.join();
        if (receiverWaits) {
            QCOMPARE(result, 3);
            QCOMPARE(QByteArray(buffer, 3), QByteArray("new"));
        } else {
            QCOMPARE(result, int(TQueue::QueueErrNone));
            QCOMPARE(queue.ReceiveMsg(buffer, 8, TQueue::QueueNoWait), 3);
            QCOMPARE(QByteArray(buffer, 3), QByteArray("new"));
        }
        QCOMPARE(queue.GetWaitingMessageCount(), 0);
    }
}

QTEST_GUILESS_MAIN(tst_TQueueConcurrency)

#include "tst_tqueueconcurrency.moc"
