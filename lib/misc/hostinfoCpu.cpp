// hostinfoCpu.cpp -- which processor this is.
#include "hostinfoInt.h"

#include "diagnostics.h"
#include "dynbuf.h"
#include "str.h"

#include <cerrno>
#include <cpuid.h>
#include <cstring>

using namespace pelago;

namespace {

constexpr size_t VENDOR_SIZE = 12;

struct HostinfoCpuVendor {
    int number;
    char name[VENDOR_SIZE + 1];
};
constexpr HostinfoCpuVendor HOSTINFO_CPU_VENDORS[] = {
    {HOSTINFO_CPU_VENDOR_INTEL, "GenuineIntel"},
    {HOSTINFO_CPU_VENDOR_AMD, "AuthenticAMD"},
    {HOSTINFO_CPU_VENDOR_HYGON, "HygonGenuine"},
};

constexpr uint32_t HOSTINFO_CPUID_GROUPS[][3] = {
    {0, 1, 10},
    {0x80000000, 0x80000001, 0x80000008},
};

constexpr size_t CPUID_RECORD_SIZE = 64;
constexpr size_t CPUID_RECORD_LENGTH = 5 * 8 + 2; // five numbers, a colon and a dash

constexpr uint32_t HERTZ_PER_MHZ = 1000000;

HostinfoCpuidLeaf HostinfoAskProcessor(uint32_t leaf)
{
    HostinfoCpuidLeaf answer;
    __cpuid_count(leaf, 0, answer.eax, answer.ebx, answer.ecx, answer.edx);
    return answer;
}

int HostinfoVendorOf(const HostinfoCpuidLeaf &leaf)
{
    const uint32_t name[] = {leaf.ebx, leaf.edx, leaf.ecx};
    for (const HostinfoCpuVendor &vendor : HOSTINFO_CPU_VENDORS) {
        if (memcmp(name, vendor.name, VENDOR_SIZE) == 0) { return vendor.number; }
    }
    return HOSTINFO_CPU_VENDOR_UNKNOWN;
}

bool HostinfoAppendLeaf(DynBuf *dump, uint32_t leaf, const HostinfoCpuidLeaf &answer)
{
    char record[CPUID_RECORD_SIZE];
    Str_Sprintf(record, sizeof record, "%08X:%08X%08X%08X%08X-", leaf, answer.eax, answer.ebx,
                answer.ecx, answer.edx);
    return DynBuf_Append(dump, record, CPUID_RECORD_LENGTH);
}

// Appends those of the group's leaves that the processor has; false when memory runs out.
bool HostinfoAppendGroup(DynBuf *dump, HostinfoCpuidSource ask, const uint32_t (&group)[3])
{
    const HostinfoCpuidLeaf first = ask(group[0]);
    const uint32_t highest = first.eax;
    if (highest < group[0]) {
        Warning("HOSTINFO: No CPUID information available. Based = %08X.\n", group[0]);
        return true;
    }
    return HostinfoAppendLeaf(dump, group[0], first) &&
           (group[1] > highest || HostinfoAppendLeaf(dump, group[1], ask(group[1]))) &&
           (group[2] > highest || HostinfoAppendLeaf(dump, group[2], ask(group[2])));
}

} // namespace

// ---- From the processor: CPUID

bool pelago::HostinfoSummarizeCpuid(HostinfoCpuidSource ask, HostinfoCpuidSummary *summary)
{
    const HostinfoCpuidLeaf basic = ask(0);
    if (basic.eax == 0) {
        Warning("HOSTINFO: No CPUID information available.\n");
        return false;
    }
    const HostinfoCpuidLeaf features = ask(1);
    const uint32_t version = features.eax;
    *summary = {.vendor = HostinfoVendorOf(basic),
                .version = version,
                .family = static_cast<uint8_t>(version >> 8 & 0xF),
                .model = static_cast<uint8_t>(version >> 4 & 0xF),
                .stepping = static_cast<uint8_t>(version & 0xF),
                .type = static_cast<uint8_t>(version >> 12 & 0x3),
                .featuresEdx = features.edx,
                .featuresEcx = features.ecx};
    return true;
}

extern "C" bool Hostinfo_GetCpuid(HostinfoCpuidSummary *summary)
{
    return HostinfoSummarizeCpuid(HostinfoAskProcessor, summary);
}

char *pelago::HostinfoDumpCpuid(HostinfoCpuidSource ask)
{
    DynBuf dump;
    DynBuf_Init(&dump);
    for (const auto &group : HOSTINFO_CPUID_GROUPS) {
        if (!HostinfoAppendGroup(&dump, ask, group)) {
            DynBuf_Destroy(&dump);
            return nullptr;
        }
    }
    if (!DynBuf_Trim(&dump)) {
        DynBuf_Destroy(&dump);
        return nullptr;
    }
    dump.data[dump.size - 1] = '\0'; // the last "-": leaf 0 is always there
    return static_cast<char *>(DynBuf_Detach(&dump));
}

extern "C" char *Hostinfo_GetCpuidDump() { return HostinfoDumpCpuid(HostinfoAskProcessor); }

// ---- From the kernel: sysctl

extern "C" int Hostinfo_NumCPUs()
{
    int32_t count = 0;
    return HostinfoReadValue("hw.activecpu", &count, sizeof count) ? count : -1;
}

extern "C" bool Hostinfo_CpuMHz(unsigned int /*cpu*/, uint32_t *mhz)
{
    uint32_t hertz = 0;
    if (!HostinfoReadValue("hw.cpufrequency_max", &hertz, sizeof hertz)) { return false; }
    *mhz = hertz / HERTZ_PER_MHZ;
    return true;
}

extern "C" char *Hostinfo_CpuBrandString() { return HostinfoReadText("machdep.cpu.brand_string"); }

extern "C" char *Hostinfo_HardwareModel() { return HostinfoReadText("hw.model"); }

extern "C" int Hostinfo_ProcTranslated()
{
    int32_t isTranslated = 0;
    if (HostinfoReadValue("sysctl.proc_translated", &isTranslated, sizeof isTranslated)) {
        return isTranslated;
    }
    return errno == ENOENT ? 0 : -1; // a kernel that does not know the name does not translate
}
