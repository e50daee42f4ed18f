// [example]
#include <cstdint>
#include <korvane/iAp2LogUtil.h>
#include <korvane/iAp2Marshal.h>

int main()
{
    std::uint8_t buffer[64];
    MarshalIo mio;
    iAp2MarshalInit(&mio, buffer, sizeof buffer, 8); // leaves 8 bytes for a header of your own
    iAp2MarshalPutUint16(&mio, 7);
    iAp2MarshalPutBytes(&mio, "Navi", 5); // with its terminating zero
    logPrint(IAP2_LOG_INFO, "IAP2", __FILE__, __LINE__, "%u bytes", iAp2MarshalGetUsedSize(&mio));
}
// [example]
