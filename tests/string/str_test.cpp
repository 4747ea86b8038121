#include "str.h"

#include "allocations.h"
#include "panic.h"
#include "scopedForTests.h"

#include <climits>
#include <clocale>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <sys/mman.h>
#include <unistd.h>

namespace {

// Bytes at the very end of a page, after which no byte can be read.
class AtPageEnd {
public:
    explicit AtPageEnd(const std::string &bytes) : mPage(static_cast<size_t>(sysconf(_SC_PAGESIZE)))
    {
        mPlace =
            mmap(nullptr, 2 * mPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        mprotect(static_cast<char *>(mPlace) + mPage, mPage, PROT_NONE);
        mBytes = static_cast<char *>(mPlace) + mPage - bytes.size();
        memcpy(mBytes, bytes.data(), bytes.size());
    }
    AtPageEnd(const AtPageEnd &) = delete;
    AtPageEnd &operator=(const AtPageEnd &) = delete;
    ~AtPageEnd() { munmap(mPlace, 2 * mPage); }
    operator char *() const { return mBytes; }

private:
    size_t mPage;
    void *mPlace;
    char *mBytes;
};

__attribute__((format(printf, 2, 3))) char *Vasprintf(size_t *length, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    char *text = Str_Vasprintf(length, format, arguments);
    va_end(arguments);
    return text;
}

__attribute__((format(printf, 2, 3))) char *SafeVasprintf(size_t *length, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    char *text = Str_SafeVasprintf(length, format, arguments);
    va_end(arguments);
    return text;
}

__attribute__((format(printf, 3, 4))) int Vsnprintf(char *buffer, size_t size, const char *format,
                                                    ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int length = Str_Vsnprintf(buffer, size, format, arguments);
    va_end(arguments);
    return length;
}

// ---- Formatting into a buffer

TEST(StrSnprintf, ReturnsTheLengthOfWhatFits)
{
    char buffer[8];
    EXPECT_EQ(Str_Snprintf(buffer, sizeof buffer, "%s-%d", "abc", 123), 7);
    EXPECT_STREQ(buffer, "abc-123");
    EXPECT_EQ(Vsnprintf(buffer, sizeof buffer, "%s-%d", "xyz", 456), 7);
    EXPECT_STREQ(buffer, "xyz-456");
    EXPECT_EQ(Str_Snprintf(buffer, 1, "%s", ""), 0);
    EXPECT_STREQ(buffer, "");
}

TEST(StrSnprintf, CutsWhatDoesNotFit)
{
    char buffer[] = "#######";
    EXPECT_EQ(Str_Snprintf(buffer, 4, "%s", "abcdef"), -1);
    EXPECT_STREQ(buffer, "abc");
    EXPECT_STREQ(buffer + 4, "###");
    EXPECT_EQ(Vsnprintf(buffer, 3, "%s", "abcdef"), -1);
    EXPECT_STREQ(buffer, "ab");
    EXPECT_EQ(Str_Snprintf(buffer, 4, "%s", "wxyz"), -1) << "it fits but for its NUL";
    EXPECT_STREQ(buffer, "wxy");
    EXPECT_EQ(Str_Snprintf(buffer, 1, "x"), -1);
    EXPECT_STREQ(buffer, "");
}

TEST(StrSnprintf, KeepsACharacterOnlyWhole)
{
    char buffer[8];
    EXPECT_EQ(Str_Snprintf(buffer, 4, "%s", "a\xc3\xa9z"), -1);
    EXPECT_STREQ(buffer, "a\xc3\xa9");
    EXPECT_EQ(Str_Snprintf(buffer, 4, "%s", "ab\xc3\xa9"), -1);
    EXPECT_STREQ(buffer, "ab");
}

TEST(StrSnprintf, CutsEveryCharacterAtEveryPlace)
{
    for (const std::string character : {"a", "\xc3\xa9", "\xe2\x82\xac", "\xf0\x9f\x98\x80"}) {
        for (size_t before = 0; before < 5; before++) {
            const std::string text = std::string(before, 'b') + character + "cd";
            for (size_t size = 2; size <= text.size(); size++) {
                char buffer[16];
                EXPECT_EQ(Str_Snprintf(buffer, size, "%s", text.c_str()), -1);
                const bool inside = size - 1 > before && size - 1 < before + character.size();
                EXPECT_EQ(buffer, text.substr(0, inside ? before : size - 1))
                    << text << " " << size;
            }
        }
    }
}

TEST(StrSnprintf, DropsTheEndOfWhatIsNoUtf8)
{
    struct {
        const char *text, *kept;
    } const rows[] = {
        {"\x80\x80\x80\x80", ""},             // continuation bytes to the start
        {"ab\x80z", "ab\x80"},                // after ASCII they are kept
        {"\xc3\x80\x80z", ""},                // more than the leading byte announces
        {"a\xff\x80z", "a"},                  // no leading byte at all
        {"\xe2\x82\xac\x80", "\xe2\x82\xac"}, // whole
        {"a\x80\xc3\xa9", "a\x80"},
    };
    for (const auto &[text, kept] : rows) {
        char buffer[4];
        EXPECT_EQ(Str_Snprintf(buffer, sizeof buffer, "%s", text), -1);
        EXPECT_STREQ(buffer, kept) << text;
    }
    char buffer[2];
    EXPECT_EQ(Str_Snprintf(buffer, sizeof buffer, "%s", "\x80\x80"), -1);
    EXPECT_STREQ(buffer, "") << "a continuation byte alone is no character";
}

TEST(StrSnprintf, LooksBackToTheLeadingByteHoweverFar)
{
    for (size_t following = 3; following < 40; following++) {
        const std::string sequence = "\xc3" + std::string(following, '\x80');
        char buffer[64];
        EXPECT_EQ(Str_Snprintf(buffer, 3 + sequence.size(), "ab%sz", sequence.c_str()), -1);
        EXPECT_STREQ(buffer, "ab") << following;
    }
}

// A leading byte that announces five or six bytes begins no character today, but its sequence is as
// long as announced.
TEST(StrSnprintf, KeepsSequencesOfAnyAnnouncedLengthWhole)
{
    for (const std::string sequence : {"\xc3\xa9", "\xe2\x82\xac", "\xf0\x9f\x98\x80",
                                       "\xf8\x88\x80\x80\x80", "\xfc\x84\x80\x80\x80\x80"}) {
        for (size_t kept = 1; kept <= sequence.size(); kept++) {
            char buffer[16];
            EXPECT_EQ(Str_Snprintf(buffer, 2 + kept, "a%sz", sequence.c_str()), -1);
            EXPECT_EQ(buffer, kept == sequence.size() ? "a" + sequence : "a") << kept;
        }
    }
}

TEST(StrSnprintf, TerminatesWhatCannotBeFormatted)
{
    ASSERT_STREQ(setlocale(LC_ALL, nullptr), "C");
    char buffer[] = "#######";
    EXPECT_EQ(Str_Snprintf(buffer, 6, "%lc", 0x20ac), -1);
    EXPECT_EQ(strlen(buffer), 5u);
    const OutOfMemory none;
    EXPECT_EQ(Str_Snprintf(buffer, 3, "%ls", L"w"), -1);
    EXPECT_EQ(strlen(buffer), 2u);
}

TEST(StrSnprintf, HasNoLimitForASizeOfNothing)
{
    char buffer[] = "#######";
    char *volatile place = buffer; // the size is known to be a lie
    EXPECT_EQ(Str_Snprintf(place, 0, "%s", "abc"), -1);
    EXPECT_STREQ(buffer, "abc####") << "and no NUL";
    EXPECT_EQ(Vsnprintf(place, 0, "%s", "12345"), -1);
    EXPECT_STREQ(buffer, "12345##");
}

// The header says to call Str_Asprintf() when the result is -1.
TEST(StrSnprintf, AsprintfDistinguishesTruncationFromFailure)
{
    ASSERT_STREQ(setlocale(LC_ALL, nullptr), "C");
    char buffer[4];
    size_t length = 77;
    EXPECT_EQ(Str_Snprintf(buffer, sizeof buffer, "%s", "abcdef"), -1);
    EXPECT_EQ(Take(Str_Asprintf(&length, "%s", "abcdef")), "abcdef");
    EXPECT_EQ(length, 6u);
    for (const char *text : {"", "a", "abcdef"}) {
        EXPECT_EQ(Str_Snprintf(buffer, sizeof buffer, "%s%lc", text, 0x20ac), -1);
        EXPECT_EQ(Str_Asprintf(&length, "%s%lc", text, 0x20ac), nullptr);
    }
}

TEST(StrSnprintf, DoesWithoutABuffer)
{
    EXPECT_EQ(Str_Snprintf(nullptr, 0, "%s", "abc"), -1);
    EXPECT_EQ(Str_Snprintf(nullptr, 10, "%s", "abc"), -1);
}

TEST(StrSnprintf, WritesNothingBeforeAOneByteBuffer)
{
    char bytes[] = "\xc3#";
    EXPECT_EQ(Str_Snprintf(bytes + 1, 1, "x"), -1);
    EXPECT_STREQ(bytes, "\xc3");
}

TEST(StrSnprintf, ReadsNothingBehindItsFormat)
{
    // The compiler must not see the formats, which are cut short.
    int (*const volatile format)(char *, size_t, const char *, ...) = Str_Snprintf;
    for (const std::string text : {"7%", "%1$d%", "%1$d%-", "%1$d%.", "%1$d%I", "%1$d%I6",
                                   "%1$d%ll", "%1$d%2", "%1$d%2$", "%1$d%*", "%1$d%.*2"}) {
        const AtPageEnd place(text + '\0');
        char buffer[8];
        EXPECT_EQ(format(buffer, sizeof buffer, place, 7, 7), 1) << text;
        EXPECT_STREQ(buffer, "7") << text;
    }
}

TEST(StrSnprintf, ReadsStringsOnlyUpToTheirPrecision)
{
    char buffer[8];
    const AtPageEnd bytes("xyz");
    EXPECT_EQ(Str_Snprintf(buffer, sizeof buffer, "%.3s", static_cast<char *>(bytes)), 3);
    EXPECT_STREQ(buffer, "xyz");
    const wchar_t wide[] = {L'a', L'b'};
    const AtPageEnd place(std::string(reinterpret_cast<const char *>(wide), sizeof wide));
    EXPECT_EQ(Str_Snprintf(buffer, sizeof buffer, "%.2ls",
                           reinterpret_cast<wchar_t *>(static_cast<char *>(place))),
              2);
    EXPECT_STREQ(buffer, "ab");
}

TEST(StrSprintf, FillsItsBuffer)
{
    char buffer[] = "#######";
    EXPECT_EQ(Str_Sprintf(buffer, 4, "%s", "abc"), 3);
    EXPECT_STREQ(buffer, "abc");
    EXPECT_EQ(Str_SprintfCLocale(buffer, 5, "%s", "abcd"), 4);
    EXPECT_STREQ(buffer, "abcd");
}

TEST(StrSprintf, KnowsTheLocaleOrNot)
{
    const TemporaryFolder folder;
    const std::string make =
        "localedef -f UTF-8 -i de_DE " + folder.Path() + "/de_DE.UTF-8 >/dev/null 2>&1";
    ASSERT_EQ(system(make.c_str()), 0);
    setenv("LOCPATH", folder.Path().c_str(), 1);
    ASSERT_NE(setlocale(LC_ALL, "de_DE.UTF-8"), nullptr);
    char buffer[32];
    Str_Sprintf(buffer, sizeof buffer, "%.1f %'d", 2.5, 1234);
    EXPECT_STREQ(buffer, "2,5 1.234");
    Str_SprintfCLocale(buffer, sizeof buffer, "%.1f %'d", 2.5, 1234);
    EXPECT_STREQ(buffer, "2.5 1234");
    setlocale(LC_ALL, "C");
    unsetenv("LOCPATH");
}

TEST(StrSprintfDeathTest, EndsTheProcessWhenItDoesNotFit)
{
    char buffer[4];
    EXPECT_PANIC(Str_Sprintf(buffer, sizeof buffer, "%s", "abcd"),
                 "lib/string/str:214 Buffer too small\n");
    EXPECT_PANIC(Str_SprintfCLocale(buffer, sizeof buffer, "%s", "abcd"),
                 "lib/string/str:177 Buffer too small\n");
    EXPECT_PANIC(Str_Sprintf(buffer, sizeof buffer, "%lc", 0x20ac),
                 "lib/string/str:214 Buffer too small\n");
    EXPECT_PANIC(Str_SprintfCLocale(buffer, sizeof buffer, "%lc", 0x20ac),
                 "lib/string/str:177 Buffer too small\n");
}

// A handler of atexit() may print the part of the text that fit.
char sCut[4];
template <typename Format> void CutAndEnd(Format format)
{
    atexit([] { fprintf(stderr, "[%s]", sCut); });
    format(sCut, sizeof sCut, "%s", "ab\xc3\xa9");
}
TEST(StrSprintfDeathTest, LeavesWholeCharactersWhenItEndsTheProcess)
{
    EXPECT_EXIT(CutAndEnd(Str_Sprintf), testing::ExitedWithCode(1),
                testing::EndsWith("lib/string/str:214 Buffer too small\n[ab]"));
    EXPECT_EXIT(CutAndEnd(Str_SprintfCLocale), testing::ExitedWithCode(1),
                testing::EndsWith("lib/string/str:177 Buffer too small\n[ab]"));
}

// ---- Formatting into a new string

// The child that ends writes to memory that it shares with its parent.
TEST(StrSprintfDeathTest, HasNoLimitForASizeOfNothing)
{
    constexpr size_t SIZE = 4096;
    void *block = mmap(nullptr, SIZE, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(block, MAP_FAILED);
    char *volatile place = strcpy(static_cast<char *>(block), "#######"); // the size is a lie
    EXPECT_PANIC(Str_Sprintf(place, 0, "%s", "abc"), "lib/string/str:214 Buffer too small\n");
    EXPECT_STREQ(place, "abc####");
    EXPECT_PANIC(Str_SprintfCLocale(place, 0, "%s", "12345"),
                 "lib/string/str:177 Buffer too small\n");
    EXPECT_STREQ(place, "12345##");
    munmap(block, SIZE);
}

TEST(StrAsprintf, TellsTheLength)
{
    size_t length = 0;
    EXPECT_EQ(Take(Str_Asprintf(&length, "%s%s", "/opt/p", "/Contents")), "/opt/p/Contents");
    EXPECT_EQ(length, 15u);
    EXPECT_EQ(Take(Str_SafeAsprintf(&length, "%s", "text")), "text");
    EXPECT_EQ(length, 4u);
    EXPECT_EQ(Take(Vasprintf(&length, "%d", 12)), "12");
    EXPECT_EQ(length, 2u);
    EXPECT_EQ(Take(SafeVasprintf(&length, "%d", 123)), "123");
    EXPECT_EQ(length, 3u);
}

TEST(StrAsprintf, NeedsNoPlaceForTheLength)
{
    EXPECT_EQ(Take(Str_Asprintf(nullptr, "%s", "text")), "text");
    EXPECT_EQ(Take(Vasprintf(nullptr, "%s", "text")), "text");
    EXPECT_EQ(Take(Str_SafeAsprintf(nullptr, "%s", "text")), "text");
    EXPECT_EQ(Take(SafeVasprintf(nullptr, "%s", "text")), "text");
}

TEST(StrAsprintf, FormatsNothing)
{
    size_t length = 1;
    EXPECT_EQ(Take(Str_Asprintf(&length, "%s", "")), "");
    EXPECT_EQ(length, 0u);
}

TEST(StrAsprintf, GivesNothingWhenItFails)
{
    size_t length = 7;
    EXPECT_EQ(Str_Asprintf(&length, "%lc", 0x20ac), nullptr);
    const OutOfMemory none;
    EXPECT_EQ(Str_Asprintf(&length, "text"), nullptr);
    EXPECT_EQ(length, 7u) << "a failure stores no length";
}

TEST(StrAsprintfDeathTest, EndsTheProcessWhereItIsSafe)
{
    EXPECT_PANIC(Str_SafeAsprintf(nullptr, "%lc", 0x20ac), "VERIFY lib/string/str:657\n");
    EXPECT_PANIC(SafeVasprintf(nullptr, "%lc", 0x20ac), "VERIFY lib/string/str:657\n");
}

// ---- Copying

TEST(StrStrcpy, CopiesWhatFits)
{
    char buffer[10];
    EXPECT_EQ(Str_Strcpy(buffer, "123456789", sizeof buffer), buffer);
    EXPECT_STREQ(buffer, "123456789");
    Str_Strcpy(buffer, "", 1);
    EXPECT_STREQ(buffer, "");
}

TEST(StrStrcpyDeathTest, EndsTheProcessWhenItDoesNotFit)
{
    char buffer[10];
    EXPECT_PANIC(Str_Strcpy(buffer, "1234567890", sizeof buffer),
                 "lib/string/str:284 Buffer too small\n");
    EXPECT_PANIC(Str_Strcpy(buffer, "", 0), "lib/string/str:284 Buffer too small\n");
}

TEST(StrStrncpy, CopiesAtMostSoManyBytes)
{
    char buffer[8];
    EXPECT_EQ(Str_Strncpy(buffer, 4, "abcdef", 3), buffer);
    EXPECT_STREQ(buffer, "abc");
    Str_Strncpy(buffer, sizeof buffer, "abc", 100);
    EXPECT_STREQ(buffer, "abc") << "the source may be shorter";
    Str_Strncpy(buffer, 1, "abc", 0);
    EXPECT_STREQ(buffer, "");
    const AtPageEnd unterminated("xyz");
    Str_Strncpy(buffer, sizeof buffer, unterminated, 3);
    EXPECT_STREQ(buffer, "xyz");
}

TEST(StrCopying, WritesNothingBehindTheNul)
{
    const auto filled = [](const auto &write) {
        std::string bytes(20, '#');
        bytes[0] = '\0'; // an empty string, to append to
        write(bytes.data());
        return bytes;
    };
    const std::string expected = "abc" + std::string(1, '\0') + std::string(16, '#');
    EXPECT_EQ(filled([](char *to) { Str_Strcpy(to, "abc", 20); }), expected);
    EXPECT_EQ(filled([](char *to) { Str_Strncpy(to, 20, "abcdef", 3); }), expected);
    EXPECT_EQ(filled([](char *to) { Str_Strncpy(to, 20, "abc", 10); }), expected);
    EXPECT_EQ(filled([](char *to) { Str_Strcat(to, "abc", 20); }), expected);
    EXPECT_EQ(filled([](char *to) { Str_Strncat(to, 20, "abc", 10); }), expected);
    EXPECT_EQ(filled([](char *to) { Str_Snprintf(to, 20, "abc"); }), expected);
    EXPECT_EQ(filled([](char *to) { Str_Sprintf(to, 20, "abc"); }), expected);
}

TEST(StrStrncpyDeathTest, EndsTheProcessWhenItDoesNotFit)
{
    char buffer[8];
    EXPECT_PANIC(Str_Strncpy(buffer, 3, "abcdef", 3), "lib/string/str:322 Buffer too small\n");
    EXPECT_PANIC(Str_Strncpy(buffer, 3, "abc", SIZE_MAX), "lib/string/str:322 Buffer too small\n");
}

TEST(StrStrcat, AppendsWhatFits)
{
    char buffer[8] = "ab";
    EXPECT_EQ(Str_Strcat(buffer, "cdefg", sizeof buffer), buffer);
    EXPECT_STREQ(buffer, "abcdefg");
}

TEST(StrStrcatDeathTest, EndsTheProcessWhenItDoesNotFit)
{
    char buffer[8] = "ab";
    EXPECT_PANIC(Str_Strcat(buffer, "cdefgh", sizeof buffer),
                 "lib/string/str:444 Buffer too small\n");
    EXPECT_PANIC(Str_Strcat(buffer, "", 2), "lib/string/str:444 Buffer too small\n");
    const std::unique_ptr<char[]> unterminated(new char[2]{'a', 'b'});
    EXPECT_PANIC(Str_Strcat(unterminated.get(), "", 2), "lib/string/str:444 Buffer too small\n");
}

TEST(StrStrncat, AppendsAtMostSoManyBytes)
{
    char buffer[8] = "ab";
    EXPECT_EQ(Str_Strncat(buffer, 5, "cdef", 2), buffer);
    EXPECT_STREQ(buffer, "abcd");
    Str_Strncat(buffer, sizeof buffer, "efg", 1000);
    EXPECT_STREQ(buffer, "abcdefg") << "a large n does not matter when the source is short";
    Str_Strncat(buffer, sizeof buffer, "", SIZE_MAX);
    EXPECT_STREQ(buffer, "abcdefg");
    strcpy(buffer, "ab");
    const AtPageEnd unterminated("xyz");
    Str_Strncat(buffer, sizeof buffer, unterminated, 3);
    EXPECT_STREQ(buffer, "abxyz");
}

TEST(StrStrncatDeathTest, EndsTheProcessWhenItDoesNotFit)
{
    char buffer[8] = "ab";
    EXPECT_PANIC(Str_Strncat(buffer, 5, "cdef", 3), "lib/string/str:498 Buffer too small\n");
    EXPECT_PANIC(Str_Strncat(buffer, 5, "cde", SIZE_MAX), "lib/string/str:498 Buffer too small\n");
    EXPECT_PANIC(Str_Strncat(buffer, 2, "", 0), "lib/string/str:498 Buffer too small\n");
    memset(buffer, 'x', sizeof buffer);
    EXPECT_PANIC(Str_Strncat(buffer, 4, "c", 1), "lib/string/str:498 Buffer too small\n");
}

// ---- Searching and measuring

TEST(StrStrlen, StopsAtTheMaximum)
{
    EXPECT_EQ(Str_Strlen("abc", 10), 3u);
    EXPECT_EQ(Str_Strlen("abc", 3), 3u);
    EXPECT_EQ(Str_Strlen("abc", 2), 2u);
    EXPECT_EQ(Str_Strlen("abc", 0), 0u);
    EXPECT_EQ(Str_Strlen("", 5), 0u);
    const AtPageEnd unterminated("xyz");
    EXPECT_EQ(Str_Strlen(unterminated, 3), 3u);
}

TEST(StrStrnstr, FindsTheFirstPlace)
{
    const char *text = "abcabcd";
    EXPECT_EQ(Str_Strnstr(text, "abcd", 7), text + 3);
    EXPECT_EQ(Str_Strnstr(text, "abc", 7), text);
    EXPECT_EQ(Str_Strnstr(text, "d", 7), text + 6);
    EXPECT_EQ(Str_Strnstr(text, "x", 7), nullptr);
    EXPECT_EQ(Str_Strnstr(text, "abcabcde", 100), nullptr);
}

TEST(StrStrnstr, LooksNoFurtherThanItMay)
{
    const char *text = "abcabcd";
    EXPECT_EQ(Str_Strnstr(text, "abcd", 6), nullptr);
    EXPECT_EQ(Str_Strnstr(text, "a", 0), nullptr);
    EXPECT_EQ(Str_Strnstr("ab\0cd", "cd", 5), nullptr) << "nor behind the NUL";
    EXPECT_EQ(Str_Strnstr(text, "abc", SIZE_MAX), text);
    const AtPageEnd unterminated("aab");
    EXPECT_EQ(Str_Strnstr(unterminated, "ab", 3), unterminated + 1);
    EXPECT_EQ(Str_Strnstr(unterminated, "bc", 3), nullptr);
}

TEST(StrStrnstr, FindsAnEmptyNeedleAtTheStart)
{
    const char *text = "abc";
    EXPECT_EQ(Str_Strnstr(text, "", 3), text);
    EXPECT_EQ(Str_Strnstr(text, "", 0), text);
    EXPECT_EQ(Str_Strnstr("", "", 0), std::string());
}

TEST(StrStrnstr, FindsWhatAPlainSearchFinds)
{
    std::mt19937 random(1);
    for (int i = 0; i < 20000; i++) {
        std::string text, needle;
        for (size_t length = random() % 12; length > 0; length--) {
            text += "ab"[random() % 2];
        }
        for (size_t length = random() % 4; length > 0; length--) {
            needle += "ab"[random() % 2];
        }
        const size_t limit = random() % 14;
        const size_t wanted = text.substr(0, std::min(limit, text.size())).find(needle);
        const char *found = Str_Strnstr(text.c_str(), needle.c_str(), limit);
        EXPECT_EQ(found == nullptr ? std::string::npos : size_t(found - text.c_str()), wanted)
            << text << " " << needle << " " << limit;
    }
}

// ---- Case

TEST(StrCase, ChangesAsciiLettersOnly)
{
    std::string all, lower, upper;
    for (int c = 1; c < 256; c++) {
        all += static_cast<char>(c);
        lower += static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
        upper += static_cast<char>(c >= 'a' && c <= 'z' ? c - 32 : c);
    }
    std::string text = all;
    EXPECT_EQ(Str_ToLower(text.data()), text.data());
    EXPECT_EQ(text, lower);
    text = all;
    EXPECT_EQ(Str_ToUpper(text.data()), text.data());
    EXPECT_EQ(text, upper);
}

} // namespace
