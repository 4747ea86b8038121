// bind.cpp
#include "bind.h"

#include "refuse.h"
#include "rows.h"

#include <set>

namespace {

constexpr std::string_view REAL = "___real_", WRAP = "___wrap_";

// Darwin names the variants of a call with a "$" after its name; a program's sources have the name
// before it.
std::string_view Plain(std::string_view symbol) { return symbol.substr(0, symbol.find('$')); }

// Returns the row that a program compiled today means by a plain name.
void *FindVariant(const std::string &plain)
{
    for (const char *variant : {"$INODE64", "$DARWIN_EXTSN", ""}) {
        if (void *address = FindRow(plain + variant)) { return address; }
    }
    return nullptr;
}

void *Find(const Image &image, std::string_view symbol)
{
    if (symbol.starts_with(REAL)) {
        return FindVariant("_" + std::string(symbol.substr(REAL.size())));
    }
    const auto wrap = image.symbols.find(std::string(WRAP) + std::string(Plain(symbol).substr(1)));
    if (wrap != image.symbols.end()) { return wrap->second; }
    // A weak symbol that the image itself defines.
    const auto own = image.symbols.find(symbol);
    return own != image.symbols.end() ? own->second : FindRow(symbol);
}

} // namespace

void BindImports(const Image &image)
{
    std::set<std::string, std::less<>> missing;
    BindImage(image, [&](std::string_view symbol) {
        void *address = Find(image, symbol);
        if (address == nullptr) { missing.emplace(symbol); }
        return address;
    });
    if (missing.empty()) { return; }
    std::string names;
    for (const std::string &name : missing) {
        names += " " + name;
    }
    Refuse("no row for%s", names.c_str());
}
