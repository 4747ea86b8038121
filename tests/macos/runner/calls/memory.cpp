// memory.cpp -- memory, strings and characters.
#include "../darwinTypes.h"
#include "../refuse.h"
#include "../rows.h"
#include "inLocale.h"

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <cwctype>
#include <malloc.h>
#include <strings.h>
#include <unistd.h>

namespace {

// The bits of a character's class, as isspace() and its like have them.
uint32_t RuneType(int c)
{
    constexpr struct {
        int (*isInClass)(int);
        long long bit;
    } CLASSES[] = {
        {isalpha, DARWIN__CTYPE_A}, {iscntrl, DARWIN__CTYPE_C}, {isdigit, DARWIN__CTYPE_D},
        {isgraph, DARWIN__CTYPE_G}, {islower, DARWIN__CTYPE_L}, {ispunct, DARWIN__CTYPE_P},
        {isspace, DARWIN__CTYPE_S}, {isupper, DARWIN__CTYPE_U}, {isxdigit, DARWIN__CTYPE_X},
        {isblank, DARWIN__CTYPE_B}, {isprint, DARWIN__CTYPE_R},
    };
    long long type = 0;
    for (const auto &row : CLASSES) {
        if (row.isInClass(c) != 0) { type |= row.bit; }
    }
    // A digit's value is in the lowest bits.
    if (isxdigit(c) != 0) { type |= isdigit(c) != 0 ? c - '0' : tolower(c) - 'a' + 10; }
    return static_cast<uint32_t>(type);
}

uint32_t WideRuneType(wint_t c)
{
    constexpr struct {
        int (*isInClass)(wint_t);
        long long bit;
    } CLASSES[] = {
        {iswalpha, DARWIN__CTYPE_A}, {iswcntrl, DARWIN__CTYPE_C}, {iswdigit, DARWIN__CTYPE_D},
        {iswgraph, DARWIN__CTYPE_G}, {iswlower, DARWIN__CTYPE_L}, {iswpunct, DARWIN__CTYPE_P},
        {iswspace, DARWIN__CTYPE_S}, {iswupper, DARWIN__CTYPE_U}, {iswxdigit, DARWIN__CTYPE_X},
        {iswblank, DARWIN__CTYPE_B}, {iswprint, DARWIN__CTYPE_R},
    };
    long long type = 0;
    for (const auto &row : CLASSES) {
        if (row.isInClass(c) != 0) { type |= row.bit; }
    }
    return static_cast<uint32_t>(type);
}

// The table of the "C" locale, which programs read directly.
DarwinRuneLocale MakeRunes()
{
    DarwinRuneLocale runes{};
    for (int c = 0; c < DARWIN__CACHED_RUNES; c++) {
        runes.runetype[c] = c < 128 ? RuneType(c) : 0;
        runes.maplower[c] = c < 128 ? tolower(c) : c;
        runes.mapupper[c] = c < 128 ? toupper(c) : c;
    }
    return runes;
}
DarwinRuneLocale sRunes = MakeRunes();

int MaskRune(int c, unsigned long mask)
{
    const bool isTabled = c >= 0 && c < 128;
    const uint32_t type = isTabled ? sRunes.runetype[c] : WideRuneType(static_cast<wint_t>(c));
    return static_cast<int>(type & mask);
}
int MaskRuneIn(int c, unsigned long mask, locale_t locale)
{
    const InLocale in(locale);
    return MaskRune(c, mask);
}

int ToLower(int c) { return static_cast<int>(towlower(static_cast<wint_t>(c))); }
int ToUpper(int c) { return static_cast<int>(towupper(static_cast<wint_t>(c))); }
int ToLowerIn(int c, locale_t locale)
{
    const InLocale in(locale);
    return ToLower(c);
}
int ToUpperIn(int c, locale_t locale)
{
    const InLocale in(locale);
    return ToUpper(c);
}

void *GuardedAlignedAlloc(size_t alignment, size_t size)
{
    const bool isPower = alignment != 0 && (alignment & (alignment - 1)) == 0;
    if (!isPower || alignment < sizeof(void *) || size % alignment != 0) {
        Fail(DARWIN_EINVAL);
        return nullptr;
    }
    return ErrnoCall<&aligned_alloc>::Run(alignment, size);
}

size_t Strlcpy(char *to, const char *from, size_t size)
{
    const size_t length = strlen(from);
    if (size > 0) {
        const size_t copied = std::min(length, size - 1);
        memcpy(to, from, copied);
        to[copied] = '\0';
    }
    return length;
}

size_t Strlcat(char *to, const char *from, size_t size)
{
    const size_t length = strnlen(to, size);
    return length + Strlcpy(to + length, from, size - length);
}

void FillPattern16(void *to, const void *pattern, size_t size)
{
    for (size_t i = 0; i < size; i++) {
        static_cast<char *>(to)[i] = static_cast<const char *>(pattern)[i % 16];
    }
}

int StrErrorInto(int darwin, char *text, size_t size)
{
    const int host = HostErrno(darwin);
    char whole[200];
    if (darwin == 0) {
        snprintf(whole, sizeof whole, "Undefined error: 0");
    } else if (host == -1) {
        snprintf(whole, sizeof whole, "Unknown error: %d", darwin);
    } else {
        snprintf(whole, sizeof whole, "%s", strerrordesc_np(host));
    }
    const bool fits = Strlcpy(text, whole, size) < size;
    if (!fits) { return static_cast<int>(DARWIN_ERANGE); }
    return host == -1 ? static_cast<int>(DARWIN_EINVAL) : 0;
}

char *StrErrorOf(int darwin)
{
    static thread_local char tText[200];
    StrErrorInto(darwin, tText, sizeof tText);
    return tText;
}

const Row ROWS[] = {
    {"_DefaultRuneLocale", &sRunes},
    {"__bzero", RowAddress(&bzero)},
    {"__maskrune", RowAddress(&MaskRune)},
    {"__maskrune_l", RowAddress(&MaskRuneIn)},
    {"__tolower", RowAddress(&ToLower)},
    {"___tolower_l", RowAddress(&ToLowerIn)},
    {"__toupper", RowAddress(&ToUpper)},
    {"___toupper_l", RowAddress(&ToUpperIn)},
    TRANSLATED(aligned_alloc, GuardedAlignedAlloc),
    ALIKE(bcmp),
    ALIKE(bcopy),
    ALIKE(bzero),
    WITH_ERRNO(calloc),
    ALIKE(free),
    WITH_ERRNO(malloc),
    {"malloc_size", RowAddress(&malloc_usable_size)},
    ALIKE_AS(memchr, void *(*)(void *, int, size_t)),
    ALIKE(memcmp),
    ALIKE(memcpy),
    ALIKE(memmem),
    ALIKE(memmove),
    ALIKE(memset),
    TRANSLATED(memset_pattern16, FillPattern16),
    WITH_RESULT(posix_memalign),
    WITH_ERRNO(realloc),
    ALIKE(stpcpy),
    ALIKE(strcasecmp),
    ALIKE(strcat),
    ALIKE_AS(strchr, char *(*)(char *, int)),
    ALIKE(strcmp),
    ALIKE(strcoll),
    ALIKE(strcpy),
    ALIKE(strcspn),
    WITH_ERRNO(strdup),
    TRANSLATED(strerror, StrErrorOf),
    TRANSLATED(strerror_r, StrErrorInto),
    TRANSLATED(strlcat, Strlcat),
    TRANSLATED(strlcpy, Strlcpy),
    ALIKE(strlen),
    ALIKE(strncasecmp),
    ALIKE(strncat),
    ALIKE(strncmp),
    ALIKE(strncpy),
    WITH_ERRNO(strndup),
    ALIKE(strnlen),
    ALIKE_AS(strpbrk, char *(*)(char *, const char *)),
    ALIKE_AS(strrchr, char *(*)(char *, int)),
    ALIKE(strsep),
    ALIKE(strspn),
    ALIKE_AS(strstr, char *(*)(char *, const char *)),
    ALIKE(strtok),
    ALIKE(strtok_r),
    ALIKE(swab),
    ALIKE(tolower),
    ALIKE(toupper),
};

} // namespace

Rows MemoryRows() { return ROWS; }
