// closeDescriptors.h -- closes many descriptors at once, in the way that suits the host.
#ifndef PELAGO_PLATFORM_CLOSEDESCRIPTORS_H
#define PELAGO_PLATFORM_CLOSEDESCRIPTORS_H

namespace pelago::platform {

// Closes every open descriptor from first to last, both included.  Its time depends on the number
// of open descriptors, not on the size of the range, unless the host cannot list the open ones.  It
// takes no lock and calls no allocator, so a child may call it after fork().
void Host_CloseDescriptors(int first, int last);

} // namespace pelago::platform

#endif // PELAGO_PLATFORM_CLOSEDESCRIPTORS_H
