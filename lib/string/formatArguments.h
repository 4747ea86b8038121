// formatArguments.h -- the arguments of a format, taken in order or by their positions.
#ifndef PELAGO_STRING_FORMATARGUMENTS_H
#define PELAGO_STRING_FORMATARGUMENTS_H

#include "formatDirective.h"

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <type_traits>

namespace pelago {

// Any argument.
union FormatValue {
    int asInt;
    long as64Bits;
    void *asPointer;
    double asDouble;
    long double asLongDouble;
};
static_assert(sizeof(FormatValue) == 16);

constexpr size_t FORMAT_AUTOMATIC_ARGUMENTS = 8; // need no heap memory; index 0 is not used

// Reads the whole format for the type of each argument, then the list from its start, and stores
// the arguments by index in *table, which has room for FORMAT_AUTOMATIC_ARGUMENTS.  For more,
// *table becomes a new block, which the caller frees.  False, with *table NULL, when there is no
// memory for the block.
bool bsd_find_arguments(const char *format, va_list arguments, FormatValue **table);

class FormatArguments {
public:
    // The type that va_list has as a parameter of a function: where it is an array, a pointer.
    using List = std::decay_t<va_list>;

    // Uses up the caller's list: a working copy would take longer than formatting a short text. The
    // copy of its start is for formats with positions.
    FormatArguments(const char *format, List &list) : mFormat(format), mList(list)
    {
        va_copy(mStart, list);
    }
    FormatArguments(const FormatArguments &) = delete;
    FormatArguments &operator=(const FormatArguments &) = delete;
    ~FormatArguments()
    {
        va_end(mStart);
        if (mTable != nullptr && mTable != mAutomatic) { free(mTable); }
    }

    // Returns the argument with that index, or the next one for index 0.  T is one of FormatValue's
    // types.
    template <typename T> T Take(int64_t index)
    {
        if (index == 0) { index = mNext++; }
        if (mTable == nullptr) { return va_arg(mList, T); }
        T value;
        memcpy(&value, &mTable[index], sizeof value);
        return value;
    }

    // Reads all arguments into the table, from which Take() returns them from now on.  False when
    // there is no memory for the table: Take() must not be called any more.
    bool UsePositions()
    {
        if (mTable != nullptr) { return true; }
        mTable = mAutomatic;
        return bsd_find_arguments(mFormat, mStart, &mTable);
    }

private:
    const char *mFormat;
    List &mList;
    va_list mStart;
    int64_t mNext = 1;
    FormatValue *mTable = nullptr;
    FormatValue mAutomatic[FORMAT_AUTOMATIC_ARGUMENTS];
};

} // namespace pelago

#endif // PELAGO_STRING_FORMATARGUMENTS_H
