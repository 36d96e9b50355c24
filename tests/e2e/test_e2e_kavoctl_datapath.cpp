// kavoctl's datapath verbs as a user runs them: a script that provisions,
// connects and loops back ports, then the channel table as text and as JSON.
#include <gtest/gtest.h>

#include "kavo_test_device.h"
#include <sys/wait.h>

#include <cstdio>
#include <fstream>
#include <regex>
#include <string>

namespace {

using run_result = kavo_test::kavoctl_run;
run_result kavoctl(const std::string& args) { return kavo_test::run_kavoctl(args, false); }

std::string script(const std::string& name, const std::string& steps)
{
    const std::string path = ::testing::TempDir() + name;
    std::ofstream(path) << "config set 1200G_ENET\n"
                           "enet prov 0 100GE_4X25G 0 RS_528\n"
                           "enet prov 1 400GE_8X50G 15,14,13,12,11,10,9,8 RS_544\n"
                           "connect 0 1\n"
                           "connect both 0\n"
                           "loopback 1 host\n"
                        << steps;
    return path;
}

} // namespace

TEST(kavoctl_datapath, ScriptProvisionsConnectsAndShowsTheChannels)
{
    const run_result text = kavoctl("run " + script("dp_text.txt", "loopback 1\ndatapath show\n"));
    ASSERT_EQ(text.status, 0) << text.output;
    EXPECT_NE(text.output.find("channel 1: loopback HOST\n"), std::string::npos) << text.output;
    // The chip's clock runs in real time here: the links train within
    // milliseconds, so either state is right for the link column.
    EXPECT_TRUE(std::regex_search(
        text.output, std::regex("\n0     ENET_PORT    100GE_4X25G    0,1,2,3                 RS_528    (down|up  )  yes yes NONE\n")))
        << text.output;
    EXPECT_TRUE(std::regex_search(
        text.output, std::regex("\n1     ENET_PORT    400GE_8X50G    15,14,13,12,11,10,9,8   RS_544    (down|up  )  yes yes HOST\n")))
        << text.output;
    EXPECT_NE(text.output.find("\n47    -\n"), std::string::npos) << text.output;

    const run_result json = kavoctl("--json run " + script("dp_json.txt", "datapath show\n"));
    ASSERT_EQ(json.status, 0) << json.output;
    EXPECT_TRUE(std::regex_search(
        json.output, std::regex("\\{\"chnl\":1,\"fec\":\"RS_544\",\"lanes\":\\[15,14,13,12,11,10,9,8\\],\"link_up\":(false|true),"
                                "\"loopback\":\"HOST\",\"mode\":\"400GE_8X50G\",\"prov_mode\":\"MAC\",\"rx_connect\":true,"
                                "\"tx_connect\":true,\"type\":\"ENET_PORT\"\\}")))
        << json.output;
}

TEST(kavoctl_datapath, RefusalsAndUsageErrorsHaveTheirExitStatus)
{
    struct {
        std::string steps;
        int status;
        const char* shows;
    } cases[] = {
        {"enet prov 2 100GE_2X50G 16 NONE\n", 1, "SEGMENT_BASE_ENET_FEC_MODE_INVALID"},
        {"connect 0 1\nconnect 2 1\n", 1, "SEGMENT_BASE_ERR_CONNECTION_SOURCE_NOT_PROVISIONED"},
        {"loopback 1 line\n", 1, "PB_HOST_LPBK_ALREADY_PROV"},
        {"enet prov 2 100GE_9X9G 16 NONE\n", 2, ""},
        {"loopback 48\n", 2, ""},
    };
    int i = 0;
    for (const auto& c : cases) {
        const std::string path = script("dp_case" + std::to_string(i++) + ".txt", c.steps);
        const run_result r = kavoctl("--json run " + path);
        EXPECT_EQ(r.status, c.status) << c.steps << r.output;
        EXPECT_NE(r.output.find(c.shows), std::string::npos) << c.steps << r.output;
    }
}
