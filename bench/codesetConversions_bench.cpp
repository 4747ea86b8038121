// Converts named encodings to UTF-8 and validates them, and compares the library with its peers.
// Each call opens and closes its converter, as the peers' own calls for a whole text do.
#include "codeset.h"
#include "workloads.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <glib.h>
#include <iconv.h>
#include <memory>
#include <random>
#include <string>
#include <unicode/ucnv.h>
#include <vector>

using namespace std::string_literals;

namespace {

// The first byte of each letter, and the second byte of letters that have two.
struct Bytes {
    unsigned first, last;
};

struct Encoding {
    const char *name;
    Bytes lead, trail;               // of the letters that are not ASCII
    unsigned percent;                // of the text's letters that are not ASCII
    double toIconv64B, toIconv64KiB; // the goals: our time divided by iconv's
};
constexpr Encoding ENCODINGS[] = {
    {"ISO-8859-1", {0xC0, 0xFF}, {}, 20, 1.05, 0.85},
    {"windows-1252", {0xC0, 0xFF}, {}, 20, 1.2, 0.85},
    {"Shift_JIS", {0x89, 0x97}, {0x9F, 0xFC}, 80, 1.65, 0},
    {"GBK", {0xB0, 0xD6}, {0xA1, 0xFE}, 80, 1.65, 0},
};

using Text = std::shared_ptr<const std::string>;

Text Sample(const Encoding &encoding, size_t size)
{
    std::mt19937 random(7);
    const auto from = [&](Bytes bytes) {
        return static_cast<char>(bytes.first + random() % (bytes.last - bytes.first + 1));
    };
    const size_t length = encoding.trail.last == 0 ? 1 : 2;
    std::string text;
    while (text.size() < size) {
        if (random() % 100 < encoding.percent && text.size() + length <= size) {
            text += from(encoding.lead);
            if (length == 2) { text += from(encoding.trail); }
        } else {
            text += from({'a', 'z'});
        }
    }
    return std::make_shared<const std::string>(text);
}

char *Ours(const char *name, const std::string &in, size_t *size)
{
    char *out = nullptr;
    CodeSet_GenericToGeneric(name, in.data(), in.size(), "UTF-8", CODESET_INVALID_FAIL, &out, size);
    return out;
}

// ---- The fewest calls of ICU that do the work: two converters for one text

char *Icu(const char *name, const std::string &in, size_t *size)
{
    UErrorCode status = U_ZERO_ERROR;
    UConverter *from = ucnv_open(name, &status), *to = ucnv_open("UTF-8", &status);
    ucnv_setToUCallBack(from, UCNV_TO_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &status);
    ucnv_setFromUCallBack(to, UCNV_FROM_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &status);
    size_t room = in.size() + 4, used = 0;
    char *out = static_cast<char *>(malloc(room));
    UChar pivot[1024], *pivotSource = pivot, *pivotTarget = pivot;
    const char *source = in.data();
    for (;;) {
        status = U_ZERO_ERROR;
        char *target = out + used;
        ucnv_convertEx(to, from, &target, out + room, &source, in.data() + in.size(), pivot,
                       &pivotSource, &pivotTarget, pivot + 1024, false, true, &status);
        used = static_cast<size_t>(target - out);
        if (status != U_BUFFER_OVERFLOW_ERROR) { break; }
        room *= 2;
        out = static_cast<char *>(realloc(out, room));
    }
    ucnv_close(from);
    ucnv_close(to);
    out = static_cast<char *>(realloc(out, used + 4));
    memset(out + used, 0, 4);
    *size = used;
    return out;
}

bool IcuIsValid(const char *name, const std::string &in)
{
    UErrorCode status = U_ZERO_ERROR;
    UConverter *converter = ucnv_open(name, &status);
    ucnv_setToUCallBack(converter, UCNV_TO_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &status);
    ucnv_toUChars(converter, nullptr, 0, in.data(), static_cast<int32_t>(in.size()), &status);
    ucnv_close(converter);
    return status == U_BUFFER_OVERFLOW_ERROR;
}

// ---- Others

// Leaves a descriptor open: the C library unloads an encoding without one, and would have to load
// it again at each run.
bool KeepLoaded(const char *name)
{
    return iconv_open("UTF-8", name) != reinterpret_cast<iconv_t>(-1);
}

char *Iconv(const char *name, const std::string &in, size_t *size)
{
    const iconv_t converter = iconv_open("UTF-8", name);
    const size_t room = 3 * in.size() + 4;
    char *out = static_cast<char *>(malloc(room));
    char *source = const_cast<char *>(in.data()), *target = out;
    size_t left = in.size(), free = room;
    iconv(converter, &source, &left, &target, &free);
    iconv_close(converter);
    *size = room - free;
    memset(target, 0, 4);
    return static_cast<char *>(realloc(out, *size + 4));
}

char *Glib(const char *name, const std::string &in, size_t *size)
{
    return g_convert(in.data(), static_cast<gssize>(in.size()), "UTF-8", name, nullptr, size,
                     nullptr);
}

// ----

using Convert = char *(*)(const char *name, const std::string &in, size_t *size);

std::string Result(Convert convert, const char *name, const std::string &in)
{
    size_t size = 0;
    char *out = convert(name, in, &size);
    const std::string bytes(out, size);
    free(out);
    return bytes;
}

std::function<void(size_t)> Run(Convert convert, const char *name, const Text &in)
{
    return Repeat([=] {
        size_t size;
        char *out = convert(name, *in, &size);
        free(out);
        return size;
    });
}

void Size(const char *sizeName, size_t size, double toIcu, double Encoding::*toIconv)
{
    static std::vector<std::unique_ptr<std::string>> names;
    const auto title = [&](const std::string &what) {
        names.push_back(std::make_unique<std::string>(what + ", " + sizeName));
        return names.back()->c_str();
    };
    for (const Encoding &encoding : ENCODINGS) {
        const char *name = encoding.name;
        const Text in = Sample(encoding, size);
        const std::string ours = Result(Ours, name, *in);
        std::vector<Goal> goals = {{"ICU", toIcu}};
        if (encoding.*toIconv != 0) { goals.push_back({"iconv", encoding.*toIconv}); }
        Workload(title(name + " to UTF-8"s), goals, Run(Ours, name, in),
                 {{"ICU", Run(Icu, name, in)},
                  {"iconv", Run(Iconv, name, in)},
                  {"g_convert", Run(Glib, name, in)}},
                 KeepLoaded(name) && !ours.empty() && ours == Result(Icu, name, *in) &&
                     ours == Result(Iconv, name, *in) && ours == Result(Glib, name, *in));
        Workload(title("validity of "s + name), {{"ICU", 1.05}},
                 Repeat([=] { return CodeSet_IsValidBuffer(in->data(), in->size(), name); }),
                 {{"ICU", Repeat([=] { return IcuIsValid(name, *in); })}},
                 CodeSet_IsValidBuffer(in->data(), in->size(), name) && IcuIsValid(name, *in));
    }
}

// Makes the library use ICU, with a folder that has the file for it; returns whether it does.
bool UseIcu()
{
    std::string folder = std::filesystem::temp_directory_path() / "codesetBenchXXXXXX";
    if (mkdtemp(folder.data()) == nullptr) { return false; }
    std::ofstream(folder + "/icudt44l.dat") << "data";
    CodeSet_Init(folder.c_str());
    std::filesystem::remove_all(folder);
    return CodeSet_Validate("EUC-JP"); // an encoding that only ICU knows
}

} // namespace

int main(int argc, char **argv)
{
    if (!UseIcu()) {
        fputs("ICU is not used\n", stderr);
        return 1;
    }
    Size("64 B", 64, 1.05, &Encoding::toIconv64B);
    Size("64 KiB", 65536, 1.01, &Encoding::toIconv64KiB);
    return RunWorkloads(argc, argv);
}
