// The card dialogue of the payment card reader: READ RECORD, the account number and the last entry of the
// transaction log. Every command goes to the card of the global reader through APDUTransceive.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/internal.h"
#include "emv/emv_internal.h"
#include "tandro.h"

namespace zel::emv {
namespace {

TransceiveHook g_hook = nullptr;
void *g_hook_ctx = nullptr;

} // namespace

void set_transceive_hook(TransceiveHook hook, void *ctx)
{
    g_hook = hook;
    g_hook_ctx = ctx;
}

namespace {

constexpr uint32_t kLe = 256;

// APDUTransceive on the global reader with Le, or the test seam.
ZEL_STATUS apdu(uint8_t cla, uint8_t ins, uint8_t p1, uint8_t p2, const uint8_t *data, uint32_t nc, uint8_t *out,
                uint32_t *ne, uint16_t *sw)
{
    if (g_hook)
        return g_hook(g_hook_ctx, cla, ins, p1, p2, data, nc, out, ne, sw);
    return APDUTransceive(cla, ins, p1, p2, data, nc, out, ne, 1, sw);
}

// A parsed tree whose top level grows by whole answers; freed with the object.
struct Tree {
    emv_tree_node_t *root = nullptr;
    ~Tree() { emvTreeCleanup(root); }
    // Chains a parsed answer at the end of the top level and answers its first node.
    emv_tree_node_t *append(emv_tree_node_t *part)
    {
        if (!root) {
            root = part;
            return part;
        }
        emv_tree_node_t *t = root;
        while (t->next)
            t = t->next;
        t->next = part;
        return part;
    }
};

// Records carry the account number and the track data: the debug print of the layers below (frames, APDUs) is
// held off while one is read, so that the number never reaches it.
struct QuietPrint {
    bool was = zel::dp_enabled();
    QuietPrint() { ZEL_DebugPrintEnable(0); }
    ~QuietPrint() { ZEL_DebugPrintEnable(was ? 1 : 0); }
    QuietPrint(const QuietPrint &) = delete;
    QuietPrint &operator=(const QuietPrint &) = delete;
};

struct Afl {
    afl_list_item_t *list = nullptr;
    ~Afl() { emvAflListCleanup(list); }
};

struct Buffer {
    uint8_t *p = nullptr;
    ~Buffer() { std::free(p); }
};

// One command with Le 256 whose answer is parsed and chained at the end of the tree's top level (*part: its
// first node). A failed exchange, or another SW1 than 90 (ZEL_APDU_TRANSCEIVE_ERROR), logs send_line; a
// malformed answer logs parse_line. reader_failed tells a failed exchange apart from the card's doing. A
// send_line with_sw takes SW1 and SW2 before the status.
struct Step {
    const char *send_line;
    const char *parse_line;
    bool with_sw = false;
};

ZEL_STATUS ask(Tree &tree, uint8_t cla, uint8_t ins, uint8_t p1, uint8_t p2, const uint8_t *data, uint32_t nc,
               const Step &step, emv_tree_node_t **part, bool &reader_failed)
{
    uint8_t resp[kLe];
    uint32_t n = kLe;
    uint16_t sw = 0;
    ZEL_STATUS st = apdu(cla, ins, p1, p2, data, nc, resp, &n, &sw);
    reader_failed = st != ZEL_OK;
    const uint8_t sw1 = static_cast<uint8_t>(sw), sw2 = static_cast<uint8_t>(sw >> 8);
    if (st == ZEL_OK && sw1 != 0x90)
        st = ZEL_APDU_TRANSCEIVE_ERROR;
    if (st != ZEL_OK) {
        if (step.with_sw)
            dp(0, step.send_line, sw1, sw2, st);
        else
            dp(0, step.send_line, st);
        return st;
    }
    emv_tree_node_t *parsed = nullptr;
    st = newEmvTag(&parsed, resp, static_cast<int32_t>(n), 0);
    if (st != ZEL_OK) {
        dp(0, step.parse_line, st);
        return st;
    }
    *part = tree.append(parsed);
    return ZEL_OK;
}

ZEL_STATUS select(Tree &tree, const uint8_t *name, uint32_t len, const Step &step, emv_tree_node_t **part,
                  bool &reader_failed)
{
    return ask(tree, 0x00, 0xA4, 0x04, 0x00, name, len, step, part, reader_failed);
}

// The records of the directory the tree names with tag 88, chained at the top level.
void read_directory(Tree &tree)
{
    uint8_t sfi = 0;
    if (getSfi(tree.root, &sfi) != ZEL_OK)
        return;
    sfi &= 0x1F;
    uint8_t resp[EMV_RECORD_SIZE];
    for (uint32_t record = 1; record <= EMV_MAX_RECORDS; ++record) {
        uint32_t n = 0;
        uint8_t sw[2];
        if (emvReadRecord(resp, &n, sfi, record, sw) != ZEL_OK)
            return;
        emv_tree_node_t *part = nullptr;
        if (newEmvTag(&part, resp, static_cast<int32_t>(n), 0) != ZEL_OK)
            return;
        tree.append(part);
    }
}

// The application: SELECT, GET PROCESSING OPTIONS and the records of its AFL, chained at the top level. A
// card's refusal or a malformed answer ends this part with ZEL_OK (what was read stays); a failed exchange
// is returned.
ZEL_STATUS read_application(Tree &tree, const uint8_t *aid, uint8_t aid_len)
{
    bool reader_failed = false;
    emv_tree_node_t *app = nullptr;
    ZEL_STATUS st = select(tree, aid, aid_len,
                           {"getAid OK -> APDUTransceive():> status != ZEL_OK (%d vs 0)\n",
                            "getAid OK -> newEmvTag():> status != OK (%d vs 0)\n"},
                           &app, reader_failed);
    if (st != ZEL_OK)
        return reader_failed ? st : ZEL_OK;
    Buffer gpo;
    uint16_t gpo_len = 0;
    st = formatGetProcessingOptionsDataField(app, &gpo.p, &gpo_len);
    if (st != ZEL_OK) {
        dp(0, "getAid OK -> formatGetProcessingOptionsDataField():> status != OK (%d vs 0)\n", st);
        return ZEL_OK;
    }
    emv_tree_node_t *answer = nullptr;
    st = ask(tree, 0x80, 0xA8, 0x00, 0x00, gpo.p, gpo_len,
             {"getAid OK -> APDUTransceive#2 SW(%02X|%02X):> status != ZEL_OK (%d vs 0)\n",
              "getAid -> newEmvTag#2 ():> status != OK (%d vs 0)\n", true},
             &answer, reader_failed);
    if (st != ZEL_OK)
        return reader_failed ? st : ZEL_OK;
    Afl afl;
    uint8_t count = 0;
    st = getAfl(answer, &afl.list, &count);
    if (st != ZEL_OK) {
        dp(0, "getAfl():> status != ZEL_OK (%d vs 0)\n", st);
        return ZEL_OK;
    }
    uint8_t resp[EMV_RECORD_SIZE];
    for (const afl_list_item_t *e = afl.list; e; e = e->next) {
        for (uint32_t record = e->first_record; record <= e->last_record; ++record) {
            uint32_t n = 0;
            uint8_t sw[2];
            if (emvReadRecord(resp, &n, e->sfi, record, sw) != ZEL_OK)
                continue;
            emv_tree_node_t *part = nullptr;
            if (newEmvTag(&part, resp, static_cast<int32_t>(n), 0) == ZEL_OK)
                tree.append(part);
        }
    }
    return ZEL_OK;
}

// SELECT of the directory by its name (1 to 255 characters) and the records its tag 88 names.
ZEL_STATUS open_directory(Tree &tree, const char *df_name)
{
    const size_t len = df_name ? strnlen(df_name, 256) : 0;
    if (len < 1 || len > 255)
        return EMV_ERR_WRONG_INPUT_DATA;
    bool reader_failed = false;
    emv_tree_node_t *dir = nullptr;
    const ZEL_STATUS st =
        select(tree, reinterpret_cast<const uint8_t *>(df_name), static_cast<uint32_t>(len),
               {"APDUTransceive():> status != ZEL_OK (%d vs 0)\n", "newEmvTag():> status != ZEL_OK (%d vs 0)\n"}, &dir,
               reader_failed);
    if (st == ZEL_OK)
        read_directory(tree);
    return st;
}

} // namespace
} // namespace zel::emv

using namespace zel::emv;

extern "C" {

ZEL_API ZEL_STATUS emvReadRecord(uint8_t *response, uint32_t *response_len, uint32_t sfi, uint32_t record,
                                 uint8_t sw[2])
{
    if (!response || !response_len || !sw)
        return EMV_ERR_WRONG_INPUT_DATA;
    const QuietPrint quiet;
    const uint8_t p1 = static_cast<uint8_t>(record);
    const uint8_t p2 = static_cast<uint8_t>(sfi << 3 | 4);
    uint32_t ne = kLe;
    uint16_t word = 0;
    ZEL_STATUS st = apdu(0x00, 0xB2, p1, p2, nullptr, 0, response, &ne, &word);
    if (st == ZEL_OK && static_cast<uint8_t>(word) == 0x6C) {
        // The card names the length it has: asked again once with that Le.
        const uint8_t le = static_cast<uint8_t>(word >> 8);
        ne = le ? le : kLe;
        st = apdu(0x00, 0xB2, p1, p2, nullptr, 0, response, &ne, &word);
    }
    if (st != ZEL_OK)
        return EMV_ERR_IN_CARD_READER;
    sw[0] = static_cast<uint8_t>(word);
    sw[1] = static_cast<uint8_t>(word >> 8);
    if (sw[0] == 0x62 && sw[1] == 0x82) {
        sw[0] = 0x90;
        sw[1] = 0x00;
    }
    *response_len = ne;
    if (sw[0] != 0x90 || sw[1] != 0x00)
        return EMV_ERR_READING_RECORD;
    return ZEL_OK;
}

ZEL_API ZEL_STATUS EMV_GetPANHnd(ZEL_HANDLE, const char *df_name, char *pan)
{
    if (!pan)
        return EMV_ERR_WRONG_INPUT_DATA;
    Tree tree;
    ZEL_STATUS st = open_directory(tree, df_name);
    if (st != ZEL_OK)
        return st;

    uint8_t aid[EMV_AID_MAX];
    uint8_t aid_len = 0;
    st = getAid(tree.root, aid, &aid_len);
    if (st != ZEL_OK) {
        dp(0, "getAid():> status != OK (%d vs 0)\n", st);
        return EMV_ERR_AFL_NOT_FOUND;
    }

    st = read_application(tree, aid, aid_len);
    if (st != ZEL_OK)
        return st; // the reader failed

    for (const emv_tree_node_t *t = tree.root; t; t = t->next) {
        for (const emv_tree_node_t *s = t->sub; s; s = s->next) {
            if (s->tag != 0x5A)
                continue;
            if (s->value_len > EMV_PAN_MAX_BYTES)
                return EMV_ERR_TAG_WRONG_SIZE;
            hex_text(s->value, s->value_len, pan);
            return ZEL_OK;
        }
    }
    return EMV_ERR_AFL_NOT_FOUND;
}

ZEL_API ZEL_STATUS EMV_GetLastTransactionHnd(ZEL_HANDLE, const char *df_name, char *text)
{
    if (!text)
        return EMV_ERR_WRONG_INPUT_DATA;
    Tree tree;
    ZEL_STATUS st = open_directory(tree, df_name);
    if (st != ZEL_OK)
        return st;

    bool reader_failed = false;
    uint8_t log_sfi = 0, log_records = 0;
    st = getLogEntry(tree.root, &log_sfi, &log_records);
    if (st != ZEL_OK) {
        // The log entry is in the application's FCI.
        uint8_t aid[EMV_AID_MAX];
        uint8_t aid_len = 0;
        if (getAid(tree.root, aid, &aid_len) == ZEL_OK) {
            emv_tree_node_t *app = nullptr;
            const ZEL_STATUS sst = select(tree, aid, aid_len,
                                          {"getAid -> APDUTransceive():> status != ZEL_OK (%d vs 0)\n",
                                           "getAid -> newEmvTag():> status != OK (%d vs 0)\n"},
                                          &app, reader_failed);
            if (sst != ZEL_OK && reader_failed)
                return sst;
            st = getLogEntry(tree.root, &log_sfi, &log_records);
        }
    }
    if (st != ZEL_OK) {
        dp(0, "getLogEntry():> status != OK (%d vs 0)\n", st);
        return EMV_ERR_TAG_NOT_FOUND;
    }

    // The Log Format: the layout of one entry.
    Tree format;
    emv_tree_node_t *answer = nullptr;
    st = ask(format, 0x80, 0xCA, 0x9F, 0x4F, nullptr, 0,
             {"getLogEntry -> APDUTransceive():> status != ZEL_OK (%d vs 0)\n",
              "getLogEntry -> newEmvTag():> status != OK (%d vs 0)\n"},
             &answer, reader_failed);
    if (st == ZEL_APDU_TRANSCEIVE_ERROR && !reader_failed)
        return EMV_ERR_LIST_FORMAT_NOT_FOUND;
    if (st != ZEL_OK)
        return st;
    const emv_tree_node_t *list_node = find_tag(format.root, 0x9F4F);
    uint16_t entry_len = 0;
    st = getListLength(list_node, &entry_len);
    if (st == ZEL_OK && entry_len == 0)
        st = EMV_ERR_LIST_FORMAT_NOT_FOUND;
    if (st != ZEL_OK) {
        dp(0, "getLogEntry -> getListLength():> status != OK (%d vs 0)\n", st);
        return st;
    }

    Buffer log;
    log.p = static_cast<uint8_t *>(std::calloc(static_cast<size_t>(entry_len) * (log_records ? log_records : 1), 1));
    if (!log.p) {
        dp(0, "\n !!! Out of memory error. !!! \n\n");
        return SYS_ERR_OUT_OF_MEMORY;
    }
    // Record 1 is the most recent entry; each turn asks it again, so the turns only retry a failed read.
    uint8_t resp[EMV_RECORD_SIZE];
    for (uint32_t turn = 1; turn <= log_records; ++turn) {
        uint32_t n = 0;
        uint8_t sw[2];
        if (emvReadRecord(resp, &n, log_sfi, 1, sw) != ZEL_OK)
            continue;
        std::memcpy(log.p, resp, n < entry_len ? n : entry_len);
    }
    char composed[EMV_LOG_TEXT_SIZE];
    log_entry_text(list_node->list, log.p, entry_len, composed, sizeof composed);
    std::memcpy(text, composed, std::strlen(composed) + 1);
    return ZEL_OK;
}

} // extern "C"
