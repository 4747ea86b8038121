// preferencesForTests.h -- a folder with a preferences file, sessions on it, and other processes.
#ifndef PELAGO_TESTS_PLATFORM_PREFERENCESFORTESTS_H
#define PELAGO_TESTS_PLATFORM_PREFERENCESFORTESTS_H

#include <SystemConfiguration/SystemConfiguration.h>

#include "cfTypes.h"
#include "scopedForTests.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <utility>

using namespace pelago::platform;

using Session = CFOwned<SCPreferencesRef>;
using Strings = std::vector<std::string>;
namespace fs = std::filesystem;

inline CFOwned<CFMutableArrayRef> ArrayOf(const Strings &texts)
{
    CFOwned<CFMutableArrayRef> array(CFArrayCreateMutable(nullptr, 0, &kCFTypeArrayCallBacks));
    for (const std::string &text : texts) {
        CFArrayAppendValue(array.get(), CFOwned<CFStringRef>(CFStringCreateWithText(text)).get());
    }
    return array;
}

inline std::string XmlServices(const Strings &services, const std::string &before = "")
{
    std::string text =
        "<plist version=\"1.0\"><dict>" + before + "<key>EnabledServices</key><array>";
    for (const std::string &service : services) {
        text += "<string>" + service + "</string>";
    }
    return text + "</array></dict></plist>\n";
}

// A test with a folder of its own, in which the preferences file lies or will lie.
class Preferences : public testing::Test {
protected:
    Session Open() { return Session(SCPreferencesCreate(nullptr, CFSTR("a test"), mID.get())); }

    void Write(const std::string &bytes, const std::string &suffix = "") const
    {
        std::ofstream(mPath + suffix, std::ios::binary) << bytes;
    }
    // Replaces the file as other programs do: by renaming a new file.
    void Replace(const std::string &bytes) const
    {
        Write(bytes, "-other");
        fs::rename(mPath + "-other", mPath);
    }
    std::string Read(const std::string &suffix = "") const
    {
        std::ifstream file(mPath + suffix, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    struct stat Status() const
    {
        struct stat status = {};
        EXPECT_EQ(stat(mPath.c_str(), &status), 0);
        return status;
    }
    Strings Files() const
    {
        Strings names;
        for (const auto &entry : fs::directory_iterator(mFolder.Path())) {
            names.push_back(entry.path().filename());
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    // Returns what a new session reads from EnabledServices; "none" for no array.
    Strings Services() { return ServicesOf(Open().get()); }
    static Strings ServicesOf(SCPreferencesRef session)
    {
        const CFTypeRef value = SCPreferencesGetValue(session, CFSTR("EnabledServices"));
        if (value == nullptr || CFGetTypeID(value) != CFArrayGetTypeID()) { return {"none"}; }
        Strings texts;
        const auto array = static_cast<CFArrayRef>(value);
        for (CFIndex i = 0; i < CFArrayGetCount(array); i++) {
            texts.push_back(static_cast<CFStringRef>(CFArrayGetValueAtIndex(array, i))->mText);
        }
        return texts;
    }
    static bool SetServices(SCPreferencesRef session, const Strings &services)
    {
        return SCPreferencesSetValue(session, CFSTR("EnabledServices"), ArrayOf(services).get());
    }

    bool IsLockFree() const
    {
        const int fd = open((mPath + "-lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
        const bool isFree = flock(fd, LOCK_EX | LOCK_NB) == 0;
        if (isFree) { unlink((mPath + "-lock").c_str()); }
        close(fd);
        return isFree;
    }

    TemporaryFolder mFolder;
    std::string mPath = mFolder.Path() + "/com.apple.smb.server.plist";
    CFOwned<CFStringRef> mID{CFStringCreateWithText(mPath)};
};

// Returns whether the check holds for a user other than root: as the effective user, or, with
// alsoReally, as the real and the saved user, too.
inline bool HoldsForNobody(const std::function<bool()> &check, bool alsoReally)
{
    constexpr uid_t NOBODY = 65534;
    const pid_t pid = fork();
    if (pid == 0) {
        const int changed = alsoReally ? setresuid(NOBODY, NOBODY, NOBODY) : seteuid(NOBODY);
        _exit(changed == 0 && check() ? 0 : 1);
    }
    int status = 1;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    return status == 0;
}

#define EXPECT_SC_ERROR(call, error)                                                               \
    do {                                                                                           \
        EXPECT_FALSE(call);                                                                        \
        EXPECT_EQ(SCError(), error);                                                               \
    } while (false)

// A child process, which does some work and then waits for GoOn() or Kill().
class Child {
public:
    explicit Child(const std::function<bool(const std::function<void()> &ready)> &work)
    {
        int toParent[2], toChild[2];
        EXPECT_EQ(pipe2(toParent, O_CLOEXEC) | pipe2(toChild, O_CLOEXEC), 0);
        mPid = fork();
        if (mPid == 0) {
            close(toParent[0]);
            close(toChild[1]);
            char byte = 0;
            const bool done = work([&] {
                (void)!write(toParent[1], "", 1);
                (void)!read(toChild[0], &byte, 1);
            });
            _exit(done ? 0 : 1);
        }
        close(toParent[1]);
        close(toChild[0]);
        mFromChild = toParent[0];
        mToChild = toChild[1];
        char byte;
        EXPECT_EQ(read(mFromChild, &byte, 1), 1) << "the other process failed";
    }
    ~Child()
    {
        if (mPid > 0) { Kill(); }
        close(mFromChild);
        close(mToChild);
    }
    pid_t Pid() const { return mPid; }
    void GoOn() const { EXPECT_EQ(write(mToChild, "", 1), 1); }
    bool Finish()
    {
        int status = 1;
        waitpid(std::exchange(mPid, -1), &status, 0);
        return WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }
    void Kill()
    {
        kill(mPid, SIGKILL);
        waitpid(std::exchange(mPid, -1), nullptr, 0);
    }

private:
    pid_t mPid = -1;
    int mFromChild = -1, mToChild = -1;
};

#endif // PELAGO_TESTS_PLATFORM_PREFERENCESFORTESTS_H
