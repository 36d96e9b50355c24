// kavoctl as a user runs it: exit status and the lines that matter, on the
// in-process virtual device.
#include <gtest/gtest.h>

#include "kavo_test_device.h"
#include <sys/wait.h>

#include <cstdio>
#include <fstream>
#include <string>

namespace {

using run_result = kavo_test::kavoctl_run;
run_result kavoctl(const std::string& args) { return kavo_test::run_kavoctl(args, true); }

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
        {"status", 0, "version 3.0.2\n"},
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

TEST(kavoctl, ScriptsGetCleanResultsAndDistinctStatuses)
{
    const std::string bad_image = ::testing::TempDir() + "kavoctl_bad.mem";
    const std::string script = ::testing::TempDir() + "kavoctl_failing.txt";
    std::ofstream(script) << "status\n# a comment\nconfig show\nstatus\n";
    kavoctl("image create " + bad_image + " --corrupt");
    const std::string long_text(16400, 'x');
    struct {
        std::string args;
        int status;
        const char* shows;
    } cases[] = {
        {"--version", 0, "kavoctl 3.0.2 (libkavo 3.0.2)\n"},
        {"--quiet --json status 2>/dev/null", 0, "\"result\":0,\"result_name\":\"VELT_SUCCESS\",\"status\":{"},
        {"--quiet --verbosity=6 -trace_reg_read=1 function_stats reg read 0xF00380", 0, "0x00f00380: 0x06100000\n"},
        {"--quiet --bogus status", 2, "kavoctl: unknown option --bogus\n"},
        {"--quiet reg read 0x3", 1, "kavoctl: reg: the bus reported 1 failed transaction\n"},
        {"--quiet --sim-socket /nonexistent/kavo.sock status", 3, "cannot reach kavo-simd"},
        {"--quiet --fw " + bad_image + " status", 1, "image_crc mismatch"},
        {"--quiet run " + script, 1, ":3: config show\n"},
        {"--quiet call kavo_debug_cmd max_resp_data_size=64 cmd=" + long_text, 4,
         "kavoctl: the library stopped at an assertion: "},
        {"--quiet image create /tmp/x.mem --device-rev 1", 2, "unknown option --device-rev"},
        // a name that is not UTF-8 shows U+FFFD in JSON
        {"--quiet --json image inspect '/nonexistent/\x88.mem'", 1, "\"file\":\"/nonexistent/\xef\xbf\xbd.mem\""},
    };
    for (const auto& c : cases) {
        const run_result r = kavoctl(c.args);
        EXPECT_EQ(r.status, c.status) << c.args.substr(0, 120) << "\n" << r.output;
        EXPECT_NE(r.output.find(c.shows), std::string::npos) << c.args.substr(0, 120) << "\n" << r.output;
    }
}

TEST(kavoctl, ImagesAreWrittenAndInspected)
{
    const std::string image = ::testing::TempDir() + "kavoctl_image.mem";
    EXPECT_EQ(kavoctl("image create " + image + " --version 3.0.9 --vcs 12").status, 0);
    const run_result inspected = kavoctl("image inspect " + image);
    EXPECT_EQ(inspected.status, 0);
    EXPECT_NE(inspected.output.find("version      3_0_9_12\n"), std::string::npos) << inspected.output;
    EXPECT_NE(inspected.output.find("status       ok\n"), std::string::npos) << inspected.output;
    const run_result booted = kavoctl("--fw " + image + " status");
    EXPECT_NE(booted.output.find("version 3.0.9 (firmware), 3.0.2 (library)\n"), std::string::npos) << booted.output;
}
