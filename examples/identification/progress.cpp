#include "progress.h"

#include <chrono>
#include <thread>

#include <unistd.h>

#include <korvane/iAP2ExtLog.h>
#include <korvane/iAp2LogUtil.h>

#include "failures.h"

namespace identification
{

ProgressLog::ProgressLog(int level)
{
    // The queued log itself knows no levels.
    if (level > IAP2_LOG_INFO)
    {
        return;
    }
    const int error = iAp2ExternelLogWriteInit();
    if (error != 0)
    {
        throw SystemError("no thread for the progress lines: " + errorText(error));
    }
}

ProgressLog::~ProgressLog()
{
    awaitProgress();
    iAp2ExternelLogWriteStop();
}

void sayProgress(const char* role, const std::string& text)
{
    const std::string line = std::string(role) + '[' + std::to_string(getpid()) + "]: " + text;
    iAp2ExternelLogWriteAddQueue(IAP2_LOG_INFO, line.data(), line.size());
}

void awaitProgress()
{
    // A line leaves the queue once it has been written.
    while (__atomic_load_n(&my_tailq_head_iAP2.tqh_first, __ATOMIC_ACQUIRE) != nullptr)
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

} // namespace identification
