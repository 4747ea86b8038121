// Compares the library's checks of IP addresses with a plain reader, which reads them part by part.
#include "util.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr size_t GROUPS = 8;

void Expect(bool isSo)
{
    if (!isSo) { abort(); }
}

std::vector<std::string_view> Split(std::string_view text, std::string_view separator)
{
    std::vector<std::string_view> parts;
    for (size_t end; (end = text.find(separator)) != text.npos;
         text.remove_prefix(end + separator.size())) {
        parts.push_back(text.substr(0, end));
    }
    parts.push_back(text);
    return parts;
}

// Returns whether the text is a number in the base, within both limits.
bool IsNumber(std::string_view text, int base, size_t mostDigits, unsigned most)
{
    unsigned number = 0;
    const char *end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number, base);
    return error == std::errc() && stop == end && text.size() <= mostDigits && number <= most;
}

bool IsByte(std::string_view text)
{
    return IsNumber(text, 10, 3, 255) && (text.size() == 1 || text[0] != '0');
}

bool IsIPv4(std::string_view text)
{
    const auto parts = Split(text, ".");
    return parts.size() == 4 && std::ranges::all_of(parts, IsByte);
}

// Returns the number of groups in the text, or more than an address has when one is not valid.  An
// IPv4 address at the end counts as two.
size_t CountGroups(std::string_view text, bool isEnd)
{
    if (text.empty()) { return 0; }
    size_t count = 0;
    const auto parts = Split(text, ":");
    for (const std::string_view &part : parts) {
        if (isEnd && &part == &parts.back() && IsIPv4(part)) { return count + 2; }
        if (!IsNumber(part, 16, 4, 0xFFFF)) { return GROUPS + 1; }
        count++;
    }
    return count;
}

bool IsIPv6(std::string_view text)
{
    const size_t gap = text.find("::");
    if (gap == text.npos) { return CountGroups(text, true) == GROUPS; }
    // The gap replaces at least one group.
    return CountGroups(text.substr(0, gap), false) + CountGroups(text.substr(gap + 2), true) <
           GROUPS;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string text(reinterpret_cast<const char *>(data), size);
    const std::string_view string = text.c_str();
    const bool isIPv4 = IsIPv4(string), isIPv6 = IsIPv6(string.substr(0, string.find('%')));
    Expect(Util_IsIPv4Address(text.c_str()) == isIPv4);
    Expect(Util_IsIPv6Address(text.c_str()) == isIPv6);
    Expect(Util_IsIPAddress(text.c_str()) == (isIPv4 || isIPv6));
    return 0;
}
