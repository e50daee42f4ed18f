/**
 * The floor of a round trip between two threads: each sleeps on a futex until the other wakes it.
 */
#ifndef KORVANE_BENCHMARKS_FUTEXPARTNER_H
#define KORVANE_BENCHMARKS_FUTEXPARTNER_H

#include <atomic>
#include <thread>

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

class FutexPartner
{
public:
    /** The partner runs `prepare` on its own thread first. */
    template <typename Prepare>
    explicit FutexPartner(Prepare prepare)
        : mThread(
              [this, prepare]
              {
                  prepare();
                  while (take(mCall) == kGoOn)
                  {
                      give(mAnswer, kGoOn);
                  }
              })
    {
    }
    FutexPartner(const FutexPartner&) = delete;
    FutexPartner& operator=(const FutexPartner&) = delete;
    ~FutexPartner()
    {
        give(mCall, kEnd);
        mThread.join();
    }

    void roundTrip()
    {
        give(mCall, kGoOn);
        take(mAnswer);
    }

private:
    enum Word : int
    {
        kEmpty,
        kGoOn,
        kEnd
    };
    using Futex = std::atomic<int>;
    static_assert(sizeof(Futex) == sizeof(int), "what the kernel looks at");

    static void give(Futex& futex, int word)
    {
        futex.store(word, std::memory_order_release);
        syscall(SYS_futex, &futex, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
    }

    static int take(Futex& futex)
    {
        for (;;)
        {
            const int word = futex.load(std::memory_order_acquire);
            if (word != kEmpty)
            {
                futex.store(kEmpty, std::memory_order_relaxed);
                return word;
            }
            syscall(SYS_futex, &futex, FUTEX_WAIT_PRIVATE, kEmpty, nullptr, nullptr, 0);
        }
    }

    alignas(64) Futex mCall{kEmpty};
    alignas(64) Futex mAnswer{kEmpty};
    std::thread mThread;
};

#endif
