// propertyListReader.cpp -- readers without a single check: the guard has made them all.
#include "propertyListReader.h"

#include "cfTypes.h"
#include "propertyListGuard.h"

#include <bit>
#include <charconv>
#include <cstdlib>
#include <locale.h>

namespace pelago::platform {

namespace {

// ---- Objects

CFTypeRef NewText(std::string_view text) { return CFRequired(CFStringCreateWithText(text)); }
CFTypeRef NewSigned(int64_t value) { return CFRequired(CFNew<__CFNumber>(value)); }
CFTypeRef NewUnsigned(uint64_t value) { return CFRequired(CFNumberCreateUnsigned(value)); }
CFTypeRef NewReal(double value) { return CFRequired(CFNew<__CFNumber>(value)); }
CFTypeRef NewDate(double value) { return CFRequired(CFDateCreate(kCFAllocatorDefault, value)); }

CFTypeRef NewData(std::string_view bytes)
{
    return CFRequired(CFDataCreate(kCFAllocatorDefault,
                                   reinterpret_cast<const UInt8 *>(bytes.data()),
                                   static_cast<CFIndex>(bytes.size())));
}

CFOwned<CFMutableArrayRef> NewArray()
{
    CFOwned<CFMutableArrayRef> array(CFNew<__CFArray>(&kCFTypeArrayCallBacks, false));
    CFRequired(array.get());
    return array;
}

void AddTo(CFMutableArrayRef array, CFTypeRef value)
{
    CFOwned<CFTypeRef> item(value);
    array->mValues.push_back(item.get());
    static_cast<void>(item.release());
}

CFOwned<CFMutableDictionaryRef> NewDictionary()
{
    CFOwned<CFMutableDictionaryRef> dictionary(CFDictionaryCreateEmpty());
    CFRequired(dictionary.get());
    return dictionary;
}

void AppendUtf8(std::string *text, uint32_t code)
{
    const auto append = [text](uint32_t byte) { *text += static_cast<char>(byte); };
    if (code < 0x80) { return append(code); }
    const int following = code < 0x800 ? 1 : code < 0x10000 ? 2 : 3;
    append((0xFF00u >> (following + 1) & 0xFF) | code >> (6 * following));
    for (int i = following - 1; i >= 0; i--) {
        append(0x80 | ((code >> (6 * i)) & 0x3F));
    }
}

// ---- XML

// What stands between '&' and ';'.
uint32_t ReferredTo(std::string_view name)
{
    if (name == "lt") { return '<'; }
    if (name == "gt") { return '>'; }
    if (name == "amp") { return '&'; }
    if (name == "quot") { return '"'; }
    if (name == "apos") { return '\''; }
    const bool isHex = name[1] == 'x';
    name.remove_prefix(isHex ? 2 : 1);
    uint32_t code = 0;
    std::from_chars(name.data(), name.data() + name.size(), code, isHex ? 16 : 10);
    return code;
}

std::string_view Trimmed(std::string_view text)
{
    constexpr std::string_view BLANKS = " \t\n";
    const size_t first = text.find_first_not_of(BLANKS);
    return text.substr(first, text.find_last_not_of(BLANKS) + 1 - first);
}

CFTypeRef Integer(std::string_view text)
{
    const bool isNegative = text[0] == '-';
    if (isNegative || text[0] == '+') { text.remove_prefix(1); }
    const bool isHex = text.starts_with("0x") || text.starts_with("0X");
    if (isHex) { text.remove_prefix(2); }
    uint64_t value = 0;
    std::from_chars(text.data(), text.data() + text.size(), value, isHex ? 16 : 10);
    return isNegative ? NewSigned(static_cast<int64_t>(0 - value)) : NewUnsigned(value);
}

// With a point whatever the locale.
CFTypeRef Real(std::string_view text)
{
    const locale_t plain = newlocale(LC_ALL_MASK, "C", nullptr);
    if (plain == nullptr) { throw std::bad_alloc(); }
    const double value = strtod_l(std::string(text).c_str(), nullptr, plain);
    freelocale(plain);
    return NewReal(value);
}

// "2001-01-01T00:00:00Z", in seconds since then.
CFTypeRef Date(std::string_view text)
{
    const auto number = [text](size_t at, size_t digits) {
        int64_t value = 0;
        std::from_chars(text.data() + at, text.data() + at + digits, value);
        return value;
    };
    constexpr int64_t DAYS_BEFORE_2001 = 876888, MONTHS_FROM_MARCH = 9;
    // Years begin in March here, so that a leap day is the last one, and are counted from the year
    // -400, so that none is below zero.
    const int64_t month = (number(5, 2) + MONTHS_FROM_MARCH) % 12;
    const int64_t year = number(0, 4) + 400 - month / 10;
    const int64_t days = 365 * year + year / 4 - year / 100 + year / 400 + (month * 306 + 5) / 10 +
                         number(8, 2) - 1 - DAYS_BEFORE_2001;
    return NewDate(static_cast<double>(((days * 24 + number(11, 2)) * 60 + number(14, 2)) * 60 +
                                       number(17, 2)));
}

CFTypeRef Data(std::string_view text)
{
    constexpr std::string_view DIGITS =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string bytes;
    uint32_t bits = 0;
    int count = 0; // of bits that are no byte yet
    for (char c : text) {
        const size_t digit = DIGITS.find(c);
        if (digit == DIGITS.npos) { continue; } // a blank, or padding
        bits = bits << 6 | static_cast<uint32_t>(digit);
        count += 6;
        if (count < 8) { continue; }
        count -= 8;
        bytes += static_cast<char>(bits >> count);
    }
    return NewData(bytes);
}

class XmlReader {
public:
    explicit XmlReader(std::string_view text) : mText(text) {}

    CFTypeRef Root()
    {
        const Tag tag = NextTag();
        return Value(tag.name == "plist" ? NextTag() : tag);
    }

private:
    struct Tag {
        std::string_view name;
        bool isEnd, isWhole; // </x>, <x/>
    };

    // The next one after blanks, comments and what comes before the root.
    Tag NextTag()
    {
        mText.remove_prefix(mText.find('<'));
        while (mText[1] == '!' || mText[1] == '?') {
            const std::string_view end = mText.starts_with("<!--") ? "-->" : ">";
            mText.remove_prefix(mText.find(end) + end.size());
            mText.remove_prefix(mText.find('<'));
        }
        const size_t end = mText.find('>');
        const std::string_view inner = mText.substr(1, end - 1);
        mText.remove_prefix(end + 1);
        const bool isEnd = inner[0] == '/';
        const std::string_view name = inner.substr(isEnd);
        return {name.substr(0, name.find_first_of(" \t\n/")), isEnd, inner.ends_with('/')};
    }

    CFTypeRef Value(const Tag &tag)
    {
        if (tag.name == "dict") { return Dictionary(tag.isWhole); }
        if (tag.name == "array") { return Array(tag.isWhole); }
        const std::string text = tag.isWhole ? std::string() : Text();
        if (tag.name == "true") { return kCFBooleanTrue; }
        if (tag.name == "false") { return kCFBooleanFalse; }
        if (tag.name == "integer") { return Integer(Trimmed(text)); }
        if (tag.name == "real") { return Real(Trimmed(text)); }
        if (tag.name == "date") { return Date(Trimmed(text)); }
        if (tag.name == "data") { return Data(text); }
        return NewText(text);
    }

    CFTypeRef Dictionary(bool isEmpty)
    {
        CFOwned<CFMutableDictionaryRef> dictionary = NewDictionary();
        while (!isEmpty && !NextTag().isEnd) {
            const CFOwned<CFStringRef> key(static_cast<CFStringRef>(NewText(Text())));
            const CFOwned<CFTypeRef> value(Value(NextTag()));
            dictionary->Set(key.get(), value.get());
        }
        return dictionary.release();
    }

    CFTypeRef Array(bool isEmpty)
    {
        CFOwned<CFMutableArrayRef> array = NewArray();
        while (!isEmpty) {
            const Tag tag = NextTag();
            if (tag.isEnd) { break; }
            AddTo(array.get(), Value(tag));
        }
        return array.release();
    }

    // All up to an element's end, and past that.
    std::string Text()
    {
        constexpr std::string_view CDATA = "<![CDATA[";
        std::string text;
        for (;;) {
            const size_t end = mText.find_first_of("<&");
            text += mText.substr(0, end);
            mText.remove_prefix(end);
            if (mText[0] == '&') {
                AppendUtf8(&text, ReferredTo(mText.substr(1, mText.find(';') - 1)));
                mText.remove_prefix(mText.find(';') + 1);
            } else if (mText.starts_with(CDATA)) {
                const size_t close = mText.find("]]>");
                text += mText.substr(CDATA.size(), close - CDATA.size());
                mText.remove_prefix(close + 3);
            } else {
                NextTag();
                return text;
            }
        }
    }

    std::string_view mText; // what is still to come
};

// ---- The binary form

class BinaryReader {
public:
    explicit BinaryReader(std::string_view bytes) : mBytes(bytes)
    {
        constexpr size_t TRAILER = 32;
        const std::string_view trailer = bytes.substr(bytes.size() - TRAILER);
        mOffsetWidth = static_cast<unsigned char>(trailer[6]);
        mReferenceWidth = static_cast<unsigned char>(trailer[7]);
        mRoot = BigEndian(trailer.substr(16, 8));
        mTable = BigEndian(trailer.substr(24, 8));
    }

    CFTypeRef Root() { return Object(mRoot); }

private:
    static uint64_t BigEndian(std::string_view bytes)
    {
        uint64_t value = 0;
        for (char byte : bytes) {
            value = value << 8 | static_cast<unsigned char>(byte);
        }
        return value;
    }

    // The high half of an object's first byte is its kind; the low half is a size or a count.
    CFTypeRef Object(uint64_t index)
    {
        const uint64_t offset =
            BigEndian(mBytes.substr(mTable + index * mOffsetWidth, mOffsetWidth));
        const unsigned kind = static_cast<unsigned char>(mBytes[offset]) >> 4;
        const unsigned low = static_cast<unsigned char>(mBytes[offset]) & 0xF;
        std::string_view rest = mBytes.substr(offset + 1);
        switch (kind) {
        case 0x0: return low == 9 ? kCFBooleanTrue : kCFBooleanFalse;
        case 0x1: return Number(rest.substr(0, size_t{1} << low));
        case 0x2: return Floating(rest.substr(0, size_t{1} << low));
        case 0x3: return NewDate(std::bit_cast<double>(BigEndian(rest.substr(0, 8))));
        case 0x8: return CFRequired(CFNew<CFUid>(BigEndian(rest.substr(0, low + 1))));
        default: break;
        }
        const size_t count = TakeCount(&rest, low);
        switch (kind) {
        case 0x4: return NewData(rest.substr(0, count));
        case 0x5: return NewText(rest.substr(0, count));
        case 0x6: return Utf16(rest.substr(0, 2 * count));
        case 0xA: return Array(rest, count);
        default: return Dictionary(rest, count);
        }
    }

    static size_t TakeCount(std::string_view *rest, unsigned low)
    {
        if (low != 0xF) { return low; }
        const size_t width = size_t{1} << (rest->front() & 0xF);
        const uint64_t count = BigEndian(rest->substr(1, width));
        rest->remove_prefix(1 + width);
        return count;
    }

    // Those of eight bytes have a sign, longer and shorter ones none.
    static CFTypeRef Number(std::string_view bytes)
    {
        const uint64_t value = BigEndian(bytes);
        return bytes.size() == 8 ? NewSigned(static_cast<int64_t>(value)) : NewUnsigned(value);
    }

    static CFTypeRef Floating(std::string_view bytes)
    {
        const uint64_t bits = BigEndian(bytes);
        return NewReal(bytes.size() == 8
                           ? std::bit_cast<double>(bits)
                           : double{std::bit_cast<float>(static_cast<uint32_t>(bits))});
    }

    static CFTypeRef Utf16(std::string_view bytes)
    {
        std::string text;
        for (size_t i = 0; i < bytes.size(); i += 2) {
            uint32_t code = static_cast<uint32_t>(BigEndian(bytes.substr(i, 2)));
            if (code >= 0xD800 && code < 0xDC00) {
                i += 2;
                const auto second = static_cast<uint32_t>(BigEndian(bytes.substr(i, 2)));
                code = 0x10000 + ((code - 0xD800) << 10) + (second - 0xDC00);
            }
            AppendUtf8(&text, code);
        }
        return NewText(text);
    }

    CFTypeRef Referred(std::string_view references, size_t number)
    {
        return Object(BigEndian(references.substr(number * mReferenceWidth, mReferenceWidth)));
    }

    CFTypeRef Array(std::string_view references, size_t count)
    {
        CFOwned<CFMutableArrayRef> array = NewArray();
        for (size_t i = 0; i < count; i++) {
            AddTo(array.get(), Referred(references, i));
        }
        return array.release();
    }

    CFTypeRef Dictionary(std::string_view references, size_t count)
    {
        CFOwned<CFMutableDictionaryRef> dictionary = NewDictionary();
        for (size_t i = 0; i < count; i++) {
            const CFOwned<CFStringRef> key(static_cast<CFStringRef>(Referred(references, i)));
            const CFOwned<CFTypeRef> value(Referred(references, count + i));
            dictionary->Set(key.get(), value.get());
        }
        return dictionary.release();
    }

    std::string_view mBytes;
    size_t mOffsetWidth, mReferenceWidth;
    uint64_t mRoot, mTable;
};

} // namespace

CFTypeRef PropertyListReadXml(std::string_view text) { return XmlReader(text).Root(); }

CFTypeRef PropertyListReadBinary(std::string_view bytes) { return BinaryReader(bytes).Root(); }

} // namespace pelago::platform
