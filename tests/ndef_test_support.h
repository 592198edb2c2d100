// Helpers of the NDEF tests: records written and read through the exported calls, a clock that can be moved
// on past the read cache, and card images made by hand.
#ifndef ZEL_TESTS_NDEF_TEST_SUPPORT_H
#define ZEL_TESTS_NDEF_TEST_SUPPORT_H

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "core/internal.h"
#include "tandro.h"

namespace ndeftest {

// The library's tick runs with real time plus an offset the test moves on.
inline uint32_t &clock_offset()
{
    static uint32_t offset = 0;
    return offset;
}
inline uint32_t shifted_tick()
{
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<uint32_t>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count()) + clock_offset();
}
// Moves the clock past the read cache's lifetime.
inline void expire_cache()
{
    zel::set_tick_hook(shifted_tick);
    clock_offset() += 2001;
}

struct Rec {
    uint8_t tnf = 0;
    std::string type, id;
    std::vector<uint8_t> payload;
    std::string text() const { return std::string(payload.begin(), payload.end()); }
};

inline ZEL_STATUS write(ZEL_HANDLE h, uint8_t msg, uint8_t tnf, const std::string &type, const std::string &id,
                        const std::vector<uint8_t> &payload, uint8_t *formatted = nullptr)
{
    uint8_t t = tnf, tl = static_cast<uint8_t>(type.size()), il = static_cast<uint8_t>(id.size()), f = 0xAA;
    uint32_t pl = static_cast<uint32_t>(payload.size());
    std::vector<uint8_t> tb(type.begin(), type.end()), ib(id.begin(), id.end()), pb(payload);
    tb.push_back(0);
    ib.push_back(0);
    pb.push_back(0);
    const ZEL_STATUS st = write_ndef_recordM(h, msg, &t, tb.data(), &tl, ib.data(), &il, pb.data(), &pl, &f);
    if (formatted)
        *formatted = f;
    return st;
}

inline std::vector<uint8_t> bytes(const std::string &s)
{
    return std::vector<uint8_t>(s.begin(), s.end());
}

// A URI record's payload: the prefix code, then the rest.
inline std::vector<uint8_t> uri_payload(uint8_t code, const std::string &rest)
{
    std::vector<uint8_t> p{code};
    p.insert(p.end(), rest.begin(), rest.end());
    return p;
}

inline ZEL_STATUS read(ZEL_HANDLE h, uint8_t msg, uint8_t rec, Rec &out)
{
    uint8_t tnf = 0, tl = 0, il = 0, type[256] = {}, id[256] = {};
    std::vector<uint8_t> payload(ZEL_NDEF_IMAGE_LEN + ZEL_NDEF_PAYLOAD_SLACK + 64, 0);
    uint32_t pl = 0;
    const ZEL_STATUS st = read_ndef_recordM(h, msg, rec, &tnf, type, &tl, id, &il, payload.data(), &pl);
    if (st != ZEL_OK)
        return st;
    out.tnf = tnf;
    out.type.assign(reinterpret_cast<char *>(type), tl);
    out.id.assign(reinterpret_cast<char *>(id), il);
    out.payload.assign(payload.begin(), payload.begin() + pl);
    return st;
}

struct Count {
    uint8_t messages = 0, records = 0, empty = 0;
    uint8_t array[ZEL_NDEF_RECORD_ARRAY_LEN] = {};
};
inline ZEL_STATUS count(ZEL_HANDLE h, Count &c)
{
    return get_ndef_record_countM(h, &c.messages, &c.records, c.array, &c.empty);
}

} // namespace ndeftest

#endif
