// twins.h -- what the library gives for inputs made from a number, so that its builds for two hosts
// can be compared.  An area makes the input of a number and answers with what was asked and what
// came.
#ifndef PELAGO_TESTS_MACOS_TWINS_H
#define PELAGO_TESTS_MACOS_TWINS_H

#include <cstdint>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>

// The same numbers on every host, whatever its library has.
class Numbers {
public:
    explicit Numbers(uint64_t seed) : mState(seed) {}
    uint64_t Next()
    {
        uint64_t mixed = mState += 0x9E3779B97F4A7C15;
        mixed = (mixed ^ (mixed >> 30)) * 0xBF58476D1CE4E5B9;
        mixed = (mixed ^ (mixed >> 27)) * 0x94D049BB133111EB;
        return mixed ^ (mixed >> 31);
    }
    unsigned Below(size_t bound) { return static_cast<unsigned>(Next() % bound); }
    bool OneIn(unsigned chances) { return Below(chances) == 0; }
    // Small, near a power of two, or anything.
    uint64_t Integer()
    {
        switch (Below(4)) {
        case 0: return Below(300);
        case 1: return static_cast<uint64_t>(-static_cast<int64_t>(Below(300)));
        case 2: return (uint64_t{1} << Below(64)) - Below(3);
        default: return Next() >> Below(64);
        }
    }
    template <typename T, size_t N> T Of(const T (&choices)[N]) { return choices[Below(N)]; }
    template <typename T> const T &Of(const std::vector<T> &choices)
    {
        return choices[Below(choices.size())];
    }
    // So many of these bytes.
    std::string Bytes(size_t size, const std::string &choices)
    {
        std::string text;
        while (text.size() < size) {
            text += choices[Below(choices.size())];
        }
        return text;
    }
    std::string AnyBytes(size_t size)
    {
        std::string text;
        while (text.size() < size) {
            text += static_cast<char>(Next());
        }
        return text;
    }

private:
    uint64_t mState;
};

struct Answer {
    std::string asked, came;
    void Ask(const std::string &text) { Add(&asked, text.data(), text.size()); }
    void Came(const std::string &text) { Add(&came, text.data(), text.size()); }
    void Came(long long number) { Came(std::to_string(number)); }
    // A block that is freed, or none.
    void Took(char *block, size_t size)
    {
        if (block == nullptr) { return Came("(none)"); }
        Add(&came, block, size);
        free(block);
    }
    void Took(char *text) { Took(text, text == nullptr ? 0 : strlen(text)); }

private:
    static void Add(std::string *to, const char *bytes, size_t size)
    {
        to->append(bytes, size) += '|';
    }
};

// Text of whole characters, in UTF-8, from all planes and from where things happen.
std::string AnyText(Numbers &numbers, size_t characters);

// What the library has logged, warned of and printed since the last call.
std::string Logged();

// What the hosts are known to differ in, a line each.
void WriteDifferences();

void Integers(Numbers &numbers, Answer *answer);
void Floats(Numbers &numbers, Answer *answer);
void Texts(Numbers &numbers, Answer *answer);
void Positions(Numbers &numbers, Answer *answer);
void AnyFormats(Numbers &numbers, Answer *answer);
void Conversions(Numbers &numbers, Answer *answer);
void ConversionsWithoutIcu(Numbers &numbers, Answer *answer);
void UnicodeStrings(Numbers &numbers, Answer *answer);
void UtfConverters(Numbers &numbers, Answer *answer);
void Normalization(Numbers &numbers, Answer *answer);
void EncodingNames(Numbers &numbers, Answer *answer);
void Escapes(Numbers &numbers, Answer *answer);
void Tables(Numbers &numbers, Answer *answer);
void Strings(Numbers &numbers, Answer *answer);
void Addresses(Numbers &numbers, Answer *answer);
void Paths(Numbers &numbers, Answer *answer);
void Expansion(Numbers &numbers, Answer *answer);

#endif // PELAGO_TESTS_MACOS_TWINS_H
