// A card in the reader's field. Every card family is a model behind this interface, in a file of its own
// under cards/, listed once in cards.cpp. The reader answers the identification commands from the card's
// identity and passes the commands it does not know itself to the selected card.
#ifndef ZELSIM_CARD_H
#define ZELSIM_CARD_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "zelsim.h"

namespace zs {

struct Json;
class Iso14443Card;

// Memory cards. The reader runs the card protocol itself (authentication, reads, writes, value operations)
// and reaches a card's memory through one of these two interfaces. Authentication is a key comparison here:
// the radio cryptography is the reader's and the card's business and is not modelled.

// The key a reader authenticates with: Crypto keys A and B (6 bytes), AES keys A and B (16 bytes).
enum class KeyType : uint8_t { A, B, AES_A, AES_B };

// What a card answers to one memory primitive.
enum class MemResult : uint8_t {
    OK,
    AUTH,     // the key does not open the sector
    DENIED,   // the sector's access conditions refuse the operation (or nothing is authenticated)
    ADDRESS,  // no such block or page
    FORMAT,   // not a value block
    OVERFLOW, // the value would leave the signed 32-bit range
};

// Sector cards: blocks of 16 bytes in sectors, each sector closed by its trailer (keys, access bits).
class SectorMemory {
public:
    virtual ~SectorMemory() = default;
    virtual unsigned sectors() const = 0;
    virtual unsigned first_block(unsigned sector) const = 0;
    virtual unsigned blocks_in(unsigned sector) const = 0;
    unsigned blocks() const { return first_block(sectors() - 1) + blocks_in(sectors() - 1); }
    unsigned sector_of(unsigned block) const
    {
        unsigned s = 0;
        while (s + 1 < sectors() && first_block(s + 1) <= block)
            ++s;
        return s;
    }
    bool is_trailer(unsigned block) const
    {
        const unsigned s = sector_of(block);
        return block == first_block(s) + blocks_in(s) - 1;
    }
    // Authenticates to the sector of block; a failure also ends an earlier authentication.
    virtual MemResult authenticate(unsigned block, KeyType type, const uint8_t *key, size_t key_len) = 0;
    // Block access under the authenticated sector's access conditions. A trailer reads with key A as zeros
    // (and key B as zeros unless it may be read); a trailer write changes only the parts the conditions let
    // it change.
    virtual MemResult read(unsigned block, uint8_t out[16]) = 0;
    virtual MemResult write(unsigned block, const uint8_t in[16]) = 0;
    // Value operations on a value block, written back to the same block.
    virtual MemResult increment(unsigned block, int32_t by) = 0;
    virtual MemResult decrement(unsigned block, int32_t by) = 0;
    // True when the reader answers linear reads of this card with the multi-block stream.
    virtual bool streams_linear() const { return false; }
};

// Page cards (Type 2 tags): pages of 4 bytes; the user area starts at page 4.
class PageMemory {
public:
    virtual ~PageMemory() = default;
    virtual unsigned pages() const = 0;
    virtual unsigned user_pages() const = 0;
    // The page at which the user area, and with it the linear space, begins.
    virtual unsigned first_user_page() const { return 4; }
    // The READ command: 16 bytes from four pages, wrapping to page 0 past the end.
    virtual MemResult read(unsigned page, uint8_t out[16]) = 0;
    virtual MemResult write(unsigned page, const uint8_t in[4]) = 0;
    // The 8-byte answer to GET_VERSION; false for tags without it.
    virtual bool version(uint8_t out[8]) const = 0;
    // A linear write authenticated with a 16-byte key (the Ultralight C's 3DES key): -1 when the key does not
    // open the tag, else how many pages behind the user area the write may reach (its key pages). A tag
    // without 3DES authentication fails it, as on a real reader.
    virtual int key_write_pages(const uint8_t *key16)
    {
        (void)key16;
        return -1;
    }
};

class Card {
public:
    explicit Card(const zsim_card &id) : id_(id) {}
    virtual ~Card() = default;
    Card(const Card &) = delete;
    Card &operator=(const Card &) = delete;

    const zsim_card &id() const { return id_; }
    // The model's name as scenario files spell it.
    virtual const char *model() const = 0;
    // The card type code the reader reports now (a card that changes its level changes it).
    virtual uint8_t orb_type() const { return id_.orb_type; }
    // True when this card's command takes an EXT from the host (the reader then acknowledges it).
    virtual bool wants_ext(const uint8_t frame[7]) const = 0;
    // Answers a command that reaches the card, appending whole frames to out. Returns false when the card
    // does not know the command (the reader then answers that it is not supported).
    virtual bool command(const uint8_t frame[7], const uint8_t *ext, size_t ext_len, std::vector<uint8_t> &out) = 0;
    // The memory the reader reaches with its block, linear and value commands; null for other cards.
    virtual SectorMemory *sector_memory() { return nullptr; }
    virtual PageMemory *page_memory() { return nullptr; }
    // A card that is not an ISO 14443-4 model but also speaks it: the part that answers level-4 commands.
    virtual Iso14443Card *level4_view() { return nullptr; }

private:
    zsim_card id_;
};

// Makes a card of the named model ("plain" when name is null or empty), set up by the model's own part of a
// scenario (null for defaults). Null with a message in err for an unknown model or a bad setup.
std::unique_ptr<Card> make_card(const char *model, const zsim_card &id, const Json *setup, std::string &err);

// The names of the models, for messages.
std::string card_model_names();

} // namespace zs
#endif
