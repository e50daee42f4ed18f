#include <korvane/iAP2Utils.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>

#include "internal/report.h"
#include "internal/resultCodes.h"

using namespace korvane::internal;

std::int32_t reSettingUtf8ParamForCPP(CmdSaveUtf8Param* param, MarshalIo* mio)
{
    const char* const self = __func__;
    if (mio == nullptr)
    {
        KORVANE_REPORT_ERRNO_AND_CLEAR(self);
        return kArgumentMissing;
    }
    if (param == nullptr)
    {
        KORVANE_REPORT_ERRNO_AND_CLEAR(self);
        return kArgumentMissing;
    }
    delete[] param->value;
    param->value = nullptr;

    const std::uint8_t* const bytes = iAp2MarshalGetBytes(mio, &param->size);
    if (bytes == nullptr)
    {
        param->size = 0;
        param->present = 0;
        return kOutOfRange;
    }
    param->value = new (std::nothrow) char[std::size_t{param->size} + 1];
    if (param->value == nullptr)
    {
        KORVANE_LOG(IAP2_LOG_ERROR, "ERROR utf8Param Malloc Fail");
        param->present = 0;
        return kAllocationFailed;
    }
    std::memcpy(param->value, bytes, param->size);
    param->value[param->size] = '\0';
    KORVANE_LOG(IAP2_LOG_INFO, "utf8Param->value[%s]", param->value);
    param->present = 1;
    return kSuccess;
}
