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

constexpr size_t FORMAT_AUTOMATIC_ARGUMENTS = 8; // that need no memory; index 0 is not used

// Reads the whole format for the type of each argument, then the list from its start, and stores
// the arguments by index in *table, which has FORMAT_AUTOMATIC_ARGUMENTS of them; when these are
// too few it becomes a new block, which the caller frees.  False when there is no memory for that;
// *table is NULL then.
bool bsd_find_arguments(const char *format, va_list arguments, FormatValue **table);

class FormatArguments {
public:
    // As a parameter of a function has it: an array is a pointer there.
    using List = std::decay_t<va_list>;

    // The list is the caller's own, and is used up: to copy it would take longer than all the rest
    // of a short format, so only its start is kept, for when positions come up.
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

    // The argument with that index, or the next one for index 0.  T is one of FormatValue's types.
    template <typename T> T Take(int64_t index)
    {
        if (index == 0) { index = mNext++; }
        if (mTable == nullptr) { return va_arg(mList, T); }
        T value;
        memcpy(&value, &mTable[index], sizeof value);
        return value;
    }

    // From now on every argument comes from the table.  False when there is no memory for it:
    // nothing can be taken any more.
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
