// refuseAllocation.cpp -- preloaded, makes a program's allocations fail.
//   REFUSE_AT=N     the N-th allocation fails; N+ and all after it
//   REFUSE_PROOF=F  a file to which the name of the program or library is then appended
// Programs that the program starts are not affected.
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);
}

static long sRemaining; // allocations up to the one that fails; 0 if none does
static bool sIsLasting;
static const char *sProof;

__attribute__((constructor)) static void Set()
{
    const char *at = getenv("REFUSE_AT");
    sProof = getenv("REFUSE_PROOF");
    unsetenv("LD_PRELOAD");
    if (at == nullptr || sProof == nullptr) { return; }
    char *end;
    sRemaining = strtol(at, &end, 10);
    sIsLasting = *end == '+';
}

static void Prove(const void *caller)
{
    Dl_info info = {};
    dladdr(caller, &info);
    const char *name = info.dli_fname != nullptr ? info.dli_fname : "unknown";
    const int fd = open(sProof, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    // Without the line the test takes it that no allocation was refused.
    if (write(fd, name, strlen(name)) > 0 && write(fd, "\n", 1) > 0) { close(fd); }
}

static bool IsRefused(const void *caller)
{
    if (sRemaining == 0 || --sRemaining > 0) { return false; }
    if (sIsLasting) { sRemaining = 1; }
    Prove(caller);
    errno = ENOMEM;
    return true;
}

extern "C" void *malloc(size_t size)
{
    return IsRefused(__builtin_return_address(0)) ? nullptr : __libc_malloc(size);
}

extern "C" void *calloc(size_t count, size_t size)
{
    return IsRefused(__builtin_return_address(0)) ? nullptr : __libc_calloc(count, size);
}

extern "C" void *realloc(void *block, size_t size)
{
    return IsRefused(__builtin_return_address(0)) ? nullptr : __libc_realloc(block, size);
}

// The C library's own versions would count as allocations of the C library.

static char *CopyText(const char *text, size_t length, const void *caller)
{
    char *copy = IsRefused(caller) ? nullptr : static_cast<char *>(__libc_malloc(length + 1));
    if (copy == nullptr) { return nullptr; }
    memcpy(copy, text, length);
    copy[length] = '\0';
    return copy;
}

extern "C" char *strdup(const char *text)
{
    return CopyText(text, strlen(text), __builtin_return_address(0));
}

extern "C" char *strndup(const char *text, size_t size)
{
    return CopyText(text, strnlen(text, size), __builtin_return_address(0));
}
