// The tool's option tables: what they take from a command's words, what they refuse, and the help and manual
// they give.
#include <gtest/gtest.h>

#include <string>

#include "tools/cli.h"
#include "tools/options.h"

namespace {

const tandro::OptionTable kTable = {
    {{"read BLOCK", "reads a block"}, {"write BLOCK DATA", "writes one"}},
    {
        {"--uid", "HEX", "the card with this UID"},
        {"-o,--out", "FILE", "where the bytes go"},
        {"--pad", nullptr, "pads short data"},
        {"-n,--dry-run", nullptr, "says what would be written"},
    },
    "First paragraph.\n\nSecond paragraph.",
};

tandro::Parsed parse_ok(const tandro::Args &words)
{
    tandro::Parsed p;
    EXPECT_TRUE(tandro::parse("test", kTable, words, p));
    return p;
}

TEST(ToolOptions, OptionsAnywhereAmongTheWordsInEitherSpelling)
{
    const tandro::Parsed p = parse_ok({"--uid", "0411", "write", "-o", "f.bin", "4", "--pad", "00FF"});
    EXPECT_EQ(p.words, (tandro::Args{"write", "4", "00FF"}));
    EXPECT_EQ(p.value("--uid"), "0411");
    EXPECT_EQ(p.value("--out"), "f.bin"); // the short name lands under the long one
    EXPECT_TRUE(p.has("--pad"));
    EXPECT_FALSE(p.has("--dry-run"));
    EXPECT_EQ(p.value("--dry-run", "none"), "none");

    const tandro::Parsed q = parse_ok({"read", "--uid=04AB", "--out=a=b", "1"});
    EXPECT_EQ(q.words, (tandro::Args{"read", "1"}));
    EXPECT_EQ(q.value("--uid"), "04AB");
    EXPECT_EQ(q.value("--out"), "a=b");
}

TEST(ToolOptions, RepeatedOptionsKeepEveryValueInOrder)
{
    const tandro::Parsed p = parse_ok({"--uid", "01", "-n", "--uid", "02", "--dry-run", "read"});
    EXPECT_EQ(p.values("--uid"), (tandro::Args{"01", "02"}));
    EXPECT_EQ(p.value("--uid"), "02");
    EXPECT_EQ(p.count("--dry-run"), 2u);
}

TEST(ToolOptions, WordsThatLookLikeOptions)
{
    // A negative number is a word, and after "--" everything is.
    EXPECT_EQ(parse_ok({"read", "-5"}).words, (tandro::Args{"read", "-5"}));
    const tandro::Parsed p = parse_ok({"write", "--", "--pad", "-o"});
    EXPECT_EQ(p.words, (tandro::Args{"write", "--pad", "-o"}));
    EXPECT_FALSE(p.has("--pad"));
    // An option's value may itself begin with a dash only when attached.
    EXPECT_EQ(parse_ok({"--out=-"}).value("--out"), "-");
}

TEST(ToolOptions, RefusalsAreUsageErrorsThatNameTheWord)
{
    struct Case {
        tandro::Args words;
        const char *named;
    } const cases[] = {
        {{"read", "--bogus"}, "unknown option --bogus"},
        {{"read", "--uid"}, "--uid needs a value"},
        {{"--out"}, "--out needs a value"},
        {{"--pad=yes", "read"}, "--pad takes no value"},
    };
    for (const Case &c : cases) {
        tandro::Parsed p;
        p.words = {"stale"};
        EXPECT_FALSE(tandro::parse("test", kTable, c.words, p)) << c.named;
        EXPECT_NE(tandro::last_failure().message.find(c.named), std::string::npos)
            << c.named << ": " << tandro::last_failure().message;
        EXPECT_FALSE(tandro::last_failure().has_status) << c.named;
    }
}

TEST(ToolOptions, AnOptionOfSeveralWordsTakesThemAllEachTime)
{
    const tandro::OptionTable table = {
        {{"sign FILE", "signs a file"}},
        {{"--key", "TYPE SLOT", "the key"}, {"--out", "FILE", "where it goes"}},
    };
    tandro::Parsed p;
    ASSERT_TRUE(tandro::parse("test", table, {"--key", "ec", "2", "sign", "f", "--key", "rsa", "1"}, p));
    EXPECT_EQ(p.words, (tandro::Args{"sign", "f"}));
    EXPECT_EQ(p.values("--key"), (tandro::Args{"ec", "2", "rsa", "1"}));
    // The words after it are the command's again.
    ASSERT_TRUE(tandro::parse("test", table, {"sign", "--key", "ec", "0", "f", "--out", "o"}, p));
    EXPECT_EQ(p.words, (tandro::Args{"sign", "f"}));
    EXPECT_EQ(p.value("--out"), "o");

    // Fewer words than it takes: a usage error that says what it takes.
    for (const tandro::Args &words : {tandro::Args{"sign", "f", "--key", "ec"}, tandro::Args{"--key"}}) {
        EXPECT_FALSE(tandro::parse("test", table, words, p));
        EXPECT_NE(tandro::last_failure().message.find("--key needs TYPE SLOT"), std::string::npos)
            << tandro::last_failure().message;
    }
    // A single word option keeps its own message beside it.
    EXPECT_FALSE(tandro::parse("test", table, {"sign", "--out"}, p));
    EXPECT_NE(tandro::last_failure().message.find("--out needs a value"), std::string::npos);

    const tandro::Command command{"test", "sign FILE", "signs", nullptr, false, &table};
    EXPECT_NE(tandro::command_help_text(command).find("--key TYPE SLOT"), std::string::npos);
}

TEST(ToolOptions, HelpAndManualComeFromTheTable)
{
    const tandro::Command command{"test", "read|write ...", "a command for the test", nullptr, false, &kTable};
    const std::string help = tandro::command_help_text(command);
    for (const char *part :
         {"usage: tandro [OPTIONS] test read|write ...", "a command for the test", "First paragraph.",
          "test write BLOCK DATA", "writes one", "-o, --out FILE", "where the bytes go", "-n, --dry-run"})
        EXPECT_NE(help.find(part), std::string::npos) << part << "\n" << help;

    const std::string man = tandro::manual_page("1.2.3");
    EXPECT_EQ(man.rfind(".TH TANDRO 1 ", 0), 0u);
    for (const char *part : {"\\fB\\-\\-json\\fR", "TANDRO_PORT", ".SH EXIT STATUS"})
        EXPECT_NE(man.find(part), std::string::npos) << part;
    // No line of the page starts with a stray control character from the text.
    size_t at = 0;
    while ((at = man.find('\n', at)) != std::string::npos) {
        ++at;
        if (at < man.size() && man[at] == '\'')
            ADD_FAILURE() << "a line begins with a quote at " << at;
    }
}

} // namespace
