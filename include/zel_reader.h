/* What the reader tells of itself, and what it keeps: keys, password, EEPROM, clock, job id, user data,
 * serial speed and the setup of the unsolicited card id stream. */
#ifndef ZEL_READER_H
#define ZEL_READER_H

#include "zel_forms.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The reader's unique identifier as GetReaderParameters delivers it fills at most this many bytes. */
#define ZEL_MUI_MAX_LEN 24
/* GetReaderStatusEx copies at most this many bytes. */
#define ZEL_READER_STATUS_EX_MAX_LEN 253

/* Identity. Serial description: 8 bytes, not terminated. GetReaderParameters: mui takes up to 24 bytes
 * (16 from GetReaderParameters2), serial gets the 8 serial bytes in their order. GetReaderInfoStr hands out
 * a static text that the next call overwrites; GetReaderDescription likewise. */
#define ZEL_FAMILY_READER_IDENTITY(OP, OP0)                                                                   \
    OP(ZEL_STATUS, GetReaderType, (uint32_t *reader_type), (reader_type))                                     \
    OP(ZEL_STATUS, GetReaderSerialNumber, (uint32_t *serial_number), (serial_number))                         \
    OP(ZEL_STATUS, GetReaderSerialDescription, (uint8_t *serial_description), (serial_description))           \
    OP(ZEL_STATUS, SetReaderSerialDescription, (const char *serial_description), (serial_description))        \
    OP(ZEL_STATUS, GetReaderFirmwareVersion, (uint8_t *major, uint8_t *minor), (major, minor))                \
    OP(ZEL_STATUS, GetBuildNumber, (uint8_t *build), (build))                                                 \
    OP(ZEL_STATUS, GetReaderHardwareVersion, (uint8_t *hw_type, uint8_t *hw_version), (hw_type, hw_version))  \
    OP(ZEL_STATUS, GetReaderParameters,                                                                       \
       (uint8_t *mui, uint64_t *serial, uint8_t *hw_type, uint8_t *hw_version, uint32_t *device_type,         \
        uint8_t *fw_major, uint8_t *fw_minor, uint8_t *fw_build),                                             \
       (mui, serial, hw_type, hw_version, device_type, fw_major, fw_minor, fw_build))                         \
    OP(ZEL_STATUS, GetReaderParameters2,                                                                      \
       (uint8_t *mui, uint64_t *serial, uint8_t *hw_type, uint8_t *hw_version, uint32_t *device_type,         \
        uint8_t *fw_major, uint8_t *fw_minor, uint8_t *fw_build),                                             \
       (mui, serial, hw_type, hw_version, device_type, fw_major, fw_minor, fw_build))                         \
    OP(ZEL_STATUS, GetReaderParametersDefaultBaudrate,                                                        \
       (uint8_t *mui, uint64_t *serial, uint8_t *hw_type, uint8_t *hw_version, uint32_t *device_type,         \
        uint8_t *fw_major, uint8_t *fw_minor, uint8_t *fw_build),                                             \
       (mui, serial, hw_type, hw_version, device_type, fw_major, fw_minor, fw_build))                         \
    OP(ZEL_STATUS, GetReaderProMode, (uint32_t *mode, uint16_t *raw), (mode, raw))                            \
    OP(ZEL_STATUS, SetReaderProMode, (uint32_t mode), (mode))                                                 \
    OP(ZEL_STATUS, GetReaderInfoStr, (const char **text), (text))                                             \
    OP0(const char *, GetReaderDescription)

ZEL_DECLARE_FAMILY(ZEL_FAMILY_READER_IDENTITY)

/* Configuration. Passwords are 8 bytes, reader keys 6, the time 6 bytes as the reader keeps them. The
 * asynchronous card id setup: each flag is one bit of the flags byte (any non-zero value sets it). */
#define ZEL_FAMILY_READER_CONFIG(OP, OP0)                                                                     \
    OP(ZEL_STATUS, ReaderKeyWrite, (const uint8_t *key, uint8_t key_index), (key, key_index))                 \
    OP(ZEL_STATUS, ReaderKeysLock, (const uint8_t *password), (password))                                     \
    OP(ZEL_STATUS, ReaderKeysUnlock, (const uint8_t *password), (password))                                   \
    OP(ZEL_STATUS, ChangeReaderPassword, (const uint8_t *old_password, const uint8_t *new_password),          \
       (old_password, new_password))                                                                          \
    OP(ZEL_STATUS, ReaderEepromRead, (uint8_t *data, uint32_t address, uint32_t size), (data, address, size)) \
    OP(ZEL_STATUS, ReaderEepromWrite, (const uint8_t *data, uint32_t address, uint32_t size,                  \
                                       const uint8_t *password),                                              \
       (data, address, size, password))                                                                       \
    OP(ZEL_STATUS, ReadUserData, (uint8_t *data, uint32_t extended), (data, extended))                        \
    OP(ZEL_STATUS, WriteUserData, (const uint8_t *data, uint32_t extended), (data, extended))                 \
    OP(ZEL_STATUS, GetReaderTime, (uint8_t *time), (time))                                                    \
    OP(ZEL_STATUS, SetReaderTime, (const uint8_t *password, const uint8_t *time), (password, time))           \
    OP(ZEL_STATUS, ChangeReaderJobId, (uint16_t job_id, const uint8_t *password), (job_id, password))         \
    OP(ZEL_STATUS, SubscribeSector, (uint8_t index, uint32_t value), (index, value))                          \
    OP(ZEL_STATUS, SubscribeBlock, (uint8_t index, uint32_t value), (index, value))                           \
    OP(ZEL_STATUS, BusAdminCardMake, (uint32_t value, const uint8_t *password), (value, password))            \
    OP(ZEL_STATUS, SetAsyncCardIdSendConfig,                                                                  \
       (uint32_t send_enable, uint32_t prefix_enable, uint8_t prefix, uint8_t suffix,                         \
        uint32_t send_removed_enable, uint32_t baud),                                                         \
       (send_enable, prefix_enable, prefix, suffix, send_removed_enable, baud))                               \
    OP(ZEL_STATUS, SetAsyncCardIdSendConfigEx,                                                                \
       (uint32_t send_enable, uint32_t prefix_enable, uint8_t prefix, uint8_t suffix,                         \
        uint32_t send_removed_enable, uint32_t reverse_byte_order, uint32_t decimal_representation,           \
        uint32_t baud),                                                                                       \
       (send_enable, prefix_enable, prefix, suffix, send_removed_enable, reverse_byte_order,                  \
        decimal_representation, baud))                                                                        \
    OP(ZEL_STATUS, SetAsyncCardJsonSendConfig, (uint32_t send_enable, uint32_t send_removed_enable,           \
                                                uint32_t baud),                                               \
       (send_enable, send_removed_enable, baud))                                                              \
    OP(ZEL_STATUS, GetAsyncCardIdSendConfig,                                                                  \
       (uint32_t *send_enable, uint32_t *prefix_enable, uint8_t *prefix, uint8_t *suffix,                     \
        uint32_t *send_removed_enable, uint32_t *baud),                                                       \
       (send_enable, prefix_enable, prefix, suffix, send_removed_enable, baud))                               \
    OP(ZEL_STATUS, GetAsyncCardIdSendConfigEx,                                                                \
       (uint32_t *send_enable, uint32_t *prefix_enable, uint8_t *prefix, uint8_t *suffix,                     \
        uint32_t *send_removed_enable, uint32_t *reverse_byte_order, uint32_t *decimal_representation,        \
        uint32_t *baud),                                                                                      \
       (send_enable, prefix_enable, prefix, suffix, send_removed_enable, reverse_byte_order,                  \
        decimal_representation, baud))                                                                        \
    OP(ZEL_STATUS, GetAsyncCardJsonSendConfig, (uint32_t *send_enable, uint32_t *send_removed_enable,         \
                                                uint32_t *baud),                                              \
       (send_enable, send_removed_enable, baud))                                                              \
    OP(ZEL_STATUS, SetCustomUiConfig, (const uint8_t *config), (config))                                      \
    OP(ZEL_STATUS, GetCustomUiConfig, (uint8_t *config), (config))                                            \
    OP(ZEL_STATUS, SetSpeedPermanently, (uint8_t tx_speed, uint8_t rx_speed), (tx_speed, rx_speed))          \
    OP(ZEL_STATUS, GetSpeedParameters, (uint8_t *tx_speed, uint8_t *rx_speed), (tx_speed, rx_speed))          \
    OP(ZEL_STATUS, SetUartSpeed, (uint32_t baud), (baud))                                                     \
    OP(ZEL_STATUS, SetUartDefaultSpeed, (uint8_t reader_type, uint8_t port_kind, const char *port_name),      \
       (reader_type, port_kind, port_name))                                                                   \
    OP(ZEL_STATUS, WriteSamUnlockKey, (uint8_t key_no, uint8_t key_ver, const uint8_t *key),                  \
       (key_no, key_ver, key))                                                                                \
    OP(ZEL_STATUS, WriteReaderId, (const uint8_t *reader_id), (reader_id))                                    \
    OP0(ZEL_STATUS, CheckUidChangeable)                                                                       \
    OP(ZEL_STATUS, ReaderRfReset, (uint8_t mode), (mode))                                                     \
    OP(ZEL_STATUS, GetReaderStatus, (uint32_t *reader_state, uint32_t *card_state, uint32_t *emulation_state, \
                                     uint8_t *sleep_mode),                                                    \
       (reader_state, card_state, emulation_state, sleep_mode))                                               \
    OP(ZEL_STATUS, GetReaderStatusEx, (uint8_t *status, uint8_t *status_len), (status, status_len))           \
    OP(ZEL_STATUS, EE_Read, (uint32_t address, uint32_t size, uint8_t *data), (address, size, data))          \
    OP(ZEL_STATUS, EE_Write, (uint32_t address, uint32_t size, const uint8_t *data), (address, size, data))   \
    OP(ZEL_STATUS, EE_Lock, (const uint8_t *password, uint32_t lock), (password, lock))                       \
    OP(ZEL_STATUS, EE_Password_Change, (const uint8_t *old_password, const uint8_t *new_password),            \
       (old_password, new_password))

ZEL_DECLARE_FAMILY(ZEL_FAMILY_READER_CONFIG)

#ifdef __cplusplus
}
#endif
#endif
