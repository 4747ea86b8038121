/* version.c -- asks for a version when it is compiled, and shows the one that it got. */
#include <pelago/version.h>

#include <stdio.h>

#if PELAGO_VERSION_NUMBER < 100
#error "this needs 0.1.0 of the library"
#endif

int main(void)
{
    puts(PELAGO_VERSION_NUMBER == 100 ? PELAGO_VERSION : "newer than 0.1.0");
    return 0;
}

/* In a shell:
 *
 *    $ ./version
 *    0.1.0
 */
