// propertyListXml.cpp -- the XML form of a libplist tree.
// libplist's own writer loses carriage returns, the sign of a zero and the zeros in front of a
// short year, and its indentation makes deep trees grow with the square of their depth.
#include "propertyListNode.h"

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

struct Date {
    int64_t year;
    unsigned month, day;
};

// The civil date of a day counted from 2001-01-01, in the Gregorian calendar at all times.  Years
// are counted from March here, so that the day that some of them have more is the last one.
Date DateOfDay(int64_t day)
{
    constexpr int64_t DAYS_FROM_0000_03_01 = 730791, DAYS_IN_ERA = 146097, YEARS_IN_ERA = 400;
    day += DAYS_FROM_0000_03_01;
    const int64_t era = (day >= 0 ? day : day - (DAYS_IN_ERA - 1)) / DAYS_IN_ERA;
    const int64_t dayOfEra = day - era * DAYS_IN_ERA;
    const int64_t yearOfEra =
        (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const int64_t monthFromMarch = (5 * dayOfYear + 2) / 153;
    const int64_t month = monthFromMarch < 10 ? monthFromMarch + 3 : monthFromMarch - 9;
    return {yearOfEra + era * YEARS_IN_ERA + (month <= 2), static_cast<unsigned>(month),
            static_cast<unsigned>(dayOfYear - (153 * monthFromMarch + 2) / 5 + 1)};
}

class XmlWriter {
public:
    explicit XmlWriter(std::string *out) : mOut(*out) {}

    bool Write(plist_t node)
    {
        switch (plist_get_node_type(node)) {
        case PLIST_DICT: return WriteDictionary(node);
        case PLIST_ARRAY: return WriteArray(node);
        case PLIST_UID: return WriteUid(node);
        case PLIST_DATA: return WriteData(PlistDataBytes(node));
        case PLIST_DATE: return WriteDate(PlistDate(node));
        case PLIST_BOOLEAN: return WriteBoolean(node);
        case PLIST_UINT: return WriteElement("integer", IntegerText(node));
        case PLIST_REAL: return WriteElement("real", RealText(node));
        default: return WriteText("string", PlistStringText(node));
        }
    }

private:
    void Indent() { mOut.append(std::min(mDepth, MAX_INDENT), '\t'); }

    void WriteTag(const char *tag)
    {
        Indent();
        mOut.append(tag).append("\n");
    }

    bool WriteElement(const char *name, std::string_view text)
    {
        Indent();
        mOut.append("<").append(name).append(">").append(text);
        mOut.append("</").append(name).append(">\n");
        return true;
    }

    // A carriage return needs its reference: readers make a bare one a newline.
    bool WriteText(const char *name, std::string_view text)
    {
        Indent();
        mOut.append("<").append(name).append(">");
        for (size_t end; !text.empty(); text.remove_prefix(end)) {
            end = std::min(text.find_first_of("&<>\r"), text.size());
            mOut.append(text.substr(0, end));
            if (end == text.size()) { break; }
            switch (text[end++]) {
            case '&': mOut.append("&amp;"); break;
            case '<': mOut.append("&lt;"); break;
            case '>': mOut.append("&gt;"); break;
            default: mOut.append("&#13;"); break;
            }
        }
        mOut.append("</").append(name).append(">\n");
        return true;
    }

    bool WriteDictionary(plist_t node)
    {
        if (plist_dict_get_size(node) == 0) {
            WriteTag("<dict/>");
            return true;
        }
        WriteTag("<dict>");
        mDepth++;
        const bool isWhole = PlistForEachPair(node, [&](const char *key, plist_t value) {
            return WriteText("key", key) && Write(value);
        });
        mDepth--;
        WriteTag("</dict>");
        return isWhole;
    }

    bool WriteArray(plist_t node)
    {
        if (plist_array_get_size(node) == 0) {
            WriteTag("<array/>");
            return true;
        }
        WriteTag("<array>");
        mDepth++;
        const bool isWhole = PlistForEachItem(node, [&](plist_t item) { return Write(item); });
        mDepth--;
        WriteTag("</array>");
        return isWhole;
    }

    // The XML form has no type for these; this is the dictionary that the SDK makes of them.
    bool WriteUid(plist_t node)
    {
        uint64_t value = 0;
        plist_get_uid_val(node, &value);
        WriteTag("<dict>");
        mDepth++;
        WriteElement("key", "CF$UID");
        WriteElement("integer", std::to_string(value));
        mDepth--;
        WriteTag("</dict>");
        return true;
    }

    bool WriteBoolean(plist_t node)
    {
        uint8_t value = 0;
        plist_get_bool_val(node, &value);
        WriteTag(value ? "<true/>" : "<false/>");
        return true;
    }

    static std::string IntegerText(plist_t node)
    {
        uint64_t bits = 0;
        plist_get_uint_val(node, &bits);
        return PlistIntegerIsNegative(node) ? std::to_string(static_cast<int64_t>(bits))
                                            : std::to_string(bits);
    }

    // The shortest text that reads back as the same number; independent of the locale.
    static std::string RealText(plist_t node)
    {
        double value = 0;
        plist_get_real_val(node, &value);
        if (std::isnan(value)) { return "nan"; }
        if (std::isinf(value)) { return value > 0 ? "+infinity" : "-infinity"; }
        char text[32];
        return std::string(text, std::to_chars(text, text + sizeof text, value).ptr);
    }

    // Whole seconds, downwards: the XML form has no smaller ones.
    bool WriteDate(double at)
    {
        constexpr double MAX_SECONDS = 1e12; // some 30,000 years: what is left fits every type here
        constexpr int64_t DAY = 86400, HOUR = 3600, MINUTE = 60;
        if (!(std::fabs(at) < MAX_SECONDS)) { return false; }
        const int64_t seconds = static_cast<int64_t>(std::floor(at));
        const int64_t day = (seconds >= 0 ? seconds : seconds - (DAY - 1)) / DAY;
        const int64_t ofDay = seconds - day * DAY;
        const Date date = DateOfDay(day);
        if (date.year < 0 || date.year > 9999) { return false; }
        char text[64];
        snprintf(text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02dZ", static_cast<int>(date.year),
                 date.month, date.day, static_cast<int>(ofDay / HOUR),
                 static_cast<int>(ofDay % HOUR / MINUTE), static_cast<int>(ofDay % MINUTE));
        return WriteElement("date", text);
    }

    bool WriteData(std::string_view bytes)
    {
        constexpr size_t BYTES_PER_LINE = 57; // 76 digits
        WriteTag("<data>");
        for (; !bytes.empty(); bytes.remove_prefix(std::min(BYTES_PER_LINE, bytes.size()))) {
            Indent();
            WriteBase64(bytes.substr(0, BYTES_PER_LINE));
            mOut.push_back('\n');
        }
        WriteTag("</data>");
        return true;
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

PropertyListFault PlistWriteXml(plist_t root, std::string *text)
{
    *text = HEADER;
    if (!XmlWriter(text).Write(root)) { return PropertyListFault::NotRepresentable; }
    text->append(FOOTER);
    return PropertyListFault::None;
}

} // namespace pelago::platform
