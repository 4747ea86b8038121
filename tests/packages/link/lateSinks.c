/* Requests the short names after it has included another header of the library. */
#include <pelago/dynbuf.h>

#include "sinks.c"
