// formatConventions.h -- how numbers are punctuated: the decimal point, and digits in groups.
#ifndef PELAGO_STRING_FORMATCONVENTIONS_H
#define PELAGO_STRING_FORMATCONVENTIONS_H

#include <clocale>
#include <cstdint>
#include <langinfo.h>

namespace pelago {

// The size of a group that takes all further digits, as in localeconv().
constexpr char FORMAT_ENDLESS_GROUP = 127;
constexpr char FORMAT_NO_GROUPING[] = {FORMAT_ENDLESS_GROUP, '\0'};

// Looks up the current locale's conventions only when a number needs them.  Reads the point with
// nl_langinfo(), which is faster than localeconv().
class FormatConventions {
public:
    FormatConventions() = default; // the current locale's
    FormatConventions(const char *decimalPoint, char separator, const char *grouping)
        : mDecimalPoint(decimalPoint), mSeparator(separator), mGrouping(Usable(grouping))
    {}

    char DecimalPoint()
    {
        if (mDecimalPoint == nullptr) { mDecimalPoint = nl_langinfo(RADIXCHAR); }
        return *mDecimalPoint;
    }
    const char *Grouping()
    {
        if (mGrouping == nullptr) {
            const lconv *locale = localeconv();
            mSeparator = *locale->thousands_sep;
            mGrouping = Usable(locale->grouping);
        }
        return mGrouping;
    }
    // Must be called after Grouping(), which looks the separator up.
    char Separator() const { return mSeparator; }

private:
    // Without a separator digits are not grouped.
    const char *Usable(const char *grouping) const
    {
        const bool usable = grouping != nullptr && *grouping != '\0' && mSeparator != '\0';
        return usable ? grouping : FORMAT_NO_GROUPING;
    }

    const char *mDecimalPoint = nullptr; // of which only the first byte is printed
    char mSeparator = '\0';
    const char *mGrouping = nullptr;
};

// The digits before the point, in groups from the left: the leftmost group, then the groups of the
// size that repeats, then one group for each earlier size in the locale's list.
class FormatGroups {
public:
    FormatGroups(int64_t digits, const char *grouping)
        : mDigits(digits), mLeftmost(digits), mSize(grouping)
    {
        while (*mSize > 0 && *mSize != FORMAT_ENDLESS_GROUP && mLeftmost > *mSize) {
            mLeftmost -= *mSize;
            mSeparators++;
            if (mSize[1] != '\0') {
                mSize++;
            } else {
                mRepeated++;
            }
        }
    }
    int64_t Separators() const { return mSeparators; }

    // Calls digits(index, count) for each group from the left, and separator() between them.
    template <typename Digits, typename Separator>
    void Print(const Digits &digits, const Separator &separator) const
    {
        digits(int64_t{0}, mLeftmost);
        const char *size = mSize;
        int64_t repeated = mRepeated;
        for (int64_t index = mLeftmost; index < mDigits; index += *size) {
            if (repeated-- <= 0) { size--; }
            separator();
            digits(index, int64_t{*size});
        }
    }

private:
    int64_t mDigits;
    int64_t mLeftmost; // the number of digits in the leftmost group
    int64_t mRepeated = 0;
    const char *mSize; // of the groups that repeat
    int64_t mSeparators = 0;
};

} // namespace pelago

#endif // PELAGO_STRING_FORMATCONVENTIONS_H
