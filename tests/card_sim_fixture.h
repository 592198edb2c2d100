// A simulated reader on a pseudo-terminal with a handle attached, empty or loaded from a scenario.
#ifndef ZEL_TESTS_CARD_SIM_FIXTURE_H
#define ZEL_TESTS_CARD_SIM_FIXTURE_H

#include <gtest/gtest.h>

#include <string>

#include "tandro.h"
#include "transport/serial.h"
#include "zelsim.h"

namespace zeltest {

class CardSimTest : public ::testing::Test {
protected:
    void TearDown() override { stop(); }
    // Closes the handle and the reader; a test may start another one after.
    void stop()
    {
        if (hnd)
            Zel_Hnd_Destroy(hnd);
        if (sim)
            zsim_free(sim);
        hnd = nullptr;
        sim = nullptr;
    }
    // Serves the reader (a new one with an empty field unless the test made one) on a pseudo-terminal and
    // opens a handle on it with the given time-out.
    void serve(uint32_t timeout_ms = 500)
    {
        if (!sim)
            sim = zsim_new();
        ASSERT_NE(sim, nullptr);
        ASSERT_EQ(zsim_serve_pty(sim, path, sizeof path), 0);
        hnd = Zel_Hnd_Create();
        ASSERT_EQ(zel::serial_open(hnd, path, 1000000, true), ZEL_OK);
        PortSetTimeout(hnd, timeout_ms);
    }
    // Starts the reader with the scenario and opens a handle on it, after closing any started before.
    void start(const std::string &scenario)
    {
        stop();
        sim = zsim_new();
        ASSERT_NE(sim, nullptr);
        char err[256] = {};
        ASSERT_EQ(zsim_load_scenario(sim, scenario.c_str(), err, sizeof err), 0) << err;
        serve();
    }
    // The last command the reader took: frame and EXT.
    std::vector<uint8_t> last_request()
    {
        uint8_t buf[512];
        const size_t n = zsim_last_request(sim, buf, sizeof buf);
        return std::vector<uint8_t>(buf, buf + n);
    }

    zsim *sim = nullptr;
    char path[256] = {};
    ZEL_HANDLE hnd = nullptr;
};

} // namespace zeltest

#endif
