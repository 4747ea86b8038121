/* In builds that count: _exit() ends a process without writing down what it counted. */
#include <stdlib.h>

void __gcov_dump(void);
void __real__exit(int status) __attribute__((noreturn));
void __wrap__exit(int status) __attribute__((noreturn));

void __wrap__exit(int status)
{
    __gcov_dump();
    __real__exit(status);
}
