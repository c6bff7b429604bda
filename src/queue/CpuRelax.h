#ifndef TRELLIS_CPURELAX_H
#define TRELLIS_CPURELAX_H

#if defined(__i386__) || defined(__x86_64__)
#include <immintrin.h>
#endif

// Tells the processor that the caller is busy-waiting, which saves power and
// lets a sibling hardware thread run. Takes some 20 ns on current x86
// processors, a few on older ones. Internal to the library.
inline void cpuRelax()
{
#if defined(__i386__) || defined(__x86_64__)
    _mm_pause();
#endif
}

#endif // TRELLIS_CPURELAX_H
