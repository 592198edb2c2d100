// The plain card: an identity in the field and nothing more. Its UID, SAK, ATQA and type answer the
// reader's card id commands; any command that would reach into its memory is not supported.
#include "card.h"
#include "json.h"

namespace zs {

namespace {

class PlainCard final : public Card {
public:
    using Card::Card;
    const char *model() const override { return "plain"; }
    bool wants_ext(const uint8_t *) const override { return false; }
    bool command(const uint8_t *, const uint8_t *, size_t, std::vector<uint8_t> &) override { return false; }
};

} // namespace

std::unique_ptr<Card> make_plain_card(const zsim_card &id, const Json *config, std::string &err)
{
    if (config && config->kind != Json::OBJECT && config->kind != Json::NUL) {
        err = "a plain card takes no setup";
        return nullptr;
    }
    return std::make_unique<PlainCard>(id);
}

} // namespace zs
