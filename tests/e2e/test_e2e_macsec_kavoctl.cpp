// kavoctl's MACsec views as a user runs them: an SA from published key
// material, a known-answer frame through the engine, what show and stats report.
#include <gtest/gtest.h>

#include "kavo_test_device.h"
#include <sys/wait.h>

#include <cstdio>
#include <fstream>
#include <string>

namespace {

// kavoctl is built beside the virtual device's tools (build/tools/kavoctl).
const std::string KAVOCTL = kavo_test::tool_path("/../tools/kavoctl/kavoctl");

std::string run(const std::string& args, int& status)
{
    FILE* pipe = popen((KAVOCTL + " " + args + " 2>&1").c_str(), "r");
    std::string out;
    if (pipe == nullptr) return out;
    char chunk[4096];
    for (size_t n; (n = std::fread(chunk, 1, sizeof(chunk), pipe)) > 0;) out.append(chunk, n);
    const int raw = pclose(pipe);
    status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    return out;
}

TEST(macsec_kavoctl, KnownAnswerFrameAndViews)
{
    const std::string script = ::testing::TempDir() + "kavoctl_macsec.txt";
    const std::string setup =
        "call kavo_macsec_vport_add chnl_id=3 direction=KAVO_MACSEC_EGRESS_DIRECTION vport_key=1\n"
        "call kavo_macsec_rule_add vport_id=0\n"
        "macsec sa-add 0 key=AD7A2BD03EAC835A6F620FDCB506B345 sci=12153524C0895E81 an=2 pn=0xB2C28465\n"
        "macsec frame 3 egress D609B1F056637A0D46DF998D08000F101112131415161718191A1B1C1D1E1F20212223242526"
        "2728292A2B2C2D2E2F303132333435363738393A0002\n";
    struct {
        const char* view;
        int status;
        const char* shows;
    } const cases[] = {
        {"", 0, "88E52E00B2C2846512153524C0895E81701AFA1CC039C0D7"},
        {"macsec show 3", 0, "    sa 0 an 2 next_pn 0xb2c28466 GCM-AES-128 sci 12153524C0895E81 in use\n"},
        {"macsec stats 3", 0, "        pkts_secured: 1"},
        {"macsec sa-add 0 key=AD7A sci=1215", 2, "kavoctl: bad key=AD7A"},
        {"macsec show 48", 2, "macsec show|stats [CHNL]"},
    };
    for (const auto& c : cases) {
        std::ofstream(script) << setup << c.view << "\n";
        int status = -1;
        const std::string out = run("run " + script, status);
        EXPECT_EQ(status, c.status) << c.view << "\n" << out;
        EXPECT_NE(out.find(c.shows), std::string::npos) << c.view << "\n" << out;
    }
    std::ofstream(script) << setup;
    int status = -1;
    const std::string json = run("--json run " + script + " && " + KAVOCTL + " --json macsec show", status);
    EXPECT_NE(json.find("\"frame\":\"D609B1F056637A0D46DF998D88E52E00"), std::string::npos) << json;
    EXPECT_NE(json.find("{\"channels\":[],\"result\":0"), std::string::npos) << "a new virtual device holds nothing\n"
                                                                         << json;
}

} // namespace
