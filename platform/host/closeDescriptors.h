// closeDescriptors.h -- closing many descriptors at once, for which each host has a way of its own.
#ifndef PELAGO_PLATFORM_CLOSEDESCRIPTORS_H
#define PELAGO_PLATFORM_CLOSEDESCRIPTORS_H

namespace pelago::platform {

// Closes every open descriptor from first to last, both included.  What it costs follows how many
// are open, not how many numbers there are, unless the host does not tell which are open.  Takes no
// lock and no memory from the allocator, so a child may call it after fork().
void Host_CloseDescriptors(int first, int last);

} // namespace pelago::platform

#endif // PELAGO_PLATFORM_CLOSEDESCRIPTORS_H
