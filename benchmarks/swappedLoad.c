#include "swappedLoad.h"

#include <string.h>

uint8_t swappedLoad8(unsigned char* data, unsigned long dataLen, int nStartIdx, int nLength)
{
    (void)dataLen;
    (void)nLength;
    return data[nStartIdx];
}

uint16_t swappedLoad16(unsigned char* data, unsigned long dataLen, int nStartIdx, int nLength)
{
    (void)dataLen;
    (void)nLength;
    uint16_t number;
    memcpy(&number, data + nStartIdx, sizeof number);
    return __builtin_bswap16(number);
}

uint32_t swappedLoad32(unsigned char* data, unsigned long dataLen, int nStartIdx, int nLength)
{
    (void)dataLen;
    (void)nLength;
    uint32_t number;
    memcpy(&number, data + nStartIdx, sizeof number);
    return __builtin_bswap32(number);
}

uint64_t swappedLoad64(unsigned char* data, unsigned long dataLen, int nStartIdx, int nLength)
{
    (void)dataLen;
    (void)nLength;
    uint64_t number;
    memcpy(&number, data + nStartIdx, sizeof number);
    return __builtin_bswap64(number);
}
