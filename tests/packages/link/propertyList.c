/* Reads a property list and prints its values. */
#include "expect.h"

#include <pelago/util.h>

int main(int argc, char **argv)
{
    char *name, *version, *build;
    EXPECT(argc == 2);
    const struct __CFDictionary *list = Util_ReadPlistDictionary(argv[1]);
    EXPECT(list != NULL && Util_GetProductInfo(list, &name, &version, &build));
    printf("%s %s %s\n", name, version, build);
    free(build);
    free(version);
    free(name);
    Util_ReleasePlistDictionary(list);
    return 0;
}
