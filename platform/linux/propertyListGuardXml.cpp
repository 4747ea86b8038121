// propertyListGuardXml.cpp -- a parser for the XML form that builds nothing.
// Every byte of the text must be part of the grammar: prolog, one value (inside <plist> or not),
// comments and blanks.  <plist> may have attributes, which say nothing; those of other elements, a
// DTD inside the file and processing instructions are refused.
#include "propertyListGuard.h"

#include "cfTypes.h"

#include <algorithm>
#include <array>

namespace pelago::platform {

namespace {

using Fault = PropertyListFault;

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }
bool IsDigit(char c) { return c >= '0' && c <= '9'; }
char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c; }

int HexDigit(char c)
{
    if (IsDigit(c)) { return c - '0'; }
    const char lower = Lower(c);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

std::string_view Trimmed(std::string_view text)
{
    while (!text.empty() && IsBlank(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && IsBlank(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

bool EqualsIgnoringCase(std::string_view text, std::string_view lowerCase)
{
    return std::equal(text.begin(), text.end(), lowerCase.begin(), lowerCase.end(),
                      [](char one, char other) { return Lower(one) == other; });
}

bool TakePrefix(std::string_view *text, std::string_view prefix)
{
    if (!text->starts_with(prefix)) { return false; }
    text->remove_prefix(prefix.size());
    return true;
}

// The number of digits taken.
size_t TakeDigits(std::string_view *text)
{
    size_t count = 0;
    while (count < text->size() && IsDigit((*text)[count])) {
        count++;
    }
    text->remove_prefix(count);
    return count;
}

// A sign takes its place in front of the digits of either base; the value fits 64 bits, signed
// when negative.  A leading zero of a decimal number is refused: libplist takes it for octal.
bool IsInteger(std::string_view text)
{
    const bool isNegative = TakePrefix(&text, "-");
    if (!isNegative) { TakePrefix(&text, "+"); }
    const unsigned base = TakePrefix(&text, "0x") || TakePrefix(&text, "0X") ? 16 : 10;
    if (text.empty() || (base == 10 && text.size() > 1 && text[0] == '0')) { return false; }
    const uint64_t limit = isNegative ? uint64_t{1} << 63 : UINT64_MAX;
    uint64_t value = 0;
    for (char c : text) {
        const int digit = base == 16 || IsDigit(c) ? HexDigit(c) : -1;
        if (digit < 0 || value > (limit - static_cast<unsigned>(digit)) / base) { return false; }
        value = value * base + static_cast<unsigned>(digit);
    }
    return true;
}

bool IsReal(std::string_view text)
{
    if (!TakePrefix(&text, "-")) { TakePrefix(&text, "+"); }
    for (const char *name : {"nan", "inf", "infinity"}) {
        if (EqualsIgnoringCase(text, name)) { return true; }
    }
    size_t digits = TakeDigits(&text);
    if (TakePrefix(&text, ".")) { digits += TakeDigits(&text); }
    if (digits == 0) { return false; }
    if (TakePrefix(&text, "e") || TakePrefix(&text, "E")) {
        if (!TakePrefix(&text, "-")) { TakePrefix(&text, "+"); }
        if (TakeDigits(&text) == 0) { return false; }
    }
    return text.empty();
}

int DaysIn(int year, int month)
{
    constexpr int DAYS[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    const bool isLeap = year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
    return month == 2 && isLeap ? 29 : DAYS[month - 1];
}

// "2001-01-01T00:00:00Z", and a real one: libplist would make the 30th of February a day in March.
bool IsDate(std::string_view text)
{
    constexpr std::string_view SHAPE = "dddd-dd-ddTdd:dd:ddZ";
    if (text.size() != SHAPE.size()) { return false; }
    for (size_t i = 0; i < SHAPE.size(); i++) {
        if (SHAPE[i] == 'd' ? !IsDigit(text[i]) : text[i] != SHAPE[i]) { return false; }
    }
    const auto number = [&](size_t at, size_t digits) {
        int value = 0;
        for (char c : text.substr(at, digits)) {
            value = value * 10 + (c - '0');
        }
        return value;
    };
    const int year = number(0, 4), month = number(5, 2), day = number(8, 2);
    return month >= 1 && month <= 12 && day >= 1 && day <= DaysIn(year, month) &&
           number(11, 2) < 24 && number(14, 2) < 60 && number(17, 2) < 60;
}

bool IsBase64(std::string_view text)
{
    constexpr size_t MAX_PADDING = 2, GROUP = 4;
    size_t count = 0, padding = 0;
    for (char c : text) {
        if (IsBlank(c)) { continue; }
        const bool isPadding = c == '=';
        const bool isDigit =
            IsDigit(c) || (Lower(c) >= 'a' && Lower(c) <= 'z') || c == '+' || c == '/';
        if (!isPadding && (!isDigit || padding > 0)) { return false; }
        padding += isPadding;
        count++;
    }
    return padding <= MAX_PADDING && count % GROUP == 0;
}

// What stands between '&' and ';'.
bool IsReference(std::string_view name)
{
    constexpr std::array<std::string_view, 5> NAMED = {"lt", "gt", "amp", "quot", "apos"};
    if (std::find(NAMED.begin(), NAMED.end(), name) != NAMED.end()) { return true; }
    if (!TakePrefix(&name, "#")) { return false; }
    const unsigned base = TakePrefix(&name, "x") ? 16 : 10;
    constexpr size_t MAX_DIGITS = 7; // enough for every code point, and no overflow
    if (name.empty() || name.size() > MAX_DIGITS) { return false; }
    unsigned code = 0;
    for (char c : name) {
        const int digit = base == 16 || IsDigit(c) ? HexDigit(c) : -1;
        if (digit < 0) { return false; }
        code = code * base + static_cast<unsigned>(digit);
    }
    return code != 0 && code <= 0x10FFFF && (code < 0xD800 || code > 0xDFFF);
}

enum class Element { Plist, Dict, Array, Key, String, Data, Date, Integer, Real, True, False };

struct ElementName {
    std::string_view name;
    Element element;
};
constexpr ElementName ELEMENT_NAMES[] = {
    {"plist", Element::Plist}, {"dict", Element::Dict},       {"array", Element::Array},
    {"key", Element::Key},     {"string", Element::String},   {"data", Element::Data},
    {"date", Element::Date},   {"integer", Element::Integer}, {"real", Element::Real},
    {"true", Element::True},   {"false", Element::False},
};

struct Tag {
    Element element;
    bool isEnd;   // </x>
    bool isWhole; // <x/>
};

class XmlGuard {
public:
    explicit XmlGuard(std::string_view text) : mText(text) {}

    Fault Check()
    {
        if (!TakeProlog() || !TakeBody() || !SkipBlanksAndComments() || !mText.empty()) {
            return mFault;
        }
        return Fault::None;
    }

private:
    struct Level {
        Element element;
        bool hasKey = false;   // a dictionary that waits for its key's value
        bool hasValue = false; // a <plist> that holds its one value
    };

    bool Refuse(Fault fault)
    {
        mFault = fault;
        return false;
    }

    void SkipBlanks()
    {
        while (!mText.empty() && IsBlank(mText.front())) {
            mText.remove_prefix(1);
        }
    }

    // False for a comment that readers disagree about: one that holds "--", or never ends.
    bool SkipBlanksAndComments()
    {
        for (SkipBlanks(); TakePrefix(&mText, "<!--"); SkipBlanks()) {
            const size_t end = mText.find("--");
            if (end == mText.npos || mText.starts_with('>') || mText.starts_with("->")) {
                return false;
            }
            mText.remove_prefix(end);
            if (!TakePrefix(&mText, "-->")) { return false; }
        }
        return true;
    }

    bool TakeProlog()
    {
        SkipBlanks();
        if (mText.starts_with("<?xml")) {
            const size_t end = mText.find("?>");
            const std::string_view declaration = mText.substr(0, end);
            if (end == mText.npos || declaration.find_first_of("<>", 1) != mText.npos) {
                return false;
            }
            if (!IsEncodingSupplied(declaration)) { return Refuse(Fault::Encoding); }
            mText.remove_prefix(end + 2);
        }
        if (!SkipBlanksAndComments()) { return false; }
        if (TakePrefix(&mText, "<!DOCTYPE")) {
            const size_t end = mText.find_first_of("<>[");
            if (end == mText.npos || mText[end] != '>') { return false; }
            mText.remove_prefix(end + 1);
        }
        return SkipBlanksAndComments();
    }

    static bool IsEncodingSupplied(std::string_view declaration)
    {
        constexpr std::string_view ATTRIBUTE = "encoding";
        const size_t at = declaration.find(ATTRIBUTE);
        if (at == declaration.npos) { return true; }
        std::string_view value = Trimmed(declaration.substr(at + ATTRIBUTE.size()));
        if (!TakePrefix(&value, "=")) { return false; }
        value = Trimmed(value);
        if (value.empty() || (value[0] != '"' && value[0] != '\'')) { return false; }
        const size_t end = value.find(value[0], 1);
        if (end == value.npos) { return false; }
        value = value.substr(1, end - 1);
        return EqualsIgnoringCase(value, "utf-8") || EqualsIgnoringCase(value, "us-ascii");
    }

    // Only <plist> may have attributes, and only such as cannot hide a tag's end.
    bool TakeTag(Tag *tag)
    {
        if (!TakePrefix(&mText, "<")) { return false; }
        const size_t end = mText.find_first_of("<>");
        if (end == mText.npos || mText[end] != '>') { return false; }
        std::string_view inner = mText.substr(0, end);
        mText.remove_prefix(end + 1);
        tag->isEnd = TakePrefix(&inner, "/");
        tag->isWhole = inner.ends_with('/');
        if (tag->isWhole) { inner.remove_suffix(1); }
        size_t nameSize = 0;
        while (nameSize < inner.size() && !IsBlank(inner[nameSize])) {
            nameSize++;
        }
        const std::string_view name = inner.substr(0, nameSize);
        const bool isBare = Trimmed(inner.substr(nameSize)).empty();
        for (const ElementName &known : ELEMENT_NAMES) {
            if (known.name != name) { continue; }
            tag->element = known.element;
            return (isBare || (known.element == Element::Plist && !tag->isEnd)) &&
                   !(tag->isEnd && tag->isWhole);
        }
        return false;
    }

    // One value with all that is in it.  The nesting is kept here, not on the stack.
    bool TakeBody()
    {
        do {
            Tag tag;
            if (!SkipBlanksAndComments() || !TakeTag(&tag)) { return false; }
            if (!(tag.isEnd ? Leave(tag.element) : Enter(tag))) { return false; }
        } while (mDepth > 0);
        return true;
    }

    bool Enter(const Tag &tag)
    {
        if (!Place(tag.element)) { return false; }
        if (tag.element == Element::Plist || tag.element == Element::Dict ||
            tag.element == Element::Array) {
            return Push(tag.element) && (!tag.isWhole || Leave(tag.element));
        }
        return tag.isWhole ? TakeNothing(tag.element) : TakeLeaf(tag.element);
    }

    // Is this element allowed where it stands?
    bool Place(Element element)
    {
        if (++mValueCount > PROPERTY_LIST_MAX_XML_VALUES) { return Refuse(Fault::TooManyValues); }
        if (mDepth == 0) { return element != Element::Key; }
        Level &level = mLevels[mDepth - 1];
        if (element == Element::Plist) { return false; }
        if (level.element != Element::Dict) {
            const bool isFirst = !level.hasValue;
            level.hasValue = true;
            return element != Element::Key && (level.element == Element::Array || isFirst);
        }
        if (level.hasKey == (element == Element::Key)) { return false; }
        level.hasKey = !level.hasKey;
        return true;
    }

    bool Push(Element element)
    {
        // <plist> around the root is no level of the tree.
        const size_t above =
            mDepth > 0 && mLevels[0].element == Element::Plist ? mDepth - 1 : mDepth;
        if (above == PROPERTY_LIST_MAX_DEPTH) { return Refuse(Fault::TooDeep); }
        mLevels[mDepth++] = Level{element};
        return true;
    }

    bool Leave(Element element)
    {
        if (mDepth == 0) { return false; }
        const Level &level = mLevels[--mDepth];
        return level.element == element && !level.hasKey &&
               (element != Element::Plist || level.hasValue);
    }

    // <x/>, which for a key libplist does not understand.
    static bool TakeNothing(Element element)
    {
        return element == Element::String || element == Element::Data || element == Element::True ||
               element == Element::False;
    }

    bool TakeLeaf(Element element)
    {
        if (element == Element::Key || element == Element::String) { return TakeText(element); }
        const size_t end = mText.find('<');
        if (end == mText.npos) { return false; }
        const std::string_view text = mText.substr(0, end);
        mText.remove_prefix(end);
        return IsLeafText(element, text) && TakeEnd(element);
    }

    static bool IsLeafText(Element element, std::string_view text)
    {
        switch (element) {
        case Element::Data: return IsBase64(text);
        case Element::Date: return IsDate(Trimmed(text));
        case Element::Integer: return IsInteger(Trimmed(text));
        case Element::Real: return IsReal(Trimmed(text));
        default: return text.empty();
        }
    }

    bool TakeText(Element element)
    {
        for (;;) {
            const size_t end = mText.find_first_of("<&");
            if (end == mText.npos) { return false; }
            mText.remove_prefix(end);
            if (TakePrefix(&mText, "&")) {
                const size_t semicolon = mText.find(';');
                if (semicolon == mText.npos || !IsReference(mText.substr(0, semicolon))) {
                    return false;
                }
                mText.remove_prefix(semicolon + 1);
            } else if (TakePrefix(&mText, "<![CDATA[")) {
                const size_t close = mText.find("]]>");
                if (close == mText.npos) { return false; }
                mText.remove_prefix(close + 3);
            } else {
                return TakeEnd(element);
            }
        }
    }

    bool TakeEnd(Element element)
    {
        Tag tag;
        return TakeTag(&tag) && tag.isEnd && tag.element == element;
    }

    std::string_view mText; // what is still to come
    Fault mFault = Fault::Malformed;
    size_t mValueCount = 0;
    size_t mDepth = 0;
    std::array<Level, PROPERTY_LIST_MAX_DEPTH + 1> mLevels{};
};

} // namespace

PropertyListFault PropertyListGuardXml(std::string_view text)
{
    if (text.find('\0') != text.npos) { return Fault::Malformed; }
    if (!CFUtf8UnitCount(text)) { return Fault::Encoding; }
    return XmlGuard(text).Check();
}

} // namespace pelago::platform
