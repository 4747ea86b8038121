// The code-set layer in a program that has no location service.
#include "codeset.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <sys/stat.h>

static std::string sLookedAt;

extern "C" {
CodeSetLocationFunc CodeSetGetLocationFunc() { return nullptr; }

int __real_stat(const char *path, struct stat *status);
int __wrap_stat(const char *path, struct stat *status)
{
    sLookedAt = path;
    return __real_stat(path, status);
}
}

TEST(CodeSetInit, GoesWithoutIcuWhereNobodyKnowsTheFolder)
{
    EXPECT_TRUE(CodeSet_Init(nullptr));
    EXPECT_EQ(sLookedAt, "/dev/null/Non-existing DEFAULT_LIBDIRECTORY/icu/icudt44l.dat");
    char *text = nullptr;
    EXPECT_TRUE(CodeSet_GenericToGeneric("UTF-8", "a", 1, "UTF-16LE", 0, &text, nullptr));
    free(text);
    EXPECT_FALSE(CodeSet_GenericToGeneric("UTF-8", "a", 1, "ISO-8859-1", 0, &text, nullptr));
}
