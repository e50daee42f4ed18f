/**
 * A system that has no thread to give.
 */
#ifndef KORVANE_TESTS_NOTHREADS_H
#define KORVANE_TESTS_NOTHREADS_H

#include <cstddef>

#include <gtest/gtest.h>
#include <pthread.h>

/** While it lives, a thread without attributes asks for a stack as large as the address space. */
class NoThreads
{
public:
    NoThreads()
    {
        EXPECT_EQ(pthread_getattr_default_np(&mUsual), 0);
        pthread_attr_t large = mUsual;
        EXPECT_EQ(pthread_attr_setstacksize(&large, std::size_t{1} << 60U), 0);
        EXPECT_EQ(pthread_setattr_default_np(&large), 0);
    }
    ~NoThreads()
    {
        EXPECT_EQ(pthread_setattr_default_np(&mUsual), 0);
        pthread_attr_destroy(&mUsual);
    }
    NoThreads(const NoThreads&) = delete;
    NoThreads& operator=(const NoThreads&) = delete;

private:
    pthread_attr_t mUsual{};
};

#endif
