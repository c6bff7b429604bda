#include <Trellis/TQueue.h>

#include <QByteArray>
#include <QtTest>

#include <memory>

// One queue's sending, receiving and error codes, from one thread.
class tst_TQueue : public QObject
{
    Q_OBJECT

private slots:
    void send_data();
    void send();
    void receive_data();
    void receive();
    void fullQueueRefusesUntilReceive();
    void indexesWrap();
    void overlongMessageIsDropped();
    void waitingCount_data();
    void waitingCount();
    void nullErrorCodePointer();
    void byIdentifier();

private:
    static constexpr unsigned int Untouched = 0xC0FFEE;
};

static QByteArray payload(int length, char first = 'a')
{
    QByteArray bytes(length, Qt::Uninitialized);
    for (int i = 0; i < length; ++i)
        bytes[i] = char(first + i % 26);
    return bytes;
}

void tst_TQueue::send_data()
{
    QTest::addColumn<int>("messageSize");
    QTest::addColumn<int>("messageCount");
    QTest::addColumn<QString>("name");
    QTest::addColumn<int>("length");
    QTest::addColumn<unsigned int>("timeout");
    QTest::addColumn<unsigned int>("result");

    const unsigned int noWait = TQueue::QueueNoWait;
    const unsigned int waitForever = TQueue::QueueWaitForever;
    const QString name = QStringLiteral("send");
    const QString noName = TQueue::InvalidQueueName;

    QTest::newRow("size - 1 bytes fit") << 100 << 3 << name << 99 << noWait << TQueue::QueueErrNone;
    QTest::newRow("size bytes refused")
            << 100 << 3 << name << 100 << noWait << TQueue::QueueErrMsgSize;
    QTest::newRow("zero length") << 100 << 3 << name << 0 << noWait << TQueue::QueueErrNone;
    QTest::newRow("waiting for a free slot")
            << 100 << 3 << name << 50 << waitForever << TQueue::QueueErrNone;
    QTest::newRow("negative length") << 100 << 3 << name << -1 << noWait << TQueue::QueueErrMsgSize;
    QTest::newRow("negative length, waiting")
            << 100 << 3 << name << -100 << waitForever << TQueue::QueueErrMsgSize;
    QTest::newRow("timeout 1") << 100 << 3 << name << 10 << 1u << TQueue::QueueErrBadTimeout;
    QTest::newRow("timeout 1000") << 100 << 3 << name << 10 << 1000u << TQueue::QueueErrBadTimeout;
    QTest::newRow("overlong before timeout 7")
            << 100 << 3 << name << 200 << 7u << TQueue::QueueErrMsgSize;
    QTest::newRow("inert: no name")
            << 100 << 3 << noName << 10 << noWait << TQueue::QueueErrNoQueue;
    QTest::newRow("inert: no name, waiting")
            << 100 << 3 << noName << 10 << waitForever << TQueue::QueueErrNoQueue;
    QTest::newRow("inert: no name, timeout 1")
            << 100 << 3 << noName << 10 << 1u << TQueue::QueueErrBadTimeout;
    QTest::newRow("inert: no name, overlong")
            << 100 << 3 << noName << 100 << 1u << TQueue::QueueErrMsgSize;
    QTest::newRow("inert: size 0") << 0 << 3 << name << 0 << noWait << TQueue::QueueErrMsgSize;
    QTest::newRow("inert: count 0, waiting")
            << 100 << 0 << name << 10 << waitForever << TQueue::QueueErrNoQueue;
    QTest::newRow("inert: count -4")
            << 100 << -4 << name << 10 << noWait << TQueue::QueueErrNoQueue;
}

void tst_TQueue::send()
{
    QFETCH(int, messageSize);
    QFETCH(int, messageCount);
    QFETCH(QString, name);
    QFETCH(int, length);
    QFETCH(unsigned int, timeout);
    QFETCH(unsigned int, result);

    TQueue queue(messageSize, messageCount, name);
    const QByteArray message = payload(qMax(length, 0));
    QCOMPARE(queue.SendMsg(message.constData(), length, timeout), result);
    QCOMPARE(queue.GetWaitingMessageCount(), result == TQueue::QueueErrNone ? 1 : 0);
    if (result != TQueue::QueueErrNone)
        return;
    QByteArray received(messageSize, '\0');
    QCOMPARE(queue.ReceiveMsg(received.data(), received.size(), TQueue::QueueNoWait), length);
    QCOMPARE(received.left(length), message);
}

void tst_TQueue::receive_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<int>("sentLength"); // -1: nothing sent
    QTest::addColumn<int>("bufferSize");
    QTest::addColumn<unsigned int>("timeout");
    QTest::addColumn<int>("result");
    QTest::addColumn<unsigned int>("errorCode");
    QTest::addColumn<int>("waitingAfter");

    const unsigned int noWait = TQueue::QueueNoWait;
    const unsigned int waitForever = TQueue::QueueWaitForever;
    const QString name = QStringLiteral("receive");
    const QString noName = TQueue::InvalidQueueName;

    QTest::newRow("buffer exactly as long") << name << 50 << 50 << noWait << 50 << Untouched << 0;
    QTest::newRow("waiting with a message there")
            << name << 50 << 100 << waitForever << 50 << Untouched << 0;
    QTest::newRow("zero-length message") << name << 0 << 0 << noWait << 0 << Untouched << 0;
    QTest::newRow("buffer one byte short")
            << name << 50 << 49 << noWait << -1 << TQueue::QueueErrMsgSize << 0;
    QTest::newRow("negative buffer size")
            << name << 0 << -1 << noWait << -1 << TQueue::QueueErrMsgSize << 0;
    QTest::newRow("empty queue") << name << -1 << 100 << noWait << -1 << TQueue::QueueErrWouldBlock
                                 << 0;
    QTest::newRow("timeout 5 leaves the message")
            << name << 10 << 100 << 5u << -1 << TQueue::QueueErrBadTimeout << 1;
    QTest::newRow("inert") << noName << -1 << 100 << noWait << -1 << TQueue::QueueErrNoQueue << 0;
    QTest::newRow("inert, waiting")
            << noName << -1 << 100 << waitForever << -1 << TQueue::QueueErrNoQueue << 0;
    QTest::newRow("inert, timeout 5")
            << noName << -1 << 100 << 5u << -1 << TQueue::QueueErrBadTimeout << 0;
}

void tst_TQueue::receive()
{
    QFETCH(QString, name);
    QFETCH(int, sentLength);
    QFETCH(int, bufferSize);
    QFETCH(unsigned int, timeout);
    QFETCH(int, result);
    QFETCH(unsigned int, errorCode);
    QFETCH(int, waitingAfter);

    TQueue queue(100, 3, name);
    const QByteArray message = payload(qMax(sentLength, 0));
    if (sentLength >= 0)
        QCOMPARE(queue.SendMsg(message.constData(), sentLength, TQueue::QueueNoWait),
                 TQueue::QueueErrNone);

    QByteArray buffer(100, '\0');
    unsigned int code = Untouched;
    QCOMPARE(queue.ReceiveMsg(buffer.data(), bufferSize, timeout, &code), result);
    QCOMPARE(code, errorCode);
    QCOMPARE(queue.GetWaitingMessageCount(), waitingAfter);
    if (result >= 0)
        QCOMPARE(buffer.left(result), message);
}

void tst_TQueue::fullQueueRefusesUntilReceive()
{
    TQueue queue(10, 3, QStringLiteral("full"));
    for (int i = 0; i < 3; ++i)
        QCOMPARE(queue.SendMsg("x", 1, TQueue::QueueNoWait), TQueue::QueueErrNone);
    QCOMPARE(queue.SendMsg("x", 1, TQueue::QueueNoWait), TQueue::QueueErrWouldBlock);
    QCOMPARE(queue.GetWaitingMessageCount(), 3);

    char buffer[10];
    QCOMPARE(queue.ReceiveMsg(buffer, sizeof buffer, TQueue::QueueNoWait), 1);
    QCOMPARE(queue.SendMsg("x", 1, TQueue::QueueNoWait), TQueue::QueueErrNone);
    QCOMPARE(queue.SendMsg("x", 1, TQueue::QueueNoWait), TQueue::QueueErrWouldBlock);
}

void tst_TQueue::indexesWrap()
{
    TQueue queue(10, 3, QStringLiteral("wrap"));
    char buffer[10];
    auto receiveOne = [&] {
        const int length = queue.ReceiveMsg(buffer, sizeof buffer, TQueue::QueueNoWait);
        return length < 0 ? QByteArray() : QByteArray(buffer, length);
    };
    QCOMPARE(queue.SendMsg("A", 1, TQueue::QueueNoWait), TQueue::QueueErrNone);
    QCOMPARE(queue.SendMsg("BB", 2, TQueue::QueueNoWait), TQueue::QueueErrNone);
    QCOMPARE(receiveOne(), QByteArray("A"));
    QCOMPARE(queue.SendMsg("CCC", 3, TQueue::QueueNoWait), TQueue::QueueErrNone);
    QCOMPARE(queue.SendMsg("D", 1, TQueue::QueueNoWait), TQueue::QueueErrNone); // into slot 0
    QCOMPARE(receiveOne(), QByteArray("BB"));
    QCOMPARE(receiveOne(), QByteArray("CCC"));
    QCOMPARE(receiveOne(), QByteArray("D"));
    QCOMPARE(receiveOne(), QByteArray());
}

void tst_TQueue::overlongMessageIsDropped()
{
    TQueue queue(100, 2, QStringLiteral("drop"));
    const QByteArray first = payload(50), second = payload(49, 'k');
    QCOMPARE(queue.SendMsg(first.constData(), first.size(), TQueue::QueueNoWait),
             TQueue::QueueErrNone);
    QCOMPARE(queue.SendMsg(second.constData(), second.size(), TQueue::QueueNoWait),
             TQueue::QueueErrNone);

    QByteArray buffer(49, '\0');
    unsigned int code = Untouched;
    QCOMPARE(queue.ReceiveMsg(buffer.data(), buffer.size(), TQueue::QueueNoWait, &code), -1);
    QCOMPARE(code, TQueue::QueueErrMsgSize);
    // Its slot is free again, and the next message comes next.
    QCOMPARE(queue.SendMsg("z", 1, TQueue::QueueNoWait), TQueue::QueueErrNone);
    QCOMPARE(queue.ReceiveMsg(buffer.data(), buffer.size(), TQueue::QueueNoWait, &code), 49);
    QCOMPARE(buffer, second);
    QCOMPARE(code, TQueue::QueueErrMsgSize);
}

void tst_TQueue::waitingCount_data()
{
    QTest::addColumn<int>("sends");
    QTest::addColumn<int>("receives");
    QTest::newRow("new") << 0 << 0;
    QTest::newRow("1 - 0") << 1 << 0;
    QTest::newRow("3 - 1") << 3 << 1;
    QTest::newRow("full") << 4 << 0;
    QTest::newRow("full, emptied") << 4 << 4;
}

void tst_TQueue::waitingCount()
{
    QFETCH(int, sends);
    QFETCH(int, receives);
    TQueue queue(8, 4, QStringLiteral("count"));
    char buffer[8];
    for (int i = 0; i < sends; ++i)
        QCOMPARE(queue.SendMsg("m", 1, TQueue::QueueWaitForever), TQueue::QueueErrNone);
    for (int i = 0; i < receives; ++i)
        QCOMPARE(queue.ReceiveMsg(buffer, sizeof buffer, TQueue::QueueWaitForever), 1);
    QCOMPARE(queue.GetWaitingMessageCount(), sends - receives);

    const TQueue inert(8, 4, TQueue::InvalidQueueName);
    QCOMPARE(inert.GetWaitingMessageCount(), 0);
}

void tst_TQueue::nullErrorCodePointer()
{
    TQueue queue(4, 1, QStringLiteral("null"));
    char buffer[4];
    QCOMPARE(queue.ReceiveMsg(buffer, sizeof buffer, TQueue::QueueNoWait, nullptr), -1);
    QCOMPARE(queue.ReceiveMsg(buffer, sizeof buffer, 3, nullptr), -1);
    QCOMPARE(queue.SendMsg("abc", 3, TQueue::QueueNoWait), TQueue::QueueErrNone);
    QCOMPARE(queue.ReceiveMsg(buffer, 2, TQueue::QueueNoWait, nullptr), -1);
    QCOMPARE(TQueue::ReceiveMsg(TQueue::InvalidQueueId, buffer, 4, TQueue::QueueNoWait, nullptr),
             -1);

    unsigned int code = 5;
    TQueue::SetErrorCode(&code, TQueue::QueueErrNameExists);
    QCOMPARE(code, TQueue::QueueErrNameExists);
    TQueue::SetErrorCode(nullptr, TQueue::QueueErrNameExists);
}

void tst_TQueue::byIdentifier()
{
    TQueue queue(8, 2, QStringLiteral("by id"));
    const TQueue inert(8, 2, TQueue::InvalidQueueName);
    char buffer[8];
    unsigned int code = Untouched;

    QCOMPARE(TQueue::SendMsg(queue.GetQueueId(), "id", 2, TQueue::QueueNoWait),
             TQueue::QueueErrNone);
    QCOMPARE(TQueue::ReceiveMsg(queue.GetQueueId(), buffer, 8, TQueue::QueueNoWait, &code), 2);
    QCOMPARE(QByteArray(buffer, 2), QByteArray("id"));
    QCOMPARE(code, Untouched);
    // Argument errors come from the queue itself.
    QCOMPARE(TQueue::SendMsg(queue.GetQueueId(), "id", 8, TQueue::QueueNoWait),
             TQueue::QueueErrMsgSize);

    for (unsigned int id :
         { TQueue::InvalidQueueId, inert.GetQueueId(), queue.GetQueueId() + 1000 }) {
        code = Untouched;
        QCOMPARE(TQueue::SendMsg(id, "id", 2, TQueue::QueueNoWait), TQueue::QueueErrNoQueue);
        QCOMPARE(TQueue::ReceiveMsg(id, buffer, 8, TQueue::QueueWaitForever, &code), -1);
        QCOMPARE(code, TQueue::QueueErrNoQueue);
    }
}

QTEST_GUILESS_MAIN(tst_TQueue)

#include "tst_tqueue.moc"
