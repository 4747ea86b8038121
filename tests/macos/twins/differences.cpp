// differences.cpp -- the known differences of the two hosts, which docs/porting.md lists.
#include "twins.h"

#include "err.h"
#include "posix.h"
#include "str.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <sys/resource.h>

namespace {

int PutWithoutAValue()
{
    static char variable[] = "PELAGO_TWIN";
    return Posix_Putenv(variable);
}

int GroupsOfRoot()
{
    gid_t groups[1000];
    int count = 1000;
    return Posix_Getgrouplist("root", 0, groups, &count);
}

std::string LetterOfOneByte()
{
    char *text = Str_Asprintf(nullptr, "%lc", wint_t{0xE9});
    if (text == nullptr) { return "fails"; }
    const std::string length = std::to_string(strlen(text));
    free(text);
    return length + " byte";
}

} // namespace

void WriteDifferences()
{
    const bool isResidentSet = static_cast<int>(RLIMIT_AS) == static_cast<int>(RLIMIT_RSS);
    printf("`PATH_MAX`: %d\n", PATH_MAX);
    printf("Numbers in messages: %d\n", EAGAIN);
    printf("Texts of errors: %s\n", Err_NumberToText(0));
    printf("`wcrtomb`: %s\n", LetterOfOneByte().c_str());
    printf("`getgrouplist`: %d\n", GroupsOfRoot());
    printf("`putenv`: %d\n", PutWithoutAValue());
    printf("`RLIMIT_AS`: %s\n", isResidentSet ? "resident set" : "address space");
}
