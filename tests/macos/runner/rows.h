// rows.h -- which function of this host an import of Darwin's is bound to.
//
// There is a file of rows for each area, calls/*.cpp.  A row is of one of these kinds:
//    ALIKE(call)        this host's function has the same arguments, results and effects
//    WITH_ERRNO(call)   it is alike, but its errno is translated to Darwin's
//    WITH_RESULT(call)  it returns an error's number, which is translated to Darwin's
//    TRANSLATED(call, ours)  a function of the runner's own replaces the call
//    REFUSED(call)      ends the process when it is called: programs import it but do not call
//    it
// The name is the image's, without the underscore that Darwin puts before each.
#pragma once

#include "errnos.h"

#include "refuse.h"

#include <algorithm>
#include <span>
#include <string_view>

struct Row {
    std::string_view name;
    void *address;
};
using Rows = std::span<const Row>;

Rows MemoryRows();     // memory, strings, characters
Rows LocaleRows();     // locales, wide characters, numbers in text
Rows StdioRows();      // streams and formats
Rows FileRows();       // files, folders, descriptors
Rows ProcessRows();    // processes, signals, limits, environment
Rows UserRows();       // users and groups
Rows TimeRows();       // clocks and timers
Rows ThreadRows();     // threads, thread-local variables
Rows RuntimeRows();    // start, end, exceptions, dyld
Rows KernelRows();     // sysctl, Mach, libproc
Rows FoundationRows(); // Core Foundation, SystemConfiguration
Rows NetworkRows();    // addresses
Rows SuiteRows();      // what only GoogleTest and the suites call

// Returns the row's address, or nullptr; the name is the image's, with its underscore.
void *FindRow(std::string_view name);

// A function's type without "noexcept", which this host's C library has and Darwin's has not.
template <typename Function> struct PlainFunction;
template <typename Result, typename... Arguments> struct PlainFunction<Result (*)(Arguments...)> {
    using Type = Result (*)(Arguments...);
};
template <typename Result, typename... Arguments>
struct PlainFunction<Result (*)(Arguments...) noexcept> {
    using Type = Result (*)(Arguments...);
};
template <auto Call> using Plain = typename PlainFunction<decltype(Call)>::Type;

template <auto Call, typename = Plain<Call>> struct ErrnoCall;
template <auto Call, typename Result, typename... Arguments>
struct ErrnoCall<Call, Result (*)(Arguments...)> {
    static Result Run(Arguments... arguments)
    {
        const HandOnErrno handOn;
        return Call(arguments...);
    }
};

template <auto Call, typename = Plain<Call>> struct ResultCall;
template <auto Call, typename... Arguments> struct ResultCall<Call, int (*)(Arguments...)> {
    static int Run(Arguments... arguments) { return DarwinErrno(Call(arguments...)); }
};

// A text that can be a template's argument.
template <size_t Size> struct CallName {
    constexpr CallName(const char (&name)[Size]) { std::copy_n(name, Size, text); }
    char text[Size];
};
template <CallName Name> [[noreturn]] void RefuseCall() { Refuse("%s is not known", Name.text); }

template <typename T> void *RowAddress(T *address)
{
    return const_cast<void *>(reinterpret_cast<const void *>(address));
}

#define ALIKE(call)                                                                                \
    Row { #call, RowAddress(&call) }
#define ALIKE_AS(call, type)                                                                       \
    Row { #call, RowAddress(static_cast <type>(&call)) }
#define WITH_ERRNO(call)                                                                           \
    Row { #call, RowAddress(&ErrnoCall <&call>::Run) }
#define WITH_RESULT(call)                                                                          \
    Row { #call, RowAddress(&ResultCall <&call>::Run) }
#define TRANSLATED(call, ours)                                                                     \
    Row { #call, RowAddress(&ours) }
#define REFUSED(call)                                                                              \
    Row { #call, RowAddress(&RefuseCall <#call>) }
