// Parses any text as a kernel's release, and compares the result with that of a plain reader.
#include "hostinfoInt.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

using namespace pelago;

namespace {

bool IsDigit(char byte) { return byte >= '0' && byte <= '9'; }

bool IsBlank(char byte) { return byte == ' ' || (byte >= '\t' && byte <= '\r'); }

// Reads a release from its start.
class Reader {
public:
    explicit Reader(const std::string &text) : mText(text) {}

    void SkipBlanks()
    {
        while (IsBlank(mText[mAt])) {
            mAt++;
        }
    }

    // Reads a number; false if there is none, or one that no int can hold.
    bool Number(int *number)
    {
        SkipBlanks();
        const bool isNegative = mText[mAt] == '-';
        if (isNegative || mText[mAt] == '+') { mAt++; }
        if (!IsDigit(mText[mAt])) { return false; }
        int64_t value = 0;
        for (; IsDigit(mText[mAt]); mAt++) {
            value = 10 * value + (mText[mAt] - '0');
            if (value > INT32_MAX) {
                mIsTooLarge = true;
                return false;
            }
        }
        *number = static_cast<int>(isNegative ? -value : value);
        return true;
    }

    bool Point() { return mText[mAt] == '.' && ++mAt; }

    // Returns the text up to the next blank, 255 bytes at most.
    std::string Word()
    {
        SkipBlanks();
        std::string word;
        while (mText[mAt] != '\0' && !IsBlank(mText[mAt]) && word.size() < 255) {
            word += mText[mAt++];
        }
        return word;
    }

    bool mIsTooLarge = false;

private:
    const std::string mText;
    size_t mAt = 0;
};

void Expect(bool isTrue)
{
    if (!isTrue) { abort(); }
}

// Returns the first number in the word, or 0.
int Extra(const std::string &word, bool *isTooLarge)
{
    Reader reader(word.substr(std::min(word.find_first_of("0123456789"), word.size())));
    int number = 0;
    reader.Number(&number);
    *isTooLarge = *isTooLarge || reader.mIsTooLarge;
    return number;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // The input up to its first NUL, terminated.
    const std::string release = std::string(reinterpret_cast<const char *>(data), size).c_str();
    HostinfoOSVersion version = {};
    const bool succeeded = HostinfoParseRelease(release.c_str(), &version);

    Reader reader(release);
    int numbers[3] = {};
    const bool isOne = reader.Number(&numbers[0]);
    const bool areThree = isOne && reader.Point() && reader.Number(&numbers[1]) && reader.Point() &&
                          reader.Number(&numbers[2]);
    bool isTooLarge = reader.mIsTooLarge;
    const int extra = areThree ? Extra(reader.Word(), &isTooLarge) : 0;
    if (isTooLarge) { return 0; } // the C library leaves the result undefined
    Expect(succeeded == isOne);
    if (isOne) {
        Expect(version.major == numbers[0] && version.minor == numbers[1] &&
               version.micro == numbers[2] && version.extra == extra);
    }
    return 0;
}
