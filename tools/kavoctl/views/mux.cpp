// kavoctl's views of the mux family: the protection mux and the programmable
// clock outputs.
#include <cstdio>

#include "kavo_sim/image.h"
#include "kavoctl.h"

namespace kavoctl {
namespace {

const char* side_name(kavo_mux_active_select_t side) { return side == KAVO_MUX_ACTIVE_SELECT_LINE_A ? "A" : "B"; }

int cmd_mux(const settings& s, const args_t& args)
{
    if (args.size() != 1 || args[0] != "show") return usage_error("mux show");
    if (int failed = device_ready(s)) return failed;
    kavo_mux_status_t st;
    kavo_mux_dev_config_t cfg;
    VELT_ERROR rc = kavo_mux_status_get(s.device, &st);
    if (rc == VELT_SUCCESS) rc = kavo_mux_config_get(s.device, &cfg);
    if (s.json) {
        nlohmann::json doc = result_json(rc);
        if (rc == VELT_SUCCESS) {
            doc["status"] = record_json("kavo_mux_status_t", st);
            doc["config"] = record_json("kavo_mux_dev_config_t", cfg);
        }
        print_json(doc);
        return rc == VELT_SUCCESS ? 0 : 1;
    }
    if (rc != VELT_SUCCESS) return finish(rc, "mux show");
    std::printf("traffic on line %s, %s, %s supervision, selected by %s%s\n", side_name(st.active_select),
                kavo_mux_state_t_suffix_print(st.state), kavo_mux_supervisor_mode_t_suffix_print(st.supervisor_mode),
                kavo_mux_input_select_source_t_suffix_print(st.input_select_source),
                st.input_select_source == KAVO_MUX_INPUT_SELECT_SOURCE_PIN
                    ? (st.select_pin ? " (pin high)" : " (pin low)")
                    : "");
    std::printf("line A link %s, line B link %s\n", st.line_a_link_up ? "up" : "down",
                st.line_b_link_up ? "up" : "down");
    std::printf("%u switches, the last at %u ms; hold-off %u ms, %s\n", st.switch_count, st.last_switch_ms,
                cfg.hold_off_ms, cfg.revertive ? "revertive" : "non-revertive");
    return 0;
}

void print_clock(const kavo_pgmrclk_cfg_get_t& c)
{
    if (c.divider == 0) {
        std::printf("clock %d: not configured\n", c.clk_id);
        return;
    }
    std::printf("clock %d: %s%s, %.6f MHz = %.6f MHz / %u from %s", c.clk_id, c.enable ? "on" : "off",
                c.squelched ? " (squelched)" : "", c.achieved_clk_freq, c.input_clk_freq, c.divider,
                kavo_pgmrclk_input_source_t_suffix_print(c.clk_source));
    if (c.clk_source != KAVO_PGMRCLK_INPUT_SOURCE_REF_CLK) std::printf(" %u", c.clk_source_idx);
    std::printf(", requested %.6f MHz\n", c.output_clk_freq);
    if (c.squelch_serdes_id != 0xFFFFFFFF) std::printf("    squelch: loss of signal on SerDes port %u\n", c.squelch_serdes_id);
    if (c.squelch_enet_chnl_id != 0xFFFFFFFF)
        std::printf("    squelch: link loss on channel %u\n", c.squelch_enet_chnl_id);
}

int cmd_clock(const settings& s, const args_t& args)
{
    UINT32 only = LAST_KAVO_PGMRCLK_ID;
    if (args.empty() || args[0] != "show" || args.size() > 2 ||
        (args.size() == 2 && (!kavo_sim::parse_u32(args[1].c_str(), only) || only >= LAST_KAVO_PGMRCLK_ID)))
        return usage_error("clock show [0..3]");
    if (int failed = device_ready(s)) return failed;
    nlohmann::json clocks = nlohmann::json::array();
    VELT_ERROR rc = VELT_SUCCESS;
    for (UINT32 id = 0; id < LAST_KAVO_PGMRCLK_ID && rc == VELT_SUCCESS; ++id) {
        if (only != LAST_KAVO_PGMRCLK_ID && id != only) continue;
        kavo_pgmrclk_cfg_get_t c;
        rc = kavo_pgmrclk_cfg_get(s.device, kavo_pgmrclk_id_t(id), &c);
        if (rc != VELT_SUCCESS) break;
        if (s.json)
            clocks.push_back(record_json("kavo_pgmrclk_cfg_get_t", c));
        else
            print_clock(c);
    }
    if (s.json) {
        nlohmann::json doc = result_json(rc);
        if (rc == VELT_SUCCESS) doc["clocks"] = clocks;
        print_json(doc);
        return rc == VELT_SUCCESS ? 0 : 1;
    }
    return finish(rc, "clock show");
}

constexpr verb VERBS[] = {
    {"mux", "show", "the protection mux: side in use, state, links, switches", cmd_mux},
    {"clock", "show [CLK]", "the programmable clock outputs: frequency, divider, squelch", cmd_clock},
};

} // namespace

std::span<const verb> mux_verbs() { return VERBS; }

} // namespace kavoctl
