// The document session: one BAC session for the process, the read of every data group that EF.COM lists
// into one JSON object, optionally with the verdict of the validation.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <openssl/crypto.h>

#include "mrtd/mrtd_internal.h"
#include "tandro.h"
#include "zel_mrtd_doc.h"

namespace zel::mrtd {

namespace {

struct Session {
    bool open = false;
    char proto_key[MRTD_PROTO_KEY_SIZE] = {};
    uint8_t ks_enc[16] = {};
    uint8_t ks_mac[16] = {};
    uint64_t ssc = 0;
};

Session g_session;

void static_internal_store_keys(const char *proto_key, const uint8_t *ks_enc, const uint8_t *ks_mac,
                                const uint64_t *ssc)
{
    std::memcpy(g_session.proto_key, proto_key, MRTD_PROTO_KEY_SIZE);
    std::memcpy(g_session.ks_enc, ks_enc, 16);
    std::memcpy(g_session.ks_mac, ks_mac, 16);
    g_session.ssc = *ssc;
    g_session.open = true;
}

void clear_internal_keys()
{
    OPENSSL_cleanse(&g_session, sizeof g_session);
    g_session.open = false;
}

struct Entry {
    uint8_t tag = 0;
    uint8_t *data = nullptr;
    uint32_t len = 0;
    ZEL_STATUS status = ZEL_OK;
};

ZEL_STATUS read_file(uint16_t id, uint8_t **out, uint32_t *out_len)
{
    const Link link = card_link(&zel_global);
    return bac_read_file(link.transceive, link.context, id, out, out_len, g_session.ks_enc, g_session.ks_mac,
                         &g_session.ssc);
}

// The JSON fragment of one data group, allocated; the status of its parser.
ZEL_STATUS fragment(const Entry &e, uint32_t flat, char **json)
{
    *json = nullptr;
    switch (e.tag) {
    case 0x61:
        if (e.len > INT32_MAX)
            return MRTD_EF_DG_WRONG_DATA;
        return parse_dg1_to_JSON(e.data, static_cast<int32_t>(e.len), json, flat ? 1 : 0);
    case 0x75:
    case 0x67: return parse_dg_image_to_JSON(e.tag, e.data, e.len, json, flat ? 1 : 0);
    case 0x6B:
    case 0x6C:
    case 0x6D: return MRTD_DG_To_JSON_Heap(e.data, e.len, json, flat ? 1 : 0);
    default: dp(12, "Unknown or unhandled DG Tag: 0x%02X\n", e.tag); return ZEL_NOT_IMPLEMENTED;
    }
}

struct Files {
    uint8_t *com = nullptr;
    Entry entries[16];
    uint32_t count = 0;
    ~Files()
    {
        OrbFree(com);
        for (Entry &e : entries)
            OrbFree(e.data);
    }
};

} // namespace

} // namespace zel::mrtd

using zel::mrtd::g_session;

extern "C" {

ZEL_API ZEL_STATUS MRTD_SessionInitHnd(ZEL_HANDLE, const char *doc_number, const char *date_of_birth,
                                       const char *date_of_expiry)
{
    zel::mrtd::clear_internal_keys();
    if (date_of_birth == nullptr || date_of_expiry == nullptr || doc_number == nullptr ||
        strnlen(date_of_birth, 7) != 6 || strnlen(date_of_expiry, 7) != 6)
        return ZEL_PARAMETERS_ERROR;
    char key[MRTD_PROTO_KEY_SIZE] = {};
    ZEL_STATUS st = MRTD_MRZDataToMRZProtoKey(doc_number, date_of_birth, date_of_expiry, key);
    if (st != ZEL_OK)
        return st;
    uint8_t ks_enc[16], ks_mac[16];
    uint64_t ssc = 0;
    // The session always runs on the global reader.
    st = MRTDAppSelectAndAuthenticateBacHnd(&zel_global, key, ks_enc, ks_mac, &ssc);
    if (st == ZEL_OK)
        zel::mrtd::static_internal_store_keys(key, ks_enc, ks_mac, &ssc);
    OPENSSL_cleanse(key, sizeof key);
    OPENSSL_cleanse(ks_enc, sizeof ks_enc);
    OPENSSL_cleanse(ks_mac, sizeof ks_mac);
    return st;
}

ZEL_API ZEL_STATUS MRTD_SessionCloseHnd(ZEL_HANDLE hnd)
{
    zel::mrtd::clear_internal_keys();
    if (hnd != nullptr)
        s_block_deselectHnd(hnd, 150);
    return ZEL_OK;
}

ZEL_API ZEL_STATUS MRTD_ReadDocumentDataHnd(ZEL_HANDLE hnd, char *out, uint32_t *out_len, uint32_t flat,
                                            uint32_t validate, const char *filter)
{
    if (!g_session.open)
        return MRTD_SESSION_NOT_INITIALIZED;
    if (out_len == nullptr)
        return ZEL_PARAMETERS_ERROR;
    const uint32_t cap = *out_len;
    *out_len = 0;
    uint8_t allowed[16] = {};
    uint8_t filter_active = 0;
    if (filter != nullptr && filter[0] != '\0') {
        if (parse_dg_filter_string(filter, allowed) != ZEL_OK)
            return ZEL_PARAMETERS_ERROR;
        filter_active = 1;
    }

    zel::mrtd::Files files;
    uint32_t com_len = 0;
    ZEL_STATUS st = zel::mrtd::read_file(MRTD_FILE_COM, &files.com, &com_len);
    if (st != ZEL_OK)
        return st;
    uint8_t *tags = nullptr, count = 0;
    st = MRTDGetDGTagListFromCOM(files.com, com_len, &tags, &count);
    if (st != ZEL_OK)
        return st;
    for (uint8_t i = 0; i < count && files.count < 16; ++i) {
        const uint8_t tag = tags[i];
        const uint8_t index = MRTDGetDgIndex(tag);
        if (!is_dg_allowed(tag, allowed, filter_active)) {
            dp(12, "Skipping DG Tag 0x%02X (DG%d) - not in filter list\n", tag, index);
            continue;
        }
        dp(12, "Reading DG Tag 0x%02X (DG%d)...\n", tag, index);
        zel::mrtd::Entry &e = files.entries[files.count++];
        e.tag = tag;
        e.status = zel::mrtd::read_file(uint16_t(0x0100 | index), &e.data, &e.len);
    }

    if (out == nullptr)
        return ZEL_PARAMETERS_ERROR;
    if (cap < 2)
        return ZEL_BUFFER_SIZE_EXCEEDED;
    uint32_t pos = 0;
    out[0] = '\0';
    json_append(out, &pos, cap, "{");
    bool any = false;
    ZEL_STATUS result = ZEL_OK;
    for (uint32_t i = 0; i < files.count; ++i) {
        const zel::mrtd::Entry &e = files.entries[i];
        const int index = MRTDGetDgIndex(e.tag);
        if (e.status != ZEL_OK) {
            dp(12, "Skipping DG Tag 0x%02X - read failed with status: %d\n", e.tag, int(e.status));
            continue;
        }
        dp(12, "DG%d [0x%02X] parsing...\n", index, e.tag);
        char *json = nullptr;
        const ZEL_STATUS ps = zel::mrtd::fragment(e, flat, &json);
        dp(12, "DG%d [0x%02X] parsing done, status: 0x%02X\n", index, e.tag, ps);
        if (ps != ZEL_OK || json == nullptr) {
            OrbFree(json);
            continue;
        }
        dp(12, "Appending DG%d JSON to output...\n", index);
        // The fragment goes in whole, with room left for the closing brace, or not at all.
        const uint64_t need = (any ? 1u : 0u) + std::strlen(json) + 1u;
        if (uint64_t(pos) + need >= cap) {
            OrbFree(json);
            result = ZEL_BUFFER_SIZE_EXCEEDED;
            break;
        }
        if (any)
            json_append(out, &pos, cap, ",");
        json_append(out, &pos, cap, json);
        any = true;
        OrbFree(json);
    }
    json_append(out, &pos, cap, "}");
    *out_len = pos;
    if (validate != 1)
        return result;

    char *text = nullptr;
    uint8_t integrity = 0, validity = 0;
    const ZEL_STATUS vst = MRTDValidateHnd(hnd, "./csca", &text, "\n", 3, g_session.ks_enc, g_session.ks_mac,
                                           &g_session.ssc, &integrity, &validity);
    OrbFree(text);
    char member[128];
    std::snprintf(member, sizeof member,
                  flat ? "\"document_integrity\":%s,\"csca_root_validity\":%s"
                       : "\"Validation\":{\"document_integrity\":%s,\"csca_root_validity\":%s}",
                  integrity ? "true" : "false", validity ? "true" : "false");
    // Step back over the closing brace; the verdict goes in whole or the text stays as it was.
    const uint64_t need = (any ? 1u : 0u) + std::strlen(member) + 1u;
    if (uint64_t(pos) - 1 + need >= cap)
        return result != ZEL_OK ? result : ZEL_BUFFER_SIZE_EXCEEDED;
    --pos;
    out[pos] = '\0';
    if (any)
        json_append(out, &pos, cap, ",");
    json_append(out, &pos, cap, member);
    json_append(out, &pos, cap, "}");
    *out_len = pos;
    return result != ZEL_OK ? result : vst;
}

ZEL_STATUS MRTD_ReadDocumentDataExHnd(ZEL_HANDLE hnd, char *out, uint32_t *out_len, uint32_t flat, uint32_t validate,
                                      const char *filter)
{
    return MRTD_ReadDocumentDataHnd(hnd, out, out_len, flat, validate, filter);
}

} // extern "C"
