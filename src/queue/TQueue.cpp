#include "TQueue.h"

#include "CacheLine.h"
#include "TLightSemaphore.h"
#include "TSpinLock.h"

#include <cstdint>
#include <cstring>
#include <limits>
#include <map>
#include <mutex>
#include <new>

namespace {

// The registry. Defined in this order in this one file so that loading the
// library sets up the name map, the identifier map, the lock (constant-
// initialised, so usable even before that) and then TQueue::InvalidQueueName,
// and unloading tears them down in reverse. The maps refer to queues without
// owning them.
std::map<QString, TQueue *> GlobalQueueNameMap;
std::map<unsigned int, TQueue *> GlobalQueueIdMap;
std::mutex GlobalMutex; // not recursive
unsigned int NextQueueId = 1; // guarded by GlobalMutex

// Returns the queue registered under key, or null. The caller holds GlobalMutex.
template<typename Map>
TQueue *entryOf(const Map &map, const typename Map::key_type &key)
{
    const auto entry = map.find(key);
    return entry != map.end() ? entry->second : nullptr;
}

// Removes the entry under key only if it is queue's own: another queue may
// have registered the same name or, after the identifiers wrapped, the same
// identifier first. The caller holds GlobalMutex.
template<typename Map>
void eraseEntryOf(Map &map, const typename Map::key_type &key, const TQueue *queue)
{
    const auto entry = map.find(key);
    if (entry != map.end() && entry->second == queue)
        map.erase(entry);
}

void eraseEntriesOf(const TQueue *queue, unsigned int id, const QString &name)
{
    eraseEntryOf(GlobalQueueIdMap, id, queue);
    eraseEntryOf(GlobalQueueNameMap, name, queue);
}

} // namespace

const QString TQueue::InvalidQueueName;

class TQueuePrivate
{
public:
    // Each slot starts with the message's length, then its payload.
    using Length = std::int32_t;

    TQueuePrivate(int messageSize, int messageCount, const QString &name)
        : freeSlots(messageCount > 0 ? messageCount : 0), messageCount(messageCount),
          messageSize(messageSize),
          slotStride(sizeof(Length) + std::size_t(messageSize > 0 ? messageSize : 0)),
          id(TQueue::GetNextId()), name(name)
    { }

    bool hasValidArguments() const
    {
        return messageSize >= 1 && messageCount >= 1 && name != TQueue::InvalidQueueName;
    }
    bool isInert() const { return !slotBlock; }

    unsigned int takeUnit(TLightSemaphore &units, unsigned int timeout);
    void putMessage(const void *message, int length);
    int takeMessage(void *buffer, int bufferSize);

    // A sender takes from freeSlots and gives to waitingMessages, a receiver
    // the other way round; each semaphore keeps its takers' and its givers'
    // totals apart, so the two sides meet only where one reads the other's.
    TLightSemaphore freeSlots;
    TLightSemaphore waitingMessages;

    // The queue lock, in two halves: senders serialize on the write side,
    // receivers on the read side. The counts already keep a receiver away
    // from a slot until its message is complete and a sender away from one
    // until it has been emptied, and each side's index order is its lock
    // order, so senders and receivers never need to exclude each other; one
    // producer and one consumer then share no lock at all.
    alignas(CacheLine) TSpinLock writeLock;
    int writeIndex = 0; // guarded by writeLock
    alignas(CacheLine) TSpinLock readLock;
    int readIndex = 0; // guarded by readLock
    std::unique_ptr<char[]> slotBlock; // null for an inert queue

    const int messageCount;
    const int messageSize;
    const std::size_t slotStride;
    const unsigned int id;
    const QString name;
    bool ownsNameEntry = false; // set by AddToMaps() while the constructor runs
};

// The checks and the wait that sending and receiving share: takes one unit
// of units (a free slot or a waiting message) as timeout says.
unsigned int TQueuePrivate::takeUnit(TLightSemaphore &units, unsigned int timeout)
{
    if (timeout != TQueue::QueueNoWait && timeout != TQueue::QueueWaitForever)
        return TQueue::QueueErrBadTimeout;
    if (isInert())
        return TQueue::QueueErrNoQueue;
    if (timeout == TQueue::QueueWaitForever)
        units.acquire();
    else if (!units.tryAcquire())
        return TQueue::QueueErrWouldBlock;
    return TQueue::QueueErrNone;
}

void TQueuePrivate::putMessage(const void *message, int length)
{
    const Length storedLength = length;
    std::lock_guard<TSpinLock> locker(writeLock);
    char *slot = slotBlock.get() + std::size_t(writeIndex) * slotStride;
    std::memcpy(slot, &storedLength, sizeof storedLength);
    if (length > 0)
        std::memcpy(slot + sizeof storedLength, message, std::size_t(length));
    if (++writeIndex == messageCount)
        writeIndex = 0;
}

// Returns the message's length, or -1 when it did not fit into the buffer and
// was dropped.
int TQueuePrivate::takeMessage(void *buffer, int bufferSize)
{
    Length length;
    std::lock_guard<TSpinLock> locker(readLock);
    const char *slot = slotBlock.get() + std::size_t(readIndex) * slotStride;
    std::memcpy(&length, slot, sizeof length);
    const bool fits = length <= bufferSize;
    if (fits && length > 0)
        std::memcpy(buffer, slot + sizeof length, std::size_t(length));
    if (++readIndex == messageCount)
        readIndex = 0;
    return fits ? length : -1;
}

TQueue::TQueue(int messageSize, int messageCount, const QString &name)
    : d(std::make_unique<TQueuePrivate>(messageSize, messageCount, name))
{
    if (!d->hasValidArguments())
        return;
    AllocateBuffers();
    AddToMaps();
}

TQueue::~TQueue()
{
    {
        std::lock_guard<TSpinLock> writeLocker(d->writeLock);
        std::lock_guard<TSpinLock> readLocker(d->readLock);
        d->slotBlock.reset();
    }
    DestroyQueue();
}

void TQueue::AllocateBuffers()
{
    // One block for all slots, neither cleared now nor after use.
    if (std::size_t(d->messageCount) > std::numeric_limits<std::size_t>::max() / d->slotStride)
        throw std::bad_alloc();
    d->slotBlock.reset(new char[std::size_t(d->messageCount) * d->slotStride]);
}

unsigned int TQueue::SendMsg(const void *message, int length, unsigned int timeout)
{
    if (length < 0 || length >= d->messageSize)
        return QueueErrMsgSize;
    const unsigned int code = d->takeUnit(d->freeSlots, timeout);
    if (code != QueueErrNone)
        return code;
    d->putMessage(message, length);
    d->waitingMessages.release();
    return QueueErrNone;
}

int TQueue::ReceiveMsg(void *buffer, int bufferSize, unsigned int timeout, unsigned int *errorCode)
{
    const unsigned int code = d->takeUnit(d->waitingMessages, timeout);
    if (code != QueueErrNone) {
        SetErrorCode(errorCode, code);
        return -1;
    }
    const int length = d->takeMessage(buffer, bufferSize);
    d->freeSlots.release();
    if (length < 0)
        SetErrorCode(errorCode, QueueErrMsgSize);
    return length;
}

unsigned int TQueue::SendMsg(unsigned int queueId, const void *message, int length,
                             unsigned int timeout)
{
    TQueue *queue = FindQueue(queueId);
    return queue ? queue->SendMsg(message, length, timeout) : QueueErrNoQueue;
}

int TQueue::ReceiveMsg(unsigned int queueId, void *buffer, int bufferSize, unsigned int timeout,
                       unsigned int *errorCode)
{
    TQueue *queue = FindQueue(queueId);
    if (queue)
        return queue->ReceiveMsg(buffer, bufferSize, timeout, errorCode);
    SetErrorCode(errorCode, QueueErrNoQueue);
    return -1;
}

int TQueue::GetWaitingMessageCount() const
{
    return d->waitingMessages.available();
}

unsigned int TQueue::GetQueueId() const
{
    return d->id;
}

QString TQueue::GetQueueName() const
{
    return d->name;
}

void TQueue::SetErrorCode(unsigned int *errorCode, unsigned int code)
{
    if (errorCode)
        *errorCode = code;
}

// Registry

TQueue *TQueue::CreateQueue(int messageSize, int messageCount, const QString &name,
                            unsigned int *errorCode)
{
    if (FindQueue(name)) {
        SetErrorCode(errorCode, QueueErrNameExists);
        return nullptr;
    }
    auto queue = std::make_unique<TQueue>(messageSize, messageCount, name);
    // Another thread may have registered the name between the check and the
    // registration; a queue without its name entry is not handed out.
    if (!queue->d->isInert() && !queue->d->ownsNameEntry) {
        SetErrorCode(errorCode, QueueErrNameExists);
        return nullptr;
    }
    SetErrorCode(errorCode, QueueErrNone);
    return queue.release();
}

TQueue *TQueue::FindQueue(unsigned int queueId, unsigned int *)
{
    std::lock_guard<std::mutex> locker(GlobalMutex);
    return entryOf(GlobalQueueIdMap, queueId);
}

TQueue *TQueue::FindQueue(const QString &name, unsigned int *)
{
    std::lock_guard<std::mutex> locker(GlobalMutex);
    return entryOf(GlobalQueueNameMap, name);
}

unsigned int TQueue::DestroyQueue(unsigned int queueId)
{
    TQueue *queue;
    {
        // Unregistering in the same critical section as the lookup lets only
        // one of several racing calls reach the delete.
        std::lock_guard<std::mutex> locker(GlobalMutex);
        queue = entryOf(GlobalQueueIdMap, queueId);
        if (!queue)
            return QueueErrNoQueue;
        eraseEntriesOf(queue, queue->d->id, queue->d->name);
    }
    delete queue;
    return QueueErrNone;
}

QString TQueue::GetQueueName(unsigned int queueId)
{
    QString name = InvalidQueueName;
    std::lock_guard<std::mutex> locker(GlobalMutex);
    if (const TQueue *queue = entryOf(GlobalQueueIdMap, queueId))
        name = queue->d->name;
    return name;
}

unsigned int TQueue::GetQueueId(const QString &name)
{
    std::lock_guard<std::mutex> locker(GlobalMutex);
    const TQueue *queue = entryOf(GlobalQueueNameMap, name);
    return queue ? queue->d->id : InvalidQueueId;
}

unsigned int TQueue::GetNextId()
{
    std::lock_guard<std::mutex> locker(GlobalMutex);
    return NextQueueId++;
}

void TQueue::LockGlobal()
{
    GlobalMutex.lock();
}

void TQueue::UnLockGlobal()
{
    GlobalMutex.unlock();
}

void TQueue::AddToMaps()
{
    std::lock_guard<std::mutex> locker(GlobalMutex);
    const auto named = GlobalQueueNameMap.try_emplace(d->name, this);
    try {
        GlobalQueueIdMap.try_emplace(d->id, this);
    } catch (...) {
        // The constructor is about to fail: leave no entry behind.
        if (named.second)
            GlobalQueueNameMap.erase(named.first);
        throw;
    }
    d->ownsNameEntry = named.second;
}

void TQueue::DestroyQueue()
{
    std::lock_guard<std::mutex> locker(GlobalMutex);
    eraseEntriesOf(this, d->id, d->name);
}
