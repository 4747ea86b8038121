// smbService.cpp -- reads and edits EnabledServices in a preferences file.
#include "smbService.h"

#include "preferencesFile.h"
#include "propertyList.h"

#include <cerrno>
#include <cstring>

namespace pelago::platform {

namespace {

// A preferences file, and its array of services.
struct Services {
    // Reads the file; false, with the reason, when that fails or the file cannot be understood.  A
    // missing or an empty file is no failure.
    bool Read(const std::string &path, std::string *reason);
    ServiceOwner Owner() const { return ServiceOwnerOf(array.get(), content.record); }

    FileContent content;
    PropertyList list;
    CFOwned<CFArrayRef> array; // nullptr when there is none
};

bool Failed(std::string *reason, const char *text)
{
    *reason = text;
    return false;
}

bool Services::Read(const std::string &path, std::string *reason)
{
    FileSignature signature;
    const int error = ReadWholeFile(path.c_str(), PROPERTY_LIST_MAX_BYTES, &content, &signature);
    if (error == ENOENT) { return true; }
    if (error != 0) { return Failed(reason, strerror(error)); }
    const PropertyListFault fault = list.Read(content.bytes);
    if (fault == PropertyListFault::Empty) { return true; }
    if (fault != PropertyListFault::None) { return Failed(reason, PropertyListFaultText(fault)); }
    CFOwned<CFTypeRef> value(list.CopyValue(SERVICE_KEY));
    if (value && CFGetTypeID(value.get()) != CFArrayGetTypeID()) {
        return Failed(reason, "EnabledServices is not an array");
    }
    array.reset(static_cast<CFArrayRef>(value.release()));
    return true;
}

// Writes the array, without a record.
bool Write(const std::string &path, Services *present, CFArrayRef array, std::string *reason)
{
    FileContent next;
    PropertyListFault fault = present->list.SetValue(SERVICE_KEY, array);
    if (fault == PropertyListFault::None) { fault = present->list.Write(&next.bytes); }
    if (fault != PropertyListFault::None) { return Failed(reason, PropertyListFaultText(fault)); }
    FileSignature signature;
    const int error = ReplaceFile(path, next, present->content, &signature);
    return error == 0 || Failed(reason, strerror(error));
}

// Returns the changed array; nullptr when nothing is to change.
using Edit = CFOwned<CFMutableArrayRef> (*)(const Services &present);

SmbChange Change(const std::string &path, bool wait, Edit edit, std::string *reason)
{
    Services seen;
    if (!seen.Read(path, reason)) { return SmbChange::Failed; }
    if (!edit(seen)) { return SmbChange::None; }
    LockFile lock;
    const int error = lock.Lock(path + "-lock", wait);
    if (error != 0) {
        Failed(reason, strerror(error));
        return error == EWOULDBLOCK ? SmbChange::Busy : SmbChange::Failed;
    }
    Services present; // read under the lock, so that nobody else can change the file meanwhile
    if (!present.Read(path, reason)) { return SmbChange::Failed; }
    const CFOwned<CFMutableArrayRef> next = edit(present);
    if (!next) { return SmbChange::None; }
    return Write(path, &present, next.get(), reason) ? SmbChange::Done : SmbChange::Failed;
}

CFOwned<CFMutableArrayRef> TakenBack(const Services &present)
{
    if (present.Owner() != ServiceOwner::Dead) { return nullptr; }
    return ServiceCopyWithoutFirst(present.array.get());
}

CFOwned<CFMutableArrayRef> SwitchedOn(const Services &present)
{
    const bool isOn = ServiceIsOn(present.array.get());
    if (isOn && present.content.record.empty()) { return nullptr; }
    CFOwned<CFMutableArrayRef> next(present.array
                                        ? CFArrayCreateMutableCopy(nullptr, 0, present.array.get())
                                        : CFArrayCreateMutable(nullptr, 0, &kCFTypeArrayCallBacks));
    if (!next) { throw std::bad_alloc(); }
    if (!isOn || present.Owner() == ServiceOwner::Runs) { ServiceAppend(next.get()); }
    return next;
}

CFOwned<CFMutableArrayRef> SwitchedOff(const Services &present)
{
    if (!ServiceIsOn(present.array.get())) { return nullptr; }
    return ServiceCopyWithoutAny(present.array.get());
}

} // namespace

SmbWanted SmbServiceWanted(const std::string &path, std::string *reason)
{
    Services services;
    if (!services.Read(path, reason)) { return SmbWanted::Unknown; }
    return ServiceIsOn(services.array.get()) ? SmbWanted::Yes : SmbWanted::No;
}

ServiceOwner SmbServiceOwner(const std::string &path)
{
    Services services;
    std::string reason;
    return services.Read(path, &reason) ? services.Owner() : ServiceOwner::Nobody;
}

SmbChange SmbServiceTakeBack(const std::string &path, bool wait, std::string *reason)
{
    return Change(path, wait, TakenBack, reason);
}

SmbChange SmbServiceSwitchOn(const std::string &path, std::string *reason)
{
    return Change(path, true, SwitchedOn, reason);
}

SmbChange SmbServiceSwitchOff(const std::string &path, std::string *reason)
{
    return Change(path, true, SwitchedOff, reason);
}

} // namespace pelago::platform
