/* The display module of 128 by 64 pixels behind the reader: pictures (from PNG, JPEG and BMP files or raw
 * bitmaps), its gallery, text, the time, user-interface signals, and the module's boot loader and flash. */
#ifndef ZEL_DISPLAY_H
#define ZEL_DISPLAY_H

#include "zel_types.h"

#ifdef __cplusplus
extern "C" {
#endif

#define ZEL_DISPLAY_WIDTH 128
#define ZEL_DISPLAY_HEIGHT 64
/* A raw bitmap: 64 rows of 16 bytes, most significant bit first, a set bit a dark pixel. */
#define ZEL_DISPLAY_BITMAP_LEN 1024
/* The highest gallery index a picture may be saved at, and the slot of the last picture sent. */
#define ZEL_DISPLAY_GALLERY_MAX 10
#define ZEL_DISPLAY_LAST_UNSAVED 16
#define ZEL_DISPLAY_FLASH_BLOCK 64

#include "zel_display_forms.h"

/* The module's boot loader and flash, for the firmware tools: the implementation form only. */
ZEL_API ZEL_STATUS Display_SendBootCommandHnd(ZEL_HANDLE hnd);
ZEL_API ZEL_STATUS Display_CheckBootStatusHnd(ZEL_HANDLE hnd);
/* Erases the flash page at address. */
ZEL_API ZEL_STATUS Display_EraseFlashI2CHnd(ZEL_HANDLE hnd, uint16_t address);
/* Writes 64 bytes at address, with their CRC-8 (polynomial 0x07, initial 0). */
ZEL_API ZEL_STATUS Display_WriteFlashI2CHnd(ZEL_HANDLE hnd, const uint8_t *data, uint16_t address);
ZEL_API ZEL_STATUS ProgDisplayHnd(ZEL_HANDLE hnd, const uint8_t *data, uint16_t address);
/* first takes 12 bytes, second 8; the five bytes are passed along as the module reports them. */
ZEL_API ZEL_STATUS Display_GetParametersHnd(ZEL_HANDLE hnd, uint8_t *first, uint8_t *second, uint8_t *b1, uint8_t *b2,
                                            uint8_t *b3, uint8_t *b4, uint8_t *b5);
ZEL_API ZEL_STATUS Display_GetFirmwareVersionHnd(ZEL_HANDLE hnd, uint8_t *major, uint8_t *minor, uint8_t *build);
ZEL_API ZEL_STATUS Display_RebootHnd(ZEL_HANDLE hnd);

#ifdef __cplusplus
}
#endif
#endif
