// inChild.h -- runs code in a child process, for calls that a process can make only once.
#ifndef PELAGO_TESTS_SUPPORT_INCHILD_H
#define PELAGO_TESTS_SUPPORT_INCHILD_H

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

// The result of the body, and what the child wrote to standard error.
struct Outcome {
    std::string result, errors;
};

// Runs the body in a child process, which must exit by itself and without a failed expectation.
template <typename Body> Outcome InChild(Body body)
{
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    fflush(stdout);
    testing::internal::CaptureStderr();
    const pid_t child = fork();
    if (child == 0) {
        const std::string result = body();
        const ssize_t written = write(ends[1], result.data(), result.size());
        fflush(stdout); // the messages of failed expectations
        const bool isWell = written == static_cast<ssize_t>(result.size());
        _exit(isWell && !testing::Test::HasFailure() ? 0 : 1);
    }
    close(ends[1]);
    Outcome outcome;
    char bytes[4096];
    for (ssize_t size; (size = read(ends[0], bytes, sizeof bytes)) > 0;) {
        outcome.result.append(bytes, static_cast<size_t>(size));
    }
    close(ends[0]);
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    outcome.errors = testing::internal::GetCapturedStderr();
    EXPECT_EQ(status, 0) << outcome.errors;
    return outcome;
}

#endif // PELAGO_TESTS_SUPPORT_INCHILD_H
