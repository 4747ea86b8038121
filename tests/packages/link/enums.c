/* Defines enumerators with the sinks' short names before it includes a header. */
enum { Debug, Log, Warning, Panic };
#include "allHeaders.h"
#include "expect.h"

int main(void)
{
    EXPECT(Debug == 0 && Log == 1 && Warning == 2 && Panic == 3);
    free(Util_SafeStrdup("text"));
    puts("ok");
    return 0;
}
