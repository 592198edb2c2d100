// Hostile BER for the payment card tree: the parser (answers and data object lists), every lookup on what
// it builds, the GET PROCESSING OPTIONS data, both AFL readers, the log entry text, and the single header
// reader. The first input byte picks the list mode; the rest is the answer.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "emv/emv_internal.h"
#include "tandro.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1 || size > 70000)
        return 0;
    const uint8_t mode = data[0];
    std::vector<uint8_t> bytes(data + 1, data + size); // exactly the answer: a read past it is caught
    emv_tree_node_t *tree = nullptr;
    const ZEL_STATUS st = newEmvTag(&tree, bytes.data(), static_cast<int32_t>(bytes.size()), mode & 1);
    if (st != ZEL_OK && tree)
        std::abort();
    uint8_t sfi = 0, records = 0, aid[EMV_AID_MAX], aid_len = 0;
    getSfi(tree, &sfi);
    if (getAid(tree, aid, &aid_len) == ZEL_OK && aid_len > EMV_AID_MAX)
        std::abort();
    if (getAid__(tree, aid, &aid_len) == ZEL_OK && aid_len > EMV_AID_MAX)
        std::abort();
    getLogEntry(tree, &sfi, &records);
    getLogEntry__(tree, &sfi, &records);
    const emv_tree_node_t *list = nullptr;
    getPdol(tree, &list);
    uint8_t *gpo = nullptr;
    uint16_t gpo_len = 0;
    if (formatGetProcessingOptionsDataField(tree, &gpo, &gpo_len) == ZEL_OK && (gpo_len < 2 || gpo_len > 255))
        std::abort();
    OrbFree(gpo);
    for (int format = 0; format < 2; ++format) {
        afl_list_item_t *afl = nullptr;
        uint8_t count = 0;
        const ZEL_STATUS ast =
            format ? getAflFromResponseMessageTemplateFormat1(tree, &afl, &count) : getAfl(tree, &afl, &count);
        uint32_t seen = 0;
        for (const afl_list_item_t *e = afl; e; e = e->next)
            ++seen;
        if ((ast == ZEL_OK) != (afl != nullptr) || seen != count)
            std::abort();
        emvAflListCleanup(afl);
    }
    // The first data object list in the tree laid out over the answer's bytes as a log entry.
    for (const emv_tree_node_t *n = tree; n; n = n->sub ? n->sub : n->next) {
        uint16_t len = 0;
        if (n->list && getListLength(n, &len) == ZEL_OK) {
            char text[EMV_LOG_TEXT_SIZE];
            std::vector<uint8_t> entry(len);
            for (size_t i = 0; i < entry.size(); ++i)
                entry[i] = bytes[i % bytes.size()];
            zel::emv::log_entry_text(n->list, entry.data(), len, text, sizeof text);
            if (std::strlen(text) >= sizeof text)
                std::abort();
            break;
        }
    }
    emvTreeCleanup(tree);

    // One header: only where the bounded reader says the whole object is there does the exported form run.
    uint32_t tag = 0, tag_bytes = 0, length_bytes = 0, value_len = 0;
    if (zel::emv::read_header(bytes.data(), bytes.size(), zel::emv::kHeaderLengthBytes, tag, tag_bytes, length_bytes,
                              value_len) == ZEL_OK &&
        static_cast<uint64_t>(tag_bytes) + length_bytes + value_len <= bytes.size()) {
        uint8_t *value = nullptr;
        uint32_t t2 = 0, tb2 = 0, lb2 = 0, vl2 = 0;
        if (parseEmvTag(bytes.data(), &t2, &value, &tb2, &lb2, &vl2) != ZEL_OK || t2 != tag || vl2 != value_len)
            std::abort();
        OrbFree(value);
    }
    return 0;
}
