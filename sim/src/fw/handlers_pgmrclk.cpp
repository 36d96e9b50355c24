// Programmable clock outputs and MACsec memory scrubbing.
#include <cmath>

#include "fw/firmware.h"

namespace kavo_sim::fw {
namespace {

using output = pgmrclk_model::output;
constexpr UINT32 NONE = pgmrclk_model::NONE;

bool is_ethernet(const firmware& fw, UINT32 chnl)
{
    return fw.device.channels[chnl] == KAVO_SEGMENT_TYPE_ENET_PORT ||
           fw.device.channels[chnl] == KAVO_SEGMENT_TYPE_ENET_ANLT;
}

/* The output named by info.element_id, or null with the reply refused. */
output* find(firmware& fw, const request& req, reply& rep)
{
    if (req.info.element_id < LAST_KAVO_PGMRCLK_ID) return &fw.model.pgmrclk.outputs[req.info.element_id];
    rep.result = KAVO_FW_ERR_NUMBER_OUT_OF_RANGE;
    return nullptr;
}

VELT_ERROR check_source(const firmware& fw, const kavo_pgmrclk_cfg_t& c)
{
    switch (c.clk_source) {
    case KAVO_PGMRCLK_INPUT_SOURCE_REF_CLK:
        return VELT_SUCCESS;
    case KAVO_PGMRCLK_INPUT_SOURCE_SERDES:
        return c.clk_source_idx < NUM_SERDES_PORTS ? VELT_SUCCESS : SEGMENT_BASE_ERR_ILLEGAL_SERDES_PORT_ID;
    case KAVO_PGMRCLK_INPUT_SOURCE_ENET_CHNL:
        if (c.clk_source_idx >= KAVO_NUM_CHANNELS) return SEGMENT_BASE_ERR_ILLEGAL_CHNL_ID;
        return is_ethernet(fw, c.clk_source_idx) ? VELT_SUCCESS : SEGMENT_BASE_ERR_NO_SEGMENT_FOR_CHNL_ID;
    default:
        return KAVO_FW_ERR_INVALID_PARAMETERS;
    }
}

void cfg(firmware& fw, const request& req, reply& rep)
{
    output* o = find(fw, req, rep);
    if (o == nullptr) return;
    kavo_pgmrclk_cfg_t c;
    if (req.data.size() != sizeof(c) || !req.payload(c) || UINT32(c.clk_id) != req.info.element_id || c.enable > 1) {
        rep.result = KAVO_FW_ERR_INVALID_PARAMETERS;
        return;
    }
    UINT32 n = 0;
    rep.result = check_source(fw, c);
    if (rep.result == VELT_SUCCESS) rep.result = pgmrclk_model::divider(c.input_clk_freq, c.output_clk_freq, n);
    if (rep.result != VELT_SUCCESS) {
        fw.console("pgmrclk %u: %.6f MHz from %.6f MHz refused, error 0x%x\n", c.clk_id, c.output_clk_freq,
                   c.input_clk_freq, rep.result);
        return;
    }
    kavo_pgmrclk_cfg_get_t& r = o->rec;
    r.clk_id = c.clk_id;
    r.clk_source = c.clk_source;
    r.clk_source_idx = c.clk_source_idx;
    r.enable = c.enable;
    r.input_clk_freq = c.input_clk_freq;
    r.output_clk_freq = c.output_clk_freq;
    r.achieved_clk_freq = c.input_clk_freq / n;
    r.divider = n;
    o->configured = true;
    fw.console("pgmrclk %u: %.6f MHz = %.6f MHz / %u\n", c.clk_id, r.achieved_clk_freq, c.input_clk_freq, n);
}

void cfg_get(firmware& fw, const request& req, reply& rep)
{
    output* o = find(fw, req, rep);
    if (o == nullptr) return;
    kavo_pgmrclk_cfg_get_t r = o->rec;
    r.squelched = r.enable && fw.model.pgmrclk.held(fw, r);
    rep.record(r);
}

void enable(firmware& fw, const request& req, reply& rep)
{
    output* o = find(fw, req, rep);
    if (o == nullptr) return;
    if (req.info.flag > 1)
        rep.result = KAVO_FW_ERR_INVALID_PARAMETERS;
    else if (!o->configured)
        rep.result = KAVO_ERR_FW_NOT_CONFIGURED;
    else
        o->rec.enable = req.info.flag;
}

void squelch_enable(firmware& fw, const request& req, reply& rep)
{
    output* o = find(fw, req, rep);
    if (o == nullptr) return;
    const UINT32 port = req.info.mode, chnl = req.info.parent_id;
    if (port != NONE && port >= NUM_SERDES_PORTS)
        rep.result = SEGMENT_BASE_ERR_ILLEGAL_SERDES_PORT_ID;
    else if (chnl != NONE && chnl >= KAVO_NUM_CHANNELS)
        rep.result = SEGMENT_BASE_ERR_ILLEGAL_CHNL_ID;
    if (rep.result != VELT_SUCCESS) return;
    o->rec.squelch_serdes_id = port;
    o->rec.squelch_enet_chnl_id = chnl;
}

void tcam_scrub_stats(firmware& fw, const request& req, reply& rep)
{
    if (req.info.flag > 1) {
        rep.result = KAVO_FW_ERR_INVALID_PARAMETERS;
        return;
    }
    kavo_debug_macsec_tcam_scrub_stats_t& s = fw.model.pgmrclk.scrub;
    rep.record(s);
    if (req.info.flag) s.scrub_passes = s.errors_corrected = s.last_error_pass = 0;
}

constexpr handler HANDLERS[] = {
    {KAVO_HTL_OPERATION_DEBUG_MACSEC_TCAM_SCRUB_STATS, "debug_macsec_tcam_scrub_stats", tcam_scrub_stats},
    {KAVO_HTL_OPERATION_PGMRCLK_CFG, "pgmrclk_cfg", cfg},
    {KAVO_HTL_OPERATION_PGMRCLK_CFG_GET, "pgmrclk_cfg_get", cfg_get},
    {KAVO_HTL_OPERATION_PGMRCLK_ENABLE, "pgmrclk_enable", enable},
    {KAVO_HTL_OPERATION_PGMRCLK_SQUELCH_ENABLE, "pgmrclk_squelch_enable", squelch_enable},
};

} // namespace

pgmrclk_model::pgmrclk_model()
{
    for (UINT32 i = 0; i < LAST_KAVO_PGMRCLK_ID; ++i) {
        outputs[i].rec.clk_id = kavo_pgmrclk_id_t(i);
        outputs[i].rec.squelch_serdes_id = outputs[i].rec.squelch_enet_chnl_id = NONE;
    }
    scrub.scrub_period_ms = SCRUB_PERIOD_MS;
}

VELT_ERROR pgmrclk_model::divider(double input_mhz, double output_mhz, UINT32& n)
{
    if (!std::isfinite(input_mhz) || !std::isfinite(output_mhz) || input_mhz <= 0 || output_mhz <= 0)
        return KAVO_FW_ERR_INVALID_PARAMETERS;
    if (input_mhz > MAX_INPUT_MHZ) return KAVO_FW_ERR_NUMBER_OUT_OF_RANGE;
    const double nearest = std::nearbyint(input_mhz / output_mhz);
    if (nearest < 1 || nearest > MAX_DIVIDER) return KAVO_FW_ERR_NUMBER_OUT_OF_RANGE;
    const double achieved = input_mhz / nearest;
    if (std::fabs(achieved - output_mhz) > output_mhz * TOLERANCE_PPM * 1e-6) return KAVO_FW_ERR_INVALID_PARAMETERS;
    n = UINT32(nearest);
    return VELT_SUCCESS;
}

bool pgmrclk_model::held(const firmware& fw, const kavo_pgmrclk_cfg_get_t& r) const
{
    return (r.squelch_serdes_id != NONE && !fw.model.serdes.signal_present(fw, r.squelch_serdes_id)) ||
           (r.squelch_enet_chnl_id != NONE && !fw.model.datapath.link_up(fw, r.squelch_enet_chnl_id));
}

void pgmrclk_model::advance(firmware& fw, UINT64 now_us)
{
    for (output& o : outputs) {
        const bool now_held = o.rec.enable && held(fw, o.rec);
        if (now_held != o.squelched)
            fw.console("pgmrclk %u %s\n", o.rec.clk_id, now_held ? "squelched" : "released");
        o.squelched = now_held;
    }

    const UINT64 period_us = UINT64(SCRUB_PERIOD_MS) * 1000;
    if (!scrubbing) {
        scrubbing = true;
        next_pass_us = now_us + period_us;
        return;
    }
    if (now_us < next_pass_us) return;
    const UINT64 passes = (now_us - next_pass_us) / period_us + 1;
    next_pass_us += passes * period_us;
    // The first of the passes finds what was put into the memory since the last one.
    const UINT32 injected = fw.knob(SIM_KNOB_TCAM_ERRORS, 0);
    if (injected < errors_seen) errors_seen = injected;
    if (injected > errors_seen) {
        fw.console("macsec tcam scrub: %u errors corrected\n", injected - errors_seen);
        scrub.errors_corrected += injected - errors_seen;
        scrub.last_error_pass = scrub.scrub_passes + 1;
        errors_seen = injected;
    }
    scrub.scrub_passes += UINT32(passes);
}

std::span<const handler> pgmrclk_handlers() { return HANDLERS; }

} // namespace kavo_sim::fw
