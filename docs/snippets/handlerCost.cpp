// What a message handler costs: heap, and stack of its thread with a line printed.
// Prints the figures of docs/integration.md; ends with 1 where one is beyond what that page promises.
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include <malloc.h>
#include <pthread.h>

#include <korvane/iAp2LogUtil.h>
#include <korvane/iAP2MsgHandler.h>
#include <traceif/traceif.h>

namespace
{

constexpr std::size_t kHeapPromise = 2048;
constexpr std::size_t kStackPromise = 12288;

/** The bytes of the calling thread's stack that were ever written: a new stack is all zeros. */
std::size_t stackUsed()
{
    pthread_attr_t attributes;
    pthread_getattr_np(pthread_self(), &attributes);
    void* lowest = nullptr;
    std::size_t size = 0;
    pthread_attr_getstack(&attributes, &lowest, &size);
    pthread_attr_destroy(&attributes);
    const auto* const bytes = static_cast<const volatile char*>(lowest);
    std::size_t untouched = 0;
    while (untouched < size && bytes[untouched] == 0)
    {
        ++untouched;
    }
    return size - untouched;
}

class Handler : public iAP2MsgHandler
{
public:
    Handler()
    {
        using Delegate = IAP2Delegate<void, iAP2MsgData*>;
        registerEventTable(1, "measure", new Delegate(this, &Handler::measure));
    }

private:
    void measure(iAP2MsgData* data)
    {
        logPrint(IAP2_LOG_DEBUG, "COST", __FILE__, __LINE__, "a line of %d and \"%s\"", 1, "text");
        *static_cast<std::size_t*>(data->pParam1) = stackUsed();
    }
};

} // namespace

/** Takes the place of the trace library's function, so that only the library's own cost is seen. */
extern "C" int qn_log_print(const char*, const char*, int, int, int, int, const char*, ...)
{
    return 0;
}

int main()
{
    const std::size_t before = mallinfo2().uordblks;
    auto handler = std::make_unique<Handler>();
    const std::size_t heap = mallinfo2().uordblks - before;
    std::size_t stack = 0;
    handler->start();
    handler->sendMsgSyncP(1, &stack);
    handler.reset();

    std::printf("heap of a handler with one event: %zu bytes, of which the object %zu\n", heap,
                sizeof(Handler));
    std::printf("stack of its thread, with a line printed: %zu bytes\n", stack);
    return heap <= kHeapPromise && stack <= kStackPromise ? EXIT_SUCCESS : EXIT_FAILURE;
}
