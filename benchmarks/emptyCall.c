#include "emptyCall.h"

void emptyCall(int level, const char* tag, const char* path, int line, const char* format, ...)
{
    (void)level;
    (void)tag;
    (void)path;
    (void)line;
    (void)format;
}
