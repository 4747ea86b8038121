// posixExec.cpp -- the C library's calls that execute a program.
#include "posix.h"

#include "posixInt.h"

#include <cstdarg>
#include <cstdlib>
#include <unistd.h>

using namespace pelago;

namespace {

using Execute = int (*)(const char *path, char *const argv[]);

// Counts the arguments of the list, arg0 included.
size_t PosixCountArguments(const char *arg0, va_list arguments)
{
    va_list rest;
    va_copy(rest, arguments);
    size_t count = 0;
    for (const char *argument = arg0; argument != nullptr; argument = va_arg(rest, const char *)) {
        count++;
    }
    va_end(rest);
    return count;
}

// Executes a program with arguments that the caller lists one by one.
int PosixExecuteListed(Execute execute, const char *path, const char *arg0, va_list arguments)
{
    const HostText program(path);
    if (program.IsUnspellable()) {
        errno = ERANGE;
        return -1;
    }
    const size_t count = PosixCountArguments(arg0, arguments);
    char **list = static_cast<char **>(malloc((count + 1) * sizeof(char *)));
    if (list == nullptr) {
        errno = ENOMEM;
        return -1;
    }
    *list = nullptr; // the list is terminated at every step, so that it can be freed
    const ScopedTextList argv(list);
    const char *argument = arg0;
    for (size_t i = 0; i < count; i++, argument = va_arg(arguments, const char *)) {
        HostText text(argument);
        if (text.IsUnspellable()) {
            errno = ERANGE;
            return -1;
        }
        list[i] = text.Release();
        list[i + 1] = nullptr;
    }
    errno = 0;
    return execute(program, list);
}

} // namespace

extern "C" int Posix_Execl(const char *path, const char *arg0, ...)
{
    va_list arguments;
    va_start(arguments, arg0);
    const int result = PosixExecuteListed(execv, path, arg0, arguments);
    va_end(arguments);
    return result;
}

extern "C" int Posix_Execlp(const char *file, const char *arg0, ...)
{
    va_list arguments;
    va_start(arguments, arg0);
    const int result = PosixExecuteListed(execvp, file, arg0, arguments);
    va_end(arguments);
    return result;
}

extern "C" int Posix_Execv(const char *path, char *const argv[])
{
    const HostText program(path);
    const HostTextList arguments(argv);
    return PosixCall(execv, program, arguments);
}

extern "C" int Posix_Execve(const char *path, char *const argv[], char *const envp[])
{
    const HostText program(path);
    const HostTextList arguments(argv), environment(envp);
    return PosixCall(execve, program, arguments, environment);
}

extern "C" int Posix_Execvp(const char *file, char *const argv[])
{
    const HostText program(file);
    const HostTextList arguments(argv);
    return PosixCall(execvp, program, arguments);
}
