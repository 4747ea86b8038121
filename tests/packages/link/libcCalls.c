/* The library neither replaces calls of the C library nor adds calls of other systems. */
#define _GNU_SOURCE
#include "expect.h"

#include <pelago/str.h>
#include <pelago/unicode.h>

#include <dlfcn.h>

#define ABSENT(name)                                                                               \
    extern int name(void) __attribute__((weak));                                                   \
    static void *at_##name(void)                                                                   \
    {                                                                                              \
        int (*call)(void) = name;                                                                  \
        void *place;                                                                               \
        memcpy(&place, &call, sizeof place);                                                       \
        return place;                                                                              \
    }
ABSENT(issetugid)
ABSENT(mach_absolute_time)
ABSENT(CFRelease)
ABSENT(SCPreferencesCreate)
ABSENT(ucnv_open_72)
ABSENT(u_setDataDirectory_72)

static void *PlaceOf(char *(*call)(double, int, int *, int *))
{
    void *place;
    memcpy(&place, &call, sizeof place);
    return place;
}

int main(void)
{
    void *libc = dlopen("libc.so.6", RTLD_NOW);
    char text[20];
    Str_Snprintf(text, sizeof text, "%.1f", 0.5);
    Unicode_Init();
    EXPECT_TEXT(text, "0.5");
    EXPECT(libc != NULL && dlsym(libc, "ecvt") == PlaceOf(ecvt) &&
           dlsym(libc, "fcvt") == PlaceOf(fcvt));
    EXPECT(at_issetugid() == NULL && at_mach_absolute_time() == NULL);
    EXPECT(at_CFRelease() == NULL && at_SCPreferencesCreate() == NULL);
    EXPECT(at_ucnv_open_72() == NULL && at_u_setDataDirectory_72() == NULL);
    /* Old programs may still find this one in the C library. */
    EXPECT(dlsym(RTLD_DEFAULT, "sysctl") == dlsym(libc, "sysctl"));
    EXPECT(dlsym(RTLD_DEFAULT, "CFRelease") == NULL && dlsym(RTLD_DEFAULT, "ucnv_open_72") == NULL);
    puts("ok");
    return 0;
}
