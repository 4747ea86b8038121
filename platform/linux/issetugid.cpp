// issetugid.cpp -- returns whether this process has rights that its caller lacks.
#include <unistd.h>

#include <sys/auxv.h>

// The kernel sets AT_SECURE when the program starts; a later change of the user id does not alter
// it.
extern "C" int issetugid(void) { return getauxval(AT_SECURE) != 0 ? 1 : 0; }
