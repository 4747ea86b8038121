/* location.c -- where a file of the product is, for a program outside its bundle. */
#include <pelago/location.h>

#include <stdio.h>
#include <stdlib.h>

int main(int argc, char **argv)
{
    if (argc != 2) {
        fputs("usage: location KEY\n", stderr);
        return EXIT_FAILURE;
    }
    if (Location_GetRelative(argv[1]) == NULL) {
        fprintf(stderr, "%s is no key\n", argv[1]);
        return EXIT_FAILURE;
    }
    char *path = Location_Get(argv[1]);
    if (path == NULL) {
        fputs("the product was not found\n", stderr); /* and a Warning has said why */
        return EXIT_FAILURE;
    }
    puts(path);
    free(path);
    return EXIT_SUCCESS;
}

/* In a shell:
 *
 *    $ export TARVEX_LOCATION_ROOT_FULLPATH=/opt/Pelago.app
 *    $ ./location shareToolFile
 *    /opt/Pelago.app/Contents/Library/shares/pelagoShareTool
 *    $ ./location shareTool
 *    shareTool is no key
 */
