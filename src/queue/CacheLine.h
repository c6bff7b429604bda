#ifndef TRELLIS_CACHELINE_H
#define TRELLIS_CACHELINE_H

// The size of a cache line on the processors the library runs on (x86 and
// most ARM cores). Fields that different threads write are aligned to it, so
// that one thread's writes do not invalidate the line another thread works
// on. Internal to the library.
constexpr int CacheLine = 64;

#endif // TRELLIS_CACHELINE_H
