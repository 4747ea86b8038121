// formatArguments.cpp -- arguments by their positions: the format is read once for their types.
#include "formatArguments.h"

#include <algorithm>

namespace pelago {

namespace {

// The type of an argument.  One that no conversion names is skipped as an int.
enum FormatType : uint32_t {
    FORMAT_TYPE_INT, // also for shorter types, which are promoted to int
    FORMAT_TYPE_64_BITS,
    FORMAT_TYPE_POINTER,
    FORMAT_TYPE_DOUBLE,
    FORMAT_TYPE_LONG_DOUBLE,
    FORMAT_TYPE_NONE, // the conversion takes no argument
};

// Returns the type of the conversion's argument.
FormatType TypeOf(const FormatDirective &directive)
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

// The types of a format's arguments, by index.
struct TypeTable {
    FormatType automatic[FORMAT_AUTOMATIC_ARGUMENTS] = {};
    FormatType *types = automatic;
    size_t size = FORMAT_AUTOMATIC_ARGUMENTS;
    size_t count = 1; // one more than the highest index
    size_t next = 1;  // the index for the next conversion without a position

    TypeTable() = default;
    TypeTable(const TypeTable &) = delete;
    TypeTable &operator=(const TypeTable &) = delete;
    ~TypeTable()
    {
        if (types != automatic) { free(types); }
    }
};

// Makes room for an index beyond the table's end.  Aborts the process when memory runs out.
void bsd_grow_type_table(size_t needed, TypeTable *table)
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

void Note(FormatType type, int64_t index, TypeTable *table)
{
    if (type == FORMAT_TYPE_NONE) { return; }
    const size_t at = index != 0 ? static_cast<size_t>(index) : table->next++;
    if (at >= table->size) { bsd_grow_type_table(at, table); }
    table->types[at] = type;
    table->count = std::max(table->count, at + 1);
}

void TakeNext(FormatType type, FormatArguments::List &list, FormatValue *value)
{
    memset(value, 0, sizeof *value); // a format may name an argument again as something longer
    switch (type) {
    case FORMAT_TYPE_64_BITS: value->as64Bits = va_arg(list, long); break;
    case FORMAT_TYPE_POINTER: value->asPointer = va_arg(list, void *); break;
    case FORMAT_TYPE_DOUBLE: value->asDouble = va_arg(list, double); break;
    case FORMAT_TYPE_LONG_DOUBLE: value->asLongDouble = va_arg(list, long double); break;
    default: value->asInt = va_arg(list, int); break;
    }
}

} // namespace

bool bsd_find_arguments(const char *format, va_list arguments, FormatValue **table)
{
    TypeTable found;
    for (const char *text = format; *text != '\0';) {
        if (*text++ != '%') { continue; }
        if (const int64_t index = FormatPositionOfString(text)) {
            Note(FORMAT_TYPE_POINTER, index, &found);
            text += FORMAT_POSITION_OF_STRING_LENGTH;
            continue;
        }
        FormatDirective directive;
        text = FormatRead(text, &directive);
        while (FormatIsAtStar(directive)) {
            Note(FORMAT_TYPE_INT, directive.star, &found);
            text = FormatRead(text, &directive);
        }
        Note(TypeOf(directive), directive.index, &found);
    }
    if (found.count > FORMAT_AUTOMATIC_ARGUMENTS) {
        *table = static_cast<FormatValue *>(malloc(found.count * sizeof(FormatValue)));
        if (*table == nullptr) { return false; }
    }
    for (size_t i = 1; i < found.count; i++) {
        TakeNext(found.types[i], arguments, &(*table)[i]);
    }
    return true;
}

} // namespace pelago
