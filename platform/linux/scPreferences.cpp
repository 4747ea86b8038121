// scPreferences.cpp -- a session on one preferences file.
// The file is read at the first access.  From then on the session answers from memory, until it is
// synchronized, or takes the lock and finds that another program has written the file or that the
// owner of the service has ended.
//
// Under the lock a session sees EnabledServices without the "disk" of a program that has ended
// (serviceOwner.h).  The file changes only when a value is set and committed.
#include <SystemConfiguration/SystemConfiguration.h>

#include "cfTypes.h"
#include "preferencesFile.h"
#include "processMark.h"
#include "propertyList.h"
#include "serviceOwner.h"

#include <cerrno>
#include <map>
#include <optional>
#include <unistd.h>

using namespace pelago::platform;

namespace {

constexpr char DEFAULT_FOLDER[] = "/Library/Preferences/SystemConfiguration/";
constexpr char DEFAULT_NAME[] = "preferences.plist";

thread_local int sError = kSCStatusOK;

Boolean Fail(int error)
{
    sError = error;
    return false;
}

bool SessionEqual(const CFObject *one, const CFObject *other) { return one == other; }

void SessionDestroy(const CFObject *object);

constexpr CFClass SESSION_CLASS = {CF_TYPE_PREFERENCES, SessionDestroy, SessionEqual};

} // namespace

struct __SCPreferences final : CFObject {
    explicit __SCPreferences(std::string path)
        : CFObject(SESSION_CLASS), mPath(std::move(path)), mIsRoot(geteuid() == 0)
    {}

    // An object that Get() returned or Set() stored.
    struct Value {
        CFOwned<CFTypeRef> object;
        // Set() stored it.  Every commit then writes it, since the caller may have changed it.
        bool isSet = false;
    };

    int Lock(bool wait);
    void Access();
    void Forget();
    void Distrust();
    CFTypeRef Get(CFStringRef key);
    void Set(CFStringRef key, CFTypeRef object);
    int Commit();

    const std::string mPath;
    const bool mIsRoot;
    LockFile mLock;

private:
    int LookAgain();
    ServiceOwner Owner() const;
    void TakeBackService();
    bool IsServiceSet() const;
    std::string NextRecord();
    int WriteChanges();

    bool mIsAccessed = false;
    bool mIsChanged = false;    // since the last commit
    bool mIsUnreadable = false; // the file holds something that must not be overwritten
    bool mIsTakenBack = false;  // this session sees EnabledServices without a dead program's "disk"
    // How often the array contained "disk" before this session's changes; the "disk" of a dead
    // program does not count once it is taken back.  Counted before a commit changes mList.
    std::optional<size_t> mCountBefore;
    FileSignature mSignature;
    FileContent mContent; // the file's content, which a commit that fails too late restores
    PropertyList mList;
    std::map<std::string, Value> mValues;
};

namespace {

void SessionDestroy(const CFObject *object) { delete static_cast<const __SCPreferences *>(object); }

// Returns the session, which the SDK declares const, as one that can be changed.
__SCPreferences *Session(SCPreferencesRef prefs, const char *function)
{
    CFRequire(prefs, CF_TYPE_PREFERENCES, function);
    return const_cast<__SCPreferences *>(prefs);
}

// Runs a session's function for C callers: an exception becomes ENOMEM.
template <typename Call> int Guarded(const Call &call)
{
    try {
        return call();
    } catch (const std::bad_alloc &) {
        return ENOMEM;
    }
}

std::string PathOf(CFStringRef prefsID)
{
    const std::string name = prefsID ? prefsID->mText : DEFAULT_NAME;
    return name.starts_with('/') ? name : DEFAULT_FOLDER + name;
}

// Returns the status of opening a session on the path.  kSCStatusNoConfigFile opens one, too.
int AccessStatus(const char *path)
{
    if (access(path, R_OK) == 0) { return kSCStatusOK; }
    switch (errno) {
    case ENOENT: return kSCStatusNoConfigFile;
    case EACCES: return kSCStatusAccessError;
    default: return kSCStatusFailed;
    }
}

} // namespace

int __SCPreferences::Lock(bool wait)
{
    if (mLock.IsLocked()) { return kSCStatusLocked; }
    if (!mIsRoot) { return kSCStatusAccessError; }
    const int error = mLock.Lock(mPath + "-lock", wait);
    if (error != 0) { return error == EWOULDBLOCK ? kSCStatusPrefsBusy : error; }
    const int lookError = Guarded([this] { return LookAgain(); });
    if (lookError != kSCStatusOK) { mLock.Unlock(); }
    return lookError;
}

// Called when the lock was taken: what was read without it may be out of date, and the service's
// owner may have ended.
int __SCPreferences::LookAgain()
{
    if (!mIsAccessed) { return kSCStatusOK; }
    const bool isSame = FileSignature::OfPath(mPath.c_str()) == mSignature;
    if (mIsChanged) { return isSame ? kSCStatusOK : kSCStatusStale; }
    // This session has no changes to lose, and its next access reads the file again.
    if (!isSame || Owner() == ServiceOwner::Dead) { Forget(); }
    return kSCStatusOK;
}

void __SCPreferences::Forget()
{
    mValues.clear();
    mList = PropertyList();
    mContent = FileContent();
    mCountBefore.reset();
    mIsAccessed = mIsChanged = mIsUnreadable = mIsTakenBack = false;
}

// Makes commits fail until the file is read again.
void __SCPreferences::Distrust() { mIsAccessed = mIsUnreadable = true; }

void __SCPreferences::Access()
{
    if (mIsAccessed) { return; }
    const int error = ReadWholeFile(mPath.c_str(), PROPERTY_LIST_MAX_BYTES, &mContent, &mSignature);
    if (error == 0) {
        const PropertyListFault fault = mList.Read(mContent.bytes);
        mIsUnreadable = fault != PropertyListFault::None && fault != PropertyListFault::Empty;
    } else {
        mIsUnreadable = error != ENOENT;
    }
    if (mLock.IsLocked()) { TakeBackService(); }
    mIsAccessed = true;
}

ServiceOwner __SCPreferences::Owner() const
{
    if (mContent.record.empty()) { return ServiceOwner::Nobody; }
    return ServiceOwnerOf(CFOwned<CFTypeRef>(mList.CopyValue(SERVICE_KEY)).get(), mContent.record);
}

void __SCPreferences::TakeBackService()
{
    if (Owner() != ServiceOwner::Dead) { return; }
    // Another process of this program may have found the service on, and rely on it.  If this
    // session became the owner, its end would switch the service off for that process.
    if (ProcessMark::AnotherOfOurNameRuns()) { return; }
    const CFOwned<CFTypeRef> services(mList.CopyValue(SERVICE_KEY));
    CFOwned<CFTypeRef> others(ServiceCopyWithoutFirst(static_cast<CFArrayRef>(services.get())));
    mCountBefore = ServiceCount(others.get());
    mValues[SERVICE_KEY].object = std::move(others);
    mIsTakenBack = true;
}

CFTypeRef __SCPreferences::Get(CFStringRef key)
{
    Access();
    const auto found = mValues.find(key->mText);
    if (found != mValues.end()) { return found->second.object.get(); }
    CFOwned<CFTypeRef> object(mList.CopyValue(key->mText.c_str()));
    return object ? (mValues[key->mText].object = std::move(object)).get() : nullptr;
}

void __SCPreferences::Set(CFStringRef key, CFTypeRef object)
{
    Access();
    Value &value = mValues[key->mText];
    value.object.reset(CFRetain(object));
    value.isSet = mIsChanged = true;
}

int __SCPreferences::Commit()
{
    const bool wasLocked = mLock.IsLocked();
    const int lockError = wasLocked ? kSCStatusOK : Lock(true);
    if (lockError != kSCStatusOK) { return lockError; }
    const int error = mIsChanged ? Guarded([this] { return WriteChanges(); }) : kSCStatusOK;
    if (!wasLocked) { mLock.Unlock(); }
    return error;
}

bool __SCPreferences::IsServiceSet() const
{
    const auto services = mValues.find(SERVICE_KEY);
    return services != mValues.end() && services->second.isSet;
}

// Returns the record to write with the session's values.
std::string __SCPreferences::NextRecord()
{
    if (!IsServiceSet()) { return mContent.record; }
    if (!mCountBefore) {
        mCountBefore = ServiceCount(CFOwned<CFTypeRef>(mList.CopyValue(SERVICE_KEY)).get());
    }
    const size_t count = ServiceCount(mValues[SERVICE_KEY].object.get());
    return ServiceRecordAfter(*mCountBefore, count, mIsTakenBack ? std::string() : mContent.record);
}

int __SCPreferences::WriteChanges()
{
    if (mIsUnreadable) { return kSCStatusFailed; }
    FileContent next;
    next.record = NextRecord(); // before mList changes
    for (const auto &[key, value] : mValues) {
        if (!value.isSet) { continue; }
        if (mList.SetValue(key.c_str(), value.object.get()) != PropertyListFault::None) {
            return kSCStatusFailed;
        }
    }
    if (mList.Write(&next.bytes) != PropertyListFault::None) { return kSCStatusFailed; }
    const int error = ReplaceFile(mPath, next, mContent, &mSignature);
    if (error != 0) { return error; }
    mContent = std::move(next);
    mIsChanged = false;
    if (!IsServiceSet()) { return kSCStatusOK; }
    mIsTakenBack = false;
    mCountBefore.reset();
    return kSCStatusOK;
}

extern "C" int SCError(void) { return sError; }

extern "C" SCPreferencesRef SCPreferencesCreate(CFAllocatorRef, CFStringRef, CFStringRef prefsID)
{
    SCPreferencesRef session = nullptr;
    const int status = Guarded([&]() -> int {
        std::string path = PathOf(prefsID);
        const int accessStatus = AccessStatus(path.c_str());
        if (accessStatus == kSCStatusOK || accessStatus == kSCStatusNoConfigFile) {
            session = new __SCPreferences(std::move(path));
        }
        return accessStatus;
    });
    if (status != kSCStatusOK) { sError = status; }
    return session;
}

extern "C" Boolean SCPreferencesLock(SCPreferencesRef prefs, Boolean wait)
{
    if (prefs == nullptr) { return Fail(kSCStatusNoPrefsSession); }
    __SCPreferences *session = Session(prefs, __func__);
    const int error = Guarded([&] { return session->Lock(wait); });
    return error == kSCStatusOK || Fail(error);
}

extern "C" Boolean SCPreferencesUnlock(SCPreferencesRef prefs)
{
    if (prefs == nullptr) { return Fail(kSCStatusNoPrefsSession); }
    __SCPreferences *session = Session(prefs, __func__);
    if (!session->mLock.IsLocked()) { return Fail(kSCStatusNeedLock); }
    session->mLock.Unlock();
    return true;
}

extern "C" CFPropertyListRef SCPreferencesGetValue(SCPreferencesRef prefs, CFStringRef key)
{
    CFTypeRef value = nullptr;
    if (prefs == nullptr) {
        Fail(kSCStatusNoPrefsSession);
        return nullptr;
    }
    __SCPreferences *session = Session(prefs, __func__);
    CFRequire(key, CF_TYPE_STRING, __func__);
    const int error = Guarded([&]() -> int {
        value = session->Get(key);
        return value ? kSCStatusOK : kSCStatusNoKey;
    });
    // To the caller, NULL means that the key is missing.  The value that it would then set must not
    // replace the one in the file.
    if (error == ENOMEM) { session->Distrust(); }
    if (error != kSCStatusOK) { Fail(error); }
    return value;
}

extern "C" Boolean SCPreferencesSetValue(SCPreferencesRef prefs, CFStringRef key,
                                         CFPropertyListRef value)
{
    if (prefs == nullptr) { return Fail(kSCStatusNoPrefsSession); }
    __SCPreferences *session = Session(prefs, __func__);
    CFRequire(key, CF_TYPE_STRING, __func__);
    const int error = Guarded([&]() -> int {
        session->Set(key, value);
        return kSCStatusOK;
    });
    return error == kSCStatusOK || Fail(error);
}

extern "C" Boolean SCPreferencesCommitChanges(SCPreferencesRef prefs)
{
    if (prefs == nullptr) { return Fail(kSCStatusNoPrefsSession); }
    __SCPreferences *session = Session(prefs, __func__);
    const int error = Guarded([&] { return session->Commit(); });
    return error == kSCStatusOK || Fail(error);
}

extern "C" void SCPreferencesSynchronize(SCPreferencesRef prefs)
{
    if (prefs == nullptr) {
        Fail(kSCStatusNoPrefsSession);
        return;
    }
    Session(prefs, __func__)->Forget();
}
