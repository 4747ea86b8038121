// twins.h -- the library's results for generated inputs, by which its builds for two hosts are
// compared.  Each area makes an input from random numbers, calls the library with it, and records
// input and results as a trial.
#ifndef PELAGO_TESTS_MACOS_TWINS_H
#define PELAGO_TESTS_MACOS_TWINS_H

#include <cstdint>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>

// Random numbers that are the same on every host, whatever its C++ library has.
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
    // A small number, one near a power of two, or any.
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
    // A text of that size, made of these bytes.
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

struct Trial {
    std::string input, result;
    void AddInput(const std::string &text) { Add(&input, text.data(), text.size()); }
    void AddResult(const std::string &text) { Add(&result, text.data(), text.size()); }
    void AddResult(long long number) { AddResult(std::to_string(number)); }
    // Adds the block's bytes and frees it; nullptr is "(none)".
    void TakeResult(char *block, size_t size)
    {
        if (block == nullptr) { return AddResult("(none)"); }
        Add(&result, block, size);
        free(block);
    }
    void TakeResult(char *text) { TakeResult(text, text == nullptr ? 0 : strlen(text)); }

private:
    static void Add(std::string *to, const char *bytes, size_t size)
    {
        to->append(bytes, size) += '|';
    }
};

// Returns text of whole characters in UTF-8, from all planes, with many at the limits of ranges.
std::string AnyText(Numbers &numbers, size_t characters);

// Returns the library's messages since the last call.
std::string Logged();

// Writes each known difference of the hosts, one a line.
void WriteDifferences();

void Integers(Numbers &numbers, Trial *trial);
void Floats(Numbers &numbers, Trial *trial);
void Texts(Numbers &numbers, Trial *trial);
void Positions(Numbers &numbers, Trial *trial);
void AnyFormats(Numbers &numbers, Trial *trial);
void Conversions(Numbers &numbers, Trial *trial);
void ConversionsWithoutIcu(Numbers &numbers, Trial *trial);
void UnicodeStrings(Numbers &numbers, Trial *trial);
void UtfConverters(Numbers &numbers, Trial *trial);
void Normalization(Numbers &numbers, Trial *trial);
void EncodingNames(Numbers &numbers, Trial *trial);
void Escapes(Numbers &numbers, Trial *trial);
void Tables(Numbers &numbers, Trial *trial);
void Strings(Numbers &numbers, Trial *trial);
void Addresses(Numbers &numbers, Trial *trial);
void Paths(Numbers &numbers, Trial *trial);
void Expansion(Numbers &numbers, Trial *trial);

#endif // PELAGO_TESTS_MACOS_TWINS_H
