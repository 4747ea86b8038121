// issetugid.cpp -- whether this process has rights that its caller lacks.
#include <unistd.h>

#include <sys/auxv.h>

// Told by the kernel at the start, so changing one's user later makes no difference.
extern "C" int issetugid(void) { return getauxval(AT_SECURE) != 0 ? 1 : 0; }
