#include "outputWorker.h"

#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <new>

#include <unistd.h>

#include <korvane/DataQueueList.h>
#include <korvane/iAp2LogUtil.h>
#include <korvane/utils.h>

#include "files.h"
#include "progress.h"
#include "text.h"

namespace identification
{

namespace
{

/** What is to be written, and what became of it; lives until the worker has ended. */
class Output
{
public:
    Output(const std::string& path, std::string_view bytes) : mPath(path), mBytes(bytes)
    {
    }

    /** An exception that left the handler would end the process. */
    void write()
    {
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            mHasBegun = true;
            mBegun.notify_all();
        }
        logPrint(IAP2_LOG_DEBUG, "IAP2", __FILE__, __LINE__, "sender[%d]: writes the output",
                 getpid());
        try
        {
            sayProgress("sender", "writes " + std::to_string(mBytes.size()) + " bytes to " +
                                      printable(mPath));
            replaceFile(mPath, mBytes);
        }
        catch (const std::exception&)
        {
            mFailure = std::current_exception();
        }
    }

    void waitUntilBegun()
    {
        constexpr std::chrono::seconds patience(1);
        std::unique_lock<std::mutex> lock(mMutex);
        mBegun.wait_for(lock, patience, [this] { return mHasBegun; });
    }

    void rethrowFailure() const
    {
        if (mFailure != nullptr)
        {
            std::rethrow_exception(mFailure);
        }
    }

private:
    const std::string& mPath;
    const std::string_view mBytes;
    std::exception_ptr mFailure;
    std::mutex mMutex;
    std::condition_variable mBegun;
    bool mHasBegun = false;
};

/** The queue's handler knows nothing but its item. */
struct Item
{
    Output* output;
};

void handle(void* data)
{
    auto* const item = static_cast<Item*>(data);
    if (item == nullptr)
    {
        return; // the worker has found nothing
    }
    Output* const output = item->output;
    iAP2_free(item);
    output->write();
}

} // namespace

void writeOutput(const std::string& path, std::string_view bytes)
{
    auto* const item = static_cast<Item*>(iAP2_malloc(sizeof(Item)));
    if (item == nullptr)
    {
        throw std::bad_alloc();
    }
    Output output(path, bytes);
    item->output = &output;

    IAP2::DataQueueList queue(handle);
    const bool isQueued = queue.addDataQueue(item) != 0;
    if (isQueued)
    {
        logPrint(IAP2_LOG_DEBUG, "IAP2", __FILE__, __LINE__, "sender[%d]: has queued the output",
                 getpid());
        // The worker may just have looked and not wait yet: then it does not notice.
        output.waitUntilBegun();
    }
    // Comes back when the worker is through with what it has; then the rest is not its any more.
    queue.terminate();
    if (!isQueued)
    {
        iAP2_free(item);
        throw std::bad_alloc();
    }
    void* left = nullptr;
    queue.getDataQueue(&left);
    handle(left);
    output.rethrowFailure();
}

} // namespace identification
