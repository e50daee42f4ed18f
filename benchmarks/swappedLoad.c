#include "swappedLoad.h"

#include <string.h>

uint8_t swappedLoad8(unsigned char* data, unsigned long dataLen, int nStartIdx, int nLength)
{
    (void)dataLen;
    (void)nLength;
    return data[nStartIdx];
}

#define DEFINE_SWAPPED_LOAD(bits)                                                                  \
    uint##bits##_t swappedLoad##bits(unsigned char* data, unsigned long dataLen, int nStartIdx,    \
                                     int nLength)                                                  \
    {                                                                                              \
        (void)dataLen;                                                                             \
        (void)nLength;                                                                             \
        uint##bits##_t number;                                                                     \
        memcpy(&number, data + nStartIdx, sizeof number);                                          \
        return __builtin_bswap##bits(number);                                                      \
    }

DEFINE_SWAPPED_LOAD(16)
DEFINE_SWAPPED_LOAD(32)
DEFINE_SWAPPED_LOAD(64)
