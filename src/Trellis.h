#ifndef TRELLIS_TRELLIS_H
#define TRELLIS_TRELLIS_H

// Every public class and function of the Trellis library.

#include <Trellis/AlignedFree.h>

#endif // TRELLIS_TRELLIS_H
