// kavoctl's defect and counter views as a user runs them, on the in-process
// virtual device: texts, JSON documents, exit status of refusals.
#include <gtest/gtest.h>

#include "kavo_test_device.h"
#include <sys/wait.h>

#include <cstdio>
#include <string>

namespace {

using run_result = kavo_test::kavoctl_run;
run_result kavoctl(const std::string& args) { return kavo_test::run_kavoctl(args, true); }

}  // namespace

TEST(kavoctl, DefectAndCounterViews)
{
    struct {
        const char* args;
        int status;
        const char* shows;
    } cases[] = {
        {"defects dcsu 1", 0, "kavo_defect_dcsu_t:\n    Summary: {V: 0, I: 0, E: 0}\n    lock: {V: 0, I: 0, E: 0}\n"},
        {"defects tlic --filter vi --clear all", 0, "kavo_defect_tlic_t:\n    shw:\n    -   # slice[0]\n        pb_igr:\n"},
        {"--json defects serdes 2", 0, "\"los\":{\"e\":0,\"i\":0,\"v\":0,\"valid\":1}"},
        {"--json defects summary --filter v", 0, "\"summary\":{}"},
        {"defects enet 0", 1, "kavoctl: defects: DEFECTS_ERR_INVALID_CHNL_ID (0x1a08)\n"},
        {"defects serdes", 2, "defects serdes ID"},
        {"defects dcsu 1 --filter x", 2, "unknown filter x"},
        {"defects bogus 1", 2, "unknown object bogus"},
        {"pmon flexe_group 2 --all", 0, "    oh_crc_err_lsb: 0\n    oh_crc_err_msb: 0\n"},
        {"--json pmon ilkn_intf --watch 1", 0, "\"trigger_count\":1"},
        {"pmon ilkn_pkt 3 --watch 1", 0, "trigger 1, "},
        {"pmon trigger", 0, ""},
        {"pmon enet 48", 1, "kavoctl: pmon: PMON_ERR_INVALID_CHNL_ID (0x1b04)\n"},
        {"pmon flexe_client 1 --watch 0", 2, "--watch needs a number of seconds"},
    };
    for (const auto& c : cases) {
        const run_result r = kavoctl(c.args);
        EXPECT_EQ(r.status, c.status) << c.args << "\n" << r.output;
        EXPECT_NE(r.output.find(c.shows), std::string::npos) << c.args << "\n" << r.output;
    }
}
