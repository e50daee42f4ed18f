#include <korvane/SharedContext.h>

#include "internal/report.h"

namespace IAP2
{

SharedContext* SharedContext::mInstance = nullptr;

SharedContext* SharedContext::getInstance()
{
    if (mInstance == nullptr)
    {
        mInstance = new SharedContext;
    }
    return mInstance;
}

SharedContext::SharedContext() : mFlag(false)
{
    KORVANE_LOG(IAP2_LOG_DEBUG, "SharedContext()");
    pthread_mutex_init(&mMutex1, nullptr);
    pthread_cond_init(&mCond1, nullptr);
    pthread_mutex_init(&mMutex2, nullptr);
    pthread_cond_init(&mCond2, nullptr);
}

SharedContext::~SharedContext()
{
    KORVANE_LOG(IAP2_LOG_DEBUG, "~SharedContext()");
    pthread_cond_destroy(&mCond1);
    pthread_mutex_destroy(&mMutex1);
    pthread_cond_destroy(&mCond2);
    pthread_mutex_destroy(&mMutex2);
}

} // namespace IAP2
