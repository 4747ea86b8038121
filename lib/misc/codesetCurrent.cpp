// codesetCurrent.cpp -- the host's code set, in a source of its own, so that it can be replaced at
// the link.  The conversions of codesetConversions.cpp that go by their name copy what they take
// for UTF-8.
#include "codeset.h"

extern "C" const char *CodeSet_GetCurrentCodeSet() { return "UTF-8"; }
