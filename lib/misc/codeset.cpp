// codeset.cpp -- decides whether the code-set layer uses ICU.
#include "codeset.h"

#include "scoped.h"
#include "str.h"

#include <sys/stat.h>

#include <unicode/putil.h>

using namespace pelago;

namespace {

constexpr char ICU_DATA_FILE[] = "icudt44l.dat"; // ICU 4.4's common data, little-endian
// The folder for a program without a location service.  It can never exist, so that such a program
// does not use ICU.
constexpr char DEFAULT_LIBRARY_DIRECTORY[] = "/dev/null/Non-existing DEFAULT_LIBDIRECTORY";

bool sUseIcu; // set by the initialisation, before the first conversion reads it

// Returns the path of the data file as a heap string, or nullptr when there can be none.
char *CodeSetDataFile(const char *icuDataDir)
{
    if (icuDataDir != nullptr) { return Str_Asprintf(nullptr, "%s/%s", icuDataDir, ICU_DATA_FILE); }
    const CodeSetLocationFunc getLocation = CodeSetGetLocationFunc();
    if (getLocation == nullptr) {
        return Str_Asprintf(nullptr, "%s/icu/%s", DEFAULT_LIBRARY_DIRECTORY, ICU_DATA_FILE);
    }
    ScopedFree<char> directory(getLocation("icuDir"));
    if (!directory) { return nullptr; }
    return Str_Asprintf(nullptr, "%s/%s", directory.get(), ICU_DATA_FILE);
}

} // namespace

extern "C" bool CodeSet_Init(const char *icuDataDir)
{
    sUseIcu = false;
    ScopedFree<char> path(CodeSetDataFile(icuDataDir));
    struct stat status;
    if (path && stat(path.get(), &status) == 0 && !S_ISDIR(status.st_mode)) {
        u_setDataDirectory(path.get());
        sUseIcu = true;
    }
    return true;
}

extern "C" void CodeSet_DontUseIcu() { sUseIcu = false; }

extern "C" bool CodeSet_IsIcuInUse() { return sUseIcu; }
