// kavo-simd as a process of its own: chips that outlive their clients, the
// ways it stops, and the arguments it refuses. The daemon is always stopped.
#include <gtest/gtest.h>

#include "kavo_test_device.h"

#include <csignal>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "kavo_sim/bus_client.h"
#include "kavo_sim/kavo_sim.h"

using kavo_sim::bus_client;

namespace {

const std::string SIMD = kavo_test::tool_path("/kavo-simd");

class SimDaemon : public ::testing::Test {
  protected:
    void TearDown() override
    {
        kavo_sim::socket_disconnect();
        if (pid > 0) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, nullptr, 0);
        }
        ::unlink(path.c_str());
    }
    void spawn(std::vector<std::string> args)
    {
        args.insert(args.begin(), {SIMD, "--socket", path});
        pid = ::fork();
        if (pid == 0) {
            std::vector<char*> argv;
            for (auto& a : args)
                argv.push_back(a.data());
            argv.push_back(nullptr);
            // The daemon's own output would mix into the test's; a child that cannot
            // silence it does not start at all, and the test sees no daemon.
            if (::freopen("/dev/null", "w", stdout) == nullptr || ::freopen("/dev/null", "w", stderr) == nullptr)
                ::_exit(126);
            ::execv(argv[0], argv.data());
            ::_exit(127);
        }
    }
    /* Starts the daemon and waits until it answers. */
    bool start(std::vector<std::string> args)
    {
        spawn(std::move(args));
        for (int i = 0; i < 2000 && !kavo_sim::socket_callouts(path.c_str()); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        return kavo_sim::socket_callouts(path.c_str()) != nullptr;
    }
    /* Its exit status; -1 if it died otherwise or had to be killed after 10 s. */
    int wait_exit()
    {
        int status = 0;
        pid_t done = 0;
        for (int i = 0; i < 1000 && (done = ::waitpid(pid, &status, WNOHANG)) == 0; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        if (done == 0) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, &status, 0);
        }
        pid = -1;
        return done != 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    std::string path = "/tmp/kavo_simd_test_" + std::to_string(::getpid()) + ".sock";
    pid_t pid = -1;
};

TEST_F(SimDaemon, ChipsOutliveTheirClientsAndSigtermStopsIt)
{
    ASSERT_TRUE(start({"--chips", "2", "--revision", "revb"}));
    {
        bus_client bus(kavo_sim::socket_callouts(path.c_str()), 1);
        EXPECT_EQ(bus.rd(0xF00380), 0x16100000u);
        ASSERT_TRUE(bus.cold_start(kavo_sim::image_build({3, 0, 2, 5, kavo_sim::IMAGE_REV_B})));
    }
    kavo_sim::socket_disconnect();
    // A new connection finds the firmware running and talks to it.
    bus_client again(kavo_sim::socket_callouts(path.c_str()), 1);
    EXPECT_EQ(again.rd(0x3FFFC4), 5u);
    EXPECT_EQ(again.exchange(KAVO_HTL_OPERATION_STATUS).result(), VELT_SUCCESS);
    sim_chip_info_t info;
    ASSERT_EQ(kavo_sim::socket_chip_info(path.c_str(), 1, &info), VELT_SUCCESS);
    EXPECT_EQ(info.boot_count, 1u);
    EXPECT_EQ(info.requests, 1u);
    EXPECT_EQ(kavo_sim::socket_chip_info(path.c_str(), 2, &info), KAVO_ERR_INVALID_DEVICE_ID) << "two chips: 0 and 1";

    ::kill(pid, SIGTERM);
    EXPECT_EQ(wait_exit(), 0);
    EXPECT_NE(::access(path.c_str(), F_OK), 0) << "the socket file is removed";
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
        spawn(args);
        EXPECT_EQ(wait_exit(), 2) << args[0];
    }
}

} // namespace
