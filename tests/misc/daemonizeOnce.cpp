// daemonizeOnce.cpp -- daemonizeOnce PROGRAM FLAGS PIDFILE -- starts a daemon, and prints "started"
// or "failed" with the error number.
#include "hostinfo.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

int main(int argc, char **argv)
{
    if (argc != 4) { return 2; }
    char *const args[] = {argv[1], nullptr};
    const auto flags = static_cast<unsigned>(atoi(argv[2]));
    if (Hostinfo_Daemonize(argv[1], args, flags, argv[3], nullptr, 0)) {
        puts("started");
    } else {
        printf("failed %d\n", errno);
    }
    return 0;
}
