// Status, session status and card type texts.
#include <gtest/gtest.h>

#include <string>

#include "tandro.h"

namespace {

TEST(StatusText, FormatAndTable)
{
    EXPECT_STREQ(ZEL_Status2String(ZEL_OK), "[0x00 (0)] ZEL_OK");
    EXPECT_STREQ(ZEL_Status2String(8), "[0x08 (8)] ZEL_NO_CARD");
    EXPECT_STREQ(ZEL_Status2String(4096), "[0x1000 (4096)] ZEL_NOT_IMPLEMENTED");
    EXPECT_STREQ(ZEL_Status2String(19), "[0x13 (19)] Undocumented error");
    EXPECT_STREQ(ZEL_Status2String(511), "[0x1FF (511)] Undocumented error");
    EXPECT_STREQ(ZEL_Status2String(0x1111), "[0x1111 (4369)] Undocumented error");
    EXPECT_STREQ(ZEL_Status2String(185), "[0xB9 (185)] ZEL_MFP_MULTI_BLOCKS_READ");
    EXPECT_STREQ(ZEL_Status2String(36872), "[0x9008 (36872)] ZEL_FLASHER_PACKAGE_ALREADY_INSTALLED");
    EXPECT_STREQ(ZEL_Status2String(ZEL_FT_STATUS_BASE | 1), "[0xA1 (161)] ZEL_FT_STATUS_ERROR_2");
    // Each range's first and last names.
    EXPECT_STREQ(ZEL_Status2String(3313), "[0xCF1 (3313)] DESFIRE_CARD_FILE_INTEGRITY_ERROR");
    EXPECT_STREQ(ZEL_Status2String(24846), "[0x610E (24846)] CRYPTO_SUBSYS_INVALID_ECC_PUB_KEY");
    // The buffer is reused by the next call.
    const char *a = ZEL_Status2String(1);
    ZEL_Status2String(2);
    EXPECT_STREQ(a, "[0x02 (2)] ZEL_CHKSUM_ERROR");
}

TEST(StatusText, SessionCodes)
{
    EXPECT_STREQ(ZEL_SessionStatus2String(0), "[0x00 (0)] ZEL_SESSION_UNKNOWN_ERROR");
    EXPECT_STREQ(ZEL_SessionStatus2String(102), "[0x66 (102)] ZEL_NFC_SESSION_ERROR_SECURITY_VIOLATION");
    EXPECT_STREQ(ZEL_SessionStatus2String(7), "[0x07 (7)] Undocumented error");
    // Separate buffers: a session text survives a status text.
    const char *s = ZEL_SessionStatus2String(1);
    ZEL_Status2String(8);
    EXPECT_STREQ(s, "[0x01 (1)] ZEL_SESSION_CLOSED");
}

TEST(CardTypeText, EightBitsAndUnknownRows)
{
    EXPECT_STREQ(ZEL_OrbCardType2String(0), "TAG_UNKNOWN");
    EXPECT_STREQ(ZEL_OrbCardType2String(0x16), "TAG_UNKNOWN");
    EXPECT_STREQ(ZEL_OrbCardType2String(0x21), "ORB_MIFARE_CLASSIC_1K");
    EXPECT_STREQ(ZEL_OrbCardType2String(0x121), "ORB_MIFARE_CLASSIC_1K");
    EXPECT_STREQ(ZEL_OrbCardType2String(0x01), "ORB_MIFARE_ULTRALIGHT");
    EXPECT_STREQ(ZEL_OrbCardType2String(0xAA), "OrbSigner145");
    EXPECT_STREQ(ZEL_OrbCardType2String(0xAB), "TAG_UNKNOWN");
    EXPECT_STREQ(ZEL_OrbCardType2String(0xFF), "TAG_UNKNOWN");
    int named = 0;
    for (uint32_t code = 0; code < 256; ++code)
        named += std::string(ZEL_OrbCardType2String(code)) != "TAG_UNKNOWN";
    EXPECT_EQ(named, 79);
}

} // namespace
