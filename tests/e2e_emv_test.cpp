// The payment card reader against the simulated payment card: the account number through both directories,
// both GET PROCESSING OPTIONS formats, the 6C and 62 82 record answers; the last transaction of the log; and
// the tree the library builds from the card's answers checked, tag by tag and value by value, against the
// independent `ber-tlv` parser of npm (tests/emv_check, installed by scripts/install-deps.sh; the check
// skips, saying so, where Node.js or the package is missing).
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "card_sim_fixture.h"
#include "emv_test_support.h"

using zeltest::CardSimTest;

namespace {

using Bytes = std::vector<uint8_t>;

std::string card(const std::string &setup)
{
    return R"({"cards": [{"uid": "04518A2B3C4D80", "sak": "20", "atqa": "0344", "type": "ORB_GENERIC_ISO14443_4",
                "model": "emv", "setup": )" +
           setup + "}]}";
}

const char kPpse[] = "2PAY.SYS.DDF01";
const char kPse[] = "1PAY.SYS.DDF01";

// The global reader is the test's reader while the object lives.
class Emv : public CardSimTest {
protected:
    void begin(const std::string &setup)
    {
        start(card(setup));
        std::memcpy(static_cast<void *>(&saved_), &zel_global, sizeof saved_);
        std::memcpy(static_cast<void *>(&zel_global), hnd, sizeof saved_);
        swapped_ = true;
        ASSERT_EQ(SetISO14443_4_ModeM(hnd), ZEL_OK);
    }
    void TearDown() override
    {
        if (swapped_)
            std::memcpy(static_cast<void *>(&zel_global), &saved_, sizeof saved_);
        swapped_ = false;
        CardSimTest::TearDown();
    }
    std::string pan(const char *df, ZEL_STATUS want = ZEL_OK)
    {
        char out[EMV_PAN_TEXT_SIZE + 8];
        std::memset(out, 'x', sizeof out);
        out[sizeof out - 1] = 0;
        const ZEL_STATUS st = EMV_GetPAN(df, out);
        EXPECT_EQ(st, want) << ZEL_Status2String(st);
        return st == ZEL_OK ? std::string(out) : std::string();
    }
    std::string last(ZEL_STATUS want = ZEL_OK)
    {
        char out[EMV_LOG_TEXT_SIZE];
        std::memset(out, 0, sizeof out);
        const ZEL_STATUS st = EMV_GetLastTransaction(kPpse, out);
        EXPECT_EQ(st, want) << ZEL_Status2String(st);
        return out;
    }
    // One command with Le 256 on the test's reader: data and status word (SW1 first).
    Bytes send(uint8_t cla, uint8_t ins, uint8_t p1, uint8_t p2, const Bytes &data = {})
    {
        Bytes out(256);
        uint32_t n = 256;
        uint16_t sw = 0;
        EXPECT_EQ(APDUTransceiveM(hnd, cla, ins, p1, p2, data.empty() ? nullptr : data.data(),
                                  static_cast<uint32_t>(data.size()), out.data(), &n, 1, &sw),
                  ZEL_OK);
        out.resize(n);
        out.push_back(static_cast<uint8_t>(sw));
        out.push_back(static_cast<uint8_t>(sw >> 8));
        return out;
    }

    zel_handle_record saved_;
    bool swapped_ = false;
};

TEST_F(Emv, AccountNumberThroughEitherDirectoryAndEveryRecordAnswer)
{
    const struct {
        const char *setup;
        const char *df;
        const char *want;
    } cases[] = {
        {"{}", kPpse, "4000123456789010"},
        {"{}", kPse, "4000123456789010"},
        {R"({"record_sw": "6282"})", kPpse, "4000123456789010"},
        {R"({"record_sw": "6c"})", kPse, "4000123456789010"},
        // An odd number of digits keeps the card's F padding.
        {R"({"applications": [{"pan": "476173900101011"}]})", kPpse, "476173900101011f"},
        // No PDOL: the card takes only 83 00.
        {R"({"applications": [{"pdol": ""}]})", kPpse, "4000123456789010"},
        // Two applications in the directory file: the first one's number.
        {R"({"applications": [{"pan": "5100000000000008"}, {"aid": "A0000000041010", "pan": "4000123456789010"}]})",
         kPse, "5100000000000008"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.setup) + " " + c.df);
        begin(c.setup);
        EXPECT_EQ(pan(c.df), c.want);
        TearDown();
    }
}

TEST_F(Emv, CardsThatGiveNoAccountNumber)
{
    const struct {
        const char *setup;
        const char *df;
        ZEL_STATUS want;
    } cases[] = {
        // Format 1: the AFL sits in tag 80, which the reader of the number does not look into.
        {R"({"applications": [{"gpo_format": 1}]})", kPpse, EMV_ERR_AFL_NOT_FOUND},
        // Refused GET PROCESSING OPTIONS: no records, no number.
        {R"({"applications": [{"gpo_refused": true}]})", kPpse, EMV_ERR_AFL_NOT_FOUND},
        // A proximity directory listing two templates side by side is refused.
        {R"({"ppse_all": true, "applications": [{}, {"aid": "A0000000041010"}]})", kPpse, EMV_ERR_WRONG_INPUT_DATA},
        // A name the card does not know: 6A 82 to the SELECT.
        {"{}", "3PAY.SYS.DDF01", ZEL_APDU_TRANSCEIVE_ERROR},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.setup);
        begin(c.setup);
        pan(c.df, c.want);
        TearDown();
    }
    char out[EMV_PAN_TEXT_SIZE];
    EXPECT_EQ(EMV_GetPAN(nullptr, out), EMV_ERR_WRONG_INPUT_DATA);
    EXPECT_EQ(EMV_GetPAN("", out), EMV_ERR_WRONG_INPUT_DATA);
    EXPECT_EQ(EMV_GetPAN(kPpse, nullptr), EMV_ERR_WRONG_INPUT_DATA);
}

void collect(int, const char *text, void *context)
{
    static_cast<std::string *>(context)->append(text);
}

TEST_F(Emv, TheAccountNumberNeverReachesTheDebugPrint)
{
    std::string printed;
    ZEL_DebugPrintSetSink(collect, &printed);
    ZEL_DebugPrintEnable(1);
    begin(R"({"applications": [{"pan": "4000123456789010"}]})");
    EXPECT_EQ(pan(kPpse), "4000123456789010");
    TearDown();
    begin(R"({"applications": [{"pan": "4000123456789010", "gpo_format": 1}]})");
    pan(kPpse, EMV_ERR_AFL_NOT_FOUND);
    ZEL_DebugPrintEnable(0);
    ZEL_DebugPrintSetSink(nullptr, nullptr);
    EXPECT_NE(printed.find("getAfl():> status != ZEL_OK"), std::string::npos) << printed;
    EXPECT_EQ(printed.find("4000123456789010"), std::string::npos);
    EXPECT_EQ(printed.find("40 00 12 34"), std::string::npos);
    EXPECT_EQ(printed.find("40001234"), std::string::npos);
}

TEST_F(Emv, LastTransactionOfTheLog)
{
    begin("{}");
    EXPECT_EQ(last(), "ATCounter: 66\nDate: 20.11.2026\nTime: 14:30:05\nAmount:        123.45\nCurrency: EUR\n"
                      "Terminal country: DE");
    TearDown();
    // The 6C rule on every read, a log format without the time, an unknown country.
    begin(R"({"record_sw": "6c", "applications": [{"log_format": "9A03 9F0206 5F2A02 9F1A02 9F3602",
              "log": ["251231 000000000100 0840 0999 0007", "251230 000000000200 0840 0840 0006"]}]})");
    EXPECT_EQ(last(), "ATCounter: 7\nDate: 31.12.2025\nTime: --:--:--\nAmount:          1.00\nCurrency: USD\n"
                      "Terminal country: --");
    TearDown();
    // No country in the format: "---".
    begin(R"({"record_sw": "6282", "applications": [{"log_format": "9F3602 9F0206", "log": ["0101 000000099999"]}]})");
    EXPECT_EQ(last(), "ATCounter: 257\nDate: --.--.20--\nTime: --:--:--\nAmount:        999.99\nCurrency: ---\n"
                      "Terminal country: ---");
    TearDown();
    // No log entry in the FCI.
    begin(R"({"applications": [{"log_format": ""}]})");
    last(EMV_ERR_TAG_NOT_FOUND);
}

// ---- The independent check ----

std::string check_dir()
{
    std::string here = __FILE__;
    return here.substr(0, here.rfind('/')) + "/emv_check";
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

std::string upper_hex(const uint8_t *p, size_t n)
{
    static const char d[] = "0123456789ABCDEF";
    std::string s;
    for (size_t i = 0; i < n; ++i) {
        s += d[p[i] >> 4];
        s += d[p[i] & 15];
    }
    return s;
}

// The tree as the check prints it: [depth, tag, value] in depth-first order, null for a template.
void flatten(const emv_tree_node_t *n, int depth, std::string &out)
{
    for (; n; n = n->next) {
        if (out.size() > 1)
            out += ",";
        uint8_t tag[3] = {static_cast<uint8_t>(n->tag >> 16), static_cast<uint8_t>(n->tag >> 8),
                          static_cast<uint8_t>(n->tag)};
        out += "[" + std::to_string(depth) + ",\"" + upper_hex(tag + 3 - n->tag_bytes, n->tag_bytes) + "\",";
        if (n->constructed) {
            out += "null]";
            flatten(n->sub, depth + 1, out);
        } else {
            out += "\"" + (n->value ? upper_hex(n->value, n->value_len) : std::string()) + "\"]";
        }
    }
}

std::string library_view(const Bytes &answer, ZEL_STATUS &st)
{
    emv_tree_node_t *tree = nullptr;
    st = newEmvTag(&tree, answer.data(), static_cast<int32_t>(answer.size()), 0);
    std::string out = "[";
    flatten(tree, 0, out);
    emvTreeCleanup(tree);
    return out + "]";
}

class EmvCrossCheck : public Emv {
protected:
    void SetUp() override
    {
        if (run("command -v node").empty())
            GTEST_SKIP() << "Node.js is not installed: the independent BER-TLV parser cannot run";
        if (!have(check_dir() + "/node_modules/ber-tlv"))
            GTEST_SKIP() << "the npm package ber-tlv is not installed in tests/emv_check (scripts/install-deps.sh)";
    }
    // The check's view of each answer, one line each.
    std::vector<std::string> check(const std::vector<Bytes> &answers)
    {
        std::string cmd = "node '" + check_dir() + "/check.js'";
        for (const auto &a : answers)
            cmd += " " + upper_hex(a.data(), a.size());
        std::vector<std::string> lines;
        const std::string out = run(cmd + " 2>&1");
        size_t at = 0;
        while (at < out.size()) {
            const size_t end = out.find('\n', at);
            lines.push_back(out.substr(at, end == std::string::npos ? std::string::npos : end - at));
            at = end == std::string::npos ? out.size() : end + 1;
        }
        return lines;
    }
    void agree(const std::vector<Bytes> &answers)
    {
        const std::vector<std::string> theirs = check(answers);
        ASSERT_EQ(theirs.size(), answers.size());
        for (size_t i = 0; i < answers.size(); ++i) {
            ZEL_STATUS st = ZEL_OK;
            const std::string ours = library_view(answers[i], st);
            ASSERT_EQ(st, ZEL_OK) << upper_hex(answers[i].data(), answers[i].size());
            EXPECT_EQ(ours, theirs[i]) << upper_hex(answers[i].data(), answers[i].size());
        }
    }
};

Bytes strip_sw(Bytes r)
{
    EXPECT_GE(r.size(), 2u);
    EXPECT_EQ(r[r.size() - 2], 0x90);
    r.resize(r.size() - 2);
    return r;
}

TEST_F(EmvCrossCheck, TheSimulatedCardsAnswers)
{
    for (const char *setup : {"{}", R"({"applications": [{"gpo_format": 1, "pdol": ""}]})"}) {
        SCOPED_TRACE(setup);
        begin(setup);
        std::vector<Bytes> answers;
        answers.push_back(strip_sw(send(0x00, 0xA4, 0x04, 0x00, Bytes(kPpse, kPpse + 14))));
        answers.push_back(strip_sw(send(0x00, 0xA4, 0x04, 0x00, Bytes(kPse, kPse + 14))));
        answers.push_back(strip_sw(send(0x00, 0xB2, 0x01, 0x0C)));
        const Bytes aid{0xA0, 0x00, 0x00, 0x00, 0x03, 0x10, 0x10};
        answers.push_back(strip_sw(send(0x00, 0xA4, 0x04, 0x00, aid)));
        emv_tree_node_t *fci = nullptr;
        ASSERT_EQ(newEmvTag(&fci, answers.back().data(), static_cast<int32_t>(answers.back().size()), 0), ZEL_OK);
        uint8_t *gpo = nullptr;
        uint16_t gpo_len = 0;
        ASSERT_EQ(formatGetProcessingOptionsDataField(fci, &gpo, &gpo_len), ZEL_OK);
        emvTreeCleanup(fci);
        answers.push_back(strip_sw(send(0x80, 0xA8, 0x00, 0x00, Bytes(gpo, gpo + gpo_len))));
        OrbFree(gpo);
        answers.push_back(strip_sw(send(0x00, 0xB2, 0x01, 0x14)));
        answers.push_back(strip_sw(send(0x00, 0xB2, 0x02, 0x14)));
        answers.push_back(strip_sw(send(0x00, 0xB2, 0x01, 0x1C)));
        answers.push_back(strip_sw(send(0x80, 0xCA, 0x9F, 0x4F)));
        agree(answers);
        TearDown();
        SetUp();
    }
}

TEST_F(EmvCrossCheck, HandMadeAnswers)
{
    const auto h = emvtest::hex;
    std::vector<Bytes> answers{
        h("77 12 82 02 1980 94 0C 08010100 10010300 18010201"),
        h("80 0E 3C00 08010100 10010300 18010201"),
        h("70 81 85 5F20 1C 4A4F484E20512050555A5A4C45202020202020202020202020202020 9F1F 63" + std::string(198, '3')),
        h("6F 2A 84 0E 325041592E5359532E4444463031 A5 18 BF0C 15 61 13 4F 07 A0000000031010 50 08 4D59"
          "204445424954"),
        h("DF8101 03 010203 9F7F 01 AA 5A 08 4000123456789010"),
        h("70 82 0004 9F36 01 01"),
    };
    agree(answers);
    // What the library refuses, the check reads: a sibling behind a template.
    ZEL_STATUS st = ZEL_OK;
    const Bytes siblings = h("BF0C 0A 61 03 4F 01 A1 61 03 4F 01 A2");
    library_view(siblings, st);
    EXPECT_EQ(st, EMV_ERR_WRONG_INPUT_DATA);
    const std::vector<std::string> theirs = check({siblings});
    ASSERT_EQ(theirs.size(), 1u);
    EXPECT_EQ(theirs[0], R"([[0,"BF0C",null],[1,"61",null],[2,"4F","A1"],[1,"61",null],[2,"4F","A2"]])");
}

} // namespace
