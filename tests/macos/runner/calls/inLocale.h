// inLocale.h -- a locale for a moment.
#pragma once

#include <clocale>

// NULL is the "C" locale on Darwin.
locale_t HostLocale(locale_t darwin);

// Has the calling thread use a locale, for calls that have no variant with one.
class InLocale {
public:
    explicit InLocale(locale_t locale) : mBefore(uselocale(HostLocale(locale))) {}
    ~InLocale() { uselocale(mBefore); }
    InLocale(const InLocale &) = delete;
    InLocale &operator=(const InLocale &) = delete;

private:
    locale_t mBefore;
};
