// Starting programs on a host whose encoding lacks most characters.
#include "codeset.h"
#include "hostinfo.h"

#include "startedPrograms.h"

extern "C" const char *CodeSet_GetCurrentCodeSet() { return "US-ASCII"; }

namespace {

class DaemonizeInAscii : public StartedPrograms {
protected:
    Result Tried(const char *path, const char *argument, const std::string &pidPath)
    {
        const char *const args[] = {"daemon", argument, nullptr};
        Listening listening;
        errno = 0;
        const bool started = Hostinfo_Daemonize(path, const_cast<char *const *>(args), 0,
                                                pidPath.c_str(), nullptr, 0);
        const int error = started ? 0 : errno;
        return {started, error, listening.Heard()};
    }
};

TEST_F(DaemonizeInAscii, StartsWhatCanBeSpelt)
{
    EXPECT_EQ(Tried(TELL_STATE, "plain", PidPath()), (Result{1, 0, ""}));
    EXPECT_EQ(ToldAndEnded().All("argument"), (std::vector<std::string>{"daemon", "plain"}));
}

TEST_F(DaemonizeInAscii, NeedsAPathThatCanBeSpelt)
{
    EXPECT_EQ(
        Tried("/caf\xC3\xA9", "plain", PidPath()),
        (Result{0, ERANGE,
                "Warning: Hostinfo_Daemonize: Couldn't convert path [/caf\xC3\xA9] to default "
                "encoding.\n"}));
    EXPECT_FALSE(std::filesystem::exists(PidPath()));
}

TEST_F(DaemonizeInAscii, NeedsArgumentsThatCanBeSpelt)
{
    EXPECT_EQ(
        Tried(TELL_STATE, "caf\xC3\xA9", PidPath()),
        (Result{0, ERANGE,
                "Warning: Hostinfo_Daemonize: Couldn't convert arguments to default encoding.\n"}));
    EXPECT_FALSE(std::filesystem::exists(PidPath()));
    EXPECT_FALSE(std::filesystem::exists(ReportPath()));
}

TEST_F(DaemonizeInAscii, NeedsAPidPathThatCanBeSpelt)
{
    const std::string path = mFolder.Path() + "/caf\xC3\xA9";
    EXPECT_EQ(Tried(TELL_STATE, "plain", path),
              (Result{0, ERANGE,
                      "Warning: Hostinfo_Daemonize: Couldn't open PID path [" + path +
                          "], error 34.\n"}));
    EXPECT_TRUE(std::filesystem::is_empty(mFolder.Path()));
}

TEST_F(DaemonizeInAscii, ExecutesOnlyWhatCanBeSpelt)
{
    const char *const plain[] = {"sh", "-c", "exit 3", nullptr};
    const char *const other[] = {"sh", "-c", "exit 3", "caf\xC3\xA9", nullptr};
    EXPECT_EQ(Hostinfo_Execute("/bin/sh", const_cast<char *const *>(plain), true, nullptr, 0),
              3 << 8);
    EXPECT_EQ(Hostinfo_Execute("/bin/sh", const_cast<char *const *>(other), true, nullptr, 0),
              127 << 8);
    EXPECT_EQ(Hostinfo_Execute("/caf\xC3\xA9", const_cast<char *const *>(plain), true, nullptr, 0),
              127 << 8);
}

} // namespace
