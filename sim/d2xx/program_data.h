/* The device's program data as the stand-in D2XX library's FT_EE_Read fills it, version 5 of the record: the
 * caller's header, the USB ids, four text buffers of the caller's (64, 16, 64 and 16 bytes), the power and USB
 * settings, and one block per chip family. Written here from the D2XX record's own field list, apart from the
 * library's copy, so that a slip in one shows as a difference with the other. Plain C, 64-bit Linux types
 * (DWORD 32 bits, WORD 16, UCHAR 8). */
#ifndef ZSIM_D2XX_PROGRAM_DATA_H
#define ZSIM_D2XX_PROGRAM_DATA_H

#include <stddef.h>
#include <stdint.h>

typedef uint32_t ZSIM_DWORD;
typedef uint16_t ZSIM_WORD;
typedef uint8_t ZSIM_UCHAR;

typedef struct zsim_ft_program_data {
    ZSIM_DWORD Signature1; /* set by the caller to 0x00000000 */
    ZSIM_DWORD Signature2; /* set by the caller to 0xFFFFFFFF */
    ZSIM_DWORD Version;    /* set by the caller: 0 original ... 5 with the FT232H block */
    ZSIM_WORD VendorId;
    ZSIM_WORD ProductId;
    char *Manufacturer;   /* 64 bytes of the caller's, or null */
    char *ManufacturerId; /* 16 */
    char *Description;    /* 64 */
    char *SerialNumber;   /* 16 */
    ZSIM_WORD MaxPower;
    ZSIM_WORD PnP;
    ZSIM_WORD SelfPowered;
    ZSIM_WORD RemoteWakeup;
    /* FT232B (version 0 ends here with the block) */
    ZSIM_UCHAR Rev4, IsoIn, IsoOut, PullDownEnable, SerNumEnable, USBVersionEnable;
    ZSIM_WORD USBVersion;
    /* FT2232 (version 1) */
    ZSIM_UCHAR Rev5, IsoInA, IsoInB, IsoOutA, IsoOutB, PullDownEnable5, SerNumEnable5, USBVersionEnable5;
    ZSIM_WORD USBVersion5;
    ZSIM_UCHAR AIsHighCurrent, BIsHighCurrent;
    ZSIM_UCHAR IFAIsFifo, IFAIsFifoTar, IFAIsFastSer, AIsVCP;
    ZSIM_UCHAR IFBIsFifo, IFBIsFifoTar, IFBIsFastSer, BIsVCP;
    /* FT232R (version 2) */
    ZSIM_UCHAR UseExtOsc, HighDriveIOs, EndPointSize, PullDownEnableR, SerNumEnableR;
    ZSIM_UCHAR InvertTXD, InvertRXD, InvertRTS, InvertCTS, InvertDTR, InvertDSR, InvertDCD, InvertRI;
    ZSIM_UCHAR Cbus0, Cbus1, Cbus2, Cbus3, Cbus4;
    ZSIM_UCHAR RIsD2XX;
    /* FT2232H (version 3) */
    ZSIM_UCHAR PullDownEnable7, SerNumEnable7;
    ZSIM_UCHAR ALSlowSlew, ALSchmittInput, ALDriveCurrent, AHSlowSlew, AHSchmittInput, AHDriveCurrent;
    ZSIM_UCHAR BLSlowSlew, BLSchmittInput, BLDriveCurrent, BHSlowSlew, BHSchmittInput, BHDriveCurrent;
    ZSIM_UCHAR IFAIsFifo7, IFAIsFifoTar7, IFAIsFastSer7, AIsVCP7;
    ZSIM_UCHAR IFBIsFifo7, IFBIsFifoTar7, IFBIsFastSer7, BIsVCP7;
    ZSIM_UCHAR PowerSaveEnable;
    /* FT4232H (version 4) */
    ZSIM_UCHAR PullDownEnable8, SerNumEnable8;
    ZSIM_UCHAR ASlowSlew, ASchmittInput, ADriveCurrent, BSlowSlew, BSchmittInput, BDriveCurrent;
    ZSIM_UCHAR CSlowSlew, CSchmittInput, CDriveCurrent, DSlowSlew, DSchmittInput, DDriveCurrent;
    ZSIM_UCHAR ARIIsTXDEN, BRIIsTXDEN, CRIIsTXDEN, DRIIsTXDEN;
    ZSIM_UCHAR AIsVCP8, BIsVCP8, CIsVCP8, DIsVCP8;
    /* FT232H (version 5) */
    ZSIM_UCHAR PullDownEnableH, SerNumEnableH;
    ZSIM_UCHAR ACSlowSlewH, ACSchmittInputH, ACDriveCurrentH, ADSlowSlewH, ADSchmittInputH, ADDriveCurrentH;
    ZSIM_UCHAR Cbus0H, Cbus1H, Cbus2H, Cbus3H, Cbus4H, Cbus5H, Cbus6H, Cbus7H, Cbus8H, Cbus9H;
    ZSIM_UCHAR IsFifoH, IsFifoTarH, IsFastSerH, IsFT1248H, FT1248CpolH, FT1248LsbH, FT1248FlowControlH;
    ZSIM_UCHAR IsVCPH;
    ZSIM_UCHAR PowerSaveEnableH;
} zsim_ft_program_data;

/* Where each version's record ends: the stand-in writes no byte past the version the caller names. */
#define ZSIM_FT_PD_END_V0 offsetof(zsim_ft_program_data, Rev5)
#define ZSIM_FT_PD_END_V1 offsetof(zsim_ft_program_data, UseExtOsc)
#define ZSIM_FT_PD_END_V2 offsetof(zsim_ft_program_data, PullDownEnable7)
#define ZSIM_FT_PD_END_V3 offsetof(zsim_ft_program_data, PullDownEnable8)
#define ZSIM_FT_PD_END_V4 offsetof(zsim_ft_program_data, PullDownEnableH)

#ifdef __cplusplus
static_assert(sizeof(void *) != 8 || sizeof(zsim_ft_program_data) == 176, "the version 5 record is 176 bytes");
static_assert(sizeof(void *) != 8 || offsetof(zsim_ft_program_data, InvertRTS) == 91, "InvertRTS at 91");
static_assert(sizeof(void *) != 8 || offsetof(zsim_ft_program_data, MaxPower) == 48, "MaxPower at 48");
#endif

#endif
