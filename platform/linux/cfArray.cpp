// cfArray.cpp -- arrays, mutable or not, that retain and compare values by the creator's callbacks.
#include "cfTypes.h"

using namespace pelago::platform;

namespace {

bool ArrayEqual(const CFObject *one, const CFObject *other)
{
    const auto &left = *static_cast<const __CFArray *>(one);
    const auto &right = *static_cast<const __CFArray *>(other);
    if (left.mCallBacks.equal != right.mCallBacks.equal ||
        left.mValues.size() != right.mValues.size()) {
        return false;
    }
    for (size_t i = 0; i < left.mValues.size(); i++) {
        if (!left.AreEqual(left.mValues[i], right.mValues[i])) { return false; }
    }
    return true;
}

constexpr CFClass ARRAY_CLASS = {CF_TYPE_ARRAY, CFDestroy<__CFArray>, ArrayEqual};

const void *RetainObject(CFAllocatorRef, const void *value) { return CFRetain(value); }
void ReleaseObject(CFAllocatorRef, const void *value) { CFRelease(value); }

CFIndex Count(CFArrayRef array) { return static_cast<CFIndex>(array->mValues.size()); }

void RequireArray(CFArrayRef array, const char *function)
{
    CFRequire(array, CF_TYPE_ARRAY, function);
}

void RequireMutable(CFArrayRef array, const char *function)
{
    RequireArray(array, function);
    if (!array->mIsMutable) { CFStop(function, "the array is immutable"); }
}

void RequireIndex(CFArrayRef array, CFIndex index, const char *function)
{
    if (index < 0 || index >= Count(array)) { CFStop(function, "the index is outside the array"); }
}

void RequireRange(CFArrayRef array, CFRange range, const char *function)
{
    if (range.location < 0 || range.length < 0 || range.location > Count(array) ||
        range.length > Count(array) - range.location) {
        CFStop(function, "the range is outside the array");
    }
}

// Throws std::bad_alloc before it retains anything.  An array may be appended to itself.
void Append(CFMutableArrayRef array, CFArrayRef other, CFRange range)
{
    const size_t oldCount = array->mValues.size(), first = static_cast<size_t>(range.location);
    array->mValues.resize(oldCount + static_cast<size_t>(range.length));
    for (size_t i = oldCount; i < array->mValues.size(); i++) {
        array->mValues[i] = array->Retained(other->mValues[first + i - oldCount]);
    }
}

} // namespace

extern "C" const CFArrayCallBacks kCFTypeArrayCallBacks = {0, RetainObject, ReleaseObject, nullptr,
                                                           CFEqual};

__CFArray::__CFArray(const CFArrayCallBacks *callBacks, bool isMutable)
    : CFObject(ARRAY_CLASS), mCallBacks(callBacks ? *callBacks : CFArrayCallBacks{}),
      mIsMutable(isMutable)
{}

__CFArray::~__CFArray()
{
    for (const void *value : mValues) {
        Released(value);
    }
}

const void *__CFArray::Retained(const void *value) const
{
    return mCallBacks.retain ? mCallBacks.retain(kCFAllocatorDefault, value) : value;
}

void __CFArray::Released(const void *value) const
{
    if (mCallBacks.release) { mCallBacks.release(kCFAllocatorDefault, value); }
}

bool __CFArray::AreEqual(const void *one, const void *other) const
{
    return one == other || (mCallBacks.equal && mCallBacks.equal(one, other));
}

void __CFArray::Add(const void *value)
{
    mValues.push_back(value);
    mValues.back() = Retained(value);
}

extern "C" CFTypeID CFArrayGetTypeID(void) { return CF_TYPE_ARRAY; }

extern "C" CFIndex CFArrayGetCount(CFArrayRef array)
{
    RequireArray(array, __func__);
    return Count(array);
}

extern "C" const void *CFArrayGetValueAtIndex(CFArrayRef array, CFIndex index)
{
    RequireArray(array, __func__);
    RequireIndex(array, index, __func__);
    return array->mValues[static_cast<size_t>(index)];
}

extern "C" Boolean CFArrayContainsValue(CFArrayRef array, CFRange range, const void *value)
{
    return CFArrayGetFirstIndexOfValue(array, range, value) != kCFNotFound;
}

extern "C" CFIndex CFArrayGetFirstIndexOfValue(CFArrayRef array, CFRange range, const void *value)
{
    RequireArray(array, __func__);
    RequireRange(array, range, __func__);
    for (CFIndex i = range.location; i < range.location + range.length; i++) {
        if (array->AreEqual(array->mValues[static_cast<size_t>(i)], value)) { return i; }
    }
    return kCFNotFound;
}

// The capacity is a hint, as in the SDK: the array grows until memory runs out.
extern "C" CFMutableArrayRef CFArrayCreateMutable(CFAllocatorRef, CFIndex,
                                                  const CFArrayCallBacks *callBacks)
{
    return CFNew<__CFArray>(callBacks, true);
}

extern "C" CFMutableArrayRef CFArrayCreateMutableCopy(CFAllocatorRef, CFIndex, CFArrayRef array)
{
    RequireArray(array, __func__);
    CFOwned<CFMutableArrayRef> copy(CFNew<__CFArray>(&array->mCallBacks, true));
    if (!copy) { return nullptr; }
    try {
        Append(copy.get(), array, CFRangeMake(0, Count(array)));
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
    return copy.release();
}

extern "C" void CFArrayAppendArray(CFMutableArrayRef array, CFArrayRef other, CFRange otherRange)
{
    RequireMutable(array, __func__);
    RequireArray(other, __func__);
    RequireRange(other, otherRange, __func__);
    try {
        Append(array, other, otherRange);
    } catch (const std::bad_alloc &) {
        CFStop(__func__, "out of memory");
    }
}

extern "C" void CFArrayAppendValue(CFMutableArrayRef array, const void *value)
{
    RequireMutable(array, __func__);
    try {
        array->Add(value);
    } catch (const std::bad_alloc &) {
        CFStop(__func__, "out of memory");
    }
}

extern "C" void CFArrayRemoveValueAtIndex(CFMutableArrayRef array, CFIndex index)
{
    RequireMutable(array, __func__);
    RequireIndex(array, index, __func__);
    const void *value = array->mValues[static_cast<size_t>(index)];
    array->mValues.erase(array->mValues.begin() + index);
    array->Released(value);
}
