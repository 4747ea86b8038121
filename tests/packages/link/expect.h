/* expect.h -- checks for the programs here: a failure prints its line and ends the program with
 * status 9. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define EXPECT(condition)                                                                          \
    ((condition) ? (void)0 : (printf("line %d: " #condition "\n", __LINE__), exit(9)))
#define EXPECT_TEXT(text, wanted) EXPECT(strcmp(text, wanted) == 0)
