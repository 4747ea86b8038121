/* A program that defines functions under names that the library uses inside, or ICU, or the
 * system. */
#include "expect.h"

#include <pelago/hostinfo.h>
#include <pelago/str.h>
#include <pelago/unicode.h>
#include <pelago/util.h>

static int sCalls;
#define DEFINE(name)                                                                               \
    int name(void);                                                                                \
    int name(void) { return ++sCalls; }
DEFINE(ecvt)
DEFINE(fcvt)
DEFINE(sysctl)
DEFINE(sysctlbyname)
DEFINE(issetugid)
DEFINE(host_statistics)
DEFINE(mach_host_self)
DEFINE(mach_absolute_time)
DEFINE(mach_timebase_info)
DEFINE(mach_zone_info)
DEFINE(CFRelease)
DEFINE(CFRetain)
DEFINE(CFGetTypeID)
DEFINE(CFDictionaryGetValue)
DEFINE(CFStringCreateMutableCopy)
DEFINE(CFPropertyListCreateWithStream)
DEFINE(SCPreferencesCreate)
DEFINE(_NSGetExecutablePath)
DEFINE(Host_CloseDescriptors)
DEFINE(bsd_cvt)
DEFINE(FormatRead)
DEFINE(u_setDataDirectory_72)
DEFINE(ucnv_open_72)
DEFINE(ucnv_close_72)
DEFINE(ucnv_convertEx_72)
DEFINE(icudt72_dat)
DEFINE(XML_ParserCreate)
DEFINE(XML_Parse)
DEFINE(XML_ParserFree)

int main(int argc, char **argv)
{
    char text[40];
    int64_t now;
    uint32_t load;
    EXPECT(argc == 2);
    Unicode_InitEx(0, NULL, NULL, argv[1]);
    Str_Snprintf(text, sizeof text, "%.3f %.2e %g", 2.5, 12345.0, 0.25);
    EXPECT_TEXT(text, "2.500 1.23e+04 0.25");
    free(Hostinfo_GetOSName());
    free(Hostinfo_GetModulePath(0));
    Hostinfo_GetTimeOfDay(&now);
    EXPECT(now > 0 && Hostinfo_NumCPUs() > 0);
    EXPECT(Hostinfo_GetLoadAverage(&load));
    EXPECT(Util_ReadPlistDictionary("/etc/hostname") == NULL);
    EXPECT(Unicode_IsBufferValid("\x82\xa0", 2, UnicodeIANALookup("Shift_JIS")));
    EXPECT(sCalls == 0);
    EXPECT(ecvt() == 1 && fcvt() == 2 && sysctl() == 3 && CFRelease() == 4 && ucnv_open_72() == 5);
    puts("ok");
    return 0;
}
