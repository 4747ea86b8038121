// cfScalar.cpp -- numbers, booleans, dates, data and UIDs: values without parts.
#include "cfTypes.h"

#include <cmath>
#include <cstring>

using namespace pelago::platform;

namespace {

constexpr double TWO_TO_63 = 9223372036854775808.0;
constexpr double TWO_TO_64 = 18446744073709551616.0;

double NearestReal(const __CFNumber &number)
{
    switch (number.mKind) {
    case __CFNumber::Kind::Signed: return static_cast<double>(number.mSigned);
    case __CFNumber::Kind::Unsigned: return static_cast<double>(number.mUnsigned);
    default: return number.mReal;
    }
}

// Different integers can round to the same real, so this compares integers.
bool IntegerEqualsReal(const __CFNumber &integer, double real)
{
    if (real != std::trunc(real)) { return false; } // NaN too
    if (integer.mKind == __CFNumber::Kind::Signed) {
        return real >= -TWO_TO_63 && real < TWO_TO_63 &&
               static_cast<int64_t>(real) == integer.mSigned;
    }
    return real >= TWO_TO_63 && real < TWO_TO_64 &&
           static_cast<uint64_t>(real) == integer.mUnsigned;
}

bool RealsEqual(double one, double other)
{
    return one == other || (std::isnan(one) && std::isnan(other));
}

bool NumberEqual(const CFObject *one, const CFObject *other)
{
    using Kind = __CFNumber::Kind;
    const auto &left = *static_cast<const __CFNumber *>(one);
    const auto &right = *static_cast<const __CFNumber *>(other);
    if (left.mKind == Kind::Real && right.mKind == Kind::Real) {
        return RealsEqual(left.mReal, right.mReal);
    }
    if (left.mKind == Kind::Real) { return IntegerEqualsReal(right, left.mReal); }
    if (right.mKind == Kind::Real) { return IntegerEqualsReal(left, right.mReal); }
    return left.mKind == right.mKind && left.mSigned == right.mSigned &&
           left.mUnsigned == right.mUnsigned;
}

bool BooleanEqual(const CFObject *one, const CFObject *other) { return one == other; }

bool DateEqual(const CFObject *one, const CFObject *other)
{
    return RealsEqual(static_cast<const __CFDate *>(one)->mAt,
                      static_cast<const __CFDate *>(other)->mAt);
}

bool DataEqual(const CFObject *one, const CFObject *other)
{
    return static_cast<const __CFData *>(one)->mBytes ==
           static_cast<const __CFData *>(other)->mBytes;
}

bool UidEqual(const CFObject *one, const CFObject *other)
{
    return static_cast<const CFUid *>(one)->mValue == static_cast<const CFUid *>(other)->mValue;
}

constexpr CFClass NUMBER_CLASS = {CF_TYPE_NUMBER, CFDestroy<__CFNumber>, NumberEqual};
constexpr CFClass BOOLEAN_CLASS = {CF_TYPE_BOOLEAN, nullptr, BooleanEqual};
constexpr CFClass DATE_CLASS = {CF_TYPE_DATE, CFDestroy<__CFDate>, DateEqual};
constexpr CFClass DATA_CLASS = {CF_TYPE_DATA, CFDestroy<__CFData>, DataEqual};
constexpr CFClass UID_CLASS = {CF_TYPE_UID, CFDestroy<CFUid>, UidEqual};

constinit const __CFBoolean sTrue(BOOLEAN_CLASS, true);
constinit const __CFBoolean sFalse(BOOLEAN_CLASS, false);

// Stores the number without its fraction, limited to the range of a signed integer; 0 for NaN.
// Returns whether the result equals the number.
bool GetSigned(const __CFNumber &number, int64_t *value)
{
    if (number.mKind == __CFNumber::Kind::Signed) {
        *value = number.mSigned;
        return true;
    }
    const double real = NearestReal(number);
    if (std::isnan(real)) {
        *value = 0;
    } else if (real >= TWO_TO_63) {
        *value = INT64_MAX;
    } else if (real < -TWO_TO_63) {
        *value = INT64_MIN;
    } else {
        *value = static_cast<int64_t>(real);
        return static_cast<double>(*value) == real;
    }
    return false;
}

bool GetReal(const __CFNumber &number, double *value)
{
    *value = NearestReal(number);
    return number.mKind == __CFNumber::Kind::Real || IntegerEqualsReal(number, *value);
}

} // namespace

__CFNumber::__CFNumber(int64_t value) : CFObject(NUMBER_CLASS), mKind(Kind::Signed), mSigned(value)
{}
__CFNumber::__CFNumber(uint64_t value)
    : CFObject(NUMBER_CLASS), mKind(value > INT64_MAX ? Kind::Unsigned : Kind::Signed)
{
    if (mKind == Kind::Signed) {
        mSigned = static_cast<int64_t>(value);
    } else {
        mUnsigned = value;
    }
}
__CFNumber::__CFNumber(double value) : CFObject(NUMBER_CLASS), mKind(Kind::Real), mReal(value) {}
__CFDate::__CFDate(CFAbsoluteTime at) : CFObject(DATE_CLASS), mAt(at) {}
__CFData::__CFData(std::vector<UInt8> bytes) : CFObject(DATA_CLASS), mBytes(std::move(bytes)) {}
pelago::platform::CFUid::CFUid(uint64_t value) : CFObject(UID_CLASS), mValue(value) {}

CFNumberRef pelago::platform::CFNumberCreateUnsigned(uint64_t value)
{
    return CFNew<__CFNumber>(value);
}

extern "C" CFTypeID CFNumberGetTypeID(void) { return CF_TYPE_NUMBER; }

extern "C" CFNumberRef CFNumberCreate(CFAllocatorRef, CFNumberType type, const void *value)
{
    if (type == kCFNumberSInt64Type) {
        int64_t integer;
        memcpy(&integer, value, sizeof integer);
        return CFNew<__CFNumber>(integer);
    }
    if (type != kCFNumberFloat64Type) { return nullptr; }
    double real;
    memcpy(&real, value, sizeof real);
    return CFNew<__CFNumber>(real);
}

extern "C" Boolean CFNumberGetValue(CFNumberRef number, CFNumberType type, void *value)
{
    CFRequire(number, CF_TYPE_NUMBER, __func__);
    if (type == kCFNumberSInt64Type) { return GetSigned(*number, static_cast<int64_t *>(value)); }
    return type == kCFNumberFloat64Type && GetReal(*number, static_cast<double *>(value));
}

extern "C" Boolean CFNumberIsFloatType(CFNumberRef number)
{
    CFRequire(number, CF_TYPE_NUMBER, __func__);
    return number->mKind == __CFNumber::Kind::Real;
}

extern "C" const CFBooleanRef kCFBooleanTrue = &sTrue;
extern "C" const CFBooleanRef kCFBooleanFalse = &sFalse;

extern "C" CFTypeID CFBooleanGetTypeID(void) { return CF_TYPE_BOOLEAN; }

extern "C" Boolean CFBooleanGetValue(CFBooleanRef boolean)
{
    CFRequire(boolean, CF_TYPE_BOOLEAN, __func__);
    return boolean->mValue;
}

extern "C" CFTypeID CFDateGetTypeID(void) { return CF_TYPE_DATE; }

extern "C" CFDateRef CFDateCreate(CFAllocatorRef, CFAbsoluteTime at) { return CFNew<__CFDate>(at); }

extern "C" CFAbsoluteTime CFDateGetAbsoluteTime(CFDateRef date)
{
    CFRequire(date, CF_TYPE_DATE, __func__);
    return date->mAt;
}

extern "C" CFTypeID CFDataGetTypeID(void) { return CF_TYPE_DATA; }

extern "C" CFDataRef CFDataCreate(CFAllocatorRef, const UInt8 *bytes, CFIndex length)
{
    if (length < 0) { CFStop(__func__, "a length below zero"); }
    try {
        return new __CFData(std::vector<UInt8>(bytes, bytes + length));
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

extern "C" CFIndex CFDataGetLength(CFDataRef data)
{
    CFRequire(data, CF_TYPE_DATA, __func__);
    return static_cast<CFIndex>(data->mBytes.size());
}

extern "C" const UInt8 *CFDataGetBytePtr(CFDataRef data)
{
    CFRequire(data, CF_TYPE_DATA, __func__);
    return data->mBytes.data();
}
