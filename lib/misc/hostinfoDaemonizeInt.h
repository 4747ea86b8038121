// hostinfoDaemonizeInt.h -- the process state with which the library starts programs.
#ifndef PELAGO_MISC_HOSTINFODAEMONIZEINT_H
#define PELAGO_MISC_HOSTINFODAEMONIZEINT_H

#include <cstddef>

namespace pelago {

// For a child that is about to execute a program: stops the timers, gives signals their default
// actions, closes every descriptor above 2 but those listed, and raises the limit of the address
// space as far as it goes.  The list may be in any order, and contain closed descriptors.
void HostinfoResetProcessState(const int *keepFds, size_t numKeepFds);

} // namespace pelago

#endif // PELAGO_MISC_HOSTINFODAEMONIZEINT_H
