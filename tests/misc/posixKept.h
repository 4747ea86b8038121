// posixKept.h -- fills the caches of the wrappers, the names of encodings and the table of
// Posix_Getenv(), before any test of the program counts blocks.
#ifndef PELAGO_TESTS_MISC_POSIXKEPT_H
#define PELAGO_TESTS_MISC_POSIXKEPT_H

#include "posix.h"

#include <gtest/gtest.h>

#include <cstdlib>

class PosixKept : public testing::Environment {
    void SetUp() override
    {
        free(Posix_RealPath("/"));
        Posix_Getenv("PELAGO_FIRST");
    }
};
inline testing::Environment *const sPosixKept = testing::AddGlobalTestEnvironment(new PosixKept);

#endif // PELAGO_TESTS_MISC_POSIXKEPT_H
