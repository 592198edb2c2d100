// Records the library writes to a simulated tag must parse in an independent NDEF parser: the `ndef` package
// of npm (tests/ndef_check, installed by scripts/install-deps.sh) reads the message bytes off the tag. Skips
// itself, saying so, where Node.js or the package is missing.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "card_sim_fixture.h"
#include "ndef_test_support.h"

using zeltest::CardSimTest;
using namespace ndeftest;

namespace {

std::string check_dir()
{
    std::string here = __FILE__;
    return here.substr(0, here.rfind('/')) + "/ndef_check";
}

bool have(const std::string &path)
{
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}

std::string run(const std::string &cmd)
{
    std::string out;
    if (FILE *p = ::popen(cmd.c_str(), "r")) {
        char buf[512];
        size_t n;
        while ((n = std::fread(buf, 1, sizeof buf, p)) > 0)
            out.append(buf, n);
        ::pclose(p);
    }
    return out;
}

class NdefCrossCheck : public CardSimTest {
protected:
    void SetUp() override
    {
        if (run("command -v node").empty())
            GTEST_SKIP() << "Node.js is not installed: the independent NDEF parser cannot run";
        if (!have(check_dir() + "/node_modules/ndef"))
            GTEST_SKIP() << "the npm package ndef is not installed in tests/ndef_check (scripts/install-deps.sh)";
        start(R"({"cards": [{"uid": "04A22B1A5C6480", "sak": "00", "atqa": "0044", "type": "ORB_NTAG_215",
                            "model": "ntag215", "setup": {"pages": [{"page": 4, "data": "0300FE00"}]}}]})");
    }
    // The message bytes of the tag's first NDEF TLV, parsed by the other parser; its JSON answer.
    std::string parsed()
    {
        std::vector<uint8_t> img(496);
        uint16_t got = 0;
        EXPECT_EQ(LinearReadM(hnd, img.data(), 0, 496, &got, 0x60, 0), ZEL_OK);
        EXPECT_EQ(img[0], 0x03);
        size_t at = 2, len = img[1];
        if (img[1] == 0xFF) {
            at = 4;
            len = static_cast<size_t>(img[2]) << 8 | img[3];
        }
        EXPECT_LE(at + len, img.size());
        char path[] = "/tmp/ndef-crosscheck-XXXXXX";
        const int fd = ::mkstemp(path);
        EXPECT_GE(fd, 0);
        EXPECT_EQ(::write(fd, img.data() + at, len), static_cast<ssize_t>(len));
        ::close(fd);
        const std::string out = run("node '" + check_dir() + "/check.js' " + path + " 2>&1");
        ::unlink(path);
        return out;
    }
};

TEST_F(NdefCrossCheck, UriRecord)
{
    ASSERT_EQ(write(hnd, 1, 1, "U", "", uri_payload(0x04, "tandro.example/x?y=1")), ZEL_OK);
    const std::string out = parsed();
    // One record, whole: the parser found the message's end where the library put it.
    EXPECT_EQ(out.find("[{\"tnf\":1,\"type\":\"U\",\"id\":\"\""), 0u) << out;
    EXPECT_NE(out.find("\"uri\":\"https://tandro.example/x?y=1\"}]"), std::string::npos) << out;
}

TEST_F(NdefCrossCheck, TextRecord)
{
    ASSERT_EQ(write(hnd, 1, 1, "T", "",
                    bytes("\x02"
                          "enHello, tag")),
              ZEL_OK);
    const std::string out = parsed();
    EXPECT_NE(out.find("\"type\":\"T\""), std::string::npos) << out;
    EXPECT_NE(out.find("\"text\":\"Hello, tag\""), std::string::npos) << out;
}

TEST_F(NdefCrossCheck, MultiRecordMessageWithIdAndLongPayload)
{
    std::vector<uint8_t> big(300);
    for (size_t i = 0; i < big.size(); ++i)
        big[i] = static_cast<uint8_t>('a' + i % 26);
    ASSERT_EQ(write(hnd, 1, 1, "U", "", uri_payload(0x01, "tandro.example")), ZEL_OK);
    ASSERT_EQ(write(hnd, 1, 1, "T", "",
                    bytes("\x02"
                          "deHallo")),
              ZEL_OK);
    ASSERT_EQ(write(hnd, 1, 2, "text/plain", "r3", big), ZEL_OK);
    const std::string out = parsed();
    EXPECT_NE(out.find("\"uri\":\"http://www.tandro.example\""), std::string::npos) << out;
    EXPECT_NE(out.find("\"text\":\"Hallo\""), std::string::npos) << out;
    EXPECT_NE(out.find("\"tnf\":2,\"type\":\"text/plain\",\"id\":\"r3\""), std::string::npos) << out;
    const std::string hex = [&] {
        std::string h;
        char b[3];
        for (uint8_t c : big) {
            std::snprintf(b, sizeof b, "%02x", c);
            h += b;
        }
        return h;
    }();
    EXPECT_NE(out.find(hex), std::string::npos) << out;
}

} // namespace
