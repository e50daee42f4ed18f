#include <korvane/iAp2LogUtil.h>

int main()
{
    logPrint(IAP2_LOG_INFO, "IAP2", __FILE__, __LINE__, "one line");
    return 0;
}
