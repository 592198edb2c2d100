/* Card record formats: the records of the reader's access system, a credit balance kept in a mirrored pair
 * of value blocks of a memory card, and the encrypted card images the reader makes for a job.
 *
 * Access system (ais_). Times travel as minutes of the day; the days of a week are seven truth values in an
 * array of seven bytes (non-zero is set, a read gives 0 or 1 each). The ten validate record fields are an
 * array of ten bytes, passed to the reader unread. A right type record is a type byte and eleven bytes; type
 * 1 is the record with a maximum daily counter, whose getter leaves its outputs as they were when the record
 * read has another type. ais_get_card_number carries the low 16 bits of the number. The credit and period
 * dates are year (2000 to 2255), month, day, hour and minute; a date that the local calendar cannot hold
 * answers ZEL_PARAMETERS_ERROR after the command frame has already gone out: the reader then waits for an
 * EXT until its receive time-out (half a second) and drops it, so wait that long before the next command.
 *
 * Balance. BalanceSet writes the credit to value blocks 61 and 62 of the card in the field (each block holds
 * the other's number as its value address), with the auth mode (0x60 key A, 0x61 key B) and the 6-byte key
 * given. BalanceGet reads both and picks: the one that could be read; for two equal values or two values
 * one apart (an interrupted update) the lower; else the larger. BalanceGet and BalanceGetM read the blocks
 * through ValueBlockRead_PK on the global handle whatever handle is given; BalanceSetM writes through the
 * handle given.
 *
 * Card encryption. The times are Unix times in seconds, from 2012-01-01 on, "to" not before "from", at most
 * 0x3BFFFFF seconds apart. card_text of CardEncryption_GetNextEncryptedCard and CardEncryption_GetNext holds
 * 256 bytes: it receives the reader's image and a terminating zero. CardEncryption_GetNext sends at most 4
 * data bytes. CardEncryption_Initialize is not implemented and answers ZEL_NOT_IMPLEMENTED. */
#ifndef ZEL_RECORDS_H
#define ZEL_RECORDS_H

#include "zel_types.h"

#ifdef __cplusplus
extern "C" {
#endif

#define ZEL_AIS_DAYS 7
#define ZEL_AIS_VALIDATE_FIELDS 10
#define ZEL_AIS_RIGHT_TYPE_DATA 11
#define ZEL_CARD_ENCRYPTION_TEXT 256
#define ZEL_BALANCE_BLOCK_A 61
#define ZEL_BALANCE_BLOCK_B 62

#include "zel_records_forms.h"

#ifdef __cplusplus
}
#endif
#endif
