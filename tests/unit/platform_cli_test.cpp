#include <gtest/gtest.h>

#include <iterator>
#include <string>
#include <vector>

#include "platform/kutl/kutl.h"

namespace {

// What the last handler call received: the row's name and its argument words.
std::vector<std::string> last_call;

template <const char* Name>
int record(int argc, const char* const* argv) {
    last_call.assign(1, Name);
    for (int i = 0; i < argc; ++i)
        last_call.emplace_back(argv[i]);
    return 7; // not passed on
}

constexpr char kView[] = "view";
constexpr char kViewStatistic[] = "view statistic";
constexpr char kViewDebug[] = "view debug setting";
constexpr char kLevel[] = "define debug level";
constexpr char kMode[] = "define debug mode";
constexpr char kRedirect[] = "redirect printf";

const kutl_cli_cmd kTable[] = {
    {kView, 0, {}, record<kView>},
    {kViewStatistic, 0, {}, record<kViewStatistic>},
    {kViewDebug, 0, {}, record<kViewDebug>},
    {kLevel,
     2,
     {{KUTL_CLI_ARG_WORDS, "proxy|io|endec|"}, {KUTL_CLI_ARG_WORDS, "none|error||all|"}},
     record<kLevel>},
    {kMode, 1, {{KUTL_CLI_ARG_UNCHECKED, nullptr}}, record<kMode>},
    {kRedirect, 1, {{KUTL_CLI_ARG_TEXT, nullptr}}, record<kRedirect>},
};

int run(const char* line) {
    last_call.clear();
    return kutl_process_cli_cmd(kTable, static_cast<int>(std::size(kTable)), line);
}

using Call = std::vector<std::string>;

TEST(CliTable, LeadingWordsMatchWholeAndWithoutCase) {
    EXPECT_EQ(run("view statistic"), KUTL_CLI_OK);
    EXPECT_EQ(last_call, Call{kViewStatistic});
    EXPECT_EQ(run("  VIEW \t Statistic\r\n"), KUTL_CLI_OK);
    EXPECT_EQ(last_call, Call{kViewStatistic});
    // The row with the most command words wins over the shorter "view".
    EXPECT_EQ(run("view debug setting"), KUTL_CLI_OK);
    EXPECT_EQ(last_call, Call{kViewDebug});
    EXPECT_EQ(run("view"), KUTL_CLI_OK);
    EXPECT_EQ(last_call, Call{kView});
    // No abbreviations: "stat" is no command word, so "view" matches and gets a stray argument.
    EXPECT_EQ(run("view stat"), KUTL_CLI_BAD_ARGS);
    EXPECT_TRUE(last_call.empty());
    EXPECT_EQ(run("view debug"), KUTL_CLI_BAD_ARGS);
}

TEST(CliTable, UnknownEmptyAndOversizedLinesMatchNothing) {
    for (const char* line :
         {"", "   \t", "help", "define", "debug level io all", "viewstatistic"}) {
        EXPECT_EQ(run(line), KUTL_CLI_NO_MATCH) << line;
        EXPECT_TRUE(last_call.empty()) << line;
    }
    EXPECT_EQ(kutl_process_cli_cmd(kTable, 0, "view"), KUTL_CLI_NO_MATCH);
    EXPECT_EQ(run(("view " + std::string(1100, 'x')).c_str()), KUTL_CLI_TOO_LONG);
    std::string many = "view";
    for (int i = 0; i < 40; ++i)
        many += " w";
    EXPECT_EQ(run(many.c_str()), KUTL_CLI_TOO_LONG);
}

TEST(CliTable, ListedWordsAreCheckedAndPassedAsTyped) {
    EXPECT_EQ(run("define debug level IO All"), KUTL_CLI_OK);
    EXPECT_EQ(last_call, (Call{kLevel, "IO", "All"}));
    EXPECT_EQ(run("define debug level endec none"), KUTL_CLI_OK); // first and last listed words
    EXPECT_EQ(last_call, (Call{kLevel, "endec", "none"}));
    for (const char* line :
         {"define debug level io loud", "define debug level cache all", "define debug level io al",
          "define debug level io", "define debug level io all extra", "define debug level | all"}) {
        EXPECT_EQ(run(line), KUTL_CLI_BAD_ARGS) << line;
        EXPECT_TRUE(last_call.empty()) << line;
    }
}

TEST(CliTable, UncheckedWordAndFreeTextArguments) {
    EXPECT_EQ(run("define debug mode x7"), KUTL_CLI_OK);
    EXPECT_EQ(last_call, (Call{kMode, "x7"}));
    EXPECT_EQ(run("define debug mode 1 2"), KUTL_CLI_BAD_ARGS);
    EXPECT_EQ(run("define debug mode"), KUTL_CLI_BAD_ARGS);
    // Free text as the last argument takes the rest of the line, inner blanks kept.
    EXPECT_EQ(run("redirect printf /dev/pts/3"), KUTL_CLI_OK);
    EXPECT_EQ(last_call, (Call{kRedirect, "/dev/pts/3"}));
    EXPECT_EQ(run("redirect printf /tmp/my  dir/out  \n"), KUTL_CLI_OK);
    EXPECT_EQ(last_call, (Call{kRedirect, "/tmp/my  dir/out"}));
    EXPECT_EQ(run("redirect printf"), KUTL_CLI_BAD_ARGS);
}

} // namespace
