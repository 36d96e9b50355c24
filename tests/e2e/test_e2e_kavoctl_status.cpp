// kavoctl status and the device's start-up as a script sees them: clean
// standard output without the download's progress, the console lines that
// are new since the last status on a chip kavo-simd keeps, and --wait for a
// chip another client drives.
#include <gtest/gtest.h>

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include "kavo_sim/kavo_sim.h"
#include "kavo_test_device.h"

namespace {

using kavo_test::has;
using kavo_test::run_kavoctl;

TEST(kavoctl_status, PipesGetResultsWithoutTheProgressDots)
{
    setenv("VELT_FW_OPTIONS", "hello", 1);
    const auto pinged = run_kavoctl("--quiet ping 2", false);
    unsetenv("VELT_FW_OPTIONS");
    EXPECT_EQ(pinged.status, 0);
    EXPECT_EQ(pinged.output, "VELT_FW_OPTIONS=\"noop hello\"\nping: 2 words echoed\n") << "kept in order, no dots";

    const auto status = run_kavoctl("--quiet status", false);
    EXPECT_EQ(status.status, 0);
    EXPECT_EQ(status.output.rfind("device 0: type 0x6100, revision 0x0, firmware vcs 0x1, build 0x0\n"
                                  "version 3.0.2\n"
                                  "firmware alive, not configured, up 0 s, 45 C\n"
                                  "console: 3 new lines\n"
                                  "  kavo firmware 3.0.2 (vcs 1) on device 0x6100 rev A, device id 0\n",
                                  0),
              0u)
        << status.output;
    // A printer given standard output is a result: there even with --quiet.
    const auto called = run_kavoctl("--quiet call kavo_device_status_get", false);
    EXPECT_TRUE(has(called.output, "    sw_version: 0x300002\n")) << called.output;
}

struct daemon_chip : ::testing::Test {
    void SetUp() override
    {
        ASSERT_EQ(server.listen(path.c_str()), VELT_SUCCESS);
        server.start_thread();
        setenv("XDG_RUNTIME_DIR", state.c_str(), 1);
        std::filesystem::create_directories(state);
    }
    void TearDown() override
    {
        kavo_sim::socket_disconnect();
        server.stop();
        server.join();
        std::filesystem::remove_all(state);
        unsetenv("XDG_RUNTIME_DIR");
    }
    kavo_test::kavoctl_run kavoctl(const std::string& args) { return run_kavoctl("--quiet --sim-socket " + path + " " + args, true); }
    std::string console_of(const std::string& args = "")
    {
        const auto r = kavoctl(args + " status");
        EXPECT_EQ(r.status, 0) << r.output;
        return r.output.substr(r.output.find("console:"));
    }
    std::string path = "/tmp/kavo_status_test_" + std::to_string(::getpid()) + ".sock";
    std::string state = ::testing::TempDir() + "kavoctl_state_" + std::to_string(::getpid());
    kavo_sim::socket_server server;
};

TEST_F(daemon_chip, StatusShowsOnlyTheConsoleLinesNewSinceTheLastOne)
{
    EXPECT_TRUE(has(console_of(), "console: 3 new lines\n"));
    EXPECT_EQ(console_of(), "console: 0 new lines\n");
    EXPECT_EQ(kavoctl("cmd echo first words").status, 0);
    EXPECT_EQ(console_of(), "console: 1 new line\n  first words\n");
    EXPECT_EQ(console_of(), "console: 0 new lines\n");
    // A firmware restart starts its console afresh: all of it is new.
    EXPECT_TRUE(has(console_of("--init cold"), "console: 3 new lines\n  kavo firmware"));

    // Across the ring's end (8192 words; a line of 40 characters takes 12 words and 2 of framing).
    const std::string line(40, 'x');
    EXPECT_EQ(kavoctl("cmd repeat 280 " + line).status, 0);
    EXPECT_TRUE(has(console_of(), "console: 280 new lines\n"));
    EXPECT_EQ(kavoctl("cmd repeat 320 " + line).status, 0);
    EXPECT_TRUE(has(console_of(), "console: 320 new lines\n")) << "wrapped once, nothing lost";
    // More than a ring's worth since the last look: what is left, said so.
    EXPECT_EQ(kavoctl("cmd repeat 700 " + line).status, 0);
    EXPECT_TRUE(has(console_of(), "new lines; older lines were overwritten\n"));
}

TEST_F(daemon_chip, AChipInUseIsBusyOrWaitedFor)
{
    // This process drives chip 0 now.
    const tavo_callout_api_st* mine = kavo_sim::socket_callouts(path.c_str());
    ASSERT_NE(mine, nullptr);
    kavo_sim::socket_chip_create(path.c_str(), 0, {});
    UINT32 v = 0;
    ASSERT_EQ(mine->qspi_callout_api_ctx->qspi_read(nullptr, 0, 0, 0xF00380, &v), 0u);

    auto r = kavoctl("status");
    EXPECT_EQ(r.status, 3);
    EXPECT_TRUE(has(r.output, "kavoctl: chip 0 is busy: another client of kavo-simd drives it\n")) << r.output;
    r = kavoctl("--wait 0.2 status");
    EXPECT_EQ(r.status, 3);
    EXPECT_TRUE(has(r.output, "drives it (waited 0.2 s)\n")) << r.output;
    EXPECT_EQ(kavoctl("--wait -1 status").status, 2);

    // The chip is given up while kavoctl waits.
    std::thread release([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        kavo_sim::socket_disconnect();
    });
    r = kavoctl("--wait 10 status");
    release.join();
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_TRUE(has(r.output, "version 3.0.2\n")) << r.output;
}

} // namespace
