// The protection mux between two line sides.
#include "fw/firmware.h"

namespace kavo_sim::fw {
namespace {

constexpr UINT32 A = KAVO_MUX_ACTIVE_SELECT_LINE_A;
constexpr UINT32 B = KAVO_MUX_ACTIVE_SELECT_LINE_B;
constexpr UINT32 MAX_HOLD_OFF_MS = 10000;
constexpr UINT32 MAX_WAIT_TO_RESTORE_MS = 720000;

const char* side_name(UINT32 side) { return side == A ? "A" : "B"; }

bool mux_enabled(const firmware& fw) { return fw.device.configured && fw.device.config.mux_mode; }

/* The mux commands answer only on a device configured for the mux, and all
   but the configuration itself once the mux is configured. */
bool refused(const firmware& fw, reply& rep, bool needs_config = true)
{
    if (!fw.device.configured)
        rep.result = KAVO_ERR_FW_NOT_CONFIGURED;
    else if (!fw.device.config.mux_mode)
        rep.result = RUNTIME_OPERATION_NOT_SUPPORTED;
    else if (needs_config && !fw.model.mux.configured)
        rep.result = KAVO_ERR_FW_NOT_CONFIGURED;
    return rep.result != VELT_SUCCESS;
}

VELT_ERROR check_config(const kavo_mux_dev_config_t& c)
{
    if (UINT32(c.supervisor_mode) >= LAST_KAVO_MUX_SUPERVISOR_MODE || UINT32(c.initial_select) >= LAST_KAVO_MUX_ACTIVE_SELECT ||
        c.revertive > 1)
        return KAVO_FW_ERR_INVALID_PARAMETERS;
    if (c.hold_off_ms > MAX_HOLD_OFF_MS || c.wait_to_restore_ms > MAX_WAIT_TO_RESTORE_MS)
        return KAVO_FW_ERR_NUMBER_OUT_OF_RANGE;
    return VELT_SUCCESS;
}

void config(firmware& fw, const request& req, reply& rep)
{
    if (refused(fw, rep, false)) return;
    kavo_mux_dev_config_t c;
    if (req.data.size() != sizeof(c) || !req.payload(c)) {
        rep.result = KAVO_FW_ERR_INVALID_PARAMETERS;
        return;
    }
    rep.result = check_config(c);
    if (rep.result != VELT_SUCCESS) return;
    fw.model.mux.start(c);
    fw.console("mux configured: %s supervision, line %s, hold-off %u ms\n",
               c.supervisor_mode == KAVO_MUX_SUPERVISOR_MODE_FW ? "firmware" : "host", side_name(UINT32(c.initial_select)),
               c.hold_off_ms);
}

void config_get(firmware& fw, const request&, reply& rep)
{
    if (!refused(fw, rep)) rep.record(fw.model.mux.cfg);
}

void supervisor_mode_set(firmware& fw, const request& req, reply& rep)
{
    if (refused(fw, rep)) return;
    const UINT32 mode = req.info.element_id;
    if (mode >= LAST_KAVO_MUX_SUPERVISOR_MODE) {
        rep.result = KAVO_FW_ERR_INVALID_PARAMETERS;
        return;
    }
    mux_model& m = fw.model.mux;
    m.cfg.supervisor_mode = kavo_mux_supervisor_mode_t(mode);
    m.loss_seen = m.restore_seen = false;
}

void chnl_config_set(firmware& fw, const request& req, reply& rep)
{
    if (refused(fw, rep)) return;
    const UINT32 line = req.info.parent_id;
    kavo_mux_chnl_config_t c;
    if (req.data.size() != sizeof(c) || !req.payload(c) || c.enable > 1) {
        rep.result = KAVO_FW_ERR_INVALID_PARAMETERS;
        return;
    }
    if (line >= KAVO_NUM_CHANNELS) {
        rep.result = SEGMENT_BASE_ERR_ILLEGAL_CHNL_ID;
        return;
    }
    mux_model& m = fw.model.mux;
    if (!c.enable) {
        m.lines[line] = {};
        return;
    }
    if (UINT32(c.line_side) >= LAST_KAVO_MUX_ACTIVE_SELECT) {
        rep.result = KAVO_FW_ERR_INVALID_PARAMETERS;
        return;
    }
    // A host channel is not a line channel, and has one line channel per side.
    if (c.host_chnl_id >= KAVO_NUM_CHANNELS || c.host_chnl_id == line || m.lines[c.host_chnl_id].in_mux) {
        rep.result = SEGMENT_BASE_ERR_ILLEGAL_CHNL_ID;
        return;
    }
    for (UINT32 i = 0; i < KAVO_NUM_CHANNELS; ++i) {
        const mux_model::line_chnl& l = m.lines[i];
        if (i == line || !l.in_mux) continue;
        if (l.host_chnl == line) {
            rep.result = SEGMENT_BASE_ERR_ILLEGAL_CHNL_ID;
            return;
        }
        if (l.host_chnl == c.host_chnl_id && l.side == UINT32(c.line_side)) {
            rep.result = SEGMENT_BASE_ERR_EXISTING_CHNL_ID;
            return;
        }
    }
    m.lines[line] = {true, UINT32(c.line_side), c.host_chnl_id};
}

void status_get(firmware& fw, const request&, reply& rep)
{
    if (!refused(fw, rep)) rep.record(fw.model.mux.status(fw));
}

void state_set(firmware& fw, const request& req, reply& rep)
{
    if (refused(fw, rep)) return;
    const UINT32 state = req.info.mode;
    if (state >= LAST_KAVO_MUX_STATE) {
        rep.result = KAVO_FW_ERR_INVALID_PARAMETERS;
        return;
    }
    mux_model& m = fw.model.mux;
    m.state = state;
    m.loss_seen = m.restore_seen = false;
    if (state == KAVO_MUX_STATE_LOCKOUT || state == KAVO_MUX_STATE_FORCED)
        m.select_reg = state == KAVO_MUX_STATE_LOCKOUT ? A : m.active;
    m.settle(fw);
}

void input_select_source_set(firmware& fw, const request& req, reply& rep)
{
    if (refused(fw, rep)) return;
    const UINT32 source = req.info.mode, inverted = req.info.element_id;
    if (source >= LAST_KAVO_MUX_INPUT_SELECT_SOURCE || inverted > 1) {
        rep.result = KAVO_FW_ERR_INVALID_PARAMETERS;
        return;
    }
    mux_model& m = fw.model.mux;
    m.source = source;
    m.inv_polarity = inverted != 0;
    m.settle(fw);
}

void active_select_set(firmware& fw, const request& req, reply& rep)
{
    if (refused(fw, rep)) return;
    const UINT32 side = req.info.mode;
    mux_model& m = fw.model.mux;
    if (side >= LAST_KAVO_MUX_ACTIVE_SELECT) {
        rep.result = KAVO_FW_ERR_INVALID_PARAMETERS;
        return;
    }
    // Held on line A, or following the pin: the register does not decide.
    if (m.state == KAVO_MUX_STATE_LOCKOUT ||
        (m.state == KAVO_MUX_STATE_ACTIVE && m.source == KAVO_MUX_INPUT_SELECT_SOURCE_PIN)) {
        rep.result = RUNTIME_OPERATION_NOT_SUPPORTED;
        return;
    }
    m.select_reg = side;
    m.loss_seen = m.restore_seen = false;
    m.move_to(fw, side, false);
}

constexpr handler HANDLERS[] = {
    {KAVO_HTL_OPERATION_HMUX_CONFIG, "mux_config", config},
    {KAVO_HTL_OPERATION_HMUX_CONFIG_GET, "mux_config_get", config_get},
    {KAVO_HTL_OPERATION_HMUX_SUPERVISOR_MODE_SET, "mux_supervisor_mode_set", supervisor_mode_set},
    {KAVO_HTL_OPERATION_HMUX_CHNL_CONFIG_SET, "mux_chnl_config_set", chnl_config_set},
    {KAVO_HTL_OPERATION_HMUX_STATUS_GET, "mux_status_get", status_get},
    {KAVO_HTL_OPERATION_HMUX_STATE_SET, "mux_state_set", state_set},
    {KAVO_HTL_OPERATION_HMUX_INPUT_SELECT_SOURCE_SET, "mux_input_select_source_set", input_select_source_set},
    {KAVO_HTL_OPERATION_HMUX_ACTIVE_SELECT_SET, "mux_active_select_set", active_select_set},
};

} // namespace

void mux_model::start(const kavo_mux_dev_config_t& c)
{
    const line_chnl* keep = lines;
    mux_model fresh;
    std::copy(keep, keep + KAVO_NUM_CHANNELS, fresh.lines); // channels outlive a reconfiguration
    *this = fresh;
    configured = true;
    cfg = c;
    select_reg = active = UINT32(c.initial_select);
}

bool mux_model::side_up(const firmware& fw, UINT32 side) const
{
    bool any = false;
    for (UINT32 i = 0; i < KAVO_NUM_CHANNELS; ++i) {
        if (!lines[i].in_mux || lines[i].side != side) continue;
        if (!fw.model.datapath.link_up(fw, i)) return false;
        any = true;
    }
    return any;
}

UINT32 mux_model::pin_side(const firmware& fw) const
{
    const bool high = fw.knob(SIM_KNOB_MUX_SELECT_PIN, 0) != 0;
    return high != inv_polarity ? B : A;
}

void mux_model::move_to(firmware& fw, UINT32 side, bool announce)
{
    if (side == active) return;
    active = side;
    ++switches;
    last_switch_us = fw.now_us();
    fw.console("mux: traffic on line %s\n", side_name(side));
    if (announce) fw.raise_ipi(VELT_IPI_HMUX_STATE_CHANGE);
}

void mux_model::settle(firmware& fw)
{
    if (state == KAVO_MUX_STATE_STANDBY) return;
    if (state == KAVO_MUX_STATE_ACTIVE && source == KAVO_MUX_INPUT_SELECT_SOURCE_PIN)
        move_to(fw, pin_side(fw), false);
    else
        move_to(fw, select_reg, false);
}

void mux_model::advance(firmware& fw, UINT64 now_us)
{
    // A device shut down or configured without the mux has no mux.
    if (configured && !mux_enabled(fw)) *this = mux_model{};
    if (!configured || state != KAVO_MUX_STATE_ACTIVE) return;

    if (source == KAVO_MUX_INPUT_SELECT_SOURCE_PIN) {
        move_to(fw, pin_side(fw), true);
        return;
    }
    if (cfg.supervisor_mode != KAVO_MUX_SUPERVISOR_MODE_FW) return;

    const UINT32 other = active == A ? B : A;
    if (side_up(fw, active)) {
        loss_seen = false;
    } else {
        if (!loss_seen) loss_seen = true, loss_since_us = now_us;
        if (now_us - loss_since_us >= UINT64(cfg.hold_off_ms) * 1000 && side_up(fw, other)) {
            fw.console("mux: line %s link lost\n", side_name(active));
            select_reg = other;
            loss_seen = false;
            move_to(fw, other, true);
        }
    }
    if (cfg.revertive && active == B && side_up(fw, A)) {
        if (!restore_seen) restore_seen = true, restore_since_us = now_us;
        if (now_us - restore_since_us >= UINT64(cfg.wait_to_restore_ms) * 1000) {
            select_reg = A;
            restore_seen = false;
            move_to(fw, A, true);
        }
    } else {
        restore_seen = false;
    }
}

kavo_mux_status_t mux_model::status(const firmware& fw) const
{
    kavo_mux_status_t s;
    s.state = kavo_mux_state_t(state);
    s.supervisor_mode = cfg.supervisor_mode;
    s.active_select = kavo_mux_active_select_t(active);
    s.input_select_source = kavo_mux_input_select_source_t(source);
    s.inv_polarity = inv_polarity;
    s.select_pin = fw.knob(SIM_KNOB_MUX_SELECT_PIN, 0) != 0;
    s.line_a_link_up = side_up(fw, A);
    s.line_b_link_up = side_up(fw, B);
    s.switch_count = switches;
    s.last_switch_ms = UINT32(last_switch_us / 1000);
    return s;
}

std::span<const handler> mux_handlers() { return HANDLERS; }

} // namespace kavo_sim::fw
