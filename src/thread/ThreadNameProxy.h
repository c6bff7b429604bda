#ifndef TRELLIS_THREADNAMEPROXY_H
#define TRELLIS_THREADNAMEPROXY_H

#include <Trellis/trellis_export.h>

#include <atomic>

/*!
    The thread-naming hook: an object that the application installs to learn
    the name of every worker thread that a TThreadedObject starts, for example
    to hand it to its own logging or profiling tools.

    The operating system keeps only the first 15 bytes of a thread's name; the
    hook receives the whole name.

    There is one hook for the whole process, reached through proxy(). It is
    null unless the application installs one; the library only reads it. To
    install a hook, derive from this class and store a pointer to an object
    that outlives every threaded object:

    \code
    class LogThreadName : public ThreadNameProxy
    {
    public:
        void SetThreadName(const char *name) override { qInfo("thread %s", name); }
    };

    static LogThreadName hook;
    ThreadNameProxy::proxy() = &hook;   // before starting any threaded object
    \endcode

    Install the hook before starting any threaded object: each worker thread
    reads the pointer once when it starts, so threads already running are not
    told about a hook installed later. Storing null removes the hook; the
    object itself still must not be deleted while a worker thread may be
    starting.
*/
class TRELLIS_EXPORT ThreadNameProxy
{
public:
    /*!
        Called in each worker thread when it starts, before the threaded
        object's Initialize(), with the thread's name converted to Latin-1
        (characters outside Latin-1 become '?') as NUL-terminated bytes. The
        bytes are valid only during the call. Several worker threads may call
        it at the same time.
    */
    virtual void SetThreadName(const char *name) = 0;

    virtual ~ThreadNameProxy();

    /*!
        Gives the process-wide hook pointer, null by default. The application
        and the library share this one variable. It is atomic, so storing and
        reading it from any thread is well defined.
    */
    static std::atomic<ThreadNameProxy *> &proxy();
};

#endif // TRELLIS_THREADNAMEPROXY_H
