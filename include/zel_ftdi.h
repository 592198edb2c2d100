/* Direct D2XX helpers. */
#ifndef ZEL_FTDI_H
#define ZEL_FTDI_H

#include "zel_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Up to 4 tries of the D2XX write: 0 when all bytes went, minus the shortfall, or the D2XX status. */
ZEL_API int ftdi_write(void *device, const uint8_t *buffer, uint32_t count);
/* Clears the buffer; up to 4 tries of the D2XX read, stopping at the first that brought bytes: 0 when
 * all came, minus the shortfall, or the D2XX status when nothing came. */
ZEL_API int ftdi_read(void *device, uint8_t *buffer, uint32_t count);

#ifdef __cplusplus
}
#endif
#endif
