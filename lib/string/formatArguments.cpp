// formatArguments.cpp -- arguments by their positions: the format is read once for their types.
#include "formatArguments.h"

#include <algorithm>
#include <cstring>

namespace pelago {

namespace {

// Reads a format for its arguments' types, without any values.
class TypeReader {
public:
    void UsePositions() {}
    int Star(int64_t index)
    {
        Note(FORMAT_TYPE_INT, index);
        return 0;
    }
    void Note(FormatType type, int64_t index)
    {
        if (type == FORMAT_TYPE_NONE) { return; }
        const size_t at = static_cast<size_t>(index != 0 ? index : mNext++);
        if (at >= mTable.size) { bsd_grow_type_table(at, &mTable); }
        mTable.types[at] = type;
        mHighest = std::max(mHighest, at);
    }
    FormatType Type(size_t index) const { return mTable.types[index]; }
    size_t Highest() const { return mHighest; }

private:
    FormatTypeTable mTable;
    int64_t mNext = 1;
    size_t mHighest = 0;
};

FormatValue NextValue(FormatType type, FormatArguments::List &list)
{
    FormatValue value;
    memset(&value, 0, sizeof value); // a format may name an argument again as something longer
    switch (type) {
    case FORMAT_TYPE_64_BITS: value.as64Bits = va_arg(list, long); break;
    case FORMAT_TYPE_POINTER: value.asPointer = va_arg(list, void *); break;
    case FORMAT_TYPE_DOUBLE: value.asDouble = va_arg(list, double); break;
    case FORMAT_TYPE_LONG_DOUBLE: value.asLongDouble = va_arg(list, long double); break;
    default: value.asInt = va_arg(list, int); break;
    }
    return value;
}

} // namespace

void bsd_grow_type_table(size_t needed, FormatTypeTable *table)
{
    const size_t size = std::max(2 * table->size, needed + 1);
    const bool first = table->types == table->automatic;
    void *block = realloc(first ? nullptr : table->types, size * sizeof(FormatType));
    if (block == nullptr) { abort(); }
    FormatType *types = static_cast<FormatType *>(block);
    if (first) { std::copy_n(table->automatic, table->size, types); }
    std::fill(types + table->size, types + size, FORMAT_TYPE_INT);
    table->types = types;
    table->size = size;
}

bool bsd_find_arguments(const char *format, va_list arguments, FormatValue **table)
{
    TypeReader reader;
    for (const char *text = strchr(format, '%'); text != nullptr; text = strchr(text, '%')) {
        text++;
        FormatDirective directive;
        text = FormatRead(text, &reader, &directive);
        reader.Note(FormatTypeOf(directive), directive.index);
    }
    const size_t count = reader.Highest() + 1;
    if (count > FORMAT_AUTOMATIC_ARGUMENTS) {
        *table = static_cast<FormatValue *>(malloc(count * sizeof(FormatValue)));
        if (*table == nullptr) { return false; }
    }
    for (size_t i = 1; i < count; i++) {
        (*table)[i] = NextValue(reader.Type(i), arguments);
    }
    return true;
}

} // namespace pelago
