// kavo-simd as a process of its own: chips that outlive the client processes,
// and the ways it stops.
#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "kavo_sim/bus_client.h"
#include "kavo_sim/kavo_sim.h"

using kavo_sim::bus_client;

namespace {

const std::string SIMD = std::string(KAVO_SIM_TOOLS_DIR) + "/kavo-simd";

class SimDaemon : public ::testing::Test {
  protected:
    void SetUp() override
    {
        if (::access(SIMD.c_str(), X_OK) != 0) GTEST_SKIP() << "kavo-simd not built";
    }
    void TearDown() override
    {
        kavo_sim::socket_disconnect();
        if (pid > 0) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, nullptr, 0);
        }
        ::unlink(path.c_str());
    }
    /* Starts the daemon and waits until it answers. */
    bool start(std::vector<std::string> args)
    {
        args.insert(args.begin(), {SIMD, "--socket", path});
        pid = ::fork();
        if (pid == 0) {
            std::vector<char*> argv;
            for (auto& a : args)
                argv.push_back(a.data());
            argv.push_back(nullptr);
            ::freopen("/dev/null", "w", stdout);
            ::execv(argv[0], argv.data());
            ::_exit(127);
        }
        for (int i = 0; i < 2000; ++i) {
            if (kavo_sim::socket_callouts(path.c_str())) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return false;
    }
    int wait_exit()
    {
        int status = 0;
        ::waitpid(pid, &status, 0);
        pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    std::string path = "/tmp/kavo_simd_test_" + std::to_string(::getpid()) + ".sock";
    pid_t pid = -1;
};

TEST_F(SimDaemon, ChipsOutliveClientProcessesAndSigtermStopsIt)
{
    ASSERT_TRUE(start({"--chips", "2", "--revision", "revb"}));
    {
        bus_client bus(kavo_sim::socket_callouts(path.c_str()), 1);
        EXPECT_EQ(bus.rd(0xF00380), 0x16100000u);
        ASSERT_TRUE(bus.cold_start(kavo_sim::image_build({3, 0, 2, 5, kavo_sim::IMAGE_REV_B})));
    }
    kavo_sim::socket_disconnect();

    // Another process attaches to the running firmware and talks to it.
    const pid_t child = ::fork();
    if (child == 0) {
        tavo_callout_api_st* t = kavo_sim::socket_callouts(path.c_str());
        if (!t) ::_exit(2);
        bus_client bus(t, 1);
        if (bus.rd(0x3FFFC4) != 5) ::_exit(3);
        auto r = bus.exchange(KAVO_HTL_OPERATION_STATUS);
        ::_exit(r.replied && r.result() == VELT_SUCCESS ? 0 : 4);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);

    sim_chip_info_t info;
    ASSERT_EQ(kavo_sim::socket_chip_info(path.c_str(), 1, &info), VELT_SUCCESS);
    EXPECT_EQ(info.requests, 1u);
    EXPECT_EQ(kavo_sim::socket_chip_info(path.c_str(), 2, &info), KAVO_ERR_INVALID_DEVICE_ID) << "two chips: 0 and 1";

    ::kill(pid, SIGTERM);
    EXPECT_EQ(wait_exit(), 0);
    EXPECT_NE(::access(path.c_str(), F_OK), 0);
}

TEST_F(SimDaemon, ShutdownMessageStopsIt)
{
    ASSERT_TRUE(start({"--mode", "threaded", "--service-time", "100"}));
    bus_client bus(kavo_sim::socket_callouts(path.c_str()), 0);
    ASSERT_TRUE(bus.cold_start(kavo_sim::image_build({})));
    EXPECT_TRUE(bus.exchange(KAVO_HTL_OPERATION_STATUS).replied);
    EXPECT_EQ(kavo_sim::socket_shutdown(path.c_str()), VELT_SUCCESS);
    EXPECT_EQ(wait_exit(), 0);
}

TEST_F(SimDaemon, BadArgumentsAreRefused)
{
    for (std::vector<std::string> args : std::vector<std::vector<std::string>>{
             {"--chips", "33"}, {"--revision", "revc"}, {"--mode", "fast"}, {"--bogus", "1"}, {"--chips"}}) {
        args.insert(args.begin(), {SIMD, "--socket", path});
        pid = ::fork();
        if (pid == 0) {
            std::vector<char*> argv;
            for (auto& a : args)
                argv.push_back(a.data());
            argv.push_back(nullptr);
            ::freopen("/dev/null", "w", stderr);
            ::execv(argv[0], argv.data());
            ::_exit(127);
        }
        EXPECT_EQ(wait_exit(), 2) << args[3];
    }
}

} // namespace
