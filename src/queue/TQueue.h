#ifndef TRELLIS_TQUEUE_H
#define TRELLIS_TQUEUE_H

#include <Trellis/trellis_export.h>

#include <QString>

#include <memory>

class TQueuePrivate;

/*!
    A queue of messages of bounded length between the threads of one process.

    A queue owns a fixed number of slots, allocated when it is built, and
    hands messages out in the order in which they were put in. Any number of
    threads may send to and receive from one queue at the same time. Each call
    either waits as long as it takes (\c QueueWaitForever) or does not wait at
    all (\c QueueNoWait); any other timeout is refused with
    \c QueueErrBadTimeout.

    Every queue has an identifier and a name. A queue built with valid
    arguments (message size and message count at least 1, a non-empty name)
    enters the process-wide registry, through which any thread finds it by
    identifier or by name. A queue built with invalid arguments is \e inert:
    it has no slots, is not registered, and every send or receive on it fails
    with \c QueueErrNoQueue once its arguments have been checked.

    Identifiers are handed out 1, 2, 3, ... in the order in which queues are
    constructed, inert ones included, and are not reused before the 32-bit
    counter wraps (see GetNextId()); 0 is \c InvalidQueueId. Names are
    compared case-sensitively; the empty name is \c InvalidQueueName and is
    never registered.

    Errors are `unsigned int` codes, returned or written through a nullable
    pointer with SetErrorCode(). They are the \c QueueErr constants below and
    are never combined. The codes and the two timeouts are \c constexpr
    members of type `unsigned int`, the type that the calls take and
    return, so they compare with results without conversions.

    Locks: the registry has one non-recursive lock, each queue its own
    (one for its senders, one for its receivers); a queue's locks and the
    registry's are never held together. Waits happen outside both. The
    application may destroy a queue only when no thread is inside, waiting
    in, or about to enter any of its operations: destruction wakes nobody.
*/
class TRELLIS_EXPORT TQueue
{
public:
    /*! \name Error codes */
    //! Success.
    static constexpr unsigned int QueueErrNone = 0;
    //! A call that does not wait found no free slot (send) or no message (receive).
    static constexpr unsigned int QueueErrWouldBlock = 1;
    //! No registered queue has the identifier, or the queue is inert.
    static constexpr unsigned int QueueErrNoQueue = 2;
    //! A queue with the name is already registered.
    static constexpr unsigned int QueueErrNameExists = 8;
    //! Send: the length is negative or not smaller than the message size.
    //! Receive: the message was longer than the buffer (and is dropped).
    static constexpr unsigned int QueueErrMsgSize = 64;
    //! The timeout is neither QueueNoWait nor QueueWaitForever.
    static constexpr unsigned int QueueErrBadTimeout = 128;

    /*! \name Timeouts (the only two accepted values) */
    //! Take a slot or a message only if one is available at once.
    static constexpr unsigned int QueueNoWait = 0;
    //! Wait as long as it takes.
    static constexpr unsigned int QueueWaitForever = 0xFFFFFFFF;

    //! The identifier that no queue has; lookups that find nothing return it.
    static constexpr unsigned int InvalidQueueId = 0;
    //! The empty name: it stands for no name and is never registered.
    static const QString InvalidQueueName;

    /*!
        Builds a queue of \a messageCount slots, each with room for a message
        of up to \a messageSize - 1 bytes, called \a name.

        The queue always draws a fresh identifier with GetNextId(). If
        \a messageSize and \a messageCount are at least 1 and \a name is not
        empty, its slots are allocated and it is registered; otherwise it is
        inert. Nothing is reported either way.

        If another queue is already registered under \a name, this queue is
        registered under its identifier only: FindQueue() by that name keeps
        returning the other queue, and destroying this one leaves the other's
        entry alone. CreateQueue() never hands out such a queue.

        Throws std::bad_alloc when the slots cannot be allocated; the queue
        is then not registered and its identifier is used up.

        May be called from any thread that does not hold LockGlobal().
    */
    TQueue(int messageSize, int messageCount, const QString &name);

    /*!
        Discards the waiting messages, frees the slots and removes the queue
        from the registry. Entries that refer to another queue under the same
        name or identifier are left in place. Threads waiting on the queue
        are not woken, so none may be.

        May be called from any thread that does not hold LockGlobal().
    */
    virtual ~TQueue();

    TQueue(const TQueue &) = delete;
    TQueue &operator=(const TQueue &) = delete;

    /*!
        Copies \a length bytes from \a message into the next free slot.
        \a timeout is QueueWaitForever to wait for a free slot or QueueNoWait
        to fail when there is none.

        Returns QueueErrNone on success; QueueErrMsgSize if \a length is
        negative or not smaller than the message size (checked first);
        QueueErrBadTimeout for any other timeout; QueueErrNoQueue if the queue
        is inert; QueueErrWouldBlock if the call does not wait and the queue
        is full. On failure the queue is unchanged. A zero-length message is
        a valid message, and \a message may then be null.

        May be called from any thread; allocates nothing.
    */
    unsigned int SendMsg(const void *message, int length, unsigned int timeout);

    /*!
        Takes the oldest message and copies it to the start of \a buffer,
        which has room for \a bufferSize bytes. \a timeout is QueueWaitForever
        to wait for a message or QueueNoWait to fail when there is none.

        Returns the message's length in bytes, or -1 on failure with the code
        stored through \a errorCode (which may be null): QueueErrBadTimeout for
        any other timeout; QueueErrNoQueue if the queue is inert;
        QueueErrWouldBlock if the call does not wait and the queue is empty;
        QueueErrMsgSize if the message is longer than \a bufferSize, in which
        case the message is removed and lost. On success \a errorCode is left
        as it was.

        May be called from any thread; allocates nothing.
    */
    int ReceiveMsg(void *buffer, int bufferSize, unsigned int timeout,
                   unsigned int *errorCode = nullptr);

    /*!
        Sends to the registered queue with identifier \a queueId, as the
        member SendMsg() does. Returns QueueErrNoQueue when there is none
        (identifier 0 included). The registry lock is held for the lookup
        only, so the queue must outlive the call.
    */
    static unsigned int SendMsg(unsigned int queueId, const void *message, int length,
                                unsigned int timeout);

    /*!
        Receives from the registered queue with identifier \a queueId, as the
        member ReceiveMsg() does. Stores QueueErrNoQueue and returns -1 when
        there is none (identifier 0 included). The registry lock is held for
        the lookup only, so the queue must outlive the call.
    */
    static int ReceiveMsg(unsigned int queueId, void *buffer, int bufferSize, unsigned int timeout,
                          unsigned int *errorCode = nullptr);

    /*!
        Returns the number of messages sent and not yet taken by a receiver;
        0 for an inert queue. Another thread may change it at any moment.
    */
    int GetWaitingMessageCount() const;

    //! Returns the queue's identifier, fixed at construction.
    unsigned int GetQueueId() const;

    //! Returns a copy of the queue's name, fixed at construction.
    QString GetQueueName() const;

    /*!
        Creates a queue as the constructor does and returns it; the caller
        owns it. Fails with QueueErrNameExists (stored through \a errorCode)
        and returns null when a queue named \a name is registered, either
        before the call (no identifier is drawn then) or by another thread
        that won a race for the name while this queue was being built (this
        queue's identifier is then used up). Otherwise stores QueueErrNone,
        also when the arguments are invalid and the returned queue is inert.

        Throws std::bad_alloc when the slots cannot be allocated.
    */
    static TQueue *CreateQueue(int messageSize, int messageCount, const QString &name,
                               unsigned int *errorCode = nullptr);

    /*!
        Returns the registered queue with identifier \a queueId, or null.
        \a errorCode is never written; it is accepted for symmetry with the
        other registry calls.
    */
    static TQueue *FindQueue(unsigned int queueId, unsigned int *errorCode = nullptr);

    /*!
        Returns the registered queue named \a name (case-sensitive), or null.
        \a errorCode is never written.
    */
    static TQueue *FindQueue(const QString &name, unsigned int *errorCode = nullptr);

    /*!
        Deletes the registered queue with identifier \a queueId and returns
        QueueErrNone, or returns QueueErrNoQueue when there is none. The
        queue leaves the registry before its destructor runs, so of several
        threads destroying one identifier at once only one deletes the queue
        and the others get QueueErrNoQueue. The application must make sure
        that no other thread uses or deletes the queue meanwhile.
    */
    static unsigned int DestroyQueue(unsigned int queueId);

    //! Returns the name of the registered queue \a queueId, or InvalidQueueName.
    static QString GetQueueName(unsigned int queueId);

    //! Returns the identifier of the queue registered as \a name, or InvalidQueueId.
    static unsigned int GetQueueId(const QString &name);

    /*!
        Returns a fresh identifier: 1 for the first call in a process, then
        one more on each call. Every constructed queue draws one.

        The counter is 32 bits wide. After 4,294,967,295 identifiers it wraps
        and hands out 0, then 1, 2, ... again. A queue that draws the
        identifier of a queue that is still registered is not entered under
        it and can then be found by name only; an identifier-addressed call
        reaches the older queue.
    */
    static unsigned int GetNextId();

    /*!
        Locks the registry's lock, which is not recursive. Until UnLockGlobal()
        the calling thread must not create, find, destroy or construct a
        queue, nor send or receive by identifier, nor call any other static
        operation of this class except SetErrorCode(): it would wait on
        itself. Other threads' registry calls wait meanwhile.
    */
    static void LockGlobal();

    //! Unlocks the registry's lock taken by the same thread with LockGlobal().
    static void UnLockGlobal();

    //! Stores \a code through \a errorCode unless \a errorCode is null.
    static void SetErrorCode(unsigned int *errorCode, unsigned int code);

private:
    void AllocateBuffers();
    void AddToMaps();
    void DestroyQueue();

    const std::unique_ptr<TQueuePrivate> d;
};

#endif // TRELLIS_TQUEUE_H
