// layout.h -- asserts that a structure of the runner's has the layout that Darwin's has in the
// cross compiler's headers.
#pragma once

#include "darwinNumbers.h"

#include <cstddef>

#define DARWIN_FIELD(type, darwin, field)                                                          \
    static_assert(offsetof(type, field) == DARWIN_OFFSET_##darwin##_##field)
#define DARWIN_SIZE(type, darwin) static_assert(sizeof(type) == DARWIN_SIZEOF_##darwin)
