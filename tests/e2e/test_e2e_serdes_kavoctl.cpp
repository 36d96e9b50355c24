// kavoctl's SerDes views as a user runs them: the eye plot, a PRBS run, the
// overview in JSON, and the microcode load, on the in-process virtual device.
#include <gtest/gtest.h>

#include "kavo_test_device.h"
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "../../sim/src/fw/serdes_lane.h"

namespace {

/* The kavoctl of this build, beside the test programs' directory. */
std::string kavoctl_path()
{
    return (std::filesystem::read_symlink("/proc/self/exe").parent_path().parent_path() / "tools/kavoctl/kavoctl")
        .string();
}

using run_result = kavo_test::kavoctl_run;
run_result kavoctl(const std::string& args) { return kavo_test::run_kavoctl(args, false); }

TEST(kavoctl_serdes, ViewsShowTheLanes)
{
    if (!std::filesystem::exists(kavoctl_path())) GTEST_SKIP() << "kavoctl is not built";
    const auto file = kavo_sim::fw::serdes::microcode_file(0x00010009, 10000);
    const std::string ucode = ::testing::TempDir() + "kavoctl_serdes_ucode.bin";
    std::ofstream(ucode, std::ios::binary).write(reinterpret_cast<const char*>(file.data()), std::streamsize(file.size()));
    struct {
        std::string args;
        int status;
        const char* shows;
    } cases[] = {
        {"serdes eye 7", 0, "port 7 eye at 1e-6: 32 mV x 297 mUI"},
        {"serdes eye 7 9", 0, "port 7 eye at 1e-9: 22 mV x 246 mUI\n +124 mV |####"},
        {"serdes eye 48", 2, ""},
        {"serdes prbs 7 prbs31", 0, "port 7: 31 not locked"},
        {"serdes prbs 7 NONE", 0, "port 7: PRBS off"},
        {"serdes prbs 7 33", 2, ""},
        {"--json serdes prbs 7 13Q", 0, "\"lock\":0"},
        {"serdes show 7", 0, "  taps cm2 0 cm1 0 c0 0 c1 0 c2 0\n"},
        {"serdes show", 0, "  47 yes    yes  no       32     297 no     no     idle   -\n"},
        {"--json serdes show", 0, "\"port\":47"},
        {"serdes load " + ucode, 0, "microcode 0x00010009 running"},
        {"serdes load /nonexistent/ucode.bin", 1, ""},
    };
    for (const auto& c : cases) {
        const run_result r = kavoctl(c.args);
        EXPECT_EQ(r.status, c.status) << c.args << "\n" << r.output;
        EXPECT_NE(r.output.find(c.shows), std::string::npos) << c.args << "\n" << r.output;
    }
}

} // namespace
