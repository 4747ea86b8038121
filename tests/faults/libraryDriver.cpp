// libraryDriver.cpp -- calls the library's functions from four threads for a long time, checks
// every result, and checks that the process does not grow.
//
// libraryDriver SECONDS  prints what was done, and how much memory the process had at the half and
// at the end. Exit status: 0 when every result was right and memory did not grow in the second
// half; 1 when it grew.  A wrong result aborts.
#include "codeset.h"
#include "dynbuf.h"
#include "err.h"
#include "escape.h"
#include "hashTable.h"
#include "hostinfo.h"
#include "posix.h"
#include "scopedForTests.h"
#include "str.h"
#include "unicode.h"
#include "useIcu.h"
#include "util.h"

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <grp.h>
#include <mutex>
#include <pwd.h>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using Random = std::mt19937;
using Seconds = std::chrono::duration<double>;

constexpr int THREADS = 4;
constexpr uintptr_t SHARED_KEYS = 4096;
constexpr long GROWTH_IN_PAGES = 2048; // 8 MiB, the most that a sanitizer's own records take

HashTable *sShared;                           // of all threads
StringEncoding sFound[STRING_ENCODING_COUNT]; // the result of looking up each encoding's name
std::atomic<uint64_t> sDone;
std::mutex sExpansion; // Util_ExpandString() may run in one thread at a time

#define MUST(condition)                                                                            \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            fprintf(stderr, "libraryDriver:%d: %s\n", __LINE__, #condition);                       \
            abort();                                                                               \
        }                                                                                          \
    } while (false)

// Returns text of up to 200 characters, most of them longer than a byte in UTF-8.
std::string RandomText(Random &random)
{
    static const char *const CHARACTERS[] = {"a", "%", "\\", ",",  "'", " ",
                                             "é", "ß", "€",  "語", "🐧"};
    std::string text;
    for (size_t length = random() % 200; length > 0; length--) {
        text += CHARACTERS[random() % std::size(CHARACTERS)];
    }
    return text;
}

void Format(Random &random)
{
    const std::string text = RandomText(random);
    const int number = static_cast<int>(random());
    const double value =
        std::ldexp(static_cast<double>(random()), static_cast<int>(random() % 200) - 100);
    char *whole = Str_SafeAsprintf(nullptr, "%s|%d|%.17g", text.c_str(), number, value);
    const std::string expected = text + "|" + std::to_string(number) + "|";
    MUST(std::string(whole).compare(0, expected.size(), expected) == 0);
    MUST(strtod(whole + expected.size(), nullptr) == value);
    free(whole);
}

void Convert(Random &random)
{
    static const char *const ENCODINGS[] = {"UTF-16LE", "UTF-16BE", "UTF-32LE",
                                            "UTF-8",    "GB18030",  "UTF-7"};
    const std::string text = RandomText(random);
    const char *encoding = ENCODINGS[random() % std::size(ENCODINGS)];
    char *there = nullptr, *back = nullptr;
    size_t size = 0, backSize = 0;
    MUST(CodeSet_GenericToGeneric("UTF-8", text.data(), text.size(), encoding, CODESET_INVALID_FAIL,
                                  &there, &size));
    MUST(CodeSet_GenericToGeneric(encoding, there, size, "UTF-8", CODESET_INVALID_FAIL, &back,
                                  &backSize));
    MUST(std::string(back == nullptr ? "" : back, backSize) == text);
    free(there);
    free(back);
}

void Normalize(Random &random)
{
    const std::string text = RandomText(random);
    char *decomposed = nullptr, *composed = nullptr;
    MUST(CodeSet_Utf8FormCToUtf8FormD(text.c_str(), text.size(), &decomposed, nullptr));
    MUST(CodeSet_Utf8FormDToUtf8FormC(decomposed, strlen(decomposed), &composed, nullptr));
    MUST(text == composed);
    free(decomposed);
    free(composed);
}

void Escape(Random &random)
{
    const std::string text = RandomText(random);
    int set[256] = {};
    set[static_cast<unsigned char>('%')] = set[static_cast<unsigned char>(' ')] = 1;
    size_t size = 0;
    char *escaped = Escape_Do('%', set, text.data(), text.size(), &size);
    char *back = Escape_Undo('%', escaped, size, &size);
    MUST(std::string(back, size) == text);
    free(escaped);
    free(back);
}

// The first look-up of a name that two encodings share decides which one it means; main() makes it.
void Names(Random &random)
{
    const auto encoding = static_cast<StringEncoding>(random() % STRING_ENCODING_COUNT);
    MUST(UnicodeIANALookup(Unicode_EncodingEnumToName(encoding)) == sFound[encoding]);
}

// All threads enter the same keys, each with the one value that every look-up must find.
void Share(Random &random)
{
    const uintptr_t key = 1 + random() % SHARED_KEYS;
    void *const value = reinterpret_cast<void *>(key * 3);
    MUST(HashTable_LookupOrInsert(sShared, reinterpret_cast<void *>(key), value) == value);
    MUST(HashTable_GetNumElements(sShared) <= SHARED_KEYS);
}

void Errors(Random &random)
{
    const int number = static_cast<int>(random() % 200);
    const char *text = Err_NumberToText(number);
    MUST(text == Err_NumberToText(number) && Err_TextToNumber(text) == number);
}

void Buffers(Random &random)
{
    DynBuf buffer;
    DynBuf_Init(&buffer);
    std::string same;
    for (size_t i = random() % 40; i > 0; i--) {
        const std::string text = RandomText(random);
        MUST(DynBuf_Append(&buffer, text.data(), text.size()));
        same += text;
    }
    MUST(same == std::string(buffer.data == nullptr ? "" : buffer.data, buffer.size));
    DynBuf_Destroy(&buffer);
}

void Host(Random & /* nothing to choose */)
{
    struct passwd record, *found = nullptr;
    char room[1024];
    MUST(Posix_GetpwuidR(0, &record, room, sizeof room, &found) == 0 && found == &record);
    {
        const std::lock_guard<std::mutex> lock(sExpansion);
        char *home = Util_ExpandString("~root/x");
        MUST(home == std::string(record.pw_dir) + "/x");
        free(home);
    }
    MUST(strcmp(Posix_Getenv("PELAGO_DRIVER"), "a value") == 0);
    Unicode path = Posix_RealPath("/proc/self/../self/exe");
    MUST(path != nullptr && path[0] == '/');
    free(path);
    MUST(Hostinfo_NumCPUs() > 0 &&
         Hostinfo_QueryProcessExistence(getpid()) == HOSTINFO_PROCESS_QUERY_ALIVE);
}

void Work(unsigned seed, std::chrono::steady_clock::time_point end)
{
    static constexpr void (*TASKS[])(Random &) = {Format, Convert, Normalize, Escape, Names,
                                                  Share,  Errors,  Buffers,   Host};
    Random random(seed);
    while (std::chrono::steady_clock::now() < end) {
        for (const auto task : TASKS) {
            task(random);
            sDone++;
        }
    }
}

void WorkFor(Seconds time, unsigned seed)
{
    const auto end = std::chrono::steady_clock::now() +
                     std::chrono::duration_cast<std::chrono::milliseconds>(time);
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < THREADS; i++) {
        threads.emplace_back(Work, seed + i, end);
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
}

long ResidentPages()
{
    long size = 0, resident = 0;
    FILE *file = fopen("/proc/self/statm", "re");
    MUST(file != nullptr && fscanf(file, "%ld %ld", &size, &resident) == 2);
    fclose(file);
    return resident;
}

} // namespace

int main(int argc, char **argv)
{
    const double seconds = argc > 1 ? atof(argv[1]) : 0;
    if (seconds <= 0) {
        fputs("usage: libraryDriver SECONDS\n", stderr);
        return 2;
    }
    UseIcu();
    setenv("PELAGO_DRIVER", "a value", 1);
    sShared = HashTable_Alloc(256, HASH_INT_KEY | HASH_FLAG_ATOMIC, nullptr);
    for (int i = 0; i < STRING_ENCODING_COUNT; i++) {
        sFound[i] = UnicodeIANALookup(Unicode_EncodingEnumToName(static_cast<StringEncoding>(i)));
    }
    WorkFor(Seconds(seconds / 2), 1);
    const long half = ResidentPages();
    WorkFor(Seconds(seconds / 2), 1 + THREADS);
    const long end = ResidentPages();
    HashTable_Free(sShared);
    Unicode_Shutdown();
    printf("%llu calls; %ld pages at the half, %ld at the end\n",
           static_cast<unsigned long long>(sDone.load()), half, end);
    return end > half + GROWTH_IN_PAGES ? 1 : 0;
}
