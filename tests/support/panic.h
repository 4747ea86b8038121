// panic.h -- expects a panic, which ends the process.
#ifndef PELAGO_TESTS_SUPPORT_PANIC_H
#define PELAGO_TESTS_SUPPORT_PANIC_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

// Expects that the statement ends the process with status 1 and this report, and that nothing is
// written after the report.  A sanitizer may write something before it.
#define EXPECT_PANIC(statement, report)                                                            \
    EXPECT_EXIT(statement, testing::ExitedWithCode(1),                                             \
                testing::EndsWith(std::string("Panic: ") + (report)))

#endif // PELAGO_TESTS_SUPPORT_PANIC_H
