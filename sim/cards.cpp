// The table of card models. A new model is a file in cards/ and one row here.
#include "card.h"

#include <cstring>

namespace zs {

std::unique_ptr<Card> make_plain_card(const zsim_card &id, const Json *config, std::string &err);
std::unique_ptr<Card> make_iso14443_4_card(const zsim_card &id, const Json *config, std::string &err);

namespace {

struct Model {
    const char *name;
    std::unique_ptr<Card> (*make)(const zsim_card &, const Json *, std::string &);
};

const Model MODELS[] = {
    {"plain", make_plain_card},
    {"iso14443_4", make_iso14443_4_card},
};

} // namespace

std::unique_ptr<Card> make_card(const char *model, const zsim_card &id, const Json *config, std::string &err)
{
    if (!model || !*model)
        model = "plain";
    for (const auto &m : MODELS)
        if (std::strcmp(m.name, model) == 0)
            return m.make(id, config, err);
    err = std::string("unknown card model '") + model + "' (known: " + card_model_names() + ")";
    return nullptr;
}

std::string card_model_names()
{
    std::string s;
    for (const auto &m : MODELS) {
        if (!s.empty())
            s += ", ";
        s += m.name;
    }
    return s;
}

} // namespace zs
