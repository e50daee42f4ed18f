#include <korvane/iAP2ExtLog.h>

#include <traceif/traceif.h>

namespace
{

// Two arguments of qn_log_print() whose meaning is the trace library's own.
constexpr int kTraceArgument5 = 2048;
constexpr int kTraceArgument6 = 0;

} // namespace

// A macro, so that each severity is a call statement of its own and reports its own line.
#define KORVANE_TRACE(severity, text)                                                              \
    qn_log_print(__FILE__, __func__, __LINE__, severity, kTraceArgument5, kTraceArgument6, "%s",   \
                 text)

extern "C" int iAP2ExtLog(int level, char* text)
{
    if (level > 90)
    {
        return KORVANE_TRACE(224, text);
    }
    if (level > 60)
    {
        return KORVANE_TRACE(192, text);
    }
    if (level > 50)
    {
        return KORVANE_TRACE(160, text);
    }
    if (level > 30)
    {
        return KORVANE_TRACE(128, text);
    }
    if (level > 20)
    {
        return KORVANE_TRACE(64, text);
    }
    return KORVANE_TRACE(32, text);
}

extern "C" int iAp2ExternelLogWirteDirect(int level, char* text, size_t /*length*/)
{
    return iAP2ExtLog(level, text);
}

extern "C" void iAP2initExternelLog(void)
{
    iAP2initExternelLogModelDefs();
}

extern "C" void iAP2TerminateExternelLog(void)
{
    iAP2TerminateExternelLogModelDefs();
}

extern "C" void iAP2initExternelLogModelDefs(void)
{
}

extern "C" void iAP2TerminateExternelLogModelDefs(void)
{
}
