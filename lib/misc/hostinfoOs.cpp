// hostinfoOs.cpp -- which operating system this is.
#include "hostinfoInt.h"

#include "codeset.h"
#include "diagnostics.h"
#include "err.h"
#include "scoped.h"
#include "scopedCf.h"
#include "str.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <optional>
#include <sys/sysctl.h>
#include <sys/utsname.h>
#include <utility>
#include <versionLists.h>

using namespace pelago;

namespace {

// The numbers of the checks that end the process.
constexpr int UNAME_CHECK = 297;
constexpr int RELEASE_CHECK = 318;

constexpr size_t RELEASE_LENGTH = 256; // bytes of the kernel's release that are kept

std::atomic<const HostinfoOSVersion *> sVersion;

// ---- Names

constexpr char SERVER_PLIST[] = "/System/Library/CoreServices/ServerVersion.plist";
constexpr char SYSTEM_PLIST[] = "/System/Library/CoreServices/SystemVersion.plist";

constexpr size_t FULL_NAME_SIZE = 512, SHORT_NAME_SIZE = 128;

// Written once, under sNamesLock.
char sFullName[FULL_NAME_SIZE], sShortName[SHORT_NAME_SIZE];
std::atomic<bool> sNamesAreKept;
std::atomic<int> sNamesLock; // 1 while a thread has it

struct HostinfoProduct {
    ScopedFree<char> name, version, build;
};

// ---- Detailed data

constexpr size_t FIELD_SIZE = 1024;

struct HostinfoDetailedDataField {
    const char *name;
    char value[FIELD_SIZE];
};

HostinfoDetailedDataField sFields[] = {
    {"architecture", "X86"}, {"bitness", ""},       {"buildNumber", ""},
    {"distroName", ""},      {"distroVersion", ""}, {"familyName", ""},
    {"kernelVersion", ""},   {"prettyName", ""}, // never set: macOS has no such name
    {nullptr, ""},
};
enum HostinfoFieldIndex {
    BITNESS = 1,
    BUILD_NUMBER,
    DISTRO_NAME,
    DISTRO_VERSION,
    FAMILY_NAME,
    KERNEL_VERSION
};

constexpr size_t DETAILED_DATA_SIZE = 10240;
static_assert(std::size(sFields) * FIELD_SIZE <= DETAILED_DATA_SIZE, "all fields fit");

char sDetailedData[DETAILED_DATA_SIZE]; // written at each look-up, without a lock

} // namespace

// ---- The kernel's version

bool pelago::HostinfoParseRelease(const char *release, HostinfoOSVersion *version)
{
    char rest[RELEASE_LENGTH] = "";
    if (sscanf(release, "%d.%d.%d%255s", &version->major, &version->minor, &version->micro, rest) <
        1) {
        return false;
    }
    sscanf(rest + strcspn(rest, "0123456789"), "%d", &version->extra);
    return true;
}

namespace {

void HostinfoFreeVersion(HostinfoOSVersion *version)
{
    free(version->versionString);
    free(version);
}

HostinfoOSVersion *HostinfoNewVersion(const char *caller)
{
    utsname kernel;
    if (uname(&kernel) < 0) {
        Warning("%s: unable to get host OS version (uname): %s\n", caller, Err_CurrentText());
        Panic(UTIL_NOT_IMPLEMENTED_REPORT, HOSTINFO_MODULE, UNAME_CHECK);
    }
    auto *version = static_cast<HostinfoOSVersion *>(Util_SafeCalloc(1, sizeof(HostinfoOSVersion)));
    version->versionString = Util_SafeStrndup(kernel.release, RELEASE_LENGTH);
    if (!HostinfoParseRelease(version->versionString, version)) {
        Warning("%s: unable to parse host OS version string: %s\n", caller, version->versionString);
        Panic(UTIL_NOT_IMPLEMENTED_REPORT, HOSTINFO_MODULE, RELEASE_CHECK);
    }
    return version;
}

const HostinfoOSVersion &HostinfoVersion()
{
    HostinfoOSVersionInit();
    return *sVersion.load(std::memory_order_acquire);
}

} // namespace

void pelago::HostinfoOSVersionInit()
{
    if (sVersion.load(std::memory_order_acquire) != nullptr) { return; }
    HostinfoOSVersion *version = HostinfoNewVersion(__func__);
    const HostinfoOSVersion *none = nullptr;
    if (!sVersion.compare_exchange_strong(none, version, std::memory_order_acq_rel)) {
        HostinfoFreeVersion(version); // another thread was faster
    }
}

extern "C" int Hostinfo_OSVersion(unsigned int index)
{
    const HostinfoOSVersion &version = HostinfoVersion();
    const int numbers[] = {version.major, version.minor, version.micro, version.extra};
    return index < std::size(numbers) ? numbers[index] : 0;
}

extern "C" const char *Hostinfo_OSVersionString() { return HostinfoVersion().versionString; }

// ---- The hardware's bitness, and the host's name

extern "C" int Hostinfo_GetSystemBitness()
{
    struct Machine {
        const char *name;
        int bitness;
    };
    constexpr Machine MACHINES[] = {
        {"i386", 32}, {"amd64", 64}, {"x86_64", 64}, {"aarch64", 64}, {"arm64", 64},
    };
    int name[] = {CTL_HW, HW_MACHINE};
    char machine[8] = "";
    size_t size = sizeof machine;
    if (sysctl(name, std::size(name), machine, &size, nullptr, 0) != 0) { return -1; }
    for (const Machine &known : MACHINES) {
        if (strncmp(machine, known.name, sizeof machine) == 0) { return known.bitness; }
    }
    return -1;
}

extern "C" char *Hostinfo_HostName()
{
    utsname host;
    if (uname(&host) < 0) { return nullptr; }
    if (host.nodename[0] == '\0' || !CodeSet_IsValidUtf8String(host.nodename)) { return nullptr; }
    return Util_SafeStrdup(host.nodename);
}

extern "C" const char *Hostinfo_HostNameCached()
{
    static std::atomic<const char *> sHostName;
    const char *kept = sHostName.load(std::memory_order_acquire);
    if (kept != nullptr) { return kept; }
    char *name = Hostinfo_HostName();
    if (name == nullptr) { return nullptr; } // not cached: the host may get a name later
    if (sHostName.compare_exchange_strong(kept, name, std::memory_order_acq_rel)) { return name; }
    free(name); // another thread was faster
    return kept;
}

// ---- The system's names

namespace {

// Returns the product that a property list describes, if all three of its fields are there.
std::optional<HostinfoProduct> HostinfoReadProduct(const char *path)
{
    const ScopedCf<CFDictionaryRef> list(HostinfoReadPlist(path));
    char *name = nullptr, *version = nullptr, *build = nullptr;
    if (!list || !HostinfoGetProductInfo(list.get(), &name, &version, &build)) { return {}; }
    return HostinfoProduct{ScopedFree<char>(name), ScopedFree<char>(version),
                           ScopedFree<char>(build)};
}

std::optional<HostinfoProduct> HostinfoFindProduct()
{
    std::optional<HostinfoProduct> product = HostinfoReadProduct(SERVER_PLIST);
    return product ? std::move(product) : HostinfoReadProduct(SYSTEM_PLIST);
}

int HostinfoFormatFullName(char (&name)[FULL_NAME_SIZE], const utsname &kernel,
                           const std::optional<HostinfoProduct> &product)
{
    if (!product) {
        return Str_Snprintf(name, sizeof name, "%s %s", kernel.sysname, kernel.release);
    }
    return Str_Snprintf(name, sizeof name, "%s %s (%s) %s %s", product->name.get(),
                        product->version.get(), product->build.get(), kernel.sysname,
                        kernel.release);
}

// Makes and stores the names; false after a Warning when one of them is too long.
bool HostinfoMacOS(const utsname &kernel, int bitness,
                   const std::optional<HostinfoProduct> &product)
{
    if (!product && platform::Host_HasVersionLists()) {
        Log("%s: Failed to read system version plist.\n", __func__);
    }
    char fullName[FULL_NAME_SIZE], shortName[SHORT_NAME_SIZE];
    const int length = HostinfoFormatFullName(fullName, kernel, product);
    const int shortLength = Str_Snprintf(shortName, sizeof shortName, "%s%d%s", "darwin",
                                         Hostinfo_OSVersion(0), bitness == 64 ? "-64" : "");
    if (length < 0 || shortLength < 0) {
        Warning("%s: Error: buffer too small\n", __func__);
        return false;
    }
    // length is at least 1, for both forms contain a blank.
    if (fullName[length - 1] == '\n') { fullName[length - 1] = '\0'; }
    HostinfoKeepNames(fullName, shortName);
    return true;
}

// ---- The detailed data

void HostinfoSetField(HostinfoFieldIndex row, const char *value)
{
    Str_Snprintf(sFields[row].value, FIELD_SIZE, "%s", value); // a value that is too long is cut
}

void HostinfoSetFields(const utsname &kernel, int bitness,
                       const std::optional<HostinfoProduct> &product)
{
    HostinfoSetField(FAMILY_NAME, kernel.sysname);
    HostinfoSetField(KERNEL_VERSION, kernel.release);
    HostinfoSetField(BITNESS, bitness == 64 ? "64" : "32");
    // Without a product these become empty, whatever an earlier look-up found.
    HostinfoSetField(DISTRO_NAME, product ? product->name.get() : "");
    HostinfoSetField(DISTRO_VERSION, product ? product->version.get() : "");
    HostinfoSetField(BUILD_NUMBER, product ? product->build.get() : "");
}

// Puts a backslash before each quote and backslash, and drops white space at the end.
void HostinfoQuote(const char *value, char (&quoted)[2 * FIELD_SIZE + 1])
{
    size_t length = 0;
    for (; *value != '\0'; value++) {
        if (*value == '\'' || *value == '\\') { quoted[length++] = '\\'; }
        quoted[length++] = *value;
    }
    // Not isspace(): in some locales it accepts the last byte of a UTF-8 character.
    while (length > 0 && strchr(" \t\n\v\f\r", quoted[length - 1]) != nullptr) {
        length--;
    }
    quoted[length] = '\0';
}

void HostinfoOSDetailedData()
{
    char line[DETAILED_DATA_SIZE] = "";
    for (const HostinfoDetailedDataField *row = sFields; row->name != nullptr; row++) {
        if (row->value[0] == '\0') { continue; }
        char quoted[2 * FIELD_SIZE + 1], field[FIELD_SIZE];
        HostinfoQuote(row->value, quoted);
        if (Str_Snprintf(field, sizeof field, "%s='%s'", row->name, quoted) < 0) {
            Warning("%s: Error: detailed data field too large\n", __func__);
            line[0] = '\0';
            break;
        }
        if (line[0] != '\0') { Str_Strcat(line, " ", sizeof line); }
        Str_Strcat(line, field, sizeof line);
    }
    Str_Strcpy(sDetailedData, line, sizeof sDetailedData);
}

// Returns whether the names are known; looks them up if they are not.
bool HostinfoHasNames()
{
    return sNamesAreKept.load(std::memory_order_acquire) || HostinfoOSData();
}

} // namespace

void pelago::HostinfoKeepNames(const char *fullName, const char *shortName)
{
    while (sNamesLock.exchange(1, std::memory_order_acquire) != 0) {}
    if (!sNamesAreKept.load(std::memory_order_relaxed)) {
        Str_Strcpy(sFullName, fullName, sizeof sFullName);
        Str_Strcpy(sShortName, shortName, sizeof sShortName);
        sNamesAreKept.store(true, std::memory_order_release);
    }
    sNamesLock.store(0, std::memory_order_release);
}

bool pelago::HostinfoOSData()
{
    utsname kernel;
    if (uname(&kernel) < 0) {
        Warning("%s: uname failed %d\n", __func__, errno);
        return false;
    }
    const int bitness = Hostinfo_GetSystemBitness();
    const std::optional<HostinfoProduct> product = HostinfoFindProduct();
    HostinfoSetFields(kernel, bitness, product);
    const bool hasNames = HostinfoMacOS(kernel, bitness, product);
    HostinfoOSDetailedData();
    return hasNames;
}

extern "C" char *Hostinfo_GetOSName()
{
    return HostinfoHasNames() ? Util_SafeStrdup(sFullName) : nullptr;
}

extern "C" char *Hostinfo_GetOSShortName()
{
    return HostinfoHasNames() ? Util_SafeStrdup(sShortName) : nullptr;
}

extern "C" char *Hostinfo_GetOSDetailedData()
{
    return HostinfoHasNames() ? Util_SafeStrdup(sDetailedData) : nullptr;
}
