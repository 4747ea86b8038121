// The same in C++.
#include "ownLog.c"
