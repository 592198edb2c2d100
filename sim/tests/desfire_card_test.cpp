// The simulated DESFire card's native commands by where the card stands: card commands anywhere, file
// management in an application, file commands on an existing file, and the status of everything else.
#include <gtest/gtest.h>

#include <vector>

#include "desfire.h"
#include "zelsim.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct DesfireDispatch : ::testing::Test {
    zsim_card id = {{0x04, 1, 2, 3, 4, 5, 6}, 7, 0x20, 0x0344, 0x29};
    zs::DfSetup setup; // card master key: zero 2K3DES, applications created freely
    zs::DesfireCard card{id, setup};

    Bytes run(const Bytes &c) { return card.native(c.data(), c.size()); }
    uint8_t status(const Bytes &c) { return run(c).at(0); }

    // Application 010000 with a standard file 1 of 8 bytes, selected.
    void application_with_file()
    {
        ASSERT_EQ(status({0xCA, 0x00, 0x00, 0x01, 0x0F, 0x01}), zs::DF_OK);
        ASSERT_EQ(status({0x5A, 0x00, 0x00, 0x01}), zs::DF_OK);
        ASSERT_EQ(status({0xCD, 0x01, 0x00, 0xEE, 0xEE, 0x08, 0x00, 0x00}), zs::DF_OK);
    }
};

TEST_F(DesfireDispatch, AtTheCardLevel)
{
    EXPECT_EQ(run({}), Bytes{zs::DF_LENGTH});
    const Bytes free = run({0x6E});
    ASSERT_EQ(free.size(), 4u);
    EXPECT_EQ(free[0], zs::DF_OK);
    EXPECT_EQ(free[1] | free[2] << 8 | free[3] << 16, static_cast<int>(card.free_memory()));
    EXPECT_EQ(run({0x45}), (Bytes{zs::DF_OK, 0x0F, 0x01})) << "key settings: one TDES key";
    // The transaction has nothing to do here; every other command wants an application.
    EXPECT_EQ(run({0xC7}), Bytes{zs::DF_OK});
    EXPECT_EQ(run({0xA7}), Bytes{zs::DF_OK});
    for (const Bytes &c : {Bytes{0xBD, 0x01, 0, 0, 0, 0, 0, 0}, Bytes{0xF5, 0x01}, Bytes{0xDF, 0x01},
                           Bytes{0xCD, 0x01, 0x00, 0xEE, 0xEE, 0x08, 0x00, 0x00}, Bytes{0x99, 0x01}, Bytes{0x99}})
        EXPECT_EQ(run(c), Bytes{zs::DF_PERMISSION_DENIED}) << "command " << int(c[0]);
    EXPECT_EQ(status({0x5A, 0x00, 0x00, 0x07}), zs::DF_APP_NOT_FOUND);
    EXPECT_EQ(status({0x5A, 0x00, 0x00}), zs::DF_LENGTH);
}

TEST_F(DesfireDispatch, InAnApplication)
{
    application_with_file();
    // Card commands still answer; the application ids only at the card level.
    EXPECT_EQ(run({0x45}), (Bytes{zs::DF_OK, 0x0F, 0x01}));
    EXPECT_EQ(status({0x6E}), zs::DF_OK);
    EXPECT_EQ(status({0x6A}), zs::DF_PERMISSION_DENIED);
    // File commands: a short one, an unknown one, a missing file, then the file itself.
    EXPECT_EQ(run({0xF5}), Bytes{zs::DF_LENGTH});
    EXPECT_EQ(run({0x5F}), Bytes{zs::DF_LENGTH});
    EXPECT_EQ(run({0xBD}), Bytes{zs::DF_ILLEGAL_COMMAND});
    EXPECT_EQ(run({0x99}), Bytes{zs::DF_ILLEGAL_COMMAND});
    EXPECT_EQ(run({0x99, 0x01}), Bytes{zs::DF_ILLEGAL_COMMAND});
    EXPECT_EQ(run({0xBD, 0x09, 0, 0, 0, 0, 0, 0}), Bytes{zs::DF_FILE_NOT_FOUND});
    EXPECT_EQ(run({0xF5, 0x09}), Bytes{zs::DF_FILE_NOT_FOUND});
    EXPECT_EQ(run({0xF5, 0x01}), (Bytes{zs::DF_OK, 0x00, 0x00, 0xEE, 0xEE, 0x08, 0x00, 0x00}));
    EXPECT_EQ(run({0x3D, 0x01, 1, 0, 0, 2, 0, 0, 0xAB, 0xCD}), Bytes{zs::DF_OK});
    EXPECT_EQ(run({0xBD, 0x01, 0, 0, 0, 4, 0, 0}), (Bytes{zs::DF_OK, 0x00, 0xAB, 0xCD, 0x00}));
    EXPECT_EQ(run({0x6C, 0x01}), Bytes{zs::DF_PARAMETER}) << "no value file";
    // File management: a duplicate, then the file gone.
    EXPECT_EQ(status({0xCD, 0x01, 0x00, 0xEE, 0xEE, 0x08, 0x00, 0x00}), zs::DF_DUPLICATE);
    EXPECT_EQ(status({0xDF, 0x01}), zs::DF_OK);
    EXPECT_EQ(run({0xF5, 0x01}), Bytes{zs::DF_FILE_NOT_FOUND});
    EXPECT_EQ(status({0xDF, 0x01}), zs::DF_FILE_NOT_FOUND);
}

TEST_F(DesfireDispatch, AuthenticationAsksForTheFormOfTheKeyKind)
{
    const Bytes challenge = run({0x1A, 0x00});
    ASSERT_FALSE(challenge.empty());
    EXPECT_EQ(challenge[0], zs::DF_ADDITIONAL_FRAME);
    EXPECT_EQ(challenge.size(), 1u + 8u) << "a TDES key: an 8-byte challenge";
    EXPECT_EQ(run({0xAA, 0x00}), Bytes{zs::DF_AUTHENTICATION}) << "AES form for a TDES key";
    EXPECT_EQ(run({0x1A, 0x05}), Bytes{zs::DF_NO_SUCH_KEY});
    EXPECT_EQ(run({0x1A}), Bytes{zs::DF_LENGTH});
    // Without authentication the UID stays hidden and the card is not formatted.
    EXPECT_EQ(run({0x51}), Bytes{zs::DF_AUTHENTICATION});
    EXPECT_EQ(run({0xFC}), Bytes{zs::DF_AUTHENTICATION});
}

} // namespace
