/**
 * Platform calls that fail, or are watched, on demand.
 *
 * The unit tests are linked with --wrap for the functions below, so that the library's calls come
 * here first. A hook concerns the thread that set it; without one the platform's function is called.
 *
 * The mutexes of the trace recorder, of GoogleTest and of the tests come here too. A hook that makes
 * a mutex or a condition variable fail must therefore let all but the call it is meant for pass.
 */
#ifndef KORVANE_TESTS_FAULTS_H
#define KORVANE_TESTS_FAULTS_H

#include <cerrno>
#include <cstddef>
#include <functional>
#include <utility>

#include <pthread.h>
#include <sched.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

namespace support
{

struct Hooks
{
    /** The first member: those behind it may release memory when a thread's hooks go. */
    std::function<void(void*)> operatorDelete;
    std::function<void*(std::size_t)> malloc;
    std::function<void(void*)> free;
    std::function<void*(std::size_t)> newArray;
    std::function<void(void*)> deleteArray;
    std::function<void*(std::size_t)> newArrayNothrow;
    std::function<int(clockid_t, timespec*)> clockGettime;
    std::function<std::size_t(const char*)> strlen;
    std::function<long(const char*, char**, int)> strtol;
    std::function<int(int, char*, std::size_t)> wirteDirect;
    std::function<void*(std::size_t)> operatorNew;

    std::function<int(pthread_mutex_t*, const pthread_mutexattr_t*)> mutexInit;
    std::function<int(pthread_mutex_t*)> mutexDestroy;
    std::function<int(pthread_mutex_t*)> mutexLock;
    std::function<int(pthread_mutex_t*)> mutexTrylock;
    std::function<int(pthread_mutex_t*, const timespec*)> mutexTimedlock;
    std::function<int(pthread_mutex_t*)> mutexUnlock;

    std::function<int(pthread_cond_t*, const pthread_condattr_t*)> condInit;
    std::function<int(pthread_cond_t*)> condDestroy;
    std::function<int(pthread_cond_t*, pthread_mutex_t*)> condWait;
    std::function<int(pthread_cond_t*)> condSignal;

    std::function<int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)> threadCreate;
    std::function<int(pthread_t, void**)> threadJoin;
    std::function<int(pthread_t)> threadDetach;
    std::function<int(pthread_t)> threadCancel;
    std::function<int(pthread_t, const char*)> threadSetname;
    std::function<int(pthread_t, int*, sched_param*)> threadGetschedparam;
    std::function<int(pthread_t, int, const sched_param*)> threadSetschedparam;

    std::function<int(pid_t*, const char*, char* const*, char* const*)> posixSpawn;
    std::function<pid_t(pid_t, int*, int)> waitpid;
    std::function<char*(const char*)> strdup;

    std::function<int(useconds_t)> usleep;
    std::function<int(int option, const void* argument)> prctl;
    /** Watches only: when it returns, the process ends with the same status. */
    std::function<void(int)> exit;
};

/** The calling thread's hooks. */
Hooks& hooks();

/** Sets a hook of the calling thread for the lifetime of this object. */
template <typename Hook> class ScopedHook
{
public:
    template <typename Callable>
    ScopedHook(Hook Hooks::*member, Callable callable)
        : mHook(hooks().*member), mPrevious(std::exchange(mHook, Hook(std::move(callable))))
    {
    }
    ~ScopedHook()
    {
        mHook = std::move(mPrevious);
    }
    ScopedHook(const ScopedHook&) = delete;
    ScopedHook& operator=(const ScopedHook&) = delete;

private:
    Hook& mHook;
    Hook mPrevious;
};

template <typename Hook, typename Callable> ScopedHook(Hook Hooks::*, Callable) -> ScopedHook<Hook>;

/**
 * A hook whose first call fails with `result` and leaves `error` in errno; the others go to `real`.
 * The two numbers differ in most tests, to show which of them is reported.
 */
template <typename Real> auto failFirst(int result, int error, Real real)
{
    return [=, isFirst = true](auto... arguments) mutable
    {
        if (std::exchange(isFirst, false))
        {
            errno = error;
            return result;
        }
        return real(arguments...);
    };
}

/** The platform's own functions, past any hook. */
namespace real
{
void* malloc(std::size_t size);
void free(void* block);
int clockGettime(clockid_t clock, timespec* now);
long strtol(const char* text, char** end, int base);
int wirteDirect(int level, char* text, std::size_t length);
void* operatorNew(std::size_t size);
void operatorDelete(void* block);
void* newArray(std::size_t size);
void deleteArray(void* block);

int mutexInit(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes);
int mutexDestroy(pthread_mutex_t* mutex);
int mutexLock(pthread_mutex_t* mutex);
int mutexTrylock(pthread_mutex_t* mutex);
int mutexTimedlock(pthread_mutex_t* mutex, const timespec* deadline);
int mutexUnlock(pthread_mutex_t* mutex);

int condInit(pthread_cond_t* condition, const pthread_condattr_t* attributes);
int condDestroy(pthread_cond_t* condition);
int condWait(pthread_cond_t* condition, pthread_mutex_t* mutex);
int condSignal(pthread_cond_t* condition);

int threadCreate(pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*),
                 void* argument);
int threadJoin(pthread_t thread, void** value);
int threadDetach(pthread_t thread);
int threadCancel(pthread_t thread);
int threadSetname(pthread_t thread, const char* name);
int threadGetschedparam(pthread_t thread, int* policy, sched_param* parameters);
int threadSetschedparam(pthread_t thread, int policy, const sched_param* parameters);

/** Without file actions and attributes. */
int posixSpawn(pid_t* child, const char* path, char* const* arguments, char* const* environment);
pid_t waitpid(pid_t child, int* status, int options);
char* strdup(const char* text);

int usleep(useconds_t microseconds);
int prctl(int option, const void* argument);
} // namespace real

} // namespace support

#endif
