// The edges of bring-up, transport and registry on the virtual device: what a
// failed or refused step leaves behind, and the codes each one reports.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "kavo_device.h"
#include "kavo_test_device.h"
#include "kavo_test_log.h"
#include "velt_log.h"

using kavo_test::device_test;
using kavo_test::has;
using kavo_test::ping;
using kavo_test::requests_of;
using kavo_test::take;

namespace {

/* The sequence number of the last request the chip saw. */
UINT32 last_sequence(UINT32 id)
{
    UINT32 seq = 0xFFFFFFFF;
    for (const auto& e : kavo_sim::chip_get(id)->journal().events)
        if (e.kind == kavo_sim::event_kind::request) seq = e.sequence_num;
    return seq;
}

}  // namespace

TEST_F(device_test, OnlyTheKnownHardwareIdsAreAccepted)
{
    const std::pair<UINT32, VELT_ERROR> cases[] = {{0x6100, VELT_SUCCESS}, {0x6104, VELT_SUCCESS},
                                                   {0x6108, VELT_SUCCESS}, {0x6110, VELT_SUCCESS},
                                                   {0x61FF, VELT_SUCCESS}, {0x6101, KAVO_ERR_INVALID_HW_DEVICE_ID},
                                                   {0x0000, KAVO_ERR_INVALID_HW_DEVICE_ID},
                                                   {0x7100, KAVO_ERR_INVALID_HW_DEVICE_ID}};
    UINT32 id = 0;
    for (const auto& [code, expected] : cases) {
        ASSERT_EQ(kavo_sim::chip_create(id, {code}), VELT_SUCCESS);
        EXPECT_EQ(kavo_device_init(id, KAVO_INIT_DEBUG_ATTACH), expected) << std::hex << code;
        ++id;
    }
}

TEST_F(device_test, AFailedInitLeavesTheDeviceRegisteredUntilUninit)
{
    kavo_fw_filename_set("/nonexistent/kavo_fw_app_revx.mem");
    ASSERT_EQ(kavo_sim::chip_create(1), VELT_SUCCESS);
    EXPECT_EQ(kavo_device_init(1, KAVO_INIT_COLD), KAVO_ERR_FW_IMAGE_DOES_NOT_EXIST);
    EXPECT_NE(kavo_device_find(1), nullptr) << "its registers and logs stay reachable";
    EXPECT_EQ(kavo_device_init(1, KAVO_INIT_COLD), KAVO_ERR_DEVICE_ID_IN_USE);
    EXPECT_EQ(kavo_device_uninit(1, 0), VELT_SUCCESS);
    EXPECT_EQ(kavo_device_find(1), nullptr);
    kavo_fw_filename_set((kavo_test::firmware_dir() + "/kavo_fw_app_revx.mem").c_str());
    EXPECT_EQ(kavo_device_init(1, KAVO_INIT_COLD), VELT_SUCCESS) << take();
    // Uninit without shutdown sends nothing; with it, one request. An unknown id is no failure.
    EXPECT_EQ(kavo_device_uninit(1, 0), VELT_SUCCESS);
    EXPECT_EQ(requests_of(1, KAVO_HTL_OPERATION_SHUTDOWN), 0u);
    take();
    EXPECT_EQ(kavo_device_uninit(5, 0), VELT_SUCCESS);
    EXPECT_TRUE(has(take(), "5:0x13:kavo_device.cpp:")) << "code 19 in the prefix";
    ASSERT_EQ(bring_up(2), VELT_SUCCESS);
    EXPECT_EQ(kavo_device_uninit(2, 1), VELT_SUCCESS);
    EXPECT_EQ(requests_of(2, KAVO_HTL_OPERATION_SHUTDOWN), 1u);
}

TEST_F(device_test, WarmRestartWithoutReloadMakesTheHandshakeAndSendsTheOptions)
{
    ASSERT_EQ(bring_up(0), VELT_SUCCESS);
    ASSERT_EQ(kavo_device_uninit(0, 0), VELT_SUCCESS);
    kavo_sim::chip_get(0)->journal_reset();
    ::setenv("VELT_FW_OPTIONS", "warm=1", 1);
    const VELT_ERROR rc = kavo_device_init(0, KAVO_INIT_AUTO);
    ::unsetenv("VELT_FW_OPTIONS");
    ASSERT_EQ(rc, VELT_SUCCESS) << take();
    EXPECT_EQ(requests_of(0, KAVO_HTL_OPERATION_RESTART), 0u) << "the running firmware is kept";
    EXPECT_EQ(requests_of(0, KAVO_HTL_OPERATION_STATUS), 1u);
    EXPECT_EQ(kavo_test::last_request_text(0), "noop warm=1");
}

TEST_F(device_test, HandshakeAndOptionsFailuresTakeTheLinkDown)
{
    // A handshake answered for another device.
    ASSERT_EQ(kavo_sim::chip_create(0), VELT_SUCCESS);
    kavo_sim::fault_config f;
    f.wrong_device_id = 1;
    kavo_sim::chip_get(0)->faults(f);
    velt_log_verbosity_level_set(0, VELT_LOG_SEV_LOW);
    EXPECT_EQ(kavo_device_init(0, KAVO_INIT_COLD), HTL_ERR_DEVICE_RESPONSE_INVALID);
    velt_log_verbosity_level_set(0, VELT_LOG_SEV_EVENT);
    std::string log = take();
    EXPECT_TRUE(has(log, "-1:0x2101:kavo_htl.cpp:")) << log;
    EXPECT_TRUE(has(log, " Connection response invalid for device id = 0\n")) << log;
    EXPECT_EQ(ping(0), HTL_ERR_DEVICE_NOT_CONNECTED);
    ASSERT_EQ(kavo_device_uninit(0, 0), VELT_SUCCESS);
    // The handshake passes (its sequence is not checked), the options' reply does not.
    f.wrong_device_id = 0;
    f.wrong_sequence = 2;
    kavo_sim::chip_get(0)->faults(f);
    ::setenv("VELT_FW_OPTIONS", "x", 1);
    const VELT_ERROR rc = kavo_device_init(0, KAVO_INIT_AUTO);
    ::unsetenv("VELT_FW_OPTIONS");
    EXPECT_EQ(rc, HTL_ERR_DEVICE_RESPONSE_INVALID);
    EXPECT_TRUE(has(take(), "0:0x2101:kavo_htl.cpp:")) << "the bad-options line";
    EXPECT_EQ(ping(0), HTL_ERR_DEVICE_NOT_CONNECTED);
}

TEST_F(device_test, ExchangesConsumeTheirNumberAndReportTheSizeTheyNeeded)
{
    ASSERT_EQ(bring_up(0), VELT_SUCCESS);
    ASSERT_EQ(ping(0), VELT_SUCCESS);
    const UINT32 first = last_sequence(0);
    kavo_device* device = kavo_device_find(0);
    device->link().disconnect();
    EXPECT_EQ(ping(0), HTL_ERR_DEVICE_NOT_CONNECTED);  // written, never handed over
    device->link().attach();
    ASSERT_EQ(ping(0), VELT_SUCCESS);
    EXPECT_EQ(last_sequence(0), first + 2);

    // A reply larger than the caller's buffer: 13, and the size it would need.
    kavo_sim::fault_config f;
    f.oversized_reply = 1;
    kavo_sim::chip_get(0)->faults(f);
    UINT32 word = 5, back = 0;
    kavo_htl_request_t request;
    request.device_id = 0;
    request.operation = KAVO_HTL_OPERATION_DEBUG_PING;
    request.data_ptr = &word;
    request.data_size = 4;
    kavo_htl_response_t response;
    response.data_ptr = &back;
    response.data_size = 4;
    EXPECT_EQ(kavo_device::send(request, response), KAVO_ERR_FW_RESPONSE_SIZE_TOO_LARGE);
    EXPECT_EQ(response.data_size, 4u + f.oversized_reply_bytes);
    EXPECT_EQ(back, 0u);
}

TEST_F(device_test, UnknownDevicesAnswerWithoutTouchingAChip)
{
    take();
    EXPECT_EQ(kavo_ipi_is_set(7, VELT_IPI_TEST), 0u);
    EXPECT_TRUE(has(take(), "7:0x13:")) << "code 19 in the prefix";
    EXPECT_EQ(kavo_ipi_is_set(32, VELT_IPI_TEST), 0u);  // the first id past the table
    take();
    EXPECT_EQ(kavo_device_init(32, KAVO_INIT_COLD), (VELT_ERROR)KAVO_ERR_INVALID_DEVICE_ID);
    EXPECT_TRUE(has(take(), " device_id = 32"));
    EXPECT_EQ(kavo_ipi_test_set(7), (VELT_ERROR)KAVO_ERR_INVALID_DEVICE_ID);
    // The host's versions reach the caller even when no device answers.
    kavo_status_info_t status;
    status.sw_revision = 0;
    status.sw_version = 0;
    EXPECT_EQ(kavo_device_status_get(9, &status), (VELT_ERROR)HTL_ERR_DEVICE_NOT_INIT);
    EXPECT_EQ(status.sw_revision, (UINT32)KAVO_SW_REVISION);
    EXPECT_EQ(status.sw_version, (UINT32)KAVO_SW_VERSION);
    EXPECT_EQ(status.device_connected, 0u);
}

TEST_F(device_test, FirmwareNameDefaultsAndMayBeSetFromWhatGetReturned)
{
    kavo_firmware_filename_clear();
    char* name = nullptr;
    kavo_fw_filename_get(&name);
    EXPECT_STREQ(name, "./kavo_fw_app_revx.mem");
    take();
    EXPECT_EQ(kavo_fw_filename_set(nullptr), (VELT_ERROR)KAVO_ERR_FW_IMAGE_PATH_INVALID);
    EXPECT_TRUE(has(take(), " VELT_RUNTIME_ERROR( KAVO_ERR_FW_IMAGE_PATH_INVALID )\n"));
    // The name handed back in: copied before the old one is freed.
    ASSERT_EQ(kavo_fw_filename_set("/images/board_7_revx.mem"), VELT_SUCCESS);
    kavo_fw_filename_get(&name);
    ASSERT_EQ(kavo_fw_filename_set(name), VELT_SUCCESS);
    kavo_fw_filename_get(&name);
    EXPECT_STREQ(name, "/images/board_7_revx.mem");
}

TEST_F(device_test, ImageAndRamTestEdges)
{
    ASSERT_EQ(bring_up(0), VELT_SUCCESS);
    kavo_device* device = kavo_device_find(0);
    // A 64-byte image is a header alone: nothing is downloaded, and that succeeds.
    const std::string path = kavo_test::make_image("hdr.mem", 3, 0, 2);
    std::string header(64, '\0');
    {
        FILE* in = std::fopen(path.c_str(), "rb");
        ASSERT_NE(in, nullptr);
        ASSERT_EQ(std::fread(header.data(), 1, 64, in), 64u);
        std::fclose(in);
        FILE* out = std::fopen(path.c_str(), "wb");
        ASSERT_EQ(std::fwrite(header.data(), 1, 64, out), 64u);
        std::fclose(out);
    }
    kavo_fw_filename_set(path.c_str());
    kavo_sim::chip_get(0)->journal_reset();
    EXPECT_EQ(device->download_fw(), VELT_SUCCESS);
    EXPECT_TRUE(kavo_test::bus_sequence(0).empty());
    // A RAM test whose words all come back wrong: 23 and one line per word.
    kavo_sim::fault_config f;
    f.bus_fail_addresses = {0x24};
    kavo_sim::chip_get(0)->faults(f);
    take();
    EXPECT_EQ(device->ram_access_test(), (VELT_ERROR)KAVO_ERR_FW_SPRAM_WRITE_FAIL);
    const std::string log = take();
    size_t lines = 0;
    for (size_t at = log.find(" Test write/read failed at word "); at != std::string::npos;
         at = log.find(" Test write/read failed at word ", at + 1))
        ++lines;
    EXPECT_EQ(lines, 10u);
    EXPECT_TRUE(has(log, "0:0x17:kavo_device_boot.cpp:")) << "code 23 in the prefix";
    EXPECT_TRUE(has(log, " Test write/read failed at word 9. Expected: 0xa0b0c0d Actual: 0xffffffff\n")) << log;
}

TEST_F(device_test, MailboxBoundsAndWordRounding)
{
    ASSERT_EQ(bring_up(0), VELT_SUCCESS);
    std::vector<UINT8> data(KAVO_HTL_REQUEST_MAX_DATA_SIZE + 1, 0x11);
    kavo_htl_request_t request;
    request.device_id = 0;
    request.operation = KAVO_HTL_OPERATION_DEBUG_PING;
    request.data_ptr = data.data();
    // 6 bytes travel as 32 + 6 bytes rounded down to whole words.
    request.data_size = 6;
    kavo_sim::chip_get(0)->journal_reset();
    kavo_device::send(request);
    EXPECT_EQ(kavo_test::bus_sequence(0).at(0), "bw 340004 9");
    request.data_size = KAVO_HTL_REQUEST_MAX_DATA_SIZE;  // 16352 fits the mailbox
    kavo_sim::chip_get(0)->journal_reset();
    kavo_device::send(request);
    EXPECT_EQ(kavo_test::bus_sequence(0).at(0), "bw 340004 1000");
    request.data_size = KAVO_HTL_REQUEST_MAX_DATA_SIZE + 1;
    EXPECT_DEATH(kavo_device::send(request), kavo_test::halts_with(VELT_ERR_FAIL));
    // A reply payload of 65496 bytes is the largest the response mailbox's
    // image holds beside its header; 65500 does not fit.
    kavo_sim::fault_config f;
    f.oversized_reply = 1;
    f.oversized_reply_bytes = 65496 - 4;
    kavo_sim::chip_get(0)->faults(f);
    std::vector<UINT32> reply(65536 / 4);
    UINT32 word = 1;
    request.data_ptr = &word;
    request.data_size = 4;
    kavo_htl_response_t response;
    response.data_ptr = reply.data();
    response.data_size = 65536;
    EXPECT_EQ(kavo_device::send(request, response), VELT_SUCCESS);
    EXPECT_EQ(response.data_size, 65496u);
    f.oversized_reply_bytes = 65500 - 4;
    kavo_sim::chip_get(0)->faults(f);
    response.data_size = 65536;
    EXPECT_DEATH(kavo_device::send(request, response),
                 kavo_test::halts_with(VELT_ERR_FAIL, " ASSERT: Reconstructing the HTL response failed due to "
                                                      "message size too big\n"));
}

TEST_F(device_test, ADumpWaitsForTheExchangeHoldingTheDevice)
{
    ASSERT_EQ(bring_up(0), VELT_SUCCESS);
    kavo_device* device = kavo_device_find(0);
    std::atomic<bool> done{false};
    device->lock();  // another thread's exchange in progress
    std::thread dump([&] {
        kavo_fw_log_dump(0, KAVO_FW_LOG_DUMP_CONSOLE);
        done = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(done) << "the dump read on-chip RAM without the device lock";
    device->unlock();
    dump.join();
    EXPECT_TRUE(done);
}

TEST_F(device_test, DoorbellCallsReportTheBitAndLeaveTheDeviceToOtherThreads)
{
    ASSERT_EQ(bring_up(0), VELT_SUCCESS);
    EXPECT_EQ(kavo_ipi_is_set(0, VELT_IPI_TEST), 0u);
    ASSERT_EQ(kavo_ipi_test_set(0), VELT_SUCCESS);
    EXPECT_EQ(kavo_ipi_is_set(0, VELT_IPI_TEST), 1u);
    EXPECT_EQ(kavo_ipi_clear(0, VELT_IPI_TEST), VELT_SUCCESS);
    EXPECT_EQ(kavo_ipi_interrupt_enable_set(0, VELT_IPI_TEST, 1), VELT_SUCCESS);
    // Each call let go of the device: a command from another thread runs.
    std::atomic<bool> done{false};
    std::thread other([&] {
        ping(0);
        done = true;
    });
    other.detach();  // should the device stay held, the test fails instead of hanging
    for (int i = 0; i < 500 && !done; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_TRUE(done) << "the device is still held";
}
