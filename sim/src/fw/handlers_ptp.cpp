// The PTP time-of-day clock and per-channel time stamping.
//
// The clock holds 48-bit seconds and nanoseconds and runs with chip time from
// the firmware's start or the last time it was set. Time stamping is
// configured per Ethernet port, on the slices with PTP enabled in the device
// configuration. The latency between two ports is the datapath delay the world
// gives each of them (SIM_KNOB_PATH_DELAY_NS): half of each, their receive and
// transmit halves; it counts as measured when both links are up.
#include "fw/firmware.h"

namespace kavo_sim::fw {
namespace {

constexpr UINT64 NS_PER_SEC = 1000000000;
constexpr UINT64 SEC_MASK = (UINT64(1) << 48) - 1;
constexpr UINT32 CHNLS_PER_SLICE = 16;
constexpr INT32 MAX_COMPENSATION_NS = 65535;
constexpr UINT32 MAX_TPID = 0xFFFF;
constexpr UINT32 LOCAL_SA = 1;

bool is_bool(UINT32 v) { return v <= 1; }

bool size_is(const request& req, reply& rep, size_t size)
{
    if (req.data_size == size && req.data.size() == size) return true;
    rep.result = KAVO_FW_ERR_INVALID_PARAMETERS;
    return false;
}

bool configured(firmware& fw, reply& rep)
{
    if (!fw.device.configured) rep.result = KAVO_ERR_FW_NOT_CONFIGURED;
    return fw.device.configured;
}

/* An Ethernet port on a slice with PTP, or a refusal. */
bool ptp_chnl(firmware& fw, UINT32 chnl, reply& rep)
{
    if (!configured(fw, rep)) return false;
    if (chnl >= KAVO_NUM_CHANNELS) rep.result = ENET_PTP_RX_TX_MACRO_ERR_ILLEGAL_CHNL_ID;
    else if (fw.device.channels[chnl] == KAVO_SEGMENT_TYPE_PE_HOST) rep.result = PTP_NOT_SUPPORTED_IN_PE_DATAPATH;
    else if (fw.device.channels[chnl] != KAVO_SEGMENT_TYPE_ENET_PORT) rep.result = ENET_PTP_RX_TX_MACRO_ERR_ILLEGAL_CHNL_ID;
    else if (!fw.device.config.ptp_enable[chnl / CHNLS_PER_SLICE]) rep.result = ENET_PTP_RX_TX_MACRO_ERR_NOT_ENABLED;
    return rep.result == VELT_SUCCESS;
}

void config(firmware& fw, const request& req, reply& rep)
{
    kavo_ptp_config_t c;
    if (!size_is(req, rep, sizeof(c)) || !configured(fw, rep)) return;
    req.payload(c);
    const UINT32* enable = fw.device.config.ptp_enable;
    if (!enable[0] && !enable[1] && !enable[2]) rep.result = ENET_PTP_RX_TX_MACRO_ERR_NOT_ENABLED;
    else if (c.mts_format >= LAST_KAVO_PTP_MTS_FORMAT || c.pkt_operation_mode >= LAST_KAVO_PTP_PKT_OPERATION_MODE ||
             c.da_sa_match_mode >= LAST_KAVO_PTP_DA_SA_MATCH_MODE)
        rep.result = ENET_PTP_RX_TX_MACRO_ERR_INVALID_PARAMETERS;
    if (rep.result == VELT_SUCCESS) fw.model.ptp.config = c;
}

VELT_ERROR check_chnl_config(const kavo_ptp_chnl_config_t& c)
{
    if (!is_bool(c.enable) || !is_bool(c.check_ptp_version) || c.encapsulation >= LAST_KAVO_PTP_PROTOCOL_ENCAP ||
        (c.enable && c.encapsulation == KAVO_PTP_PROTOCOL_ENCAP_NONE) ||
        c.ts_operation_mode >= LAST_KAVO_PTP_TS_OPERATION_MODE || c.p2p_link_delay >= NS_PER_SEC ||
        c.vlan_cfg.vlan_tag_num >= LAST_KAVO_PTP_VLAN_TAG_NUM || c.vlan_cfg.tpid[0] > MAX_TPID ||
        c.vlan_cfg.tpid[1] > MAX_TPID)
        return ENET_PTP_RX_TX_MACRO_ERR_INVALID_PARAMETERS;
    for (INT32 comp : {c.tx_ts_compensation, c.rx_ts_compensation})
        if (comp > MAX_COMPENSATION_NS || comp < -MAX_COMPENSATION_NS)
            return ENET_PTP_RX_TX_MACRO_ERR_INVALID_TS_COMPENSATION_VALUE;
    return VELT_SUCCESS;
}

void chnl_config(firmware& fw, const request& req, reply& rep)
{
    kavo_ptp_chnl_config_t c;
    if (!size_is(req, rep, sizeof(c)) || !ptp_chnl(fw, req.info.element_id, rep)) return;
    req.payload(c);
    rep.result = check_chnl_config(c);
    if (rep.result != VELT_SUCCESS) return;
    fw.model.ptp.chnl[req.info.element_id] = c;
    fw.console("ptp channel %u: %s, encapsulation %u, stamping mode %u\n", req.info.element_id,
               c.enable ? "on" : "off", c.encapsulation, c.ts_operation_mode);
}

void chnl_config_get(firmware& fw, const request& req, reply& rep)
{
    if (ptp_chnl(fw, req.info.element_id, rep)) rep.record(fw.model.ptp.chnl[req.info.element_id]);
}

void custom_vlan(firmware& fw, const request& req, reply& rep)
{
    if (!ptp_chnl(fw, req.info.element_id, rep)) return;
    if (req.info.mode >= LAST_KAVO_PTP_VLAN_TPID || req.info.parent_id > MAX_TPID) {
        rep.result = ENET_PTP_RX_TX_MACRO_ERR_INVALID_PARAMETERS;
        return;
    }
    fw.model.ptp.chnl[req.info.element_id].vlan_cfg.tpid[req.info.mode] = req.info.parent_id;
}

void local_sa_set(firmware& fw, const request& req, reply& rep)
{
    kavo_ptp_addr_t sa;
    if (!size_is(req, rep, sizeof(sa)) || !ptp_chnl(fw, req.info.element_id, rep)) return;
    if (req.info.mode != LOCAL_SA) {
        rep.result = ENET_PTP_RX_TX_MACRO_ERR_INVALID_PARAMETERS;
        return;
    }
    req.payload(sa);
    fw.model.ptp.local_sa[req.info.element_id] = sa;
    const UINT8* a = sa.addr;
    fw.console("ptp channel %u: local source address %02x:%02x:%02x:%02x:%02x:%02x\n", req.info.element_id, a[0], a[1],
               a[2], a[3], a[4], a[5]);
}

void tod_get(firmware& fw, const request&, reply& rep) { rep.record(fw.model.ptp.tod(fw.now_us())); }

void tod_set(firmware& fw, const request& req, reply& rep)
{
    kavo_ptp_tod_t t;
    if (!size_is(req, rep, sizeof(t))) return;
    req.payload(t);
    if (t.sec_hi > 0xFFFF || t.nsec >= NS_PER_SEC) {
        rep.result = ENET_PTP_RX_TX_MACRO_ERR_INVALID_PARAMETERS;
        return;
    }
    fw.model.ptp.tod_set(t, fw.now_us());
    fw.console("ptp time of day set: %lu.%09u\n", (unsigned long)((UINT64(t.sec_hi) << 32) | t.sec_lo), t.nsec);
}

void latency_get(firmware& fw, const request& req, reply& rep)
{
    const UINT32 src = req.info.element_id, dst = req.info.parent_id;
    if (!ptp_chnl(fw, src, rep) || !ptp_chnl(fw, dst, rep)) return;
    kavo_ptp_latency_t l;
    l.dynamic_measure = fw.model.datapath.link_up(fw, src) && fw.model.datapath.link_up(fw, dst);
    l.latency = fw.knob(SIM_KNOB_PATH_DELAY_NS, src) / 2 + fw.knob(SIM_KNOB_PATH_DELAY_NS, dst) / 2;
    rep.record(l);
}

void one_pps_tod_src_set(firmware& fw, const request& req, reply& rep)
{
    if (req.info.mode >= LAST_KAVO_PTP_ONE_PPS_TOD_SRC || !is_bool(req.info.flag)) {
        rep.result = ENET_PTP_RX_TX_MACRO_ERR_INVALID_PARAMETERS;
        return;
    }
    fw.model.ptp.one_pps_src = req.info.mode;
    fw.model.ptp.one_pps_loopback = req.info.flag;
}

void one_pps_tod_src_get(firmware& fw, const request&, reply& rep)
{
    rep.mode = fw.model.ptp.one_pps_src;
    rep.value = fw.model.ptp.one_pps_loopback;
}

void one_pps_i_delay_set(firmware& fw, const request& req, reply& rep)
{
    if (req.info.mode >= NS_PER_SEC) {
        rep.result = ENET_PTP_RX_TX_MACRO_ERR_INVALID_PARAMETERS;
        return;
    }
    fw.model.ptp.one_pps_i_delay = req.info.mode;
}

void one_pps_i_delay_get(firmware& fw, const request&, reply& rep) { rep.mode = fw.model.ptp.one_pps_i_delay; }

constexpr handler HANDLERS[] = {
    {KAVO_HTL_OPERATION_PTP_CONFIG, "ptp_config", config},
    {KAVO_HTL_OPERATION_PTP_CHNL_CONFIG, "ptp_chnl_config", chnl_config},
    {KAVO_HTL_OPERATION_PTP_CHNL_CONFIG_GET, "ptp_chnl_config_get", chnl_config_get},
    {KAVO_HTL_OPERATION_PTP_CHNL_CSTM_VLAN_CONFIG, "ptp_chnl_cstm_vlan_config", custom_vlan},
    {KAVO_HTL_OPERATION_PTP_CHNL_LOCAL_SA_SET, "ptp_chnl_local_sa_set", local_sa_set},
    {KAVO_HTL_OPERATION_PTP_TOD_GET, "ptp_tod_get", tod_get},
    {KAVO_HTL_OPERATION_PTP_TOD_SET, "ptp_tod_set", tod_set},
    {KAVO_HTL_OPERATION_PTP_LATENCY_GET, "ptp_latency_get", latency_get},
    {KAVO_HTL_OPERATION_PTP_ONE_PPS_TOD_SRC_SET, "ptp_one_pps_tod_src_set", one_pps_tod_src_set},
    {KAVO_HTL_OPERATION_PTP_ONE_PPS_TOD_SRC_GET, "ptp_one_pps_tod_src_get", one_pps_tod_src_get},
    {KAVO_HTL_OPERATION_PTP_ONE_PPS_I_DELAY_SET, "ptp_one_pps_i_delay_set", one_pps_i_delay_set},
    {KAVO_HTL_OPERATION_PTP_ONE_PPS_I_DELAY_GET, "ptp_one_pps_i_delay_get", one_pps_i_delay_get},
};

} // namespace

kavo_ptp_tod_t ptp_model::tod(UINT64 now_us) const
{
    const UINT64 ns = base_nsec + (now_us - base_us) * 1000;
    const UINT64 sec = (base_sec + ns / NS_PER_SEC) & SEC_MASK;
    kavo_ptp_tod_t t;
    t.sec_hi = UINT32(sec >> 32);
    t.sec_lo = UINT32(sec);
    t.nsec = UINT32(ns % NS_PER_SEC);
    t.frac_nsec = base_frac;
    return t;
}

void ptp_model::tod_set(const kavo_ptp_tod_t& t, UINT64 now_us)
{
    base_sec = (UINT64(t.sec_hi) << 32) | t.sec_lo;
    base_nsec = t.nsec;
    base_frac = t.frac_nsec;
    base_us = now_us;
}

void ptp_model::advance(firmware& fw, UINT64 now_us)
{
    if (!started) {
        started = true;
        base_us = now_us;
    }
    for (UINT32 k = 0; k < KAVO_NUM_CHANNELS; ++k)
        if (fw.device.channels[k] != KAVO_SEGMENT_TYPE_ENET_PORT) {
            chnl[k].init();
            local_sa[k].init();
        }
}

std::span<const handler> ptp_handlers() { return HANDLERS; }

} // namespace kavo_sim::fw
