#ifndef TRELLIS_ALIGNEDFREE_H
#define TRELLIS_ALIGNEDFREE_H

#include <Trellis/trellis_export.h>

/*!
    \file AlignedFree.h
    The one free function of the library.
*/

/*!
    Releases \a block with the C library's free(). Null is accepted and does
    nothing. The library itself allocates nothing that must be released this
    way; the function is offered to applications that hand memory from
    aligned_alloc() or posix_memalign() across a library boundary.

    May be called from any thread.
*/
TRELLIS_EXPORT void AlignedFree(void *block);

#endif // TRELLIS_ALIGNEDFREE_H
