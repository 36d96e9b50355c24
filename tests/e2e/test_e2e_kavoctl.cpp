// kavoctl as a user runs it: exit status and the lines that matter, on the
// in-process virtual device.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <fstream>
#include <string>

namespace {

struct run_result {
    int status;
    std::string output;
};

run_result kavoctl(const std::string& args)
{
    const std::string command = std::string(KAVOCTL_PATH) + " " + args + " 2>&1";
    FILE* pipe = popen(command.c_str(), "r");
    run_result r{-1, ""};
    if (pipe == nullptr) return r;
    char chunk[4096];
    for (size_t n; (n = std::fread(chunk, 1, sizeof(chunk), pipe)) > 0;) r.output.append(chunk, n);
    const int raw = pclose(pipe);
    r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    return r;
}

}  // namespace

TEST(kavoctl, CommandsReportTheirResultByExitStatusAndName)
{
    const std::string script = ::testing::TempDir() + "kavoctl_script.txt";
    std::ofstream(script) << "config set 800G_FGB\nconfig show  # as stored by the firmware\n";
    struct {
        std::string args;
        int status;
        const char* shows;
    } cases[] = {
        {"status", 0, "        fw_version: 0x300002\n"},
        {"--revb --init cold status", 0, "kavo_fw_app_revb.mem"},
        {"ping 16", 0, "ping: 16 words echoed\n"},
        {"cmd version", 0, "kavo firmware 3.0.2"},
        {"reg read 0xF00380", 0, "0x00f00380: 0x06100000\n"},
        {"run " + script, 0, "    device_mode: KAVO_DEVICE_MODE_800G_FGB\n"},
        {"config show", 1, "kavoctl: config show: KAVO_ERR_FW_NOT_CONFIGURED (0x10)\n"},
        {"--device 40 status", 1, "KAVO_ERR_INVALID_DEVICE_ID"},
        {"--fw /nonexistent/kavo_fw_app_revx.mem status", 1, "KAVO_ERR_FW_IMAGE_DOES_NOT_EXIST"},
        {"verbosity=banana status", 2, "kavoctl: bad option verbosity=banana\n"},
        {"frobnicate", 2, "kavoctl: unknown command frobnicate\n"},
    };
    for (const auto& c : cases) {
        const run_result r = kavoctl(c.args);
        EXPECT_EQ(r.status, c.status) << c.args << "\n" << r.output;
        EXPECT_NE(r.output.find(c.shows), std::string::npos) << c.args << "\n" << r.output;
    }
}

TEST(kavoctl, EveryTableCommandIsReachableByName)
{
    const std::string script = ::testing::TempDir() + "kavoctl_calls.txt";
    std::ofstream(script) << "call kavo_device_config device_mode=800G_FGB ilkn_intf.burst_max=16 "
                             "ilkn_lane.serdes_port_ids_tx[2]=7\n"
                             "call kavo_device_config_get\n";
    struct {
        std::string args;
        int status;
        const char* shows;
    } cases[] = {
        {"run " + script, 0, "        burst_max: 16\n"},
        {"run " + script, 0, "    device_mode: KAVO_DEVICE_MODE_800G_FGB\n"},
        {"--json call kavo_dcsu_cfg_get dcsu_inst=1", 0, "\"result_name\":\"VELT_SUCCESS\""},
        {"--json call kavo_dcsu_cfg_get dcsu_inst=KAVO_DCSU_INSTANCE_1", 0, "\"fb_int_div\":84"},
        {"--json call kavo_device_config_get", 1, "\"result_name\":\"KAVO_ERR_FW_NOT_CONFIGURED\""},
        {"call kavo_device_config_get", 1, "kavoctl: kavo_device_config_get: KAVO_ERR_FW_NOT_CONFIGURED (0x10)\n"},
        {"call kavo_device_config nonsense=1", 2, "kavo_config_t has no member nonsense\n"},
        {"call kavo_device_config device_mode=FAST", 2, "bad value FAST for device_mode\n"},
        {"call kavo_device_config ilkn_lane.serdes_port_ids_tx[24]=1", 2, "is out of range\n"},
        {"call kavo_dcsu_cfg_get", 2, "kavo_dcsu_cfg_get needs dcsu_inst=VALUE\n"},
        {"call kavo_no_such_command", 2, "no command kavo_no_such_command"},
        {"call kavo_sdk_init", 2, "cannot be called from kavoctl"},
        {"help kavo_dcsu_cfg_get", 0, "    dcsu_inst                a kavo_dcsu_instance_t constant\n"},
        {"list ipi", 0, "kavo_ipi_test_set"},
        {"list nofamily", 2, "no command family nofamily"},
    };
    for (const auto& c : cases) {
        const run_result r = kavoctl(c.args);
        EXPECT_EQ(r.status, c.status) << c.args << "\n" << r.output;
        EXPECT_NE(r.output.find(c.shows), std::string::npos) << c.args << "\n" << r.output;
    }
}

TEST(kavoctl, ImagesAreWrittenAndInspected)
{
    const std::string image = ::testing::TempDir() + "kavoctl_image.mem";
    EXPECT_EQ(kavoctl("image create " + image + " --version 3.0.9 --vcs 12").status, 0);
    const run_result inspected = kavoctl("image inspect " + image);
    EXPECT_EQ(inspected.status, 0);
    EXPECT_NE(inspected.output.find("version: 3.0.9 (vcs 12)\n"), std::string::npos) << inspected.output;
    const run_result booted = kavoctl("--fw " + image + " status");
    EXPECT_NE(booted.output.find("fw_version: 0x300009"), std::string::npos) << booted.output;
}
