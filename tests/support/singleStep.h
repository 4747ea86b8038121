// singleStep.h -- runs a call instruction by instruction: counts its instructions, and does between
// two of them what another thread might do there.  For programs without a sanitizer, which adds
// many instructions.
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
inline std::function<void()> sAction;

inline void Stopped(int, siginfo_t *, void *context)
{
    if (++sCount != sPlace) { return; }
    sAction();
    static_cast<ucontext_t *>(context)->uc_mcontext.gregs[REG_EFL] &= ~TRAP_FLAG;
}

// Makes the call, and runs the action once after the call's instruction of that number, as another
// thread might there.  Returns false, without having run the action, when the call has fewer
// instructions.  The action must not need what the call holds, such as a lock or the allocator.
template <typename Call>
bool DoneAt(size_t place, const Call &call, const std::function<void()> &action)
{
    sCount = 0;
    sPlace = place;
    sAction = action;
    struct sigaction handler = {}, before = {};
    handler.sa_sigaction = Stopped;
    handler.sa_flags = SA_SIGINFO;
    EXPECT_EQ(sigaction(SIGTRAP, &handler, &before), 0);
    __writeeflags(__readeflags() | TRAP_FLAG);
    call();
    __writeeflags(__readeflags() & ~TRAP_FLAG);
    EXPECT_EQ(sigaction(SIGTRAP, &before, nullptr), 0);
    return sCount >= place;
}

// Counts the instructions of the call, and a constant number of instructions around it.
template <typename Call> size_t Count(const Call &call)
{
    EXPECT_FALSE(DoneAt(SIZE_MAX, call, [] {}));
    return sCount;
}

} // namespace SingleStep

#endif // PELAGO_TESTS_SUPPORT_SINGLESTEP_H
