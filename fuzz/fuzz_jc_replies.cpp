// The readers of the Java card applets' answers on arbitrary bytes: every field they give lies inside the
// answer, and answers of the wrong shape are refused.
#include <cstdlib>
#include <vector>

#include "javacard/jc_internal.h"

using namespace zel::jc;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size > 4 * kReplyMax)
        return 0;
    std::vector<uint8_t> exact(data, data + size);
    const uint8_t *p = exact.data();
    const uint32_t n = static_cast<uint32_t>(size);
    ObjIdReply id;
    if (parse_obj_id(p, n, id) && (n < 2 || id.id != p + 2 || id.id_len != n - 2 || id.id_len > kReplyMax))
        std::abort();
    EcTail tail;
    if (parse_ec_tail(p, n, tail) && (n < 6 || tail.part_len != n - 6))
        std::abort();
    uint16_t bits = 0, designator = 0, tries = 0;
    if (parse_ec_size(p, n, &bits, &designator) && (n < 4 || bits != (p[n - 4] << 8 | p[n - 3])))
        std::abort();
    if (parse_tries(p, n, &tries) && n < 2)
        std::abort();
    uint32_t file_size = 7;
    const bool sized = parse_file_size(p, n, &file_size);
    if (sized != (n == 2) || (!sized && file_size != 0) || file_size > 0xFFFF)
        std::abort();
    return 0;
}
