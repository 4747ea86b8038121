// posix.cpp -- the C library's calls for text in UTF-8.
#include "posix.h"

#include <climits>
#include <cstdlib>
#include <cstring>

extern "C" Unicode Posix_RealPath(const char *path)
{
    char resolved[PATH_MAX];
    return realpath(path, resolved) == nullptr ? nullptr : strdup(resolved);
}
