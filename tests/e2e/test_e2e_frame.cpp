// The command frame end to end: trace line, status family, statistics, request
// packing as the firmware sees it, outputs on failure, the halting checks.
#include <gtest/gtest.h>

#include <cctype>
#include <cstring>
#include <string>

#include "kavo_command_frame.h"
#include "kavo_test_device.h"
#include "kavo_test_log.h"
#include "velt_library_options.h"

using kavo_test::device_test;
using kavo_test::has;
using kavo_test::take;

namespace {

/* A getter with a checked scalar output, written as the library's getters are. */
VELT_ERROR frame_test_mode_get(const UINT32 device_id, UINT32* mode)
{
    KAVO_STATUS_COMMAND(frame, device_id);
    frame.request(KAVO_HTL_OPERATION_DEBUG_PING);
    VELT_ERROR rc = frame.send_for_results();
    if (rc == VELT_SUCCESS) KAVO_STORE_CHECKED(frame, mode, frame.response().mode);
    return rc;
}

UINT32 mailbox_word(UINT32 byte_offset)
{
    return kavo_sim::chip_get(0)->ram_peek(VELT_SHARED_MEMORY_HTL_REQUEST_ADDR + byte_offset);
}

/* "Www Mmm dd hh:mm:ss.mmm: t<id> " at the start of a trace line: the length of that prefix, or 0. */
size_t trace_prefix(const std::string& line)
{
    const char* shape = "AAA AAA 00 00:00:00.000: t";
    size_t i = 0;
    for (; shape[i] != '\0'; ++i) {
        if (i >= line.size()) return 0;
        const char c = line[i], s = shape[i];
        const bool ok = s == 'A' ? std::isalpha((unsigned char)c) != 0
                        : s == '0' ? (std::isdigit((unsigned char)c) != 0 || (i == 8 && c == ' '))
                                   : c == s;
        if (!ok) return 0;
    }
    while (i < line.size() && std::isdigit((unsigned char)line[i])) ++i;
    return i < line.size() && line[i] == ' ' ? i + 1 : 0;
}

velt_stat_t* stats_of(const char* name)
{
    auto& all = velt_all_function_stats::instance().all_stats_by_function_name;
    auto it = all.find(name);
    return it == all.end() ? nullptr : &it->second->stats;
}

}  // namespace

TEST_F(device_test, TraceLineCarriesTimeThreadNameDeviceAndArguments)
{
    ASSERT_EQ(bring_up(0), VELT_SUCCESS);
    kavo_function_logging_set(1);
    take();
    kavo_config_t cfg;
    cfg.device_mode = KAVO_DEVICE_MODE_1200G_ILKN;
    ASSERT_EQ(kavo_device_config(0, &cfg), VELT_SUCCESS);
    const std::string log = take();
    const size_t prefix = trace_prefix(log);
    ASSERT_NE(prefix, 0u) << log;
    const std::string head = "Function=kavo_device_config(0x0,kavo_config_t:\n    ilkn_intf:\n";
    EXPECT_EQ(log.substr(prefix, head.size()), head) << log;
    EXPECT_TRUE(has(log, "    device_mode: KAVO_DEVICE_MODE_1200G_ILKN\n    host_sdk_mode: 6110\n")) << log;
    EXPECT_TRUE(log.size() > 2 && log.compare(log.size() - 2, 2, ")\n") == 0) << log;

    kavo_status_info_t status;
    kavo_device_status_get(0, &status);
    EXPECT_EQ(take(), "") << "status polls do not trace while status tracing is off";
    kavo_status_logging_set(1);
    kavo_device_status_get(0, &status);
    const std::string polled = take();
    const size_t at = trace_prefix(polled);
    ASSERT_NE(at, 0u) << polled;
    const std::string call = "Function=kavo_device_status_get(0x0, [status_ptr=0x";
    EXPECT_EQ(polled.substr(at, call.size()), call) << polled;
    EXPECT_EQ(polled.substr(polled.size() - 3), "])\n") << polled;
    kavo_status_logging_set(0);
}

TEST_F(device_test, CommandsAreCountedAndStatusPollsOnlyWhileStatusTracingIsOn)
{
    ASSERT_EQ(bring_up(0), VELT_SUCCESS);
    velt_option_function_stats.value = true;
    kavo_chnl_info_t channels;
    kavo_device_chnl_get(0, &channels);
    kavo_device_chnl_get(0, &channels);
    ASSERT_NE(stats_of("kavo_device_chnl_get"), nullptr);
    EXPECT_EQ(stats_of("kavo_device_chnl_get")->num, 2u) << "counted with the trace off";

    kavo_ipi_is_set(0, VELT_IPI_TEST);
    EXPECT_EQ(stats_of("kavo_ipi_is_set"), nullptr);
    kavo_status_logging_set(1);
    kavo_ipi_is_set(0, VELT_IPI_TEST);
    kavo_status_logging_set(0);
    ASSERT_NE(stats_of("kavo_ipi_is_set"), nullptr);
    EXPECT_EQ(stats_of("kavo_ipi_is_set")->num, 1u);
    velt_option_function_stats.value = false;
}

TEST_F(device_test, UnusedRequestFieldsReachTheFirmwareAsNotGiven)
{
    ASSERT_EQ(bring_up(0), VELT_SUCCESS);
    kavo_dcsu_cfg_get_t cfg;
    ASSERT_EQ(kavo_dcsu_cfg_get(0, KAVO_DCSU_INSTANCE_2, &cfg), VELT_SUCCESS);
    EXPECT_EQ(mailbox_word(0), 0u);                                 // device id
    EXPECT_EQ(mailbox_word(8), (UINT32)KAVO_HTL_OPERATION_DCSU_CFG_GET);
    EXPECT_EQ(mailbox_word(12), 2u);                                // element id
    EXPECT_EQ(mailbox_word(16), 0xFFFFFFFFu);                       // mode
    EXPECT_EQ(mailbox_word(20), 0xFFFFFFFFu);                       // parent id
    EXPECT_EQ(mailbox_word(24), 0u);                                // flag
    EXPECT_EQ(mailbox_word(28), 0u);                                // no payload
}

TEST_F(device_test, FailedCommandLeavesItsOutputsUntouched)
{
    ASSERT_EQ(bring_up(0), VELT_SUCCESS);
    kavo_dcsu_cfg_get_t cfg;
    std::memset(static_cast<void*>(&cfg), 0x5C, sizeof(cfg));
    const kavo_dcsu_cfg_get_t before = cfg;
    EXPECT_NE(kavo_dcsu_cfg_get(0, LAST_KAVO_DCSU_INSTANCE, &cfg), VELT_SUCCESS);
    EXPECT_EQ(std::memcmp(&before, &cfg, sizeof(cfg)), 0);
    UINT32 mode = 77;
    kavo_sim::fault_config f;
    f.wrong_sequence = 1;
    kavo_sim::chip_get(0)->faults(f);
    EXPECT_EQ(frame_test_mode_get(0, &mode), HTL_ERR_DEVICE_RESPONSE_INVALID);
    EXPECT_EQ(mode, 77u);
}

TEST_F(device_test, CommandsCostSevenBusTransactionsAndEightWithAReplyPayload)
{
    ASSERT_EQ(bring_up(0), VELT_SUCCESS);
    kavo_config_t cfg;
    cfg.device_mode = KAVO_DEVICE_MODE_1200G_ENET;
    // Request (header and the 284-byte record), stale reply indication cleared
    // (read-modify-write of the status bit), doorbell checked and handed over,
    // doorbell found set again, reply header read.
    const std::vector<std::string> exchange = {"bw 340004 4f", "r f021e0", "w f021e0 1", "r f020e0",
                                               "w f020e0 0", "r f020e0", "br 344004 8"};
    kavo_sim::chip_get(0)->journal_reset();
    ASSERT_EQ(kavo_device_config(0, &cfg), VELT_SUCCESS);
    EXPECT_EQ(kavo_test::bus_sequence(0), exchange);
    kavo_status_info_t status;
    std::vector<std::string> with_payload = exchange;
    with_payload[0] = "bw 340004 8";
    with_payload.push_back("br 344024 8");  // the 32-byte device status
    kavo_sim::chip_get(0)->journal_reset();
    ASSERT_EQ(kavo_device_status_get(0, &status), VELT_SUCCESS);
    EXPECT_EQ(kavo_test::bus_sequence(0), with_payload);
}

TEST_F(device_test, NullPointersAreCaughtWhereTheFrameChecksThem)
{
    ASSERT_EQ(bring_up(0), VELT_SUCCESS);
    take();
    // Pointer-checked commands refuse before sending.
    const UINT64 requests = kavo_sim::chip_get(0)->counters().requests;
    EXPECT_EQ(kavo_debug_cmd(0, nullptr, 0, nullptr), VELT_ERR_INVALID_ARGS);
    EXPECT_EQ(kavo_sim::chip_get(0)->counters().requests, requests);
    // The debug family's line: its own code, and no line break of its own.
    const std::string line = take();
    EXPECT_TRUE(::testing::internal::RE::FullMatch(
        line, "0:0x2101:kavo_api_debug\\.cpp:[0-9]+:kavo_debug_cmd\\(\\) +NULL Pointer supplied for Input parameter")) << line;

    // A checked getter halts on a null output after a successful send.
    UINT32 mode = 0;
    EXPECT_EQ(frame_test_mode_get(0, &mode), VELT_SUCCESS);
    EXPECT_DEATH(frame_test_mode_get(0, nullptr), kavo_test::halts_with(VELT_ERR_FAIL, "-1:0x1:.* ASSERT: "));

    // The default reply buffer of a debug command comes from the porting layer.
    EXPECT_DEATH(
        {
            velt_customer_os_allocation_failure_set(1);
            kavo_debug_cmd(0, "noop", 0, nullptr);
        },
        kavo_test::halts_with(VELT_SHARED_ERR_MALLOC_FAILED));
}

TEST_F(device_test, RequestPayloadBoundIsTheMailboxLessItsHeader)
{
    ASSERT_EQ(bring_up(0), VELT_SUCCESS);
    // A debug command carries its text rounded up to whole words, with its zero.
    const std::string fits(KAVO_HTL_REQUEST_MAX_DATA_SIZE - 4, 'x');
    char reply[64];
    EXPECT_NE(kavo_debug_cmd(0, fits.c_str(), sizeof(reply), reply), VELT_SUCCESS) << "sent, refused by the shell";
    const std::string too_long(KAVO_HTL_REQUEST_MAX_DATA_SIZE, 'x');
    EXPECT_DEATH(kavo_debug_cmd(0, too_long.c_str(), sizeof(reply), reply), kavo_test::halts_with(VELT_ERR_FAIL));
}
