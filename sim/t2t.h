// The tag side of the Type 2 tag extras, as the reader's engine for them (t2t_reader.cpp) reaches it:
// password authentication, counters, the originality signature, the tag-tamper status and the Ultralight C
// key. Calls answer 0 or the reader error code the host then sees.
#ifndef ZELSIM_T2T_H
#define ZELSIM_T2T_H

#include <cstddef>
#include <cstdint>

namespace zs {

struct Reader;
struct Answer;

// Reader error codes of these commands.
constexpr uint8_t ET2_NOT_SUPPORTED = 9, ET2_AUTH = 14, ET2_CARD_TYPE = 17;

class TypeTwoExtras {
public:
    virtual ~TypeTwoExtras() = default;
    // PWD_AUTH: the PACK when the password matches; the tag is then authenticated until it leaves the field.
    virtual uint8_t pwd_auth(const uint8_t pwd[4], uint8_t pack[2]) = 0;
    virtual uint8_t read_counter(uint8_t counter, uint32_t &value) = 0;
    virtual uint8_t increment_counter(uint8_t counter, uint32_t by) = 0;
    // False for tags without them.
    virtual bool signature(uint8_t out[32]) const = 0;
    virtual bool tt_status(uint8_t message[4], uint8_t &status) const = 0;
    // The Ultralight C's 3DES key, k0 first, as pages 44 to 47 hold it; false for other tags.
    virtual bool ulc_key(uint8_t key[16]) const = 0;
};

// The reader's engine for 0xB1, 0xB2, 0xB4, 0xB6, 0xB7 and 0xBF.
bool t2t_reader_wants_ext(const Reader &r, const uint8_t frame[7]);
bool t2t_reader_command(Reader &r, const uint8_t frame[7], const uint8_t *ext, size_t ext_len, Answer &a);

} // namespace zs
#endif
