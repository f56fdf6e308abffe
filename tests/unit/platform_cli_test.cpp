#include <gtest/gtest.h>

#include <iterator>
#include <string>

#include "platform/kutl/kutl.h"

namespace {

// The argument words of the last handler call, as "[a,b]"; empty when no handler ran.
std::string last_call;

int record(int argc, const char* const* argv) {
    last_call = "[";
    for (int i = 0; i < argc; ++i)
        last_call += (i ? "," : "") + std::string(argv[i]);
    last_call += "]";
    return 7; // not passed on
}

const kutl_cli_cmd kTable[] = {
    {"view", 0, {}, record},
    {"view statistic", 0, {}, record},
    {"view debug setting", 0, {}, record},
    {"define debug level",
     2,
     {{KUTL_CLI_ARG_WORDS, "proxy|io|endec|"}, {KUTL_CLI_ARG_WORDS, "none|error||all|"}},
     record},
    {"define debug mode", 1, {{KUTL_CLI_ARG_UNCHECKED, nullptr}}, record},
    {"redirect printf", 1, {{KUTL_CLI_ARG_TEXT, nullptr}}, record},
};

// A row with more words than "view" is taken over it: were "view" taken, its stray words would
// make the line fail.
TEST(CliTable, LeadingWordsArgumentCountsAndListedWords) {
    const int ok = KUTL_CLI_OK, bad = KUTL_CLI_BAD_ARGS, none = KUTL_CLI_NO_MATCH;
    const struct {
        std::string line;
        int ret;
        const char* call;
    } cases[] = {
        {"  VIEW \t Statistic\r\n", ok, "[]"},
        {"view debug setting", ok, "[]"},
        {"view stat", bad, ""}, // no abbreviations
        {"", none, ""},
        {"viewstatistic", none, ""},
        {"define debug level IO All", ok, "[IO,All]"}, // passed as typed
        {"define debug level endec none", ok, "[endec,none]"},
        {"define debug level io al", bad, ""},
        {"define debug level cache all", bad, ""},
        {"define debug level io", bad, ""},
        {"define debug level io all extra", bad, ""},
        {"define debug level | all", bad, ""},
        {"define debug mode x7", ok, "[x7]"},
        {"redirect printf /tmp/my  dir/out  \n", ok, "[/tmp/my  dir/out]"},
        {"redirect printf", bad, ""},
        {"view " + std::string(1100, 'x'), KUTL_CLI_TOO_LONG, ""},
    };
    for (const auto& c : cases) {
        last_call.clear();
        EXPECT_EQ(kutl_process_cli_cmd(kTable, static_cast<int>(std::size(kTable)), c.line.c_str()),
                  c.ret)
            << c.line;
        EXPECT_EQ(last_call, c.call) << c.line;
    }
}

} // namespace
