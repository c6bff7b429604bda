#include "TCommBuffer.h"

#include "CacheLine.h"
#include "TLightSemaphore.h"
#include "TSpinLock.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>

namespace {
// The unit of storage: blocks that start at a multiple of the line size
// (every power-of-two chunk of 64 bytes or more) then share no cache line
// with their neighbours, so the writer filling one block does not steal the
// line under the reader emptying the one before.
struct alignas(CacheLine) StorageLine
{
    char bytes[CacheLine];
};
} // namespace

class TCommBufferPrivate
{
public:
    explicit TCommBufferPrivate(int size)
        : capacity(std::max(size, 0)),
          lines(capacity > 0 ? new StorageLine[(std::size_t(capacity) + CacheLine - 1) / CacheLine]
                             : nullptr),
          storage(reinterpret_cast<char *>(lines.get())), freeBytes(capacity)
    { }

    // The position \a count bytes after \a start, wrapped around the storage;
    // written so that it cannot overflow even for the largest capacity.
    int advance(int start, int count) const
    {
        const int untilEnd = capacity - start;
        return count >= untilEnd ? count - untilEnd : start + count;
    }

    // Read by both sides, written by neither.
    const int capacity;
    const std::unique_ptr<StorageLine[]> lines;
    char *const storage;

    // The writer takes from freeBytes and gives to usedBytes, the reader the
    // other way round; each semaphore keeps its takers' and its givers'
    // totals on lines of their own. Each has one giver, the one thread of
    // its side, and nobody ever waits on it, so both sides give with
    // releaseAsSoleGiver().
    TLightSemaphore freeBytes;
    TLightSemaphore usedBytes;

    // Writer side. The lock guards only the reservation of a region, that is
    // taking its free bytes and advancing the write index, so that the copy,
    // the longest part of a write, runs without it. Takers of free bytes are
    // writers only, so the lock serializes them and they take with
    // tryAcquireAsSoleTaker(). The section is a few instructions long and,
    // used as meant, never contended, so the library's spin lock serves: it
    // is taken inline and released with a plain store, where a mutex costs
    // two library calls and two locked instructions.
    alignas(CacheLine) TSpinLock writerLock;
    int writeIndex = 0;

    // Reader side: advanced without a lock by the one reading thread.
    alignas(CacheLine) std::atomic<int> readIndex { 0 };
};

TCommBuffer::TCommBuffer(int size) : d(std::make_unique<TCommBufferPrivate>(size)) { }

TCommBuffer::~TCommBuffer() = default;

bool TCommBuffer::Write(const char *data, int count)
{
    if (count < 0 || (count > 0 && !data))
        return false;
    if (count == 0)
        return true;

    int start;
    {
        const std::lock_guard<TSpinLock> locker(d->writerLock);
        if (!d->freeBytes.tryAcquireAsSoleTaker(count))
            return false;
        start = d->writeIndex;
        d->writeIndex = d->advance(start, count);
    }

    // At most two copies: up to the end of the storage, then from its start.
    const int head = std::min(count, d->capacity - start);
    std::memcpy(d->storage + start, data, head);
    std::memcpy(d->storage, data + head, count - head);

    d->usedBytes.releaseAsSoleGiver(count);
    return true;
}

int TCommBuffer::Read(char *data, int maxCount)
{
    if (maxCount < 0 || (maxCount > 0 && !data))
        return -1;
    const int count = std::min(d->usedBytes.available(), maxCount);
    if (count == 0)
        return 0;
    if (!d->usedBytes.tryAcquire(count))
        return -1;

    const int start = d->readIndex.load(std::memory_order_relaxed);
    d->readIndex.store(d->advance(start, count), std::memory_order_relaxed);

    const int head = std::min(count, d->capacity - start);
    std::memcpy(data, d->storage + start, head);
    std::memcpy(data + head, d->storage, count - head);

    d->freeBytes.releaseAsSoleGiver(count);
    return count;
}

int TCommBuffer::GetUsed() const
{
    return d->usedBytes.available();
}

int TCommBuffer::GetFree() const
{
    return d->freeBytes.available();
}
