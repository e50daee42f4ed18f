/**
 * Whether memory can be read, asked without touching it.
 */
#ifndef KORVANE_INTERNAL_READABLE_H
#define KORVANE_INTERNAL_READABLE_H

#include <cerrno>

#include <sys/syscall.h>
#include <unistd.h>

namespace korvane::internal
{

/**
 * True when the 8 bytes at `address` can be read. errno stays as it was.
 *
 * rt_sigprocmask(2) copies the new mask from the caller before it looks at what is to be done with
 * it, and nothing is: no signal mask operation has the number -1. Costs one system call.
 */
inline bool isReadable(const void* address)
{
    constexpr long kNoSuchOperation = -1;
    constexpr long kKernelMaskSize = 8;
    const int saved = errno;
    syscall(SYS_rt_sigprocmask, kNoSuchOperation, address, nullptr, kKernelMaskSize);
    const bool readable = errno != EFAULT;
    errno = saved;
    return readable;
}

} // namespace korvane::internal

#endif
