// utilExpand.cpp -- home directories and variables in file names.
#include "util.h"

#include "ascii.h"
#include "diagnostics.h"
#include "posix.h"
#include "scoped.h"
#include "str.h"

#include <cstdlib>
#include <cstring>
#include <pwd.h>
#include <unistd.h>

using namespace pelago;

namespace {

constexpr size_t UTIL_MAX_CHUNKS = 100;
constexpr size_t UTIL_PID_SIZE = 100;

constexpr char UTIL_NO_MEMORY[] = "%s: Cannot allocate memory for the expansion of \"%s\".\n";
constexpr char UTIL_NO_MEMORY_FOR_VALUE[] = "%s: Cannot allocate memory to expand $ in \"%s\".\n";

const char *sHomeDir; // nullptr: homes are looked up

// A piece of the text, or its replacement.
struct UtilChunk {
    const char *text;
    size_t size;
    ScopedFree<char> owned; // the replacement; nullptr for a piece that was not replaced

    // False when there is no memory.
    bool Replace(const char *value)
    {
        owned.reset(strdup(value));
        if (!owned) { return false; }
        text = owned.get();
        size = strlen(text);
        return true;
    }
};

// Copies the piece without its first byte, "~" or "$", to the buffer, which has room for the whole
// text.
void UtilCopyName(const UtilChunk &chunk, char *name)
{
    memcpy(name, chunk.text + 1, chunk.size - 1);
    name[chunk.size - 1] = '\0';
}

// Closes the user database at the end of the block.  The text of a record must be copied before.
struct UtilUserDatabase {
    ~UtilUserDatabase() { Posix_Endpwent(); }
};

// ---- Homes

const char *UtilHomeOf(const passwd *record)
{
    if (record->pw_dir == nullptr) { Log("Could not get home directory for user.\n"); }
    return record->pw_dir;
}

// Returns the user's home, or nullptr after a Log that says why there is none.
const char *UtilUsersHome(const char *user)
{
    const passwd *record = getpwnam(user);
    if (record != nullptr) { return UtilHomeOf(record); }
    Log("Could not get passwd for user '%s'.\n", user);
    return nullptr;
}

// Returns the home of this process's user, or nullptr after a Log that says why there is none.
const char *UtilOwnHome()
{
    // The user who starts a set-user-ID program must not choose where its files are.
    const char *fixed = issetugid() ? nullptr : getenv("CFFIXED_USER_HOME");
    if (fixed != nullptr) { return fixed; }
    const passwd *record = getpwuid(getuid());
    if (record != nullptr) { return UtilHomeOf(record); }
    Log("Could not get passwd for current user.\n");
    const char *home = getenv("HOME");
    if (home == nullptr) { Log("Could not expand environment variable HOME.\n"); }
    return home;
}

// Replaces "~" or "~user" by the home, if there is one; the buffer `user` takes the user's name.
// False when memory runs out.
bool UtilExpandTilde(UtilChunk *chunk, char *user)
{
    if (sHomeDir != nullptr) { return chunk->Replace(sHomeDir); }
    const UtilUserDatabase closing;
    UtilCopyName(*chunk, user);
    const char *home = *user == '\0' ? UtilOwnHome() : UtilUsersHome(user);
    return home == nullptr || chunk->Replace(home);
}

// ---- Variables

// Returns whether the name equals `capitals`, ignoring the case of its ASCII letters.  Not
// strcasecmp(): in a Turkish locale "i" is not the small letter of "I".
bool UtilIsNamed(const char *name, const char *capitals)
{
    while (*name != '\0' && AsciiToUpper(*name) == *capitals) {
        name++;
        capitals++;
    }
    return *name == *capitals;
}

const char *UtilUserName()
{
    const passwd *record = getpwuid(getuid());
    return record == nullptr || record->pw_name == nullptr ? "unknown" : record->pw_name;
}

// Replaces "$NAME" by the value; the buffer `name` takes the name.  False when memory runs out.
bool UtilExpandVariable(UtilChunk *chunk, char *name, const char *string)
{
    UtilCopyName(*chunk, name);
    if (const char *value = getenv(name)) { return chunk->Replace(value); }
    if (UtilIsNamed(name, "PID")) {
        char number[UTIL_PID_SIZE];
        Str_Snprintf(number, sizeof number, "%d", static_cast<int>(getpid()));
        return chunk->Replace(number);
    }
    if (UtilIsNamed(name, "USER")) {
        const UtilUserDatabase closing;
        return chunk->Replace(UtilUserName());
    }
    Log("Environment variable '%s' not defined in '%s'.\n", name, string);
    return chunk->Replace("");
}

// Returns whether the chunk is a "$NAME" of the original text.
bool UtilIsVariable(const UtilChunk &chunk)
{
    return !chunk.owned && chunk.text[0] == '$' && chunk.size > 1;
}

// ---- Pieces

// Returns the size of the piece at the start of the text.
size_t UtilPieceSize(const char *text, bool isFirst)
{
    if (*text == '$') {
        return 1 +
               strspn(text + 1, "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_");
    }
    return strcspn(text, isFirst && *text == '~' ? "/" : "$");
}

// Splits the text into chunks, and returns their number, or 0 when there are too many.
size_t UtilSplit(const char *text, UtilChunk *chunks)
{
    size_t count = 0;
    while (*text != '\0') {
        if (count == UTIL_MAX_CHUNKS) { return 0; }
        UtilChunk &chunk = chunks[count];
        chunk.text = text;
        chunk.size = UtilPieceSize(text, count == 0);
        text += chunk.size;
        count++;
    }
    return count;
}

// Returns all chunks as a new string; nullptr when memory runs out.
char *UtilJoin(const UtilChunk *chunks, size_t count)
{
    size_t size = 1;
    for (size_t i = 0; i < count; i++) {
        size += chunks[i].size;
    }
    char *joined = static_cast<char *>(malloc(size)), *end = joined;
    if (joined == nullptr) { return nullptr; }
    for (size_t i = 0; i < count; i++) {
        memcpy(end, chunks[i].text, chunks[i].size);
        end += chunks[i].size;
    }
    *end = '\0';
    return joined;
}

} // namespace

extern "C" {

char *Util_ExpandString(const char *string)
{
    ScopedFree<char> copy(strdup(string)); // the result or, in what follows, room for any name
    if (!copy) {
        Log(UTIL_NO_MEMORY, __func__, string);
        return nullptr;
    }
    if (*string != '~' && strchr(string, '$') == nullptr) { return copy.release(); }
    UtilChunk chunks[UTIL_MAX_CHUNKS] = {};
    const size_t count = UtilSplit(string, chunks);
    if (count == 0) {
        Log("%s: Filename \"%s\" has too many chunks.\n", __func__, string);
        return nullptr;
    }
    if (*string == '~' && !UtilExpandTilde(&chunks[0], copy.get())) {
        Log(UTIL_NO_MEMORY, __func__, string);
        return nullptr;
    }
    for (size_t i = 0; i < count; i++) {
        if (UtilIsVariable(chunks[i]) && !UtilExpandVariable(&chunks[i], copy.get(), string)) {
            Log(UTIL_NO_MEMORY_FOR_VALUE, __func__, string);
            return nullptr;
        }
    }
    char *expanded = UtilJoin(chunks, count);
    if (expanded == nullptr) { Log(UTIL_NO_MEMORY, __func__, string); }
    return expanded;
}

const char *Util_OverrideHomeDir(const char *directory)
{
    return sHomeDir = Util_SafeStrdup(directory);
}

} // extern "C"
