/** What the sanitizers cannot follow. */
#ifndef KORVANE_TESTS_SANITIZERS_H
#define KORVANE_TESTS_SANITIZERS_H

#if defined(__SANITIZE_ADDRESS__)
#define KORVANE_TESTS_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KORVANE_TESTS_ADDRESS_SANITIZER 1
#endif
#endif

/**
 * First line of a test that cancels a thread inside the library. AddressSanitizer learns of frames
 * that an exception leaves, not of those that a cancellation does: they stay poisoned, and the next
 * use of that part of the stack is taken for an overflow. ThreadSanitizer and plain builds run these
 * tests.
 */
#ifdef KORVANE_TESTS_ADDRESS_SANITIZER
#define KORVANE_SKIP_CANCELLATION_UNDER_ASAN()                                                     \
    GTEST_SKIP() << "AddressSanitizer does not follow the unwinding of a cancelled thread"
#else
#define KORVANE_SKIP_CANCELLATION_UNDER_ASAN() static_cast<void>(0)
#endif

#endif
