// expandOnce TEXT -- prints the expanded text.
#include "util.h"

#include <cstdio>
#include <unistd.h>

int main(int argc, char **argv)
{
    if (argc != 2) { return 2; }
    char *expanded = Util_ExpandString(argv[1]);
    puts(expanded);
    fflush(stdout);
    _exit(0); // the leak checker cannot look into a set-user-ID process
}
