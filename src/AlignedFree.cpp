#include "AlignedFree.h"

#include <cstdlib>

void AlignedFree(void *block)
{
    std::free(block);
}
