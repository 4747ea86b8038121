// cfObject.cpp -- reference counts, type numbers and equality, the same for every class.
#include "cfObject.h"

#include <cstdio>
#include <cstdlib>

using namespace pelago::platform;

extern "C" const CFAllocatorRef kCFAllocatorDefault = nullptr;

void pelago::platform::CFStop(const char *function, const char *reason)
{
    fprintf(stderr, "Core Foundation: %s: %s\n", function, reason);
    abort();
}

extern "C" CFTypeRef CFRetain(CFTypeRef object)
{
    if (object == nullptr) { CFStop(__func__, "NULL where an object is expected"); }
    const CFObject *target = CFObjectOf(object);
    // The caller holds a reference already, so the increment needs no memory order.
    if (!target->mIsConstant) { target->mCount.fetch_add(1, std::memory_order_relaxed); }
    return object;
}

extern "C" void CFRelease(CFTypeRef object)
{
    if (object == nullptr) { CFStop(__func__, "NULL where an object is expected"); }
    const CFObject *target = CFObjectOf(object);
    if (target->mIsConstant) { return; }
    // The thread that destroys the object must see all that others did to it before their releases.
    if (target->mCount.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        target->mClass->destroy(target);
    }
}

extern "C" CFTypeID CFGetTypeID(CFTypeRef object)
{
    if (object == nullptr) { CFStop(__func__, "NULL where an object is expected"); }
    return CFObjectOf(object)->mClass->typeID;
}

extern "C" Boolean CFEqual(CFTypeRef one, CFTypeRef other)
{
    if (one == nullptr || other == nullptr) {
        CFStop(__func__, "NULL where an object is expected");
    }
    const CFObject *left = CFObjectOf(one), *right = CFObjectOf(other);
    if (left == right) { return true; }
    return left->mClass == right->mClass && left->mClass->equal(left, right);
}
