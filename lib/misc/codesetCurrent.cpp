// codesetCurrent.cpp -- the host's code set, in a source of its own: a program may have another one
// by defining the function itself.
#include "codeset.h"

extern "C" const char *CodeSet_GetCurrentCodeSet() { return "UTF-8"; }
