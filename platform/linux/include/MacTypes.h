/* MacTypes.h -- the basic types that the SDK's headers use. */
#ifndef PELAGO_LINUX_MACTYPES_H
#define PELAGO_LINUX_MACTYPES_H

#include <stdint.h>

typedef unsigned char Boolean;
typedef uint8_t UInt8;
typedef uint32_t UInt32;

#endif /* PELAGO_LINUX_MACTYPES_H */
