// layout.h -- holds a structure of the runner's to Darwin's, as the cross compiler's headers have
// it.
#pragma once

#include "darwinNumbers.h"

#include <cstddef>

#define DARWIN_FIELD(type, darwin, field)                                                          \
    static_assert(offsetof(type, field) == DARWIN_OFFSET_##darwin##_##field)
#define DARWIN_SIZE(type, darwin) static_assert(sizeof(type) == DARWIN_SIZEOF_##darwin)
