// errnos.h -- the numbers of errors and signals, and flags, on both hosts.
#pragma once

#include "darwinNumbers.h"

#include <cerrno>
#include <span>

// Darwin's number for this host's, and the other way round; 0 stays 0.  Refuse()s a number that the
// other host does not have.
int DarwinErrno(int host);
int HostErrno(int darwin); // -1: Darwin has no such error, or this host has not

int DarwinSignal(int host);
int HostSignal(int darwin); // -1: there is none

// The image's own errno, of the calling thread.
int *ImageErrno();

// Fails as a call does: stores Darwin's number.
inline int Fail(long long darwin)
{
    *ImageErrno() = static_cast<int>(darwin);
    return -1;
}

// Translates the host's errno and stores it as the image's.
class HandOnErrno {
public:
    HandOnErrno() { errno = 0; }
    ~HandOnErrno()
    {
        if (errno != 0) { *ImageErrno() = DarwinErrno(errno); }
    }
    HandOnErrno(const HandOnErrno &) = delete;
    HandOnErrno &operator=(const HandOnErrno &) = delete;
};

// A number that both hosts have by one name.
struct Pair {
    int host;
    long long darwin;
};
using Pairs = std::span<const Pair>;
#define PAIR(name)                                                                                 \
    {                                                                                              \
        static_cast<int>(name), DARWIN_##name                                                      \
    }

// Returns the host's number for Darwin's; Refuse()s one that is not listed, with the names of the
// call and of the kind of number.
int HostOption(const char *call, const char *what, Pairs pairs, long long darwin);

// The same for flags, each of which is one bit or more.
int HostFlags(const char *call, Pairs pairs, long long darwin);
int DarwinFlags(const char *call, Pairs pairs, int host);
