// The tree of a payment card's BER-TLV answers, its lookups, the data of GET PROCESSING OPTIONS, the log
// entry fields and the small helpers.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "emv/emv_internal.h"

namespace zel::emv {

ZEL_STATUS read_header(const uint8_t *p, size_t avail, unsigned max_len_bytes, uint32_t &tag, uint32_t &tag_bytes,
                       uint32_t &length_bytes, uint32_t &value_len)
{
    size_t i = 0;
    if (avail < 1)
        return EMV_ERR_WRONG_INPUT_DATA;
    tag = p[i++];
    if ((tag & 0x1F) == 0x1F) {
        if (i >= avail)
            return EMV_ERR_WRONG_INPUT_DATA;
        const uint8_t second = p[i++];
        tag = tag << 8 | second;
        if (second & 0x80) {
            if (i >= avail)
                return EMV_ERR_WRONG_INPUT_DATA;
            tag = tag << 8 | p[i++];
        }
    }
    tag_bytes = static_cast<uint32_t>(i);
    if (i >= avail)
        return EMV_ERR_WRONG_INPUT_DATA;
    const uint8_t first = p[i++];
    if (first < 0x80) {
        length_bytes = 1;
        value_len = first;
        return ZEL_OK;
    }
    const unsigned count = first & 0x7F;
    if (count > max_len_bytes)
        return EMV_ERR_MAX_TAG_LEN_BYTES_EXCEEDED;
    if (avail - i < count)
        return EMV_ERR_WRONG_INPUT_DATA;
    uint32_t len = 0;
    for (unsigned k = 0; k < count; ++k)
        len = len << 8 | p[i++];
    length_bytes = 1 + count;
    value_len = len;
    return ZEL_OK;
}

namespace {

emv_tree_node_t *new_node(uint32_t tag, uint32_t tag_bytes, uint32_t value_len)
{
    auto *n = static_cast<emv_tree_node_t *>(std::calloc(1, sizeof(emv_tree_node_t)));
    if (!n)
        return nullptr;
    const emv_tag_row_t &row = emv_tags[findEmvTagIndex(tag)];
    n->tag = tag;
    n->tag_bytes = tag_bytes;
    n->description = row.description;
    n->type = row.type;
    n->constructed = row.type == EMV_TYPE_CONSTRUCTED;
    n->value_len = value_len;
    return n;
}

// One level and everything below it, building at *link. Nodes linked before a failure stay linked: the
// caller frees the whole tree.
ZEL_STATUS parse(emv_tree_node_t **link, const uint8_t *p, int64_t remaining, bool is_list, int depth)
{
    if (depth > kMaxListDepth)
        return EMV_ERR_WRONG_INPUT_DATA;
    for (;;) {
        uint32_t tag = 0, tag_bytes = 0, length_bytes = 0, value_len = 0;
        const ZEL_STATUS st =
            read_header(p, static_cast<size_t>(remaining), kTreeLengthBytes, tag, tag_bytes, length_bytes, value_len);
        if (st != ZEL_OK)
            return st;
        emv_tree_node_t *node = new_node(tag, tag_bytes, value_len);
        if (!node)
            return SYS_ERR_OUT_OF_MEMORY;
        *link = node;
        const uint32_t header = tag_bytes + length_bytes;
        const int64_t step = header + (node->constructed || is_list ? 0 : static_cast<int64_t>(value_len));
        remaining -= step;
        if (node->constructed) {
            // A template runs to the end of the bytes at hand.
            if (remaining < 0 || remaining != static_cast<int64_t>(value_len))
                return EMV_ERR_WRONG_INPUT_DATA;
            if (remaining == 0)
                return ZEL_OK;
            p += header;
            link = &node->sub;
            is_list = false;
            continue;
        }
        if (remaining < 0)
            return EMV_ERR_WRONG_INPUT_DATA;
        if (!is_list && value_len > 0) {
            const bool text = node->type == EMV_TYPE_TEXT;
            node->value = static_cast<uint8_t *>(std::malloc(value_len + (text ? 1 : 0)));
            if (!node->value)
                return SYS_ERR_OUT_OF_MEMORY;
            std::memcpy(node->value, p + header, value_len);
            if (text)
                node->value[value_len] = 0;
            if (node->type == EMV_TYPE_DOL) {
                const ZEL_STATUS ls = parse(&node->list, node->value, value_len, true, depth + 1);
                if (ls != ZEL_OK)
                    return ls;
            }
        }
        if (remaining == 0)
            return ZEL_OK;
        p += step;
        link = &node->next;
    }
}

} // namespace

const emv_tree_node_t *find_tag(const emv_tree_node_t *tree, uint32_t tag)
{
    std::vector<const emv_tree_node_t *> stack;
    if (tree)
        stack.push_back(tree);
    while (!stack.empty()) {
        const emv_tree_node_t *n = stack.back();
        stack.pop_back();
        if (n->tag == tag)
            return n;
        if (n->next)
            stack.push_back(n->next);
        if (n->sub)
            stack.push_back(n->sub);
    }
    return nullptr;
}

ZEL_STATUS afl_from_bytes(const uint8_t *value, uint32_t len, afl_list_item_t **list, uint8_t *count)
{
    if (len == 0 || len % 4 != 0 || len / 4 > 255 || !value)
        return EMV_ERR_TAG_WRONG_SIZE;
    afl_list_item_t *head = nullptr, **link = &head;
    for (uint32_t i = 0; i < len; i += 4) {
        auto *e = static_cast<afl_list_item_t *>(std::calloc(1, sizeof(afl_list_item_t)));
        if (!e) {
            emvAflListCleanup(head);
            return SYS_ERR_OUT_OF_MEMORY;
        }
        e->sfi = static_cast<uint8_t>(value[i] >> 3);
        e->first_record = value[i + 1];
        e->last_record = value[i + 2];
        e->sda_records = value[i + 3];
        *link = e;
        link = &e->next;
    }
    *list = head;
    *count = static_cast<uint8_t>(len / 4);
    return ZEL_OK;
}

void hex_text(const uint8_t *bytes, uint32_t n, char *out)
{
    static const char digits[] = "0123456789abcdef";
    for (uint32_t i = 0; i < n; ++i) {
        out[2 * i] = digits[bytes[i] >> 4];
        out[2 * i + 1] = digits[bytes[i] & 0x0F];
    }
    out[2 * n] = 0;
}

namespace {

// The offset of the tag's field in one entry laid out by the list, when width bytes of it lie inside len.
int field_offset(const emv_tree_node_t *list, uint32_t tag, uint32_t width, uint16_t *offset, uint32_t len)
{
    uint64_t at = 0;
    for (const emv_tree_node_t *n = list; n; n = n->next) {
        if (n->tag == tag) {
            if (at + width > len || at > 0xFFFF)
                return 0;
            if (offset)
                *offset = static_cast<uint16_t>(at);
            return 1;
        }
        at += n->value_len;
    }
    return 0;
}

} // namespace

void log_entry_text(const emv_tree_node_t *format, const uint8_t *entry, uint32_t entry_len, char *out, size_t size)
{
    uint16_t off = 0;
    int atc = 0;
    if (isExistATCounter(format, &off, entry_len))
        atc = entry[off] << 8 | entry[off + 1];
    char day[3] = "--", month[3] = "--", year[3] = "--";
    if (isExistTransactionDate(format, &off, entry_len)) {
        hex_text(entry + off, 1, year);
        hex_text(entry + off + 1, 1, month);
        hex_text(entry + off + 2, 1, day);
    }
    char hour[3] = "--", minute[3] = "--", second[3] = "--";
    if (isExistTransactionTime(format, &off, entry_len)) {
        hex_text(entry + off, 1, hour);
        hex_text(entry + off + 1, 1, minute);
        hex_text(entry + off + 2, 1, second);
    }
    float amount = 0;
    if (isExistAmountAuthorised(format, &off, entry_len))
        amount = static_cast<float>(bin_bcd_to_ll(entry + off, 6)) / 100.0f;
    const char *currency = "---";
    if (isExistTransactionCurrency(format, &off, entry_len))
        currency =
            emv_currencies[findCurrencyIndexByNumCode(static_cast<uint16_t>(bin_bcd_to_i(entry + off, 2)))].alpha;
    const char *country = "---";
    if (isExistTerminalCountry(format, &off, entry_len))
        country = emv_countries[findCountryIndexByNumCode(static_cast<uint16_t>(bin_bcd_to_i(entry + off, 2)))].alpha2;
    std::snprintf(out, size,
                  "ATCounter: %d\nDate: %s.%s.20%s\nTime: %s:%s:%s\nAmount: %13.2f\nCurrency: %s\nTerminal country: %s",
                  atc, day, month, year, hour, minute, second, static_cast<double>(amount), currency, country);
}

} // namespace zel::emv

namespace zel::emv {
namespace {

// The first node of the tag for which accept is true, in depth-first order.
template <typename Accept> const emv_tree_node_t *find_first(const emv_tree_node_t *tree, uint32_t tag, Accept accept)
{
    std::vector<const emv_tree_node_t *> stack;
    if (tree)
        stack.push_back(tree);
    while (!stack.empty()) {
        const emv_tree_node_t *n = stack.back();
        stack.pop_back();
        if (n->tag == tag && accept(n))
            return n;
        if (n->next)
            stack.push_back(n->next);
        if (n->sub)
            stack.push_back(n->sub);
    }
    return nullptr;
}

void copy_aid(const emv_tree_node_t *n, uint8_t *aid, uint8_t *aid_len)
{
    if (aid && n->value_len)
        std::memcpy(aid, n->value, n->value_len);
    if (aid_len)
        *aid_len = static_cast<uint8_t>(n->value_len);
}

} // namespace
} // namespace zel::emv

using namespace zel::emv;

extern "C" {

ZEL_API ZEL_STATUS newEmvTag(emv_tree_node_t **out, const uint8_t *data, int32_t len, uint8_t is_list)
{
    if (!out)
        return EMV_ERR_WRONG_INPUT_DATA;
    *out = nullptr;
    if (!data || len < 1)
        return EMV_ERR_WRONG_INPUT_DATA;
    emv_tree_node_t *root = nullptr;
    const ZEL_STATUS st = parse(&root, data, len, is_list != 0, 0);
    if (st != ZEL_OK) {
        emvTreeCleanup(root);
        return st;
    }
    *out = root;
    return ZEL_OK;
}

ZEL_API void emvTreeCleanup(emv_tree_node_t *tree)
{
    std::vector<emv_tree_node_t *> stack;
    if (tree)
        stack.push_back(tree);
    while (!stack.empty()) {
        emv_tree_node_t *n = stack.back();
        stack.pop_back();
        if (n->next)
            stack.push_back(n->next);
        if (n->sub)
            stack.push_back(n->sub);
        if (n->list)
            stack.push_back(n->list);
        std::free(n->value);
        std::free(n);
    }
}

ZEL_API void emvAflListCleanup(afl_list_item_t *list)
{
    while (list) {
        afl_list_item_t *next = list->next;
        std::free(list);
        list = next;
    }
}

ZEL_API ZEL_STATUS parseEmvTag(const uint8_t *data, uint32_t *tag, uint8_t **value, uint32_t *tag_bytes,
                               uint32_t *length_bytes, uint32_t *value_len)
{
    if (value)
        *value = nullptr;
    if (!data || !tag || !value || !tag_bytes || !length_bytes || !value_len)
        return EMV_ERR_WRONG_INPUT_DATA;
    // The caller's data holds the whole object: the header is read as it comes.
    const ZEL_STATUS st = read_header(data, SIZE_MAX, kHeaderLengthBytes, *tag, *tag_bytes, *length_bytes, *value_len);
    if (st != ZEL_OK)
        return st;
    if (*value_len > 0) {
        *value = static_cast<uint8_t *>(std::malloc(*value_len));
        if (!*value)
            return SYS_ERR_OUT_OF_MEMORY;
        std::memcpy(*value, data + *tag_bytes + *length_bytes, *value_len);
    }
    return ZEL_OK;
}

ZEL_API uint32_t findEmvTagIndex(uint32_t tag)
{
    for (uint32_t i = 0; i < emv_tag_count; ++i)
        if (emv_tags[i].tag == tag)
            return i;
    return emv_tag_count;
}

ZEL_API ZEL_STATUS getSfi(const emv_tree_node_t *tree, uint8_t *sfi)
{
    const emv_tree_node_t *n = find_tag(tree, 0x88);
    if (!n)
        return EMV_ERR_TAG_NOT_FOUND;
    if (n->value_len != 1 || !n->value)
        return EMV_ERR_TAG_WRONG_SIZE;
    if (sfi)
        *sfi = n->value[0];
    return ZEL_OK;
}

ZEL_API ZEL_STATUS getAid(const emv_tree_node_t *tree, uint8_t *aid, uint8_t *aid_len)
{
    const emv_tree_node_t *n =
        find_first(tree, 0x4F, [](const emv_tree_node_t *x) { return x->value && x->value_len <= EMV_AID_MAX; });
    if (!n)
        return EMV_ERR_AID_NOT_FOUND;
    copy_aid(n, aid, aid_len);
    return ZEL_OK;
}

ZEL_API ZEL_STATUS getAid__(const emv_tree_node_t *tree, uint8_t *aid, uint8_t *aid_len)
{
    // A node of a data object list has a length but no value: it is no AID.
    const emv_tree_node_t *n =
        find_first(tree, 0x4F, [](const emv_tree_node_t *x) { return x->value || x->value_len == 0; });
    if (!n)
        return EMV_ERR_AID_NOT_FOUND;
    if (n->value_len > EMV_AID_MAX)
        return EMV_ERR_TAG_WRONG_SIZE;
    copy_aid(n, aid, aid_len);
    return ZEL_OK;
}

ZEL_API ZEL_STATUS getLogEntry(const emv_tree_node_t *tree, uint8_t *sfi, uint8_t *records)
{
    const emv_tree_node_t *n =
        find_first(tree, 0x9F4D, [](const emv_tree_node_t *x) { return x->value && x->value_len == 2; });
    if (!n)
        return EMV_ERR_TAG_NOT_FOUND;
    if (sfi)
        *sfi = n->value[0];
    if (records)
        *records = n->value[1];
    return ZEL_OK;
}

ZEL_API ZEL_STATUS getLogEntry__(const emv_tree_node_t *tree, uint8_t *sfi, uint8_t *records)
{
    const emv_tree_node_t *n = find_tag(tree, 0x9F4D);
    if (!n)
        return EMV_ERR_TAG_NOT_FOUND;
    if (n->value_len != 2 || !n->value)
        return EMV_ERR_TAG_WRONG_SIZE;
    if (sfi)
        *sfi = n->value[0];
    if (records)
        *records = n->value[1];
    return ZEL_OK;
}

ZEL_API ZEL_STATUS getPdol(const emv_tree_node_t *tree, const emv_tree_node_t **list)
{
    const emv_tree_node_t *n = find_tag(tree, 0x9F38);
    if (!n)
        return EMV_ERR_TAG_NOT_FOUND;
    if (n->value_len == 0)
        return EMV_ERR_TAG_WRONG_SIZE;
    if (list)
        *list = n->list;
    return ZEL_OK;
}

ZEL_API ZEL_STATUS getAfl(const emv_tree_node_t *tree, afl_list_item_t **list, uint8_t *count)
{
    if (!list || !count)
        return EMV_ERR_WRONG_INPUT_DATA;
    *list = nullptr;
    *count = 0;
    const emv_tree_node_t *n = find_tag(tree, 0x94);
    if (!n)
        return EMV_ERR_AFL_NOT_FOUND;
    return afl_from_bytes(n->value, n->value_len, list, count);
}

ZEL_API ZEL_STATUS getAflFromResponseMessageTemplateFormat1(const emv_tree_node_t *tree, afl_list_item_t **list,
                                                            uint8_t *count)
{
    if (!list || !count)
        return EMV_ERR_WRONG_INPUT_DATA;
    *list = nullptr;
    *count = 0;
    if (!tree)
        return EMV_ERR_AFL_NOT_FOUND;
    if (tree->tag == 0x80) {
        // The Application Interchange Profile (2 bytes) comes before the AFL.
        if (tree->value_len < 2 || !tree->value)
            return EMV_ERR_TAG_WRONG_SIZE;
        return afl_from_bytes(tree->value + 2, tree->value_len - 2, list, count);
    }
    return getAfl(tree->sub ? tree->sub : tree->next, list, count);
}

ZEL_API ZEL_STATUS getListLength(const emv_tree_node_t *node, uint16_t *len)
{
    if (!node)
        return EMV_ERR_TAG_NOT_FOUND;
    if (node->type != EMV_TYPE_DOL)
        return EMV_ERR_TAG_WRONG_TYPE;
    if (!node->list)
        return EMV_ERR_LIST_FORMAT_NOT_FOUND;
    uint32_t sum = 0;
    for (const emv_tree_node_t *n = node->list; n; n = n->next) {
        sum += n->value_len;
        if (sum > 0xFFFF)
            return EMV_ERR_TAG_WRONG_SIZE;
    }
    if (len)
        *len = static_cast<uint16_t>(sum);
    return ZEL_OK;
}

ZEL_API ZEL_STATUS findEMVTagValue(const emv_tree_node_t *tree, uint32_t tag, const uint8_t **value,
                                   uint32_t *value_len)
{
    const emv_tree_node_t *n = find_tag(tree, tag);
    if (!n)
        return EMV_ERR_TAG_NOT_FOUND;
    if (value)
        *value = n->value;
    if (value_len)
        *value_len = n->value_len;
    return ZEL_OK;
}

ZEL_API ZEL_STATUS formatGetProcessingOptionsDataField(const emv_tree_node_t *tree, uint8_t **data, uint16_t *data_len)
{
    if (!data || !data_len)
        return EMV_ERR_WRONG_INPUT_DATA;
    *data = nullptr;
    *data_len = 0;
    const emv_tree_node_t *pdol = find_tag(tree, 0x9F38);
    if (!pdol) {
        auto *d = static_cast<uint8_t *>(std::malloc(2));
        if (!d)
            return SYS_ERR_OUT_OF_MEMORY;
        d[0] = 0x83;
        d[1] = 0x00;
        *data = d;
        *data_len = 2;
        return ZEL_OK;
    }
    if (pdol->value_len == 0)
        return EMV_ERR_TAG_WRONG_SIZE;
    uint16_t total = 0;
    if (!pdol->list)
        return EMV_ERR_PDOL_IS_EMPTY;
    const ZEL_STATUS ls = getListLength(pdol, &total);
    if (ls != ZEL_OK)
        return ls;
    if (total == 0)
        return EMV_ERR_PDOL_IS_EMPTY;
    // 83, one length byte and the fields make the data of one short APDU.
    if (total > 253)
        return EMV_ERR_TAG_WRONG_SIZE;
    auto *d = static_cast<uint8_t *>(std::calloc(2u + total, 1));
    if (!d)
        return SYS_ERR_OUT_OF_MEMORY;
    d[0] = 0x83;
    d[1] = static_cast<uint8_t>(total);
    uint32_t at = 2;
    for (const emv_tree_node_t *n = pdol->list; n; n = n->next) {
        uint8_t *field = d + at;
        const uint32_t w = n->value_len;
        if (n->tag == 0x9F66 && w >= 1) {
            field[0] = 0x28; // Terminal Transaction Qualifiers
        } else if (n->tag == 0x5F2A) {
            const uint8_t code[2] = {0x09, 0x41}; // Transaction Currency Code
            std::memcpy(field, code, w < 2 ? w : 2);
        } else if (n->tag == 0x9A03) {
            // The parser gives the transaction date tag as 0x9A, so this row never matches and the date field
            // stays zero; that is the behaviour cards have been seen with, and it is kept.
            const uint8_t date[3] = {0x17, 0x08, 0x15};
            std::memcpy(field, date, w < 3 ? w : 3);
        }
        at += w;
    }
    *data = d;
    *data_len = static_cast<uint16_t>(2u + total);
    return ZEL_OK;
}

ZEL_API int isExistATCounter(const emv_tree_node_t *list, uint16_t *offset, uint32_t len)
{
    return field_offset(list, 0x9F36, 2, offset, len);
}

ZEL_API int isExistTransactionDate(const emv_tree_node_t *list, uint16_t *offset, uint32_t len)
{
    return field_offset(list, 0x9A, 3, offset, len);
}

ZEL_API int isExistTransactionTime(const emv_tree_node_t *list, uint16_t *offset, uint32_t len)
{
    return field_offset(list, 0x9F21, 3, offset, len);
}

ZEL_API int isExistAmountAuthorised(const emv_tree_node_t *list, uint16_t *offset, uint32_t len)
{
    return field_offset(list, 0x9F02, 6, offset, len);
}

ZEL_API int isExistTransactionCurrency(const emv_tree_node_t *list, uint16_t *offset, uint32_t len)
{
    return field_offset(list, 0x5F2A, 2, offset, len);
}

ZEL_API int isExistTerminalCountry(const emv_tree_node_t *list, uint16_t *offset, uint32_t len)
{
    return field_offset(list, 0x9F1A, 2, offset, len);
}

ZEL_API int32_t bin_bcd_to_i(const uint8_t *bytes, int32_t n)
{
    return static_cast<int32_t>(bin_bcd_to_ll(bytes, n));
}

ZEL_API long long bin_bcd_to_ll(const uint8_t *bytes, int32_t n)
{
    if (!bytes || n < 1)
        return 0;
    uint64_t v = 0;
    for (int32_t i = 0; i < n; ++i)
        v = v * 100 + static_cast<uint64_t>((bytes[i] >> 4) * 10 + (bytes[i] & 0x0F));
    return static_cast<long long>(v);
}

ZEL_API int isByteArrayPrintable(const uint8_t *bytes, uint32_t n)
{
    for (uint32_t i = 0; i < n; ++i)
        if (!bytes || bytes[i] < 0x20 || bytes[i] > 0x7E)
            return 0;
    return 1;
}

ZEL_API uint32_t findCountryIndexByNumCode(uint16_t code)
{
    for (uint32_t i = 0; i < emv_country_count; ++i)
        if (emv_countries[i].num == code)
            return i;
    return emv_country_count;
}

ZEL_API uint32_t findCurrencyIndexByNumCode(uint16_t code)
{
    for (uint32_t i = 0; i < emv_currency_count; ++i)
        if (emv_currencies[i].num == code)
            return i;
    return emv_currency_count;
}

} // extern "C"
