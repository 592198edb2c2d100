// Internals of the Java card applets: the applet session state, one APDU exchange with the status word in
// the caller's form, and the bounded readers of the applets' answers. Never exported.
#ifndef ZEL_JC_INTERNAL_H
#define ZEL_JC_INTERNAL_H

#include <cstdint>

#include "zel_handle.h"

namespace zel::jc {

constexpr uint8_t kCla = 0x80;      // class of every applet command
constexpr uint32_t kChunk = 255;    // data of one command APDU
constexpr uint32_t kReplyMax = 256; // Le 256: the most one answer brings
constexpr uint32_t kParts = 5;      // parts of an EC public key
// How many empty 90 00 answers in a row JCAppGetObj takes before it gives up on the card.
constexpr uint32_t kMaxEmptyAnswers = 3;

// The process-wide applet session.
struct Session {
    uint8_t card_type = 0;
    uint16_t sig_len = 0;
    uint8_t sig[kReplyMax] = {};
    uint16_t obj_id_len = 0;
    uint8_t obj_id[kReplyMax] = {};
    uint16_t obj_len = 0;
    uint16_t part_len[kParts] = {};
    uint8_t part[kParts][kReplyMax] = {};
    uint16_t k = 0, key_bits = 0, designator = 0;
};
Session &session();

// One APDU: CLA, INS, P1, P2, data (nc bytes, none when nc is 0) and, when le is not 0, Le le with the answer
// taken into out (which holds le bytes) and its length in *out_len. Answers the transceive's failure as it
// came, 0xA0000 | SW1 SW2 for a status word other than 90 00, else ZEL_OK.
ZEL_STATUS exchange(ZEL_HANDLE hnd, uint8_t cla, uint8_t ins, uint8_t p1, uint8_t p2, const uint8_t *data, uint32_t nc,
                    uint8_t *out, uint32_t le, uint32_t *out_len);

// ---- readers of the applets' answers (bounded; false for an answer that does not have the shape) ----

// The answer to an object id request: the object's length (2 bytes, big-endian), then the id.
struct ObjIdReply {
    uint16_t obj_len = 0;
    const uint8_t *id = nullptr;
    uint32_t id_len = 0;
};
bool parse_obj_id(const uint8_t *p, uint32_t n, ObjIdReply &out);

// The last part of an EC public key: the part itself, then k, the key size in bits and the designator
// (three 16-bit numbers, big-endian).
struct EcTail {
    uint32_t part_len = 0;
    uint16_t k = 0, key_bits = 0, designator = 0;
};
bool parse_ec_tail(const uint8_t *p, uint32_t n, EcTail &out);

// The key size and designator from the last four bytes of the same answer.
bool parse_ec_size(const uint8_t *p, uint32_t n, uint16_t *key_bits, uint16_t *designator);

// The PIN tries left: the first two bytes, big-endian.
bool parse_tries(const uint8_t *p, uint32_t n, uint16_t *tries);

// A stored file's size: exactly two bytes, big-endian; any other length reads as 0 (false).
bool parse_file_size(const uint8_t *p, uint32_t n, uint32_t *size);

// ---- key sizes ----

// The size code of P2 for RSA (key types 0, 1) and EC (2: F2m, 3: Fp) keys; -1 when the size has none.
int rsa_size_code(uint32_t bits);
int ec_size_code(uint8_t key_type, uint32_t bits);
// The bytes of a stored private key of the type and size, with the representation flag of an EC key.
uint32_t private_key_len(uint8_t key_type, uint32_t bits, bool flag);
// The parameter bytes (after the flag byte) of an EC key generated on the card.
uint32_t ec_generate_params_len(uint8_t key_type, uint32_t bits, bool flag);

// Sends data in pieces of 255 bytes with INS ins and P2 p2; P1 is p1, ORed with 0x80 on the piece before
// which fewer than 256 bytes remain. Stops at the first refusal.
ZEL_STATUS send_chunked(ZEL_HANDLE hnd, uint8_t ins, uint8_t p1, uint8_t p2, const uint8_t *data, uint32_t n);

} // namespace zel::jc

#endif
