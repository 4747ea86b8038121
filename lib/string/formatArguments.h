// formatArguments.h -- the arguments of a format, taken in order or by their positions.
#ifndef PELAGO_STRING_FORMATARGUMENTS_H
#define PELAGO_STRING_FORMATARGUMENTS_H

#include "formatDirective.h"

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <type_traits>

namespace pelago {

// How an argument is passed.  An argument that no conversion names is skipped as an int.
enum FormatType : uint32_t {
    FORMAT_TYPE_INT, // or what is promoted to it
    FORMAT_TYPE_64_BITS,
    FORMAT_TYPE_POINTER,
    FORMAT_TYPE_DOUBLE,
    FORMAT_TYPE_LONG_DOUBLE,
    FORMAT_TYPE_NONE, // the conversion takes no argument
};

// Any argument.
union FormatValue {
    int asInt;
    long as64Bits;
    void *asPointer;
    double asDouble;
    long double asLongDouble;
};
static_assert(sizeof(FormatValue) == 16);

// What the directive's conversion takes.
inline FormatType FormatTypeOf(const FormatDirective &directive)
{
    switch (directive.conversion) {
    case 'd':
    case 'i':
    case 'o':
    case 'u':
    case 'x':
    case 'X': return directive.flags & FORMAT_64_BITS ? FORMAT_TYPE_64_BITS : FORMAT_TYPE_INT;
    case 'c': return FORMAT_TYPE_INT;
    case 'n':
    case 'p':
    case 's': return FORMAT_TYPE_POINTER;
    case 'e':
    case 'E':
    case 'f':
    case 'F':
    case 'g':
    case 'G': return directive.flags & FORMAT_WIDE ? FORMAT_TYPE_LONG_DOUBLE : FORMAT_TYPE_DOUBLE;
    default: return FORMAT_TYPE_NONE;
    }
}

constexpr size_t FORMAT_AUTOMATIC_ARGUMENTS = 8; // that need no memory; index 0 is not used

// Reads the whole format for the type of each argument, then the list from its start, and stores
// the arguments by index in *table, which has FORMAT_AUTOMATIC_ARGUMENTS of them; when these are
// too few it becomes a new block, which the caller frees.  False when there is no memory for that.
bool bsd_find_arguments(const char *format, va_list arguments, FormatValue **table);

// What the format says of each argument, by index.
struct FormatTypeTable {
    FormatType automatic[FORMAT_AUTOMATIC_ARGUMENTS] = {};
    FormatType *types = automatic;
    size_t size = FORMAT_AUTOMATIC_ARGUMENTS;

    FormatTypeTable() = default;
    FormatTypeTable(const FormatTypeTable &) = delete;
    FormatTypeTable &operator=(const FormatTypeTable &) = delete;
    ~FormatTypeTable()
    {
        if (types != automatic) { free(types); }
    }
};

// Makes room for an index at or behind the table's end.  Aborts the process without memory.
void bsd_grow_type_table(size_t needed, FormatTypeTable *table);

class FormatArguments {
public:
    // As a parameter of a function has it: an array is a pointer there.
    using List = std::decay_t<va_list>;

    // The list is the caller's own, and is used up: to copy it would take longer than all the rest
    // of a short format, so its start is only kept for when positions come up.
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
    int Star(int64_t index)
    {
        if (index != 0) { UsePositions(); }
        return Take<int>(index);
    }

    // From now on every argument comes from the table.
    void UsePositions()
    {
        if (mTable != nullptr || mFailed) { return; }
        mTable = mAutomatic;
        mFailed = !bsd_find_arguments(mFormat, mStart, &mTable);
    }
    // There was no memory for the table: what is taken from now on means nothing.
    bool Failed() const { return mFailed; }

private:
    const char *mFormat;
    List &mList;
    va_list mStart;
    int64_t mNext = 1;
    bool mFailed = false;
    FormatValue *mTable = nullptr;
    FormatValue mAutomatic[FORMAT_AUTOMATIC_ARGUMENTS];
};

} // namespace pelago

#endif // PELAGO_STRING_FORMATARGUMENTS_H
