// queue-relay: two threaded objects pass numbered messages through a named
// queue. The sender finds the queue by its identifier, the receiver by its
// name; each runs in its own worker thread. The program prints what arrived
// and how fast.
#include <Trellis/Trellis.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTextStream>

#include <cstdio>
#include <cstring>

namespace {

const QString QueueName = QStringLiteral("relay");
constexpr int MessageSize = 64;
constexpr int MessageCount = 1024;
constexpr int MessagesToSend = 500000;

struct Message
{
    int number;
    char text[MessageSize - 1 - sizeof(int)];
};

class Sender : public TThreadedObject
{
    Q_OBJECT
public:
    explicit Sender(unsigned int queueId)
        : TThreadedObject(QStringLiteral("relay-sender")), m_queueId(queueId)
    { }

public Q_SLOTS:
    void Send(int count)
    {
        Message message;
        for (int number = 1; number <= count; ++number) {
            message.number = number;
            const int length
                    = std::snprintf(message.text, sizeof message.text, "message %d", number);
            const int size = int(sizeof message.number) + length + 1;
            if (TQueue::SendMsg(m_queueId, &message, size, TQueue::QueueWaitForever)
                != TQueue::QueueErrNone)
                return;
        }
    }

protected:
    void Initialize() override { }
    void Finalize() override { }

private:
    const unsigned int m_queueId;
};

class Receiver : public TThreadedObject
{
    Q_OBJECT
public:
    Receiver() : TThreadedObject(QStringLiteral("relay-receiver")) { }

public Q_SLOTS:
    void Receive(int count)
    {
        TQueue *queue = TQueue::FindQueue(QueueName, nullptr);
        if (!queue) {
            Q_EMIT Finished(0, 0, 0);
            return;
        }
        QTextStream out(stdout);
        QElapsedTimer timer;
        Message message;
        int inOrder = 0;
        int received = 0;
        for (; received < count; ++received) {
            unsigned int error = TQueue::QueueErrNone;
            if (queue->ReceiveMsg(&message, sizeof message, TQueue::QueueWaitForever, &error) < 0)
                break;
            if (received == 0)
                timer.start();
            if (message.number == received + 1)
                ++inOrder;
            if (received < 3 || received >= count - 3)
                out << "  arrived: " << message.text << Qt::endl;
            else if (received == 3)
                out << "  ..." << Qt::endl;
        }
        Q_EMIT Finished(received, inOrder, timer.nsecsElapsed());
    }

Q_SIGNALS:
    void Finished(int received, int inOrder, qint64 nanoseconds);

protected:
    void Initialize() override { }
    void Finalize() override { }
};

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QTextStream out(stdout);

    unsigned int error = TQueue::QueueErrNone;
    TQueue *queue = TQueue::CreateQueue(MessageSize, MessageCount, QueueName, &error);
    if (!queue) {
        out << "could not create the queue, error " << error << Qt::endl;
        return 1;
    }
    out << "queue '" << queue->GetQueueName() << "' has identifier " << queue->GetQueueId() << ": "
        << MessageCount << " slots of " << MessageSize << " bytes" << Qt::endl;

    Sender sender(queue->GetQueueId());
    Receiver receiver;
    int exitCode = 1;
    QObject::connect(&receiver, &Receiver::Finished, &app,
                     [&](int received, int inOrder, qint64 nanoseconds) {
                         const double seconds = nanoseconds / 1e9;
                         out << received << " of " << MessagesToSend << " messages arrived, "
                             << inOrder << " in order" << Qt::endl;
                         if (seconds > 0)
                             out << "throughput: " << qRound(received / seconds) << " messages/s"
                                 << Qt::endl;
                         exitCode = (received == MessagesToSend && inOrder == received) ? 0 : 1;
                         app.quit();
                     });

    receiver.start();
    sender.start();
    QMetaObject::invokeMethod(&receiver, "Receive", Qt::QueuedConnection,
                              Q_ARG(int, MessagesToSend));
    QMetaObject::invokeMethod(&sender, "Send", Qt::QueuedConnection, Q_ARG(int, MessagesToSend));
    app.exec();

    for (TThreadedObject *worker :
         { static_cast<TThreadedObject *>(&sender), static_cast<TThreadedObject *>(&receiver) }) {
        worker->Stop();
        worker->wait();
    }
    TQueue::DestroyQueue(queue->GetQueueId());
    return exitCode;
}

#include "main.moc"
