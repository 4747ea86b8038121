// The same in C++.
#include "enums.c"
