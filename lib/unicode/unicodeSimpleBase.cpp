// unicodeSimpleBase.cpp -- the library's text.
#include "unicode.h"

#include "codeset.h"
#include "diagnostics.h"

#include <atomic>
#include <unistd.h>

namespace {

constexpr useconds_t INIT_RETRY_MICROSECONDS = 250000;

std::atomic<int> sInitLock; // 0 free, 1 held
bool sInitialized;          // guarded by sInitLock

void UnicodeLockInit()
{
    int expected = 0;
    while (!sInitLock.compare_exchange_strong(expected, 1)) {
        expected = 0;
        usleep(INIT_RETRY_MICROSECONDS); // the holder is reading the file system: no hot spin
    }
}

void UnicodeUnlockInit() { sInitLock.store(0); }

void UnicodeInitInternal(const char *icuDataDir)
{
    UnicodeLockInit();
    if (sInitialized) {
        UnicodeUnlockInit();
        return;
    }
    if (!CodeSet_Init(icuDataDir)) {
        UnicodeUnlockInit(); // Panic may run code of the program's that initialises again
        Panic("%s", "Failed to initialize codeset.\n");
    }
    sInitialized = true;
    UnicodeUnlockInit();
}

} // namespace

extern "C" void Unicode_Init() { UnicodeInitInternal(nullptr); }

extern "C" void Unicode_InitEx(int, char **, char **, const char *icuDataDir)
{
    UnicodeInitInternal(icuDataDir);
}
