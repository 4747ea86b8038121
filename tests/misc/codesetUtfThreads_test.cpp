// codesetUtfThreads_test.cpp -- threads that are the first to use the converters, at the same time.
#include "codesetUtf.h"

#include "together.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>

using namespace pelago;

namespace {

TEST(CodeSetUtfThreads, MayBeginAtOnce)
{
    constexpr int THREADS = 8;
    std::atomic<int> right = 0;
    Together(THREADS, [&](int) {
        DynBuf db;
        DynBuf_Init(&db);
        if (CodeSetUtf8ToUtf16Db("\xC3\xA9", 2, &db)) {
            right += std::string(db.data, db.size) == std::string("\xE9\0", 2);
        }
        DynBuf_Destroy(&db);
    });
    EXPECT_EQ(right, THREADS);
}

} // namespace
