// The table of card models. A new model is a file in cards/ and one row here.
#include "card.h"

#include <cstring>

namespace zs {

std::unique_ptr<Card> make_plain_card(const zsim_card &id, const Json *config, std::string &err);
std::unique_ptr<Card> make_classic_mini(const zsim_card &id, const Json *config, std::string &err);
std::unique_ptr<Card> make_classic_1k(const zsim_card &id, const Json *config, std::string &err);
std::unique_ptr<Card> make_classic_4k(const zsim_card &id, const Json *config, std::string &err);
std::unique_ptr<Card> make_plus_2k_sl1(const zsim_card &id, const Json *config, std::string &err);
std::unique_ptr<Card> make_plus_4k_sl1(const zsim_card &id, const Json *config, std::string &err);
std::unique_ptr<Card> make_ultralight(const zsim_card &id, const Json *config, std::string &err);
std::unique_ptr<Card> make_ultralight_ev1_11(const zsim_card &id, const Json *config, std::string &err);
std::unique_ptr<Card> make_ultralight_ev1_21(const zsim_card &id, const Json *config, std::string &err);
std::unique_ptr<Card> make_ultralight_c(const zsim_card &id, const Json *config, std::string &err);
std::unique_ptr<Card> make_ntag213(const zsim_card &id, const Json *config, std::string &err);
std::unique_ptr<Card> make_ntag215(const zsim_card &id, const Json *config, std::string &err);
std::unique_ptr<Card> make_ntag216(const zsim_card &id, const Json *config, std::string &err);
std::unique_ptr<Card> make_iso14443_4_card(const zsim_card &id, const Json *config, std::string &err);
std::unique_ptr<Card> make_desfire_card(const zsim_card &id, const Json *config, std::string &err);
std::unique_ptr<Card> make_passport_card(const zsim_card &id, const Json *config, std::string &err);
std::unique_ptr<Card> make_ndef_t4_card(const zsim_card &id, const Json *config, std::string &err);
std::unique_ptr<Card> make_iso15693_tag(const zsim_card &id, const Json *config, std::string &err);
std::unique_ptr<Card> make_javacard(const zsim_card &id, const Json *config, std::string &err);
std::unique_ptr<Card> make_emv_card(const zsim_card &id, const Json *config, std::string &err);
std::unique_ptr<Card> make_gids_card(const zsim_card &id, const Json *config, std::string &err);
std::unique_ptr<Card> make_sam_av2(const zsim_card &id, const Json *config, std::string &err);
std::unique_ptr<Card> make_plus_card(const zsim_card &id, const Json *config, std::string &err);
std::unique_ptr<Card> make_ntag424_card(const zsim_card &id, const Json *config, std::string &err);
std::unique_ptr<Card> make_ntag424_tt_card(const zsim_card &id, const Json *config, std::string &err);

namespace {

struct Model {
    const char *name;
    std::unique_ptr<Card> (*make)(const zsim_card &, const Json *, std::string &);
};

const Model MODELS[] = {
    {"plain", make_plain_card},
    {"classic_mini", make_classic_mini},
    {"classic_1k", make_classic_1k},
    {"classic_4k", make_classic_4k},
    {"plus_2k_sl1", make_plus_2k_sl1},
    {"plus_4k_sl1", make_plus_4k_sl1},
    {"ultralight", make_ultralight},
    {"ultralight_ev1_11", make_ultralight_ev1_11},
    {"ultralight_ev1_21", make_ultralight_ev1_21},
    {"ultralight_c", make_ultralight_c},
    {"ntag213", make_ntag213},
    {"ntag215", make_ntag215},
    {"ntag216", make_ntag216},
    {"iso14443_4", make_iso14443_4_card},
    {"desfire", make_desfire_card},
    {"passport", make_passport_card},
    {"ndef_t4", make_ndef_t4_card},
    {"iso15693", make_iso15693_tag},
    {"javacard", make_javacard},
    {"emv", make_emv_card},
    {"gids", make_gids_card},
    {"sam_av2", make_sam_av2},
    {"plus", make_plus_card},
    {"ntag424", make_ntag424_card},
    {"ntag424_tt", make_ntag424_tt_card},
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
