// codesetUtfThreads_test.cpp -- threads that are the first to use the converters, at the same time.
#include "codesetUtf.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace {

TEST(CodeSetUtfThreads, MayBeginAtOnce)
{
    constexpr int THREADS = 8;
    std::atomic<int> waiting = THREADS, right = 0;
    const auto convert = [&] {
        waiting--;
        while (waiting > 0) {
            std::this_thread::yield();
        }
        DynBuf db;
        DynBuf_Init(&db);
        if (CodeSetUtf8ToUtf16Db("\xC3\xA9", 2, &db)) {
            right += std::string(db.data, db.size) == std::string("\xE9\0", 2);
        }
        DynBuf_Destroy(&db);
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; i++) {
        threads.emplace_back(convert);
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(right, THREADS);
}

} // namespace
