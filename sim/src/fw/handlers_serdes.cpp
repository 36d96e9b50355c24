// SerDes lanes: sources, PRBS, equalisation, eye, adaptation, microcode.
#include <cmath>
#include <cstdlib>

#include "fw/firmware.h"
#include "kavo_sim/image.h"

namespace kavo_sim::fw {
namespace {

using serdes::stream;

constexpr UINT32 ADAPT_ITERATIONS = 8;
constexpr UINT64 ADAPT_STEP_US = 1000;
constexpr UINT64 CDR_RELOCK_US = 1000;
constexpr INT32 CDR_PPM_RANGE = 200;
constexpr UINT32 MAX_HOLDOFF_MS = 60000;
constexpr UINT32 MAX_DWELL_MS = 60000;
constexpr UINT32 CHECK_BITS = 2048;
constexpr double LOOPBACK_LOSS_DB = 2.0;
constexpr UINT32 MAX_CHANNEL_PORTS = 8;

bool is_pam4(UINT32 pin_mode) { return pin_mode >= KAVO_SERDES_PIN_MODE_50G_PAM4; }

UINT64 mix(UINT64 h, UINT64 v)
{
    h ^= v + 0x9E3779B97F4A7C15ull + (h << 6) + (h >> 2);
    return h;
}

// ---- request decoding shared by the handlers ----

serdes_model& model(firmware& fw) { return fw.model.serdes; }

/* The port of the request, or false with SERDES_ERR_PORT_INVALID. */
bool port_of(const request& req, reply& rep, UINT32& port)
{
    port = req.info.element_id;
    if (port < NUM_SERDES_PORTS) return true;
    rep.result = SERDES_ERR_PORT_INVALID;
    return false;
}

bool boolean(UINT32 v, reply& rep)
{
    if (v <= 1) return true;
    rep.result = KAVO_FW_ERR_INVALID_PARAMETERS;
    return false;
}

template <class T> bool payload_of(const request& req, reply& rep, T& out)
{
    if (req.data.size() == sizeof(T) && req.payload(out)) return true;
    rep.result = HTL_ERR_INVALID_REQUEST_DATA_SIZE;
    return false;
}

/* The lanes a command acts on: the port alone, or every port of the channel
   that owns it (port_pin_b). An unowned port has no channel to act on. */
bool lanes_of(firmware& fw, UINT32 port, bool whole_port, reply& rep, std::vector<UINT32>& lanes)
{
    lanes.clear();
    if (!whole_port) {
        lanes.push_back(port);
        return true;
    }
    const UINT32 owner = fw.device.serdes_owner[port];
    if (owner == NO_OWNER) {
        rep.result = SERDES_ERR_PORT_NOT_ASSIGNED;
        return false;
    }
    for (UINT32 p = 0; p < NUM_SERDES_PORTS; ++p)
        if (fw.device.serdes_owner[p] == owner) lanes.push_back(p);
    return true;
}

/* A lane and, for a port reset, the other lanes of its channel. */
std::vector<UINT32> lane_and_siblings(firmware& fw, UINT32 port, bool lane_only)
{
    std::vector<UINT32> lanes;
    reply ignored;
    if (lane_only || !lanes_of(fw, port, true, ignored, lanes)) lanes.assign(1, port);
    return lanes;
}

bool action_ok(UINT32 action, reply& rep)
{
    if (action < LAST_KAVO_SERDES_CFG_ACT) return true;
    rep.result = SERDES_ERR_INVALID_CFG_ACTION;
    return false;
}

bool prbs_mode_ok(UINT32 mode)
{
    return mode <= KAVO_SERDES_PRBS_USER || mode == KAVO_SERDES_PRBS_NONE;
}

// ---- sources, PRBS, transmitter ----

void source_set(firmware& fw, const request& req, reply& rep, bool tx)
{
    UINT32 port;
    kavo_serdes_squelch_data_t fixed;
    if (!port_of(req, rep, port) || !payload_of(req, rep, fixed)) return;
    serdes_lane_state& l = model(fw).lane[port];
    const UINT32 source = req.info.mode;
    if (source >= (tx ? UINT32(LAST_KAVO_SERDES_TX_SRC) : UINT32(LAST_KAVO_SERDES_RX_SRC))) {
        rep.result = SERDES_ERR_INVALID_MODE;
        return;
    }
    if (tx && source == KAVO_SERDES_TX_SRC_PRBS && l.gen_mode == KAVO_SERDES_PRBS_NONE) {
        rep.result = SERDES_ERR_PRBS_GENERATOR_NOT_ENABLED;
        return;
    }
    if (!tx && source == KAVO_SERDES_RX_SRC_PRBS && l.mon_mode == KAVO_SERDES_PRBS_NONE) {
        rep.result = SERDES_ERR_PRBS_MONITOR_NOT_ENABLED;
        return;
    }
    (tx ? l.tx_source : l.rx_source) = source;
    (tx ? l.tx_fixed : l.rx_fixed) = fixed;
}

void tx_source_set(firmware& fw, const request& req, reply& rep) { source_set(fw, req, rep, true); }
void rx_source_set(firmware& fw, const request& req, reply& rep) { source_set(fw, req, rep, false); }

void prbs_set(firmware& fw, const request& req, reply& rep)
{
    UINT32 port;
    kavo_serdes_prbs_cfg_t cfg;
    if (!port_of(req, rep, port) || !payload_of(req, rep, cfg)) return;
    if (!boolean(cfg.gen_mon_b, rep) || !boolean(cfg.port_pin_b, rep)) return;
    const UINT32 mode = cfg.prbs_mode;
    if (!prbs_mode_ok(mode)) {
        rep.result = SERDES_ERR_PRBS_INVALID_MODE;
        return;
    }
    if (!cfg.gen_mon_b && mode == KAVO_SERDES_PRBS_SSPRQ) {
        rep.result = SERDES_ERR_NO_P56_PRBS_MONITOR;
        return;
    }
    std::vector<UINT32> lanes;
    if (!lanes_of(fw, port, cfg.port_pin_b != 0, rep, lanes)) return;
    for (UINT32 p : lanes) {
        if (serdes::prbs_is_pam4_only(mode) && !is_pam4(model(fw).lane[p].pin_mode)) {
            rep.result = SERDES_ERR_ONLY_PAM4_SUPPORT_P56_PRBS;
            return;
        }
    }
    for (UINT32 p : lanes) {
        serdes_lane_state& l = model(fw).lane[p];
        if (cfg.gen_mon_b) {
            l.gen_mode = mode;
            std::copy(std::begin(cfg.pattern), std::end(cfg.pattern), l.gen_user);
            if (mode != KAVO_SERDES_PRBS_NONE) l.tx_source = KAVO_SERDES_TX_SRC_PRBS;
            else if (l.tx_source == KAVO_SERDES_TX_SRC_PRBS) l.tx_source = KAVO_SERDES_TX_SRC_MISSION;
        } else {
            l.mon_mode = mode;
            std::copy(std::begin(cfg.pattern), std::end(cfg.pattern), l.mon_user);
            if (mode == KAVO_SERDES_PRBS_NONE && l.rx_source == KAVO_SERDES_RX_SRC_PRBS)
                l.rx_source = KAVO_SERDES_RX_SRC_MISSION;
            model(fw).relock(fw, p);
        }
    }
}

void tx_ctrl_set(firmware& fw, const request& req, reply& rep)
{
    UINT32 port;
    std::vector<UINT32> lanes;
    if (!port_of(req, rep, port) || !boolean(req.info.parent_id, rep) || !boolean(req.info.flag, rep) ||
        !action_ok(req.info.mode, rep) || !lanes_of(fw, port, req.info.parent_id != 0, rep, lanes))
        return;
    for (UINT32 p : lanes)
        model(fw).lane[p].tx_disable.set(req.info.mode, req.info.flag != 0);
}

void tx_eq_set(firmware& fw, const request& req, reply& rep)
{
    UINT32 port;
    kavo_serdes_eq_taps_cfg_t taps;
    if (!port_of(req, rep, port) || !payload_of(req, rep, taps)) return;
    if (model(fw).lane[port].lt_only) { // link training owns the taps
        rep.result = SERDES_ERR_INVALID_MODE;
        return;
    }
    if ((rep.result = serdes::taps_check(taps)) != VELT_SUCCESS) return;
    model(fw).lane[port].taps = taps;
}

template <class T, serdes_setting serdes_lane_state::*TX, serdes_setting serdes_lane_state::*RX>
void direction_set(firmware& fw, const request& req, reply& rep, BOOL32 T::*value, bool pam4_only)
{
    UINT32 port;
    T cfg;
    std::vector<UINT32> lanes;
    if (!port_of(req, rep, port) || !payload_of(req, rep, cfg)) return;
    if (!boolean(cfg.port_pin_b, rep) || !boolean(cfg.dir_tx_rx_b, rep) || !boolean(cfg.*value, rep) ||
        !action_ok(cfg.action, rep) || !lanes_of(fw, port, cfg.port_pin_b != 0, rep, lanes))
        return;
    for (UINT32 p : lanes) {
        if (pam4_only && cfg.*value && !is_pam4(model(fw).lane[p].pin_mode)) {
            rep.result = SERDES_ERR_PIN_MODE_INVALID;
            return;
        }
    }
    for (UINT32 p : lanes) {
        serdes_lane_state& l = model(fw).lane[p];
        (l.*(cfg.dir_tx_rx_b ? TX : RX)).set(cfg.action, cfg.*value != 0);
    }
}

void polarity_set(firmware& fw, const request& req, reply& rep)
{
    direction_set<kavo_serdes_polarity_cfg_t, &serdes_lane_state::tx_invert, &serdes_lane_state::rx_invert>(
        fw, req, rep, &kavo_serdes_polarity_cfg_t::invert, false);
}

void pre_code_set(firmware& fw, const request& req, reply& rep)
{
    // Pre-coding protects PAM4 symbols against burst errors; NRZ lanes have none.
    direction_set<kavo_serdes_pre_code_cfg_t, &serdes_lane_state::tx_pre_code, &serdes_lane_state::rx_pre_code>(
        fw, req, rep, &kavo_serdes_pre_code_cfg_t::enable, true);
}

void tx_err_set(firmware& fw, const request& req, reply& rep)
{
    UINT32 port;
    if (!port_of(req, rep, port)) return;
    serdes_lane_state& l = model(fw).lane[port];
    if (l.gen_mode == KAVO_SERDES_PRBS_NONE || l.tx_source != KAVO_SERDES_TX_SRC_PRBS) {
        rep.result = SERDES_ERR_PRBS_GENERATOR_NOT_ENABLED;
        return;
    }
    ++l.tx_errors_pending;
}

// ---- status and configuration ----

std::vector<UINT32> channel_ports(const firmware& fw, UINT32 chnl)
{
    std::vector<UINT32> ports;
    for (UINT32 p = 0; p < NUM_SERDES_PORTS && ports.size() < MAX_CHANNEL_PORTS; ++p)
        if (fw.device.serdes_owner[p] == chnl) ports.push_back(p);
    return ports;
}

bool channel_of(const request& req, reply& rep, UINT32& chnl)
{
    chnl = req.info.element_id;
    if (chnl < KAVO_NUM_CHANNELS) return true;
    rep.result = SEGMENT_BASE_ERR_ILLEGAL_CHNL_ID;
    return false;
}

bool adapt_done(const serdes_lane_state& l) { return l.adapt_state == ADAPT_DONE; }

void status_get(firmware& fw, const request& req, reply& rep)
{
    UINT32 chnl;
    if (!channel_of(req, rep, chnl)) return;
    serdes_model& m = model(fw);
    kavo_serdes_status_t s{};
    s.microcode_version = m.ucode_version;
    s.microcode_loaded = m.ucode_version != 0;
    std::fill(std::begin(s.serdes_port_ids), std::end(s.serdes_port_ids), 0xFFFFFFFF);
    const auto ports = channel_ports(fw, chnl);
    s.num_ports = UINT32(ports.size());
    for (UINT32 i = 0; i < ports.size(); ++i) {
        const UINT32 p = ports[i];
        const serdes_lane_state& l = m.lane[p];
        s.serdes_port_ids[i] = p;
        s.signal_detect_mask |= UINT32(m.signal_present(fw, p)) << i;
        s.cdr_lock_mask |= UINT32(m.cdr_lock(fw, p)) << i;
        s.adapt_done_mask |= UINT32(adapt_done(l)) << i;
        s.prbs_lock_mask |= UINT32(l.locked) << i;
        s.tx_enabled_mask |= UINT32(!l.tx_disable.active && l.tx_source != KAVO_SERDES_TX_SRC_SQUELCH) << i;
    }
    rep.record(s);
}

void cfg_get(firmware& fw, const request& req, reply& rep)
{
    UINT32 chnl;
    if (!channel_of(req, rep, chnl)) return;
    kavo_serdes_cfg_t c{};
    std::fill(std::begin(c.serdes_port_ids), std::end(c.serdes_port_ids), 0xFFFFFFFF);
    const auto ports = channel_ports(fw, chnl);
    c.num_ports = UINT32(ports.size());
    c.pin_mode = kavo_serdes_pin_mode_t(ports.empty() ? UINT32(LAST_KAVO_SERDES_PIN_MODE) : model(fw).lane[ports[0]].pin_mode);
    c.rate = kavo_serdes_rate_t(c.pin_mode); // one rate per pin mode
    for (UINT32 i = 0; i < ports.size(); ++i) {
        const serdes_lane_state& l = model(fw).lane[ports[i]];
        c.serdes_port_ids[i] = ports[i];
        c.optical_mode_mask |= UINT32(l.optical.stored) << i;
        c.lt_only_mask |= UINT32(l.lt_only) << i;
        c.single_step_mask |= UINT32(l.single_step) << i;
    }
    rep.record(c);
}

UINT32 eye_height_mv(const serdes::eye& e) { return UINT32(std::lround(serdes::eye_height(e, serdes::EYE_DEFAULT_DEPTH))); }
UINT32 eye_width_mui(const serdes::eye& e)
{
    return UINT32(std::lround(1000 * serdes::eye_width(e, serdes::EYE_DEFAULT_DEPTH)));
}

INT32 ppm_seen(const firmware& fw, UINT32 port)
{
    const serdes_model& m = fw.model.serdes;
    if (!m.signal_present(fw, port) || fw.model.datapath.serdes_looped(fw, port)) return 0;
    return INT32(fw.knob(SIM_KNOB_PPM_OFFSET, port));
}

void pin_status_get(firmware& fw, const request& req, reply& rep)
{
    UINT32 port;
    if (!port_of(req, rep, port)) return;
    serdes_model& m = model(fw);
    const serdes_lane_state& l = m.lane[port];
    kavo_serdes_pin_status_t s{};
    s.signal_detect = m.signal_present(fw, port);
    s.cdr_lock = m.cdr_lock(fw, port);
    s.tx_enabled = !l.tx_disable.active && l.tx_source != KAVO_SERDES_TX_SRC_SQUELCH;
    s.prbs_lock = l.locked;
    s.tx_invert = l.tx_invert.active;
    s.rx_invert = l.rx_invert.active;
    s.tx_pre_code = l.tx_pre_code.active;
    s.rx_pre_code = l.rx_pre_code.active;
    s.adapt_state = l.adapt_state;
    const serdes::eye e = m.eye(fw, port);
    s.eye_height_mv = eye_height_mv(e);
    s.eye_width_mui = eye_width_mui(e);
    s.ppm_offset = ppm_seen(fw, port);
    s.microcode_version = m.ucode_version;
    s.los_count = l.los_count;
    s.reset_count = l.reset_count;
    s.fifo_reset_count = l.fifo_reset_count;
    rep.record(s);
}

void pin_cfg_get(firmware& fw, const request& req, reply& rep)
{
    UINT32 port;
    if (!port_of(req, rep, port)) return;
    const serdes_lane_state& l = model(fw).lane[port];
    kavo_serdes_pin_cfg_t c{};
    c.owner_chnl_id = fw.device.serdes_owner[port];
    c.pin_mode = kavo_serdes_pin_mode_t(l.pin_mode);
    c.rate = kavo_serdes_rate_t(l.pin_mode);
    c.tx_source = kavo_serdes_tx_src_t(l.tx_source);
    c.rx_source = kavo_serdes_rx_src_t(l.rx_source);
    c.tx_fixed = l.tx_fixed;
    c.rx_fixed = l.rx_fixed;
    c.tx_disable = l.tx_disable.stored;
    c.taps = l.taps;
    c.tx_invert = l.tx_invert.stored;
    c.rx_invert = l.rx_invert.stored;
    c.tx_pre_code = l.tx_pre_code.stored;
    c.rx_pre_code = l.rx_pre_code.stored;
    c.prbs_generator = kavo_serdes_prbs_t(l.gen_mode);
    c.prbs_monitor = kavo_serdes_prbs_t(l.mon_mode);
    c.los_recovery_ms = l.los_recovery_ms;
    c.optical_mode = l.optical.stored;
    c.lt_only_mode = l.lt_only;
    c.single_step_mode = l.single_step;
    c.user_pattern_crc = crc32(l.gen_user, sizeof(l.gen_user));
    c.eye_1d_depth = l.eye_depth[0];
    c.eye_2d_depth = l.eye_depth[1];
    c.fec_dwell_ms = l.fec_dwell_ms;
    rep.record(c);
}

void pin_prbs_get(firmware& fw, const request& req, reply& rep)
{
    UINT32 port;
    if (!port_of(req, rep, port) || !boolean(req.info.flag, rep)) return;
    serdes_lane_state& l = model(fw).lane[port];
    if (l.mon_mode == KAVO_SERDES_PRBS_NONE) {
        rep.result = SERDES_ERR_PRBS_MONITOR_NOT_ENABLED;
        return;
    }
    kavo_serdes_prbs_ber_t b{};
    b.lock = l.locked;
    b.prbs_mode = kavo_serdes_prbs_t(l.mon_mode);
    b.bit_count = l.bits;
    b.error_count = l.errors;
    b.ber = l.bits ? double(l.errors) / double(l.bits) : 0.0;
    b.lock_loss_count = l.lock_losses;
    rep.record(b);
    if (req.info.flag) model(fw).relock(fw, port); // counts start again from here
}

// ---- resets and modes ----

void port_reset(firmware& fw, const request& req, reply& rep)
{
    UINT32 port;
    if (!port_of(req, rep, port) || !boolean(req.info.flag, rep)) return;
    for (UINT32 p : lane_and_siblings(fw, port, req.info.flag != 0)) {
        if (req.info.flag) { // the lane's receiver only: clock recovery and checker start again
            serdes_lane_state& l = model(fw).lane[p];
            ++l.reset_count;
            l.cdr_ready_us = fw.now_us() + CDR_RELOCK_US;
            model(fw).relock(fw, p);
        } else {
            model(fw).reset_lane(fw, p, fw.now_us());
        }
    }
}

void fifo_reset(firmware& fw, const request& req, reply& rep)
{
    UINT32 port;
    if (!port_of(req, rep, port) || !boolean(req.info.flag, rep)) return;
    for (UINT32 p : lane_and_siblings(fw, port, req.info.flag != 0)) {
        ++model(fw).lane[p].fifo_reset_count;
        model(fw).relock(fw, p); // the data slip: the checker synchronises again
    }
}

void adaptation_trigger(firmware& fw, const request& req, reply& rep)
{
    UINT32 port;
    std::vector<UINT32> lanes;
    if (!port_of(req, rep, port) || !boolean(req.info.flag, rep) ||
        !lanes_of(fw, port, req.info.flag != 0, rep, lanes))
        return;
    for (UINT32 p : lanes) {
        serdes_lane_state& l = model(fw).lane[p];
        l.adapt_iterations = 0;
        l.adapt_state = l.single_step ? ADAPT_WAITING : ADAPT_RUNNING;
        l.adapt_next_us = fw.now_us() + ADAPT_STEP_US;
    }
}

void adapt_objects_get(firmware& fw, const request& req, reply& rep)
{
    UINT32 port;
    if (!port_of(req, rep, port)) return;
    serdes_model& m = model(fw);
    const serdes_lane_state& l = m.lane[port];
    kavo_serdes_pin_adapt_objects_t o{};
    o.state = l.adapt_state;
    o.iterations = l.adapt_iterations;
    o.single_step_mode = l.single_step;
    o.ctle_peaking_db10 = serdes::ctle_peaking_db10(m.path_loss_db(fw, port));
    const serdes::eye e = m.eye(fw, port);
    o.isi_ppm = e.main > 0 ? UINT32(std::lround(1e6 * e.isi / e.main)) : 1000000;
    o.eye_height_mv = eye_height_mv(e);
    o.eye_width_mui = eye_width_mui(e);
    rep.record(o);
}

void ffe_wt_get(firmware& fw, const request& req, reply& rep)
{
    UINT32 port;
    if (!port_of(req, rep, port)) return;
    const serdes_lane_state& l = model(fw).lane[port];
    kavo_serdes_ffe_wt_t w{};
    for (UINT32 i = 0; i < serdes::NUM_TAPS; ++i)
        w.weight[i] = INT32(std::lround(1000 * l.rx_ffe[i]));
    w.main_tap = serdes::MAIN;
    rep.record(w);
}

void single_step_mode_set(firmware& fw, const request& req, reply& rep)
{
    UINT32 port;
    if (!port_of(req, rep, port) || !boolean(req.info.flag, rep)) return;
    serdes_lane_state& l = model(fw).lane[port];
    l.single_step = req.info.flag != 0;
    if (!l.single_step && l.adapt_state == ADAPT_WAITING) { // the rest runs on its own
        l.adapt_state = ADAPT_RUNNING;
        l.adapt_next_us = fw.now_us() + ADAPT_STEP_US;
    }
}

void single_step_start(firmware& fw, const request& req, reply& rep)
{
    UINT32 port;
    if (!port_of(req, rep, port)) return;
    serdes_model& m = model(fw);
    serdes_lane_state& l = m.lane[port];
    if (!l.single_step || l.adapt_state != ADAPT_WAITING) {
        rep.result = SERDES_ERR_INVALID_MODE;
        return;
    }
    if (m.signal_present(fw, port)) serdes::adapt_step(m.path_loss_db(fw, port), l.taps, l.rx_ffe);
    l.adapt_state = ++l.adapt_iterations >= ADAPT_ITERATIONS ? ADAPT_DONE : ADAPT_WAITING;
    rep.mode = l.adapt_state;
    rep.value = l.adapt_iterations;
}

void hold_off_set(firmware& fw, const request& req, reply& rep)
{
    UINT32 port;
    std::vector<UINT32> lanes;
    if (!port_of(req, rep, port) || !boolean(req.info.parent_id, rep)) return;
    if (req.info.mode > MAX_HOLDOFF_MS) {
        rep.result = SERDES_ERR_INVALID_MODE;
        return;
    }
    if (!lanes_of(fw, port, req.info.parent_id != 0, rep, lanes)) return;
    for (UINT32 p : lanes)
        model(fw).lane[p].los_recovery_ms = req.info.mode;
}

void optical_mode_set(firmware& fw, const request& req, reply& rep)
{
    UINT32 port;
    std::vector<UINT32> lanes;
    if (!port_of(req, rep, port) || !boolean(req.info.parent_id, rep) || !boolean(req.info.flag, rep) ||
        !action_ok(req.info.mode, rep) || !lanes_of(fw, port, req.info.parent_id != 0, rep, lanes))
        return;
    for (UINT32 p : lanes)
        model(fw).lane[p].optical.set(req.info.mode, req.info.flag != 0);
}

void lt_only_set(firmware& fw, const request& req, reply& rep)
{
    UINT32 port;
    if (!port_of(req, rep, port) || !boolean(req.info.flag, rep)) return;
    model(fw).lane[port].lt_only = req.info.flag != 0;
}

// ---- eye and FEC monitors, PPM ----

void eye_mon_enable(firmware& fw, const request& req, reply& rep)
{
    UINT32 port;
    if (!port_of(req, rep, port) || !boolean(req.info.flag, rep)) return;
    const UINT32 kind = req.info.mode, depth = req.info.parent_id;
    if (kind != 1 && kind != 2) {
        rep.result = SERDES_ERR_INVALID_MODE;
        return;
    }
    if (req.info.flag && (depth == 0 || depth > serdes::EYE_MAX_DEPTH)) {
        rep.result = KAVO_FW_ERR_NUMBER_OUT_OF_RANGE;
        return;
    }
    model(fw).lane[port].eye_depth[kind - 1] = req.info.flag ? depth : 0;
}

void eye_data_get(firmware& fw, const request& req, reply& rep)
{
    UINT32 port;
    if (!port_of(req, rep, port)) return;
    const UINT32 kind = req.info.mode;
    if ((kind != 1 && kind != 2) || model(fw).lane[port].eye_depth[kind - 1] == 0) {
        rep.result = SERDES_ERR_INVALID_MODE; // no such monitor, or not enabled
        return;
    }
    serdes_model& m = model(fw);
    const UINT32 depth = m.lane[port].eye_depth[kind - 1];
    const bool valid = m.cdr_lock(fw, port);
    const serdes::eye e = valid ? m.eye(fw, port) : serdes::eye{};
    const UINT32 height = valid ? UINT32(std::lround(serdes::eye_height(e, depth))) : 0;
    // PAM4 eyes are a third of the swing: a finer voltage step shows them.
    const UINT32 mv_step = is_pam4(m.lane[port].pin_mode) ? serdes::EYE_MV_PER_STEP / 2 : serdes::EYE_MV_PER_STEP;
    auto volts = [&](UINT32 row) { return (15.5 - row) * mv_step; };
    if (kind == 1) {
        kavo_serdes_1d_eye_data_t d{};
        d.valid = valid;
        d.depth = depth;
        d.mv_per_step = mv_step;
        d.eye_height_mv = height;
        for (UINT32 r = 0; r < serdes::EYE_STEPS; ++r)
            d.ber_decade[r] = valid ? serdes::ber_decade(e, 0, volts(r)) : 0;
        rep.record(d);
    } else {
        kavo_serdes_2d_eye_data_t d{};
        d.valid = valid;
        d.depth = depth;
        d.mv_per_step = mv_step;
        d.mui_per_step = 1000 / serdes::EYE_STEPS;
        d.eye_height_mv = height;
        d.eye_width_mui = valid ? UINT32(std::lround(1000 * serdes::eye_width(e, depth))) : 0;
        for (UINT32 r = 0; r < serdes::EYE_STEPS; ++r)
            for (UINT32 c = 0; c < serdes::EYE_STEPS; ++c)
                d.ber_decade[r][c] = valid ? serdes::ber_decade(e, (c - 15.5) / serdes::EYE_STEPS, volts(r)) : 0;
        rep.record(d);
    }
}

void fec_mon_trigger(firmware& fw, const request& req, reply& rep)
{
    UINT32 port;
    if (!port_of(req, rep, port)) return;
    if (req.info.mode == 0 || req.info.mode > MAX_DWELL_MS) {
        rep.result = SERDES_ERR_INVALID_MODE;
        return;
    }
    serdes_lane_state& l = model(fw).lane[port];
    l.fec_dwell_ms = req.info.mode;
    l.fec_start_us = fw.now_us();
}

void fec_mon_get(firmware& fw, const request& req, reply& rep)
{
    UINT32 port;
    if (!port_of(req, rep, port)) return;
    serdes_model& m = model(fw);
    const serdes_lane_state& l = m.lane[port];
    kavo_serdes_fec_mon_data_t d{};
    d.dwell_ms = l.fec_dwell_ms;
    if (l.fec_dwell_ms != 0) {
        const UINT64 elapsed_us = std::min<UINT64>(fw.now_us() - l.fec_start_us, UINT64(l.fec_dwell_ms) * 1000);
        d.elapsed_ms = UINT32(elapsed_us / 1000);
        d.done = elapsed_us >= UINT64(l.fec_dwell_ms) * 1000;
        // The same window always gives the same counts.
        serdes::rng r(mix(mix(fw.knob(SIM_KNOB_SEED, 0), port), l.fec_start_us ^ (elapsed_us << 20)));
        const double bits = m.bit_rate_per_us(port) * double(elapsed_us);
        const serdes::fec_counts f = serdes::fec_monitor(bits, m.cdr_lock(fw, port) ? m.ber(fw, port) : 0.5, r);
        d.codewords = f.codewords;
        d.symbol_errors = f.symbol_errors;
        d.corrected_codewords = f.corrected;
        d.uncorrectable_codewords = f.uncorrectable;
    }
    rep.record(d);
}

void ppm_offset_get(firmware& fw, const request& req, reply& rep)
{
    UINT32 port;
    if (!port_of(req, rep, port)) return;
    rep.value = UINT32(ppm_seen(fw, port));
}

// ---- microcode ----

UINT32 word_at(const std::vector<UINT8>& v, UINT32 offset)
{
    UINT32 w;
    std::memcpy(&w, v.data() + offset, 4);
    return w;
}

void ucode_refuse(firmware& fw, reply& rep, const char* why, UINT32 offset)
{
    serdes_model& m = model(fw);
    fw.console("serdes microcode refused: %s at offset %u (%zu bytes received)\n", why, offset, m.ucode.size());
    m.ucode.clear();
    m.ucode_expected = 0;
    rep.result = SERDES_ERR_INVALID_MODE;
}

void serdes_load(firmware& fw, const request& req, reply& rep)
{
    serdes_model& m = model(fw);
    const UINT32 offset = req.info.mode;
    const bool zeros = std::all_of(req.data.begin(), req.data.end(), [](UINT8 b) { return b == 0; });
    if (req.data.size() == serdes::UCODE_CLOSING_SIZE && zeros && offset == m.ucode.size()) {
        // The closing request: its offset is the total the host sent.
        if (m.ucode.empty() || m.ucode_expected != m.ucode.size())
            return ucode_refuse(fw, rep, "total does not match the image header", offset);
        const UINT32 crc = crc32(m.ucode.data() + serdes::UCODE_IMAGE_HEADER, m.ucode.size() - serdes::UCODE_IMAGE_HEADER);
        if (crc != word_at(m.ucode, 12)) return ucode_refuse(fw, rep, "checksum mismatch", offset);
        m.ucode_version = word_at(m.ucode, 4);
        fw.console("serdes microcode 0x%08x loaded (%zu bytes)\n", m.ucode_version, m.ucode.size());
        m.ucode.clear();
        m.ucode_expected = 0;
        return;
    }
    if (req.data.empty()) {
        rep.result = HTL_ERR_INVALID_REQUEST_DATA_SIZE;
        return;
    }
    if (offset == 0) { // a new image starts
        m.ucode.clear();
        m.ucode_expected = 0;
    }
    if (offset != m.ucode.size())
        return ucode_refuse(fw, rep, offset > m.ucode.size() ? "gap" : "overlap", offset);
    m.ucode.insert(m.ucode.end(), req.data.begin(), req.data.end());
    if (m.ucode_expected == 0 && m.ucode.size() >= serdes::UCODE_IMAGE_HEADER) {
        const UINT32 size = word_at(m.ucode, 8);
        if (word_at(m.ucode, 0) != serdes::UCODE_MAGIC) return ucode_refuse(fw, rep, "not a microcode image", offset);
        if (size < serdes::UCODE_IMAGE_HEADER || size > serdes::UCODE_MAX_IMAGE ||
            size % serdes::UCODE_CHUNK == serdes::UCODE_CLOSING_SIZE)
            return ucode_refuse(fw, rep, "bad image size", offset);
        m.ucode_expected = size;
    }
    if (m.ucode_expected != 0 && m.ucode.size() > m.ucode_expected)
        return ucode_refuse(fw, rep, "longer than the image header says", offset);
    if (m.ucode.size() > serdes::UCODE_MAX_IMAGE) return ucode_refuse(fw, rep, "too long", offset);
}

/* Every SerDes request leaves the checkers' verdicts up to date. */
template <handler_fn F> void settled(firmware& fw, const request& req, reply& rep)
{
    F(fw, req, rep);
    fw.model.serdes.settle(fw);
}

constexpr handler HANDLERS[] = {
    {KAVO_HTL_OPERATION_SERDES_PORT_TX_SOURCE_SET, "serdes_tx_source_set", settled<tx_source_set>},
    {KAVO_HTL_OPERATION_SERDES_PORT_RX_SOURCE_SET, "serdes_rx_source_set", settled<rx_source_set>},
    {KAVO_HTL_OPERATION_SERDES_PIN_PRBS_GET, "serdes_pin_prbs_get", settled<pin_prbs_get>},
    {KAVO_HTL_OPERATION_SERDES_STATUS_GET, "serdes_status_get", settled<status_get>},
    {KAVO_HTL_OPERATION_SERDES_CFG_GET, "serdes_cfg_get", settled<cfg_get>},
    {KAVO_HTL_OPERATION_SERDES_PORT_STATUS_GET, "serdes_pin_status_get", settled<pin_status_get>},
    {KAVO_HTL_OPERATION_SERDES_PORT_CFG_GET, "serdes_pin_cfg_get", settled<pin_cfg_get>},
    {KAVO_HTL_OPERATION_SERDES_PIN_TX_EQ_TAPS_SET, "serdes_tx_eq_set", settled<tx_eq_set>},
    {KAVO_HTL_OPERATION_SERDES_PORT_TX_CTRL_SET, "serdes_tx_ctrl_set", settled<tx_ctrl_set>},
    {KAVO_HTL_OPERATION_SERDES_PORT_POLARITY_SET, "serdes_polarity_set", settled<polarity_set>},
    {KAVO_HTL_OPERATION_SERDES_PORT_PRE_CODE_SET, "serdes_pre_code_set", settled<pre_code_set>},
    {KAVO_HTL_OPERATION_SERDES_PORT_PRBS_SET, "serdes_prbs_set", settled<prbs_set>},
    {KAVO_HTL_OPERATION_SERDES_PORT_TX_ERR_SET, "serdes_tx_err_set", settled<tx_err_set>},
    {KAVO_HTL_OPERATION_SERDES_PORT_RESET, "serdes_port_reset", settled<port_reset>},
    {KAVO_HTL_OPERATION_SERDES_PORT_FIFO_RESET, "serdes_fifo_reset", settled<fifo_reset>},
    {KAVO_HTL_OPERATION_SERDES_ADAPTATION_TRIGGER, "serdes_adaptation_trigger", settled<adaptation_trigger>},
    {KAVO_HTL_OPERATION_SERDES_EYE_MON_ENABLE, "serdes_eye_mon_enable", settled<eye_mon_enable>},
    {KAVO_HTL_OPERATION_SERDES_EYE_DATA_GET, "serdes_eye_data_get", settled<eye_data_get>},
    {KAVO_HTL_OPERATION_SERDES_ADAPT_OBJECTS_GET, "serdes_adapt_objects_get", settled<adapt_objects_get>},
    {KAVO_HTL_OPERATION_SERDES_FFE_WT_GET, "serdes_ffe_wt_get", settled<ffe_wt_get>},
    {KAVO_HTL_OPERATION_SERDES_PORT_HOLD_OFF_SET, "serdes_hold_off_set", settled<hold_off_set>},
    {KAVO_HTL_OPERATION_SERDES_PORT_SINGLE_STEP_MODE_SET, "serdes_single_step_mode_set", settled<single_step_mode_set>},
    {KAVO_HTL_OPERATION_SERDES_PORT_SINGLE_STEP_START, "serdes_single_step_start", settled<single_step_start>},
    {KAVO_HTL_OPERATION_SERDES_PORT_OPT_MODE_EN, "serdes_optical_mode_set", settled<optical_mode_set>},
    {KAVO_HTL_OPERATION_SERDES_LINK_TRAINING_ONLY_MODE_EN, "serdes_lt_only_set", settled<lt_only_set>},
    {KAVO_HTL_OPERATION_SERDES_FEC_MON_TRIGGER, "serdes_fec_mon_trigger", settled<fec_mon_trigger>},
    {KAVO_HTL_OPERATION_SERDES_FEC_MON_GET, "serdes_fec_mon_get", settled<fec_mon_get>},
    {KAVO_HTL_OPERATION_SERDES_PPM_OFFSET_GET, "serdes_ppm_offset_get", settled<ppm_offset_get>},
    {KAVO_HTL_OPERATION_DEBUG_SERDES_LOAD, "debug_serdes_load", settled<serdes_load>},
};

} // namespace

// ---- the lane model ----

bool serdes_model::raw_signal(const firmware& fw, UINT32 port) const
{
    if (fw.model.datapath.serdes_looped(fw, port)) {
        const serdes_lane_state& l = lane[port];
        return !l.tx_disable.active && l.tx_source != KAVO_SERDES_TX_SRC_SQUELCH;
    }
    return fw.knob(SIM_KNOB_LINK_PARTNER, port) != 0;
}

bool serdes_model::signal_present(const firmware& fw, UINT32 port) const
{
    if (port >= NUM_SERDES_PORTS) return false;
    const serdes_lane_state& l = lane[port];
    return raw_signal(fw, port) && l.raw_signal &&
           (l.present_from_start || fw.now_us() - l.signal_since_us >= UINT64(l.los_recovery_ms) * 1000);
}

bool serdes_model::cdr_lock(const firmware& fw, UINT32 port) const
{
    if (!signal_present(fw, port) || fw.now_us() < lane[port].cdr_ready_us) return false;
    return std::abs(INT32(fw.knob(SIM_KNOB_PPM_OFFSET, port))) <= CDR_PPM_RANGE ||
           fw.model.datapath.serdes_looped(fw, port);
}

stream serdes_model::received_stream(const firmware& fw, UINT32 port) const
{
    stream s;
    if (!signal_present(fw, port)) return s;
    if (fw.model.datapath.serdes_looped(fw, port)) {
        const serdes_lane_state& l = lane[port];
        s.kind = l.tx_source == KAVO_SERDES_TX_SRC_PRBS    ? stream::prbs
                 : l.tx_source == KAVO_SERDES_TX_SRC_FIXED_PATTERN ? stream::fixed
                                                                  : stream::mission;
        s.prbs_mode = l.gen_mode;
        std::copy(std::begin(l.gen_user), std::end(l.gen_user), s.user);
        s.fixed_msw = l.tx_fixed.squelch_data_msw;
        s.fixed_lsw = l.tx_fixed.squelch_data_lsw;
        s.invert = l.tx_invert.active;
        s.pre_code = l.tx_pre_code.active;
        s.seed = port + 1;
    } else {
        const UINT32 pattern = fw.knob(SIM_KNOB_PARTNER_PRBS, port);
        s.kind = pattern == 0xFFFFFFFF ? stream::mission : stream::prbs;
        s.prbs_mode = pattern;
        s.invert = fw.knob(SIM_KNOB_PARTNER_INVERTED, port) != 0;
        s.seed = mix(fw.knob(SIM_KNOB_SEED, 0), port);
    }
    return s;
}

double serdes_model::path_loss_db(const firmware& fw, UINT32 port) const
{
    return fw.model.datapath.serdes_looped(fw, port) ? LOOPBACK_LOSS_DB
                                                     : fw.knob(SIM_KNOB_CHANNEL_LOSS, port) / 10.0;
}

serdes::eye serdes_model::eye(const firmware& fw, UINT32 port) const
{
    if (!signal_present(fw, port)) return {};
    return serdes::eye_model(path_loss_db(fw, port), lane[port].taps, lane[port].rx_ffe, is_pam4(lane[port].pin_mode));
}

double serdes_model::bit_rate_per_us(UINT32 port) const
{
    static constexpr double RATE[] = {10312.5, 25781.25, 53125.0, 106250.0};
    return RATE[std::min<UINT32>(lane[port].pin_mode, 3)];
}

double serdes_model::ber(const firmware& fw, UINT32 port) const
{
    return fw.knob(SIM_KNOB_BIT_ERRORS, port) / 1e12;
}

void serdes_model::relock(firmware& fw, UINT32 port)
{
    serdes_lane_state& l = lane[port];
    l.locked = false;
    l.lock_key = 0;
    l.bits = l.errors = 0;
    (void)fw;
}

void serdes_model::reset_lane(firmware& fw, UINT32 port, UINT64 now_us)
{
    serdes_lane_state& l = lane[port];
    for (serdes_setting* s : {&l.tx_disable, &l.tx_invert, &l.rx_invert, &l.tx_pre_code, &l.rx_pre_code, &l.optical})
        s->active = s->stored;
    l.adapt_state = ADAPT_IDLE;
    l.adapt_iterations = 0;
    std::fill(std::begin(l.rx_ffe), std::end(l.rx_ffe), 0.0);
    l.rx_ffe[serdes::MAIN] = 1;
    l.fec_dwell_ms = 0;
    l.cdr_ready_us = now_us + CDR_RELOCK_US;
    ++l.reset_count;
    relock(fw, port);
}

void serdes_model::settle(firmware& fw, UINT32 p)
{
    serdes_lane_state& l = lane[p];
    if (l.mon_mode == KAVO_SERDES_PRBS_NONE) {
        l.locked = false;
        return;
    }
    // The checker's verdict is taken again whenever what it sees changes.
    const stream s = received_stream(fw, p);
    const bool cdr = cdr_lock(fw, p);
    const bool pam4 = is_pam4(l.pin_mode);
    UINT64 key = 0x51;
    for (UINT64 v : {UINT64(s.kind), UINT64(s.prbs_mode), UINT64(s.fixed_msw), UINT64(s.fixed_lsw), UINT64(s.invert),
                     UINT64(s.pre_code), UINT64(l.rx_invert.active), UINT64(l.rx_pre_code.active), UINT64(l.mon_mode),
                     UINT64(pam4), UINT64(cdr)})
        key = mix(key, v);
    for (UINT32 i = 0; i < serdes::USER_WORDS; ++i)
        key = mix(mix(key, s.user[i]), l.mon_user[i]);
    if (key == l.lock_key) return;
    const bool was = l.locked;
    l.lock_key = key;
    const auto bits = serdes::receive(serdes::transmit(s, pam4, CHECK_BITS), pam4, l.rx_invert.active,
                                      l.rx_pre_code.active);
    l.locked = cdr && serdes::checker_locks(bits, l.mon_mode, l.mon_user);
    if (was && !l.locked) ++l.lock_losses;
    if (!was && l.locked) l.bits = l.errors = 0; // counted from lock
}

void serdes_model::settle(firmware& fw)
{
    for (UINT32 p = 0; p < NUM_SERDES_PORTS; ++p)
        settle(fw, p);
}

void serdes_model::advance(firmware& fw, UINT64 now_us)
{
    const UINT64 dt = now_us > last_us ? now_us - last_us : 0;
    last_us = now_us;
    if (rng_state == 0) rng_state = mix(fw.knob(SIM_KNOB_SEED, 0), 0x5E7DE5);
    serdes::rng r(rng_state);
    for (UINT32 p = 0; p < NUM_SERDES_PORTS; ++p) {
        serdes_lane_state& l = lane[p];
        // Counted on the verdict taken when the lane last changed (changes
        // outside the chip are seen at the next request).
        if (l.locked) {
            const double bits = bit_rate_per_us(p) * double(dt);
            l.bits += UINT64(bits);
            l.errors += r.poisson(bits * ber(fw, p));
            if (fw.model.datapath.serdes_looped(fw, p)) l.errors += l.tx_errors_pending;
        }
        // A signal there from the start has been there since power-up.
        const bool raw = raw_signal(fw, p);
        if (!l.sampled) l.present_from_start = raw;
        if (raw && !l.raw_signal && l.sampled) l.signal_since_us = now_us, l.present_from_start = false;
        if (!raw && l.raw_signal) ++l.los_count;
        l.raw_signal = raw;
        l.sampled = true;

        while (l.adapt_state == ADAPT_RUNNING && l.adapt_next_us <= now_us) {
            if (signal_present(fw, p)) serdes::adapt_step(path_loss_db(fw, p), l.taps, l.rx_ffe);
            if (++l.adapt_iterations >= ADAPT_ITERATIONS) l.adapt_state = ADAPT_DONE;
            l.adapt_next_us += ADAPT_STEP_US;
        }
    }
    for (serdes_lane_state& l : lane) // sent: to our own checker or to the partner
        l.tx_errors_pending = 0;
    rng_state = r.state;
    settle(fw);
}

std::span<const handler> serdes_handlers() { return HANDLERS; }

} // namespace kavo_sim::fw
