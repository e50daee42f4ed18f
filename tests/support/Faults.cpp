#include "Faults.h"

#include <cstdarg>
#include <new>

#include <spawn.h>

namespace
{

/** Calls the hook, if there is one, out of reach of itself: what it calls is the platform's. */
template <typename Hook, typename Real, typename... Arguments>
auto call(Hook support::Hooks::*member, Real real, Arguments... arguments)
{
    Hook& hook = support::hooks().*member;
    if (!hook)
    {
        return real(arguments...);
    }
    struct Restore
    {
        Hook& hook;
        Hook active;
        ~Restore()
        {
            hook = std::move(active);
        }
    } restore{hook, std::exchange(hook, nullptr)};
    return restore.active(arguments...);
}

} // namespace

extern "C" {
// The names are the linker's.
// NOLINTBEGIN(bugprone-reserved-identifier)
void* __real_malloc(std::size_t size);
void __real_free(void* block);
void* __real__ZnamRKSt9nothrow_t(std::size_t size, const std::nothrow_t& tag);
int __real_clock_gettime(clockid_t clock, timespec* now);
std::size_t __real_strlen(const char* text);
long __real_strtol(const char* text, char** end, int base);
int __real_iAp2ExternelLogWirteDirect(int level, char* text, std::size_t length);
void* __real__Znwm(std::size_t size);
void __real__ZdlPv(void* block);
void* __real__Znam(std::size_t size);
void __real__ZdaPv(void* block);
int __real_posix_spawn(pid_t* child, const char* path, const posix_spawn_file_actions_t* actions,
                       const posix_spawnattr_t* attributes, char* const* arguments,
                       char* const* environment);
pid_t __real_waitpid(pid_t child, int* status, int options);
char* __real_strdup(const char* text);
int __real_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes);
int __real_pthread_mutex_destroy(pthread_mutex_t* mutex);
int __real_pthread_mutex_lock(pthread_mutex_t* mutex);
int __real_pthread_mutex_trylock(pthread_mutex_t* mutex);
int __real_pthread_mutex_timedlock(pthread_mutex_t* mutex, const timespec* deadline);
int __real_pthread_mutex_unlock(pthread_mutex_t* mutex);
int __real_pthread_cond_init(pthread_cond_t* condition, const pthread_condattr_t* attributes);
int __real_pthread_cond_destroy(pthread_cond_t* condition);
int __real_pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex);
int __real_pthread_cond_signal(pthread_cond_t* condition);
int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                          void* (*entry)(void*), void* argument);
int __real_pthread_join(pthread_t thread, void** value);
int __real_pthread_detach(pthread_t thread);
int __real_pthread_cancel(pthread_t thread);
int __real_pthread_setname_np(pthread_t thread, const char* name);
int __real_pthread_getschedparam(pthread_t thread, int* policy, sched_param* parameters);
int __real_pthread_setschedparam(pthread_t thread, int policy, const sched_param* parameters);
int __real_usleep(useconds_t microseconds);
int __real_prctl(int option, ...);
[[noreturn]] void __real_exit(int status);

void* __wrap_malloc(std::size_t size)
{
    return call(&support::Hooks::malloc, __real_malloc, size);
}

void __wrap_free(void* block)
{
    call(&support::Hooks::free, __real_free, block);
}

void* __wrap__ZnamRKSt9nothrow_t(std::size_t size, const std::nothrow_t&)
{
    return call(
        &support::Hooks::newArrayNothrow,
        [](std::size_t bytes) { return __real__ZnamRKSt9nothrow_t(bytes, std::nothrow); }, size);
}

int __wrap_clock_gettime(clockid_t clock, timespec* now)
{
    return call(&support::Hooks::clockGettime, __real_clock_gettime, clock, now);
}

std::size_t __wrap_strlen(const char* text)
{
    return call(&support::Hooks::strlen, __real_strlen, text);
}

long __wrap_strtol(const char* text, char** end, int base)
{
    return call(&support::Hooks::strtol, __real_strtol, text, end, base);
}

int __wrap_iAp2ExternelLogWirteDirect(int level, char* text, std::size_t length)
{
    return call(&support::Hooks::wirteDirect, __real_iAp2ExternelLogWirteDirect, level, text,
                length);
}

void* __wrap__Znwm(std::size_t size)
{
    return call(&support::Hooks::operatorNew, __real__Znwm, size);
}

void __wrap__ZdlPv(void* block)
{
    call(&support::Hooks::operatorDelete, __real__ZdlPv, block);
}

void __wrap__ZdlPvm(void* block, std::size_t)
{
    call(&support::Hooks::operatorDelete, __real__ZdlPv, block);
}

void* __wrap__Znam(std::size_t size)
{
    return call(&support::Hooks::newArray, __real__Znam, size);
}

void __wrap__ZdaPv(void* block)
{
    call(&support::Hooks::deleteArray, __real__ZdaPv, block);
}

int __wrap_posix_spawn(pid_t* child, const char* path, const posix_spawn_file_actions_t* actions,
                       const posix_spawnattr_t* attributes, char* const* arguments,
                       char* const* environment)
{
    if (actions != nullptr || attributes != nullptr)
    {
        return EINVAL; // the library uses neither
    }
    return call(&support::Hooks::posixSpawn, support::real::posixSpawn, child, path, arguments,
                environment);
}

pid_t __wrap_waitpid(pid_t child, int* status, int options)
{
    return call(&support::Hooks::waitpid, __real_waitpid, child, status, options);
}

char* __wrap_strdup(const char* text)
{
    return call(&support::Hooks::strdup, __real_strdup, text);
}

int __wrap_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes)
{
    return call(&support::Hooks::mutexInit, __real_pthread_mutex_init, mutex, attributes);
}

int __wrap_pthread_mutex_destroy(pthread_mutex_t* mutex)
{
    return call(&support::Hooks::mutexDestroy, __real_pthread_mutex_destroy, mutex);
}

int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex)
{
    return call(&support::Hooks::mutexLock, __real_pthread_mutex_lock, mutex);
}

int __wrap_pthread_mutex_trylock(pthread_mutex_t* mutex)
{
    return call(&support::Hooks::mutexTrylock, __real_pthread_mutex_trylock, mutex);
}

int __wrap_pthread_mutex_timedlock(pthread_mutex_t* mutex, const timespec* deadline)
{
    return call(&support::Hooks::mutexTimedlock, __real_pthread_mutex_timedlock, mutex, deadline);
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex)
{
    return call(&support::Hooks::mutexUnlock, __real_pthread_mutex_unlock, mutex);
}

int __wrap_pthread_cond_init(pthread_cond_t* condition, const pthread_condattr_t* attributes)
{
    return call(&support::Hooks::condInit, __real_pthread_cond_init, condition, attributes);
}

int __wrap_pthread_cond_destroy(pthread_cond_t* condition)
{
    return call(&support::Hooks::condDestroy, __real_pthread_cond_destroy, condition);
}

int __wrap_pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex)
{
    return call(&support::Hooks::condWait, __real_pthread_cond_wait, condition, mutex);
}

int __wrap_pthread_cond_signal(pthread_cond_t* condition)
{
    return call(&support::Hooks::condSignal, __real_pthread_cond_signal, condition);
}

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                          void* (*entry)(void*), void* argument)
{
    return call(&support::Hooks::threadCreate, __real_pthread_create, thread, attributes, entry,
                argument);
}

int __wrap_pthread_join(pthread_t thread, void** value)
{
    return call(&support::Hooks::threadJoin, __real_pthread_join, thread, value);
}

int __wrap_pthread_detach(pthread_t thread)
{
    return call(&support::Hooks::threadDetach, __real_pthread_detach, thread);
}

int __wrap_pthread_cancel(pthread_t thread)
{
    return call(&support::Hooks::threadCancel, __real_pthread_cancel, thread);
}

int __wrap_pthread_setname_np(pthread_t thread, const char* name)
{
    return call(&support::Hooks::threadSetname, __real_pthread_setname_np, thread, name);
}

int __wrap_pthread_getschedparam(pthread_t thread, int* policy, sched_param* parameters)
{
    return call(&support::Hooks::threadGetschedparam, __real_pthread_getschedparam, thread, policy,
                parameters);
}

int __wrap_pthread_setschedparam(pthread_t thread, int policy, const sched_param* parameters)
{
    return call(&support::Hooks::threadSetschedparam, __real_pthread_setschedparam, thread, policy,
                parameters);
}

int __wrap_usleep(useconds_t microseconds)
{
    return call(&support::Hooks::usleep, __real_usleep, microseconds);
}

int __wrap_prctl(int option, ...)
{
    // The one that the library calls takes one argument that matters.
    va_list arguments;
    va_start(arguments, option);
    const void* const argument = va_arg(arguments, const void*);
    va_end(arguments);
    return call(&support::Hooks::prctl, support::real::prctl, option, argument);
}

[[noreturn]] void __wrap_exit(int status)
{
    // Nobody who calls exit() expects it to return.
    call(&support::Hooks::exit, __real_exit, status);
    __real_exit(status);
}
// NOLINTEND(bugprone-reserved-identifier)
}

namespace support
{

Hooks& hooks()
{
    static thread_local Hooks threadHooks;
    return threadHooks;
}

namespace real
{

void* malloc(std::size_t size)
{
    return __real_malloc(size);
}

void free(void* block)
{
    __real_free(block);
}

int clockGettime(clockid_t clock, timespec* now)
{
    return __real_clock_gettime(clock, now);
}

long strtol(const char* text, char** end, int base)
{
    return __real_strtol(text, end, base);
}

int wirteDirect(int level, char* text, std::size_t length)
{
    return __real_iAp2ExternelLogWirteDirect(level, text, length);
}

void* operatorNew(std::size_t size)
{
    return __real__Znwm(size);
}

void operatorDelete(void* block)
{
    __real__ZdlPv(block);
}

void* newArray(std::size_t size)
{
    return __real__Znam(size);
}

void deleteArray(void* block)
{
    __real__ZdaPv(block);
}

int posixSpawn(pid_t* child, const char* path, char* const* arguments, char* const* environment)
{
    return __real_posix_spawn(child, path, nullptr, nullptr, arguments, environment);
}

pid_t waitpid(pid_t child, int* status, int options)
{
    return __real_waitpid(child, status, options);
}

char* strdup(const char* text)
{
    return __real_strdup(text);
}

int mutexInit(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes)
{
    return __real_pthread_mutex_init(mutex, attributes);
}

int mutexDestroy(pthread_mutex_t* mutex)
{
    return __real_pthread_mutex_destroy(mutex);
}

int mutexLock(pthread_mutex_t* mutex)
{
    return __real_pthread_mutex_lock(mutex);
}

int mutexTrylock(pthread_mutex_t* mutex)
{
    return __real_pthread_mutex_trylock(mutex);
}

int mutexTimedlock(pthread_mutex_t* mutex, const timespec* deadline)
{
    return __real_pthread_mutex_timedlock(mutex, deadline);
}

int mutexUnlock(pthread_mutex_t* mutex)
{
    return __real_pthread_mutex_unlock(mutex);
}

int condInit(pthread_cond_t* condition, const pthread_condattr_t* attributes)
{
    return __real_pthread_cond_init(condition, attributes);
}

int condDestroy(pthread_cond_t* condition)
{
    return __real_pthread_cond_destroy(condition);
}

int condWait(pthread_cond_t* condition, pthread_mutex_t* mutex)
{
    return __real_pthread_cond_wait(condition, mutex);
}

int condSignal(pthread_cond_t* condition)
{
    return __real_pthread_cond_signal(condition);
}

int threadCreate(pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*),
                 void* argument)
{
    return __real_pthread_create(thread, attributes, entry, argument);
}

int threadJoin(pthread_t thread, void** value)
{
    return __real_pthread_join(thread, value);
}

int threadDetach(pthread_t thread)
{
    return __real_pthread_detach(thread);
}

int threadCancel(pthread_t thread)
{
    return __real_pthread_cancel(thread);
}

int threadSetname(pthread_t thread, const char* name)
{
    return __real_pthread_setname_np(thread, name);
}

int threadGetschedparam(pthread_t thread, int* policy, sched_param* parameters)
{
    return __real_pthread_getschedparam(thread, policy, parameters);
}

int threadSetschedparam(pthread_t thread, int policy, const sched_param* parameters)
{
    return __real_pthread_setschedparam(thread, policy, parameters);
}

int usleep(useconds_t microseconds)
{
    return __real_usleep(microseconds);
}

int prctl(int option, const void* argument)
{
    return __real_prctl(option, argument, nullptr, nullptr, nullptr);
}

} // namespace real

} // namespace support
