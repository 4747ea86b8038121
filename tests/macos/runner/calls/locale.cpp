// locale.cpp -- locales, wide characters, and numbers in text.
#include "../darwinTypes.h"
#include "../refuse.h"
#include "../rows.h"
#include "inLocale.h"

#include <cinttypes>
#include <clocale>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <cwctype>
#include <langinfo.h>
#include <nl_types.h>

locale_t HostLocale(locale_t darwin)
{
    static const locale_t plain = newlocale(LC_ALL_MASK, "C", nullptr);
    return darwin == nullptr ? plain : darwin;
}

namespace {

constexpr Pair CATEGORIES[] = {PAIR(LC_ALL),      PAIR(LC_COLLATE), PAIR(LC_CTYPE),
                               PAIR(LC_MONETARY), PAIR(LC_NUMERIC), PAIR(LC_TIME),
                               PAIR(LC_MESSAGES)};
constexpr Pair MASKS[] = {PAIR(LC_COLLATE_MASK),  PAIR(LC_CTYPE_MASK),   PAIR(LC_MESSAGES_MASK),
                          PAIR(LC_MONETARY_MASK), PAIR(LC_NUMERIC_MASK), PAIR(LC_TIME_MASK)};
const Pair LANGINFO[] = {
#include "langinfo.inc"
};

char *SetLocale(int category, const char *name)
{
    return setlocale(HostOption("setlocale", "category", CATEGORIES, category), name);
}

locale_t NewLocale(int mask, const char *name, locale_t base)
{
    const HandOnErrno handOn;
    return newlocale(HostFlags("newlocale", MASKS, mask), name, base);
}

char *NlLanginfo(int item)
{
    return nl_langinfo(HostOption("nl_langinfo", "item", LANGINFO, item));
}

DarwinLconv *LocaleConventions()
{
    static DarwinLconv sConventions;
    const lconv &host = *localeconv();
    sConventions = {host.decimal_point,      host.thousands_sep,     host.grouping,
                    host.int_curr_symbol,    host.currency_symbol,   host.mon_decimal_point,
                    host.mon_thousands_sep,  host.mon_grouping,      host.positive_sign,
                    host.negative_sign,      host.int_frac_digits,   host.frac_digits,
                    host.p_cs_precedes,      host.p_sep_by_space,    host.n_cs_precedes,
                    host.n_sep_by_space,     host.p_sign_posn,       host.n_sign_posn,
                    host.int_p_cs_precedes,  host.int_n_cs_precedes, host.int_p_sep_by_space,
                    host.int_n_sep_by_space, host.int_p_sign_posn,   host.int_n_sign_posn};
    return &sConventions;
}

DarwinLconv *LocaleConventionsIn(locale_t locale)
{
    const InLocale in(locale);
    return LocaleConventions();
}

int MbCurMax() { return static_cast<int>(MB_CUR_MAX); }
int MbCurMaxIn(locale_t locale)
{
    const InLocale in(locale);
    return MbCurMax();
}

// A call of this host's in a locale that its last argument names.
template <auto Call, typename = Plain<Call>> struct In;
template <auto Call, typename Result, typename... Arguments>
struct In<Call, Result (*)(Arguments...)> {
    static Result Run(Arguments... arguments, locale_t locale)
    {
        const InLocale in(locale);
        return ErrnoCall<Call>::Run(arguments...);
    }
};

int SnprintfIn(char *to, size_t size, locale_t locale, const char *format, ...)
{
    const InLocale in(locale);
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(to, size, format, arguments);
    va_end(arguments);
    return length;
}

int AsprintfIn(char **to, locale_t locale, const char *format, ...)
{
    const InLocale in(locale);
    va_list arguments;
    va_start(arguments, format);
    const int length = vasprintf(to, format, arguments);
    va_end(arguments);
    return length;
}

int SscanfIn(const char *text, locale_t locale, const char *format, ...)
{
    const InLocale in(locale);
    va_list arguments;
    va_start(arguments, format);
    const int count = vsscanf(text, format, arguments);
    va_end(arguments);
    return count;
}

// A byte in the "C" locale has 256 values on Darwin, 128 on this host.
size_t WideToBytes(char *to, wchar_t c, mbstate_t *state)
{
    if (to != nullptr && MB_CUR_MAX == 1 && c >= 0 && c <= 0xFF) {
        *to = static_cast<char>(c);
        return 1;
    }
    if (to != nullptr && (c < 0 || c > 0x10FFFF)) { // this host's UTF-8 may convert these
        Fail(DARWIN_EILSEQ);
        return static_cast<size_t>(-1);
    }
    return ErrnoCall<&wcrtomb>::Run(to, c, state);
}
size_t WideToBytesIn(char *to, wchar_t c, mbstate_t *state, locale_t locale)
{
    const InLocale in(locale);
    return WideToBytes(to, c, state);
}
static_assert(DARWIN_SIZEOF_mbstate_t >= static_cast<long long>(sizeof(mbstate_t)));

// This host's header chooses the type by the compiler.
const wchar_t *FindWide(const wchar_t *text, wchar_t c, size_t size)
{
    return wmemchr(text, c, size);
}

const Row ROWS[] = {
    {"___mb_cur_max", RowAddress(&MbCurMax)},
    {"___mb_cur_max_l", RowAddress(&MbCurMaxIn)},
    TRANSLATED(__exp10, exp10),
    TRANSLATED(asprintf_l, AsprintfIn),
    WITH_ERRNO(atof),
    WITH_ERRNO(atoi),
    WITH_ERRNO(atol),
    ALIKE(btowc),
    {"btowc_l", RowAddress(&In<&btowc>::Run)},
    WITH_ERRNO(catclose),
    WITH_ERRNO(catgets),
    WITH_ERRNO(catopen),
    ALIKE_AS(ceil, double (*)(double)),
    ALIKE_AS(exp, double (*)(double)),
    ALIKE_AS(floor, double (*)(double)),
    ALIKE_AS(fmod, double (*)(double, double)),
    ALIKE(freelocale),
    ALIKE_AS(frexp, double (*)(double, int *)),
    ALIKE_AS(ldexp, double (*)(double, int)),
    ALIKE_AS(llround, long long (*)(double)),
    TRANSLATED(localeconv, LocaleConventions),
    TRANSLATED(localeconv_l, LocaleConventionsIn),
    ALIKE_AS(log, double (*)(double)),
    ALIKE_AS(log10, double (*)(double)),
    {"mbrlen_l", RowAddress(&In<&mbrlen>::Run)},
    WITH_ERRNO(mbrtowc),
    {"mbrtowc_l", RowAddress(&In<&mbrtowc>::Run)},
    {"mbsnrtowcs_l", RowAddress(&In<&mbsnrtowcs>::Run)},
    {"mbsrtowcs_l", RowAddress(&In<&mbsrtowcs>::Run)},
    {"mbtowc_l", RowAddress(&In<&mbtowc>::Run)},
    ALIKE_AS(modf, double (*)(double, double *)),
    TRANSLATED(newlocale, NewLocale),
    TRANSLATED(nl_langinfo, NlLanginfo),
    ALIKE_AS(pow, double (*)(double, double)),
    ALIKE_AS(powf, float (*)(float, float)),
    ALIKE_AS(round, double (*)(double)),
    TRANSLATED(setlocale, SetLocale),
    TRANSLATED(snprintf_l, SnprintfIn),
    TRANSLATED(sscanf_l, SscanfIn),
    {"strcoll_l", RowAddress(&In<&strcoll>::Run)},
    {"strftime_l", RowAddress(&In<&strftime>::Run)},
    WITH_ERRNO(strtod),
    {"strtod_l", RowAddress(&In<&strtod>::Run)},
    WITH_ERRNO(strtof),
    {"strtof_l", RowAddress(&In<&strtof>::Run)},
    WITH_ERRNO(strtoimax),
    WITH_ERRNO(strtol),
    WITH_ERRNO(strtold),
    {"strtold_l", RowAddress(&In<&strtold>::Run)},
    WITH_ERRNO(strtoll),
    {"strtoll_l", RowAddress(&In<&strtoll>::Run)},
    WITH_ERRNO(strtoul),
    WITH_ERRNO(strtoull),
    {"strtoull_l", RowAddress(&In<&strtoull>::Run)},
    {"strxfrm_l", RowAddress(&In<&strxfrm>::Run)},
    ALIKE(towlower),
    ALIKE(towupper),
    ALIKE(uselocale),
    TRANSLATED(wcrtomb, WideToBytes),
    TRANSLATED(wcrtomb_l, WideToBytesIn),
    ALIKE(wcscmp),
    {"wcscoll_l", RowAddress(&In<&wcscoll>::Run)},
    ALIKE(wcscpy),
    ALIKE(wcslen),
    ALIKE(wcsncmp),
    {"wcsnrtombs_l", RowAddress(&In<&wcsnrtombs>::Run)},
    ALIKE(wcsnlen),
    WITH_ERRNO(wcstod),
    WITH_ERRNO(wcstof),
    WITH_ERRNO(wcstol),
    WITH_ERRNO(wcstold),
    WITH_ERRNO(wcstoll),
    WITH_ERRNO(wcstoul),
    WITH_ERRNO(wcstoull),
    {"wcsxfrm_l", RowAddress(&In<&wcsxfrm>::Run)},
    {"wctob_l", RowAddress(&In<&wctob>::Run)},
    TRANSLATED(wmemchr, FindWide),
    ALIKE(wmemcmp),
    ALIKE(wmemcpy),
    ALIKE(wmemmove),
    ALIKE(wmemset),
};

} // namespace

Rows LocaleRows() { return ROWS; }
