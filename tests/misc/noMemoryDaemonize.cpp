// Starting programs without memory: the lack is reported before a second process exists.
#include "noMemory.h"

#include "hostinfo.h"
#include "unicode.h"

#include <cerrno>
#include <optional>
#include <sys/wait.h>

namespace {

// Looks up the names of the encodings that a conversion uses, and forgets them afterwards.
struct KnownNames {
    KnownNames() { free(Unicode_GetAllocBytes("a", STRING_ENCODING_DEFAULT)); }
    ~KnownNames() { Unicode_Shutdown(); }
};

char sProgram[] = "/bin/true", sFlag[] = "flag";
char *const ARGS[] = {sProgram, sFlag, nullptr};

RUNS_OUT(Hostinfo_Execute, PANICS)
{
    const KnownNames names;
    return Scarcely([] { return Hostinfo_Execute(sProgram, ARGS, true, nullptr, 0); }) == 0;
}

bool Daemonizes(const char *pidPath)
{
    const KnownNames names;
    errno = ENOMEM; // the allocator under test does not set it
    const bool started =
        Scarcely([&] { return Hostinfo_Daemonize(sProgram, ARGS, 0, pidPath, nullptr, 0); });
    if (!started) { EXPECT_EQ(errno, ENOMEM); }
    return started;
}

// The allocations: the list of descriptors, the path, the list of arguments, each argument.
RUNS_OUT(Hostinfo_Daemonize, Says("Hostinfo_Daemonize: Couldn't allocate memory, error 12.\n"),
         PANICS, PANICS, PANICS, PANICS)
{
    return Daemonizes(nullptr);
}

RUNS_OUT_WHEN(Hostinfo_Daemonize, WithAPidFile, PANICS,
              Says("Hostinfo_Daemonize: Couldn't allocate memory, error 12.\n"), PANICS)
{
    static std::optional<TemporaryFolder> sFolder; // removed at exit(), too
    sFolder.emplace();
    const std::string path = sFolder->Path() + "/pid";
    const bool started = Daemonizes(path.c_str());
    EXPECT_EQ(access(path.c_str(), F_OK) == 0, started);
    sFolder.reset();
    return started;
}

} // namespace
