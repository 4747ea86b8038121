// bind.h -- what each import of an image is bound to.
#pragma once

#include "image.h"

// Binds all imports; Refuse()s the image with the names of those without a row.
//
// A test program puts its own function in the place of a call by __wrap_X, and reaches the call by
// __real_X.  An image that defines __wrap_X has it bound to X, and __real_X bound to X's row.
void BindImports(const Image &image);
