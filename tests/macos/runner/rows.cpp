// rows.cpp
#include "rows.h"

#include "refuse.h"

#include <map>
#include <string>

namespace {

using Table = std::map<std::string_view, void *>;

Table AllRows()
{
    Table table;
    for (const auto area :
         {MemoryRows, LocaleRows, StdioRows, FileRows, ProcessRows, UserRows, TimeRows, ThreadRows,
          RuntimeRows, KernelRows, FoundationRows, NetworkRows, SuiteRows}) {
        for (const Row &row : area()) {
            if (!table.emplace(row.name, row.address).second) {
                Refuse("there are two rows for %s", std::string(row.name).c_str());
            }
        }
    }
    return table;
}

} // namespace

void *FindRow(std::string_view name)
{
    static const Table table = AllRows();
    // Only "dyld_stub_binder" has no underscore.
    const auto found = table.find(name.starts_with('_') ? name.substr(1) : name);
    return found == table.end() ? nullptr : found->second;
}
