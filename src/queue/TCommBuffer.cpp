#include "TCommBuffer.h"

#include "TLightSemaphore.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>

namespace {
// Fields touched by different threads live on separate cache lines, so that
// the writer's and the reader's traffic do not invalidate each other.
constexpr std::size_t CacheLine = 64;
} // namespace

class TCommBufferPrivate
{
public:
    explicit TCommBufferPrivate(int size)
        : capacity(std::max(size, 0)), freeBytes(capacity),
          storage(capacity > 0 ? new char[capacity] : nullptr)
    { }

    // The position \a count bytes after \a start, wrapped around the storage;
    // written so that it cannot overflow even for the largest capacity.
    int advance(int start, int count) const
    {
        const int untilEnd = capacity - start;
        return count >= untilEnd ? count - untilEnd : start + count;
    }

    const int capacity;
    alignas(CacheLine) TLightSemaphore freeBytes;
    alignas(CacheLine) TLightSemaphore usedBytes;

    // Writer side. The lock guards only the reservation of a region, so that
    // the copy, the longest part of a write, runs without it.
    alignas(CacheLine) std::mutex writerLock;
    int writeIndex = 0;

    // Reader side: advanced without a lock by the one reading thread.
    alignas(CacheLine) std::atomic<int> readIndex { 0 };

    alignas(CacheLine) const std::unique_ptr<char[]> storage;
};

TCommBuffer::TCommBuffer(int size) : d(std::make_unique<TCommBufferPrivate>(size)) { }

TCommBuffer::~TCommBuffer() = default;

bool TCommBuffer::Write(const char *data, int count)
{
    if (count < 0 || (count > 0 && !data))
        return false;
    if (count == 0)
        return true;
    if (!d->freeBytes.tryAcquire(count))
        return false;

    int start;
    {
        const std::lock_guard<std::mutex> locker(d->writerLock);
        start = d->writeIndex;
        d->writeIndex = d->advance(start, count);
    }

    // At most two copies: up to the end of the storage, then from its start.
    const int head = std::min(count, d->capacity - start);
    std::memcpy(d->storage.get() + start, data, head);
    std::memcpy(d->storage.get(), data + head, count - head);

    d->usedBytes.release(count);
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
    std::memcpy(data, d->storage.get() + start, head);
    std::memcpy(data + head, d->storage.get(), count - head);

    d->freeBytes.release(count);
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
