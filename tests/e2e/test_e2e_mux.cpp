// The protection mux end to end: what it needs from the device configuration,
// its configuration and channel rules, the side moved by the host, the states
// and the select pin, and protection switching on link loss under firmware
// supervision only.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "kavo_test_device.h"
#include "kavo_test_log.h"

using kavo_test::device_test;
using kavo_test::take;

namespace {

constexpr UINT32 ID = 0;
constexpr UINT32 HMUX_BIT = 1u << VELT_IPI_HMUX_STATE_CHANGE;
constexpr kavo_mux_active_select_t A = KAVO_MUX_ACTIVE_SELECT_LINE_A;
constexpr kavo_mux_active_select_t B = KAVO_MUX_ACTIVE_SELECT_LINE_B;

VELT_ERROR configure_device(bool mux_mode)
{
    kavo_config_t c;
    c.device_mode = KAVO_DEVICE_MODE_1200G_ENET;
    c.mux_mode = mux_mode;
    return kavo_device_config(ID, &c);
}

class mux_test : public device_test {
  protected:
    /* A device configured for the mux, and the mux configured. */
    void SetUp() override
    {
        device_test::SetUp();
        ASSERT_EQ(bring_up(ID), VELT_SUCCESS) << take();
        ASSERT_EQ(configure_device(true), VELT_SUCCESS);
        cfg.supervisor_mode = KAVO_MUX_SUPERVISOR_MODE_HOST;
        cfg.hold_off_ms = 50;
        ASSERT_EQ(kavo_mux_config(ID, &cfg), VELT_SUCCESS) << take();
    }
    VELT_ERROR place(UINT32 line, kavo_mux_active_select_t side, UINT32 host, BOOL32 enable = 1)
    {
        kavo_mux_chnl_config_t c;
        c.line_side = side;
        c.host_chnl_id = host;
        c.enable = enable;
        return kavo_mux_chnl_config_set(ID, line, &c);
    }
    kavo_mux_status_t status()
    {
        kavo_mux_status_t s;
        EXPECT_EQ(kavo_mux_status_get(ID, &s), VELT_SUCCESS);
        return s;
    }
    /* The mux's interrupt, cleared once seen. */
    bool interrupted()
    {
        UINT32 bits = 0;
        EXPECT_EQ(kavo_ipi_interrupt_status_get(ID, &bits), VELT_SUCCESS);
        if (bits & HMUX_BIT) kavo_ipi_clear(ID, VELT_IPI_HMUX_STATE_CHANGE);
        return (bits & HMUX_BIT) != 0;
    }
    kavo_sim::chip* chip() { return kavo_sim::chip_get(ID); }
    kavo_mux_dev_config_t cfg;
};

}  // namespace

TEST_F(device_test, MuxAnswersOnlyOnADeviceConfiguredForIt)
{
    ASSERT_EQ(bring_up(ID), VELT_SUCCESS) << take();
    kavo_mux_dev_config_t cfg;
    kavo_mux_status_t s;
    EXPECT_EQ(kavo_mux_config(ID, &cfg), UINT32(KAVO_ERR_FW_NOT_CONFIGURED)) << "device not configured";
    ASSERT_EQ(configure_device(false), VELT_SUCCESS);
    EXPECT_EQ(kavo_mux_config(ID, &cfg), UINT32(RUNTIME_OPERATION_NOT_SUPPORTED)) << "configured without the mux";
    ASSERT_EQ(configure_device(true), VELT_SUCCESS);
    EXPECT_EQ(kavo_mux_status_get(ID, &s), UINT32(KAVO_ERR_FW_NOT_CONFIGURED)) << "mux not configured yet";
    EXPECT_EQ(kavo_mux_config(ID, nullptr), UINT32(VELT_ERR_INVALID_ARGS));
    EXPECT_TRUE(kavo_test::has(take(), " NULL Pointer supplied for Input parameter\n"));
}

TEST_F(mux_test, ConfigurationIsCheckedReadBackAndForgottenOnShutdown)
{
    struct {
        const char* what;
        void (*spoil)(kavo_mux_dev_config_t&);
        UINT32 code;
    } bad[] = {
        {"supervisor", [](kavo_mux_dev_config_t& c) { c.supervisor_mode = LAST_KAVO_MUX_SUPERVISOR_MODE; },
         KAVO_FW_ERR_INVALID_PARAMETERS},
        {"initial side", [](kavo_mux_dev_config_t& c) { c.initial_select = kavo_mux_active_select_t(-1); },
         KAVO_FW_ERR_INVALID_PARAMETERS},
        {"revertive", [](kavo_mux_dev_config_t& c) { c.revertive = 2; }, KAVO_FW_ERR_INVALID_PARAMETERS},
        {"hold-off", [](kavo_mux_dev_config_t& c) { c.hold_off_ms = 10001; }, KAVO_FW_ERR_NUMBER_OUT_OF_RANGE},
        {"wait to restore", [](kavo_mux_dev_config_t& c) { c.wait_to_restore_ms = 720001; },
         KAVO_FW_ERR_NUMBER_OUT_OF_RANGE},
    };
    for (auto& b : bad) {
        kavo_mux_dev_config_t c = cfg;
        b.spoil(c);
        EXPECT_EQ(kavo_mux_config(ID, &c), b.code) << b.what;
    }
    kavo_mux_dev_config_t back;
    ASSERT_EQ(kavo_mux_config_get(ID, &back), VELT_SUCCESS);
    EXPECT_EQ(std::memcmp(&back, &cfg, sizeof(cfg)), 0) << "refused configurations leave the last one";

    EXPECT_EQ(kavo_mux_supervisor_mode_set(ID, KAVO_MUX_SUPERVISOR_MODE_FW), VELT_SUCCESS);
    EXPECT_EQ(kavo_mux_supervisor_mode_set(ID, LAST_KAVO_MUX_SUPERVISOR_MODE), UINT32(KAVO_FW_ERR_INVALID_PARAMETERS));
    ASSERT_EQ(kavo_mux_config_get(ID, &back), VELT_SUCCESS);
    EXPECT_EQ(back.supervisor_mode, KAVO_MUX_SUPERVISOR_MODE_FW);
    EXPECT_EQ(status().supervisor_mode, KAVO_MUX_SUPERVISOR_MODE_FW);

    EXPECT_EQ(kavo_device_uninit(ID, 1), VELT_SUCCESS);
    ASSERT_EQ(kavo_device_init(ID, KAVO_INIT_AUTO), VELT_SUCCESS) << take();
    ASSERT_EQ(configure_device(true), VELT_SUCCESS);
    EXPECT_EQ(kavo_mux_config_get(ID, &back), UINT32(KAVO_ERR_FW_NOT_CONFIGURED)) << "a shutdown ends the mux";
}

TEST_F(mux_test, LineChannelsSitOnOneSidePerHostChannel)
{
    ASSERT_EQ(place(0, A, 10), VELT_SUCCESS);
    ASSERT_EQ(place(1, B, 10), VELT_SUCCESS);
    struct {
        UINT32 line;
        kavo_mux_active_select_t side;
        UINT32 host;
        BOOL32 enable;
        UINT32 code;
    } cases[] = {
        {48, A, 11, 1, SEGMENT_BASE_ERR_ILLEGAL_CHNL_ID},
        {2, A, 48, 1, SEGMENT_BASE_ERR_ILLEGAL_CHNL_ID},
        {2, A, 2, 1, SEGMENT_BASE_ERR_ILLEGAL_CHNL_ID},     // its own host
        {2, A, 0, 1, SEGMENT_BASE_ERR_ILLEGAL_CHNL_ID},     // a line channel as host
        {10, A, 11, 1, SEGMENT_BASE_ERR_ILLEGAL_CHNL_ID},   // a host channel as line
        {2, B, 10, 1, SEGMENT_BASE_ERR_EXISTING_CHNL_ID},   // host 10 has its side B
        {2, LAST_KAVO_MUX_ACTIVE_SELECT, 11, 1, KAVO_FW_ERR_INVALID_PARAMETERS},
        {2, A, 11, 2, KAVO_FW_ERR_INVALID_PARAMETERS},
        {1, B, 10, 1, VELT_SUCCESS},                        // placed again where it is
        {1, A, 10, 0, VELT_SUCCESS},                        // taken out
        {2, B, 10, 1, VELT_SUCCESS},                        // side B free again
    };
    for (auto& c : cases)
        EXPECT_EQ(place(c.line, c.side, c.host, c.enable), c.code) << "line " << c.line << " host " << c.host;
    EXPECT_EQ(kavo_mux_chnl_config_set(ID, 3, nullptr), UINT32(VELT_ERR_INVALID_ARGS));
}

TEST_F(mux_test, HostMovesTheSideWithinWhatTheStateAllows)
{
    struct step {
        const char* what;
        VELT_ERROR (*act)(UINT32 id);
        UINT32 code;
        kavo_mux_active_select_t side;
        UINT32 switches;
    } steps[] = {
        {"select B", [](UINT32 id) { return kavo_mux_active_select_set(id, B); }, VELT_SUCCESS, B, 1},
        {"select B again", [](UINT32 id) { return kavo_mux_active_select_set(id, B); }, VELT_SUCCESS, B, 1},
        {"bad side", [](UINT32 id) { return kavo_mux_active_select_set(id, LAST_KAVO_MUX_ACTIVE_SELECT); },
         KAVO_FW_ERR_INVALID_PARAMETERS, B, 1},
        {"lockout", [](UINT32 id) { return kavo_mux_state_set(id, KAVO_MUX_STATE_LOCKOUT); }, VELT_SUCCESS, A, 2},
        {"select in lockout", [](UINT32 id) { return kavo_mux_active_select_set(id, B); },
         RUNTIME_OPERATION_NOT_SUPPORTED, A, 2},
        {"forced", [](UINT32 id) { return kavo_mux_state_set(id, KAVO_MUX_STATE_FORCED); }, VELT_SUCCESS, A, 2},
        {"select when forced", [](UINT32 id) { return kavo_mux_active_select_set(id, B); }, VELT_SUCCESS, B, 3},
        {"standby", [](UINT32 id) { return kavo_mux_state_set(id, KAVO_MUX_STATE_STANDBY); }, VELT_SUCCESS, B, 3},
        {"bad state", [](UINT32 id) { return kavo_mux_state_set(id, LAST_KAVO_MUX_STATE); },
         KAVO_FW_ERR_INVALID_PARAMETERS, B, 3},
        {"active", [](UINT32 id) { return kavo_mux_state_set(id, KAVO_MUX_STATE_ACTIVE); }, VELT_SUCCESS, B, 3},
    };
    for (auto& s : steps) {
        chip()->advance_time(1000);
        EXPECT_EQ(s.act(ID), s.code) << s.what;
        const kavo_mux_status_t st = status();
        EXPECT_EQ(st.active_select, s.side) << s.what;
        EXPECT_EQ(st.switch_count, s.switches) << s.what;
    }
    EXPECT_EQ(status().state, KAVO_MUX_STATE_ACTIVE);
    EXPECT_FALSE(interrupted()) << "the host's own moves are not announced";
    // Firmware supervision with neither side's channels provisioned: no link, no flapping.
    ASSERT_EQ(kavo_mux_supervisor_mode_set(ID, KAVO_MUX_SUPERVISOR_MODE_FW), VELT_SUCCESS);
    ASSERT_EQ(place(0, A, 10), VELT_SUCCESS);
    ASSERT_EQ(place(1, B, 10), VELT_SUCCESS);
    chip()->advance_time(1000000);
    EXPECT_EQ(status().switch_count, 3u);
    EXPECT_EQ(status().line_a_link_up + status().line_b_link_up, 0u);
    EXPECT_EQ(kavo_mux_config(ID, &cfg), VELT_SUCCESS);
    EXPECT_EQ(status().switch_count, 0u) << "a configuration restarts the count";
    EXPECT_EQ(status().active_select, A);
}

TEST_F(mux_test, SelectPinDecidesWithItsPolarityAndIsAnnounced)
{
    ASSERT_EQ(kavo_mux_input_select_source_set(ID, KAVO_MUX_INPUT_SELECT_SOURCE_PIN, 0), VELT_SUCCESS);
    EXPECT_EQ(kavo_mux_input_select_source_set(ID, LAST_KAVO_MUX_INPUT_SELECT_SOURCE, 0),
              UINT32(KAVO_FW_ERR_INVALID_PARAMETERS));
    EXPECT_EQ(kavo_mux_input_select_source_set(ID, KAVO_MUX_INPUT_SELECT_SOURCE_PIN, 2),
              UINT32(KAVO_FW_ERR_INVALID_PARAMETERS));
    EXPECT_EQ(kavo_mux_active_select_set(ID, B), UINT32(RUNTIME_OPERATION_NOT_SUPPORTED)) << "the pin decides";
    EXPECT_EQ(status().active_select, A) << "pin low";

    chip()->knob_set(SIM_KNOB_MUX_SELECT_PIN, 0, 1);
    EXPECT_TRUE(interrupted());
    kavo_mux_status_t s = status();
    EXPECT_EQ(s.active_select, B);
    EXPECT_EQ(s.select_pin, 1u);

    ASSERT_EQ(kavo_mux_input_select_source_set(ID, KAVO_MUX_INPUT_SELECT_SOURCE_PIN, 1), VELT_SUCCESS);
    EXPECT_EQ(status().active_select, A) << "inverted: high selects A";
    EXPECT_FALSE(interrupted()) << "the host's polarity change is its own move";

    ASSERT_EQ(kavo_mux_state_set(ID, KAVO_MUX_STATE_FORCED), VELT_SUCCESS);
    chip()->knob_set(SIM_KNOB_MUX_SELECT_PIN, 0, 0);
    EXPECT_EQ(status().active_select, A) << "forced: the pin is ignored";
    EXPECT_FALSE(interrupted());
    ASSERT_EQ(kavo_mux_input_select_source_set(ID, KAVO_MUX_INPUT_SELECT_SOURCE_REGISTER, 0), VELT_SUCCESS);
    ASSERT_EQ(kavo_mux_state_set(ID, KAVO_MUX_STATE_ACTIVE), VELT_SUCCESS);
    EXPECT_EQ(status().switch_count, 2u);
}

#if __has_include("kavo/kavo_api_enet.h")
// Line side A on channel 0 (SerDes port 0), side B on channel 1 (port 1): the
// partner knob of a side's port takes its link down.
TEST_F(mux_test, LinkLossSwitchesUnderFirmwareSupervisionOnly)
{
    for (UINT32 chnl : {0u, 1u})
        ASSERT_EQ(kavo_enet_prov(ID, chnl, 0xFFFFFFFF, chnl, KAVO_SERDES_PIN_MODE_25G_NRZ, KAVO_ENET_PORT_MODE_25GE,
                                 KAVO_ENET_PROV_MODE_MAC, KAVO_ENET_FEC_MODE_NONE),
                  VELT_SUCCESS)
            << take();
    ASSERT_EQ(place(0, A, 10), VELT_SUCCESS);
    ASSERT_EQ(place(1, B, 10), VELT_SUCCESS);
    chip()->advance_time(100000);
    kavo_mux_status_t s = status();
    ASSERT_TRUE(s.line_a_link_up && s.line_b_link_up);
    // A clock recovered from side A's channel, held while that channel has no link.
    kavo_pgmrclk_cfg_get_t clk;
    ASSERT_EQ(kavo_pgmrclk_cfg(ID, KAVO_PGMRCLK_ID_0, KAVO_PGMRCLK_INPUT_SOURCE_ENET_CHNL, 0, 156.25, 15.625, 1),
              VELT_SUCCESS);
    ASSERT_EQ(kavo_pgmrclk_squelch_enable(ID, KAVO_PGMRCLK_ID_0, 0xFFFFFFFF, 0), VELT_SUCCESS);
    ASSERT_EQ(kavo_pgmrclk_cfg_get(ID, KAVO_PGMRCLK_ID_0, &clk), VELT_SUCCESS);
    EXPECT_EQ(clk.squelched, 0u);

    // Host supervision: the loss is reported, nothing moves.
    chip()->knob_set(SIM_KNOB_LINK_PARTNER, 0, 0);
    chip()->advance_time(100000);
    ASSERT_EQ(kavo_pgmrclk_cfg_get(ID, KAVO_PGMRCLK_ID_0, &clk), VELT_SUCCESS);
    EXPECT_EQ(clk.squelched, 1u);
    s = status();
    EXPECT_FALSE(s.line_a_link_up);
    EXPECT_EQ(s.active_select, A);
    EXPECT_FALSE(interrupted());

    // Firmware supervision: after the hold-off, to B, announced.
    ASSERT_EQ(kavo_mux_supervisor_mode_set(ID, KAVO_MUX_SUPERVISOR_MODE_FW), VELT_SUCCESS);
    EXPECT_EQ(status().active_select, A) << "the loss is seen; the hold-off starts";
    chip()->advance_time(cfg.hold_off_ms * 1000 - 1000);
    EXPECT_EQ(status().active_select, A) << "within the hold-off";
    chip()->advance_time(1000);
    EXPECT_TRUE(interrupted());
    s = status();
    EXPECT_EQ(s.active_select, B);
    EXPECT_EQ(s.switch_count, 1u);

    // A back, non-revertive: traffic stays on B; B lost: back to A.
    chip()->knob_set(SIM_KNOB_LINK_PARTNER, 0, 1);
    chip()->advance_time(100000);
    EXPECT_EQ(status().active_select, B);
    chip()->knob_set(SIM_KNOB_LINK_PARTNER, 1, 0);
    chip()->advance_time(100000);
    status();
    chip()->advance_time(cfg.hold_off_ms * 1000);
    EXPECT_EQ(status().active_select, A);
    EXPECT_TRUE(interrupted());
}
#endif

namespace {

/* kavoctl's output (standard output only) and exit status; the tool sits beside the sim tools in the build. */
std::pair<int, std::string> kavoctl(const std::string& args)
{
    const std::string tool = kavo_test::tool_path("/../tools/kavoctl/kavoctl");
    FILE* pipe = popen((tool + " " + args + " 2>/dev/null").c_str(), "r");
    std::string out;
    if (pipe == nullptr) return {-1, out};
    char chunk[4096];
    for (size_t n; (n = std::fread(chunk, 1, sizeof(chunk), pipe)) > 0;)
        out.append(chunk, n);
    const int raw = pclose(pipe);
    return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, out};
}

}  // namespace

TEST(kavoctl_views, MuxAndClockShow)
{
    if (access(kavo_test::tool_path("/../tools/kavoctl/kavoctl").c_str(), X_OK) != 0)
        GTEST_SKIP() << "kavoctl is not built";
    const std::string script = ::testing::TempDir() + "kavoctl_mux_views.txt";
    std::ofstream(script) << "call kavo_device_config device_cfg.device_mode=KAVO_DEVICE_MODE_1200G_ENET "
                             "device_cfg.mux_mode=1\n"
                             "call kavo_mux_config mux_cfg.hold_off_ms=20\n"
                             "call kavo_mux_active_select_set active_select=KAVO_MUX_ACTIVE_SELECT_LINE_B\n"
                             "mux show\n"
                             "call kavo_pgmrclk_cfg clk_id=1 clk_source=KAVO_PGMRCLK_INPUT_SOURCE_SERDES "
                             "clk_source_idx=4 input_clk_freq=156.25 output_clk_freq=15.625 enable=1\n"
                             "clock show\n";
    struct {
        std::string args;
        int status;
        std::vector<std::string> shows;
    } cases[] = {
        {"run " + script,
         0,
         {"traffic on line B, ACTIVE, HOST supervision, selected by REGISTER\n",
          "1 switches, the last at ", "hold-off 20 ms, non-revertive\n", "clock 0: not configured\n",
          "clock 1: on, 15.625000 MHz = 156.250000 MHz / 10 from SERDES 4, requested 15.625000 MHz\n"}},
        {"--json run " + script,
         0,
         {"\"active_select\":\"KAVO_MUX_ACTIVE_SELECT_LINE_B\"", "\"switch_count\":1",
          "\"achieved_clk_freq\":15.625,\"clk_id\":\"KAVO_PGMRCLK_ID_1\"", "\"divider\":10"}},
        {"--json mux show", 1, {"{\"result\":16,\"result_name\":\"KAVO_ERR_FW_NOT_CONFIGURED\"}\n"}},
        {"clock show 4", 2, {}},
        {"mux", 2, {}},
    };
    for (const auto& c : cases) {
        const auto [status, out] = kavoctl(c.args);
        EXPECT_EQ(status, c.status) << c.args << "\n" << out;
        for (const auto& part : c.shows)
            EXPECT_NE(out.find(part), std::string::npos) << c.args << ": " << part << "\n" << out;
    }
}
