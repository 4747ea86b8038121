#include "str.h"

#include "together.h"

#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

// The C library has one place for the digits of all threads, so the engine must keep them apart.
TEST(FormatThreads, KeepTheirDigitsApart)
{
    constexpr int THREADS = 4, ROUNDS = 4000;
    std::atomic<int> wrong = 0;
    Together(THREADS, [&](int thread) {
        const int number = thread + 1;
        const double value = number * 1.25;
        const std::string digit = std::to_string(number * 125 / 100);
        const std::string fraction = std::to_string(number * 125 % 100 + 100).substr(1);
        const std::string wanted = digit + "." + fraction + " " + digit + "." + fraction + "e+00";
        for (int round = 0; round < ROUNDS; round++) {
            char buffer[64];
            Str_Snprintf(buffer, sizeof buffer, "%.2f %.2e", value, value);
            if (buffer != wanted) { wrong++; }
        }
    });
    EXPECT_EQ(wrong, 0);
}

// Many digits take long to make, so that threads without a lock would meet even on few cores.
TEST(FormatThreads, KeepLongDigitsApart)
{
    constexpr int THREADS = 4, ROUNDS = 2000;
    std::atomic<int> wrong = 0;
    std::barrier ready(THREADS);
    Together(THREADS, [&](int thread) {
        const double value = (thread + 1) / 7.0 * 1e-200;
        char wanted[1100], text[1100];
        Str_Snprintf(wanted, sizeof wanted, "%.1000f", value);
        ready.arrive_and_wait();
        for (int round = 0; round < ROUNDS; round++) {
            Str_Snprintf(text, sizeof text, "%.1000f", value);
            if (strcmp(text, wanted) != 0) { wrong++; }
        }
    });
    EXPECT_EQ(wrong, 0);
}

TEST(FormatThreads, ShareNothingElse)
{
    std::atomic<int> wrong = 0;
    Together(3, [&](int number) {
        for (int round = 0; round < 4000; round++) {
            char *text = Str_Asprintf(nullptr, "%2$ls %1$d %3$f", number, L"\u00e9", 0.5);
            if (text != "\xc3\xa9 " + std::to_string(number) + " 0.500000") { wrong++; }
            free(text);
        }
    });
    EXPECT_EQ(wrong, 0);
}

} // namespace
