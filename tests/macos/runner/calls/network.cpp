// network.cpp -- addresses.
#include "../rows.h"

#include <arpa/inet.h>
#include <sys/socket.h>

namespace {

constexpr Pair FAMILIES[] = {{AF_INET, DARWIN_AF_INET}, {AF_INET6, DARWIN_AF_INET6}};

// An unknown family fails on Darwin, too.
int InetPton(int family, const char *text, void *address)
{
    for (const Pair &pair : FAMILIES) {
        if (pair.darwin == family) { return inet_pton(pair.host, text, address); }
    }
    return Fail(DARWIN_EAFNOSUPPORT);
}

const Row ROWS[] = {
    TRANSLATED(inet_pton, InetPton),
};

} // namespace

Rows NetworkRows() { return ROWS; }
