// Decoding the reader's ECC signature replies.
#ifndef ZEL_CARD_T2T_PARSE_H
#define ZEL_CARD_T2T_PARSE_H

#include <cstddef>
#include <cstdint>

namespace zel {

// The extended signature reply's n data bytes (checksum left out): the signature, then the UID in 10 bytes
// of which uid_len count. False when the signature would exceed 56 bytes, the UID 10, or the reply is too
// short to hold the UID field. signature takes 56 bytes, uid 10 (cleared first).
bool parse_signature_ext(const uint8_t *data, size_t n, uint8_t uid_len, uint8_t *signature, uint8_t *signature_len,
                         uint8_t *uid);

} // namespace zel

#endif
