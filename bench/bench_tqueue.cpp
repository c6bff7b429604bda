// Throughput of TQueue against other bounded multi-producer, multi-consumer
// queues: 64-byte messages, 1024 slots, calls that wait as long as it takes.

#include "RoundDriver.h"

#include <Trellis/TQueue.h>

#include <boost/interprocess/ipc/message_queue.hpp>
#include <concurrentqueue/blockingconcurrentqueue.h>

#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

namespace {

constexpr int MessageBytes = 64;
constexpr int Slots = 1024;

struct Message
{
    std::int64_t sequence;
    char filler[MessageBytes - sizeof(std::int64_t)];
};
static_assert(sizeof(Message) == MessageBytes, "messages are 64 bytes");

// Each adaptor offers send() and receive() that wait as long as it takes.

class TQueueChannel
{
public:
    // TQueue takes messages shorter than its message size.
    TQueueChannel() : m_queue(MessageBytes + 1, Slots, QStringLiteral("bench")) { }
    void send(const Message &message)
    {
        m_queue.SendMsg(&message, sizeof message, TQueue::QueueWaitForever);
    }
    void receive(Message &message)
    {
        m_queue.ReceiveMsg(&message, sizeof message, TQueue::QueueWaitForever);
    }

private:
    TQueue m_queue;
};

// Lives in /dev/shm; a queue left behind by an interrupted run is removed
// before and after.
class BoostChannel
{
public:
    BoostChannel()
    {
        boost::interprocess::message_queue::remove(Name);
        m_queue = std::make_unique<boost::interprocess::message_queue>(
                boost::interprocess::create_only, Name, Slots, MessageBytes);
    }
    ~BoostChannel()
    {
        m_queue.reset();
        boost::interprocess::message_queue::remove(Name);
    }
    void send(const Message &message) { m_queue->send(&message, sizeof message, 0); }
    void receive(Message &message)
    {
        boost::interprocess::message_queue::size_type received;
        unsigned int priority;
        m_queue->receive(&message, sizeof message, received, priority);
    }

private:
    static constexpr const char *Name = "trellis-bench-queue";
    std::unique_ptr<boost::interprocess::message_queue> m_queue;
};

// Unbounded by itself: a semaphore of free slots bounds it.
class MoodycamelChannel
{
public:
    void send(const Message &message)
    {
        m_freeSlots.wait();
        m_queue.enqueue(message);
    }
    void receive(Message &message)
    {
        m_queue.wait_dequeue(message);
        m_freeSlots.signal();
    }

private:
    moodycamel::BlockingConcurrentQueue<Message> m_queue { Slots };
    moodycamel::LightweightSemaphore m_freeSlots { Slots };
};

// The plain way: a ring of slots under one mutex, with a condition variable
// for each side.
class MutexRingChannel
{
public:
    void send(const Message &message)
    {
        std::unique_lock<std::mutex> locker(m_mutex);
        m_notFull.wait(locker, [this] { return m_count < Slots; });
        std::memcpy(&m_slots[m_write], &message, sizeof message);
        m_write = (m_write + 1) % Slots;
        ++m_count;
        locker.unlock();
        m_notEmpty.notify_one();
    }
    void receive(Message &message)
    {
        std::unique_lock<std::mutex> locker(m_mutex);
        m_notEmpty.wait(locker, [this] { return m_count > 0; });
        std::memcpy(&message, &m_slots[m_read], sizeof message);
        m_read = (m_read + 1) % Slots;
        --m_count;
        locker.unlock();
        m_notFull.notify_one();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_notFull;
    std::condition_variable m_notEmpty;
    std::vector<Message> m_slots = std::vector<Message>(Slots);
    int m_read = 0;
    int m_write = 0;
    int m_count = 0;
};

// Passes messages from producers to consumers through a fresh channel and
// returns messages per second. The sum of the received sequence numbers
// proves that every message arrived once.
template<typename Channel>
double messagesPerSecond(int producers, int consumers, int messages)
{
    Channel channel;
    const int perProducer = messages / producers;
    const int perConsumer = messages / consumers;
    std::vector<std::int64_t> sums(consumers, 0);
    const double seconds = RoundDriver::timeThreads(producers + consumers, [&](int thread) {
        Message message {};
        if (thread < producers) {
            for (int i = 0; i < perProducer; ++i) {
                message.sequence = i;
                channel.send(message);
            }
        } else {
            std::int64_t sum = 0;
            for (int i = 0; i < perConsumer; ++i) {
                channel.receive(message);
                sum += message.sequence;
            }
            sums[thread - producers] = sum;
        }
    });
    std::int64_t total = 0;
    for (std::int64_t sum : sums)
        total += sum;
    if (total != std::int64_t(producers) * perProducer * (perProducer - 1) / 2) {
        std::fprintf(stderr, "messages were lost or duplicated\n");
        std::exit(1);
    }
    return messages / seconds;
}

void compare(int producers, int consumers, int messages, int rounds)
{
    char title[160];
    std::snprintf(title, sizeof title,
                  "queue, %d-byte messages, %d slots, %d producer(s) + %d consumer(s), %d messages",
                  MessageBytes, Slots, producers, consumers, messages);
    RoundDriver driver(title, "msg/s");
    auto add = [&](const char *name, double (*trial)(int, int, int)) {
        driver.add(name, [=] { return trial(producers, consumers, messages); });
    };
    add("TQueue", messagesPerSecond<TQueueChannel>);
    add("std::mutex + condition_variable ring", messagesPerSecond<MutexRingChannel>);
    add("moodycamel BlockingConcurrentQueue", messagesPerSecond<MoodycamelChannel>);
    add("boost::interprocess::message_queue", messagesPerSecond<BoostChannel>);
    driver.run(rounds);
}

} // namespace

int main()
{
    compare(1, 1, 1000000, 21);
    compare(4, 4, 1000000, 21);
    return 0;
}
