// posixFixture.h -- the fixture for tests of wrappers: each test has a folder of its own.
#ifndef PELAGO_TESTS_MISC_POSIXFIXTURE_H
#define PELAGO_TESTS_MISC_POSIXFIXTURE_H

#include "scopedForTests.h"

#include <gtest/gtest.h>

class Posix : public testing::Test {
protected:
    const WorkingFolder mFolder;
};

#endif // PELAGO_TESTS_MISC_POSIXFIXTURE_H
