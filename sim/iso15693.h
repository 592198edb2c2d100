// The tag side of ISO 15693 vicinity tags, as the reader's 0xB5 engine (iso15693_reader.cpp) reaches it.
// The reader runs the tag dialogue: it presents passwords, sends the custom commands and forwards answers.
// Every call answers 0 or the reader error code that the host then sees.
#ifndef ZELSIM_ISO15693_H
#define ZELSIM_ISO15693_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace zs {

struct Reader;
struct Answer;

// The reader's 0xB5 engine: whether a frame is one of its commands (they all bring an EXT), and its answer;
// false when the command is not 0xB5.
bool iso15693_reader_wants_ext(const Reader &r, const uint8_t frame[7]);
bool iso15693_reader_command(Reader &r, const uint8_t frame[7], const uint8_t *ext, size_t ext_len, Answer &a);

// ICODE password identifiers.
constexpr uint8_t PWD_READ = 0x01, PWD_WRITE = 0x02, PWD_PRIVACY = 0x04, PWD_DESTROY = 0x08, PWD_EAS_AFI = 0x10;

// Reader error codes of the vicinity commands.
constexpr uint8_t E15_WRITING = 4, E15_ADDRESS = 6, E15_AUTH = 14, E15_CARD_TYPE = 17;

class VicinityTag {
public:
    virtual ~VicinityTag() = default;
    virtual bool is_em4237() const = 0;
    // ICODE: a password change (the current one must match), page protection with the read and write
    // passwords, a permanent block lock (passwords given: they are checked first; null: none presented).
    virtual uint8_t icode_write_password(uint8_t id, const uint8_t current[4], const uint8_t next[4]) = 0;
    virtual uint8_t icode_protect_page(const uint8_t read_pw[4], const uint8_t write_pw[4], uint8_t page,
                                       uint8_t status) = 0;
    virtual uint8_t lock_block(const uint8_t *read_pw, const uint8_t *write_pw, uint8_t block) = 0;
    // Security status of count + 1 blocks from first (the ISO count form), one byte each.
    virtual uint8_t block_security(uint8_t first, uint8_t count, bool em_form, std::vector<uint8_t> &out) = 0;
    // The answer to GET SYSTEM INFORMATION without its flags byte; pw null when none is presented.
    virtual uint8_t system_information(const uint8_t *pw, std::vector<uint8_t> &out) = 0;
    // EM4237: page protection and the random id, each with the tag's password.
    virtual uint8_t em_protect_page(const uint8_t pw[4], uint8_t page, uint8_t status) = 0;
    virtual uint8_t em_enable_rid(const uint8_t pw[4]) = 0;
};

} // namespace zs
#endif
