// names.cpp -- refuses names that Samba or the host would take for something else.
#include "names.h"

#include "report.h"

#include "utf.h"

#include <algorithm>
#include <clocale>
#include <cwctype>
#include <optional>

using namespace pelago;

namespace {

constexpr size_t MAX_USER_NAME = 32;
constexpr size_t MAX_SHARE_NAME = 80; // UTF-16 units, the limit of SMB
constexpr char REFUSED_CHARACTERS[] = "%<>*?|/\\+=;:\",[]";
// Sections of smb.conf that have a special meaning, in the singular and the plural, both of which
// Samba accepts, and shares that Samba or Windows makes itself.
constexpr std::string_view RESERVED_NAMES[] = {".",      "..",       "global",   "globals", "home",
                                               "homes",  "printer",  "printers", "print$",  "ipc$",
                                               "admin$", "netlogon", "sysvol"};

bool IsBlank(char byte) { return byte == ' ' || (byte >= '\t' && byte <= '\r'); }
bool IsControl(char byte) { return static_cast<unsigned char>(byte) < 0x20 || byte == 0x7F; }

// Returns the name as Samba compares names of sections: folded, and without white space.
std::string Squeezed(std::string_view name)
{
    std::string result = Folded(name);
    std::erase_if(result, IsBlank);
    return result;
}

// Converts all of source; nullopt when it is not valid.  Each of its units gives at most
// unitsPerUnit.
template <typename Target, typename Source, typename Convert>
std::optional<Target> Converted(const Source &source, size_t unitsPerUnit, const Convert &convert)
{
    Target target(source.size() * unitsPerUnit, 0);
    auto *from = source.data();
    auto *to = target.data();
    const bool isDone =
        convert(&from, from + source.size(), &to, to + target.size(), false) == UtfResult::Done;
    target.resize(static_cast<size_t>(to - target.data()));
    return isDone ? std::optional(target) : std::nullopt;
}

using Utf8Text = std::basic_string<uint8_t>;
using Utf16Text = std::basic_string<uint16_t>;

std::optional<Utf16Text> ToUtf16(std::string_view utf8)
{
    // UTF-16 never has more units than UTF-8 has bytes.
    return Converted<Utf16Text>(Utf8Text(utf8.begin(), utf8.end()), 1, Utf8ToUtf16);
}

std::string ToUtf8(const Utf16Text &units)
{
    const std::optional<Utf8Text> utf8 = Converted<Utf8Text>(units, 3, Utf16ToUtf8);
    return utf8 ? std::string(utf8->begin(), utf8->end()) : std::string();
}

// Returns the C library's tables of letters.  The locale C.UTF-8 comes with the library.
locale_t Letters()
{
    static const locale_t letters = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    if (letters == nullptr) { Fail("this host lacks the locale C.UTF-8"); }
    return letters;
}

} // namespace

bool IsUtf8(std::string_view text) { return ToUtf16(text).has_value(); }

std::string Folded(std::string_view name)
{
    std::optional<Utf16Text> units = ToUtf16(name);
    if (!units) { Fail("not valid UTF-8: " + Quoted(name)); }
    for (uint16_t &unit : *units) {
        // To the capital letter and then to the small one, because several small letters share a
        // capital.  As in Samba's own tables, characters of two units have no case.
        unit = static_cast<uint16_t>(towlower_l(towupper_l(unit, Letters()), Letters()));
    }
    return ToUtf8(*units);
}

bool IsSidLike(std::string_view name)
{
    const std::string folded = Folded(name);
    return folded.starts_with("s-") && folded.size() > 2 && folded[2] >= '0' && folded[2] <= '9';
}

void CheckUserName(const std::string &name)
{
    const auto isStart = [](char c) { return (c >= 'a' && c <= 'z') || c == '_'; };
    const auto isLater = [&](char c) {
        return isStart(c) || (c >= '0' && c <= '9') || c == '.' || c == '-';
    };
    if (name.empty() || !isStart(name[0]) || !std::all_of(name.begin(), name.end(), isLater)) {
        Fail("not a user name (a-z, 0-9, _ . - and first a-z or _): " + Quoted(name));
    }
    if (name.size() > MAX_USER_NAME) {
        Fail("a user name has at most 32 characters: " + Quoted(name));
    }
    if (IsSidLike(name)) { Fail("not a user name, for Samba takes it for a SID: " + Quoted(name)); }
}

// Samba checks none of this itself.  A share named like a special section would change the whole
// server, and a name that is too long makes every registry share of the host unreadable.
void CheckShareName(const std::string &name)
{
    if (name.empty()) { Fail("the share name is empty"); }
    if (!IsUtf8(name)) { Fail("the share name is not valid UTF-8"); }
    if (std::any_of(name.begin(), name.end(), IsControl)) {
        Fail("the share name holds a control character");
    }
    if (name.front() == ' ' || name.back() == ' ') {
        Fail("the share name begins or ends with a blank: " + Quoted(name));
    }
    if (ToUtf16(name)->size() > MAX_SHARE_NAME) {
        Fail("the share name is longer than 80 characters");
    }
    if (name.find("  ") != std::string::npos) {
        Fail("the share name holds two blanks in a row: " + Quoted(name));
    }
    if (name.find_first_of(REFUSED_CHARACTERS) != std::string::npos) {
        Fail("the share name holds one of % < > * ? | / \\ + = ; : \" , [ ]: " + Quoted(name));
    }
    const std::string squeezed = Squeezed(name);
    if (std::ranges::find(RESERVED_NAMES, squeezed) != std::end(RESERVED_NAMES)) {
        Fail("the share name is reserved: " + Quoted(name));
    }
}
