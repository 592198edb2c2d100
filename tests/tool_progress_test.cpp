// The tool's progress bar text: proportional, clamped at its end, and safe with a total of zero.
#include <gtest/gtest.h>

#include "tools/progress.h"

TEST(ToolProgress, BarTextIsProportionalAndClamped)
{
    EXPECT_EQ(tandro::Progress::line("reading", 0, 200, "bytes"),
              "reading [                              ]   0% 0/200 bytes");
    EXPECT_EQ(tandro::Progress::line("reading", 100, 200, "bytes"),
              "reading [###############               ]  50% 100/200 bytes");
    // More than the total (frames carry more than the payload) stays at the end.
    EXPECT_EQ(tandro::Progress::line("w", 5000, 4000, "bytes"),
              "w [##############################] 100% 4000/4000 bytes");
    // A 64-bit count does not wrap the arithmetic.
    const uint64_t big = 1ull << 40;
    EXPECT_EQ(tandro::Progress::line("x", big / 4, big, "B").substr(0, 39), "x [#######                       ]  25%");
    EXPECT_EQ(tandro::Progress::line("z", 3, 0, "bytes"), "z [##############################] 100% 1/1 bytes");
}

TEST(ToolProgress, NothingIsDrawnUnderJsonOrQuiet)
{
    tandro::Options json;
    json.json = true;
    tandro::Options quiet;
    quiet.quiet = true;
    EXPECT_FALSE(tandro::Progress(json, "a", 10).shown());
    EXPECT_FALSE(tandro::Progress(quiet, "a", 10).shown());
    tandro::Options plain;
    EXPECT_FALSE(tandro::Progress(plain, "a", 0).shown()); // nothing to count
}
