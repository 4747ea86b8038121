/* The short names are asked for when another header of the library has come already. */
#include <pelago/dynbuf.h>

#include "sinks.c"
