// Texts that cost their thread little: the queued writer hands them to the trace library later.

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include <semaphore.h>

#include <korvane/iAP2ExtLog.h>
#include <korvane/iAp2LogUtil.h>
#include <traceif/traceif.h>

namespace
{

sem_t arrived;

} // namespace

// Takes the place of the trace library, to show what arrives there, and that it has.
extern "C" int qn_log_print(const char*, const char*, int, int severity, int, int,
                            const char* format, ...)
{
    std::printf("severity %d: ", severity);
    va_list arguments;
    va_start(arguments, format);
    std::vprintf(format, arguments);
    va_end(arguments);
    std::puts("");
    return sem_post(&arrived);
}

int main()
{
    sem_init(&arrived, 0, 0);
    if (const int error = iAp2ExternelLogWriteInit())
    {
        std::fprintf(stderr, "queuedLog: the writer cannot be started: %s\n", std::strerror(error));
        return 1;
    }
    const char* const steps[] = {"identification sent", "identification accepted", "charging"};
    for (const char* const step : steps)
    {
        iAp2ExternelLogWriteAddQueue(IAP2_LOG_INFO, step, std::strlen(step)); // copied
    }
    // Stopping drops what is still queued, so whoever needs the texts sees to it that they arrive.
    for ([[maybe_unused]] const char* const step : steps)
    {
        sem_wait(&arrived);
    }
    iAp2ExternelLogWriteStop();
    return 0;
}
