// Tests of strings, and of the names of encodings, without memory.
#include "noMemory.h"

#include "codeset.h"
#include "unicode.h"
#include "useIcu.h"

#include <algorithm>
#include <functional>

#include <unicode/putil.h>

namespace {

using namespace std::string_literals;

// Makes the attempt without ICU.  The names that conversions then look up are cached before the
// attempt, and dropped after it.
bool WithNames(const std::function<bool()> &attempt)
{
    CodeSet_DontUseIcu();
    for (const char *name : {"UTF-8", "UTF-16LE", "UTF-16BE", "ASCII"}) {
        EXPECT_NE(UnicodeIANALookup(name), STRING_ENCODING_UNKNOWN);
    }
    const bool succeeded = attempt();
    Unicode_Shutdown();
    return succeeded;
}

bool WithIcu(const std::function<bool()> &attempt)
{
    UseIcu();
    const bool succeeded = attempt();
    CodeSet_DontUseIcu();
    u_setDataDirectory(nullptr); // releases ICU's copy
    return succeeded;
}

const std::string AB_16 = "a\0b\0"s, AB_16_TERMINATED = "a\0b\0\0\0"s;
constexpr StringEncoding LE = STRING_ENCODING_UTF_16LE, BE = STRING_ENCODING_UTF_16BE;

// ---- Encodings and their names

RUNS_OUT(UnicodeIANALookup, PANICS)
{
    const bool found =
        Scarcely([] { return UnicodeIANALookup("iso 8859-1"); }) == STRING_ENCODING_ISO_8859_1;
    Unicode_Shutdown();
    return found;
}

NEEDS_NO_MEMORY_WHEN(UnicodeIANALookup, OfANameThatIsKept)
{
    return WithNames([] {
        return Scarcely([] { return UnicodeIANALookup("UTF-8"); }) == STRING_ENCODING_UTF_8;
    });
}

NEEDS_NO_MEMORY(Unicode_Shutdown)
{
    UnicodeIANALookup("UTF-8");
    Scarcely([] { Unicode_Shutdown(); });
    return true;
}

RUNS_OUT(Unicode_LookUpCurrentEncoding, PANICS)
{
    const StringEncoding current = Scarcely([] { return Unicode_LookUpCurrentEncoding(); });
    Unicode_Shutdown();
    return current == STRING_ENCODING_UTF_8;
}

RUNS_OUT(Unicode_GetCurrentEncoding, PANICS)
{
    const StringEncoding current = Scarcely([] { return Unicode_GetCurrentEncoding(); });
    Unicode_Shutdown();
    return current == STRING_ENCODING_UTF_8;
}

RUNS_OUT(Unicode_ResolveEncoding, PANICS)
{
    const StringEncoding resolved =
        Scarcely([] { return Unicode_ResolveEncoding(STRING_ENCODING_DEFAULT); });
    Unicode_Shutdown();
    return resolved == STRING_ENCODING_UTF_8;
}

RUNS_OUT(Unicode_FindEncoding, PANICS)
{
    const bool found =
        Scarcely([] { return Unicode_FindEncoding("latin1"); }) == STRING_ENCODING_ISO_8859_1;
    Unicode_Shutdown();
    return found;
}

NEEDS_NO_MEMORY(Unicode_EncodingEnumToName)
{
    return Scarcely([] { return Unicode_EncodingEnumToName(LE); }) == "UTF-16LE"s;
}

NEEDS_NO_MEMORY(Unicode_IsEncodingValid)
{
    return Scarcely([] { return Unicode_IsEncodingValid(LE); });
}

// ---- Strings from bytes

bool AllocatesAb()
{
    return Gives("ab", Scarcely([] { return Unicode_AllocWithLength(AB_16.data(), 4, LE); }));
}

RUNS_OUT(Unicode_AllocWithLength, Unconverted("a\\x00b\\x00", "UTF-16LE"))
{
    return WithIcu(AllocatesAb);
}
RUNS_OUT_WHEN(Unicode_AllocWithLength, WithoutIcu, Unconverted("a\\x00b\\x00", "UTF-16LE"))
{
    return WithNames(AllocatesAb);
}

bool AllocatesValid(const char *bytes, StringEncoding encoding)
{
    errno = 0;
    const bool succeeded =
        Gives("ab", Scarcely([&] { return Unicode_AllocIfValid(bytes, -1, encoding); }));
    EXPECT_EQ(errno, succeeded ? 0 : ENOMEM);
    return succeeded;
}

RUNS_OUT(Unicode_AllocIfValid, FAILS) { return AllocatesValid("ab", STRING_ENCODING_UTF_8); }
RUNS_OUT_WHEN(Unicode_AllocIfValid, InAscii, FAILS)
{
    return AllocatesValid("ab", STRING_ENCODING_ASCII);
}

RUNS_OUT_WHEN(Unicode_AllocIfValid, InUtf16, FAILS)
{
    return WithNames([] { return AllocatesValid(AB_16_TERMINATED.c_str(), LE); });
}
RUNS_OUT_WHEN(Unicode_AllocIfValid, WithIcu, FAILS)
{
    return WithIcu([] { return AllocatesValid(AB_16_TERMINATED.c_str(), LE); });
}

bool EndsWithNull(char **list)
{
    const bool isSo = list[1] == nullptr;
    free(list[0]);
    free(list);
    return isSo;
}

RUNS_OUT(Unicode_AllocList, PANICS, Unconverted("a\\x00b\\x00", "UTF-16LE"))
{
    return WithNames([] {
        std::string text = AB_16_TERMINATED;
        char *list[] = {text.data(), nullptr};
        return EndsWithNull(Scarcely([&] { return Unicode_AllocList(list, -1, LE); }));
    });
}

RUNS_OUT(Unicode_AllocFromEscapedAscii, PANICS, Unconverted("a\\x00b\\x00", "UTF-16LE"))
{
    return WithNames([] {
        return Gives("ab",
                     Scarcely([] { return Unicode_AllocFromEscapedAscii("a\\u0062", true); }));
    });
}

RUNS_OUT_WHEN(Unicode_AllocFromEscapedAscii, WithoutEscapes, PANICS)
{
    return Gives("a\\", Scarcely([] { return Unicode_AllocFromEscapedAscii("a\\", false); }));
}

RUNS_OUT(Unicode_Duplicate, PANICS)
{
    return Gives("ab", Scarcely([] { return Unicode_Duplicate("ab"); }));
}

// ---- Bytes from strings

const Ending NOT_GOT = Panics("NOT_IMPLEMENTED lib/unicode/unicodeSimpleBase:741\n");
const Ending NOT_COPIED = Panics("NOT_IMPLEMENTED lib/unicode/unicodeSimpleBase:554\n");

bool GetsBytes(StringEncoding encoding, const std::string &expected)
{
    size_t size = 77;
    char *bytes =
        Scarcely([&] { return Unicode_GetAllocBytesWithLength("ab", encoding, -1, &size); });
    EXPECT_EQ(size, bytes == nullptr ? 77 : expected.size());
    if (bytes == nullptr) { return false; }
    EXPECT_EQ(std::string(bytes, size), expected);
    free(bytes);
    return true;
}

RUNS_OUT(Unicode_GetAllocBytesWithLength, FAILS)
{
    return WithIcu([] { return GetsBytes(BE, "\0a\0b"s); });
}
RUNS_OUT_WHEN(Unicode_GetAllocBytesWithLength, InUtf16, NOT_GOT)
{
    return WithNames([] { return GetsBytes(LE, AB_16); });
}
RUNS_OUT_WHEN(Unicode_GetAllocBytesWithLength, InUtf8, PANICS)
{
    return GetsBytes(STRING_ENCODING_UTF_8, "ab");
}
RUNS_OUT_WHEN(Unicode_GetAllocBytesWithLength, InAscii, PANICS)
{
    return GetsBytes(STRING_ENCODING_ASCII, "ab");
}

RUNS_OUT(Unicode_GetAllocBytes, PANICS)
{
    return Gives("ab", Scarcely([] { return Unicode_GetAllocBytes("ab", STRING_ENCODING_ASCII); }));
}

// The call frees the buffers that it made before the failure.
RUNS_OUT(Unicode_GetAllocList, PANICS, FAILS)
{
    return WithIcu([] {
        std::string text = "ab";
        char *list[] = {text.data(), text.data()};
        char **buffers = Scarcely([&] { return Unicode_GetAllocList(list, 2, BE); });
        if (buffers == nullptr) { return false; }
        std::for_each(buffers, buffers + 2, free);
        free(buffers);
        return true;
    });
}

bool CopiesBytes(StringEncoding encoding, const std::string &expected)
{
    char out[8] = "xxxxxxx";
    size_t size = 77;
    const bool fit =
        Scarcely([&] { return Unicode_CopyBytes(out, "ab", sizeof out, &size, encoding); });
    EXPECT_EQ(size, fit ? expected.size() : 0);
    const std::string nothing = "\0xxx"s; // only a terminator
    EXPECT_EQ(std::string(out, expected.size()), fit ? expected : nothing);
    return fit;
}

RUNS_OUT(Unicode_CopyBytes, FAILS)
{
    return WithIcu([] { return CopiesBytes(BE, "\0a\0b"s); });
}
RUNS_OUT_WHEN(Unicode_CopyBytes, InUtf16, NOT_COPIED)
{
    return WithNames([] { return CopiesBytes(LE, AB_16); });
}
NEEDS_NO_MEMORY_WHEN(Unicode_CopyBytes, InUtf8OrAscii)
{
    return CopiesBytes(STRING_ENCODING_UTF_8, "ab") && CopiesBytes(STRING_ENCODING_ASCII, "ab");
}

RUNS_OUT(Unicode_CanGetBytesWithEncoding, FAILS)
{
    return WithIcu(
        [] { return Scarcely([] { return Unicode_CanGetBytesWithEncoding("ab", BE); }); });
}

// ---- Questions

NEEDS_NO_MEMORY(Unicode_IsBufferValid)
{
    return Scarcely([] {
        return Unicode_IsBufferValid("ab", -1, STRING_ENCODING_UTF_8) &&
               Unicode_IsBufferValid("ab", -1, STRING_ENCODING_ASCII);
    });
}

NEEDS_NO_MEMORY_WHEN(Unicode_IsBufferValid, InUtf16le)
{
    return WithNames(
        [] { return Scarcely([] { return Unicode_IsBufferValid(AB_16.data(), 4, LE); }); });
}

NEEDS_NO_MEMORY_WHEN(Unicode_IsBufferValid, InUtf16be)
{
    return WithNames([] {
        return Scarcely(
            [] { return Unicode_IsBufferValid("\0a\0b", 4, STRING_ENCODING_UTF_16BE); });
    });
}

RUNS_OUT_WHEN(Unicode_IsBufferValid, WithIcu, Panics("VERIFY lib/misc/codeset:1723\n"))
{
    return WithIcu(
        [] { return Scarcely([] { return Unicode_IsBufferValid(AB_16.data(), 4, LE); }); });
}

NEEDS_NO_MEMORY(Unicode_IsStringValidUtf8)
{
    return Scarcely([] { return Unicode_IsStringValidUtf8("ab"); });
}

NEEDS_NO_MEMORY(Unicode_LengthInBytes)
{
    return Scarcely([] { return Unicode_LengthInBytes("ab"); }) == 2;
}

NEEDS_NO_MEMORY(Unicode_BytesRequired)
{
    return Scarcely([] { return Unicode_BytesRequired("abc", LE); }) == 26;
}

RUNS_OUT(Unicode_EscapeBuffer, FAILS)
{
    return Gives(Times(500, "a\\xFF"), Scarcely([] {
                     return Unicode_EscapeBuffer(Times(500, "a\xff").data(), 1000,
                                                 STRING_ENCODING_UTF_8);
                 }));
}

} // namespace
