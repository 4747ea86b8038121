// threads.cpp -- threads, their locks, and thread-local variables.
// Each of Darwin's objects starts with a signature, which its initialiser writes.  One without it
// is refused there with EINVAL, and so it is here.  This host's object follows the signature,
// or is pointed to from there when it is larger.
#include "../errnos.h"
#include "../refuse.h"
#include "../rows.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <pthread.h>
#include <unistd.h>

extern "C" int __cxa_thread_atexit_impl(void (*)(void *), void *, void *);
extern "C" void *__dso_handle;

namespace {

template <typename Host, long long Size, long long Signature> struct Signed {
    long long signature;
    union {
        Host host;
        char room[Size - sizeof(long long)];
    };
    bool IsValid() const { return signature == Signature; }
};
#define SIGNED(type, mark) Signed<type, DARWIN_SIZEOF_##type, mark>

// Darwin's attributes and conditions have signatures that no header declares and no program
// writes.
constexpr long long OWN_MARK = 0x6D6163686F;
using Mutex = SIGNED(pthread_mutex_t, DARWIN__PTHREAD_MUTEX_SIG_init);
using Rwlock = SIGNED(pthread_rwlock_t, DARWIN__PTHREAD_RWLOCK_SIG_init);
using Once = SIGNED(pthread_once_t, DARWIN__PTHREAD_ONCE_SIG_init);
using MutexAttributes = SIGNED(pthread_mutexattr_t, OWN_MARK);
using ThreadAttributes = SIGNED(pthread_attr_t, OWN_MARK);
using Condition = Signed<std::atomic<pthread_cond_t *>, DARWIN_SIZEOF_pthread_cond_t,
                         DARWIN__PTHREAD_COND_SIG_init>;
static_assert(sizeof(Mutex) == DARWIN_SIZEOF_pthread_mutex_t);
static_assert(sizeof(Rwlock) == DARWIN_SIZEOF_pthread_rwlock_t);
static_assert(sizeof(Once) == DARWIN_SIZEOF_pthread_once_t);
static_assert(sizeof(MutexAttributes) == DARWIN_SIZEOF_pthread_mutexattr_t);
static_assert(sizeof(ThreadAttributes) == DARWIN_SIZEOF_pthread_attr_t);
static_assert(sizeof(Condition) == DARWIN_SIZEOF_pthread_cond_t);

constexpr int INVALID = DARWIN_EINVAL;

// A call on the object that follows the signature.
template <auto Call, typename Object, typename... Arguments>
int OnSigned(Object *object, Arguments... arguments)
{
    return object->IsValid() ? DarwinErrno(Call(&object->host, arguments...)) : INVALID;
}

// The same, for a call that destroys the object.
template <auto Call, typename Object> int Destroy(Object *object)
{
    const int error = OnSigned<Call>(object);
    if (error == 0) { object->signature = 0; }
    return error;
}

int InitMutex(Mutex *mutex, const MutexAttributes *attributes)
{
    if (attributes != nullptr && !attributes->IsValid()) { return INVALID; }
    const int error =
        pthread_mutex_init(&mutex->host, attributes == nullptr ? nullptr : &attributes->host);
    mutex->signature = DARWIN__PTHREAD_MUTEX_SIG_init;
    return DarwinErrno(error);
}

template <auto Call> int InitAttributes(auto *attributes)
{
    attributes->signature = OWN_MARK;
    return DarwinErrno(Call(&attributes->host));
}
int InitMutexAttributes(MutexAttributes *attributes)
{
    return InitAttributes<&pthread_mutexattr_init>(attributes);
}
int InitThreadAttributes(ThreadAttributes *attributes)
{
    return InitAttributes<&pthread_attr_init>(attributes);
}

constexpr Pair MUTEX_TYPES[] = {PAIR(PTHREAD_MUTEX_NORMAL), PAIR(PTHREAD_MUTEX_ERRORCHECK),
                                PAIR(PTHREAD_MUTEX_RECURSIVE)};
constexpr Pair DETACHED[] = {PAIR(PTHREAD_CREATE_JOINABLE), PAIR(PTHREAD_CREATE_DETACHED)};

int SetMutexType(MutexAttributes *attributes, int type)
{
    return OnSigned<&pthread_mutexattr_settype>(
        attributes, HostOption("pthread_mutexattr_settype", "type", MUTEX_TYPES, type));
}

int SetDetached(ThreadAttributes *attributes, int state)
{
    return OnSigned<&pthread_attr_setdetachstate>(
        attributes, HostOption("pthread_attr_setdetachstate", "state", DETACHED, state));
}

int CreateThread(pthread_t *thread, const ThreadAttributes *attributes, void *(*run)(void *),
                 void *argument)
{
    if (attributes != nullptr && !attributes->IsValid()) { return INVALID; }
    return DarwinErrno(
        pthread_create(thread, attributes == nullptr ? nullptr : &attributes->host, run, argument));
}

// Allocated at its first use, because it is larger on this host.
pthread_cond_t *HostCondition(Condition *condition)
{
    pthread_cond_t *made = condition->host.load();
    if (made != nullptr) { return made; }
    auto *fresh = new pthread_cond_t(PTHREAD_COND_INITIALIZER);
    if (condition->host.compare_exchange_strong(made, fresh)) { return fresh; }
    delete fresh;
    return made;
}

int InitCondition(Condition *condition, const void *attributes)
{
    if (attributes != nullptr) { Refuse("pthread_cond_init: attributes are not known"); }
    condition->signature = DARWIN__PTHREAD_COND_SIG_init;
    condition->host = nullptr;
    return 0;
}

template <auto Call> int OnCondition(Condition *condition)
{
    return condition->IsValid() ? DarwinErrno(Call(HostCondition(condition))) : INVALID;
}

int WaitForCondition(Condition *condition, Mutex *mutex)
{
    if (!condition->IsValid() || !mutex->IsValid()) { return INVALID; }
    return DarwinErrno(pthread_cond_wait(HostCondition(condition), &mutex->host));
}

int WaitForConditionUntil(Condition *condition, Mutex *mutex, const timespec *time)
{
    if (!condition->IsValid() || !mutex->IsValid()) { return INVALID; }
    return DarwinErrno(pthread_cond_timedwait(HostCondition(condition), &mutex->host, time));
}

int DestroyCondition(Condition *condition)
{
    if (!condition->IsValid()) { return INVALID; }
    if (pthread_cond_t *made = condition->host.exchange(nullptr)) {
        pthread_cond_destroy(made);
        delete made;
    }
    condition->signature = 0;
    return 0;
}

int InitRwlock(Rwlock *lock, const void *attributes)
{
    if (attributes != nullptr) { Refuse("pthread_rwlock_init: attributes are not known"); }
    lock->signature = DARWIN__PTHREAD_RWLOCK_SIG_init;
    return DarwinErrno(pthread_rwlock_init(&lock->host, nullptr));
}

// Darwin's keys have 8 bytes.
int CreateKey(uint64_t *key, void (*destroy)(void *))
{
    static_assert(DARWIN_SIZEOF_pthread_key_t == sizeof *key);
    pthread_key_t host = 0;
    const int error = pthread_key_create(&host, destroy);
    *key = host;
    return DarwinErrno(error);
}
int DeleteKey(uint64_t key)
{
    return DarwinErrno(pthread_key_delete(static_cast<pthread_key_t>(key)));
}
void *GetSpecific(uint64_t key) { return pthread_getspecific(static_cast<pthread_key_t>(key)); }
int SetSpecific(uint64_t key, const void *value)
{
    return DarwinErrno(pthread_setspecific(static_cast<pthread_key_t>(key), value));
}

// Returns the kernel's number of the thread.
uint32_t ThreadNumber(pthread_t thread)
{
    if (pthread_equal(thread, pthread_self()) == 0) {
        Refuse("pthread_mach_thread_np: of another thread");
    }
    return static_cast<uint32_t>(gettid());
}

int AtThreadExit(void (*destroy)(void *), void *object)
{
    return __cxa_thread_atexit_impl(destroy, object, &__dso_handle);
}

const Row ROWS[] = {
    {"_tlv_atexit", RowAddress(&AtThreadExit)},
    REFUSED(_tlv_bootstrap),
    {"pthread_attr_destroy", RowAddress(&Destroy<&pthread_attr_destroy, ThreadAttributes>)},
    TRANSLATED(pthread_attr_init, InitThreadAttributes),
    TRANSLATED(pthread_attr_setdetachstate, SetDetached),
    {"pthread_attr_setstacksize",
     RowAddress(&OnSigned<&pthread_attr_setstacksize, ThreadAttributes, size_t>)},
    {"pthread_cond_broadcast", RowAddress(&OnCondition<&pthread_cond_broadcast>)},
    TRANSLATED(pthread_cond_destroy, DestroyCondition),
    TRANSLATED(pthread_cond_init, InitCondition),
    {"pthread_cond_signal", RowAddress(&OnCondition<&pthread_cond_signal>)},
    TRANSLATED(pthread_cond_timedwait, WaitForConditionUntil),
    TRANSLATED(pthread_cond_wait, WaitForCondition),
    TRANSLATED(pthread_create, CreateThread),
    WITH_RESULT(pthread_detach),
    ALIKE(pthread_equal),
    TRANSLATED(pthread_getspecific, GetSpecific),
    WITH_RESULT(pthread_join),
    TRANSLATED(pthread_key_create, CreateKey),
    TRANSLATED(pthread_key_delete, DeleteKey),
    TRANSLATED(pthread_mach_thread_np, ThreadNumber),
    {"pthread_mutex_destroy", RowAddress(&Destroy<&pthread_mutex_destroy, Mutex>)},
    TRANSLATED(pthread_mutex_init, InitMutex),
    {"pthread_mutex_lock", RowAddress(&OnSigned<&pthread_mutex_lock, Mutex>)},
    {"pthread_mutex_trylock", RowAddress(&OnSigned<&pthread_mutex_trylock, Mutex>)},
    {"pthread_mutex_unlock", RowAddress(&OnSigned<&pthread_mutex_unlock, Mutex>)},
    {"pthread_mutexattr_destroy",
     RowAddress(&Destroy<&pthread_mutexattr_destroy, MutexAttributes>)},
    TRANSLATED(pthread_mutexattr_init, InitMutexAttributes),
    TRANSLATED(pthread_mutexattr_settype, SetMutexType),
    {"pthread_once", RowAddress(&OnSigned<&pthread_once, Once, void (*)()>)},
    {"pthread_rwlock_destroy", RowAddress(&Destroy<&pthread_rwlock_destroy, Rwlock>)},
    TRANSLATED(pthread_rwlock_init, InitRwlock),
    {"pthread_rwlock_rdlock", RowAddress(&OnSigned<&pthread_rwlock_rdlock, Rwlock>)},
    {"pthread_rwlock_unlock", RowAddress(&OnSigned<&pthread_rwlock_unlock, Rwlock>)},
    {"pthread_rwlock_wrlock", RowAddress(&OnSigned<&pthread_rwlock_wrlock, Rwlock>)},
    ALIKE(pthread_self),
    TRANSLATED(pthread_setspecific, SetSpecific),
    ALIKE(sched_yield),
};

} // namespace

Rows ThreadRows() { return ROWS; }
