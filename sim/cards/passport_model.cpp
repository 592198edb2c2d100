// The passport card model: an ISO 14443-4 card holding the document application, set up by the scenario:
//   {"model": "passport", "setup": {"mrz": "P<UTO...", "signer": "ec", "face_size": 20000, "dg14": true,
//    "tamper": "DG1", "forge": "DG1", "foreign_ds": true, "fault": "mac", "replay": ["hex answer", ...]}}
// (every member optional, besides the level-4 members ats, atr, block_size, interim_frames). With replay the
// chip answers its commands with those answers in turn (see PassportDocument); forge, foreign_ds and fault
// make a hostile document or chip (see PassportSetup and PassportDocument).
#include <cstdlib>

#include "../json.h"
#include "../scenario.h"
#include "passport.h"

namespace zs {

namespace {

class PassportCard final : public Iso14443Card {
public:
    using Iso14443Card::Iso14443Card;
    const char *model() const override { return "passport"; }
};

bool read_replay(const Json *setup, std::vector<Bytes> &replay, std::string &err)
{
    const Json *list = setup && setup->kind == Json::OBJECT ? setup->get("replay") : nullptr;
    if (list == nullptr)
        return true;
    if (list->kind != Json::ARRAY) {
        err = "setup: replay is an array of hex answers";
        return false;
    }
    for (const Json &item : list->items) {
        Bytes answer;
        if (item.kind != Json::STRING || !parse_hex_text(item.str, answer, 65538) || answer.size() < 2) {
            err = "setup: a replayed answer is hex bytes ending in a status word";
            return false;
        }
        replay.push_back(std::move(answer));
    }
    return true;
}

bool read_setup(const Json *setup, PassportSetup &wanted, std::string &err)
{
    if (setup == nullptr || setup->kind != Json::OBJECT)
        return true;
    if (const Json *v = setup->get("mrz")) {
        if (v->kind != Json::STRING) {
            err = "setup: mrz is a text";
            return false;
        }
        wanted.mrz = v->str;
    }
    if (const Json *v = setup->get("signer")) {
        if (v->kind != Json::STRING) {
            err = "setup: signer is \"ec\" or \"rsa\"";
            return false;
        }
        wanted.signer = v->str;
    }
    if (const Json *v = setup->get("face_size")) {
        if (v->kind != Json::NUMBER || v->num < 0 || v->num > 32000) {
            err = "setup: face_size is a number up to 32000";
            return false;
        }
        wanted.face_size = static_cast<size_t>(v->num);
    }
    if (const Json *v = setup->get("dg14")) {
        if (v->kind != Json::BOOL) {
            err = "setup: dg14 is true or false";
            return false;
        }
        wanted.with_dg14 = v->b;
    }
    if (const Json *v = setup->get("tamper")) {
        if (v->kind != Json::STRING) {
            err = "setup: tamper names a data group";
            return false;
        }
        wanted.tamper = v->str;
    }
    if (const Json *v = setup->get("forge")) {
        if (v->kind != Json::STRING) {
            err = "setup: forge names a data group";
            return false;
        }
        wanted.forge = v->str;
    }
    if (const Json *v = setup->get("foreign_ds")) {
        if (v->kind != Json::BOOL) {
            err = "setup: foreign_ds is true or false";
            return false;
        }
        wanted.foreign_ds = v->b;
    }
    if (const Json *v = setup->get("fault")) {
        if (v->kind != Json::STRING) {
            err = "setup: fault is \"auth_mac\", \"mac\", \"cipher\", \"no_do99\" or \"sw_mismatch\"";
            return false;
        }
        wanted.fault = v->str;
    }
    return true;
}

} // namespace

std::unique_ptr<Card> make_passport_card(const zsim_card &id, const Json *setup, std::string &err)
{
    Iso14443Setup s;
    if (!iso14443_setup_read(
            setup, s, err, {"mrz", "signer", "face_size", "dg14", "tamper", "forge", "foreign_ds", "fault", "replay"}))
        return nullptr;
    PassportSetup wanted;
    if (!read_setup(setup, wanted, err))
        return nullptr;
    PassportDocument doc;
    if (!passport_build(wanted, doc, err)) {
        err = "setup: " + err;
        return nullptr;
    }
    if (!read_replay(setup, doc.replay, err))
        return nullptr;
    auto card = std::make_unique<PassportCard>(id, s);
    card->host().add(std::make_unique<PassportApp>(std::move(doc)));
    return card;
}

} // namespace zs
