#include "insideLine.h"

#include "internal/report.h"
#include "repeat.h"

extern "C" {
void insideSetLogLevel(int level)
{
    setLogLevel(level);
}

void insideSuppressedLines(unsigned value)
{
    KORVANE_REPEAT_64(KORVANE_LOG(IAP2_LOG_DEBUG, "%sParam [%u]", "uint32", value));
}

} // extern "C"
