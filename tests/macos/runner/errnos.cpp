// errnos.cpp
#include "errnos.h"

#include "refuse.h"

#include <csignal>

namespace {

constexpr Pair ERRNOS[] = {
#include "errno.inc"
};
constexpr Pair SIGNALS[] = {
#include "signal.inc"
};

thread_local int tImageErrno;

int FindHost(Pairs pairs, long long darwin)
{
    for (const Pair &pair : pairs) {
        if (pair.darwin == darwin) { return pair.host; }
    }
    return -1;
}

long long FindDarwin(Pairs pairs, int host)
{
    for (const Pair &pair : pairs) {
        if (pair.host == host) { return pair.darwin; }
    }
    return -1;
}

} // namespace

int DarwinErrno(int host)
{
    if (host == 0) { return 0; }
    const long long darwin = FindDarwin(ERRNOS, host);
    if (darwin == -1) { Refuse("errno %d has no number on Darwin", host); }
    return static_cast<int>(darwin);
}

int HostErrno(int darwin) { return darwin == 0 ? 0 : FindHost(ERRNOS, darwin); }

int DarwinSignal(int host)
{
    const long long darwin = FindDarwin(SIGNALS, host);
    if (darwin == -1) { Refuse("signal %d has no number on Darwin", host); }
    return static_cast<int>(darwin);
}

int HostSignal(int darwin) { return FindHost(SIGNALS, darwin); }

int *ImageErrno() { return &tImageErrno; }

int HostOption(const char *call, const char *what, Pairs pairs, long long darwin)
{
    for (const Pair &pair : pairs) {
        if (pair.darwin == darwin) { return pair.host; }
    }
    Refuse("%s: %s %lld is not known", call, what, darwin);
}

int HostFlags(const char *call, Pairs pairs, long long darwin)
{
    int host = 0;
    long long left = darwin;
    for (const Pair &pair : pairs) {
        if (pair.darwin == 0 || (darwin & pair.darwin) != pair.darwin) { continue; }
        host |= pair.host;
        left &= ~pair.darwin;
    }
    if (left != 0) { Refuse("%s: flag 0x%llx is not known", call, left); }
    return host;
}

int DarwinFlags(const char *call, Pairs pairs, int host)
{
    long long darwin = 0;
    int left = host;
    for (const Pair &pair : pairs) {
        if (pair.host == 0 || (host & pair.host) != pair.host) { continue; }
        darwin |= pair.darwin;
        left &= ~pair.host;
    }
    if (left != 0) {
        Refuse("%s: this host's flag 0x%x is not known", call, static_cast<unsigned>(left));
    }
    return static_cast<int>(darwin);
}
