// The NDEF store's pure parts: card families, the TLV walk with the reserved gap, record headers, the record
// builder, the directory checksum and the Type 4 record chain. No reader traffic here.
#ifndef ZEL_NDEF_INTERNAL_H
#define ZEL_NDEF_INTERNAL_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "zel_status.h"
#include "zel_types.h"
#include "zel_handle.h"

namespace zel::ndef {

bool is_t2t(uint8_t type);    // Type 2 tags, the generic one (12) included
bool is_t4(uint8_t type);     // 17, 18, 19, 64
bool is_mifare(uint8_t type); // classic and Plus SL1 of 1K, 2K and 4K
bool is_mifare_1k(uint8_t type);
bool is_mifare_2k(uint8_t type);

// The part of the data area that a memory control TLV keeps out of the NDEF data.
struct Gap {
    bool present = false;
    uint32_t start = 0;
    uint32_t len = 0;
};

// Where the gap starts for a memory control TLV's three value bytes: the page address (high nibble of the
// position) times the page size 2^k, plus the byte offset (low nibble), less the image's start on the card.
// False when that lands before the image.
bool gap_from_memory_control(uint8_t position, uint8_t size, uint8_t page_control, uint8_t card_type, Gap &gap);

// A message TLV of the image: offset of its type byte, header length (2 or 4) and value length.
struct Tlv {
    uint32_t offset = 0;
    uint32_t header = 0;
    uint32_t length = 0;
    uint32_t value() const { return offset + header; }
    uint32_t end() const { return offset + header + length; }
};

// Walks the TLVs from offset from and finds the message TLV number message_nr (0 acts as 1), noting the gap
// of a memory control TLV seen on the way. ZEL_NDEF_MESSAGE_NOT_FOUND at any other TLV type or at the end.
ZEL_STATUS find_message(const uint8_t *img, size_t len, unsigned message_nr, uint8_t card_type, Tlv &out, Gap &gap,
                        size_t from = 0);

// The image position of byte i of data that starts at start, stepping over the gap.
uint32_t phys_at(uint32_t start, uint32_t i, const Gap &gap);
// The bytes from start to the end of the image with the gap left out.
std::vector<uint8_t> data_view(const uint8_t *img, size_t len, uint32_t start, const Gap &gap);

// One record's header, as read and as sized by the record walk.
struct Record {
    uint8_t flags = 0;
    uint8_t tnf = 0;
    uint8_t type_len = 0;
    uint8_t id_len = 0;
    uint32_t payload_len = 0;
    uint32_t header_len = 0; // bytes before the type
    uint32_t size = 0;       // the whole record
};
// Reads the record header at p with avail bytes behind it. False when the header or the record it announces
// does not fit. TNF 5 and 6 are read in the long length form with no type, whatever SR says.
bool parse_record(const uint8_t *p, size_t avail, Record &r);

// The record walk of a message: offsets of the records in data (length bytes of message, but the records
// must lie within avail bytes). False for a record that does not fit.
bool walk_records(const uint8_t *data, size_t avail, uint32_t length, std::vector<uint32_t> &offsets,
                  std::vector<Record> *records = nullptr);

// Lays out a record. mb_me gives the MB and ME bits; IL follows the id length, SR a payload below 256 (never
// for TNF 5 and 6, which take the long form). TNF 0, 7 and above give false. payload_offset tells where the
// payload starts.
bool build_record(uint8_t mb_me, uint8_t tnf, const uint8_t *type, uint8_t type_len, const uint8_t *id, uint8_t id_len,
                  const uint8_t *payload, uint32_t payload_len, std::vector<uint8_t> &out,
                  uint32_t *payload_offset = nullptr);

// The directory checksum: CRC-8, polynomial 0x1D, preset 0xC7, over the bytes given.
uint8_t mad_crc(const uint8_t *data, size_t n);

// The URI prefix of a code from 1 to 35; null for any other.
const char *uri_prefix(uint8_t code);

// The capability container of a Type 4 tag, as read from file E103.
struct T4Cc {
    uint16_t cclen = 0, mle = 0, mlc = 0, file_id = 0, max_size = 0;
    uint8_t read_access = 0, write_access = 0;
};
// Checks a container read from the card (n bytes): at least 15 bytes, mapping 1.0 or 2.0, MLe at least 15,
// MLc not 0, an NDEF file control TLV (04 06) with a maximum size from 5 to 65,534.
bool parse_t4_cc(const uint8_t *cc, size_t n, T4Cc &out);

// The record chain of a Type 4 NDEF file, walked by reading header bytes at file offsets (the reader gives
// at most n bytes at off into out and answers how many it gave, or a negative number for a failure).
// The records' sizes must add up to nlen exactly. offsets are file offsets (2 + position in the message).
using FileReader = std::function<int(uint32_t off, uint32_t n, uint8_t *out)>;
ZEL_STATUS t4_walk(const FileReader &read, uint32_t nlen, std::vector<uint32_t> &offsets, std::vector<uint8_t> &flags);

// The text of a DESFire NDEF message of one URI record as the payload writer lays it out (len bytes of msg,
// the message without its length): its payload less the code byte, then a 0, into payload. With sized, a
// payload longer than size is ZEL_BUFFER_OVERFLOW; else payload holds ZEL_DESFIRE_NDEF_MAX_PAYLOAD bytes.
// size becomes the record's payload length.
ZEL_STATUS desfire_payload(const uint8_t *msg, uint32_t len, char *payload, uint32_t &size, bool sized);

// ---- Card traffic (ndef_card.cpp) ----

// The keys of the directory and of the NDEF sectors, and a card's transport key.
extern const uint8_t kMadKey[6];
extern const uint8_t kNdefKey[6];
extern const uint8_t kDefaultKey[6];

// The directory of the last check_capability_container, shared by every handle: MAD1 (32 bytes), MAD2 (48
// bytes) and the version from the general purpose byte.
struct MadBuffer {
    uint8_t mad1[32];
    uint8_t mad2[48];
    uint8_t version;
};
extern MadBuffer g_mad;

// Finds the card's NDEF area and its size in bytes.
ZEL_STATUS check_capability_container(ZEL_HANDLE hnd, uint8_t type, uint32_t &size);
// Reads the NDEF area into img (capacity cap): its length in len.
ZEL_STATUS read_card_data(ZEL_HANDLE hnd, uint8_t type, uint8_t *img, uint32_t cap, uint32_t &len, uint32_t size);
// Lays out an empty NDEF area.
ZEL_STATUS format_card_for_ndef(ZEL_HANDLE hnd, uint8_t type);
// Writes n bytes at image offset off, by the card's family.
ZEL_STATUS write_image(ZEL_HANDLE hnd, uint8_t type, const uint8_t *src, uint32_t off, uint32_t n);
// The MIFARE form: the image holds sectors 1 to 15, then 17 upward.
ZEL_STATUS ndef_mifare_classic_linear_write(ZEL_HANDLE hnd, const uint8_t *src, uint32_t off, uint32_t n);

// Type 4 tags over APDUs. Each leaves the NDEF application selected.
ZEL_STATUS t4_read_cc(ZEL_HANDLE hnd, T4Cc &cc);
// Selects the NDEF file of cc; ZEL_NDEF_UNSUPPORTED_CARD_TYPE when that fails.
ZEL_STATUS t4_select_file(ZEL_HANDLE hnd, uint16_t file_id);
// READ BINARY of at most n bytes at off; the number of bytes in got. False for a failure or a refusal.
bool t4_read(ZEL_HANDLE hnd, uint32_t off, uint32_t n, uint8_t *out, uint32_t &got);
// UPDATE BINARY in pieces of at most mlc bytes. False for a failure or a refusal.
bool t4_update(ZEL_HANDLE hnd, uint32_t off, const uint8_t *data, uint32_t n, uint32_t mlc);
// Ends the level-4 session of a Type 4 operation.
void t4_done(ZEL_HANDLE hnd);

} // namespace zel::ndef

#endif
