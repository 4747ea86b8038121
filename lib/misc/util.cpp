// util.cpp -- allocation that cannot fail.
#include "util.h"

#include "diagnostics.h"

#include <cstdlib>

extern "C" void Util_AllocFailure() { Panic("Unrecoverable memory allocation failure\n"); }

extern "C" void *Util_SafeMalloc(size_t size)
{
    void *block = malloc(size);
    if (block == nullptr && size != 0) { Util_AllocFailure(); }
    return block;
}
