// hostinfoInt.h -- declarations that the host information's sources share.
#ifndef PELAGO_MISC_HOSTINFOINT_H
#define PELAGO_MISC_HOSTINFOINT_H

#include "hostinfo.h"
#include "util.h"

#include <cstddef>
#include <cstdint>

namespace pelago {

// The module path in the fatal reports of all these sources.
constexpr char HOSTINFO_MODULE[] = "lib/misc/hostinfoPosix";

// ---- The kernel's named values (sysctl)

// Reads the value of that name into size bytes.  False with errno when the kernel does not give it.
bool HostinfoReadValue(const char *name, void *value, size_t size);

// Returns the text of that name as a new string, or NULL.
char *HostinfoReadText(const char *name);

// ---- The operating system

// The kernel's release, as numbers and as text.
struct HostinfoOSVersion {
    int major, minor, micro;
    int extra; // the first number in the text after those; 0 when there is none
    char *versionString;
};

// Reads the release's numbers; numbers that it lacks are left unchanged.  False when it does not
// begin with a number.
bool HostinfoParseRelease(const char *release, HostinfoOSVersion *version);

// Looks the version up unless it is known.  When there is none the process ends.
void HostinfoOSVersionInit();

// Looks up the system's names and the detailed data.  False after a Warning without names.
bool HostinfoOSData();

// Stores these names for the rest of the process, unless names are stored already.
void HostinfoKeepNames(const char *fullName, const char *shortName);

inline const __CFDictionary *HostinfoReadPlist(const char *path)
{
    return Util_ReadPlistDictionary(path);
}

inline bool HostinfoGetProductInfo(const __CFDictionary *dictionary, char **name, char **version,
                                   char **build)
{
    return Util_GetProductInfo(dictionary, name, version, build);
}

inline char *HostinfoCFStringCopyCString(const __CFString *string)
{
    return Util_CFStringToUtf8(string);
}

// ---- The processor; tests replace the source of its CPUID leaves

struct HostinfoCpuidLeaf {
    uint32_t eax, ebx, ecx, edx;
};
using HostinfoCpuidSource = HostinfoCpuidLeaf (*)(uint32_t leaf);

bool HostinfoSummarizeCpuid(HostinfoCpuidSource ask, HostinfoCpuidSummary *summary);

// NULL when memory runs out.
char *HostinfoDumpCpuid(HostinfoCpuidSource ask);

} // namespace pelago

#endif // PELAGO_MISC_HOSTINFOINT_H
