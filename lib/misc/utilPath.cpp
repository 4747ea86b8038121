// utilPath.cpp -- tests of paths, names and IP addresses.
#include "util.h"

#include "posix.h"

#include <arpa/inet.h>
#include <cstdio>
#include <strings.h>
#include <sys/socket.h>

extern "C" {

char *Util_CanonicalPath(const char *path) { return Posix_RealPath(path); }

bool Util_IsEqualIgnoreCase(const char *a, const char *b) { return strcasecmp(a, b) == 0; }

bool Util_IsAbsolutePath(const char *path) { return path != nullptr && path[0] == '/'; }

bool Util_IsIPv4Address(const char *text)
{
    in_addr address;
    return inet_pton(AF_INET, text, &address) == 1;
}

bool Util_IsIPv6Address(const char *text)
{
    char digits[46 + 1]; // longer text is no address, nor are its first 46 bytes
    in6_addr address;
    return sscanf(text, "%46[^%]", digits) == 1 && inet_pton(AF_INET6, digits, &address) == 1;
}

bool Util_IsIPAddress(const char *text)
{
    return Util_IsIPv4Address(text) || Util_IsIPv6Address(text);
}

} // extern "C"
