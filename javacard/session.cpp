// The applet session, one APDU with the caller's status form, and the readers of the applets' answers.
#include "core/internal.h"
#include "javacard/jc_internal.h"
#include "tandro.h"

using namespace zel::jc;

Session &zel::jc::session()
{
    static Session s;
    return s;
}

ZEL_STATUS zel::jc::exchange(ZEL_HANDLE hnd, uint8_t cla, uint8_t ins, uint8_t p1, uint8_t p2, const uint8_t *data,
                             uint32_t nc, uint8_t *out, uint32_t le, uint32_t *out_len)
{
    if (out_len)
        *out_len = 0;
    uint32_t ne = le;
    uint16_t sw = 0;
    const ZEL_STATUS status =
        APDUTransceiveHnd(hnd, cla, ins, p1, p2, nc ? data : nullptr, nc, out, &ne, le ? 1 : 0, &sw);
    if (status != ZEL_OK)
        return status;
    // The transport keeps the status word as the bytes came: SW1 in the low byte.
    const uint8_t sw1 = static_cast<uint8_t>(sw), sw2 = static_cast<uint8_t>(sw >> 8);
    if (sw1 != 0x90 || sw2 != 0x00)
        return ZEL_CARD_SW_BASE | static_cast<uint32_t>(sw1) << 8 | sw2;
    if (out_len)
        *out_len = ne;
    return ZEL_OK;
}

bool zel::jc::parse_obj_id(const uint8_t *p, uint32_t n, ObjIdReply &out)
{
    out = ObjIdReply{};
    if (!p || n < 2 || n > kReplyMax)
        return false;
    out.obj_len = static_cast<uint16_t>(p[0] << 8 | p[1]);
    out.id = p + 2;
    out.id_len = n - 2;
    return true;
}

bool zel::jc::parse_ec_tail(const uint8_t *p, uint32_t n, EcTail &out)
{
    out = EcTail{};
    if (!p || n < 6 || n > kReplyMax)
        return false;
    const uint8_t *t = p + n - 6;
    out.part_len = n - 6;
    out.k = static_cast<uint16_t>(t[0] << 8 | t[1]);
    out.key_bits = static_cast<uint16_t>(t[2] << 8 | t[3]);
    out.designator = static_cast<uint16_t>(t[4] << 8 | t[5]);
    return true;
}

bool zel::jc::parse_ec_size(const uint8_t *p, uint32_t n, uint16_t *key_bits, uint16_t *designator)
{
    if (!p || n < 4 || n > kReplyMax)
        return false;
    const uint8_t *t = p + n - 4;
    *key_bits = static_cast<uint16_t>(t[0] << 8 | t[1]);
    *designator = static_cast<uint16_t>(t[2] << 8 | t[3]);
    return true;
}

bool zel::jc::parse_tries(const uint8_t *p, uint32_t n, uint16_t *tries)
{
    if (!p || n < 2)
        return false;
    *tries = static_cast<uint16_t>(p[0] << 8 | p[1]);
    return true;
}

bool zel::jc::parse_file_size(const uint8_t *p, uint32_t n, uint32_t *size)
{
    *size = 0;
    if (!p || n != 2)
        return false;
    *size = static_cast<uint32_t>(p[0]) << 8 | p[1];
    return true;
}
