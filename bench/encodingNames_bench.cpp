// Looks encodings up by name, and compares that with ICU's own look-up and with caseless tables.
#include "workloads.h"

#include "unicode.h"

#include <absl/container/flat_hash_map.h>
#include <glib.h>
#include <iconv.h>
#include <strings.h>
#include <unicode/ucnv.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace {

// The encodings' names in programs, mails and web pages.  The library and ICU know all of them.
const std::vector<const char *> NAMES{
    "utf-8",        "UTF-16",       "UTF-16LE",     "UTF-16BE",     "UTF-32",       "UTF-32LE",
    "UTF-32BE",     "US-ASCII",     "latin1",       "ISO-8859-1",   "ISO-8859-2",   "ISO-8859-3",
    "ISO-8859-4",   "ISO-8859-5",   "ISO-8859-6",   "ISO-8859-7",   "ISO-8859-8",   "ISO-8859-9",
    "ISO-8859-13",  "ISO-8859-15",  "ISO-2022-JP",  "ISO-2022-KR",  "EUC-JP",       "Shift_JIS",
    "GB18030",      "GB2312",       "GBK",          "Big5",         "Big5-HKSCS",   "KOI8-R",
    "KOI8-U",       "windows-932",  "windows-936",  "windows-949",  "windows-950",  "windows-1250",
    "windows-1251", "windows-1252", "windows-1253", "windows-1254", "windows-1255", "windows-1256",
    "windows-1257", "macintosh",    "IBM437",       "IBM850",
};

// ---- Caseless tables ----

// The tables need a caseless hash function from their user; this is the plain one.
size_t CaselessHash(const char *name)
{
    size_t hash = 5381;
    for (; *name != '\0'; name++) {
        hash = hash * 33 + static_cast<size_t>(tolower(static_cast<unsigned char>(*name)));
    }
    return hash;
}
struct Hash {
    size_t operator()(const char *name) const { return CaselessHash(name); }
};
struct Equal {
    bool operator()(const char *a, const char *b) const { return strcasecmp(a, b) == 0; }
};
using AbslTable = absl::flat_hash_map<const char *, int, Hash, Equal>;

guint GHash(gconstpointer name)
{
    return static_cast<guint>(CaselessHash(static_cast<const char *>(name)));
}
gboolean GEqual(gconstpointer a, gconstpointer b)
{
    return strcasecmp(static_cast<const char *>(a), static_cast<const char *>(b)) == 0;
}

// ---- ICU's ----

const char *IcuName(const char *name)
{
    UErrorCode error = U_ZERO_ERROR;
    return ucnv_getStandardName(name, "IANA", &error);
}

bool IcuOpens(const char *name)
{
    UErrorCode error = U_ZERO_ERROR;
    UConverter *converter = ucnv_open(name, &error);
    ucnv_close(converter);
    return U_SUCCESS(error);
}

bool IconvOpens(const char *name)
{
    const iconv_t converter = iconv_open("UTF-8", name);
    if (converter == reinterpret_cast<iconv_t>(-1)) { return false; }
    iconv_close(converter);
    return true;
}

// Returns the canonical name of the converter that ICU opens by this name.
std::string IcuConverter(const char *name)
{
    UErrorCode error = U_ZERO_ERROR;
    UConverter *converter = ucnv_open(name, &error);
    const char *its = U_SUCCESS(error) ? ucnv_getName(converter, &error) : nullptr;
    std::string result = its == nullptr ? "" : its;
    ucnv_close(converter);
    return result;
}

// Returns whether ICU knows every name, and opens the same converter by our preferred name for it.
bool IcuAgrees()
{
    for (const char *name : NAMES) {
        const std::string wanted = IcuConverter(name);
        const StringEncoding encoding = UnicodeIANALookup(name);
        const bool isOurs = encoding != STRING_ENCODING_UNKNOWN;
        const char *ours = isOurs ? Unicode_EncodingEnumToName(encoding) : name;
        if (wanted.empty() || IcuConverter(ours) != wanted) {
            fprintf(stderr, "%s: %s, but %s\n", name, ours, wanted.c_str());
            return false;
        }
    }
    return true;
}

// Looks up cached names: several, or one.  The tables hold all of the names, as our cache does.
void AddKept(const char *title, std::vector<Goal> goals, const std::vector<const char *> &asked)
{
    static AbslTable sAbsl;
    static GHashTable *sGLib = g_hash_table_new(GHash, GEqual);
    for (const char *name : NAMES) {
        sAbsl[name] = UnicodeIANALookup(name);
        g_hash_table_insert(sGLib, const_cast<char *>(name), GINT_TO_POINTER(sAbsl[name]));
    }
    const auto absl = [](const char *name) { return sAbsl.find(name)->second; };
    const auto glib = [](const char *name) {
        return GPOINTER_TO_INT(g_hash_table_lookup(sGLib, name));
    };
    const bool same = std::ranges::all_of(asked, [&](const char *name) {
        return absl(name) == UnicodeIANALookup(name) && glib(name) == UnicodeIANALookup(name);
    });
    const auto inTurn = [&](auto find) {
        return Repeat([find, asked, next = size_t{0}]() mutable {
            if (next == asked.size()) { next = 0; }
            return find(Opaque(asked[next++]));
        });
    };
    Workload(title, std::move(goals), inTurn(UnicodeIANALookup),
             {{"absl::flat_hash_map, caseless", inTurn(absl)},
              {"GHashTable, caseless", inTurn(glib)},
              {"ucnv_getStandardName", inTurn(IcuName)},
              {"ucnv_open and close", inTurn(IcuOpens)},
              {"iconv_open and close", inTurn(IconvOpens)}},
             same);
}

// Looks each name up once; our cache is empty before.
void AddFirst()
{
    const auto ours = [] {
        Unicode_Shutdown();
        int sum = 0;
        for (const char *name : NAMES) {
            sum += UnicodeIANALookup(name);
        }
        return sum;
    };
    const auto icus = [] {
        size_t known = 0;
        for (const char *name : NAMES) {
            known += IcuName(name) != nullptr;
        }
        return known;
    };
    Workload("46 names, each for the first time", {{"ucnv_getStandardName", 3}}, Repeat(ours),
             {{"ucnv_getStandardName", Repeat(icus)}}, IcuAgrees());
}

void AddNameOf()
{
    const auto icus = [] { return ucnv_getAvailableName(Opaque(7)); };
    Workload("the name of an encoding", {{"ucnv_getAvailableName", 0, 0.005}},
             Repeat([] { return Unicode_EncodingEnumToName(Opaque(STRING_ENCODING_ISO_8859_15)); }),
             {{"ucnv_getAvailableName", Repeat(icus)}},
             strcmp(Unicode_EncodingEnumToName(STRING_ENCODING_ISO_8859_15), "ISO-8859-15") == 0 &&
                 icus() != nullptr);
}

} // namespace

int main(int argc, char **argv)
{
    AddKept("46 names in turn, kept", {{nullptr, 1.2}, {"ucnv_getStandardName", 0.25}}, NAMES);
    AddKept("utf-8, kept", {{nullptr, 1.2}}, {"utf-8"});
    AddKept("latin1, kept", {{nullptr, 1.2}}, {"latin1"});
    AddKept("windows-1252, kept", {{nullptr, 1.2}}, {"windows-1252"});
    AddKept("Shift_JIS, kept", {{nullptr, 1.2}}, {"Shift_JIS"});
    AddFirst();
    AddNameOf();
    return RunWorkloads(argc, argv);
}
