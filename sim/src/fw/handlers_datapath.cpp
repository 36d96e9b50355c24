// Channels, cross-connects, loopback, flow control, Ethernet ports and AN/LT.
//
// The rules a chip enforces: ports are provisioned after the device
// configuration, once per channel, on lanes no other port holds, with a lane
// signalling and FEC that suit the port mode (IEEE 802.3: RS(544,514) on PAM4
// lanes, RS(528,514) optional on 25G NRZ lanes, BASE-R FEC on 10G and 25G
// lanes). A port's link comes up when every lane sees a signal (the virtual
// link partner, or its own transmitter looped back) for the training time;
// AN/LT ports first negotiate with the partner, then train each lane.
#include "fw/firmware.h"

namespace kavo_sim::fw {

// ---------------------------------------------------------------------------
// Port modes, AN/LT technologies and the device's Ethernet bandwidth.

namespace {

constexpr UINT32 fec_bit(kavo_enet_fec_mode_t f) { return 1u << UINT32(f); }
constexpr UINT32 NRZ_FECS = fec_bit(KAVO_ENET_FEC_MODE_NONE) | fec_bit(KAVO_ENET_FEC_MODE_BASE_R);
constexpr UINT32 NRZ25_FECS = NRZ_FECS | fec_bit(KAVO_ENET_FEC_MODE_RS_528);
constexpr UINT32 PAM4_FECS = fec_bit(KAVO_ENET_FEC_MODE_RS_544);

struct mode_info {
    kavo_enet_port_mode_t mode;
    const char* name;
    UINT32 gbps;
    UINT32 lanes;
    kavo_serdes_pin_mode_t pin;
    UINT32 fecs; // fec_bit of every FEC the mode allows
};

constexpr mode_info MODES[] = {
    {KAVO_ENET_PORT_MODE_1GE, "1GE", 1, 1, KAVO_SERDES_PIN_MODE_10G_NRZ, fec_bit(KAVO_ENET_FEC_MODE_NONE)},
    {KAVO_ENET_PORT_MODE_10GE, "10GE", 10, 1, KAVO_SERDES_PIN_MODE_10G_NRZ, NRZ_FECS},
    {KAVO_ENET_PORT_MODE_25GE, "25GE", 25, 1, KAVO_SERDES_PIN_MODE_25G_NRZ, NRZ25_FECS},
    {KAVO_ENET_PORT_MODE_40GE_4X10G, "40GE_4X10G", 40, 4, KAVO_SERDES_PIN_MODE_10G_NRZ, NRZ_FECS},
    {KAVO_ENET_PORT_MODE_50GE_2X25G, "50GE_2X25G", 50, 2, KAVO_SERDES_PIN_MODE_25G_NRZ, NRZ25_FECS},
    {KAVO_ENET_PORT_MODE_50GE_1X50G, "50GE_1X50G", 50, 1, KAVO_SERDES_PIN_MODE_50G_PAM4, PAM4_FECS},
    // Clause 74 FEC is not defined for 100G over four lanes.
    {KAVO_ENET_PORT_MODE_100GE_4X25G, "100GE_4X25G", 100, 4, KAVO_SERDES_PIN_MODE_25G_NRZ,
     fec_bit(KAVO_ENET_FEC_MODE_NONE) | fec_bit(KAVO_ENET_FEC_MODE_RS_528)},
    {KAVO_ENET_PORT_MODE_100GE_2X50G, "100GE_2X50G", 100, 2, KAVO_SERDES_PIN_MODE_50G_PAM4, PAM4_FECS},
    {KAVO_ENET_PORT_MODE_100GE_1X100G, "100GE_1X100G", 100, 1, KAVO_SERDES_PIN_MODE_100G_PAM4, PAM4_FECS},
    {KAVO_ENET_PORT_MODE_200GE_4X50G, "200GE_4X50G", 200, 4, KAVO_SERDES_PIN_MODE_50G_PAM4, PAM4_FECS},
    {KAVO_ENET_PORT_MODE_200GE_2X100G, "200GE_2X100G", 200, 2, KAVO_SERDES_PIN_MODE_100G_PAM4, PAM4_FECS},
    {KAVO_ENET_PORT_MODE_400GE_8X50G, "400GE_8X50G", 400, 8, KAVO_SERDES_PIN_MODE_50G_PAM4, PAM4_FECS},
    {KAVO_ENET_PORT_MODE_400GE_4X100G, "400GE_4X100G", 400, 4, KAVO_SERDES_PIN_MODE_100G_PAM4, PAM4_FECS},
};

const mode_info* mode_of(UINT32 mode)
{
    for (const auto& m : MODES)
        if (UINT32(m.mode) == mode) return &m;
    return nullptr;
}

const char* mode_name(UINT32 mode)
{
    const mode_info* m = mode_of(mode);
    return m ? m->name : "unresolved";
}

const char* fec_name(UINT32 fec)
{
    static const char* const names[] = {"none", "BASE-R", "RS(528,514)", "RS(544,514)"};
    return fec < LAST_KAVO_ENET_FEC_MODE ? names[fec] : "?";
}

bool rs_fec(UINT32 fec) { return fec == KAVO_ENET_FEC_MODE_RS_528 || fec == KAVO_ENET_FEC_MODE_RS_544; }

// AN/LT technology i resolves to TECH_MODES[i]. From 25G on, odd values are
// the copper-cable (CR) technologies, even ones backplane (KR).
constexpr kavo_enet_port_mode_t TECH_MODES[LAST_KAVO_ENET_ANLT_ADVERTIZE] = {
    KAVO_ENET_PORT_MODE_1GE,          KAVO_ENET_PORT_MODE_10GE,          KAVO_ENET_PORT_MODE_25GE,
    KAVO_ENET_PORT_MODE_25GE,         KAVO_ENET_PORT_MODE_40GE_4X10G,    KAVO_ENET_PORT_MODE_40GE_4X10G,
    KAVO_ENET_PORT_MODE_50GE_1X50G,   KAVO_ENET_PORT_MODE_50GE_1X50G,    KAVO_ENET_PORT_MODE_100GE_4X25G,
    KAVO_ENET_PORT_MODE_100GE_4X25G,  KAVO_ENET_PORT_MODE_100GE_2X50G,   KAVO_ENET_PORT_MODE_100GE_2X50G,
    KAVO_ENET_PORT_MODE_100GE_1X100G, KAVO_ENET_PORT_MODE_100GE_1X100G,  KAVO_ENET_PORT_MODE_200GE_4X50G,
    KAVO_ENET_PORT_MODE_200GE_4X50G,  KAVO_ENET_PORT_MODE_400GE_4X100G,  KAVO_ENET_PORT_MODE_400GE_4X100G,
    KAVO_ENET_PORT_MODE_400GE_8X50G,  KAVO_ENET_PORT_MODE_400GE_8X50G,
};
constexpr UINT32 ALL_TECHS = (1u << LAST_KAVO_ENET_ANLT_ADVERTIZE) - 1;
constexpr UINT32 CR_TECHS = 0xAAAA8; // 25GBASE-CR and every CR after it
constexpr UINT32 TECHS_400G_4 = (1u << KAVO_ENET_ANLT_ADVERTIZE_400GBASE_KR4) | (1u << KAVO_ENET_ANLT_ADVERTIZE_400GBASE_CR4);
constexpr UINT32 TECHS_400G_8 = (1u << KAVO_ENET_ANLT_ADVERTIZE_400GBASE_KR8) | (1u << KAVO_ENET_ANLT_ADVERTIZE_400GBASE_CR8);

const mode_info& tech_mode(UINT32 tech) { return *mode_of(TECH_MODES[tech]); }

/* The technology both ends can run: the fastest, then the one on fewer lanes. */
UINT32 resolve(UINT32 ours, UINT32 theirs)
{
    UINT32 best = LAST_KAVO_ENET_ANLT_ADVERTIZE;
    for (UINT32 t = 0; t < LAST_KAVO_ENET_ANLT_ADVERTIZE; ++t) {
        if (!((ours & theirs) >> t & 1)) continue;
        if (best == LAST_KAVO_ENET_ANLT_ADVERTIZE || tech_mode(t).gbps > tech_mode(best).gbps ||
            (tech_mode(t).gbps == tech_mode(best).gbps && tech_mode(t).lanes < tech_mode(best).lanes))
            best = t;
    }
    return best;
}

UINT32 max_lanes(UINT32 mask)
{
    UINT32 n = 0;
    for (UINT32 t = 0; t < LAST_KAVO_ENET_ANLT_ADVERTIZE; ++t)
        if (mask >> t & 1) n = std::max(n, tech_mode(t).lanes);
    return n;
}

UINT32 max_gbps(UINT32 mask)
{
    UINT32 n = 0;
    for (UINT32 t = 0; t < LAST_KAVO_ENET_ANLT_ADVERTIZE; ++t)
        if (mask >> t & 1) n = std::max(n, tech_mode(t).gbps);
    return n;
}

/* The FEC the base pages agree on for a technology. */
kavo_enet_fec_mode_t negotiated_fec(UINT32 tech, const kavo_enet_anlt_chnl_cfg_t& c)
{
    const mode_info& m = tech_mode(tech);
    if (m.fecs == PAM4_FECS) return KAVO_ENET_FEC_MODE_RS_544;
    if (c.fec_request_rs && (m.fecs & fec_bit(KAVO_ENET_FEC_MODE_RS_528))) return KAVO_ENET_FEC_MODE_RS_528;
    if ((c.fec_request_base_r || c.fec_ability) && (m.fecs & fec_bit(KAVO_ENET_FEC_MODE_BASE_R)))
        return KAVO_ENET_FEC_MODE_BASE_R;
    return KAVO_ENET_FEC_MODE_NONE;
}

/* Ethernet bandwidth of the device in its configured mode, Gb/s. */
UINT32 capacity_gbps(const firmware& fw)
{
    const UINT32 m = fw.device.config.device_mode;
    return m == KAVO_DEVICE_MODE_800G_FGB || m == KAVO_DEVICE_MODE_800G_RGB ? 800 : 1200;
}

UINT64 training_us(const firmware& fw) { return UINT64(fw.knob(SIM_KNOB_LINK_TRAINING_MS, 0)) * 1000; }

bool is_enet_type(UINT32 t) { return t == KAVO_SEGMENT_TYPE_ENET_PORT || t == KAVO_SEGMENT_TYPE_ENET_ANLT; }

UINT32 port_gbps(const enet_port& p)
{
    if (p.anlt && !mode_of(p.cfg.mode)) return max_gbps(p.anlt_cfg.advertize_mask);
    const mode_info* m = mode_of(p.cfg.mode);
    return m ? m->gbps : 0;
}

/* Lanes the port runs on: those of its mode, or for an AN/LT port before
   resolution the lane auto-negotiation runs on. */
UINT32 active_lanes(const enet_port& p)
{
    const mode_info* m = mode_of(p.cfg.mode);
    return m ? std::min(m->lanes, p.cfg.num_serdes_lanes) : std::min<UINT32>(1, p.cfg.num_serdes_lanes);
}

} // namespace

// ---------------------------------------------------------------------------
// The model.

void enet_port::init_settings()
{
    cfg.init();
    alarm.init();
    cfg.mru = cfg.mtu = 1518;
    cfg.ipg = 12;
    cfg.err_relay_mask = KAVO_MAC_RX_ERROR_ALL;
    cfg.idle_gen_level = cfg.idle_mon_level = cfg.idle_err_inj_level = KAVO_ENET_SCRAMBLE_IDLE_LEVEL_PCS;
    alarm.ca_enable.enable[KAVO_ENET_CA_ENABLE_RX_FAULT_TO_TX_RF] = 1;
    alarm.mask.defect_mask = KAVO_ENET_ALARM_MASK_LOS | KAVO_ENET_ALARM_MASK_LOBL | KAVO_ENET_ALARM_MASK_LOAML;
    alarm.mask.action = KAVO_ENET_ALARM_ACTION_LF;
    signal_since_us = NEVER_US;
    up = false;
    anlt_cfg.init();
    anlt_status.init();
}

datapath_model::datapath_model()
{
    std::fill(std::begin(source), std::end(source), NO_CHANNEL);
    std::fill(std::begin(loopback), std::end(loopback), KAVO_LOOPBACK_NONE);
}

enet_port* datapath_model::enet(const firmware& fw, UINT32 chnl)
{
    return const_cast<enet_port*>(static_cast<const datapath_model*>(this)->enet(fw, chnl));
}

const enet_port* datapath_model::enet(const firmware& fw, UINT32 chnl) const
{
    if (chnl >= KAVO_NUM_CHANNELS || !port[chnl].used || !is_enet_type(fw.device.channels[chnl])) return nullptr;
    return &port[chnl];
}

bool datapath_model::feeds_any(UINT32 chnl) const
{
    return std::find(std::begin(source), std::end(source), chnl) != std::end(source);
}

void datapath_model::forget(UINT32 chnl)
{
    for (UINT32& s : source)
        if (s == chnl) s = NO_CHANNEL;
    source[chnl] = NO_CHANNEL;
    loopback[chnl] = KAVO_LOOPBACK_NONE;
    flow_control[chnl].init();
    port[chnl] = enet_port{};
}

bool datapath_model::serdes_looped(const firmware& fw, UINT32 serdes) const
{
    if (serdes >= NUM_SERDES_PORTS) return false;
    const UINT32 owner = fw.device.serdes_owner[serdes];
    return enet(fw, owner) != nullptr && loopback[owner] == KAVO_LOOPBACK_HOST;
}

namespace {

/* Every one of the first n lanes sees a signal. */
bool lanes_present(const firmware& fw, const enet_port& p, UINT32 n)
{
    for (UINT32 i = 0; i < n; ++i)
        if (!fw.model.serdes.signal_present(fw, p.cfg.serdes_lanes[i])) return false;
    return n > 0;
}

UINT32 signal_mask(const firmware& fw, const enet_port& p)
{
    UINT32 mask = 0;
    for (UINT32 i = 0; i < p.cfg.num_serdes_lanes; ++i)
        if (fw.model.serdes.signal_present(fw, p.cfg.serdes_lanes[i])) mask |= 1u << i;
    return mask;
}

/* The PCS sees a bit-error ratio above 10^-4 (2 x 10^-4 behind an RS FEC, which corrects the rest). */
bool high_ber(const firmware& fw, const enet_port& p)
{
    const UINT32 limit = rs_fec(p.cfg.fec_mode) ? 200000000 : 100000000;
    for (UINT32 i = 0; i < active_lanes(p); ++i)
        if (fw.knob(SIM_KNOB_BIT_ERRORS, p.cfg.serdes_lanes[i]) > limit) return true;
    return false;
}

bool pcs_terminated(const enet_port& p) { return p.cfg.prov_mode != KAVO_ENET_PROV_MODE_ANALOG_RETIMER; }

void link_changed(firmware& fw, UINT32 chnl, bool up)
{
    fw.console("enet %u: link %s\n", chnl, up ? "up" : "down");
    fw.log(log_id::cmd, ENET_LOG_CODE_START, chnl, up, __LINE__);
}

void start_anlt_run(enet_port& p, UINT64 now)
{
    kavo_enet_anlt_chnl_status_t& s = p.anlt_status;
    const UINT32 restarts = s.restart_count;
    const UINT32 single = p.anlt_cfg.advertize_mask;
    s.init();
    s.restart_count = restarts;
    s.ts.start_us = UINT32(now);
    p.run_start_us = p.phase_start_us = now;
    p.up = false;
    p.cfg.mode = LAST_KAVO_ENET_PORT_MODE;
    p.cfg.fec_mode = KAVO_ENET_FEC_MODE_NONE;
    if (p.anlt_cfg.lt_only) {
        // Link training only: the one technology advertised is the one trained.
        const UINT32 tech = resolve(single, ALL_TECHS);
        s.resolved = kavo_enet_anlt_advertize_type_t(tech);
        s.port_mode = p.cfg.mode = TECH_MODES[tech];
        s.fec_mode = p.cfg.fec_mode = negotiated_fec(tech, p.anlt_cfg);
        p.cfg.pin_mode = tech_mode(tech).pin;
        s.state = KAVO_ENET_ANLT_STATE_LT;
    } else {
        s.state = KAVO_ENET_ANLT_STATE_AN;
    }
}

/* Auto-negotiation, link training, link: every transition at the time it
   happens, however long ago the model was last brought up to date. */
void step_anlt(firmware& fw, UINT32 chnl, enet_port& p, UINT64 now)
{
    kavo_enet_anlt_chnl_status_t& s = p.anlt_status;
    const UINT64 t_train = training_us(fw);
    for (;;) {
        switch (s.state) {
        case KAVO_ENET_ANLT_STATE_AN: {
            // Auto-negotiation needs the partner on the first lane; over a loopback
            // the port hears its own nonce and never completes.
            const UINT32 lane0 = p.cfg.serdes_lanes[0];
            if (fw.knob(SIM_KNOB_LINK_PARTNER, lane0) == 0 || fw.model.datapath.serdes_looped(fw, lane0)) {
                p.phase_start_us = now;
                return;
            }
            const UINT64 done = p.phase_start_us + t_train;
            if (now < done) return;
            s.partner_advertize_mask = ALL_TECHS;
            const UINT32 tech = resolve(p.anlt_cfg.advertize_mask, s.partner_advertize_mask);
            s.resolved = kavo_enet_anlt_advertize_type_t(tech);
            s.port_mode = p.cfg.mode = TECH_MODES[tech];
            s.fec_mode = p.cfg.fec_mode = negotiated_fec(tech, p.anlt_cfg);
            p.cfg.pin_mode = tech_mode(tech).pin;
            s.ts.an_done_us = UINT32(done - p.run_start_us);
            fw.console("enet %u: auto-negotiation resolved %s, fec %s\n", chnl, mode_name(p.cfg.mode),
                       fec_name(p.cfg.fec_mode));
            fw.log(log_id::cmd, ANLT_LOG_TRACE, chnl, tech, __LINE__);
            p.phase_start_us = done;
            // 1000BASE-KX has no link training.
            s.state = tech == KAVO_ENET_ANLT_ADVERTIZE_1000BASE_KX ? KAVO_ENET_ANLT_STATE_LINK_UP
                                                                     : KAVO_ENET_ANLT_STATE_LT;
            if (s.state == KAVO_ENET_ANLT_STATE_LINK_UP) {
                s.ts.lt_done_us = s.ts.link_up_us = s.ts.an_done_us;
                s.link_up = 1;
                p.up = true;
                link_changed(fw, chnl, true);
                return;
            }
            break;
        }
        case KAVO_ENET_ANLT_STATE_LT: {
            const UINT32 n = active_lanes(p);
            if (!lanes_present(fw, p, n)) {
                if (p.anlt_cfg.lt_only) {
                    // Training waits for the lanes and starts again when they come.
                    p.phase_start_us = now;
                    s.lt_done_mask = 0;
                    std::fill(std::begin(s.ts.lt_lane_done_us), std::end(s.ts.lt_lane_done_us), 0);
                    return;
                }
                // Training lost its partner: auto-negotiation starts over.
                ++s.restart_count;
                start_anlt_run(p, now);
                return;
            }
            // Each lane trains on its own; the later lanes finish a little later.
            UINT64 last = p.phase_start_us;
            for (UINT32 i = 0; i < n; ++i) {
                const UINT64 t = p.phase_start_us + t_train + i * t_train / 16;
                if (t <= now && !(s.lt_done_mask >> i & 1)) {
                    s.lt_done_mask |= 1u << i;
                    s.ts.lt_lane_done_us[i] = UINT32(t - p.run_start_us);
                }
                last = std::max(last, t);
            }
            if (now < last) return;
            s.ts.lt_done_us = s.ts.link_up_us = UINT32(last - p.run_start_us);
            s.state = KAVO_ENET_ANLT_STATE_LINK_UP;
            s.link_up = 1;
            p.up = true;
            link_changed(fw, chnl, true);
            return;
        }
        case KAVO_ENET_ANLT_STATE_LINK_UP:
            if (lanes_present(fw, p, active_lanes(p)) && !high_ber(fw, p)) return;
            link_changed(fw, chnl, false);
            ++s.restart_count;
            start_anlt_run(p, now);
            break;
        default:
            return;
        }
    }
}

} // namespace

void datapath_model::step_port(firmware& fw, UINT32 chnl, UINT64 now)
{
    enet_port& p = port[chnl];
    if (p.anlt) return step_anlt(fw, chnl, p, now);
    const bool present = lanes_present(fw, p, active_lanes(p)) && !(pcs_terminated(p) && high_ber(fw, p));
    if (!present) {
        if (p.up) link_changed(fw, chnl, false);
        p.up = false;
        p.signal_since_us = NEVER_US;
        return;
    }
    if (p.signal_since_us == NEVER_US) p.signal_since_us = now;
    // Lanes passed through without a PCS have nothing to lock to.
    const UINT64 lock_us = pcs_terminated(p) ? training_us(fw) : 0;
    if (!p.up && now >= p.signal_since_us + lock_us) {
        p.up = true;
        link_changed(fw, chnl, true);
    }
}

void datapath_model::advance(firmware& fw, UINT64 now_us)
{
    if (!fw.device.configured) {
        // Shut down or never configured: nothing is provisioned.
        for (UINT32 c = 0; c < KAVO_NUM_CHANNELS; ++c)
            if (port[c].used || source[c] != NO_CHANNEL) forget(c);
        return;
    }
    for (UINT32 c = 0; c < KAVO_NUM_CHANNELS; ++c) {
        if (port[c].used && !is_enet_type(fw.device.channels[c])) forget(c);
        if (enet(fw, c)) step_port(fw, c, now_us);
    }
}

bool datapath_model::link_up(const firmware& fw, UINT32 chnl) const
{
    const enet_port* p = enet(fw, chnl);
    return p && p->up && lanes_present(fw, *p, active_lanes(*p));
}

UINT32 datapath_model::rx_am_sf(const firmware& fw, UINT32 chnl) const
{
    // A partner sends no signal fail; a looped-back port receives its own bits.
    const enet_port* p = enet(fw, chnl);
    if (!p || !link_up(fw, chnl) || loopback[chnl] != KAVO_LOOPBACK_HOST) return 0;
    if (p->cfg.tx_am_sf.alarm_mode == KAVO_ENET_ALARM_MODE_TERMINATED) return p->cfg.tx_am_sf.tx_am_sf_value;
    const UINT32 src = source[chnl];
    return src != NO_CHANNEL && src != chnl ? rx_am_sf(fw, src) : 0;
}

UINT32 datapath_model::defects(const firmware& fw, UINT32 chnl) const
{
    const enet_port* p = enet(fw, chnl);
    if (!p) return 0;
    UINT32 d = 0;
    const UINT32 n = active_lanes(*p);
    const bool up = link_up(fw, chnl);
    if (!lanes_present(fw, *p, n)) d |= KAVO_ENET_ALARM_MASK_LOS;
    if (!pcs_terminated(*p)) return d;
    if (!up) d |= KAVO_ENET_ALARM_MASK_LOBL | KAVO_ENET_ALARM_MASK_LF | (n > 1 ? KAVO_ENET_ALARM_MASK_LOAML : 0);
    if (high_ber(fw, *p)) d |= KAVO_ENET_ALARM_MASK_HI_BER;
    // Over a host loopback the port receives the faults it sends itself.
    if (up && loopback[chnl] == KAVO_LOOPBACK_HOST && p->alarm.force.force == KAVO_ENET_ALARM_FORCE_TX) {
        if (p->alarm.force.action == KAVO_ENET_ALARM_ACTION_RF) d |= KAVO_ENET_ALARM_MASK_RF;
        if (p->alarm.force.action == KAVO_ENET_ALARM_ACTION_LF) d |= KAVO_ENET_ALARM_MASK_LF;
    }
    if (up && rs_fec(p->cfg.fec_mode) && p->cfg.fec_deg_ser.enable) {
        // Symbol errors in one interval, from the lanes' bit-error ratios (one symbol per bit error).
        const mode_info* m = mode_of(p->cfg.mode);
        UINT64 errors = 0;
        for (UINT32 i = 0; m && i < n; ++i) {
            const UINT64 bits = UINT64(m->gbps / m->lanes) * 1000000 * p->cfg.fec_deg_ser.interval_ms;
            errors += UINT64(fw.knob(SIM_KNOB_BIT_ERRORS, p->cfg.serdes_lanes[i])) * bits / 1000000000000ull;
        }
        if (errors > p->cfg.fec_deg_ser.activate_threshold) d |= KAVO_ENET_ALARM_MASK_FEC_DEG_SER;
    }
    if (rx_am_sf(fw, chnl) != 0) d |= KAVO_ENET_ALARM_MASK_RX_AM_SF;
    return d;
}

// ---------------------------------------------------------------------------
// Handlers.

namespace {

datapath_model& dp(firmware& fw) { return fw.model.datapath; }

/* The first check every handler makes: the device is configured and the channel exists. */
bool channel_ok(firmware& fw, UINT32 chnl, reply& rep)
{
    if (!fw.device.configured)
        rep.result = KAVO_ERR_FW_NOT_CONFIGURED;
    else if (chnl >= KAVO_NUM_CHANNELS)
        rep.result = SEGMENT_BASE_ERR_ILLEGAL_CHNL_ID;
    return rep.result == VELT_SUCCESS;
}

/* A provisioned channel of any kind. */
bool provisioned(firmware& fw, UINT32 chnl, reply& rep)
{
    if (!channel_ok(fw, chnl, rep)) return false;
    if (fw.device.channels[chnl] == KAVO_SEGMENT_TYPE_UNUSED) rep.result = SEGMENT_BASE_ERR_NO_SEGMENT_FOR_CHNL_ID;
    return rep.result == VELT_SUCCESS;
}

/* The Ethernet port a run-time command addresses, or null with the refusal in rep. */
enet_port* runtime_port(firmware& fw, UINT32 chnl, reply& rep)
{
    if (!channel_ok(fw, chnl, rep)) return nullptr;
    if (fw.device.channels[chnl] == KAVO_SEGMENT_TYPE_UNUSED) {
        rep.result = RUNTIME_OPERATION_COULD_NOT_FIND_A_SEGMENT;
        return nullptr;
    }
    enet_port* p = dp(fw).enet(fw, chnl);
    if (!p) rep.result = RUNTIME_OPERATION_NOT_SUPPORTED_BY_SEGMENT_CLASS;
    return p;
}

/* A port that terminates frames (MAC settings). */
enet_port* mac_port(firmware& fw, UINT32 chnl, reply& rep)
{
    enet_port* p = runtime_port(fw, chnl, rep);
    if (p && p->cfg.prov_mode != KAVO_ENET_PROV_MODE_MAC) {
        rep.result = RUNTIME_OPERATION_NOT_SUPPORTED_BY_SEGMENT_CLASS;
        return nullptr;
    }
    return p;
}

/* A port with a PCS (everything but the analog retimer). */
enet_port* pcs_port(firmware& fw, UINT32 chnl, reply& rep)
{
    enet_port* p = runtime_port(fw, chnl, rep);
    if (p && !pcs_terminated(*p)) {
        rep.result = RUNTIME_OPERATION_NOT_SUPPORTED_BY_SEGMENT_CLASS;
        return nullptr;
    }
    return p;
}

template <class T> bool payload_ok(firmware& fw, const request& req, reply& rep, T& out)
{
    if (req.data_size != sizeof(T) || !req.payload(out)) {
        rep.result = KAVO_FW_ERR_INVALID_PARAMETERS;
        fw.console("request refused: %u bytes of payload, expected %zu\n", req.data_size, sizeof(T));
        return false;
    }
    return true;
}

bool is_bool(UINT32 v) { return v <= 1; }

bool lane_reserved_for_ilkn(const firmware& fw, UINT32 lane)
{
    const kavo_ilkn_lane_cfg_t& l = fw.device.config.ilkn_lane;
    for (UINT32 i = 0; i < 24; ++i)
        if (l.serdes_port_ids_tx[i] == lane || l.serdes_port_ids_rx[i] == lane) return true;
    return false;
}

/* Lanes that no port holds and the Interlaken interface does not use. */
VELT_ERROR lanes_free(const firmware& fw, const UINT32* lanes, UINT32 n)
{
    for (UINT32 i = 0; i < n; ++i) {
        if (lane_reserved_for_ilkn(fw, lanes[i])) return SEGMENT_BASE_ERR_PINS_ILKN_ASSIGNED;
        if (fw.device.serdes_owner[lanes[i]] != NO_OWNER) return SEGMENT_BASE_ENET_SERDES_PIN_ALREADY_USED;
    }
    return VELT_SUCCESS;
}

VELT_ERROR bandwidth_left(const firmware& fw, UINT32 gbps)
{
    UINT32 used = 0;
    for (UINT32 c = 0; c < KAVO_NUM_CHANNELS; ++c)
        if (const enet_port* p = fw.model.datapath.enet(fw, c)) used += port_gbps(*p);
    return used + gbps > capacity_gbps(fw) ? CALENDAR_MGR_ENET_PORT_CDU_NOT_ENOUGH_DAYS : VELT_SUCCESS;
}

/* The FlexE PHY number of a port: none, unless the port carries a FlexE PHY (1..254). */
VELT_ERROR phy_id_ok(UINT32 prov_mode, UINT32 phy_id)
{
    if (prov_mode == KAVO_ENET_PROV_MODE_FLEXE_PHY) return phy_id >= 1 && phy_id <= 254 ? VELT_SUCCESS : SEGMENT_BASE_ERR_INVALID_ENET_PHY_ID;
    return phy_id == 0xFFFFFFFF ? VELT_SUCCESS : SEGMENT_BASE_ERR_INVALID_ENET_PHY_ID;
}

/* The lanes of a provisioning record: count and placement. A port of up to
   four lanes stays within one quad of lanes, an eight-lane port takes two
   adjacent quads; consecutive lanes from serdes_port_id start at a multiple
   of the lane count (of four for eight lanes). */
VELT_ERROR take_lanes(const kavo_traffic_enet_t& t, const mode_info& m, UINT32 parent, UINT32* lanes)
{
    if (!t.use_custom_serdes_lanes) {
        const UINT32 first = t.serdes_port_id;
        if (first >= NUM_SERDES_PORTS || first + m.lanes > NUM_SERDES_PORTS)
            return SEGMENT_BASE_ERR_ILLEGAL_SERDES_PORT_ID;
        if (first % std::min<UINT32>(m.lanes, 4) != 0) return SEGMENT_BASE_ERR_SERDES_PIN_NOT_ALIGN_QUAD;
        for (UINT32 i = 0; i < m.lanes; ++i)
            lanes[i] = first + i;
    } else {
        UINT32 n = 0;
        while (n < KAVO_ENET_MAX_SERDES_LANES && t.serdes_lanes[n] != 0xFFFFFFFF)
            ++n;
        for (UINT32 i = n; i < KAVO_ENET_MAX_SERDES_LANES; ++i)
            if (t.serdes_lanes[i] != 0xFFFFFFFF) return SEGMENT_BASE_ENET_SERDES_PIN_NOT_VALID;
        if (n != m.lanes) return SEGMENT_BASE_ERR_NUM_PINS;
        UINT32 quads = 0;
        for (UINT32 i = 0; i < n; ++i) {
            const UINT32 l = t.serdes_lanes[i];
            if (l >= NUM_SERDES_PORTS) return SEGMENT_BASE_ERR_ILLEGAL_SERDES_PORT_ID;
            for (UINT32 j = 0; j < i; ++j)
                if (t.serdes_lanes[j] == l) return SEGMENT_BASE_ENET_SERDES_PIN_NOT_VALID;
            quads |= 1u << (l / 4);
            lanes[i] = l;
        }
        const UINT32 lowest = __builtin_ctz(quads);
        if (n <= 4 && __builtin_popcount(quads) != 1) return SEGMENT_BASE_ERR_SERDES_PIN_NOT_SAME_QUAD;
        if (n > 4 && quads != 3u << lowest) return SEGMENT_BASE_ERR_SERDES_PIN_NON_ADJACENT_QUAD;
    }
    // The request names the first lane on its own too.
    return parent == lanes[0] ? VELT_SUCCESS : ENET_LOG_ERR_INVALID_PARAMETERS;
}

void claim(firmware& fw, UINT32 chnl, kavo_segment_type_t type, const UINT32* lanes, UINT32 n)
{
    fw.device.channels[chnl] = type;
    for (UINT32 i = 0; i < n; ++i)
        fw.device.serdes_owner[lanes[i]] = chnl;
}

void enet_prov(firmware& fw, const request& req, reply& rep)
{
    const UINT32 chnl = req.info.element_id;
    kavo_traffic_enet_t t;
    if (!channel_ok(fw, chnl, rep) || !payload_ok(fw, req, rep, t)) return;
    const mode_info* m = mode_of(t.mode);
    UINT32 lanes[KAVO_ENET_MAX_SERDES_LANES];
    std::fill(std::begin(lanes), std::end(lanes), 0xFFFFFFFF);
    if (t.enet_chnl_id != chnl)
        rep.result = ENET_LOG_ERR_INVALID_PARAMETERS;
    else if (fw.device.channels[chnl] != KAVO_SEGMENT_TYPE_UNUSED)
        rep.result = SEGMENT_BASE_ERR_EXISTING_CHNL_ID;
    else if (!m)
        rep.result = SEGMENT_BASE_ERR_INVALID_ENET_PORT_MODE;
    else if (t.prov_mode >= LAST_KAVO_ENET_PROV_MODE)
        rep.result = SEGMENT_BASE_ERR_INVALID_APPLICATION_MODE;
    else if (t.pin_mode != m->pin)
        rep.result = SEGMENT_BASE_ERR_INVALID_SERDES_PIN_MODE;
    else if (t.fec >= LAST_KAVO_ENET_FEC_MODE || !(m->fecs & fec_bit(t.fec)))
        rep.result = SEGMENT_BASE_ENET_FEC_MODE_INVALID;
    else if (t.mode == KAVO_ENET_PORT_MODE_1GE && t.prov_mode != KAVO_ENET_PROV_MODE_ANALOG_RETIMER)
        rep.result = ANLT_ERR_1G_ONLY_IN_ANALOG_RETIMER_MODE;
    else if (t.tx_timing_mode >= LAST_KAVO_ENET_TX_TIMING_MODE)
        rep.result = SEGMENT_BASE_ENET_INVALID_TIMING_MODE;
    else if (t.alarm_mode >= LAST_KAVO_ENET_ALARM_MODE || !is_bool(t.use_custom_serdes_lanes))
        rep.result = ENET_LOG_ERR_INVALID_PARAMETERS;
    else if ((rep.result = phy_id_ok(t.prov_mode, t.enet_phy_id)) != VELT_SUCCESS ||
             (rep.result = take_lanes(t, *m, req.info.parent_id, lanes)) != VELT_SUCCESS ||
             (rep.result = lanes_free(fw, lanes, m->lanes)) != VELT_SUCCESS ||
             (rep.result = bandwidth_left(fw, m->gbps)) != VELT_SUCCESS) {
    }
    if (rep.result != VELT_SUCCESS) {
        fw.console("enet %u: provisioning refused (0x%x)\n", chnl, rep.result);
        return;
    }
    datapath_model& d = dp(fw);
    d.forget(chnl);
    enet_port& p = d.port[chnl];
    p.init_settings();
    p.used = true;
    p.cfg.mode = t.mode;
    p.cfg.prov_mode = t.prov_mode;
    p.cfg.pin_mode = t.pin_mode;
    p.cfg.fec_mode = t.fec;
    p.cfg.num_serdes_lanes = m->lanes;
    std::copy(std::begin(lanes), std::end(lanes), p.cfg.serdes_lanes);
    p.cfg.tx_timing_mode = t.tx_timing_mode;
    p.cfg.alarm_mode = p.alarm.alarm_mode = t.alarm_mode;
    p.cfg.phy_id = t.enet_phy_id;
    claim(fw, chnl, KAVO_SEGMENT_TYPE_ENET_PORT, lanes, m->lanes);
    fw.console("enet %u provisioned: %s on lanes %u..%u, fec %s\n", chnl, m->name, lanes[0], lanes[m->lanes - 1],
               fec_name(t.fec));
    fw.log(log_id::cmd, PB_LOG_CHNL_PROV, chnl, t.mode, __LINE__);
    d.step_port(fw, chnl, fw.now_us());
}

/* The first thing wrong with an AN/LT configuration, or VELT_SUCCESS. */
VELT_ERROR check_anlt(const firmware& fw, const kavo_enet_anlt_chnl_cfg_t& c, UINT32 prov_mode)
{
    const UINT32 mask = c.advertize_mask;
    if (fw.device.config.mux_mode) return ANLT_ERR_MUX_MODE_NOT_SUPPORTED;
    if (mask & ~ALL_TECHS) return ANLT_ERR_ADVERTIZE_MASK_UNRECOGNIZED_FORMAT;
    if (mask == 0) return ANLT_ERR_NOT_VALID_ADVERTIZE_MASK;
    const UINT32 cr = mask & CR_TECHS;
    if (cr != 0 && cr != mask) return ANLT_ERR_KR_CR_IN_ADVERTIZE_MASK;
    if ((mask & TECHS_400G_4) && (mask & TECHS_400G_8)) return ANLT_ERR_TWO_400G_ADVERTIZE;
    const bool kx = mask & (1u << KAVO_ENET_ANLT_ADVERTIZE_1000BASE_KX);
    if (kx && prov_mode != KAVO_ENET_PROV_MODE_ANALOG_RETIMER) return ANLT_ERR_1G_ONLY_IN_ANALOG_RETIMER_MODE;
    if (!is_bool(c.lt_only) || !is_bool(c.fec_ability) || !is_bool(c.fec_request_rs) || !is_bool(c.fec_request_base_r))
        return ANLT_ERR_ADVERTIZE_MASK_UNRECOGNIZED_FORMAT;
    if (c.lt_only && kx) return ANLT_ERR_UNSUPPORTED_PORT_MODE_IN_LT_ONLY_MODE;
    if (c.lt_only && __builtin_popcount(mask) != 1) return ANLT_ERR_NOT_VALID_ADVERTIZE_MASK;
    if (c.num_serdes_lanes == 0 || c.num_serdes_lanes > KAVO_ENET_MAX_SERDES_LANES)
        return ANLT_ERR_NOT_VALID_REQUIRED_NUM_PIN_FOR_MASK;
    if (c.num_serdes_lanes < max_lanes(mask)) return ANLT_ERR_NOT_ENOUGH_SERDES_PIN_FOR_ADVERTIZE_MASK;
    if (c.num_serdes_lanes > max_lanes(mask)) return ANLT_ERR_NOT_VALID_REQUIRED_NUM_PIN_FOR_MASK;
    if (c.serdes_lanes[0] == 0xFFFFFFFF) return ANLT_ERR_LANE0_NOT_IN_SERDES_SET;
    for (UINT32 i = 0; i < KAVO_ENET_MAX_SERDES_LANES; ++i) {
        const UINT32 l = c.serdes_lanes[i];
        if (i >= c.num_serdes_lanes) {
            if (l != 0xFFFFFFFF) return ANLT_ERR_LANE_SWAPPING_PINS_NOT_MATCH_ADVERTIZE_MASK;
            continue;
        }
        if (l >= NUM_SERDES_PORTS) return ANLT_ERR_NOT_VALID_REQUIRED_SERDES_PIN;
        for (UINT32 j = 0; j < i; ++j)
            if (c.serdes_lanes[j] == l) return ANLT_ERR_LANE_SWAPPING_BAD_SERDES_CONFIG;
    }
    return VELT_SUCCESS;
}

void enet_anlt_prov(firmware& fw, const request& req, reply& rep)
{
    const UINT32 chnl = req.info.element_id;
    const UINT32 prov_mode = req.info.mode;
    kavo_enet_anlt_chnl_cfg_t c;
    if (!channel_ok(fw, chnl, rep) || !payload_ok(fw, req, rep, c)) return;
    if (fw.device.channels[chnl] != KAVO_SEGMENT_TYPE_UNUSED)
        rep.result = SEGMENT_BASE_ERR_EXISTING_CHNL_ID;
    else if (prov_mode >= LAST_KAVO_ENET_PROV_MODE)
        rep.result = SEGMENT_BASE_ERR_INVALID_APPLICATION_MODE;
    else if ((rep.result = phy_id_ok(prov_mode, req.info.parent_id)) != VELT_SUCCESS ||
             (rep.result = check_anlt(fw, c, prov_mode)) != VELT_SUCCESS ||
             (rep.result = lanes_free(fw, c.serdes_lanes, c.num_serdes_lanes)) != VELT_SUCCESS ||
             (rep.result = bandwidth_left(fw, max_gbps(c.advertize_mask))) != VELT_SUCCESS) {
    }
    if (rep.result != VELT_SUCCESS) {
        fw.console("enet %u: AN/LT provisioning refused (0x%x)\n", chnl, rep.result);
        return;
    }
    datapath_model& d = dp(fw);
    d.forget(chnl);
    enet_port& p = d.port[chnl];
    p.init_settings();
    p.used = p.anlt = true;
    p.anlt_cfg = c;
    p.cfg.prov_mode = kavo_enet_prov_mode_t(prov_mode);
    p.cfg.pin_mode = LAST_KAVO_SERDES_PIN_MODE;
    p.cfg.num_serdes_lanes = c.num_serdes_lanes;
    std::copy(std::begin(c.serdes_lanes), std::end(c.serdes_lanes), p.cfg.serdes_lanes);
    p.cfg.phy_id = req.info.parent_id;
    claim(fw, chnl, KAVO_SEGMENT_TYPE_ENET_ANLT, c.serdes_lanes, c.num_serdes_lanes);
    start_anlt_run(p, fw.now_us());
    fw.console("enet %u provisioned for AN/LT: advertising 0x%x on %u lanes from %u\n", chnl, c.advertize_mask,
               c.num_serdes_lanes, c.serdes_lanes[0]);
    fw.log(log_id::cmd, PB_LOG_CHNL_PROV, chnl, c.advertize_mask, __LINE__);
    d.step_port(fw, chnl, fw.now_us());
}

void an_restart(firmware& fw, const request& req, reply& rep)
{
    const UINT32 chnl = req.info.element_id;
    enet_port* p = runtime_port(fw, chnl, rep);
    if (!p) return;
    if (!p->anlt) {
        rep.result = ANLT_ERR_CHNL_NOT_UNDER_MGMT;
        return;
    }
    if (p->up) link_changed(fw, chnl, false);
    ++p->anlt_status.restart_count;
    start_anlt_run(*p, fw.now_us());
    fw.console("enet %u: auto-negotiation restarted\n", chnl);
    fw.log(log_id::cmd, ANLT_LOG_TRACE, chnl, p->anlt_status.restart_count, __LINE__);
    dp(fw).step_port(fw, chnl, fw.now_us());
}

void enet_status_get(firmware& fw, const request& req, reply& rep)
{
    const UINT32 chnl = req.info.element_id;
    const enet_port* p = runtime_port(fw, chnl, rep);
    if (!p) return;
    const datapath_model& d = dp(fw);
    kavo_enet_status_t s;
    const UINT32 defects = d.defects(fw, chnl);
    s.link_up = d.link_up(fw, chnl);
    s.signal_mask = signal_mask(fw, *p);
    s.los = (defects & KAVO_ENET_ALARM_MASK_LOS) != 0;
    s.hi_ber = (defects & KAVO_ENET_ALARM_MASK_HI_BER) != 0;
    if (pcs_terminated(*p)) {
        s.pcs_block_lock = s.link_up;
        s.pcs_align_lock = s.link_up;
        s.fec_align_lock = s.link_up && rs_fec(p->cfg.fec_mode);
        s.local_fault = (defects & KAVO_ENET_ALARM_MASK_LF) != 0;
        s.remote_fault = (defects & KAVO_ENET_ALARM_MASK_RF) != 0;
    }
    s.training = !s.link_up && !s.los && (p->anlt ? p->anlt_status.state != KAVO_ENET_ANLT_STATE_LINK_UP : true);
    rep.record(s);
}

void enet_anlt_status_get(firmware& fw, const request& req, reply& rep)
{
    const enet_port* p = runtime_port(fw, req.info.element_id, rep);
    if (!p) return;
    if (!p->anlt) {
        rep.result = ANLT_ERR_CHNL_NOT_UNDER_MGMT;
        return;
    }
    rep.record(p->anlt_status);
}

// --- datapath ---

void deprov(firmware& fw, const request& req, reply& rep)
{
    const UINT32 chnl = req.info.element_id;
    if (!provisioned(fw, chnl, rep)) return;
    datapath_model& d = dp(fw);
    if (req.info.mode >= LAST_KAVO_DEPROV)
        rep.result = SEGMENT_BASE_ERR_INVALID_ARG;
    else if (d.connected(chnl) && req.info.mode == KAVO_DEPROV_SAFE)
        rep.result = SEGMENT_BASE_ERR_CLEANABLE_APPLICATION_BLOCKING;
    if (rep.result != VELT_SUCCESS) {
        fw.console("channel %u: deprovisioning refused (0x%x)\n", chnl, rep.result);
        return;
    }
    if (d.connected(chnl)) fw.console("channel %u: disconnected for deprovisioning\n", chnl);
    if (d.link_up(fw, chnl)) link_changed(fw, chnl, false);
    d.forget(chnl);
    fw.device.channels[chnl] = KAVO_SEGMENT_TYPE_UNUSED;
    for (UINT32& owner : fw.device.serdes_owner)
        if (owner == chnl) owner = NO_OWNER;
    fw.console("channel %u deprovisioned\n", chnl);
    fw.log(log_id::cmd, PB_LOG_CHNL_DEPROV, chnl, req.info.mode, __LINE__);
}

/* Whether what src receives can be sent by dst. */
VELT_ERROR check_connection(const firmware& fw, UINT32 src, UINT32 dst)
{
    const datapath_model& d = fw.model.datapath;
    const UINT32 ts = fw.device.channels[src], td = fw.device.channels[dst];
    if (ts == KAVO_SEGMENT_TYPE_UNUSED) return SEGMENT_BASE_ERR_CONNECTION_SOURCE_NOT_PROVISIONED;
    if (td == KAVO_SEGMENT_TYPE_UNUSED) return SEGMENT_BASE_ERR_CONNECTION_DESTINATION_NOT_PROVISIONED;
    if (src == dst) return SEGMENT_BASE_ERR_SWITCH_LOOPBACK_NOT_SUPPORTED;
    if (ts == KAVO_SEGMENT_TYPE_FLEXE_GROUP || td == KAVO_SEGMENT_TYPE_FLEXE_GROUP)
        return SEGMENT_BASE_ERR_CONNECTION_UNSUPPORTED;
    const enet_port* ps = d.enet(fw, src);
    const enet_port* pd = d.enet(fw, dst);
    for (const enet_port* p : {ps, pd}) {
        if (!p) continue;
        if (p->anlt && p->anlt_status.state != KAVO_ENET_ANLT_STATE_LINK_UP)
            return ANLT_ERR_CONNECT_NOT_SUPPORTED_WHEN_PROCESS_ACTIVE;
        if (p->cfg.prov_mode == KAVO_ENET_PROV_MODE_FLEXE_PHY) return SEGMENT_BASE_ERR_CONNECTION_UNSUPPORTED;
    }
    // Retimers pass lanes or blocks on unchanged: only to a retimer of the same kind and rate.
    const auto pm = [](const enet_port* p) { return p ? UINT32(p->cfg.prov_mode) : UINT32(KAVO_ENET_PROV_MODE_MAC); };
    const UINT32 ms = pm(ps), md = pm(pd);
    const bool retimer_s = ms == KAVO_ENET_PROV_MODE_ANALOG_RETIMER || ms == KAVO_ENET_PROV_MODE_PCS_RETIMER;
    const bool retimer_d = md == KAVO_ENET_PROV_MODE_ANALOG_RETIMER || md == KAVO_ENET_PROV_MODE_PCS_RETIMER;
    if (retimer_s || retimer_d) {
        if (ms != md) return SEGMENT_BASE_ERR_RETIMER_INCOMPATIBLE_CONNECTION_TYPE;
        if (port_gbps(*ps) != port_gbps(*pd)) return SEGMENT_BASE_ERR_RETIMER_INCOMPATIBLE_RATE;
        if (ps->cfg.pin_mode != pd->cfg.pin_mode) return SEGMENT_BASE_ERR_RETIMER_INCOMPATIBLE_PIN_MODE;
        return VELT_SUCCESS;
    }
    // A PCS port switches 66-bit blocks: to another PCS port of its rate only.
    if (ms == KAVO_ENET_PROV_MODE_PCS || md == KAVO_ENET_PROV_MODE_PCS) {
        if (ms != md) return SEGMENT_BASE_ERR_CONNECTION_UNSUPPORTED;
        if (port_gbps(*ps) != port_gbps(*pd)) return SEGMENT_BASE_ERR_INCOMPATIBLE_SRC_TO_DEST_RATE;
    }
    // MAC ports and packet channels meet in the packet buffer at any rates.
    return VELT_SUCCESS;
}

void set_source(firmware& fw, UINT32 src, UINT32 dst)
{
    dp(fw).source[dst] = src;
    fw.console("connect %u -> %u\n", src, dst);
    fw.log(log_id::cmd, PB_LOG_CODE_LOG, src, dst, __LINE__);
}

void connect(firmware& fw, const request& req, reply& rep)
{
    const UINT32 dst = req.info.element_id, src = req.info.parent_id;
    if (!channel_ok(fw, dst, rep) || !channel_ok(fw, src, rep)) return;
    datapath_model& d = dp(fw);
    // A destination has one source; connecting it again to the same one changes nothing.
    if (d.source[dst] != NO_CHANNEL && d.source[dst] != src && fw.device.channels[src] != KAVO_SEGMENT_TYPE_UNUSED)
        rep.result = SEGMENT_BASE_ERR_PHYSICAL_RESOURCE_UNAVAILABLE;
    else
        rep.result = check_connection(fw, src, dst);
    if (rep.result != VELT_SUCCESS) {
        fw.console("connect %u -> %u refused (0x%x)\n", src, dst, rep.result);
        return;
    }
    if (d.source[dst] != src) set_source(fw, src, dst);
}

void disconnect(firmware& fw, const request& req, reply& rep)
{
    const UINT32 dst = req.info.element_id;
    if (!provisioned(fw, dst, rep)) return;
    datapath_model& d = dp(fw);
    if (d.source[dst] == NO_CHANNEL) {
        rep.result = RUNTIME_OPERATION_NOT_SUPPORTED_WHEN_SEGMENT_UNCONNECTED;
        return;
    }
    fw.console("disconnect %u -> %u\n", d.source[dst], dst);
    fw.log(log_id::cmd, PB_LOG_CODE_LOG, d.source[dst], dst, __LINE__);
    d.source[dst] = NO_CHANNEL;
}

/* The one channel that line feeds: NO_CHANNEL when none, line itself when several. */
UINT32 partner_of(const datapath_model& d, UINT32 line)
{
    UINT32 found = NO_CHANNEL;
    for (UINT32 c = 0; c < KAVO_NUM_CHANNELS; ++c) {
        if (d.source[c] != line) continue;
        if (found != NO_CHANNEL) return line;
        found = c;
    }
    return found;
}

void bidirectional_connect(firmware& fw, const request& req, reply& rep)
{
    const UINT32 line = req.info.element_id;
    if (!provisioned(fw, line, rep)) return;
    datapath_model& d = dp(fw);
    const UINT32 other = partner_of(d, line);
    if (other == NO_CHANNEL)
        rep.result = SEGMENT_BASE_ERR_PARENT_DIRECTION_NOT_PROVISIONED;
    else if (other == line)
        rep.result = SEGMENT_BASE_ERR_CONNECTION_UNSUPPORTED;
    else if (d.source[line] != NO_CHANNEL && d.source[line] != other)
        rep.result = SEGMENT_BASE_ERR_PHYSICAL_RESOURCE_UNAVAILABLE;
    else
        rep.result = check_connection(fw, other, line);
    if (rep.result != VELT_SUCCESS) {
        fw.console("bidirectional connect of %u refused (0x%x)\n", line, rep.result);
        return;
    }
    if (d.source[line] != other) set_source(fw, other, line);
}

void bidirectional_disconnect(firmware& fw, const request& req, reply& rep)
{
    const UINT32 line = req.info.element_id;
    if (!provisioned(fw, line, rep)) return;
    datapath_model& d = dp(fw);
    const UINT32 other = partner_of(d, line);
    if (other == NO_CHANNEL) {
        rep.result = RUNTIME_OPERATION_NOT_SUPPORTED_WHEN_SEGMENT_UNCONNECTED;
        return;
    }
    if (other == line) {
        rep.result = SEGMENT_BASE_ERR_CONNECTION_UNSUPPORTED;
        return;
    }
    d.source[other] = NO_CHANNEL;
    if (d.source[line] == other) d.source[line] = NO_CHANNEL;
    fw.console("disconnect %u <-> %u\n", line, other);
    fw.log(log_id::cmd, PB_LOG_CODE_LOG, line, other, __LINE__);
}

void connect_get(firmware& fw, const request& req, reply& rep)
{
    const UINT32 chnl = req.info.element_id;
    if (!provisioned(fw, chnl, rep)) return;
    rep.mode = dp(fw).feeds_any(chnl);
    rep.value = dp(fw).source[chnl] != NO_CHANNEL;
}

void loopback_set(firmware& fw, const request& req, reply& rep)
{
    const UINT32 chnl = req.info.element_id, mode = req.info.mode;
    if (!provisioned(fw, chnl, rep)) return;
    datapath_model& d = dp(fw);
    const enet_port* p = d.enet(fw, chnl);
    if (mode >= LAST_KAVO_LOOPBACK)
        rep.result = PB_LPBK_INVALID_ARG;
    else if (fw.device.channels[chnl] == KAVO_SEGMENT_TYPE_ILKN_PKT)
        rep.result = SEGMENT_BASE_ILKN_INVALID_LOOPBACK;
    else if (mode != KAVO_LOOPBACK_NONE && d.loopback[chnl] == KAVO_LOOPBACK_HOST)
        rep.result = PB_HOST_LPBK_ALREADY_PROV;
    else if (mode != KAVO_LOOPBACK_NONE && d.loopback[chnl] == KAVO_LOOPBACK_LINE)
        rep.result = PB_LINE_LPBK_ALREADY_PROV;
    else if (mode == KAVO_LOOPBACK_HOST && p && !pcs_terminated(*p))
        rep.result = SEGMENT_BASE_ERR_SWITCH_LOOPBACK_NOT_SUPPORTED;
    if (rep.result != VELT_SUCCESS) {
        fw.console("channel %u: loopback %u refused (0x%x)\n", chnl, mode, rep.result);
        return;
    }
    static const char* const names[] = {"none", "host", "line"};
    d.loopback[chnl] = kavo_loopback_t(mode);
    fw.console("channel %u: loopback %s\n", chnl, names[mode]);
    fw.log(log_id::cmd, PB_LOG_CODE_LOG, chnl, mode, __LINE__);
    if (p) d.step_port(fw, chnl, fw.now_us());
}

void loopback_get(firmware& fw, const request& req, reply& rep)
{
    const UINT32 chnl = req.info.element_id;
    if (!provisioned(fw, chnl, rep)) return;
    rep.mode = dp(fw).loopback[chnl];
}

/* Flow control runs on MAC ports and Interlaken packet channels. */
bool flow_control_channel(firmware& fw, UINT32 chnl, reply& rep)
{
    if (!provisioned(fw, chnl, rep)) return false;
    const enet_port* p = dp(fw).enet(fw, chnl);
    const bool ok = p ? p->cfg.prov_mode == KAVO_ENET_PROV_MODE_MAC
                      : fw.device.channels[chnl] == KAVO_SEGMENT_TYPE_ILKN_PKT;
    if (!ok) rep.result = RUNTIME_OPERATION_NOT_SUPPORTED_BY_SEGMENT_CLASS;
    return ok;
}

bool mac_to_mac(firmware& fw, UINT32 chnl)
{
    const datapath_model& d = dp(fw);
    for (UINT32 c = 0; c < KAVO_NUM_CHANNELS; ++c)
        if ((d.source[c] == chnl || d.source[chnl] == c) && d.enet(fw, c)) return true;
    return false;
}

void flow_control_set(firmware& fw, const request& req, reply& rep)
{
    const UINT32 chnl = req.info.element_id;
    kavo_flow_control_cfg_t c;
    if (!flow_control_channel(fw, chnl, rep) || !payload_ok(fw, req, rep, c)) return;
    const bool on = c.mode != KAVO_FLOW_CONTROL_MODE_DISABLED;
    const bool sends = c.mode == KAVO_FLOW_CONTROL_MODE_TX || c.mode == KAVO_FLOW_CONTROL_MODE_RX_TX;
    if (c.mode >= LAST_KAVO_FLOW_CONTROL_MODE || c.frame_type >= LAST_KAVO_FLOW_CONTROL_FRAME ||
        c.buffer_mgmt >= LAST_KAVO_FLOW_CONTROL_BUFFER_MGMT)
        rep.result = SEGMENT_BASE_ERR_INVALID_FRAME_TYPE_AND_MODE_FC;
    else if (c.pfc_mask > KAVO_FLOW_CONTROL_PFC_MASK_ALL ||
             (on && c.frame_type == KAVO_FLOW_CONTROL_FRAME_PFC && c.pfc_mask == 0))
        rep.result = SEGMENT_BASE_ERR_ILKN_FC_PFC_MASK_NOT_PROVIDED;
    else if (on && c.frame_type == KAVO_FLOW_CONTROL_FRAME_PFC && dp(fw).enet(fw, chnl) && mac_to_mac(fw, chnl))
        rep.result = SEGMENT_BASE_ERR_FC_MAC_TO_MAC_ONLY_PAUSE_SUPPORTED;
    else if (sends && (c.pause_quanta == 0 || c.pause_quanta > 0xFFFF || c.refresh_quanta >= c.pause_quanta))
        rep.result = KAVO_FW_ERR_INVALID_PARAMETERS;
    else if (sends && c.buffer_mgmt == KAVO_FLOW_CONTROL_BUFFER_MGMT_STATIC && c.xon_threshold >= c.xoff_threshold)
        rep.result = KAVO_FW_ERR_INVALID_PARAMETERS;
    if (rep.result != VELT_SUCCESS) {
        fw.console("channel %u: flow control refused (0x%x)\n", chnl, rep.result);
        return;
    }
    dp(fw).flow_control[chnl] = c;
    fw.console("channel %u: flow control mode %u, %s\n", chnl, c.mode,
               c.frame_type == KAVO_FLOW_CONTROL_FRAME_PFC ? "PFC" : "pause");
}

void flow_control_get(firmware& fw, const request& req, reply& rep)
{
    const UINT32 chnl = req.info.element_id;
    if (!flow_control_channel(fw, chnl, rep)) return;
    rep.record(dp(fw).flow_control[chnl]);
}

// --- Ethernet provisioning settings ---

void tx_timing_mode_set(firmware& fw, const request& req, reply& rep)
{
    enet_port* p = runtime_port(fw, req.info.element_id, rep);
    if (!p) return;
    if (req.info.mode >= LAST_KAVO_ENET_TX_TIMING_MODE)
        rep.result = SEGMENT_BASE_ENET_INVALID_TIMING_MODE;
    else if (dp(fw).connected(req.info.element_id))
        rep.result = SEGMENT_BASE_ENET_CANNOT_UP_TIMING_MODE_WHEN_CONNECTED;
    else
        p->cfg.tx_timing_mode = kavo_enet_tx_timing_mode_t(req.info.mode);
}

void alarm_mode_set(firmware& fw, const request& req, reply& rep)
{
    enet_port* p = runtime_port(fw, req.info.element_id, rep);
    if (!p) return;
    const UINT32 mode = req.info.mode;
    if (mode >= LAST_KAVO_ENET_ALARM_MODE)
        rep.result = ENET_LOG_ERR_INVALID_PARAMETERS;
    else if (dp(fw).connected(req.info.element_id))
        rep.result = ENET_ALARM_MODE_CANNOT_SET_ALARM_MODE_WHEN_DATAPATH_CONNECTED;
    else if (mode == KAVO_ENET_ALARM_MODE_TERMINATED && !pcs_terminated(*p))
        rep.result = ENET_ALARM_MODE_CANNOT_SET_TERMINATED_MODE;
    else if (mode == KAVO_ENET_ALARM_MODE_RELAY && p->cfg.prov_mode != KAVO_ENET_PROV_MODE_PCS &&
             p->cfg.prov_mode != KAVO_ENET_PROV_MODE_PCS_RETIMER)
        rep.result = ENET_ALARM_MODE_CANNOT_SET_RELAY_MODE;
    else
        p->cfg.alarm_mode = p->alarm.alarm_mode = kavo_enet_alarm_mode_t(mode);
}

void am_relay_mode_set(firmware& fw, const request& req, reply& rep)
{
    enet_port* p = runtime_port(fw, req.info.element_id, rep);
    if (!p) return;
    if (!is_bool(req.info.mode))
        rep.result = RUNTIME_OPERATION_ERR_INVALID_ARGUMENTS;
    else if (p->cfg.prov_mode != KAVO_ENET_PROV_MODE_PCS && p->cfg.prov_mode != KAVO_ENET_PROV_MODE_PCS_RETIMER)
        rep.result = RUNTIME_OPERATION_NOT_SUPPORTED_BY_SEGMENT_CLASS;
    else
        p->cfg.am_relay_mode = req.info.mode;
}

// --- Ethernet run-time settings ---

void cfg_get(firmware& fw, const request& req, reply& rep)
{
    if (const enet_port* p = runtime_port(fw, req.info.element_id, rep)) rep.record(p->cfg);
}

constexpr UINT32 MIN_FRAME = 64, MAX_FRAME = 16000;

void mru_set(firmware& fw, const request& req, reply& rep)
{
    enet_port* p = mac_port(fw, req.info.element_id, rep);
    if (!p) return;
    if (req.info.mode < MIN_FRAME)
        rep.result = RUNTIME_OPERATION_ERR_INVALID_ARGUMENTS;
    else if (req.info.mode > MAX_FRAME)
        rep.result = RUNTIME_OPERATION_MRU_MAX_FRAME_LENGTH_EXCEEDED;
    else
        p->cfg.mru = req.info.mode;
}

void mtu_set(firmware& fw, const request& req, reply& rep)
{
    enet_port* p = mac_port(fw, req.info.element_id, rep);
    if (!p) return;
    if (req.info.mode < MIN_FRAME)
        rep.result = RUNTIME_OPERATION_ERR_INVALID_ARGUMENTS;
    else if (req.info.mode > MAX_FRAME)
        rep.result = RUNTIME_OPERATION_MTU_MAX_FRAME_LENGTH_EXCEEDED;
    else
        p->cfg.mtu = req.info.mode;
}

void ipg_set(firmware& fw, const request& req, reply& rep)
{
    enet_port* p = mac_port(fw, req.info.element_id, rep);
    if (!p) return;
    const UINT32 ipg = req.info.mode;
    if (ipg < 8 || ipg > 32 || ipg % 4 != 0)
        rep.result = RUNTIME_OPERATION_IPG_VALUE_NOT_VALID;
    else
        p->cfg.ipg = ipg;
}

void inband_fcs_set(firmware& fw, const request& req, reply& rep)
{
    enet_port* p = mac_port(fw, req.info.element_id, rep);
    if (!p) return;
    if (!is_bool(req.info.mode))
        rep.result = RUNTIME_OPERATION_ERR_INVALID_ARGUMENTS;
    else
        p->cfg.inband_fcs = req.info.mode;
}

void vlan_cfg_set(firmware& fw, const request& req, reply& rep)
{
    enet_port* p = mac_port(fw, req.info.element_id, rep);
    kavo_enet_vlan_cfg_t v;
    if (!p || !payload_ok(fw, req, rep, v)) return;
    const auto tpid_ok = [](UINT32 t) { return t >= 0x600 && t <= 0xFFFF; };
    if (v.vlan_tag_num > 2 || !tpid_ok(v.outer_tpid) || !tpid_ok(v.inner_tpid) || !is_bool(v.tag_extends_mru))
        rep.result = RUNTIME_OPERATION_ERR_INVALID_ARGUMENTS;
    else
        p->cfg.vlan = v;
}

void err_relay_mask_set(firmware& fw, const request& req, reply& rep)
{
    enet_port* p = mac_port(fw, req.info.element_id, rep);
    if (!p) return;
    if (req.info.mode & ~UINT32(KAVO_MAC_RX_ERROR_ALL))
        rep.result = RUNTIME_OPERATION_ERR_INVALID_ARGUMENTS;
    else
        p->cfg.err_relay_mask = req.info.mode;
}

void fec_mode_set(firmware& fw, const request& req, reply& rep)
{
    const UINT32 chnl = req.info.element_id, fec = req.info.mode;
    enet_port* p = pcs_port(fw, chnl, rep);
    if (!p) return;
    const mode_info* m = mode_of(p->cfg.mode);
    if (p->anlt && p->anlt_status.state != KAVO_ENET_ANLT_STATE_LINK_UP)
        rep.result = ANLT_ERR_NOT_SUPPORTED_WHILE_EXEC;
    else if (fec >= LAST_KAVO_ENET_FEC_MODE || !m || !(m->fecs & fec_bit(kavo_enet_fec_mode_t(fec))))
        rep.result = SEGMENT_BASE_ENET_FEC_MODE_INVALID;
    if (rep.result != VELT_SUCCESS || fec == UINT32(p->cfg.fec_mode)) return;
    p->cfg.fec_mode = kavo_enet_fec_mode_t(fec);
    if (p->anlt) p->anlt_status.fec_mode = p->cfg.fec_mode;
    fw.console("enet %u: fec %s\n", chnl, fec_name(fec));
    // The receiver re-locks to the new code.
    if (!p->anlt) {
        if (p->up) link_changed(fw, chnl, false);
        p->up = false;
        p->signal_since_us = NEVER_US;
        dp(fw).step_port(fw, chnl, fw.now_us());
    }
}

void scrambled_idle(firmware& fw, const request& req, reply& rep, int which)
{
    enet_port* p = pcs_port(fw, req.info.element_id, rep);
    if (!p) return;
    const UINT32 level = req.info.mode, enable = req.info.flag;
    kavo_enet_scramble_idle_level_t* levels[] = {&p->cfg.idle_gen_level, &p->cfg.idle_mon_level,
                                                 &p->cfg.idle_err_inj_level};
    BOOL32* enables[] = {&p->cfg.idle_gen_enable, &p->cfg.idle_mon_enable, &p->cfg.idle_err_inj_enable};
    if (level >= LAST_KAVO_ENET_SCRAMBLE_IDLE_LEVEL || !is_bool(enable))
        rep.result = RUNTIME_OPERATION_ERR_INVALID_ARGUMENTS;
    else if (level == KAVO_ENET_SCRAMBLE_IDLE_LEVEL_FEC && !rs_fec(p->cfg.fec_mode))
        rep.result = SEGMENT_BASE_ENET_FEC_MODE_INVALID;
    else if (which == 2 && enable && !(p->cfg.idle_gen_enable && UINT32(p->cfg.idle_gen_level) == level))
        rep.result = RUNTIME_OPERATION_NOT_SUPPORTED; // errors go into a pattern being generated
    if (rep.result != VELT_SUCCESS) return;
    *levels[which] = kavo_enet_scramble_idle_level_t(level);
    *enables[which] = enable;
    if (which == 0 && !enable) p->cfg.idle_err_inj_enable = 0;
}

void idle_gen(firmware& fw, const request& req, reply& rep) { scrambled_idle(fw, req, rep, 0); }
void idle_mon(firmware& fw, const request& req, reply& rep) { scrambled_idle(fw, req, rep, 1); }
void idle_err_inj(firmware& fw, const request& req, reply& rep) { scrambled_idle(fw, req, rep, 2); }

/* The consequent-action commands share their record; each uses its own members. */
enet_port* alarm_port(firmware& fw, const request& req, reply& rep, kavo_enet_alarm_cfg_t& a)
{
    enet_port* p = pcs_port(fw, req.info.element_id, rep);
    if (!p || !payload_ok(fw, req, rep, a)) return nullptr;
    return p;
}

void ca_enable(firmware& fw, const request& req, reply& rep)
{
    kavo_enet_alarm_cfg_t a;
    enet_port* p = alarm_port(fw, req, rep, a);
    if (!p) return;
    if (a.ca >= LAST_KAVO_ENET_CA_ENABLE || !is_bool(req.info.flag))
        rep.result = RUNTIME_OPERATION_ERR_INVALID_ARGUMENTS;
    else
        p->alarm.ca_enable.enable[a.ca] = req.info.flag;
}

void ca_mask_enable(firmware& fw, const request& req, reply& rep)
{
    kavo_enet_alarm_cfg_t a;
    enet_port* p = alarm_port(fw, req, rep, a);
    if (!p) return;
    if (a.defect_mask & ~UINT32(KAVO_ENET_ALARM_MASK_ALL) || a.action >= LAST_KAVO_ENET_ALARM_ACTION)
        rep.result = RUNTIME_OPERATION_ERR_INVALID_ARGUMENTS;
    else {
        p->alarm.mask.defect_mask = a.defect_mask;
        p->alarm.mask.action = a.action;
    }
}

void ca_force(firmware& fw, const request& req, reply& rep)
{
    kavo_enet_alarm_cfg_t a;
    enet_port* p = alarm_port(fw, req, rep, a);
    if (!p) return;
    if (a.force >= LAST_KAVO_ENET_ALARM_FORCE || a.action >= LAST_KAVO_ENET_ALARM_ACTION ||
        (a.force != KAVO_ENET_ALARM_FORCE_OFF && a.action == KAVO_ENET_ALARM_ACTION_NONE))
        rep.result = RUNTIME_OPERATION_ERR_INVALID_ARGUMENTS;
    if (rep.result != VELT_SUCCESS) return;
    p->alarm.force.force = a.force;
    p->alarm.force.action = a.force == KAVO_ENET_ALARM_FORCE_OFF ? KAVO_ENET_ALARM_ACTION_NONE : a.action;
    fw.console("enet %u: forced action %u in direction %u\n", req.info.element_id, p->alarm.force.action, a.force);
}

void nominal_mask_enable(firmware& fw, const request& req, reply& rep)
{
    kavo_enet_alarm_cfg_t a;
    enet_port* p = alarm_port(fw, req, rep, a);
    if (!p) return;
    if (a.defect_mask & ~UINT32(KAVO_ENET_ALARM_MASK_ALL))
        rep.result = RUNTIME_OPERATION_ERR_INVALID_ARGUMENTS;
    else if (p->cfg.tx_timing_mode != KAVO_ENET_TX_TIMING_MODE_THROUGH)
        rep.result = RUNTIME_OPERATION_NOMINAL_MASK_CANNOT_SET_WHEN_NOT_THROUGH_TIMING_MODE;
    else
        p->alarm.mask.nominal_mask = a.defect_mask;
}

void dp_nominal_force(firmware& fw, const request& req, reply& rep)
{
    enet_port* p = runtime_port(fw, req.info.element_id, rep);
    if (!p) return;
    if (!is_bool(req.info.flag))
        rep.result = RUNTIME_OPERATION_ERR_INVALID_ARGUMENTS;
    else
        p->cfg.dp_nominal_force = p->alarm.dp_nominal_force = req.info.flag;
}

/* The FlexE PHY phy_id of the group on channel group: a FlexE PHY port carrying that PHY number. */
enet_port* flexe_phy_port(firmware& fw, const request& req, reply& rep)
{
    const UINT32 group = req.info.element_id, phy = req.info.parent_id;
    if (!channel_ok(fw, group, rep)) return nullptr;
    const UINT32 type = fw.device.channels[group];
    if (type == KAVO_SEGMENT_TYPE_UNUSED) {
        rep.result = RUNTIME_OPERATION_COULD_NOT_FIND_A_SEGMENT;
        return nullptr;
    }
    const enet_port* self = dp(fw).enet(fw, group);
    if (type != KAVO_SEGMENT_TYPE_FLEXE_GROUP && !(self && self->cfg.prov_mode == KAVO_ENET_PROV_MODE_FLEXE_PHY)) {
        rep.result = RUNTIME_OPERATION_NOT_SUPPORTED_BY_SEGMENT_CLASS;
        return nullptr;
    }
    for (UINT32 c = 0; c < KAVO_NUM_CHANNELS; ++c) {
        enet_port* p = dp(fw).enet(fw, c);
        if (p && p->cfg.prov_mode == KAVO_ENET_PROV_MODE_FLEXE_PHY && p->cfg.phy_id == phy) return p;
    }
    rep.result = SEGMENT_BASE_ENET_FLEXE_INVALID_PHY_ID;
    return nullptr;
}

void rpf_force(firmware& fw, const request& req, reply& rep)
{
    enet_port* p = flexe_phy_port(fw, req, rep);
    if (!p) return;
    if (!is_bool(req.info.flag))
        rep.result = RUNTIME_OPERATION_ERR_INVALID_ARGUMENTS;
    else
        p->cfg.rpf_force_mask = req.info.flag;
}

void rpf_force_get(firmware& fw, const request& req, reply& rep)
{
    if (const enet_port* p = flexe_phy_port(fw, req, rep)) rep.record(p->cfg.rpf_force_mask);
}

void rdi_detect(firmware& fw, const request& req, reply& rep)
{
    enet_port* p = flexe_phy_port(fw, req, rep);
    if (!p) return;
    if (req.info.mode > 0xFF)
        rep.result = RUNTIME_OPERATION_ERR_INVALID_ARGUMENTS;
    else
        p->cfg.rdi_detect_mask = req.info.mode;
}

void rdi_detect_get(firmware& fw, const request& req, reply& rep)
{
    if (const enet_port* p = flexe_phy_port(fw, req, rep)) rep.record(p->cfg.rdi_detect_mask);
}

void tx_am_sf_set(firmware& fw, const request& req, reply& rep)
{
    enet_port* p = pcs_port(fw, req.info.element_id, rep);
    kavo_enet_tx_am_sf_cfg_t c;
    if (!p || !payload_ok(fw, req, rep, c)) return;
    if (p->cfg.fec_mode != KAVO_ENET_FEC_MODE_RS_544)
        rep.result = SEGMENT_BASE_ENET_FEC_MODE_INVALID;
    else if (c.alarm_mode >= LAST_KAVO_ENET_ALARM_MODE || c.tx_am_sf_value > 7)
        rep.result = RUNTIME_OPERATION_ERR_INVALID_ARGUMENTS;
    else
        p->cfg.tx_am_sf = c;
}

void rx_am_sf_get(firmware& fw, const request& req, reply& rep)
{
    const enet_port* p = pcs_port(fw, req.info.element_id, rep);
    if (!p) return;
    if (p->cfg.fec_mode != KAVO_ENET_FEC_MODE_RS_544) {
        rep.result = SEGMENT_BASE_ENET_FEC_MODE_INVALID;
        return;
    }
    rep.record(dp(fw).rx_am_sf(fw, req.info.element_id));
}

void fec_deg_ser_set(firmware& fw, const request& req, reply& rep)
{
    enet_port* p = pcs_port(fw, req.info.element_id, rep);
    kavo_enet_fec_deg_ser_cfg_t c;
    if (!p || !payload_ok(fw, req, rep, c)) return;
    if (!rs_fec(p->cfg.fec_mode))
        rep.result = SEGMENT_BASE_ENET_FEC_MODE_INVALID;
    else if (!is_bool(c.enable) || c.deactivate_threshold > c.activate_threshold || c.interval_ms == 0 ||
             c.interval_ms > 1000)
        rep.result = RUNTIME_OPERATION_ERR_INVALID_ARGUMENTS;
    else
        p->cfg.fec_deg_ser = c;
}

void fec_err_cfg_set(firmware& fw, const request& req, reply& rep)
{
    enet_port* p = pcs_port(fw, req.info.element_id, rep);
    kavo_enet_fec_err_cfg_t c;
    if (!p || !payload_ok(fw, req, rep, c)) return;
    if (!rs_fec(p->cfg.fec_mode) || (c.bypass_correction && p->cfg.fec_mode == KAVO_ENET_FEC_MODE_RS_544))
        rep.result = SEGMENT_BASE_ENET_FEC_MODE_INVALID;
    else if (!is_bool(c.bypass_correction) || !is_bool(c.bypass_indication) || !is_bool(c.mark_ser_errors) ||
             (c.bypass_correction && c.bypass_indication))
        rep.result = RUNTIME_OPERATION_ERR_INVALID_ARGUMENTS;
    else
        p->cfg.fec_err = c;
}

void rs_alarm_cfg_get(firmware& fw, const request& req, reply& rep)
{
    const enet_port* p = runtime_port(fw, req.info.element_id, rep);
    if (!p) return;
    kavo_enet_alarm_cfg_get_t a = p->alarm;
    a.active_defects = dp(fw).defects(fw, req.info.element_id);
    rep.record(a);
}

constexpr handler HANDLERS[] = {
    {KAVO_HTL_OPERATION_LOOPBACK_SET, "loopback_set", loopback_set},
    {KAVO_HTL_OPERATION_LOOPBACK_GET, "loopback_get", loopback_get},
    {KAVO_HTL_OPERATION_DEPROV, "deprov", deprov},
    {KAVO_HTL_OPERATION_FLOW_CONTROL_SET, "flow_control_set", flow_control_set},
    {KAVO_HTL_OPERATION_FLOW_CONTROL_GET, "flow_control_get", flow_control_get},
    {KAVO_HTL_OPERATION_ENET_PROV, "enet_prov", enet_prov},
    {KAVO_HTL_OPERATION_ENET_ANLT_PROV, "enet_anlt_prov", enet_anlt_prov},
    {KAVO_HTL_OPERATION_ENET_STATUS_GET, "enet_status_get", enet_status_get},
    {KAVO_HTL_OPERATION_ENET_ANLT_STATUS_GET, "enet_anlt_status_get", enet_anlt_status_get},
    {KAVO_HTL_OPERATION_ENET_TX_TIMING_MODE_SET, "enet_tx_timing_mode_set", tx_timing_mode_set},
    {KAVO_HTL_OPERATION_ENET_ALARM_MODE_SET, "enet_alarm_mode_set", alarm_mode_set},
    {KAVO_HTL_OPERATION_ENET_PCS_AM_RELAY_MODE_SET, "enet_pcs_am_relay_mode_set", am_relay_mode_set},
    {KAVO_HTL_OPERATION_ENET_CH_CFG_GET, "enet_cfg_get", cfg_get},
    {KAVO_HTL_OPERATION_ENET_MRU_SET, "enet_mru_set", mru_set},
    {KAVO_HTL_OPERATION_ENET_IPG_SET, "enet_ipg_set", ipg_set},
    {KAVO_HTL_OPERATION_ENET_INBAND_FCS_SET, "enet_inband_fcs_set", inband_fcs_set},
    {KAVO_HTL_OPERATION_ENET_VLAN_CFG_SET, "enet_vlan_cfg_set", vlan_cfg_set},
    {KAVO_HTL_OPERATION_ENET_DPI_ERR_MSK_SET, "enet_err_relay_msk_set", err_relay_mask_set},
    {KAVO_HTL_OPERATION_ENET_FEC_MODE_SET, "enet_fec_mode_set", fec_mode_set},
    {KAVO_HTL_OPERATION_ENET_FEC_ERR_CFG_SET, "enet_fec_err_cfg_set", fec_err_cfg_set},
    {KAVO_HTL_OPERATION_ENET_FEC_DEG_SER_CFG_SET, "enet_fec_deg_ser_set", fec_deg_ser_set},
    {KAVO_HTL_OPERATION_ENET_RS_ALARM_CA_ENABLE_SET, "enet_ca_enable", ca_enable},
    {KAVO_HTL_OPERATION_ENET_RS_ALARM_CA_ENABLE_MASK_SET, "enet_ca_mask_enable", ca_mask_enable},
    {KAVO_HTL_OPERATION_ENET_RS_ALARM_CA_GET, "rs_alarm_cfg_get", rs_alarm_cfg_get},
    {KAVO_HTL_OPERATION_ENET_RS_ALARM_CA_FORCE, "enet_ca_force", ca_force},
    {KAVO_HTL_OPERATION_ENET_AFLEXE_RPF_CA_FORCE, "enet_aflexe_rpf_force", rpf_force},
    {KAVO_HTL_OPERATION_ENET_AFLEXE_RPF_CA_FORCE_GET, "enet_aflexe_rpf_force_get", rpf_force_get},
    {KAVO_HTL_OPERATION_ENET_DFLEXE_RDI_CA_DETECT, "enet_dflexe_rdi_detect", rdi_detect},
    {KAVO_HTL_OPERATION_ENET_DFLEXE_RDI_CA_DETECT_GET, "enet_dflexe_rdi_detect_get", rdi_detect_get},
    {KAVO_HTL_OPERATION_ENET_DP_NOMINAL_FORCE, "enet_dp_nominal_force", dp_nominal_force},
    {KAVO_HTL_OPERATION_ENET_DP_NOMINAL_ENABLE_MASK, "enet_nominal_mask_enable", nominal_mask_enable},
    {KAVO_HTL_OPERATION_ENET_TX_AM_SF_MODE_SET, "enet_fec_tx_am_sf_mode_set", tx_am_sf_set},
    {KAVO_HTL_OPERATION_ENET_RX_AM_SF_MODE_GET, "enet_fec_rx_am_sf_status_get", rx_am_sf_get},
    {KAVO_HTL_OPERATION_ENET_MTU_SET, "enet_mtu_set", mtu_set},
    {KAVO_HTL_OPERATION_ENET_SCRAMBLED_IDLE_GEN, "enet_scrambled_idle_gen_set", idle_gen},
    {KAVO_HTL_OPERATION_ENET_SCRAMBLED_IDLE_MON, "enet_scrambled_idle_mon_set", idle_mon},
    {KAVO_HTL_OPERATION_ENET_SCRAMBLED_IDLE_ERR_INJ, "enet_err_inj_set", idle_err_inj},
    {KAVO_HTL_OPERATION_ANLT_CHNL_RESTART, "an_restart_trigger", an_restart},
    {KAVO_HTL_OPERATION_CONNECT, "connect", connect},
    {KAVO_HTL_OPERATION_DISCONNECT, "disconnect", disconnect},
    {KAVO_HTL_OPERATION_BIDIRECTIONAL_CONNECT, "bidirectional_connect", bidirectional_connect},
    {KAVO_HTL_OPERATION_BIDIRECTIONAL_DISCONNECT, "bidirectional_disconnect", bidirectional_disconnect},
    {KAVO_HTL_OPERATION_CONNECT_GET, "connect_get", connect_get},
};

} // namespace

std::span<const handler> datapath_handlers() { return HANDLERS; }

} // namespace kavo_sim::fw
