#include "Faults.h"

#include <new>

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

} // namespace real

} // namespace support
