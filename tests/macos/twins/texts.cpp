// texts.cpp -- escapes, tables, strings, addresses, paths and expansion.
#include "twins.h"

#include "escape.h"
#include "hashTable.h"
#include "str.h"
#include "util.h"

#include <unistd.h>

namespace {

std::string EscapedText(Numbers &numbers)
{
    const size_t size = numbers.Below(30);
    return numbers.OneIn(3) ? numbers.AnyBytes(size)
                            : numbers.Bytes(size, "%%\\\\019aAfFgG'\",,$*.[]^\r\n\r\nx x");
}

void EscapeInto(Numbers &numbers, Trial *trial, const std::string &text, char escape)
{
    char block[24];
    memset(block, 'z', sizeof block);
    const size_t room = numbers.Below(sizeof block + 1);
    trial->AddResult(Escape_UndoFixBuf(escape, text.data(), text.size(), block, room));
    trial->AddResult(std::string(block, sizeof block));
}

// Returns the text from the found place on.
std::string From(const char *found) { return found == nullptr ? "(none)" : found; }

void Change(Numbers &numbers, Trial *trial, HashTable *table, const void *key)
{
    auto *value = reinterpret_cast<void *>(uintptr_t{numbers.Below(5)});
    void *out = nullptr;
    switch (numbers.Below(6)) {
    case 0: trial->AddResult(HashTable_Lookup(table, key, &out)); break;
    case 1: trial->AddResult(HashTable_Insert(table, key, value)); break;
    case 2: trial->AddResult(HashTable_ReplaceOrInsert(table, key, value)); break;
    case 3: trial->AddResult(HashTable_ReplaceIfEqual(table, key, nullptr, value)); break;
    case 4: trial->AddResult(HashTable_Remove(table, key, &out)); break;
    default: out = HashTable_LookupOrInsert(table, key, value);
    }
    trial->AddResult(static_cast<long long>(reinterpret_cast<uintptr_t>(out)));
}

std::string PathOf(Numbers &numbers)
{
    static const char *const PARTS[] = {"usr", "bin",     "..",  ".",  "",
                                        "etc", "missing", "..x", "tmp"};
    std::string path = numbers.OneIn(3) ? "" : "/";
    for (unsigned i = numbers.Below(7); i > 0; i--) {
        path += numbers.Of(PARTS);
        if (i > 1 || numbers.OneIn(3)) { path += '/'; }
    }
    return path;
}

} // namespace

void Escapes(Numbers &numbers, Trial *trial)
{
    const std::string text = EscapedText(numbers);
    const char escape = "%\\a0"[numbers.Below(4)];
    int set[256];
    if (numbers.OneIn(3)) {
        Escape_FillSet(set, text.c_str());
    } else {
        for (int &each : set) {
            each = numbers.OneIn(3);
        }
    }
    trial->AddInput(text);
    trial->AddInput(std::string(1, escape));
    size_t size = 0;
    const auto took = [&](char *block) { trial->TakeResult(block, size); };
    took(Escape_DoString("\\x", set, text.data(), text.size(), &size));
    took(Escape_Do(escape, set, text.data(), text.size(), &size));
    took(Escape_Undo(escape, text.data(), text.size(), &size));
    took(Escape_AnsiToUnix(text.data(), text.size(), &size));
    took(Escape_Sh(text.data(), text.size(), &size));
    took(Escape_BRE(text.data(), text.size(), &size));
    trial->TakeResult(Escape_Comma(text.c_str()));
    trial->AddResult(From(Escape_Strchr(escape, text.c_str(), "%\\a,"[numbers.Below(4)])));
    trial->TakeResult(Escape_Unescape(escape, text.c_str()));
    EscapeInto(numbers, trial, text, escape);
    std::string changed = text.c_str();
    trial->AddResult(Escape_UnescapeCString(changed.data()));
    trial->AddResult(changed);
}

void Tables(Numbers &numbers, Trial *trial)
{
    static constexpr int KINDS[] = {HASH_STRING_KEY, HASH_ISTRING_KEY, HASH_INT_KEY};
    const int kind = numbers.Of(KINDS);
    const int flags = kind | HASH_FLAG_COPYKEY | (numbers.OneIn(2) ? HASH_FLAG_ATOMIC : 0);
    HashTable *table = HashTable_Alloc(1U << numbers.Below(7), flags, nullptr);
    std::vector<std::string> keys;
    for (unsigned i = 1 + numbers.Below(20); i > 0; i--) {
        keys.push_back(numbers.Bytes(numbers.Below(9), "abABzZ\xC3\xA9[@0"));
        trial->AddInput(keys.back());
    }
    for (unsigned i = numbers.Below(60); i > 0; i--) {
        const void *key = kind == HASH_INT_KEY
                              ? reinterpret_cast<void *>(uintptr_t{numbers.Below(90)} << 20)
                              : numbers.Of(keys).c_str();
        Change(numbers, trial, table, key);
    }
    const void **order = nullptr;
    size_t size = 0;
    HashTable_KeyArray(table, &order, &size);
    for (size_t i = 0; i < size; i++) {
        trial->AddResult(kind == HASH_INT_KEY
                             ? std::to_string(reinterpret_cast<uintptr_t>(order[i]))
                             : static_cast<const char *>(order[i]));
    }
    free(order);
    trial->AddResult(static_cast<long long>(HashTable_GetNumElements(table)));
    HashTable_Free(table);
}

void Strings(Numbers &numbers, Trial *trial)
{
    const std::string first = numbers.OneIn(3) ? AnyText(numbers, numbers.Below(20))
                                               : numbers.Bytes(numbers.Below(40), "aAbBzZ@[`{\xE9");
    const std::string second = numbers.Bytes(numbers.Below(4), "aAbBzZ@[");
    const size_t n = numbers.Below(50);
    trial->AddInput(first);
    trial->AddInput(second + " " + std::to_string(n));
    char buffer[256] = "";
    trial->AddResult(Str_Strcpy(buffer, first.c_str(), sizeof buffer));
    trial->AddResult(Str_Strcat(buffer, second.c_str(), sizeof buffer));
    trial->AddResult(Str_Strncat(buffer, sizeof buffer, first.c_str(), n));
    trial->AddResult(Str_ToUpper(buffer));
    trial->AddResult(Str_ToLower(buffer));
    trial->AddResult(Str_Strncpy(buffer, sizeof buffer, first.c_str(), n));
    trial->AddResult(static_cast<long long>(Str_Strlen(first.c_str(), n)));
    trial->AddResult(From(Str_Strnstr(first.c_str(), second.c_str(), n)));
    trial->AddResult(Util_IsEqualIgnoreCase(first.c_str(), second.c_str()));
    trial->AddResult(Util_StrDiffers(first.c_str(), second.c_str()));
    size_t count = 0;
    std::string other = first;
    if (!other.empty() && numbers.OneIn(2)) { other[numbers.Below(other.size())] ^= 0x20; }
    trial->AddResult(Util_CountMemDiff(first.data(), other.data(), first.size(), &count));
    trial->AddResult(static_cast<long long>(count));
    trial->AddResult(Util_MemDiffers(first.data(), other.data(), first.size()));
}

void Addresses(Numbers &numbers, Trial *trial)
{
    std::string text;
    for (unsigned i = numbers.Below(10); i > 0; i--) {
        switch (numbers.Below(4)) {
        case 0: text += std::to_string(numbers.Below(300)); break;
        case 1: text += numbers.Bytes(1 + numbers.Below(4), "0123456789abcdefABCDEF"); break;
        case 2: text += numbers.Bytes(1, ":.:.:.% x0"); break;
        default: text += numbers.OneIn(2) ? "::" : numbers.OneIn(2) ? ":" : ".";
        }
    }
    trial->AddInput(text);
    trial->AddResult(Util_IsIPv4Address(text.c_str()));
    trial->AddResult(Util_IsIPv6Address(text.c_str()));
    trial->AddResult(Util_IsIPAddress(text.c_str()));
}

void Paths(Numbers &numbers, Trial *trial)
{
    const std::string path = PathOf(numbers);
    trial->AddInput(path);
    trial->AddResult(Util_IsAbsolutePath(path.c_str()));
    trial->TakeResult(Util_CanonicalPath(path.c_str()));
}

void Expansion(Numbers &numbers, Trial *trial)
{
    static const char *const PIECES[] = {"$A",   "${A}",  "$EMPTY", "$HOME", "~",       "~/",
                                         "/",    "$",     "$$",     "$_N9",  "$USER",   "~root/",
                                         "a",    "$MISS", "\\",     "-",     "~nobody", "~missing",
                                         "\xC3", "é",     "$A9",    "${",    "}"};
    static const char *const VARIABLES[] = {"A", "EMPTY", "HOME", "_N9", "USER", "A9"};
    static const char *const VALUES[] = {"", "1", "/u", "$A~/", "somebody", "~", "caf\xC3\xA9"};
    for (const char *name : VARIABLES) {
        if (numbers.OneIn(4)) {
            unsetenv(name);
        } else {
            const char *value = numbers.Of(VALUES);
            setenv(name, value, 1);
            trial->AddInput(std::string(name) + "=" + value);
        }
    }
    const char *home = numbers.OneIn(3) ? "/over" : nullptr;
    static const char *kept;
    Util_OverrideHomeDir(nullptr);
    free(const_cast<char *>(kept)); // the library does not free it
    kept = Util_OverrideHomeDir(home);
    std::string text;
    for (unsigned i = numbers.Below(8); i > 0; i--) {
        text += numbers.Of(PIECES);
    }
    trial->AddInput(text);
    trial->TakeResult(Util_ExpandString(text.c_str()));
}
