// panic.h -- expecting the end of the process.
#ifndef PELAGO_TESTS_SUPPORT_PANIC_H
#define PELAGO_TESTS_SUPPORT_PANIC_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

// The statement ends the process with status 1 and this report, and writes nothing after it.  What
// a sanitizer says first is let pass.
#define EXPECT_PANIC(statement, report)                                                            \
    EXPECT_EXIT(statement, testing::ExitedWithCode(1),                                             \
                testing::EndsWith(std::string("Panic: ") + (report)))

#endif // PELAGO_TESTS_SUPPORT_PANIC_H
