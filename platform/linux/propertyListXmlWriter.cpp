// propertyListXmlWriter.cpp -- writes the XML form as the SDK does, but with limited indentation: a
// list with full indentation grows with the square of its depth.
#include "propertyListForms.h"

#include "cfTypes.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>

namespace pelago::platform {

namespace {

constexpr char HEADER[] = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                          "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
                          "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
                          "<plist version=\"1.0\">\n";
constexpr char FOOTER[] = "</plist>\n";
constexpr size_t MAX_INDENT = 16; // tabs; deeper values stay in this column

class XmlWriter {
public:
    explicit XmlWriter(std::string *out) : mOut(*out) {}

    // False for a value that XML has no text for.
    bool Write(CFTypeRef object)
    {
        switch (CFGetTypeID(object)) {
        case CF_TYPE_DICTIONARY: return WriteDictionary(*static_cast<CFDictionaryRef>(object));
        case CF_TYPE_ARRAY: return WriteArray(*static_cast<CFArrayRef>(object));
        case CF_TYPE_UID: return WriteUid(static_cast<const CFUid *>(object)->mValue);
        case CF_TYPE_DATA: return WriteData(*static_cast<CFDataRef>(object));
        case CF_TYPE_DATE: return WriteDate(static_cast<CFDateRef>(object)->mAt);
        case CF_TYPE_BOOLEAN: return WriteLine(object == kCFBooleanTrue ? "<true/>" : "<false/>");
        case CF_TYPE_NUMBER: return WriteNumber(*static_cast<CFNumberRef>(object));
        default: return WriteText("string", static_cast<CFStringRef>(object)->mText);
        }
    }

private:
    void Indent() { mOut.append(std::min(mDepth, MAX_INDENT), '\t'); }

    bool WriteLine(const char *text)
    {
        Indent();
        mOut.append(text).append("\n");
        return true;
    }

    bool WriteElement(const char *name, std::string_view text)
    {
        Indent();
        mOut.append("<").append(name).append(">").append(text);
        mOut.append("</").append(name).append(">\n");
        return true;
    }

    // A carriage return is written as a reference, since readers turn a bare one into a newline.
    bool WriteText(const char *name, std::string_view text)
    {
        std::string escaped;
        for (size_t end; !text.empty(); text.remove_prefix(end)) {
            end = std::min(text.find_first_of("&<>\r"), text.size());
            escaped.append(text.substr(0, end));
            if (end == text.size()) { break; }
            switch (text[end++]) {
            case '&': escaped.append("&amp;"); break;
            case '<': escaped.append("&lt;"); break;
            case '>': escaped.append("&gt;"); break;
            default: escaped.append("&#13;"); break;
            }
        }
        return WriteElement(name, escaped);
    }

    bool WriteDictionary(const __CFDictionary &dictionary)
    {
        if (dictionary.mEntries.empty()) { return WriteLine("<dict/>"); }
        WriteLine("<dict>");
        mDepth++;
        for (const auto &[key, value] : dictionary.mEntries) {
            WriteText("key", key->mText);
            if (!Write(value.get())) { return false; }
        }
        mDepth--;
        return WriteLine("</dict>");
    }

    bool WriteArray(const __CFArray &array)
    {
        if (array.mValues.empty()) { return WriteLine("<array/>"); }
        WriteLine("<array>");
        mDepth++;
        for (CFTypeRef item : array.mValues) {
            if (!Write(item)) { return false; }
        }
        mDepth--;
        return WriteLine("</array>");
    }

    // The XML form has no type for UIDs; the SDK writes this dictionary for one.
    bool WriteUid(uint64_t value)
    {
        WriteLine("<dict>");
        mDepth++;
        WriteElement("key", "CF$UID");
        WriteElement("integer", std::to_string(value));
        mDepth--;
        return WriteLine("</dict>");
    }

    bool WriteNumber(const __CFNumber &number)
    {
        switch (number.mKind) {
        case __CFNumber::Kind::Real: return WriteElement("real", RealText(number.mReal));
        case __CFNumber::Kind::Unsigned:
            return WriteElement("integer", std::to_string(number.mUnsigned));
        default: return WriteElement("integer", std::to_string(number.mSigned));
        }
    }

    // The shortest text that reads back as the same number; independent of the locale.
    static std::string RealText(double value)
    {
        if (std::isnan(value)) { return "nan"; }
        if (std::isinf(value)) { return value > 0 ? "+infinity" : "-infinity"; }
        char text[32];
        return std::string(text, std::to_chars(text, text + sizeof text, value).ptr);
    }

    // Writes whole seconds, rounded down, since the XML form has no fractions of them.
    bool WriteDate(double at)
    {
        using namespace std::chrono;
        constexpr double MAX_SECONDS = 3e11; // about 9,500 years; less fits every type used here
        if (!(std::fabs(at) < MAX_SECONDS)) { return false; }
        const sys_seconds time =
            PROPERTY_LIST_EPOCH + seconds{static_cast<int64_t>(std::floor(at))};
        const sys_days midnight = floor<days>(time);
        const year_month_day date{midnight};
        const hh_mm_ss clock{time - midnight};
        const int year{date.year()};
        if (year < 0 || year > 9999) { return false; }
        char text[64];
        snprintf(text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02dZ", year,
                 static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                 static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()),
                 static_cast<int>(clock.seconds().count()));
        return WriteElement("date", text);
    }

    bool WriteData(const __CFData &data)
    {
        constexpr size_t BYTES_PER_LINE = 57; // 76 digits
        std::string_view bytes(reinterpret_cast<const char *>(data.mBytes.data()),
                               data.mBytes.size());
        WriteLine("<data>");
        for (; !bytes.empty(); bytes.remove_prefix(std::min(BYTES_PER_LINE, bytes.size()))) {
            Indent();
            WriteBase64(bytes.substr(0, BYTES_PER_LINE));
            mOut.push_back('\n');
        }
        return WriteLine("</data>");
    }

    void WriteBase64(std::string_view bytes)
    {
        constexpr char DIGITS[] =
            "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
        constexpr size_t GROUP = 3;
        for (size_t i = 0; i < bytes.size(); i += GROUP) {
            const size_t have = std::min(GROUP, bytes.size() - i);
            unsigned bits = 0;
            for (size_t j = 0; j < GROUP; j++) {
                bits = bits << 8 | (j < have ? static_cast<unsigned char>(bytes[i + j]) : 0u);
            }
            for (size_t j = 0; j <= GROUP; j++) {
                mOut.push_back(j <= have ? DIGITS[bits >> (6 * (GROUP - j)) & 0x3F] : '=');
            }
        }
    }

    std::string &mOut;
    size_t mDepth = 0;
};

} // namespace

PropertyListFault PropertyListWriteXml(CFTypeRef root, std::string *text)
{
    *text = HEADER;
    if (!XmlWriter(text).Write(root)) { return PropertyListFault::NotRepresentable; }
    text->append(FOOTER);
    return PropertyListFault::None;
}

} // namespace pelago::platform
