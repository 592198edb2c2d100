// The in-process view of the reader's outputs and tuning.
#include <cstring>
#include <mutex>

#include "core.h"
#include "zelsim.h"

extern "C" {

size_t zsim_signal_log(zsim *sim, char *buf, size_t len)
{
    if (!sim)
        return 0;
    std::string all;
    {
        std::lock_guard<std::mutex> lock(sim->mu);
        for (const std::string &line : sim->reader.outputs.log)
            all += line + "\n";
    }
    if (buf && len) {
        const size_t n = all.size() < len - 1 ? all.size() : len - 1;
        std::memcpy(buf, all.data(), n);
        buf[n] = 0;
    }
    return all.size();
}

int zsim_sleeping(zsim *sim)
{
    if (!sim)
        return 0;
    std::lock_guard<std::mutex> lock(sim->mu);
    return sim->reader.outputs.sleeping ? 1 : 0;
}

size_t zsim_rf_registers(zsim *sim, uint8_t set, uint8_t bytes[5])
{
    if (!sim || !bytes || set < 1 || set > 6 || set == 5)
        return 0;
    std::lock_guard<std::mutex> lock(sim->mu);
    const zs::RfSet &s = sim->reader.outputs.rf[set];
    std::memcpy(bytes, s.bytes, s.len);
    return s.len;
}

size_t zsim_se_slot(zsim *sim, uint8_t slot, uint8_t *buf, size_t len)
{
    if (!sim || slot >= zs::SE_SLOTS)
        return 0;
    std::lock_guard<std::mutex> lock(sim->mu);
    const std::vector<uint8_t> &s = sim->reader.outputs.se_slot[slot];
    if (buf)
        std::memcpy(buf, s.data(), s.size() < len ? s.size() : len);
    return s.size();
}

void zsim_set_mobile_data(zsim *sim, const uint8_t *data, size_t len)
{
    if (!sim)
        return;
    std::lock_guard<std::mutex> lock(sim->mu);
    if (data)
        sim->reader.outputs.mobile_data.assign(data, data + len);
    else
        sim->reader.outputs.mobile_data.clear();
}

} // extern "C"
