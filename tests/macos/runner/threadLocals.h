// threadLocals.h -- what the descriptors of thread-local variables are bound to.
#pragma once

// The address of "__tlv_bootstrap": the function that finds a thread's own variable.
void *ThreadLocalBootstrap();
