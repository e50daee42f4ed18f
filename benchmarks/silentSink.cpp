#include "silentSink.h"

#include <dlfcn.h>
#include <traceif/traceif.h>

extern "C" int qn_log_print(const char*, const char*, int, int, int, int, const char*, ...)
{
    return 0;
}

bool isSilentSinkInPlace()
{
    Dl_info sink{};
    Dl_info executable{};
    void* const first = dlsym(RTLD_DEFAULT, "qn_log_print");
    return first != nullptr && dladdr(first, &sink) != 0 &&
           dladdr(reinterpret_cast<void*>(&isSilentSinkInPlace), &executable) != 0 &&
           sink.dli_fbase == executable.dli_fbase;
}
