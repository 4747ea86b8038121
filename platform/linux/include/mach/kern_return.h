/* kern_return.h -- the results of the kernel's calls. */
#ifndef PELAGO_LINUX_MACH_KERN_RETURN_H
#define PELAGO_LINUX_MACH_KERN_RETURN_H

typedef int kern_return_t;

#define KERN_SUCCESS           0
#define KERN_INVALID_ARGUMENT  4
#define KERN_FAILURE           5
#define KERN_RESOURCE_SHORTAGE 6
#define KERN_INVALID_HOST      22

#endif /* PELAGO_LINUX_MACH_KERN_RETURN_H */
