// Looks up any names one after the other.  Each result is that of a linear search of the table, or
// of an earlier name that was found and differs in case only.
#include "unicode.h"

#include "../tests/unicode/plainLookup.h"
#include "diagnostics.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>

namespace {

int sWarnings;

void Expect(bool isSo)
{
    if (!isSo) { abort(); }
}

std::string InLowerCase(std::string name)
{
    std::ranges::transform(name, name.begin(), [](char byte) {
        return static_cast<char>(tolower(static_cast<unsigned char>(byte)));
    });
    return name;
}

// The rows of the names that were found, by the names in lower case.
using Kept = std::map<std::string, int>;

int ExpectedRow(Kept *kept, const std::string &name)
{
    const std::string lower = InLowerCase(name);
    if (const auto found = kept->find(lower); found != kept->end()) { return found->second; }
    const int row = PlainFindRow(name);
    if (row != PLAIN_NO_ROW) { (*kept)[lower] = row; }
    return row;
}

void ExpectAnswer(Kept *kept, const std::string &name)
{
    const int row = ExpectedRow(kept, name), warnings = sWarnings;
    const StringEncoding encoding = UnicodeIANALookup(name.c_str());
    Expect(encoding == PlainAnswer(row));
    Expect(sWarnings == warnings + (row == PLAIN_NO_ROW ? 1 : 0));
    if (encoding == STRING_ENCODING_UNKNOWN) { return; }
    // The encoding's preferred name can be looked up, too.
    const std::string preferred = Unicode_EncodingEnumToName(encoding);
    const int again = ExpectedRow(kept, preferred);
    Expect(again != PLAIN_NO_ROW && UnicodeIANALookup(preferred.c_str()) == PlainAnswer(again));
}

} // namespace

extern "C" void Warning(const char *, ...) { sWarnings++; }
extern "C" void Log(const char *, ...) {}
extern "C" void Panic(const char *, ...) { abort(); }

// The input is a list of names, each terminated by a line feed or a NUL.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Kept kept;
    const uint8_t *const end = data + size;
    while (data != end) {
        const uint8_t *stop =
            std::find_if(data, end, [](uint8_t byte) { return byte == '\0' || byte == '\n'; });
        ExpectAnswer(&kept, std::string(data, stop));
        data = stop == end ? end : stop + 1;
    }
    Unicode_Shutdown();
    return 0;
}
