// The firmware log views on what the virtual chip's firmware writes: a console
// that has wrapped, its debug logs and statistics, a corrupted index and a restart.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "kavo_fw_log.h"
#include "kavo_sim/bus_client.h"
#include "kavo_sim/kavo_sim.h"
#include "kavo_test_log.h"

namespace {

constexpr UINT32 DEVICE = 7;

size_t count(const std::string& text, const std::string& what)
{
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

class FwLogSim : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(kavo_sim::chip_create(DEVICE), VELT_SUCCESS);
        kavo_test::install_capture(kavo_sim::callouts()->qspi_callout_api_ctx);
        ASSERT_TRUE(client.cold_start(kavo_sim::image_build(kavo_sim::image_version{})));
        velt_sys_init(sys, DEVICE);
        log.handle_init(DEVICE, &handle);
        testing::internal::CaptureStdout();  // "no firmware symbols" goes there
        log.stats_init();
        kavo_test::take();
    }
    void TearDown() override
    {
        testing::internal::GetCapturedStdout();
        velt_sys_handle_destroy(sys);
        kavo_sim::chip_destroy(DEVICE);
    }
    void shell(const std::string& line)  // a line for the firmware's debug shell
    {
        const auto r = client.exchange(KAVO_HTL_OPERATION_DEBUG_CMD, line.c_str(), (UINT32)line.size() + 1);
        ASSERT_TRUE(r.replied && r.result() == VELT_SUCCESS) << line;
    }
    std::string debug_log() { return log.show_debug_log(stdout), kavo_test::take(); }

    kavo_sim::bus_client client{kavo_sim::callouts(), DEVICE};
    velt_sys_handle_t sys = velt_sys_handle_create();
    cpu_cfg_handle_t handle{&sys, 0xF00000};
    kavo_fw_log log;
};

TEST_F(FwLogSim, ConsoleShowsTheBootThenFollowsAcrossTheWrapAndPrintsTheWrappedRingOldestFirst)
{
    log.dump_console_buffer(stdout);
    const std::string boot = kavo_test::take();
    EXPECT_EQ(boot.rfind("velt_circular_buffer_reader: start of console log\nkavo firmware 3.0.2", 0), 0u) << boot;
    EXPECT_NE(boot.find("ready\nvelt_circular_buffer_reader: end of console log\n"), std::string::npos) << boot;
    // 32 characters a line: 10-word records; 1000 of them lap the 8192-word ring.
    for (int round = 0; round < 10; ++round) {
        shell("repeat 100 0123456789 console line round " + std::to_string(round));
        log.show_new_console_messages(stdout);
        const std::string out = kavo_test::take();
        EXPECT_EQ(count(out, "console line round " + std::to_string(round) + "\n"), 100u) << out;
        EXPECT_EQ(count(out, "_read_index should be 0"), 0u) << out;
    }
    EXPECT_GE(client.rd(VELT_DEVICE_LOG_BUFFERS_OCR_ADDR + 4), 1u);  // the firmware's wrap count
    log.dump_console_buffer(stdout);
    const std::string all = kavo_test::take();
    EXPECT_EQ(count(all, "end marker found") + count(all, "kavo firmware"), 0u);  // boot text overwritten
    EXPECT_LT(all.find("round 8\n"), all.find("round 9\n"));                       // oldest first
    EXPECT_EQ(count(all, "round 9\n"), 100u);
    const std::string tail = "round 9\nvelt_circular_buffer_reader: end of console log\n";
    EXPECT_EQ(all.substr(all.size() - tail.size()), tail);
}

TEST_F(FwLogSim, DebugLogsAndStatisticsThroughACorruptedIndexAndARestart)
{
    shell("noop");
    shell("log a text longer than twenty characters");
    std::string out = debug_log();
    for (const char* line : {" 7 main TOP_LOG_DEBUG ", " 7 main WDOG_LOG_WATCHDOG_START WDOG: watchdog started",
                             " 7 htl HTL_LOG_CODE_DEBUG ", " 7 cmd USER_LOG       noop",
                             " 7 main USER_LOG_END   a text longer than twenty characters"})
        EXPECT_NE(out.find(line), std::string::npos) << line << "\n" << out;
    // In global time order: "SSSSSS HH:MM:SS.NNNNNNNNN ...".
    std::vector<std::pair<long, long>> times;
    for (size_t at = 0; at < out.size(); at = out.find('\n', at) + 1) {
        long seconds = 0, ns = 0;
        ASSERT_EQ(std::sscanf(out.c_str() + at, "%6ld %*d:%*d:%*d.%9ld", &seconds, &ns), 2) << out.substr(at);
        times.emplace_back(seconds, ns);
    }
    EXPECT_GE(times.size(), 8u);
    EXPECT_TRUE(std::is_sorted(times.begin(), times.end()));

    EXPECT_STREQ(log.stat_name_get(0), "htl_request");
    log.show_stats(stdout);
    out = kavo_test::take();
    EXPECT_NE(out.find("FIRMWARE:  htl_request"), std::string::npos) << out;
    EXPECT_NE(out.find("FIRMWARE:  boot"), std::string::npos) << out;

    shell("log still here");
    ASSERT_EQ(kavo_sim::chip_get(DEVICE)->fault_set(SIM_FAULT_CORRUPT_DBG_LOG_INDEX, 1), VELT_SUCCESS);
    out = debug_log();
    EXPECT_NE(out.find(" bad firmware index in log file 'htl'"), std::string::npos) << out;
    EXPECT_EQ(count(out, " 7 "), 2u) << out;  // only what is new in main and cmd

    ASSERT_EQ(kavo_sim::chip_get(DEVICE)->fault_set(SIM_FAULT_FW_RESTART), VELT_SUCCESS);
    shell("noop");
    out = debug_log();
    EXPECT_NE(out.find(" negative entries to display main"), std::string::npos) << out;
    EXPECT_EQ(count(out, " 7 main TOP_LOG_DEBUG "), 1u) << out;
    EXPECT_EQ(count(out, " 7 htl HTL_LOG_CODE_DEBUG "), 1u) << out;
}

}  // namespace
