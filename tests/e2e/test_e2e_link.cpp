// The transport link end to end: how each way a chip can fail an exchange
// reaches the caller, and concurrent callers on one and on two devices.
#include <gtest/gtest.h>
#include <spawn.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "kavo_device.h"
#include "kavo_test_device.h"
#include "kavo_test_log.h"

using kavo_test::device_test;
using kavo_test::take;

using kavo_test::has;
using kavo_test::ping;

TEST_F(device_test, ReplyThatDoesNotMatchItsRequestIsRefused)
{
    struct {
        const char* name;
        UINT32 kavo_sim::fault_config::*fault;
    } cases[] = {{"sequence number", &kavo_sim::fault_config::wrong_sequence},
                 {"operation", &kavo_sim::fault_config::wrong_operation},
                 {"device id", &kavo_sim::fault_config::wrong_device_id}};
    ASSERT_EQ(bring_up(0), VELT_SUCCESS);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        kavo_sim::fault_config f;
        f.*(c.fault) = 1;
        kavo_sim::chip_get(0)->faults(f);
        take();
        EXPECT_EQ(ping(0), HTL_ERR_DEVICE_RESPONSE_INVALID);
        const std::string log = take();
        EXPECT_TRUE(has(log, " response invalid\n")) << log;
        EXPECT_TRUE(has(log, " sent: device_id:0, operation:KAVO_HTL_OPERATION_DEBUG_PING(2308) sequence_num:")) << log;
        EXPECT_TRUE(has(log, " received: device_id:")) << log;
        EXPECT_TRUE(has(log, " VELT_RUNTIME_ERROR( HTL_ERR_DEVICE_RESPONSE_INVALID )\n")) << log;
        // The link stays up: the next exchange goes through.
        EXPECT_EQ(ping(0), VELT_SUCCESS);
    }
}

TEST_F(device_test, ReplyLargerThanTheCallersBufferIsRefused)
{
    ASSERT_EQ(bring_up(0), VELT_SUCCESS);
    kavo_sim::fault_config f;
    f.oversized_reply = 1;
    f.oversized_reply_bytes = 96;
    kavo_sim::chip_get(0)->faults(f);
    UINT32 value = 7, back = 0xDEADBEEF;
    take();
    EXPECT_EQ(kavo_debug_ping(0, 4, &value, &back), KAVO_ERR_FW_RESPONSE_SIZE_TOO_LARGE);
    EXPECT_EQ(back, 0xDEADBEEFu) << "the caller's buffer is untouched";
    EXPECT_TRUE(has(take(), " VELT_RUNTIME_ERROR( KAVO_ERR_FW_RESPONSE_SIZE_TOO_LARGE )\n"));
    EXPECT_EQ(ping(0), VELT_SUCCESS);
}

TEST_F(device_test, DoorbellKeptByTheFirmwareTakesTheLinkDownThenRefusesToPost)
{
    ASSERT_EQ(bring_up(0), VELT_SUCCESS);
    kavo_sim::fault_config f;
    f.doorbell_kept = 1;
    kavo_sim::chip_get(0)->faults(f);
    take();
    // The reply's status bit is up but the doorbell stays with the firmware.
    EXPECT_EQ(ping(0), HTL_ERR_DEVICE_OFFLINE);
    std::string log = take();
    EXPECT_TRUE(has(log, " VELT_RUNTIME_ERROR( VELT_ERR_FAIL )\n")) << log;
    EXPECT_TRUE(has(log, "0:0x3401:kavo_htl.cpp:")) << log;
    EXPECT_TRUE(has(log, " HOST_MSG IPI: 0\n")) << log;
    EXPECT_EQ(ping(0), HTL_ERR_DEVICE_NOT_CONNECTED);

    // A warm restart keeps the running firmware and then makes the handshake,
    // which the held doorbell refuses; the device stays registered.
    ASSERT_EQ(kavo_device_uninit(0, 0), VELT_SUCCESS);
    EXPECT_EQ(kavo_device_init(0, KAVO_INIT_AUTO), HTL_ERR_DEVICE_NOT_READY);
    log = take();
    EXPECT_TRUE(has(log, " VELT_RUNTIME_ERROR( VELT_ERR_FAIL )\n")) << log;
    EXPECT_TRUE(has(log, " VELT_RUNTIME_ERROR( HTL_ERR_DEVICE_NOT_READY )\n")) << log;
}

TEST_F(device_test, FailedMailboxWriteIsReportedAndItsStaleReplyCaught)
{
    ASSERT_EQ(bring_up(0), VELT_SUCCESS);
    kavo_sim::fault_config f;
    f.bus_fail_addresses = {VELT_SHARED_MEMORY_HTL_REQUEST_ADDR};
    kavo_sim::chip_get(0)->faults(f);
    take();
    EXPECT_NE(ping(0), VELT_SUCCESS);
    EXPECT_TRUE(has(take(), " velt_sys_burst_write FAILED with error code = "));
    kavo_sim::chip_get(0)->faults(kavo_sim::fault_config{});
    EXPECT_EQ(ping(0), VELT_SUCCESS);
}

TEST_F(device_test, ThreadsOnOneDeviceAndOnTwoDevicesGetTheirOwnReplies)
{
    kavo_sim::chip_config cfg;
    cfg.mode = kavo_sim::exec_mode::threaded;
    cfg.service_time_us = 20;
    ASSERT_EQ(bring_up(0, KAVO_INIT_COLD, cfg), VELT_SUCCESS);
    ASSERT_EQ(bring_up(1, KAVO_INIT_COLD, cfg), VELT_SUCCESS);
    struct {
        const char* name;
        UINT32 devices[2];
    } layouts[] = {{"one device", {0, 0}}, {"two devices", {0, 1}}};
    for (const auto& layout : layouts) {
        SCOPED_TRACE(layout.name);
        std::atomic<int> failures{0};
        std::vector<std::thread> threads;
        for (UINT32 t = 0; t < 2; ++t) {
            threads.emplace_back([&, t] {
                const UINT32 id = layout.devices[t];
                for (UINT32 i = 0; i < 300; ++i) {
                    UINT32 words[8], back[8] = {};
                    for (UINT32 w = 0; w < 8; ++w) words[w] = (t << 28) | (i << 8) | w;
                    if (kavo_debug_ping(id, sizeof(words), words, back) != VELT_SUCCESS ||
                        std::memcmp(words, back, sizeof(words)) != 0)
                        ++failures;
                }
            });
        }
        for (auto& t : threads) t.join();
        EXPECT_EQ(failures.load(), 0);
    }
}

namespace {

/* kavo-simd as a child process that is always stopped, whatever the test does;
   its output goes to /dev/null so that it never holds the test's output open. */
class simd_process {
  public:
    explicit simd_process(const std::string& socket_path) : path_(socket_path)
    {
        const std::string daemon = kavo_test::tool_path("/kavo-simd");
        char* argv[] = {const_cast<char*>(daemon.c_str()), const_cast<char*>("--socket"),
                        const_cast<char*>(path_.c_str()), nullptr};
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
        if (posix_spawn(&pid_, daemon.c_str(), &actions, nullptr, argv, environ) != 0) pid_ = 0;
        posix_spawn_file_actions_destroy(&actions);
    }
    ~simd_process()
    {
        if (pid_ == 0) return;
        kill(pid_, SIGTERM);
        for (int i = 0; i < 200; ++i) {
            if (waitpid(pid_, nullptr, WNOHANG) == pid_) return;
            usleep(10000);
        }
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    bool started() const { return pid_ != 0; }

  private:
    std::string path_;
    pid_t pid_ = 0;
};

}  // namespace

// A chip served by kavo-simd outlives the process that booted it: a second
// process attaches with KAVO_INIT_AUTO and finds it running, without a reload.
TEST(simd, SecondProcessAttachesWithoutReloading)
{
    const std::string socket_path =
        (std::filesystem::temp_directory_path() / ("kavo_simd_" + std::to_string(getpid()) + ".sock")).string();
    simd_process simd(socket_path);
    ASSERT_TRUE(simd.started());
    tavo_callout_api_st* callouts = nullptr;
    for (int i = 0; i < 500 && callouts == nullptr; ++i) {
        usleep(10000);
        callouts = kavo_sim::socket_callouts(socket_path.c_str());
    }
    ASSERT_NE(callouts, nullptr);  // kavo-simd serves chip 0 from its start
    kavo_sim::socket_disconnect();

    // First process: boots the chip cold and leaves it running.
    const pid_t first = fork();
    ASSERT_GE(first, 0);
    if (first == 0) {
        alarm(30);  // a child that cannot finish must not outlive the test
        kavo_sdk_init(kavo_sim::socket_callouts(socket_path.c_str()));
        kavo_function_logging_set(0);
        kavo_fw_filename_set((kavo_test::firmware_dir() + "/kavo_fw_app_revx.mem").c_str());
        const VELT_ERROR rc = kavo_device_init(0, KAVO_INIT_COLD);
        kavo_device_uninit(0, 0);
        _exit(rc == VELT_SUCCESS ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(first, &status, 0), first);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;

    // This process attaches.
    kavo_test::install_capture(kavo_sim::socket_callouts(socket_path.c_str())->qspi_callout_api_ctx);
    kavo_function_logging_set(0);
    kavo_fw_filename_set((kavo_test::firmware_dir() + "/kavo_fw_app_revx.mem").c_str());
    EXPECT_EQ(kavo_device_init(0, KAVO_INIT_AUTO), VELT_SUCCESS);
    const std::string log = take();
    EXPECT_FALSE(has(log, "Firmware Download Complete")) << log;
    EXPECT_EQ(ping(0), VELT_SUCCESS);
    sim_chip_info_t info;
    ASSERT_EQ(kavo_sim::socket_chip_info(socket_path.c_str(), 0, &info), VELT_SUCCESS);
    EXPECT_EQ(info.boot_count, 1u);
    kavo_device_uninit(0, 0);
    kavo_sim::socket_disconnect();
    kavo_function_logging_set(1);
}
