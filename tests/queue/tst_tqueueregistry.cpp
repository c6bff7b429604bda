#include <Trellis/TQueue.h>

#include <QtTest>

#include <atomic>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

// The process-wide registry: identifiers, names, creation and destruction.
// Identifiers start at 1 because every test program is a fresh process.
class tst_TQueueRegistry : public QObject
{
    Q_OBJECT

private slots:
    void identifiersRunFromOneInertIncluded(); // must run first
    void nameExistsDrawsNoIdentifier();
    void destroyThenRecreate();
    void emptyNameIsNeverRegistered();
    void namesAreCaseSensitive();
    void findQueueLeavesErrorCodeAlone_data();
    void findQueueLeavesErrorCodeAlone();
    void deletingDirectlyUnregisters();
    void duplicateNameKeepsFirstQueuesEntry();
    void racingCreatesHandOutOneQueue();
    void racingDestroysDeleteOnce();

private:
    static constexpr unsigned int Untouched = 0xC0FFEE;
};

// Runs body(0) ... body(count - 1) in threads released together, and waits
// for them.
static void runTogether(int count, const std::function<void(int)> &body)
{
    std::atomic<int> ready { 0 };
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) {
        threads.emplace_back([&, i] {
            ++ready;
            while (ready.load() < count)
                std::this_thread::yield();
            body(i);
        });
    }
    for (auto &thread : threads)
        thread.join();
}

void tst_TQueueRegistry::identifiersRunFromOneInertIncluded()
{
    unsigned int code = Untouched;
    std::unique_ptr<TQueue> first(TQueue::CreateQueue(16, 4, QStringLiteral("first"), &code));
    QVERIFY(first);
    QCOMPARE(code, TQueue::QueueErrNone);
    code = Untouched;
    std::unique_ptr<TQueue> inert(TQueue::CreateQueue(0, 4, QStringLiteral("inert"), &code));
    QVERIFY(inert);
    QCOMPARE(code, TQueue::QueueErrNone);
    std::unique_ptr<TQueue> third(TQueue::CreateQueue(16, 4, QStringLiteral("third")));

    QCOMPARE(first->GetQueueId(), 1u);
    QCOMPARE(inert->GetQueueId(), 2u);
    QCOMPARE(third->GetQueueId(), 3u);
    QCOMPARE(TQueue::FindQueue(1), first.get());
    QCOMPARE(TQueue::FindQueue(2), nullptr);
    QCOMPARE(TQueue::FindQueue(QStringLiteral("inert")), nullptr);
    QCOMPARE(TQueue::DestroyQueue(2), TQueue::QueueErrNoQueue);
    QCOMPARE(TQueue::GetQueueName(3), QStringLiteral("third"));
    QCOMPARE(TQueue::GetQueueId(QStringLiteral("third")), 3u);
    QCOMPARE(TQueue::GetNextId(), 4u);
}

void tst_TQueueRegistry::nameExistsDrawsNoIdentifier()
{
    std::unique_ptr<TQueue> live(TQueue::CreateQueue(16, 4, QStringLiteral("taken")));
    unsigned int code = Untouched;
    QCOMPARE(TQueue::CreateQueue(16, 4, QStringLiteral("taken"), &code), nullptr);
    QCOMPARE(code, TQueue::QueueErrNameExists);
    QCOMPARE(TQueue::CreateQueue(1, 1, QStringLiteral("taken")), nullptr);

    std::unique_ptr<TQueue> next(TQueue::CreateQueue(16, 4, QStringLiteral("next")));
    QCOMPARE(next->GetQueueId(), live->GetQueueId() + 1);
    QCOMPARE(TQueue::FindQueue(QStringLiteral("taken")), live.get());
}

void tst_TQueueRegistry::destroyThenRecreate()
{
    const QString name = QStringLiteral("again");
    const unsigned int oldId = TQueue::CreateQueue(16, 4, name)->GetQueueId();
    QCOMPARE(TQueue::DestroyQueue(oldId), TQueue::QueueErrNone);
    QCOMPARE(TQueue::FindQueue(name), nullptr);
    QCOMPARE(TQueue::FindQueue(oldId), nullptr);
    QCOMPARE(TQueue::GetQueueId(name), TQueue::InvalidQueueId);
    QCOMPARE(TQueue::GetQueueName(oldId), TQueue::InvalidQueueName);

    unsigned int code = Untouched;
    TQueue *recreated = TQueue::CreateQueue(16, 4, name, &code);
    QVERIFY(recreated);
    QCOMPARE(code, TQueue::QueueErrNone);
    QVERIFY(recreated->GetQueueId() > oldId);
    QCOMPARE(TQueue::DestroyQueue(oldId), TQueue::QueueErrNoQueue);
    QCOMPARE(TQueue::FindQueue(name), recreated);
    QCOMPARE(TQueue::DestroyQueue(recreated->GetQueueId()), TQueue::QueueErrNone);
}

void tst_TQueueRegistry::emptyNameIsNeverRegistered()
{
    unsigned int code = Untouched;
    std::unique_ptr<TQueue> inert(TQueue::CreateQueue(16, 4, TQueue::InvalidQueueName, &code));
    QVERIFY(inert);
    QCOMPARE(code, TQueue::QueueErrNone);
    QCOMPARE(TQueue::GetQueueId(TQueue::InvalidQueueName), TQueue::InvalidQueueId);
    QCOMPARE(TQueue::FindQueue(TQueue::InvalidQueueName), nullptr);
    QCOMPARE(TQueue::FindQueue(inert->GetQueueId()), nullptr);
    QCOMPARE(TQueue::DestroyQueue(TQueue::InvalidQueueId), TQueue::QueueErrNoQueue);
}

void tst_TQueueRegistry::namesAreCaseSensitive()
{
    std::unique_ptr<TQueue> upper(TQueue::CreateQueue(16, 4, QStringLiteral("Queue")));
    std::unique_ptr<TQueue> lower(TQueue::CreateQueue(16, 4, QStringLiteral("queue")));
    QVERIFY(upper && lower);
    QCOMPARE(TQueue::FindQueue(QStringLiteral("Queue")), upper.get());
    QCOMPARE(TQueue::FindQueue(QStringLiteral("queue")), lower.get());
    QCOMPARE(TQueue::FindQueue(QStringLiteral("QUEUE")), nullptr);
}

void tst_TQueueRegistry::findQueueLeavesErrorCodeAlone_data()
{
    QTest::addColumn<bool>("registered");
    QTest::newRow("found") << true;
    QTest::newRow("not found") << false;
}

void tst_TQueueRegistry::findQueueLeavesErrorCodeAlone()
{
    QFETCH(bool, registered);
    const QString name = QStringLiteral("find");
    TQueue queue(16, 4, registered ? name : TQueue::InvalidQueueName);
    TQueue *expected = registered ? &queue : nullptr;

    unsigned int code = Untouched;
    QCOMPARE(TQueue::FindQueue(queue.GetQueueId(), &code), expected);
    QCOMPARE(TQueue::FindQueue(name, &code), expected);
    QCOMPARE(code, Untouched);
}

void tst_TQueueRegistry::deletingDirectlyUnregisters()
{
    const QString name = QStringLiteral("direct");
    auto *queue = new TQueue(16, 4, name);
    const unsigned int id = queue->GetQueueId();
    QCOMPARE(TQueue::FindQueue(id), queue);
    delete queue;
    QCOMPARE(TQueue::FindQueue(id), nullptr);
    QCOMPARE(TQueue::FindQueue(name), nullptr);
    QCOMPARE(TQueue::GetQueueName(id), TQueue::InvalidQueueName);
}

// A queue built directly under a registered name gets no name entry, and its
// destruction must not take the first queue's entry with it.
void tst_TQueueRegistry::duplicateNameKeepsFirstQueuesEntry()
{
    const QString name = QStringLiteral("shared name");
    TQueue first(16, 4, name);
    auto second = std::make_unique<TQueue>(16, 4, name);
    QCOMPARE(TQueue::FindQueue(name), &first);
    QCOMPARE(TQueue::FindQueue(second->GetQueueId()), second.get());
    QCOMPARE(TQueue::GetQueueName(second->GetQueueId()), name);

    second.reset();
    QCOMPARE(TQueue::FindQueue(name), &first);
    QCOMPARE(TQueue::GetQueueId(name), first.GetQueueId());
    QCOMPARE(TQueue::FindQueue(first.GetQueueId()), &first);
}

// Threads that create a queue of one name at once may all pass the name
// check; exactly one of them may get a queue, and it owns the name.
void tst_TQueueRegistry::racingCreatesHandOutOneQueue()
{
    const QString name = QStringLiteral("contested");
    const int threadCount = 4;
    for (int round = 0; round < 300; ++round) {
        std::vector<TQueue *> created(threadCount, nullptr);
        std::vector<unsigned int> codes(threadCount, Untouched);
        runTogether(threadCount,
                    [&](int i) { created[i] = TQueue::CreateQueue(8, 1, name, &codes[i]); });

        int winners = 0;
        for (int i = 0; i < threadCount; ++i) {
            if (created[i]) {
                ++winners;
                QCOMPARE(codes[i], TQueue::QueueErrNone);
                QCOMPARE(TQueue::FindQueue(name), created[i]);
                QCOMPARE(TQueue::DestroyQueue(created[i]->GetQueueId()), TQueue::QueueErrNone);
            } else {
                QCOMPARE(codes[i], TQueue::QueueErrNameExists);
            }
        }
        QCOMPARE(winners, 1);
        QCOMPARE(TQueue::FindQueue(name), nullptr);
    }
}

// Of several threads destroying one identifier at once, exactly one deletes
// the queue (a second delete would be caught by the sanitizer build).
void tst_TQueueRegistry::racingDestroysDeleteOnce()
{
    const int threadCount = 4;
    for (int round = 0; round < 300; ++round) {
        const unsigned int id = TQueue::CreateQueue(8, 1, QStringLiteral("doomed"))->GetQueueId();
        std::atomic<int> deleted { 0 };
        runTogether(threadCount, [&](int) {
            if (TQueue::DestroyQueue(id) == TQueue::QueueErrNone)
                ++deleted;
        });
        QCOMPARE(deleted.load(), 1);
        QCOMPARE(TQueue::FindQueue(QStringLiteral("doomed")), nullptr);
    }
}

QTEST_GUILESS_MAIN(tst_TQueueRegistry)

#include "tst_tqueueregistry.moc"
