// singleStep.h -- a call, one instruction of the processor's after the other: how many it takes,
// and what happens when another thread comes between two of them.  For programs without a
// sanitizer, whose own instructions are many.
#ifndef PELAGO_TESTS_SUPPORT_SINGLESTEP_H
#define PELAGO_TESTS_SUPPORT_SINGLESTEP_H

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <gtest/gtest.h>
#include <ucontext.h>
#include <x86intrin.h>

namespace SingleStep {

constexpr unsigned long long TRAP_FLAG = 0x100; // the processor stops after each instruction

inline size_t sCount, sPlace;
inline std::function<void()> sDeed;

inline void Stopped(int, siginfo_t *, void *context)
{
    if (++sCount != sPlace) { return; }
    sDeed();
    static_cast<ucontext_t *>(context)->uc_mcontext.gregs[REG_EFL] &= ~TRAP_FLAG;
}

// Makes the call, with the deed done once after its instruction of that number, as another thread
// would there.  False when the call does not have so many; then nothing was done.  The deed may not
// need what the call holds, such as a lock or the allocator.
template <typename Call>
bool DoneAt(size_t place, const Call &call, const std::function<void()> &deed)
{
    sCount = 0;
    sPlace = place;
    sDeed = deed;
    struct sigaction action = {}, before = {};
    action.sa_sigaction = Stopped;
    action.sa_flags = SA_SIGINFO;
    EXPECT_EQ(sigaction(SIGTRAP, &action, &before), 0);
    __writeeflags(__readeflags() | TRAP_FLAG);
    call();
    __writeeflags(__readeflags() & ~TRAP_FLAG);
    EXPECT_EQ(sigaction(SIGTRAP, &before, nullptr), 0);
    return sCount >= place;
}

// How many instructions the call takes, and a few around it, which are always the same.
template <typename Call> size_t Count(const Call &call)
{
    EXPECT_FALSE(DoneAt(SIZE_MAX, call, [] {}));
    return sCount;
}

} // namespace SingleStep

#endif // PELAGO_TESTS_SUPPORT_SINGLESTEP_H
