#ifndef TRELLIS_TCOMMBUFFER_H
#define TRELLIS_TCOMMBUFFER_H

#include <Trellis/trellis_export.h>

#include <memory>

class TCommBufferPrivate;

/*!
    A bounded ring buffer of bytes between one producing and one consuming
    thread. It carries a stream: message boundaries are not kept, so a reader
    may receive the bytes of several writes at once or one write in pieces.
    Neither side ever waits: a write that does not fit fails at once and a read
    returns whatever is there.

    The buffer serves one reading thread and one writing thread at a time, and
    the two may run at the same time. Reading and writing share no lock: two
    counters, of readable and of writable bytes, carry the hand-over, so bytes
    become readable only once they have been copied in and space becomes
    writable only once it has been copied out.

    Several concurrent readers are not supported: the reading position is
    advanced without a lock, so two readers could copy the same bytes or skip
    some. Several concurrent writers are not supported either: a later writer
    can make its bytes readable while an earlier writer's region, which is read
    first, is still being filled, and the reader would then receive garbage.
    Each side also updates its counter with a plain store, which is what makes
    the hand-over fast, so two threads on one side at once can lose a count
    for good: written bytes that never become readable, or read space that
    never becomes writable again.
    An application with several producers or consumers serialises them with a
    lock of its own; handing one side over from one thread to another is fine
    as long as the hand-over itself is synchronised.

    The storage is allocated once, in the constructor; reads and writes
    allocate nothing and hold no lock while they copy.
*/
class TRELLIS_EXPORT TCommBuffer
{
public:
    /*!
        Creates an empty buffer that holds up to \a size bytes. A \a size
        below 1 gives a buffer of capacity 0 that allocates nothing: every
        Write() of at least one byte fails and Read() returns 0.

        Throws std::bad_alloc when the storage cannot be allocated.
    */
    explicit TCommBuffer(int size);

    /*!
        Releases the storage. Nobody is waited for: no thread may be inside
        Write() or Read() any more.
    */
    ~TCommBuffer();

    TCommBuffer(const TCommBuffer &) = delete;
    TCommBuffer &operator=(const TCommBuffer &) = delete;

    /*!
        Appends the \a count bytes at \a data, all or nothing. Returns true when
        all of them were stored and false when none were, because fewer than
        \a count bytes are free (a \a count above the capacity never fits).

        A \a count of 0 returns true and changes nothing. A negative \a count,
        or a null \a data with a positive \a count, returns false and changes
        nothing.

        Called by the writing thread only.
    */
    bool Write(const char *data, int count);

    /*!
        Moves up to \a maxCount of the oldest bytes, in the order they were
        written, to \a data. Returns the number of bytes read, which is 0 when
        the buffer is empty or \a maxCount is 0.

        Returns -1 and takes nothing when \a maxCount is negative, when \a data
        is null and \a maxCount is positive, or when the bytes it saw were taken
        meanwhile by another reader (which the one-reader rule excludes).

        Called by the reading thread only.
    */
    int Read(char *data, int maxCount);

    /*!
        Returns the number of bytes that could be read now. The other side may
        change it at any moment. May be called from any thread.
    */
    int GetUsed() const;

    /*!
        Returns the number of bytes that could be written now. The other side
        may change it at any moment. May be called from any thread.
    */
    int GetFree() const;

private:
    const std::unique_ptr<TCommBufferPrivate> d;
};

#endif // TRELLIS_TCOMMBUFFER_H
