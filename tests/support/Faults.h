/**
 * Platform calls that fail, or are watched, on demand.
 *
 * The unit tests are linked with --wrap for the functions below, so that the library's calls come
 * here first. A hook concerns the thread that set it; without one the platform's function is called.
 */
#ifndef KORVANE_TESTS_FAULTS_H
#define KORVANE_TESTS_FAULTS_H

#include <cstddef>
#include <functional>
#include <utility>

#include <time.h>

namespace support
{

struct Hooks
{
    std::function<void*(std::size_t)> malloc;
    std::function<void(void*)> free;
    std::function<void*(std::size_t)> newArrayNothrow;
    std::function<int(clockid_t, timespec*)> clockGettime;
    std::function<std::size_t(const char*)> strlen;
    std::function<long(const char*, char**, int)> strtol;
    std::function<int(int, char*, std::size_t)> wirteDirect;
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

/** The platform's own functions, past any hook. */
namespace real
{
void* malloc(std::size_t size);
void free(void* block);
int clockGettime(clockid_t clock, timespec* now);
long strtol(const char* text, char** end, int base);
int wirteDirect(int level, char* text, std::size_t length);
} // namespace real

} // namespace support

#endif
