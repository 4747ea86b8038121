// Compares the library with its peers on UTF-8 and UTF-16 in bulk: four mixes of letters, each in
// four sizes.
#include "workloads.h"

#include "codesetUtf.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <glib.h>
#include <iconv.h>
#include <immintrin.h>
#include <memory>
#include <random>
#include <string>
#include <unicode/ustring.h>

using namespace pelago;

namespace {

// The numbers of letters in a hundred that take two, three and four bytes of UTF-8.
struct Mix {
    const char *name;
    unsigned two, three, four;
};
constexpr Mix MIXES[] = {
    {"ascii", 0, 0, 0}, {"latin", 20, 0, 0}, {"cjk", 0, 90, 0}, {"emoji", 0, 15, 60}};

// For each mix, our time may be at most this share of the peer's; 0: our goal is the time of
// reading alone.  (Outside the first cache, reading alone takes more than 0.03 of the peer's time,
// which is a vectorised rival's share on another processor.)
struct Size {
    const char *name;
    size_t bytes; // of UTF-8
    double validity[4], toUtf16[4], toUtf8[4];
};
constexpr Size SIZES[] = {
    {"16 B", 16, {0.65, 0.65, 0.65, 0.65}, {0.74, 0.79, 0.8, 0.71}, {0.75, 0.75, 0.7, 0.7}},
    {"64 B", 64, {0.12, 0.21, 0.2, 0.18}, {0.7, 0.8, 0.8, 0.71}, {0.61, 0.8, 0.8, 0.76}},
    {"1 KiB", 1024, {0.02, 0.12, 0.12, 0.1}, {0.14, 0.54, 0.54, 0.52}, {0.15, 0.24, 0.37, 0.67}},
    {"1 MiB", 1048576, {0, 0.04, 0.08, 0.04}, {0.08, 0.22, 0.6, 0.7}, {0.07, 0.08, 0.18, 0.7}}};

std::string Utf8Of(const Mix &mix, size_t size)
{
    std::mt19937 random(7);
    std::string text;
    while (text.size() < size) {
        const unsigned kind = random() % 100;
        gunichar letter = 'a' + random() % 26;
        if (kind < mix.two) {
            letter = 0xC0 + random() % 0x100;
        } else if (kind < mix.two + mix.three) {
            letter = 0x4E00 + random() % 0x5000;
        } else if (kind < mix.two + mix.three + mix.four) {
            letter = 0x1F300 + random() % 0x300;
        }
        char bytes[6];
        const auto length = static_cast<size_t>(g_unichar_to_utf8(letter, bytes));
        if (text.size() + length <= size) {
            text.append(bytes, length);
        } else {
            text += 'z';
        }
    }
    return text;
}

// A converter's result, in a new block.
struct Block {
    char *data;
    size_t size; // without the four zeros
};

// Does the same work for every peer that fills a given block: allocates room for the largest
// result, writes four zeros after the result, and gives the rest back.  fill() returns the result's
// size.
template <typename F> Block Filled(size_t most, F fill)
{
    auto *block = static_cast<char *>(malloc(most + 4));
    const size_t size = fill(block);
    memset(block + size, 0, 4);
    return {static_cast<char *>(realloc(block, size + 4)), size};
}

Block Ours(bool (*convert)(const char *, size_t, DynBuf *), const std::string &text)
{
    DynBuf db;
    DynBuf_Init(&db);
    convert(text.data(), text.size(), &db);
    DynBuf_Append(&db, "\0\0\0", 4);
    return {db.data, db.size - 4};
}

const UChar *Units(const char *bytes) { return reinterpret_cast<const UChar *>(bytes); }

size_t IcuToUtf16(const std::string &text, char *to)
{
    int32_t length = 0;
    UErrorCode error = U_ZERO_ERROR;
    u_strFromUTF8(reinterpret_cast<UChar *>(to), static_cast<int32_t>(text.size()), &length,
                  text.data(), static_cast<int32_t>(text.size()), &error);
    return U_SUCCESS(error) ? static_cast<size_t>(length) * 2 : 0;
}

size_t IcuToUtf8(const std::string &text, char *to)
{
    int32_t length = 0;
    UErrorCode error = U_ZERO_ERROR;
    u_strToUTF8(to, static_cast<int32_t>(text.size() / 2 * 3), &length, Units(text.data()),
                static_cast<int32_t>(text.size() / 2), &error);
    return U_SUCCESS(error) ? static_cast<size_t>(length) : 0;
}

size_t Iconv(const char *to, const char *from, const std::string &text, char *out, size_t room)
{
    const iconv_t converter = iconv_open(to, from);
    char *in = const_cast<char *>(text.data()), *at = out;
    size_t left = text.size();
    iconv(converter, &in, &left, &at, &room);
    iconv_close(converter);
    return static_cast<size_t>(at - out);
}

Block GlibToUtf16(const std::string &text)
{
    glong units = 0;
    auto *data =
        g_utf8_to_utf16(text.data(), static_cast<glong>(text.size()), nullptr, &units, nullptr);
    return {reinterpret_cast<char *>(data), static_cast<size_t>(units) * 2};
}

Block GlibToUtf8(const std::string &text)
{
    glong size = 0;
    auto *data = g_utf16_to_utf8(reinterpret_cast<const gunichar2 *>(text.data()),
                                 static_cast<glong>(text.size() / 2), nullptr, &size, nullptr);
    return {data, static_cast<size_t>(size)};
}

bool IsPreflighted(const std::string &text)
{
    int32_t length = 0;
    UErrorCode error = U_ZERO_ERROR;
    u_strFromUTF8(nullptr, 0, &length, text.data(), static_cast<int32_t>(text.size()), &error);
    return error == U_BUFFER_OVERFLOW_ERROR;
}

// ---- Limits: parts of the work that no vectorised rival can do without, in vectors of 32 bytes

bool HasLimits() { return __builtin_cpu_supports("avx2") != 0; }

#pragma GCC push_options
#pragma GCC target("avx2,popcnt")

__m256i VectorAt(const char *bytes)
{
    return _mm256_loadu_si256(reinterpret_cast<const __m256i *>(bytes));
}

// Does what the best known method needs to find the faults of whole vectors: three look-ups for
// each two neighbours, and the leading bytes before them.  The tables' values do not matter; the
// choice of the instructions, ASCII, and the text's end are left out.
constexpr char LOOK_UPS[] = "three look-ups a vector, bare";
bool LookUp(const std::string &text)
{
    const __m256i table = _mm256_set1_epi64x(0x0102040810204080), low = _mm256_set1_epi8(0x0F),
                  three = _mm256_set1_epi8(0x60), four = _mm256_set1_epi8(0x70);
    const auto entryOf = [=](__m256i index) {
        return _mm256_shuffle_epi8(table, _mm256_and_si256(index, low));
    };
    __m256i before = {}, faults = {};
    for (size_t at = 0; at + sizeof before <= text.size(); at += sizeof before) {
        const __m256i now = VectorAt(text.data() + at),
                      between = _mm256_permute2x128_si256(before, now, 0x21),
                      first = _mm256_alignr_epi8(now, between, 15),
                      second = _mm256_alignr_epi8(now, between, 14),
                      third = _mm256_alignr_epi8(now, between, 13);
        const __m256i pairs =
            _mm256_and_si256(_mm256_and_si256(entryOf(_mm256_srli_epi16(first, 4)), entryOf(first)),
                             entryOf(_mm256_srli_epi16(now, 4)));
        const __m256i later =
            _mm256_or_si256(_mm256_subs_epu8(second, three), _mm256_subs_epu8(third, four));
        faults = _mm256_or_si256(faults, _mm256_xor_si256(pairs, later));
        before = now;
    }
    return _mm256_testz_si256(faults, faults) != 0;
}

// Reads all of the text, and allocates, fills and frees a block of the result's size.
constexpr char READ_AND_FILL[] = "the text read and a block filled";
bool ReadAndFill(const std::string &text, size_t resultSize)
{
    __m256i all = {};
    for (size_t at = 0; at + sizeof all <= text.size(); at += sizeof all) {
        all = _mm256_or_si256(all, VectorAt(text.data() + at));
    }
    // The block is as large as ours: where malloc() finds one also depends on what it keeps of the
    // other.
    auto *block = Opaque(static_cast<char *>(malloc(resultSize + CODESET_UTF_SLACK)));
    memset(block, 0, resultSize + 4);
    free(Opaque(block));
    return _mm256_testz_si256(all, all) != 0;
}

// Does what the best known method needs to write UTF-8 of units that have different numbers of
// bytes: for each eight units, or four where some have three bytes, two comparisons, a look-up of a
// shuffle and a store.  The table's values do not matter.  Units are not spread to bytes, the text
// is neither measured nor checked, and the room is allocated before: to allocate the most that a
// result can need would change how malloc() serves the rivals.
constexpr char SQUEEZE[] = "a shuffle looked up for each 8 or 4 units";
template <size_t UNITS> size_t Squeeze(const std::string &text, char *room)
{
    alignas(16) static constexpr char ROWS[256][16] = {};
    char *to = room;
    const __m128i two = _mm_set1_epi16(0x80), three = _mm_set1_epi16(0x800);
    for (size_t at = 0; at + 2 * UNITS <= text.size(); at += 2 * UNITS) {
        const __m128i units =
            UNITS == 8 ? _mm_loadu_si128(reinterpret_cast<const __m128i *>(text.data() + at))
                       : _mm_loadu_si64(text.data() + at);
        const __m128i isTwo = _mm_cmpeq_epi16(_mm_max_epu16(units, two), units),
                      isThree = _mm_cmpeq_epi16(_mm_max_epu16(units, three), units);
        const int sizes = _mm_movemask_epi8(_mm_packs_epi16(isTwo, isThree));
        const auto *row = reinterpret_cast<const __m128i *>(ROWS[sizes & 0xFF]);
        _mm_storeu_si128(reinterpret_cast<__m128i *>(to), _mm_shuffle_epi8(units, *row));
        to += UNITS + static_cast<size_t>(__builtin_popcount(static_cast<unsigned>(sizes)));
    }
    return static_cast<size_t>(to - room);
}

#pragma GCC pop_options

// Adds a limit where the processor has the instructions.  A limit is no rival.
void AddLimit(std::vector<Rival> &rivals, const char *name, std::function<void(size_t)> run)
{
    if (HasLimits()) { rivals.push_back({name, std::move(run), false}); }
}

using Text = std::shared_ptr<const std::string>;

template <typename F> bool Gives(F make, const std::string &expected)
{
    const Block block = make();
    const bool same = std::string(block.data, block.size) == expected;
    free(block.data);
    return same;
}

template <typename F> std::function<void(size_t)> Discarded(F make)
{
    return Repeat([make] { free(make().data); });
}

// Returns the title of a row, which is kept for good.
const char *Title(const char *work, const Size &size, size_t mix)
{
    static std::vector<std::unique_ptr<std::string>> titles;
    titles.push_back(std::make_unique<std::string>(work + std::string(", ") + size.name + " " +
                                                   MIXES[mix].name));
    return titles.back()->c_str();
}

void Validity(const Size &size, size_t mix, const Text &utf8)
{
    const auto ours = [=] { return CodeSetUtf8IsValid(utf8->data(), utf8->size()); };
    const auto glib = [=] {
        return g_utf8_validate(utf8->data(), static_cast<gssize>(utf8->size()), nullptr);
    };
    const auto icu = [=] { return IsPreflighted(*utf8); };
    // The least work that shows a text to be ASCII is to read all of it.
    static constexpr char READING[] = "memchr, which only reads";
    const auto reading = [=] { return memchr(utf8->data(), 0xFF, utf8->size()); };
    const Goal goal =
        size.validity[mix] > 0 ? Goal{"g_utf8_validate", size.validity[mix]} : Goal{READING, 1.1};
    std::vector<Rival> rivals = {{"g_utf8_validate", Repeat(glib)},
                                 {"u_strFromUTF8, no output", Repeat(icu)},
                                 {READING, Repeat(reading), false}};
    AddLimit(rivals, LOOK_UPS, Repeat([=] { return LookUp(*utf8); }));
    Workload(Title("validity", size, mix), {goal}, Repeat(ours), rivals,
             ours() && glib() && icu() && reading() == nullptr);
}

void ToUtf16(const Size &size, size_t mix, const Text &utf8, const Text &utf16)
{
    const auto ours = [=] { return Ours(CodeSetUtf8ToUtf16Db, *utf8); };
    const auto icu = [=] {
        return Filled(2 * utf8->size(), [&](char *to) { return IcuToUtf16(*utf8, to); });
    };
    const auto iconv = [=] {
        return Filled(2 * utf8->size(), [&](char *to) {
            return Iconv("UTF-16LE", "UTF-8", *utf8, to, 2 * utf8->size());
        });
    };
    std::vector<Rival> rivals = {{"u_strFromUTF8", Discarded(icu)},
                                 {"g_utf8_to_utf16", Discarded([=] { return GlibToUtf16(*utf8); })},
                                 {"iconv", Discarded(iconv)}};
    AddLimit(rivals, READ_AND_FILL, Repeat([=] { return ReadAndFill(*utf8, utf16->size()); }));
    Workload(Title("UTF-8 to UTF-16", size, mix), {{"u_strFromUTF8", size.toUtf16[mix]}},
             Discarded(ours), rivals,
             Gives(ours, *utf16) && Gives(icu, *utf16) && Gives(iconv, *utf16));
}

void ToUtf8(const Size &size, size_t mix, const Text &utf8, const Text &utf16)
{
    const auto ours = [=] { return Ours(CodeSetUtf16ToUtf8Db, *utf16); };
    const auto icu = [=] {
        return Filled(utf16->size() / 2 * 3, [&](char *to) { return IcuToUtf8(*utf16, to); });
    };
    const auto iconv = [=] {
        return Filled(utf16->size() / 2 * 3, [&](char *to) {
            return Iconv("UTF-8", "UTF-16LE", *utf16, to, utf16->size() / 2 * 3);
        });
    };
    const auto glib = [=] { return GlibToUtf8(*utf16); };
    std::vector<Rival> rivals = {{"u_strToUTF8", Discarded(icu)},
                                 {"g_utf16_to_utf8", Discarded(glib)},
                                 {"iconv", Discarded(iconv)}};
    AddLimit(rivals, READ_AND_FILL, Repeat([=] { return ReadAndFill(*utf16, utf8->size()); }));
    const bool hasThree = MIXES[mix].three + MIXES[mix].four > 0;
    if (hasThree || MIXES[mix].two > 0) {
        const auto room =
            std::make_shared<std::vector<char>>(utf16->size() / 2 * 3 + sizeof(__m128i));
        AddLimit(rivals, SQUEEZE, Repeat([=] {
                     return hasThree ? Squeeze<4>(*utf16, room->data())
                                     : Squeeze<8>(*utf16, room->data());
                 }));
    }
    Workload(Title("UTF-16 to UTF-8", size, mix), {{"u_strToUTF8", size.toUtf8[mix]}},
             Discarded(ours), rivals,
             Gives(ours, *utf8) && Gives(icu, *utf8) && Gives(glib, *utf8) && Gives(iconv, *utf8));
}

void Rows(const Size &size, size_t mix)
{
    const Text utf8 = std::make_shared<const std::string>(Utf8Of(MIXES[mix], size.bytes));
    const Block converted = GlibToUtf16(*utf8);
    const Text utf16 = std::make_shared<const std::string>(converted.data, converted.size);
    free(converted.data);
    Validity(size, mix, utf8);
    ToUtf16(size, mix, utf8, utf16);
    ToUtf8(size, mix, utf8, utf16);
}

} // namespace

int main(int argc, char **argv)
{
    for (const Size &size : SIZES) {
        for (size_t i = 0; i < std::size(MIXES); i++) {
            Rows(size, i);
        }
    }
    return RunWorkloads(argc, argv);
}
