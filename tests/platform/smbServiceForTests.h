// smbServiceForTests.h -- the record of who switched the SMB service on, and calls that fail.
#ifndef PELAGO_TESTS_PLATFORM_SMBSERVICEFORTESTS_H
#define PELAGO_TESTS_PLATFORM_SMBSERVICEFORTESTS_H

#include "preferencesForTests.h"

#include "processMark.h"

#include <cerrno>
#include <functional>
#include <sys/xattr.h>

// What the next calls fail with, while it is there.
inline int sAttributeError = 0;
inline int sSyncsToFailure = 0; // 1: the next one fails; 0: none
// What happens just before the next lock is asked for, once.
inline std::function<void()> sBeforeFlock;

constexpr char RECORD[] = "user.pelago.service";

class SmbService : public Preferences {
protected:
    void TearDown() override { sAttributeError = sSyncsToFailure = 0; }

    // The record in the file; empty for none.
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

    // The mark of a process that has ended.
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
    // A program that makes these the services and dies.
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
