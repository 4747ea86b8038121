// codesetCurrent.cpp -- the host's code set, in a source of its own, so that tests can replace it
// at the link.  CodeSet_Utf8ToCurrent() and CodeSet_CurrentToUtf8() do not call it: they copy.
#include "codeset.h"

extern "C" const char *CodeSet_GetCurrentCodeSet() { return "UTF-8"; }
