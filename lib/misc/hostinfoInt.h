// hostinfoInt.h -- what the parts of host information share, and ask of each other.
#ifndef PELAGO_MISC_HOSTINFOINT_H
#define PELAGO_MISC_HOSTINFOINT_H

#include "hostinfo.h"
#include "util.h"

#include <cstddef>
#include <cstdint>

namespace pelago {

// Whose fatal reports these are.
constexpr char HOSTINFO_MODULE[] = "lib/misc/hostinfoPosix";

// ---- Values that the kernel has by name

// Fills size bytes with the value of that name.  False with errno when it cannot be had.
bool HostinfoReadValue(const char *name, void *value, size_t size);

// The text of that name as a new string, or NULL.
char *HostinfoReadText(const char *name);

// ---- The operating system

// The kernel's release, in numbers and as it is.
struct HostinfoOSVersion {
    int major, minor, micro;
    int extra; // the first number in whatever follows those; 0 when there is none
    char *versionString;
};

// Reads the release's numbers; those that it does not have stay as they were.  False when it does
// not even begin with one.
bool HostinfoParseRelease(const char *release, HostinfoOSVersion *version);

// Finds the version out unless it is known.  Without one the process ends.
void HostinfoOSVersionInit();

// Finds the system's names out, and the detailed data anew.  False after a Warning without names.
bool HostinfoOSData();

// Keeps these names for the rest of the process, unless there are some already.
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

// ---- The processor, as some source answers for it

struct HostinfoCpuidLeaf {
    uint32_t eax, ebx, ecx, edx;
};
using HostinfoCpuidSource = HostinfoCpuidLeaf (*)(uint32_t leaf);

bool HostinfoSummarizeCpuid(HostinfoCpuidSource ask, HostinfoCpuidSummary *summary);

// NULL when memory runs out.
char *HostinfoDumpCpuid(HostinfoCpuidSource ask);

} // namespace pelago

#endif // PELAGO_MISC_HOSTINFOINT_H
