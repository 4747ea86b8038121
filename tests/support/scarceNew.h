// scarceNew.h -- makes operator new fail where allocations.h refuses allocations.  For programs of
// pelago_refuse_allocations() that are linked with scarceNew.cpp.
#ifndef PELAGO_TESTS_SUPPORT_SCARCENEW_H
#define PELAGO_TESTS_SUPPORT_SCARCENEW_H

// During its lifetime a call of new in this thread counts as a call of the allocator, and can be
// refused.
class ScarceNew {
public:
    ScarceNew();
    ~ScarceNew();
    ScarceNew(const ScarceNew &) = delete;
    ScarceNew &operator=(const ScarceNew &) = delete;
};

#endif // PELAGO_TESTS_SUPPORT_SCARCENEW_H
