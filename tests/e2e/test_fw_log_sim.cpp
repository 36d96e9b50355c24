// The firmware log views on what the virtual chip's firmware writes: a console
// that has wrapped, its debug logs and statistics, a corrupted index and a
// restart.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "kavo_fw_log.h"
#include "kavo_sim/bus_client.h"
#include "kavo_sim/kavo_sim.h"
#include "kavo_test_log.h"

namespace {

constexpr UINT32 DEVICE = 7;
constexpr UINT32 BLOCK = VELT_DEVICE_LOG_BUFFERS_OCR_ADDR;

class FwLogSim : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(kavo_sim::chip_create(DEVICE), VELT_SUCCESS);
        tavo_callout_api_st* table = kavo_sim::callouts();
        kavo_test::install_capture(table->qspi_callout_api_ctx);
        client = std::make_unique<kavo_sim::bus_client>(table, DEVICE);
        ASSERT_TRUE(client->cold_start(kavo_sim::image_build(kavo_sim::image_version{})));
        sys = velt_sys_handle_create();
        velt_sys_init(sys, DEVICE);
        handle = velt_handle_t{&sys, 0xF00000};
        log.handle_init(DEVICE, &handle);
        log.log_init();
        testing::internal::CaptureStdout();
        log.stats_init();
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
        kavo_test::take();
    }
    void TearDown() override
    {
        velt_sys_handle_destroy(sys);
        kavo_sim::chip_destroy(DEVICE);
    }

    /* A line for the firmware's debug shell. */
    void shell(const std::string& line)
    {
        const auto r = client->exchange(KAVO_HTL_OPERATION_DEBUG_CMD, line.c_str(), (UINT32)line.size() + 1);
        ASSERT_TRUE(r.replied) << line;
        ASSERT_EQ(r.result(), VELT_SUCCESS) << line;
    }
    std::string debug_log()
    {
        testing::internal::CaptureStdout();
        log.show_debug_log(stdout);
        testing::internal::GetCapturedStdout();
        return kavo_test::take();
    }
    static size_t count(const std::string& text, const std::string& what)
    {
        size_t n = 0;
        for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
        return n;
    }

    std::unique_ptr<kavo_sim::bus_client> client;
    velt_sys_handle_t sys = nullptr;
    cpu_cfg_handle_t handle{};
    kavo_fw_log log;
};

TEST_F(FwLogSim, ConsoleShowsTheBootAndFollowsNewText)
{
    log.dump_console_buffer(stdout);
    const std::string boot = kavo_test::take();
    EXPECT_EQ(boot.rfind("velt_circular_buffer_reader: start of console log\nkavo firmware 3.0.2", 0), 0u) << boot;
    EXPECT_NE(boot.find("ready\nvelt_circular_buffer_reader: end of console log\n"), std::string::npos) << boot;

    log.console_log_mark();
    shell("echo first");
    shell("echo second");
    log.show_new_console_messages(stdout);
    const std::string out = kavo_test::take();
    EXPECT_EQ(out.rfind("-- firmware console ---\n\nprinting from _read_index=", 0), 0u) << out;
    EXPECT_EQ(out.substr(out.find("first")), "first\nsecond\n-- end of firmware console ---\n");
}

TEST_F(FwLogSim, ConsoleThatHasWrappedPrintsOldestFirstAndFollowsAcrossTheWrap)
{
    log.console_log_mark();
    // 36 characters a line: 11 words a record; 1000 of them lap the 8192-word ring.
    for (int round = 0; round < 10; ++round) {
        shell("repeat 100 0123456789 console line round " + std::to_string(round));
        log.show_new_console_messages(stdout);
        const std::string out = kavo_test::take();
        EXPECT_EQ(count(out, "console line round " + std::to_string(round) + "\n"), 100u) << round;
        EXPECT_EQ(count(out, "_read_index should be 0"), 0u) << out;
    }
    EXPECT_GE(client->rd(BLOCK + 4), 1u);  // the firmware's wrap count

    log.dump_console_buffer(stdout);
    const std::string all = kavo_test::take();
    EXPECT_EQ(count(all, "end marker found"), 0u);
    EXPECT_EQ(count(all, "kavo firmware"), 0u);  // the boot text was overwritten
    // Oldest first: rounds appear in increasing order, the last one complete.
    size_t last = 0;
    for (int round = 0; round < 10; ++round) {
        const size_t at = all.find("round " + std::to_string(round) + "\n");
        if (at == std::string::npos) continue;
        EXPECT_GE(at, last) << round;
        last = at;
    }
    EXPECT_EQ(count(all, "round 9\n"), 100u);
    const std::string tail = "round 9\nvelt_circular_buffer_reader: end of console log\n";
    EXPECT_EQ(all.substr(all.size() - tail.size()), tail);
}

TEST_F(FwLogSim, ReaderLappedByTheFirmwareReprintsTheRing)
{
    // Records of this text are 12 words; the reader must not sit on a record
    // boundary of the new lap, or it would not notice the lap.
    log.console_log_mark();
    if (log.read_buffer.read_index() % 12 == 0) {
        shell("echo x");
        log.console_log_mark();
    }
    shell("repeat 1000 0123456789 a line that laps the reader");
    log.show_new_console_messages(stdout);
    const std::string out = kavo_test::take();
    EXPECT_NE(out.find("velt_circular_buffer_reader: _read_index should be 0, but found 0x"), std::string::npos);
    EXPECT_NE(out.find("velt_circular_buffer_reader: start of console log\n"), std::string::npos);
    EXPECT_NE(out.find("laps the reader\nvelt_circular_buffer_reader: end of console log\n"), std::string::npos);
}

TEST_F(FwLogSim, DebugLogsMergeByTimeAndDecodeTheirEntries)
{
    shell("noop");
    shell("log a text longer than twenty characters");
    const std::string out = debug_log();
    EXPECT_NE(out.find(" 7 main TOP_LOG_DEBUG "), std::string::npos) << out;
    EXPECT_NE(out.find(" 7 main WDOG_LOG_WATCHDOG_START WDOG: watchdog started"), std::string::npos) << out;
    EXPECT_NE(out.find(" 7 htl HTL_LOG_CODE_DEBUG "), std::string::npos) << out;
    EXPECT_NE(out.find(" 7 cmd USER_LOG       noop"), std::string::npos) << out;
    EXPECT_NE(out.find(" 7 main USER_LOG_END   a text longer than twenty characters"), std::string::npos) << out;

    // Lines are in global time order: seconds, then nanoseconds.
    static const std::regex stamp("^(\\d{6}) \\d\\d:\\d\\d:\\d\\d\\.(\\d{9}) ");
    std::vector<std::pair<long, long>> times;
    size_t start = 0;
    for (size_t end = out.find('\n'); end != std::string::npos; start = end + 1, end = out.find('\n', start)) {
        std::smatch m;
        const std::string line = out.substr(start, end - start);
        ASSERT_TRUE(std::regex_search(line, m, stamp)) << line;
        times.emplace_back(std::stol(m[1]), std::stol(m[2]));
    }
    EXPECT_GE(times.size(), 8u);
    EXPECT_TRUE(std::is_sorted(times.begin(), times.end()));

    shell("noop");
    const std::string again = debug_log();
    EXPECT_EQ(count(again, "\n"), 2u) << again;  // the request and the shell's text, nothing older
}

TEST_F(FwLogSim, StatisticsOfTheFirmware)
{
    shell("noop");
    EXPECT_STREQ(log.stat_name_get(0), "htl_request");
    EXPECT_EQ(log.stat_name_get(20), nullptr);
    log.show_stats(stdout);
    const std::string out = kavo_test::take();
    EXPECT_NE(out.find("FIRMWARE:  htl_request"), std::string::npos) << out;
    EXPECT_NE(out.find("FIRMWARE:  boot"), std::string::npos) << out;
    EXPECT_EQ(log.dump(stdout, KAVO_FW_LOG_DUMP_ALL), 0u);
    EXPECT_EQ(count(kavo_test::take(), "FIRMWARE:"), 0u);
}

TEST_F(FwLogSim, CorruptedIndexAndRestart)
{
    shell("noop");
    debug_log();
    shell("log still here");
    ASSERT_EQ(kavo_sim::chip_get(DEVICE)->fault_set(SIM_FAULT_CORRUPT_DBG_LOG_INDEX, 1), VELT_SUCCESS);
    std::string out = debug_log();
    EXPECT_NE(out.find(" bad firmware index in log file 'htl'"), std::string::npos) << out;
    EXPECT_NE(out.find(" 7 main USER_LOG       still here"), std::string::npos) << out;

    ASSERT_EQ(kavo_sim::chip_get(DEVICE)->fault_set(SIM_FAULT_FW_RESTART), VELT_SUCCESS);
    shell("noop");
    out = debug_log();
    EXPECT_NE(out.find(" negative entries to display main"), std::string::npos) << out;
    EXPECT_EQ(count(out, " 7 main TOP_LOG_DEBUG "), 1u) << out;
    EXPECT_EQ(count(out, " 7 htl HTL_LOG_CODE_DEBUG "), 1u) << out;
}

}  // namespace
