#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "kavo_test_log.h"
#include "velt_shared_log.h"

namespace
{

class Log : public ::testing::Test
{
  protected:
    void SetUp() override { kavo_test::install_capture(); }
    void TearDown() override { velt_log_verbosity_level_set(0, VELT_LOG_SEV_EVENT); }
};

TEST_F(Log, HeaderIsPaddedSoThatTheMessageStartsInColumn61)
{
    // "-1:0x1f18:f.cpp:1:" is 18 characters, "()" two more.
    struct Row {
        size_t function_length;
        size_t header_length;
    } rows[] = {{1, 60}, {39, 60}, {40, 60}, {41, 61}, {60, 80}};
    for (const Row& row : rows) {
        const std::string function(row.function_length, 'f');
        velt_log_header(VELT_LOG_NO_DEVID, VELT_SHARED_LOG_TRACE, "dir/f.cpp", 1, function.c_str());
        const std::string header = kavo_test::take();
        EXPECT_EQ(header.size(), row.header_length) << row.function_length;
        EXPECT_EQ(header.rfind("-1:0x1f18:f.cpp:1:" + function + "()", 0), 0u);
        EXPECT_EQ(header.find_first_not_of(' ', 20 + row.function_length), std::string::npos);
    }
}

TEST_F(Log, SeverityAgainstVerbosityAndUnevaluatedArguments)
{
    for (int level : {0, 4, 7}) {
        velt_log_verbosity_level_set(3, (velt_log_sev_t)level); // any device: the level is process-wide
        EXPECT_EQ(velt_log_verbosity_level_get(9), level);
        for (int sev = 1; sev <= 7; ++sev) {
            int evaluated = 0;
            VELT_LOG(2, 0x2101, sev, " m%d\n", ++evaluated);
            const std::string out = kavo_test::take();
            const bool printed = sev <= level;
            EXPECT_EQ(evaluated, printed ? 1 : 0) << level << "/" << sev;
            EXPECT_EQ(out.empty(), !printed) << level << "/" << sev;
            if (printed) {
                EXPECT_EQ(out.substr(out.size() - 4), " m1\n") << out;
                EXPECT_EQ(out.rfind("2:0x2101:test_log.cpp:", 0), 0u) << out;
            }
        }
    }
}

TEST(LogFileName, ExtractsTheBaseName)
{
    const std::pair<const char*, const char*> rows[] = {{"a\\b/c", "c"},       {"a\\b", "b"}, {"abc", "abc"},
                                                        {"/x/y.cpp", "y.cpp"}, {"dir/", ""},  {"", ""}};
    for (const auto& [path, base] : rows)
        EXPECT_STREQ(velt_log_extract_file_name(path), base) << path;
    const char* path = "p/q";
    EXPECT_EQ(velt_log_extract_file_name(path), path + 2); // a pointer into the argument
}

TEST(LogFormatters, FormatIntoTheirOwnStaticBuffers)
{
    const char* reg = display_register(0x1234);
    EXPECT_STREQ(reg, "reg=0x00001234");
    EXPECT_STREQ(display_block_name(0xF00000), "block=0x00f00000");
    EXPECT_STREQ(display_register_read(0x744000, 0xFFFFFFFF, 1),
                 "read addr=0x00744000, mask=0xffffffff, value=0x00000001");
    EXPECT_STREQ(display_register_write(0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF),
                 "write addr=0xffffffff, mask=0xffffffff, value=0xffffffff");
    EXPECT_STREQ(reg, "reg=0x00001234"); // other formatters leave it alone
    EXPECT_EQ(display_register(0xFFFFFFFF), reg);
    EXPECT_STREQ(reg, "reg=0xffffffff");
}

TEST(LogBacktrace, HasNoFramesInThisBuild)
{
    velt_log_backtrace_t bt;
    std::memset(&bt, 0xAA, sizeof(bt));
    velt_log_backtrace_get(&bt);
    const velt_log_backtrace_t zero{};
    EXPECT_EQ(std::memcmp(&bt, &zero, sizeof(bt)), 0);
    EXPECT_EQ(velt_log_backtrace_string_get(), "");
}

TEST(LogSymbols, ExtractTheSymbolOfAPlatformLineAndTheFunctionOfASignature)
{
    const auto symbol = velt_log_extract_symbol;
    const auto function = velt_log_extract_function_name;
    const std::string long_symbol = "m(" + std::string(500, 's') + "+0x1) [0x1]";
    struct Row {
        void (*extract)(const char*, char*, int);
        std::string text;
        int size;
        const char* expected;
    } rows[] = {
        {symbol, "/usr/lib/libkavo.so.1(kavo_connect+0x1f) [0x7f0010]", 100, "kavo_connect"},
        {symbol, "./prog(main) [0x400]", 100, "main"},
        {symbol, "/a/b+c/mod(sym) [0x1]", 100, "sym"},
        {symbol, "mod(sym", 100, "sym"},
        {symbol, "mod(+0x10) [0x1]", 100, ""},
        {symbol, "prog [0x400]", 100, "prog [0x400]"},
        {symbol, "x+y(sym", 100, "x+y(sym"},
        {symbol, "/lib/m(kavo_connect+0x1f)", 5, "kavo"},
        {symbol, long_symbol, 100, "untouched"},
        {function, "void ns::foo(int a)", 100, "ns::foo"},
        {function, "foo(int a)", 100, "foo"},
        {function, "int bar<int>(x)", 100, "bar"},
        {function, "plain", 100, "plain"},
        {function, "unsigned long f", 100, "long f"},
        {function, "void abcdef(int)", 4, "abc"},
    };
    for (const Row& row : rows) {
        char out[100] = "untouched";
        row.extract(row.text.c_str(), out, row.size);
        EXPECT_STREQ(out, row.expected) << row.text;
    }
}

TEST(LogSymbols, CacheAddsReplacesAndLooksUpUnderItsLock)
{
    auto& table = kavo_symbol_table::instance();
    EXPECT_EQ(&table, &kavo_symbol_table::instance());
    int anchor[4];
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&table, &anchor, t] {
            for (int i = 0; i < 200; ++i) {
                table.add(&anchor[t], i % 2 ? "odd" : "even");
                EXPECT_NE(table.find(&anchor[t]), nullptr);
            }
        });
    for (auto& th : threads)
        th.join();
    EXPECT_STREQ(table.find(&anchor[0]), "odd");
    int other = 0;
    EXPECT_EQ(table.find(&other), nullptr);
    table.add(&anchor[1], "kavo_connect");
    char name[5];
    velt_log_lookup_symbol(&anchor[1], name, sizeof(name));
    EXPECT_STREQ(name, "kavo");
}

TEST(LogDeath, HaltingAndTerminatingPaths)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    kavo_test::install_capture();
    EXPECT_DEATH(velt_log_backtrace_get(nullptr), kavo_test::halts_with(VELT_SHARED_ERR_MEMSET_FAILED));
    int unknown = 0;
    char name[32];
    EXPECT_EXIT(velt_log_lookup_symbol(&unknown, name, sizeof(name)), testing::ExitedWithCode(1), "backtrace_symbols");
}

} // namespace
