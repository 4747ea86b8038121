// outOfNew.h -- memory that runs out for `new`.  For programs that are linked with outOfNew.cpp.
#ifndef PELAGO_TESTS_PLATFORM_OUTOFNEW_H
#define PELAGO_TESTS_PLATFORM_OUTOFNEW_H

#include <cstddef>

// While it lives, grants this thread a number of allocations with new and refuses all others.
class OutOfNew {
public:
    explicit OutOfNew(size_t granted);
    ~OutOfNew();
    OutOfNew(const OutOfNew &) = delete;
    OutOfNew &operator=(const OutOfNew &) = delete;
    // Returns whether an allocation has been refused.
    bool Showed() const;
};

#endif // PELAGO_TESTS_PLATFORM_OUTOFNEW_H
