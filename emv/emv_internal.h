// Internals of the payment card reader shared by its files, the tool-free tests and the fuzz targets.
#ifndef ZEL_EMV_INTERNAL_H
#define ZEL_EMV_INTERNAL_H

#include <cstddef>
#include <cstdint>

#include "zel_emv.h"

namespace zel::emv {

// Most length bytes after the first length byte: the tree parser reads 1 or 2, a single header 1 to 3.
constexpr unsigned kTreeLengthBytes = 2;
constexpr unsigned kHeaderLengthBytes = 3;
// Data object lists nest inside templates that sit inside data object lists: this deep at most.
constexpr int kMaxListDepth = 16;

// One TLV header of at most avail bytes. EMV_ERR_WRONG_INPUT_DATA when the header runs past avail,
// EMV_ERR_MAX_TAG_LEN_BYTES_EXCEEDED for more than max_len_bytes length bytes. length_bytes counts the whole
// length field (its first byte included).
ZEL_STATUS read_header(const uint8_t *p, size_t avail, unsigned max_len_bytes, uint32_t &tag, uint32_t &tag_bytes,
                       uint32_t &length_bytes, uint32_t &value_len);

// The first node of the tag in depth-first order (a node, its children, then the nodes after it); lists are
// not searched.
const emv_tree_node_t *find_tag(const emv_tree_node_t *tree, uint32_t tag);

// The AFL entries of len bytes (a multiple of 4, at most 255 entries).
ZEL_STATUS afl_from_bytes(const uint8_t *value, uint32_t len, afl_list_item_t **list, uint8_t *count);

// Lower-case hexadecimal, two digits a byte, into out (2 * n + 1 bytes).
void hex_text(const uint8_t *bytes, uint32_t n, char *out);

// The text of a log entry (entry_len bytes) laid out by the Log Format list, into out (size bytes).
void log_entry_text(const emv_tree_node_t *format, const uint8_t *entry, uint32_t entry_len, char *out, size_t size);

// Test seam: every command of the payment card calls goes to hook instead of APDUTransceive while one is set
// (null puts APDUTransceive back). ne holds the capacity of out on entry and the data's length on return; sw
// has SW1 in its low byte, as APDUTransceive gives it.
using TransceiveHook = ZEL_STATUS (*)(void *ctx, uint8_t cla, uint8_t ins, uint8_t p1, uint8_t p2, const uint8_t *data,
                                      uint32_t nc, uint8_t *out, uint32_t *ne, uint16_t *sw);
void set_transceive_hook(TransceiveHook hook, void *ctx);

} // namespace zel::emv

#endif
