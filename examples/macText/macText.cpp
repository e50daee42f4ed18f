// A MAC address on its way: from text to the six bytes of a message, and into a trace where it cannot
// be read at a glance.

#include <cstdio>
#include <string>

#include <korvane/iAp2LogUtil.h>
#include <korvane/iAP2Utils.h>
#include <korvane/utils.h>

int main(int argc, char** argv)
{
    if (argc != 2)
    {
        std::fprintf(stderr, "usage: macText ADDRESS\n");
        return 2;
    }
    // The converter's own traces show the address in clear; this keeps them out.
    setLogLevel(IAP2_LOG_INFO);

    // [example]
    const std::string digits = removeCharFromString(argv[1], ":");
    if (digits.size() != 12 ||
        digits.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
    {
        // The converter would take it all the same.
        std::fprintf(stderr, "macText: not twelve hexadecimal digits: %s\n", argv[1]);
        return 1;
    }
    unsigned char bytes[6];
    const int result = changeStringToByteArrayForBtMacAddr(bytes, digits.c_str());
    if (result != 0)
    {
        std::fprintf(stderr, "macText: not converted: %d\n", result);
        return 1;
    }
    const std::string shown = insertColonIntoMacAddress(digits);
    logPrint(IAP2_LOG_INFO, "IAP2", __FILE__, __LINE__, "peer [%s]",
             getSecuredString(shown).c_str());
    // [example]

    std::printf("bytes");
    for (const unsigned char byte : bytes)
    {
        std::printf(" %02x", byte);
    }
    std::printf("\ntext %s\nsecured %s\n", shown.c_str(), getSecuredString(shown).c_str());
    return 0;
}
