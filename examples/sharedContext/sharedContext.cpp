// Two components of one process that meet at the shared context: one waits for the other.

#include <cstdio>

#include <pthread.h>

#include <korvane/iAp2LogUtil.h>
#include <korvane/SharedContext.h>

namespace
{

using IAP2::SharedContext;

/** The component that has to be ready before the other may go on. */
void* becomeReady(void*)
{
    SharedContext* const context = SharedContext::getInstance();
    std::puts("ready");
    pthread_mutex_lock(&context->mMutex1);
    context->mFlag = true;
    pthread_cond_signal(&context->mCond1);
    pthread_mutex_unlock(&context->mMutex1);
    return nullptr;
}

} // namespace

int main()
{
    setLogLevel(IAP2_LOG_ERROR);
    // The first call, before there is a second thread: it takes no lock.
    SharedContext* const context = SharedContext::getInstance();

    pthread_t component;
    if (pthread_create(&component, nullptr, becomeReady, nullptr) != 0)
    {
        std::fputs("sharedContext: no second thread\n", stderr);
        return 1;
    }
    pthread_mutex_lock(&context->mMutex1);
    while (!context->mFlag)
    {
        pthread_cond_wait(&context->mCond1, &context->mMutex1);
    }
    pthread_mutex_unlock(&context->mMutex1);
    std::puts("go on");
    pthread_join(component, nullptr);
    return 0;
}
