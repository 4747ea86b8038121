// scarceNew.h -- the C++ library's new, refused as allocations.h refuses the C library's blocks.
// For programs that are linked with scarceNew.cpp and that pelago_refuse_allocations() is told of.
#ifndef PELAGO_TESTS_SUPPORT_SCARCENEW_H
#define PELAGO_TESTS_SUPPORT_SCARCENEW_H

// While it lives, what this thread asks new for counts as a call of the allocator.
class ScarceNew {
public:
    ScarceNew();
    ~ScarceNew();
    ScarceNew(const ScarceNew &) = delete;
    ScarceNew &operator=(const ScarceNew &) = delete;
};

#endif // PELAGO_TESTS_SUPPORT_SCARCENEW_H
