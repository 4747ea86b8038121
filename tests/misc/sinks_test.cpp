// What a sink may do: these sinks call the library for each message that they receive.
#include "diagnostics.h"

#include "err.h"
#include "inChild.h"
#include "location.h"
#include "posix.h"
#include "str.h"
#include "unicode.h"
#include "util.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

using testing::HasSubstr;

constexpr char ANSWER[] = "No such file or directory 1.50 ISO-8859-1 /";
constexpr int DEEPEST_CALL = 3;

std::string sMessages; // each after the depth of the sink's calls that it came in
int sDepth;

// Returns results of the library, called from inside one of its own messages.
std::string AskTheLibrary()
{
    const int saved = errno;
    char *text = Str_SafeAsprintf(nullptr, "%s %.2f %s", Err_NumberToText(ENOENT), 1.5,
                                  UnicodeIANALookup("latin1") == STRING_ENCODING_ISO_8859_1
                                      ? Unicode_EncodingEnumToName(STRING_ENCODING_ISO_8859_1)
                                      : "");
    Unicode folder = Posix_RealPath("/");
    std::string all = std::string(text) + " " + folder;
    free(folder);
    free(text);
    UnicodeIANALookup("an encoding in a sink"); // warns in turn
    Location_Init("a program in a sink");
    free(Util_ExpandString("$PELAGO_NOT_SET"));
    errno = saved;
    return all;
}

void Take(const char *format, va_list values)
{
    if (sDepth == DEEPEST_CALL) { return; }
    sDepth++;
    char *text = Str_Vasprintf(nullptr, format, values);
    EXPECT_EQ(AskTheLibrary(), ANSWER);
    sMessages += "<" + std::to_string(sDepth) + ">" + text;
    free(text);
    sDepth--;
}

void AtTheEnd() { fprintf(stderr, "atexit: %s\n", AskTheLibrary().c_str()); }

} // namespace

extern "C" {
void __wrap_Pelago_Warning(const char *format, ...)
{
    va_list values;
    va_start(values, format);
    Take(format, values);
    va_end(values);
}
void __wrap_Pelago_Log(const char *format, ...)
{
    va_list values;
    va_start(values, format);
    Take(format, values);
    va_end(values);
}
[[noreturn]] void __wrap_Pelago_Panic(const char *format, ...)
{
    va_list values;
    va_start(values, format);
    vfprintf(stderr, format, values);
    va_end(values);
    fprintf(stderr, "Panic: %s\n", AskTheLibrary().c_str());
    exit(3);
}
}

namespace {

// Returns how many messages came in a first, a second and a third nested call of a sink.
std::string Counts()
{
    size_t counts[DEEPEST_CALL] = {};
    for (int depth = 1; depth <= DEEPEST_CALL; depth++) {
        const std::string mark = "<" + std::to_string(depth) + ">";
        for (size_t at = 0; (at = sMessages.find(mark, at)) != std::string::npos; at++) {
            counts[depth - 1]++;
        }
    }
    return std::to_string(counts[0]) + " " + std::to_string(counts[1]) + " " +
           std::to_string(counts[2]);
}

class Sinks : public testing::Test {
protected:
    void SetUp() override
    {
        sMessages.clear();
        unsetenv("TARVEX_LOCATION_ROOT_FULLPATH");
        unsetenv("PELAGO_NOT_SET");
    }
};

TEST_F(Sinks, MayCallTheLibraryForAWarning)
{
    EXPECT_EQ(UnicodeIANALookup("no encoding"), STRING_ENCODING_UNKNOWN);
    EXPECT_THAT(sMessages, HasSubstr("<1>UnicodeIANALookup: Did not find an IANA match for "
                                     "encoding \"no encoding\"\n"));
    EXPECT_EQ(Counts(), "1 3 9");
}

TEST_F(Sinks, MayCallTheLibraryForALog)
{
    char *expanded = Util_ExpandString("a$PELAGO_NOT_SET");
    EXPECT_STREQ(expanded, "a");
    free(expanded);
    EXPECT_THAT(sMessages, HasSubstr("<1>Environment variable 'PELAGO_NOT_SET' not defined in "));
    EXPECT_EQ(Counts(), "1 3 9");
}

// The initialisation holds its lock while the sink runs.
TEST_F(Sinks, MayCallTheLibraryDuringInitialisation)
{
    const Outcome outcome = InChild([] {
        Unicode_Init();
        return Counts() + " " + sMessages;
    });
    EXPECT_THAT(outcome.result, testing::StartsWith("2 6 18 "));
    EXPECT_THAT(outcome.result, HasSubstr("<1>LocationLastUsed: Failed opening lastLocationUsed."));
    EXPECT_THAT(outcome.result, HasSubstr("<1>LocationGetRoot: Unable to determine the product "));
}

TEST_F(Sinks, MayCallTheLibraryDuringPanicAndExit)
{
    const std::string said =
        std::string("VERIFY lib/x:1\nPanic: ") + ANSWER + "\natexit: " + ANSWER + "\n";
    EXPECT_EXIT(
        {
            atexit(AtTheEnd);
            Panic(UTIL_VERIFY_REPORT, "lib/x", 1);
        },
        testing::ExitedWithCode(3), testing::EndsWith(said));
}

} // namespace
