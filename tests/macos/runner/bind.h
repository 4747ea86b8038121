// bind.h -- what each import of an image is bound to.
#pragma once

#include "image.h"

// Binds all imports; Refuse()s the image with the names of those without a row.
//
// A test program replaces the call X by defining __wrap_X, to which the import X is then bound.  It
// calls the original as __real_X, which is bound to X's row.
void BindImports(const Image &image);
