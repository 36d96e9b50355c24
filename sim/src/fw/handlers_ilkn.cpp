// The Interlaken interface and its packet channels.
//
// The interface is what kavo_device_config describes: its lanes are taken up
// (serdes_owner: ILKN_LANE_OWNER) at the first request after the
// configuration, and a configuration the interface cannot run with is reported
// by every Interlaken command with the code of what is wrong. Lanes lock on
// words as soon as they receive a signal (a partner, or a loopback) and on
// metaframes four metaframes later; the interface is up when all are aligned.
#include <algorithm>

#include "fw/firmware.h"

namespace kavo_sim::fw {
namespace {

constexpr UINT32 TX_FLAG = 1;
constexpr UINT32 MAX_CLIENT_NUM_INCR = 15;
constexpr UINT32 IDLE_ENTRY = 0xFFFFFFFF;

// Lane rates of kavo_ilkn_rate_mode_t, Mbaud, and channel rates of
// kavo_fabric_ingress_rate_t, Mb/s.
constexpr UINT64 LANE_MBAUD[] = {6250, 10312, 12500, 25781, 28125, 51562, 53125};
constexpr UINT64 CHNL_MBPS[] = {10000, 25000, 40000, 50000, 100000, 150000, 200000, 300000, 400000, 600000};

bool is_bool(UINT32 v) { return v <= 1; }

/* The lanes of one direction: how many, or a refusal when not packed, out of
   range or repeated. */
VELT_ERROR count_lanes(const UINT32 (&ports)[ILKN_MAX_LANES], UINT32& n, VELT_ERROR not_packed, VELT_ERROR twice)
{
    n = UINT32(std::find(std::begin(ports), std::end(ports), 0xFFFFFFFFu) - std::begin(ports));
    for (UINT32 i = n; i < ILKN_MAX_LANES; ++i)
        if (ports[i] != 0xFFFFFFFF) return not_packed;
    for (UINT32 i = 0; i < n; ++i) {
        if (ports[i] >= NUM_SERDES_PORTS) return ILKN_ERR_SERDES_OUT_OF_RANGE;
        if (std::find(ports, ports + i, ports[i]) != ports + i) return twice;
    }
    return VELT_SUCCESS;
}

/* The first thing wrong with the configured interface, or VELT_SUCCESS. */
VELT_ERROR check_intf(const firmware& fw, const kavo_ilkn_intf_cfg_t& c, const kavo_ilkn_lane_cfg_t& l, UINT32& lanes)
{
    UINT32 rx = 0;
    if (VELT_ERROR rc = count_lanes(l.serdes_port_ids_tx, lanes, ILKN_ERR_INVALID_TX_SERDES_NOT_PACKED,
                                    ILKN_ERR_SERDES_TX_PORT_SET_TWICE))
        return rc;
    if (VELT_ERROR rc = count_lanes(l.serdes_port_ids_rx, rx, ILKN_ERR_INVALID_RX_SERDES_NOT_PACKED,
                                    ILKN_ERR_SERDES_RX_PORT_SET_TWICE))
        return rc;
    if (lanes == 0 && rx == 0) return SEGMENT_BASE_ILKN_INTERFACE_DOES_NOT_EXIST;
    if (lanes != rx) return ILKN_ERR_NUMBER_RX_TX_SERDES_MISMATCH;
    for (UINT32 i = 0; i < lanes; ++i)
        if (std::find(l.serdes_port_ids_rx, l.serdes_port_ids_rx + rx, l.serdes_port_ids_tx[i]) ==
            l.serdes_port_ids_rx + rx)
            return ILKN_ERR_SERDES_RX_TX_PORT_MISMATCH;
    if (l.rate_mode >= LAST_KAVO_ILKN_RATE_MODE || c.metaframe >= LAST_KAVO_ILKN_MF) return ILKN_ERR_INVALID_CONFIG;
    if (c.burst_max == 0 || c.burst_max % 2 != 0 || c.burst_max > KAVO_ILKN_BURST_MAX_256)
        return ILKN_ERR_INVALID_ILKN_BURST_MAX;
    if (c.burst_min != KAVO_ILKN_BURST_MIN_NONE && (c.burst_min == 0 || 2 * c.burst_min > c.burst_max))
        return ILKN_ERR_INVALID_ILKN_BURST_MIN;
    if (!is_bool(c.fc_enable) || !is_bool(c.disable_prog_fc_cal) || !is_bool(c.tx_pin_disable_initial_state))
        return ILKN_ERR_INVALID_CONFIG;
    if (c.fc_cal_length > KAVO_ILKN_MAX_FC_CAL_ENTRIES ||
        (c.fc_enable && !c.disable_prog_fc_cal && c.fc_cal_length == 0))
        return ILKN_ERR_INVALID_ILKN_FC_CAL_LEN;
    for (UINT32 i = 0; i < lanes; ++i) {
        const UINT32 owner = fw.device.serdes_owner[l.serdes_port_ids_tx[i]];
        if (owner != NO_OWNER && owner != ILKN_LANE_OWNER) return ILKN_ERR_SERDES_ASSIGNED;
    }
    return VELT_SUCCESS;
}

void release_lanes(firmware& fw)
{
    for (UINT32& owner : fw.device.serdes_owner)
        if (owner == ILKN_LANE_OWNER) owner = NO_OWNER;
}

/* The interface is there to be used, or the request is refused with why not. */
bool intf_ready(firmware& fw, reply& rep)
{
    rep.result = fw.model.ilkn.intf_error;
    return rep.result == VELT_SUCCESS;
}

UINT64 chnl_mbps(const kavo_traffic_ilkn_pkt_t& c) { return CHNL_MBPS[c.fabric_ingress_data.rate_info.rate]; }

/* The first thing wrong with a packet channel, or VELT_SUCCESS. */
VELT_ERROR check_chnl(const ilkn_model& m, const kavo_traffic_ilkn_pkt_t& c)
{
    const kavo_ilkn_pkt_fabric_ingress_t& in = c.fabric_ingress_data;
    const UINT32 out = c.fabric_egress_data.bcw_chnl;
    if (in.rate_info.rate >= LAST_KAVO_FABRIC_INGRESS_RATE) return ILKN_ERR_INVALID_INGRESS_ARG;
    if (in.rate_info.client_num_incr > MAX_CLIENT_NUM_INCR) return SEGMENT_BASE_ERR_INVALID_CLIENT_NUM_INCR;
    if (out == 0xFFFFFFFF) return ILKN_ERR_EGRESS_BCW_CHNL_ID_UNSET;
    if (in.bcw_chnl > ILKN_MAX_BCW_CHNL || in.bcw_chnl + in.rate_info.client_num_incr > ILKN_MAX_BCW_CHNL ||
        out > ILKN_MAX_BCW_CHNL)
        return ILKN_ERR_INVALID_PKT_BCW_CHNL_ID;
    UINT64 used = chnl_mbps(c);
    for (UINT32 k = 0; k < KAVO_NUM_CHANNELS; ++k) {
        if (!m.has_chnl[k]) continue;
        const kavo_ilkn_pkt_fabric_ingress_t& o = m.chnls[k].fabric_ingress_data;
        if (in.bcw_chnl <= o.bcw_chnl + o.rate_info.client_num_incr &&
            o.bcw_chnl <= in.bcw_chnl + in.rate_info.client_num_incr)
            return ILKN_ERR_INUSE_PKT_BCW_CHNL_ID;
        if (m.chnls[k].fabric_egress_data.bcw_chnl == out) return ILKN_ERR_INUSE_PKT_BCW_CHNL_ID;
        used += chnl_mbps(m.chnls[k]);
    }
    if (used > m.bandwidth_mbps()) return ILKN_ERR_BANDWIDTH_EXCEEDED_SERDES_RATE;
    return VELT_SUCCESS;
}

void pkt_prov(firmware& fw, const request& req, reply& rep)
{
    kavo_traffic_ilkn_pkt_t c;
    if (req.data_size != sizeof(c) || !req.payload(c)) {
        rep.result = KAVO_FW_ERR_INVALID_PARAMETERS;
        return;
    }
    if (!intf_ready(fw, rep)) return;
    ilkn_model& m = fw.model.ilkn;
    const UINT32 chnl = req.info.element_id;
    if (chnl >= KAVO_NUM_CHANNELS) rep.result = SEGMENT_BASE_ERR_ILLEGAL_CHNL_ID;
    else if (fw.device.channels[chnl] != KAVO_SEGMENT_TYPE_UNUSED) rep.result = SEGMENT_BASE_ERR_EXISTING_CHNL_ID;
    else if (std::count(std::begin(m.has_chnl), std::end(m.has_chnl), true) >= KAVO_ILKN_MAX_CHNLS)
        rep.result = SEGMENT_BASE_ILKN_TOTAL_ILKN_CHNLS;
    else rep.result = check_chnl(m, c);
    if (rep.result != VELT_SUCCESS) {
        fw.console("ilkn channel %u refused: 0x%x\n", chnl, rep.result);
        return;
    }
    m.has_chnl[chnl] = true;
    m.chnls[chnl] = c;
    fw.device.channels[chnl] = KAVO_SEGMENT_TYPE_ILKN_PKT;
    fw.console("ilkn channel %u: %lu Mb/s, channel numbers %u..%u in, %u out\n", chnl, (unsigned long)chnl_mbps(c),
               c.fabric_ingress_data.bcw_chnl,
               c.fabric_ingress_data.bcw_chnl + c.fabric_ingress_data.rate_info.client_num_incr,
               c.fabric_egress_data.bcw_chnl);
}

void fc_cfg(firmware& fw, const request& req, reply& rep)
{
    if (!intf_ready(fw, rep)) return;
    ilkn_model& m = fw.model.ilkn;
    const UINT32 entries = req.data_size / 4;
    if (!m.intf.fc_enable) rep.result = ILKN_ERR_ILKN_INTF_FC_DISABLE;
    else if (m.intf.disable_prog_fc_cal) rep.result = ILKN_LOG_ERR_ILKN_INTF_DISABLE_PROG_FC_CAL;
    else if (!is_bool(req.info.flag)) rep.result = ILKN_ERR_INVALID_ILKN_FC_DIRECTION;
    else if (req.data_size % 4 != 0 || entries == 0 || entries > m.intf.fc_cal_length)
        rep.result = ILKN_ERR_INVALID_ILKN_FC_CAL_LEN;
    if (rep.result != VELT_SUCCESS) {
        fw.console("ilkn %s calendar of %u entries refused: 0x%x\n", req.info.flag == TX_FLAG ? "tx" : "rx", entries,
                   rep.result);
        return;
    }
    UINT32 cal[KAVO_ILKN_MAX_FC_CAL_ENTRIES];
    std::memcpy(cal, req.data.data(), req.data_size);
    for (UINT32 i = 0; i < entries; ++i)
        if (cal[i] != IDLE_ENTRY && cal[i] > ILKN_MAX_BCW_CHNL) {
            rep.result = SEGMENT_BASE_ERR_INVALID_ILKN_CAL_FC;
            return;
        }
    std::memcpy(m.fc_cal[req.info.flag], cal, req.data_size);
    m.fc_cal_len[req.info.flag] = entries;
}

void loopback(firmware& fw, const request& req, reply& rep)
{
    if (!intf_ready(fw, rep)) return;
    ilkn_model& m = fw.model.ilkn;
    if (req.info.mode >= LAST_KAVO_ILKN_LOOPBACK) rep.result = SEGMENT_BASE_ILKN_INVALID_LOOPBACK;
    else if (!is_bool(req.info.flag)) rep.result = KAVO_FW_ERR_INVALID_PARAMETERS;
    if (rep.result != VELT_SUCCESS) return;
    if (req.info.flag) m.loopback = req.info.mode;
    else if (m.loopback == req.info.mode) m.loopback = KAVO_ILKN_LOOPBACK_NONE;
    fw.console("ilkn loopback %u\n", m.loopback);
}

void loopback_get(firmware& fw, const request&, reply& rep)
{
    if (intf_ready(fw, rep)) rep.mode = fw.model.ilkn.loopback;
}

void intf_status_get(firmware& fw, const request&, reply& rep)
{
    if (!intf_ready(fw, rep)) return;
    const ilkn_model& m = fw.model.ilkn;
    const UINT64 now = fw.now_us();
    kavo_ilkn_intf_status_t s;
    s.num_lanes = m.num_lanes;
    for (UINT32 n = 0; n < m.num_lanes; ++n) {
        if (m.signal_since_us[n] == NEVER) continue;
        s.word_lock |= 1u << n;
        if (now - m.signal_since_us[n] >= m.metaframe_lock_us()) s.metaframe_lock |= 1u << n;
    }
    const UINT32 all = m.num_lanes == 32 ? ~0u : (1u << m.num_lanes) - 1;
    s.lane_aligned = s.metaframe_lock == all;
    s.intf_up = s.lane_aligned && s.word_lock == all;
    s.loopback = kavo_ilkn_loopback_t(m.loopback);
    s.tx_fc_cal_len = m.fc_cal_len[TX_FLAG];
    s.rx_fc_cal_len = m.fc_cal_len[1 - TX_FLAG];
    rep.record(s);
}

constexpr handler HANDLERS[] = {
    {KAVO_HTL_OPERATION_ILKN_PKT_PROV, "ilkn_pkt_prov", pkt_prov},
    {KAVO_HTL_OPERATION_ILKN_FC_CFG, "ilkn_fc_cfg", fc_cfg},
    {KAVO_HTL_OPERATION_ILKN_LOOPBACK, "ilkn_loopback", loopback},
    {KAVO_HTL_OPERATION_ILKN_LOOPBACK_GET, "ilkn_loopback_get", loopback_get},
    {KAVO_HTL_OPERATION_ILKN_INTF_STATUS_GET, "ilkn_intf_status_get", intf_status_get},
};

} // namespace

bool ilkn_model::lane_signal(const firmware& fw, UINT32 n) const
{
    if (loopback == KAVO_ILKN_LOOPBACK_SERDES || loopback == KAVO_ILKN_LOOPBACK_CORE) return true;
    return fw.model.serdes.signal_present(fw, lane_port[n]);
}

UINT64 ilkn_model::metaframe_lock_us() const
{
    // Four metaframes of 64-bit words in 67-bit blocks at the lane rate.
    const UINT64 words = 256u << intf.metaframe;
    const UINT64 bits = 4 * words * 67;
    return (bits + LANE_MBAUD[lane_cfg.rate_mode] - 1) / LANE_MBAUD[lane_cfg.rate_mode];
}

UINT64 ilkn_model::bandwidth_mbps() const { return num_lanes * LANE_MBAUD[lane_cfg.rate_mode] * 64 / 67; }

void ilkn_model::advance(firmware& fw, UINT64 now_us)
{
    const kavo_config_t& c = fw.device.config;
    const bool changed = !applied || std::memcmp(&intf, &c.ilkn_intf, sizeof(intf)) != 0 ||
                         std::memcmp(&lane_cfg, &c.ilkn_lane, sizeof(lane_cfg)) != 0;
    if (!fw.device.configured) {
        if (!applied) return;
        release_lanes(fw);
        *this = ilkn_model{};
        return;
    }
    if (changed) {
        // A new configuration: the interface starts again on its lanes.
        release_lanes(fw);
        applied = true;
        intf = c.ilkn_intf;
        lane_cfg = c.ilkn_lane;
        intf_error = check_intf(fw, intf, lane_cfg, num_lanes);
        if (intf_error != VELT_SUCCESS) num_lanes = 0;
        for (UINT32 n = 0; n < num_lanes; ++n) {
            lane_port[n] = lane_cfg.serdes_port_ids_tx[n];
            fw.device.serdes_owner[lane_port[n]] = ILKN_LANE_OWNER;
            signal_since_us[n] = NEVER;
        }
        loopback = KAVO_ILKN_LOOPBACK_NONE;
        fc_cal_len[0] = fc_cal_len[1] = 0;
        fw.console("ilkn interface: %u lanes, error 0x%x\n", num_lanes, intf_error);
    }
    for (UINT32 n = 0; n < num_lanes; ++n) {
        const bool signal = lane_signal(fw, n);
        if (!signal) signal_since_us[n] = NEVER;
        else if (signal_since_us[n] == NEVER) signal_since_us[n] = now_us;
    }
    for (UINT32 k = 0; k < KAVO_NUM_CHANNELS; ++k)
        if (has_chnl[k] && fw.device.channels[k] != KAVO_SEGMENT_TYPE_ILKN_PKT) has_chnl[k] = false;
}

std::span<const handler> ilkn_handlers() { return HANDLERS; }

} // namespace kavo_sim::fw
