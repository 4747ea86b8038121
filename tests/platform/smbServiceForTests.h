// smbServiceForTests.h -- access to the record of who switched the SMB service on, and system calls
// that fail.
#ifndef PELAGO_TESTS_PLATFORM_SMBSERVICEFORTESTS_H
#define PELAGO_TESTS_PLATFORM_SMBSERVICEFORTESTS_H

#include "preferencesForTests.h"

#include "processMark.h"

#include <cerrno>
#include <functional>
#include <sys/xattr.h>

// The error with which fsetxattr() fails; 0: it works.
inline int sAttributeError = 0;
inline int sSyncsToFailure = 0; // n: the nth fsync() from now on fails; 0: none
// Runs once, just before the next call of flock().
inline std::function<void()> sBeforeFlock;

constexpr char RECORD[] = "user.pelago.service";

class SmbService : public Preferences {
protected:
    void TearDown() override { sAttributeError = sSyncsToFailure = 0; }

    // Returns the record in the file; "" for none.
    std::string Record() const
    {
        char record[256];
        const ssize_t size = getxattr(mPath.c_str(), RECORD, record, sizeof record);
        if (size < 0) { EXPECT_TRUE(errno == ENODATA) << errno; }
        return size < 0 ? std::string() : std::string(record, static_cast<size_t>(size));
    }
    void SetRecord(const std::string &record) const
    {
        ASSERT_EQ(setxattr(mPath.c_str(), RECORD, record.data(), record.size(), 0), 0);
    }
    static std::string MarkOf(pid_t pid) { return ProcessMark::Of(pid).value().Text(); }
    static std::string OwnMark() { return MarkOf(getpid()); }

    // Returns the mark of a process that has ended.
    static std::string DeadMark()
    {
        Child child([](const auto &ready) { return ready(), true; });
        const std::string mark = MarkOf(child.Pid());
        child.Kill();
        return mark;
    }

    // Commits these services under the lock, as a tool does.
    bool CommitServices(const Strings &services)
    {
        const Session session = Open();
        return SCPreferencesLock(session.get(), true) && SetServices(session.get(), services) &&
               SCPreferencesCommitChanges(session.get());
    }
    // Runs a program that commits these services and dies.
    void DieHaving(const Strings &services)
    {
        Child child([&](const auto &ready) {
            if (CommitServices(services)) { ready(); }
            return true;
        });
        child.Kill();
    }
    Strings LockedServices()
    {
        const Session session = Open();
        EXPECT_TRUE(SCPreferencesLock(session.get(), true));
        return ServicesOf(session.get());
    }
};

#endif // PELAGO_TESTS_PLATFORM_SMBSERVICEFORTESTS_H
