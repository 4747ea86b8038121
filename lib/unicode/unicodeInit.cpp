// unicodeInit.cpp -- the one-time initialisation.
#include "unicode.h"

#include "codeset.h"
#include "diagnostics.h"

#include <atomic>
#include <unistd.h>

namespace {

constexpr useconds_t INIT_RETRY_MICROSECONDS = 250000;

// 0: free, 1: held.  Sequentially consistent, so that each holder sees what the earlier ones wrote;
// the lock is taken too rarely for a weaker order to save time.
std::atomic<int> sInitLock;
bool sInitialized; // guarded by sInitLock

// Holds the lock for the length of a block.
class UnicodeInitGuard {
public:
    UnicodeInitGuard()
    {
        for (int expected = 0; !sInitLock.compare_exchange_strong(expected, 1); expected = 0) {
            usleep(INIT_RETRY_MICROSECONDS); // the holder reads the file system: no busy wait
        }
    }
    UnicodeInitGuard(const UnicodeInitGuard &) = delete;
    ~UnicodeInitGuard() { sInitLock.store(0); }
};

bool UnicodeInitOnce(const char *icuDataDir)
{
    const UnicodeInitGuard guard;
    if (!sInitialized) { sInitialized = CodeSet_Init(icuDataDir); }
    return sInitialized;
}

void UnicodeInitInternal(const char *icuDataDir)
{
    // The lock is free again here: Panic() may run functions of the program that initialise again.
    if (!UnicodeInitOnce(icuDataDir)) { Panic("%s", "Failed to initialize codeset.\n"); }
}

} // namespace

extern "C" void Unicode_Init() { UnicodeInitInternal(nullptr); }

extern "C" void Unicode_InitEx(int, char **, char **, const char *icuDataDir)
{
    UnicodeInitInternal(icuDataDir);
}
