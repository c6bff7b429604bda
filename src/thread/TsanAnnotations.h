#ifndef TRELLIS_TSANANNOTATIONS_H
#define TRELLIS_TSANANNOTATIONS_H

// Tells ThreadSanitizer of an ordering between threads that Qt makes inside
// QtCore, which is not built for it, so that it cannot see the ordering
// itself: what one thread did before tsanRelease(p) happens before what
// another does after a later tsanAcquire(p). Nothing in other builds.
// Internal to the library.
#if defined(__SANITIZE_THREAD__)
extern "C" void __tsan_acquire(void *address);
extern "C" void __tsan_release(void *address);
inline void tsanAcquire(void *address)
{
    __tsan_acquire(address);
}
inline void tsanRelease(void *address)
{
    __tsan_release(address);
}
#else
inline void tsanAcquire(void *) { }
inline void tsanRelease(void *) { }
#endif

#endif // TRELLIS_TSANANNOTATIONS_H
