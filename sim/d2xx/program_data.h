/* The device's program data as the stand-in D2XX library's FT_EE_Read fills it: four text buffers of the
 * caller's (64, 16, 64 and 16 bytes) and the InvertRTS bit of the FT232R part. Plain C, 64-bit Linux layout. */
#ifndef ZSIM_D2XX_PROGRAM_DATA_H
#define ZSIM_D2XX_PROGRAM_DATA_H

#include <stdint.h>

typedef struct zsim_ft_program_data {
    uint32_t signature1;   /* set by the caller to 0x00000000 */
    uint32_t signature2;   /* set by the caller to 0xFFFFFFFF */
    uint32_t version;      /* set by the caller; the stand-in answers any */
    uint16_t vendor_id;    /* 0x0403 */
    uint16_t product_id;   /* 0x6001 */
    char *manufacturer;    /* 64 bytes of the caller's, or null */
    char *manufacturer_id; /* 16 */
    char *description;     /* 64 */
    char *serial_number;   /* 16 */
    uint8_t invert_rts;    /* 1 when the device's RTS line is inverted */
} zsim_ft_program_data;

#endif
