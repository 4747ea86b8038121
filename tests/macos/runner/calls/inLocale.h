// inLocale.h -- sets a thread's locale for the duration of a call.
#pragma once

#include <clocale>

// NULL is the "C" locale on Darwin.
locale_t HostLocale(locale_t darwin);

// Sets the calling thread's locale, for calls that have no variant with a locale argument.
class InLocale {
public:
    explicit InLocale(locale_t locale) : mBefore(uselocale(HostLocale(locale))) {}
    ~InLocale() { uselocale(mBefore); }
    InLocale(const InLocale &) = delete;
    InLocale &operator=(const InLocale &) = delete;

private:
    locale_t mBefore;
};
