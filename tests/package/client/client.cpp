#include <cstdio>

#include <korvane/iAp2LogUtil.h>
#include <korvane/iAp2Marshal.h>
#include <korvane/iAP2Utils.h>
#include <korvane/utils.h>

int main()
{
    CmdSaveParam mac{};
    const int result = changeStringToByteArrayForMacAddr(&mac, "001A7DDA7113");
    logPrint(IAP2_LOG_INFO, "IAP2", __FILE__, __LINE__, "from C++");
    std::printf("%d %02X\n", result, static_cast<unsigned>(mac.value[5]));
    iAP2_free(mac.value);
    return 0;
}
