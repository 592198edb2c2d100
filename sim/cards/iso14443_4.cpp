// The generic ISO 14443-4 card: a level-4 card with the test application behind its contactless interface
// and another behind the reader's contact interface, or the applications its setup lists.
#include "../iso7816.h"
#include "../json.h"
#include "../scenario.h"

namespace zs {

namespace {

// One application of the setup: {"kind": "test", "aid": "A0...", "size": 8192, "data": "hex"}.
bool read_app(const Json &o, std::unique_ptr<Application> &app, std::string &err)
{
    if (o.kind != Json::OBJECT) {
        err = "setup: an application is an object";
        return false;
    }
    std::vector<uint8_t> aid, head;
    size_t size = 8192;
    for (const auto &m : o.fields) {
        const Json &v = m.second;
        if (m.first == "kind") {
            if (v.kind != Json::STRING || v.str != "test") {
                err = "setup: the application kind is \"test\"";
                return false;
            }
        } else if (m.first == "aid") {
            if (v.kind != Json::STRING || !parse_hex_text(v.str, aid, 16) || aid.size() < 5) {
                err = "setup: an aid is 5 to 16 hex bytes";
                return false;
            }
        } else if (m.first == "size") {
            if (v.kind != Json::NUMBER || v.num < 0 || v.num > 1048576) {
                err = "setup: size is a number up to 1048576";
                return false;
            }
            size = static_cast<size_t>(v.num);
        } else if (m.first == "data") {
            if (v.kind != Json::STRING || !parse_hex_text(v.str, head, 1048576)) {
                err = "setup: data takes hex bytes";
                return false;
            }
        } else {
            err = "setup: unknown application member '" + m.first + "'";
            return false;
        }
    }
    app = make_test_application(aid, size, head);
    return true;
}

bool read_apps(const Json *list, AppHost &host, std::string &err)
{
    if (!list) {
        host.add(make_test_application({}, 8192));
        return true;
    }
    if (list->kind != Json::ARRAY) {
        err = "setup: applications come in an array";
        return false;
    }
    for (const Json &o : list->items) {
        std::unique_ptr<Application> app;
        if (!read_app(o, app, err))
            return false;
        host.add(std::move(app));
    }
    return true;
}

} // namespace

std::unique_ptr<Card> make_iso14443_4_card(const zsim_card &id, const Json *setup, std::string &err)
{
    Iso14443Setup s;
    if (!iso14443_setup_read(setup, s, err, {"apps", "contact_apps"}))
        return nullptr;
    auto card = std::make_unique<Iso14443Card>(id, s);
    const Json *apps = setup && setup->kind == Json::OBJECT ? setup->get("apps") : nullptr;
    const Json *contact = setup && setup->kind == Json::OBJECT ? setup->get("contact_apps") : nullptr;
    if (!read_apps(apps, card->host(), err) || !read_apps(contact, card->contact_host(), err))
        return nullptr;
    return card;
}

} // namespace zs
