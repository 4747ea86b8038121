// unicodeInit.cpp -- the one-time initialisation.
#include "unicode.h"

#include "codeset.h"
#include "diagnostics.h"

#include <atomic>
#include <unistd.h>

namespace {

constexpr useconds_t INIT_RETRY_MICROSECONDS = 250000;

// 0 free, 1 held.  Sequentially consistent throughout: what one holder wrote the next one sees, and
// nobody takes this lock often enough for anything weaker to matter.
std::atomic<int> sInitLock;
bool sInitialized; // guarded by sInitLock

// Holds the lock for the length of a block.
class UnicodeInitGuard {
public:
    UnicodeInitGuard()
    {
        for (int expected = 0; !sInitLock.compare_exchange_strong(expected, 1); expected = 0) {
            usleep(INIT_RETRY_MICROSECONDS); // the holder looks at the file system: no hot spin
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
    // Without the lock: Panic may run code of the program's that initialises again.
    if (!UnicodeInitOnce(icuDataDir)) { Panic("%s", "Failed to initialize codeset.\n"); }
}

} // namespace

extern "C" void Unicode_Init() { UnicodeInitInternal(nullptr); }

extern "C" void Unicode_InitEx(int, char **, char **, const char *icuDataDir)
{
    UnicodeInitInternal(icuDataDir);
}
