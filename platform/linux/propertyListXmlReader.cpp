// propertyListXmlReader.cpp -- reads the XML form.  expat parses XML; this source checks the
// elements of a property list.  Attributes of <plist> are ignored.  Attributes of other elements, a
// DTD inside the file, entities that XML does not define, and processing instructions are refused.
#include "propertyListForms.h"

#include "cfTypes.h"

#include <expat.h>

#include <algorithm>
#include <charconv>

namespace pelago::platform {

namespace {

using Fault = PropertyListFault;
using Object = CFOwned<CFTypeRef>;

constexpr std::string_view BLANKS = " \t\n\r";

std::string_view Trimmed(std::string_view text)
{
    const size_t first = text.find_first_not_of(BLANKS);
    if (first == text.npos) { return {}; }
    return text.substr(first, text.find_last_not_of(BLANKS) + 1 - first);
}

bool TakePrefix(std::string_view *text, std::string_view prefix)
{
    if (!text->starts_with(prefix)) { return false; }
    text->remove_prefix(prefix.size());
    return true;
}

// Does not use lib/'s functions, since platform/ includes nothing of lib/, nor tolower(), which
// depends on the locale.
bool EqualsIgnoringCase(std::string_view text, std::string_view lowerCase)
{
    return std::equal(text.begin(), text.end(), lowerCase.begin(), lowerCase.end(),
                      [](char one, char other) {
                          const bool isUpper = one >= 'A' && one <= 'Z';
                          return (isUpper ? one - 'A' + 'a' : one) == other;
                      });
}

// ---- Values from the texts of elements; nullptr for a text that is no such value.

// Stores the number.  Returns false unless the text is a number and nothing else.  Does not depend
// on the locale.
template <typename Number, typename... Base>
bool IsNumber(std::string_view text, Number *value, Base... base)
{
    const char *end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, *value, base...);
    return error == std::errc() && rest == end;
}

Object Text(std::string_view text) { return Object(CFRequired(CFStringCreateWithText(text))); }

// The value must fit 64 bits, signed if it is negative.  A decimal number with a leading zero is
// refused, since some readers take it for octal.
Object Integer(std::string_view text)
{
    text = Trimmed(text);
    const bool isNegative = TakePrefix(&text, "-");
    if (!isNegative) { TakePrefix(&text, "+"); }
    const bool isHex = TakePrefix(&text, "0x") || TakePrefix(&text, "0X");
    if (!isHex && text.size() > 1 && text[0] == '0') { return nullptr; }
    uint64_t value = 0;
    if (!IsNumber(text, &value, isHex ? 16 : 10)) { return nullptr; }
    if (!isNegative) { return Object(new __CFNumber(value)); }
    if (value > uint64_t{1} << 63) { return nullptr; }
    return Object(new __CFNumber(static_cast<int64_t>(0 - value)));
}

// A number beyond the range of a double is refused, since it could not be written back.
Object Real(std::string_view text)
{
    text = Trimmed(text);
    // from_chars() does not accept a plus sign; it does accept "nan(...)", which is refused here.
    if (TakePrefix(&text, "+") && text.starts_with('-')) { return nullptr; }
    double value = 0;
    if (text.ends_with(')') || !IsNumber(text, &value)) { return nullptr; }
    return Object(new __CFNumber(value));
}

// "2001-01-01T00:00:00Z".  There are no leap seconds.
Object Date(std::string_view text)
{
    using namespace std::chrono;
    constexpr std::string_view SHAPE = "dddd-dd-ddTdd:dd:ddZ";
    text = Trimmed(text);
    if (text.size() != SHAPE.size()) { return nullptr; }
    for (size_t i = 0; i < SHAPE.size(); i++) {
        const bool isDigit = text[i] >= '0' && text[i] <= '9';
        if (SHAPE[i] == 'd' ? !isDigit : text[i] != SHAPE[i]) { return nullptr; }
    }
    const auto number = [text](size_t at, size_t digits) {
        unsigned value = 0;
        IsNumber(text.substr(at, digits), &value);
        return value;
    };
    const year_month_day date{year(static_cast<int>(number(0, 4))), month(number(5, 2)),
                              day(number(8, 2))};
    const unsigned hour = number(11, 2), minute = number(14, 2), second = number(17, 2);
    if (!date.ok() || hour > 23 || minute > 59 || second > 59) { return nullptr; }
    const sys_seconds at = sys_days{date} + hours{hour} + minutes{minute} + seconds{second};
    return Object(new __CFDate(static_cast<double>((at - PROPERTY_LIST_EPOCH).count())));
}

// Reads Base64, which may have blanks anywhere.
Object Data(std::string_view text)
{
    constexpr std::string_view DIGITS =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    constexpr size_t GROUP = 4, MAX_PADDING = 2;
    std::vector<UInt8> bytes;
    size_t bits = 0, count = 0, padding = 0;
    for (char c : text) {
        if (BLANKS.find(c) != BLANKS.npos) { continue; }
        const size_t digit = c == '=' ? 0 : DIGITS.find(c);
        padding += c == '=';
        if (digit == DIGITS.npos || (c != '=' && padding > 0)) { return nullptr; }
        bits = bits << 6 | digit;
        if (++count % GROUP != 0) { continue; }
        for (int shift : {16, 8, 0}) {
            bytes.push_back(static_cast<UInt8>(bits >> shift));
        }
    }
    if (count % GROUP != 0 || padding > MAX_PADDING) { return nullptr; }
    bytes.resize(bytes.size() - padding);
    return Object(new __CFData(std::move(bytes)));
}

Object True(std::string_view text) { return Object(text.empty() ? kCFBooleanTrue : nullptr); }
Object False(std::string_view text) { return Object(text.empty() ? kCFBooleanFalse : nullptr); }

// An element that holds text.
struct Leaf {
    std::string_view name;
    Object (*make)(std::string_view text);
};
constexpr Leaf LEAVES[] = {
    {"key", Text},  {"string", Text},     {"data", Data}, {"date", Date},
    {"true", True}, {"integer", Integer}, {"real", Real}, {"false", False},
};

// ---- The elements

class XmlReader {
public:
    Fault Read(std::string_view text, Object *root)
    {
        const std::unique_ptr<XML_ParserStruct, void (*)(XML_Parser)> parser(
            XML_ParserCreate("UTF-8"), XML_ParserFree);
        if (!parser) { return Fault::NoMemory; }
        mParser = parser.get();
        // The salt of expat's hash tables is an address, which a file's author does not know.
        // Without it expat would call the C library for random bytes, which ends the process when
        // the kernel supplies none.
        XML_SetHashSalt(mParser, reinterpret_cast<uintptr_t>(mParser));
        SetHandlers();
        // The length fits: a file has PROPERTY_LIST_MAX_BYTES at most.
        XML_Parse(mParser, text.data(), static_cast<int>(text.size()), XML_TRUE);
        *root = std::move(mRoot);
        return mFault != Fault::None ? mFault : FaultOf(XML_GetErrorCode(mParser), text);
    }

private:
    // An array or a dictionary that has not ended.
    struct Container {
        CFOwned<CFMutableArrayRef> array; // nullptr: it is a dictionary
        CFOwned<CFMutableDictionaryRef> dictionary;
        CFOwned<CFStringRef> key; // a key that has no value yet
    };

    static Fault FaultOf(XML_Error error, std::string_view text)
    {
        if (error == XML_ERROR_NONE) { return Fault::None; }
        if (error == XML_ERROR_NO_MEMORY) { return Fault::NoMemory; }
        // A file with NULs is damaged, and not text in another encoding.
        const bool isText = text.find('\0') == text.npos;
        return isText && !CFUtf8UnitCount(text) ? Fault::Encoding : Fault::Malformed;
    }

    // Calls action(reader) for a handler.  expat is C, so nothing may be thrown through it, and it
    // may call further handlers after it was stopped.
    template <typename Action> static void Handle(void *self, const Action &action)
    {
        XmlReader &reader = *static_cast<XmlReader *>(self);
        if (reader.mFault != Fault::None) { return; }
        try {
            reader.mFault = action(reader);
        } catch (const std::bad_alloc &) {
            reader.mFault = Fault::NoMemory;
        }
        if (reader.mFault != Fault::None) { XML_StopParser(reader.mParser, XML_FALSE); }
    }

    static Fault Refused(XmlReader &) { return Fault::Malformed; }

    void SetHandlers()
    {
        XML_SetUserData(mParser, this);
        XML_SetElementHandler(
            mParser,
            [](void *self, const char *name, const char **attributes) {
                Handle(self, [&](XmlReader &reader) {
                    return reader.Begin(name, attributes[0] != nullptr);
                });
            },
            [](void *self, const char *) {
                Handle(self, [](XmlReader &reader) { return reader.End(); });
            });
        XML_SetCharacterDataHandler(mParser, [](void *self, const char *text, int size) {
            Handle(self, [&](XmlReader &reader) {
                return reader.TakeText({text, static_cast<size_t>(size)});
            });
        });
        XML_SetXmlDeclHandler(mParser, [](void *self, const char *, const char *encoding, int) {
            Handle(self, [&](XmlReader &) { return EncodingFault(encoding); });
        });
        XML_SetStartDoctypeDeclHandler(
            mParser, [](void *self, const char *, const char *, const char *, int hasSubset) {
                if (hasSubset) { Handle(self, Refused); }
            });
        // Refuses an entity that an external DTD might declare; expat itself refuses unknown ones.
        XML_SetSkippedEntityHandler(mParser,
                                    [](void *self, const char *, int) { Handle(self, Refused); });
        XML_SetProcessingInstructionHandler(
            mParser, [](void *self, const char *, const char *) { Handle(self, Refused); });
    }

    // The text is read as UTF-8, so no other encoding may be declared.
    static Fault EncodingFault(const char *encoding)
    {
        const bool isSupplied = encoding == nullptr || EqualsIgnoringCase(encoding, "utf-8") ||
                                EqualsIgnoringCase(encoding, "us-ascii");
        return isSupplied ? Fault::None : Fault::Encoding;
    }

    Fault Begin(std::string_view name, bool hasAttributes)
    {
        if (mLeaf != nullptr) { return Fault::Malformed; }
        if (++mElementCount > PROPERTY_LIST_MAX_XML_VALUES) { return Fault::TooManyValues; }
        if (name == "plist") { return mElementCount == 1 ? Fault::None : Fault::Malformed; }
        if (hasAttributes) { return Fault::Malformed; }
        if (name == "dict" || name == "array") { return Open(name == "array"); }
        mLeaf = std::find_if(std::begin(LEAVES), std::end(LEAVES),
                             [&](const Leaf &leaf) { return leaf.name == name; });
        return mLeaf != std::end(LEAVES) ? Fault::None : Fault::Malformed;
    }

    Fault Open(bool isArray)
    {
        if (mOpen.size() == PROPERTY_LIST_MAX_DEPTH) { return Fault::TooDeep; }
        Container container;
        if (isArray) {
            container.array.reset(new __CFArray(&kCFTypeArrayCallBacks, false));
        } else {
            container.dictionary.reset(new __CFDictionary);
        }
        mOpen.push_back(std::move(container));
        return Fault::None;
    }

    Fault TakeText(std::string_view text)
    {
        if (mLeaf != nullptr) {
            mText.append(text);
        } else if (text.find_first_not_of(BLANKS) != text.npos) {
            return Fault::Malformed;
        }
        return Fault::None;
    }

    Fault End()
    {
        if (mLeaf != nullptr) { return EndLeaf(*std::exchange(mLeaf, nullptr)); }
        // </plist>, outside of all containers: it must contain a value.
        if (mOpen.empty()) { return mRoot ? Fault::None : Fault::Malformed; }
        Container ended = std::move(mOpen.back());
        mOpen.pop_back();
        if (ended.key) { return Fault::Malformed; }
        return ended.array ? Put(std::move(ended.array)) : Put(std::move(ended.dictionary));
    }

    Fault EndLeaf(const Leaf &leaf)
    {
        Object value = leaf.make(mText);
        mText.clear();
        if (!value) { return Fault::Malformed; }
        return leaf.name == "key" ? PutKey(std::move(value)) : Put(std::move(value));
    }

    Fault PutKey(Object key)
    {
        if (mOpen.empty() || mOpen.back().array || mOpen.back().key) { return Fault::Malformed; }
        mOpen.back().key.reset(static_cast<CFStringRef>(key.release()));
        return Fault::None;
    }

    Fault Put(Object value)
    {
        if (mOpen.empty()) {
            if (mRoot) { return Fault::Malformed; }
            mRoot = std::move(value);
            return Fault::None;
        }
        Container &container = mOpen.back();
        if (container.array) {
            container.array->Add(value.get());
            return Fault::None;
        }
        if (!container.key) { return Fault::Malformed; }
        container.dictionary->Set(container.key.get(), value.get());
        container.key.reset();
        return Fault::None;
    }

    XML_Parser mParser = nullptr;
    Fault mFault = Fault::None;
    size_t mElementCount = 0;
    std::vector<Container> mOpen;
    const Leaf *mLeaf = nullptr; // the leaf that has not ended
    std::string mText;           // its text so far
    Object mRoot;
};

} // namespace

PropertyListFault PropertyListReadXml(std::string_view text, PropertyListContent *content)
{
    constexpr std::string_view UTF8_MARK = "\xEF\xBB\xBF";
    TakePrefix(&text, UTF8_MARK);
    // Some files begin with blanks, which XML does not allow before its declaration.
    text.remove_prefix(std::min(text.find_first_not_of(BLANKS), text.size()));
    return XmlReader().Read(text, &content->root);
}

} // namespace pelago::platform
