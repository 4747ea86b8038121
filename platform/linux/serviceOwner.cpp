// serviceOwner.cpp -- the array of services, and the record of who changed it.
#include "serviceOwner.h"

#include "processMark.h"

#include <algorithm>
#include <unistd.h>

namespace pelago::platform {

namespace {

constexpr std::string_view SERVICE = "disk";

bool IsService(const void *value)
{
    return CFGetTypeID(value) == CF_TYPE_STRING &&
           static_cast<CFStringRef>(value)->mText == SERVICE;
}

// Returns a copy without the first count occurrences of the service.
CFOwned<CFMutableArrayRef> CopyWithout(CFArrayRef services, size_t count)
{
    CFOwned<CFMutableArrayRef> copy(CFArrayCreateMutableCopy(nullptr, 0, services));
    if (!copy) { throw std::bad_alloc(); }
    std::erase_if(copy->mValues, [&](const void *value) {
        if (count == 0 || !IsService(value)) { return false; }
        copy->Released(value);
        count--;
        return true;
    });
    return copy;
}

} // namespace

size_t ServiceCount(CFTypeRef services)
{
    if (services == nullptr || CFGetTypeID(services) != CF_TYPE_ARRAY) { return 0; }
    const auto &values = static_cast<CFArrayRef>(services)->mValues;
    return static_cast<size_t>(std::count_if(values.begin(), values.end(), IsService));
}

ServiceOwner ServiceOwnerOf(CFTypeRef services, const std::string &record)
{
    if (record.empty() || !ServiceIsOn(services)) { return ServiceOwner::Nobody; }
    const std::optional<ProcessMark> owner = ProcessMark::FromText(record);
    if (!owner) { return ServiceOwner::Nobody; }
    return owner->IsRunning() ? ServiceOwner::Runs : ServiceOwner::Dead;
}

std::string ServiceRecordAfter(size_t before, size_t after, const std::string &recordBefore)
{
    if (after == 0) { return std::string(); }
    if (before > 0 && before <= after) { return recordBefore; }
    const std::optional<ProcessMark> self = ProcessMark::Of(getpid());
    std::string own = self ? self->Text() : std::string();
    if (before == 0) { return own; }
    // An owner that removes one "disk" removes its own: the others belong to somebody else.
    return recordBefore == own ? std::string() : recordBefore;
}

void ServiceAppend(CFMutableArrayRef services)
{
    const CFOwned<CFStringRef> service(CFStringCreateWithText(SERVICE));
    if (!service) { throw std::bad_alloc(); }
    CFArrayAppendValue(services, service.get());
}

CFOwned<CFMutableArrayRef> ServiceCopyWithoutFirst(CFArrayRef services)
{
    return CopyWithout(services, 1);
}

CFOwned<CFMutableArrayRef> ServiceCopyWithoutAny(CFArrayRef services)
{
    return CopyWithout(services, services->mValues.size());
}

} // namespace pelago::platform
