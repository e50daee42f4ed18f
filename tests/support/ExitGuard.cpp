/**
 * A process that ends by exit(0) in the middle of a test looks like one whose tests have passed. It
 * fails instead; the children of death tests are meant to end like that.
 */
#include <cstdio>
#include <cstdlib>

#include <sys/types.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace
{

pid_t guarded = 0;

void failInsideATest()
{
    const testing::TestInfo* const test = testing::UnitTest::GetInstance()->current_test_info();
    if (test != nullptr && getpid() == guarded)
    {
        std::fprintf(stderr, "%s.%s has ended the process\n", test->test_suite_name(),
                     test->name());
        std::_Exit(EXIT_FAILURE);
    }
}

class ExitGuard
{
public:
    ExitGuard()
    {
        guarded = getpid();
        testing::UnitTest::GetInstance(); // exists before the guard, and thus outlives it
        std::atexit(&failInsideATest);
    }
} const exitGuard;

} // namespace
