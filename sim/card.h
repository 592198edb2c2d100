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

class Card {
public:
    explicit Card(const zsim_card &id) : id_(id) {}
    virtual ~Card() = default;
    Card(const Card &) = delete;
    Card &operator=(const Card &) = delete;

    const zsim_card &id() const { return id_; }
    // The model's name as scenario files spell it.
    virtual const char *model() const = 0;
    // True when this card's command takes an EXT from the host (the reader then acknowledges it).
    virtual bool wants_ext(const uint8_t frame[7]) const = 0;
    // Answers a command that reaches the card, appending whole frames to out. Returns false when the card
    // does not know the command (the reader then answers that it is not supported).
    virtual bool command(const uint8_t frame[7], const uint8_t *ext, size_t ext_len, std::vector<uint8_t> &out) = 0;

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
