/* The public headers compile as plain C, and the library links from C. */
#include <stdio.h>
#include <string.h>

#include "tandro.h"

int main(void)
{
    zel_handle_record record;
    zel_handle_init(&record);
    if (record.br_custom != ZEL_BR_NONE)
        return 1;
    if (GetDllVersion() != 0x350006u || strcmp(GetDllVersionStr(), "6.0.53") != 0)
        return 2;
    if (strcmp(ZEL_Status2String(ZEL_NO_CARD), "[0x08 (8)] ZEL_NO_CARD") != 0)
        return 3;
    /* A record on the stack can be used through the M forms. */
    uint32_t type = 0;
    if (GetReaderTypeM(&record, &type) != ZEL_FTD2XX_DLL_NOT_FOUND) /* an FTDI record, no D2XX library */
        return 4;
    puts("C interface ok");
    return 0;
}
