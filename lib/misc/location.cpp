// location.cpp -- finds the product's root folder on this machine, and its files by key.
// A program inside the bundle goes up from its own real path, so that the bundle can be moved.
// Nothing is cached: every call looks for the root anew.
#include "location.h"

#include "codeset.h"
#include "diagnostics.h"
#include "hostinfo.h"
#include "posix.h"
#include "scoped.h"
#include "str.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

using namespace pelago;

namespace {

struct LocationProcessTag {
    const char *tag;
    uint32_t upCount; // path components between the program's real path and the root
};

struct LocationEntry {
    const char *key;
    const char *relativePath; // below the root: begins with "/", or is empty
};

struct LocationConfig {
    const LocationProcessTag *processTags;
    const char *rootEnvVar;   // nullptr: no variable contains the root
    const char *lastUsedFile; // nullptr: no file contains the root
    const LocationEntry *entries;
};

constexpr LocationProcessTag LOCATION_PROCESS_TAGS[] = {
    {"shareTool", 4}, // its own name, shares, Library, Contents
    {nullptr, 0},
};

constexpr LocationEntry LOCATION_ENTRIES[] = {
    {"rootDir", ""},
    {"icuDir", "/Contents/Library/icu"},
    {"shareToolFile", "/Contents/Library/shares/pelagoShareTool"},
    {"shareAddUserFile", "/Contents/Library/shares/adduser.sh"},
    {"shareRmUserFile", "/Contents/Library/shares/rmuser.sh"},
    {"shareAddShareFile", "/Contents/Library/shares/addshare.sh"},
    {"shareRmShareFile", "/Contents/Library/shares/rmshare.sh"},
    {nullptr, nullptr},
};

constexpr LocationConfig LOCATION_CONFIG = {
    LOCATION_PROCESS_TAGS,
    "TARVEX_LOCATION_ROOT_FULLPATH",
    "/Library/Preferences/Tarvex Pelago/lastLocationUsed",
    LOCATION_ENTRIES,
};

// Size of the buffer for the last-used file and a NUL.
constexpr size_t LAST_USED_SIZE = 1024;

uint32_t sUpCount; // 0: this program is not inside the bundle

// Returns the last-used root as a new heap string, or nullptr after a Log that says why not.
char *LocationLastUsed()
{
    char content[LAST_USED_SIZE];
    const int fd = open(LOCATION_CONFIG.lastUsedFile, O_RDONLY | O_CLOEXEC);
    const ssize_t size = fd < 0 ? -1 : read(fd, content, sizeof content);
    if (fd >= 0) { close(fd); }
    if (size < 0 || static_cast<size_t>(size) >= sizeof content) {
        Log("%s: Failed opening lastLocationUsed.\n", __func__);
        return nullptr;
    }
    content[size] = '\0';
    char *root = strdup(content); // byte for byte: a newline at the end is part of the path
    if (root == nullptr) { Log("%s: Failed to copy last used path: %s\n", __func__, content); }
    return root;
}

// Returns the root found from this program's own path, or nullptr after a Warning.
char *LocationClimb(const char *caller)
{
    ScopedFree<char> executable(Hostinfo_GetModulePath(1));
    if (!executable) {
        Warning("%s: Unable to retrieve path to executable.", caller);
        return nullptr;
    }
    ScopedFree<char> root(Posix_RealPath(executable.get()));
    if (!root) {
        Warning("%s: Unable to get the realpath for %s", caller, executable.get());
        return nullptr;
    }
    for (uint32_t i = 0; i < sUpCount; i++) {
        char *slash = strrchr(root.get(), '/');
        if (slash == nullptr) {
            Warning("%s: sUpCount (%u) is too large for %s\n", caller, sUpCount, root.get());
            return nullptr;
        }
        *slash = '\0';
    }
    return root.release();
}

// Returns the root as a new heap string, or nullptr after a Warning that says why not.
char *LocationGetRoot()
{
    if (sUpCount != 0) { return LocationClimb(__func__); }
    if (geteuid() != getuid()) {
        // The caller of a set-user-ID program chooses its environment.
        Warning("%s: Cannot get location root of a setuid process.\n", __func__);
        return nullptr;
    }
    const char *fromEnvironment =
        LOCATION_CONFIG.rootEnvVar == nullptr ? nullptr : getenv(LOCATION_CONFIG.rootEnvVar);
    if (fromEnvironment != nullptr) {
        char *root = strdup(fromEnvironment);
        if (root == nullptr) {
            Warning("%s: Unable to copy the environment variable.\n", __func__);
        }
        return root;
    }
    if (LOCATION_CONFIG.lastUsedFile == nullptr) { return LocationClimb(__func__); }
    char *root = LocationLastUsed();
    if (root == nullptr) {
        Warning("%s: Unable to determine the product location. It is likely that the product has "
                "never been run on this machine.\n",
                __func__);
    }
    return root;
}

} // namespace

extern "C" void Location_Init(const char *processTag)
{
    const LocationProcessTag *row = LOCATION_CONFIG.processTags;
    while (row->tag != nullptr && strcmp(row->tag, processTag) != 0) {
        row++;
    }
    if (row->upCount == 0 || sUpCount != 0) {
        Warning("%s: Invalid initialization: sUpCount %u, processTag %s.\n", __func__, sUpCount,
                processTag);
    }
    sUpCount = row->upCount; // 0, from the last row, for an unknown tag
}

extern "C" char *Location_Get(const char *key)
{
    const char *relativePath = Location_GetRelative(key);
    if (relativePath == nullptr) { return nullptr; }
    ScopedFree<char> root(LocationGetRoot());
    return root ? Str_Asprintf(nullptr, "%s%s", root.get(), relativePath) : nullptr;
}

extern "C" const char *Location_GetRelative(const char *key)
{
    for (const LocationEntry *row = LOCATION_CONFIG.entries; row->key != nullptr; row++) {
        if (strcmp(row->key, key) == 0) { return row->relativePath; }
    }
    return nullptr; // callers may ask for an unknown key: nothing is printed
}

extern "C" const char *Location_GetLastUsedFile() { return LOCATION_CONFIG.lastUsedFile; }

extern "C" const char *Location_GetDefaultRoot()
{
    return "/Library/Application Support/Tarvex/Tarvex Pelago";
}

extern "C" CodeSetLocationFunc CodeSetGetLocationFunc() { return Location_Get; }
