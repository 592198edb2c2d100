// Internals of the DESFire command family that the tool, the tests and the fuzz targets reach: the key
// reference every form passes, the operations themselves and the reply readers. Never exported.
#ifndef ZEL_SMARTCARD_DESFIRE_INTERNAL_H
#define ZEL_SMARTCARD_DESFIRE_INTERNAL_H

#include <cstdint>

#include "zel_desfire.h"

namespace zel::desfire {

// Where the key of an operation is (ZEL_DESFIRE_KEY_*), its number there, its bytes when provided, its
// wire type (ZEL_DESFIRE_WIRE_*) and whether to authenticate at all.
struct KeyRef {
    uint8_t source;
    uint8_t number;
    const uint8_t *bytes;
    uint8_t type;
    uint8_t auth;
};

// The streamed reply of 0x83 and 0x99 from a source of what the line holds: more(ctx, dst, max) moves 1 to
// max bytes into dst, or 0 when nothing came in time. Pieces land in out (at most cap bytes, got counting
// them; overflow set when a piece did not fit) through the caller's buffer, which must hold 257 bytes or
// more; the bytes read behind the end mark stay in it from sb.at to sb.end. True when an end mark came.
using MoreFn = uint32_t (*)(void *ctx, uint8_t *dst, uint32_t max);
struct StreamBuf {
    uint8_t *buf;
    uint32_t cap;
    uint32_t at = 0, end = 0;
};
bool read_stream(MoreFn more, void *ctx, StreamBuf &sb, uint8_t *out, uint32_t cap, uint32_t *got, bool *overflow);

// Test seam of the host kit: false makes the CRCs run by table alone, true gives back the carry-less
// folding where the processor has it; returns whether folding is on.
bool crc_folding(bool on);

// Reads the file settings of a reply whose useful length (without the checksum) is useful.
void parse_file_settings(const uint8_t *reply, uint32_t useful, zel_desfire_file_settings *s);
// Reads the settings of a standard file with SDM the same way.
void parse_sdm_file_settings(const uint8_t *reply, uint32_t useful, zel_desfire_sdm_file_settings *s);

ZEL_STATUS zdf_format_card(ZEL_HANDLE hnd, KeyRef k, uint16_t *cs, uint16_t *et);
ZEL_STATUS zdf_get_uid(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t aid_key_nr, uint8_t *uid, uint8_t *uid_len,
                       uint16_t *cs, uint16_t *et);
ZEL_STATUS zdf_get_key_settings(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t *setting, uint8_t *max_key_no,
                                uint16_t *cs, uint16_t *et);
ZEL_STATUS zdf_get_application_ids(ZEL_HANDLE hnd, KeyRef k, uint32_t *aid_list, uint8_t *number_of_aid, uint16_t *cs,
                                   uint16_t *et);
ZEL_STATUS zdf_create_aes_app(ZEL_HANDLE hnd, KeyRef k, uint32_t aid_nr, uint8_t setting, uint8_t max_key_no,
                              uint16_t *cs, uint16_t *et);
ZEL_STATUS zdf_create_des_app(ZEL_HANDLE hnd, KeyRef k, uint32_t aid_nr, uint8_t setting, uint8_t max_key_no,
                              uint16_t *cs, uint16_t *et);
ZEL_STATUS zdf_create_3k3des_app(ZEL_HANDLE hnd, KeyRef k, uint32_t aid_nr, uint8_t setting, uint8_t max_key_no,
                                 uint16_t *cs, uint16_t *et);
ZEL_STATUS zdf_delete_app(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint16_t *cs, uint16_t *et);
ZEL_STATUS zdf_create_std_file(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t file_id, uint32_t file_size, uint8_t r,
                               uint8_t w, uint8_t rw, uint8_t c, uint8_t comm, uint16_t *cs, uint16_t *et);
ZEL_STATUS zdf_create_backup_file(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t file_id, uint32_t file_size,
                                  uint8_t r, uint8_t w, uint8_t rw, uint8_t c, uint8_t comm, uint16_t *cs,
                                  uint16_t *et);
ZEL_STATUS zdf_create_value_file(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t file_id, int32_t lower, int32_t upper,
                                 int32_t value, uint8_t lc, uint8_t r, uint8_t w, uint8_t rw, uint8_t c, uint8_t comm,
                                 uint16_t *cs, uint16_t *et);
ZEL_STATUS zdf_create_linear_file(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t file_id, uint32_t record_size,
                                  uint32_t max_rec_no, uint8_t r, uint8_t w, uint8_t rw, uint8_t c, uint8_t comm,
                                  uint16_t *cs, uint16_t *et);
ZEL_STATUS zdf_create_cyclic_file(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t file_id, uint32_t record_size,
                                  uint32_t max_rec_no, uint8_t r, uint8_t w, uint8_t rw, uint8_t c, uint8_t comm,
                                  uint16_t *cs, uint16_t *et);
ZEL_STATUS zdf_delete_file(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t file_id, uint16_t *cs, uint16_t *et);
ZEL_STATUS zdf_get_file_settings(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t file_id,
                                 zel_desfire_file_settings *settings, uint16_t *cs, uint16_t *et);
ZEL_STATUS zdf_get_file_settings_sdm(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t file_id,
                                     zel_desfire_sdm_file_settings *settings, uint16_t *cs, uint16_t *et);
ZEL_STATUS zdf_set_configuration_ex(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t option, const uint8_t *data,
                                    uint8_t data_length, uint16_t *cs, uint16_t *et);
ZEL_STATUS zdf_read_std(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t aid_key_nr, uint8_t file_id, uint16_t offset,
                        uint16_t length, uint8_t comm, uint8_t *data, uint16_t *cs, uint16_t *et);
ZEL_STATUS zdf_write_std(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t aid_key_nr, uint8_t file_id, uint16_t offset,
                         uint16_t length, uint8_t comm, const uint8_t *data, uint16_t *cs, uint16_t *et);
ZEL_STATUS zdf_read_value(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t aid_key_nr, uint8_t file_id, uint8_t comm,
                          int32_t *value, uint16_t *cs, uint16_t *et);
ZEL_STATUS zdf_increase_value(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t aid_key_nr, uint8_t file_id, uint8_t comm,
                              uint32_t value, uint16_t *cs, uint16_t *et);
ZEL_STATUS zdf_decrease_value(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t aid_key_nr, uint8_t file_id, uint8_t comm,
                              uint32_t value, uint16_t *cs, uint16_t *et);
ZEL_STATUS zdf_read_records(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t aid_key_nr, uint8_t file_id,
                            uint16_t offset, uint16_t count, uint16_t record_size, uint8_t comm, uint8_t *data,
                            uint16_t *cs, uint16_t *et);
ZEL_STATUS zdf_write_record(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t aid_key_nr, uint8_t file_id,
                            uint16_t offset, uint16_t length, uint8_t comm, const uint8_t *data, uint16_t *cs,
                            uint16_t *et);
ZEL_STATUS zdf_clear_records_2(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t aid_key_nr, uint8_t file_id,
                               uint16_t *cs, uint16_t *et);

} // namespace zel::desfire

#endif
