#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>

#include "velt_cmd_line_options.h"
#include "velt_library_options.h"
#include "velt_log.h"

namespace
{

CmdLineOptions& registry()
{
    return CmdLineOptions::GetInstance();
}

/* Each test starts and ends with every option at its default. */
class Options : public ::testing::Test
{
  protected:
    void SetUp() override { registry().Reset(); }
    void TearDown() override { registry().Reset(); }
};

/* Parses one "name=value" through the non-exiting path; the option's value as text, or "FAIL". */
template <typename T> std::string parse(T& option, const char* value)
{
    std::string error;
    testing::internal::CaptureStdout();
    const bool ok = registry().SetOption(option.name, value, error);
    testing::internal::GetCapturedStdout();
    return ok ? option.ValueText() : "FAIL";
}

TEST_F(Options, LibraryOptionsInRegistrationOrderWithHelpAndDefaults)
{
    const std::string usage =
        "  verbosity        - set SW APPLIB verbosity level (2=Highest,3=High,4=Event,5=Medium,6=Low,7=Lowest)\n"
        "  function_stats   - measure api call times\n"
        "  notimeout        - notimeout=TRUE disable host message timeout, else 10 sec default value\n"
        "  warm_restart     - Perform warm_restart\n"
        "  trace_status_get - skip/trace status get APIs, default=0\n"
        "  trace_reg_read   - skip/trace reg read APIs, default=0\n"
        "  log_dir          - log directory for 'dot' files.\n";
    EXPECT_EQ(registry().UsageText(), usage);
    std::string defaults;
    for (const CmdLineOption* option : registry().options())
        defaults += std::string(option->name) + "=" + option->ValueText() + " ";
    EXPECT_EQ(defaults, "verbosity=Event function_stats=false notimeout=false warm_restart=0 trace_status_get=false "
                        "trace_reg_read=false log_dir= ");
    EXPECT_EQ(registry().Find("log_dir"), &velt_option_log_dir);
    testing::internal::CaptureStdout();
    kavo_options_usage_print();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), usage);
    // A heading prints alone; the longest name sets the column of every help text.
    BoolOption heading("", "Test options:");
    BoolOption longest("t_a_rather_long_option_name", "help of long");
    const std::string text = registry().UsageText();
    EXPECT_EQ(text.rfind("  verbosity                   - set SW APPLIB verbosity level", 0), 0u) << text;
    EXPECT_NE(text.find("\nTest options:\n  t_a_rather_long_option_name - help of long\n"), std::string::npos);
    EXPECT_FALSE(registry().MatchesAnOption(""));
}

TEST_F(Options, ValueGrammarOfEachKind)
{
    BoolOption b("t_bool", "");
    IntOption i("t_int", "", 7);
    UintOption u("t_uint", "", 7);
    DoubleOption d("t_double", "", 1.5);
    StringOption s("t_string", "", "dflt");
    IntRangeOption r("t_range", "");
    EnumOption e("t_enum", "", 1, {{1, "One", "first"}, {2, "Two", "second"}});
    EnumPairOption p("t_pair", "", {0, 0}, {{1, "a", ""}}, {{2, "b", ""}});
    VerbosityOption& v = velt_option_verbosity;
    struct Row {
        CmdLineOption* option;
        const char* text;
        const char* expected;
    } rows[] = {
        // clang-format off
        {&b, "", "true"}, {&b, "1", "true"}, {&b, "ON", "true"}, {&b, "Yes", "true"}, {&b, "TRUE", "true"},
        {&b, "0", "false"}, {&b, "no", "false"}, {&b, "Off", "false"}, {&b, "FALSE", "false"}, {&b, "2", "FAIL"},
        {&b, "y", "FAIL"},
        {&i, "0x10", "16"}, {&i, "0X1f", "31"}, {&i, "010", "10"}, {&i, "-5", "-5"}, {&i, "-0x10", "-16"}, {&i, "0x0x10", "FAIL"}, {&i, "0x", "FAIL"},
        {&i, "12a", "FAIL"}, {&i, "", "FAIL"}, {&i, " 1", "FAIL"}, {&i, "2147483648", "FAIL"}, {&i, "0x", "FAIL"},
        {&u, "4294967295", "4294967295"}, {&u, "0xffffffff", "4294967295"}, {&u, "4294967296", "FAIL"},
        {&u, "-1", "FAIL"},
        {&d, "2.5", "2.5"}, {&d, "1/4", "0.25"}, {&d, "1/0", "FAIL"}, {&d, "x", "FAIL"}, {&d, "1/", "FAIL"},
        {&s, "", ""}, {&s, "a b=c", "a b=c"},
        {&r, "5", "5..5"}, {&r, "5+3", "5..8"}, {&r, "2..9", "2..9"}, {&r, "-3..-1", "-3..-1"}, {&r, "x..2", "FAIL"},
        {&e, "2", "Two"}, {&e, "0x01", "One"}, {&e, "two", "Two"}, {&e, "9", "9"}, {&e, "Three", "FAIL"},
        {&p, "a,b", "a,b"}, {&p, "1,7", "a,7"}, {&p, "a", "FAIL"}, {&p, "x,b", "FAIL"},
        {&v, "Highest", "Error"}, {&v, "0", "0"}, {&v, "8", "8"}, {&v, "-1", "-1"}, {&v, "0x0x10", "FAIL"}, // two names for 2; 0 silent; any number
        // clang-format on
    };
    for (const Row& row : rows) {
        row.option->Reset();
        EXPECT_EQ(parse(*row.option, row.text), row.expected) << row.option->name << "=" << row.text;
    }
}

TEST_F(Options, IntListAddsValuesStepsAndMaskBits)
{
    IntListOption l("t_list", "", 2);
    struct Row {
        const char* text;
        std::vector<int> values;
        UINT32 mask;
    } rows[] = {
        {"3", {3}, 1u << 3},       {"4+3", {4, 6, 8}, 0x150},       {"1+3/5", {1, 6, 11}, 0x842},
        {"0..5", {0, 2, 4}, 0x15}, {"33,-1", {33, -1}, 0x80000002}, {"7..7", {7}, 0x80},
        // the ends of int, and counts of zero that add nothing wherever they start
        {"-2147483648", {INT_MIN}, 1u}, {"2147483645+2", {2147483645, INT_MAX}, 0xa0000000},
        {"2147483647+0", {}, 0},        {"-2147483648+0", {}, 0},
    };
    for (const Row& row : rows) {
        l.Reset();
        EXPECT_EQ(parse(l, row.text), row.text);
        EXPECT_EQ(l.value, row.values) << row.text;
        EXPECT_EQ(l.mask, row.mask) << row.text;
    }
    // Malformed tokens, values past int, and more than 65536 values in all fail.
    for (const char* bad : {"x", "5..1", "1+-2", "1+3/x", "1,x", "2147483646+2", "-2147483647+2/-2",
                            "0..2000000000", "0..131072", "0..131070,1"}) {
        l.Reset();
        EXPECT_EQ(parse(l, bad), "FAIL") << bad;
        EXPECT_TRUE(l.value.empty()) << bad; // a failed text adds nothing
    }
    l.Reset();
    EXPECT_EQ(parse(l, "0..131070"), "0..131070");
    EXPECT_EQ(l.value.size(), 65536u);
    // A failed text leaves what earlier texts put in the list.
    l.Reset();
    EXPECT_EQ(parse(l, "5"), "5");
    EXPECT_EQ(parse(l, "6,7,x"), "FAIL");
    EXPECT_EQ(l.value, std::vector<int>{5});
    EXPECT_EQ(l.mask, 1u << 5);
    EXPECT_EQ(l.ValueText(), "5");
    EXPECT_FALSE(l.ParseValue("")); // an empty argument ends a list rather than joining it
    // A list whose default step is not positive takes no ranges.
    IntListOption flat("t_flat", "", 0);
    EXPECT_EQ(parse(flat, "1..3"), "FAIL");
}

TEST_F(Options, ArgumentFormsAndCaseSensitivity)
{
    for (const char* arg : {"--verbosity=6", "-verbosity=6", "verbosity=6", "verbosity=Low"}) {
        registry().Reset();
        const char* argv[] = {"parse_string", arg};
        std::string error;
        EXPECT_TRUE(registry().ParseOptionsOrError(2, argv, error)) << arg;
        EXPECT_EQ(velt_option_verbosity.value, 6) << arg;
        EXPECT_EQ(global_verbosity, VELT_LOG_SEV_LOW) << arg;
        EXPECT_TRUE(velt_option_verbosity.is_set);
    }
    for (const char* arg : {"Verbosity=6", "---verbosity=6", "verbosity6", "", "-"}) {
        const char* argv[] = {"parse_string", arg};
        std::string error;
        EXPECT_FALSE(registry().ParseOptionsOrError(2, argv, error)) << arg;
        EXPECT_EQ(error, std::string("no match for '") + arg + "'\n");
        EXPECT_FALSE(registry().MatchesAnOption(arg));
    }
    const char* argv[] = {"parse_string", "function_stats", "warm_restart=0x10", "trace_status_get=yes"};
    std::string error;
    EXPECT_TRUE(registry().ParseOptionsOrError(4, argv, error));
    EXPECT_TRUE(velt_option_function_stats.value);
    EXPECT_EQ(velt_option_warm_restart.value, 16u);
    EXPECT_TRUE(velt_global_trace_status_logging_enabled);
    const char* bad[] = {"parse_string", "warm_restart=-1"};
    EXPECT_FALSE(registry().ParseOptionsOrError(2, bad, error));
    EXPECT_EQ(error, "error parsing '-1'\n");  // the value, as from the environment
    registry().Reset();
    EXPECT_FALSE(velt_global_trace_status_logging_enabled);
    EXPECT_EQ(global_verbosity, VELT_LOG_SEV_EVENT);
}

TEST_F(Options, ListsTakeFollowingArgumentsUntilOneDoesNotFit)
{
    StringListOption all("t_all", "");
    OptionFreeStringListOption free_list("t_free", "");
    IntListOption ints("t_ints", "");
    const char* argv[] = {"parse_string", "t_ints=1", "2..3", "t_free",  "x",           "-y",
                          "notimeout",    "t_ints",   "9",    "t_all=a", "notimeout=0", "b"};
    std::string error;
    ASSERT_TRUE(registry().ParseOptionsOrError(12, argv, error)) << error;
    EXPECT_EQ(ints.value, (std::vector<int>{1, 2, 3, 9}));
    EXPECT_EQ(free_list.value, (std::vector<std::string>{"x", "-y"}));
    EXPECT_EQ(all.value, (std::vector<std::string>{"a", "notimeout=0", "b"}));
    EXPECT_TRUE(velt_option_notimeout.value); // named between the lists, and not taken by t_all
}

TEST_F(Options, ParseStringKeepsItsTokensAndSetsNoTitle)
{
    testing::internal::CaptureStdout();
    registry().ParseString("  log_dir=\"/tmp/a b\"\twarm_restart=3 ");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(velt_option_log_dir.value, "/tmp/a b");
    EXPECT_EQ(velt_option_warm_restart.value, 3u);
    const auto& tokens = registry().tokens_allocated_by_ParseString;
    ASSERT_GE(tokens.size(), 2u);
    EXPECT_EQ(tokens[tokens.size() - 2], "log_dir=/tmp/a b");
}

TEST_F(Options, ArgumentVectorBecomesTheTerminalTitle)
{
    const char* argv[] = {"/usr/bin/prog", "notimeout", "log_dir=x"};
    testing::internal::CaptureStdout();
    registry().ParseOptions(3, argv);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "\033]0;prog notimeout log_dir=x\a");
}

TEST_F(Options, EnvironmentVariableIsAppliedAtConstruction)
{
    setenv("VELT_t_env", "0x20", 1);
    testing::internal::CaptureStdout();
    IntOption option("t_env", "");
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "setting t_env to \"0x20\" (from environment variable VELT_t_env)\n");
    EXPECT_EQ(option.value, 32);
    EXPECT_TRUE(option.is_set);
    unsetenv("VELT_t_env");
}

TEST_F(Options, VerbosityNamesAndInvalidNameListing)
{
    EXPECT_STREQ(velt_option_verbosity.GetString(2), "Error");
    EXPECT_STREQ(velt_option_verbosity.GetString(7), "Lowest");
    EXPECT_EQ(velt_option_verbosity.GetString(9), nullptr);
    testing::internal::CaptureStdout();
    EXPECT_FALSE(velt_option_verbosity.ParseValue("Loud"));
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "option verbosity: 'Loud' is not a valid value\nvalid enumerations are: \n"
              "  Fatal   0x01 \n  Error   0x02 \n  Highest 0x02 \n  High    0x03 \n"
              "  Event   0x04 \n  Medium  0x05 \n  Low     0x06 \n  Lowest  0x07 \n");
    testing::internal::CaptureStdout();
    DoubleOption d("t_ratio", "");
    EXPECT_TRUE(d.ParseValue("3/2"));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "setting t_ratio to 3/2 = 1.5\n");
}

TEST_F(Options, AliasesApplyTheirTargets)
{
    AliasOption debug("t_debug", "", "verbosity=7");
    AliasOption dir("t_dir", "", "log_dir");
    AliasListOption trace("t_trace", "", {"trace_status_get", "trace_reg_read=1"});
    AliasOption loop("t_loop", "", "t_loop");
    EXPECT_EQ(parse(debug, ""), "verbosity=7");
    EXPECT_EQ(parse(dir, "/x"), "log_dir");
    EXPECT_EQ(parse(trace, ""), "trace_status_get trace_reg_read=1");
    EXPECT_EQ(velt_option_verbosity.value, 7);
    EXPECT_EQ(velt_option_log_dir.value, "/x");
    EXPECT_TRUE(velt_option_trace_status_get.value && velt_option_trace_reg_read.value);
    for (CmdLineOption* fixed : {(CmdLineOption*)&debug, (CmdLineOption*)&trace}) // the target's value is fixed
        EXPECT_EQ(parse(*fixed, "1"), "FAIL") << fixed->name;
    EXPECT_EQ(parse(loop, ""), "FAIL");
}

TEST_F(Options, CInterface)
{
    char buffer[8];
    EXPECT_EQ(kavo_option_set("warm_restart", "5"), (VELT_ERROR)VELT_SUCCESS);
    EXPECT_EQ(kavo_option_get("warm_restart", buffer, sizeof(buffer)), (VELT_ERROR)VELT_SUCCESS);
    EXPECT_STREQ(buffer, "5");
    EXPECT_EQ(kavo_option_set("warm_restart", "five"), (VELT_ERROR)VELT_ERR_INVALID_ARGS);
    EXPECT_EQ(velt_option_warm_restart.value, 5u);
    EXPECT_EQ(kavo_option_set("nosuch", "1"), (VELT_ERROR)VELT_ERR_INVALID_ARGS);
    EXPECT_EQ(kavo_option_set(nullptr, "1"), (VELT_ERROR)VELT_ERR_INVALID_ARGS);
    EXPECT_EQ(kavo_option_set("notimeout", nullptr), (VELT_ERROR)VELT_SUCCESS);
    EXPECT_TRUE(velt_option_notimeout.value);
    EXPECT_EQ(kavo_option_set("log_dir", "/a/very/long/dir"), (VELT_ERROR)VELT_SUCCESS);
    EXPECT_EQ(kavo_option_get("log_dir", buffer, sizeof(buffer)), (VELT_ERROR)VELT_SUCCESS);
    EXPECT_STREQ(buffer, "/a/very");
    EXPECT_EQ(kavo_option_get("nosuch", buffer, sizeof(buffer)), (VELT_ERROR)VELT_ERR_INVALID_ARGS);
    EXPECT_EQ(kavo_option_get("log_dir", nullptr, 4), (VELT_ERROR)VELT_ERR_INVALID_ARGS);
    EXPECT_EQ(kavo_option_is_known("trace_reg_read"), 1);
    EXPECT_EQ(kavo_option_is_known("Trace_reg_read"), 0);
    EXPECT_EQ(kavo_option_is_known(nullptr), 0);
    kavo_options_parse_string("--trace_reg_read=on");
    EXPECT_TRUE(velt_option_trace_reg_read.value);
    kavo_options_reset();
    EXPECT_FALSE(velt_option_trace_reg_read.value);
}

/* Parse errors end the process through Usage() with exit status -1. Standard
   output is sent to the death test's stderr so that its text can be matched. */
void to_stderr()
{
    dup2(STDERR_FILENO, STDOUT_FILENO);
}

TEST(OptionsDeath, ParseErrorsEndTheProcessWithUsage)
{
    const char* unknown[] = {"parse_string", "bogus"};
    EXPECT_EXIT((to_stderr(), registry().ParseOptions(2, unknown)), testing::ExitedWithCode(255),
                "no match for 'bogus'\n.*  verbosity +- set SW");
    const char* bad[] = {"parse_string", "notimeout=maybe"};
    EXPECT_EXIT((to_stderr(), registry().ParseOptions(2, bad)), testing::ExitedWithCode(255),
                "error parsing 'maybe'\n");
    EXPECT_EXIT((to_stderr(), registry().ParseString("function_stats=2")), testing::ExitedWithCode(255),
                "error parsing '2'\n");
    EXPECT_EXIT((to_stderr(), kavo_options_parse_args(2, unknown)), testing::ExitedWithCode(255), "no match");
    EXPECT_EXIT((to_stderr(), registry().Usage()), testing::ExitedWithCode(255), "log_dir +- log directory");
    setenv("VELT_t_env_bad", "zz", 1);
    EXPECT_EXIT((to_stderr(), IntOption("t_env_bad", "")), testing::ExitedWithCode(255), "error parsing 'zz'\n");
    unsetenv("VELT_t_env_bad");
}

} // namespace
