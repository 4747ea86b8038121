// hostinfoDaemonizeInt.h -- the process state with which the library starts programs.
#ifndef PELAGO_MISC_HOSTINFODAEMONIZEINT_H
#define PELAGO_MISC_HOSTINFODAEMONIZEINT_H

#include <cstddef>

namespace pelago {

// For a child that is about to execute a program: stops the timers, restores the default actions of
// signals, closes every descriptor above 2 that is not in the list, and raises the limit of the
// address space to its maximum.  The list may be in any order, and contain closed descriptors.
void HostinfoResetProcessState(const int *keepFds, size_t numKeepFds);

} // namespace pelago

#endif // PELAGO_MISC_HOSTINFODAEMONIZEINT_H
