#include <stdio.h>

#include <korvane/iAP2ExtLog.h>
#include <korvane/iAp2LogUtil.h>
#include <korvane/iAp2Marshal.h>
#include <korvane/utils.h>

int main(void)
{
    uint8_t buffer[16];
    MarshalIo mio;
    void* const area = iAP2_malloc(8);

    iAp2MarshalInit(&mio, buffer, sizeof buffer, 4);
    iAp2MarshalPutUint16(&mio, 7);
    logPrint(IAP2_LOG_INFO, "IAP2", __FILE__, __LINE__, "from C");
    printf("%u\n", iAp2MarshalGetUsedSize(&mio));
    iAP2_free(area);
    return 0;
}
