// Performance counters and their triggers.
#include <cmath>

#include "fw/firmware.h"

namespace kavo_sim::fw {
namespace {

using enet_rec = kavo_pmon_enet_port_segment_t;
constexpr size_t HEADER = offsetof(enet_rec, phy_rx);

template <class T> constexpr size_t pairs() { return (sizeof(T) - HEADER) / 8; }

// Index of an Ethernet counter among the record's 64-bit counters.
#define ENET(sub, field) \
    ((offsetof(enet_rec, sub) + offsetof(decltype(enet_rec::sub), field##_lsb) - HEADER) / 8)

// Frames on the wire carry 20 bytes besides the frame: preamble, start and gap.
constexpr double WIRE_OVERHEAD = 20;
constexpr UINT32 MAX_FRAME = 9600;
// The traffic mix when no frame size is set: 7 of 64 bytes, 4 of 576, 1 of 1500.
constexpr UINT32 MIX_SIZE[3] = {64, 576, 1500};
constexpr double MIX_WEIGHT[3] = {7, 4, 1};
// Bit errors per 10^12 bits from which the FEC fails on some codewords (10^-3),
// and the share of errored codewords it then cannot correct.
constexpr UINT32 FEC_LIMIT_ERRORS = 1000000000;
constexpr UINT64 FEC_UNCORRECTED_SHARE = 100;

size_t size_bin(UINT32 size)
{
    if (size <= 64) return 0;
    if (size <= 127) return 1;
    if (size <= 255) return 2;
    if (size <= 511) return 3;
    if (size <= 1023) return 4;
    if (size <= 1518) return 5;
    return 6;
}

/* Whole events out of a rate, the fraction carried to the next step. */
UINT64 take(double& carry, double amount)
{
    carry += amount;
    const double whole = std::floor(carry);
    carry -= whole;
    return UINT64(whole);
}

} // namespace

void pmon_counters::clear(size_t n, UINT64 now_us)
{
    live.assign(n, 0);
    prev = base = snap = live;
    snap_trigger = snap_period_ms = 0;
    prev_us = base_us = now_us;
}

void pmon_counters::trigger(bool accumulate, UINT32 trigger_count, UINT64 now_us)
{
    const auto& from = accumulate ? base : prev;
    for (size_t k = 0; k < live.size(); ++k)
        snap[k] = live[k] - from[k];
    snap_trigger = trigger_count;
    snap_period_ms = UINT32((now_us - (accumulate ? base_us : prev_us)) / 1000);
    prev = live;
    prev_us = now_us;
}

void pmon_counters::reset(UINT64 now_us)
{
    prev = base = live;
    prev_us = base_us = now_us;
    std::fill(snap.begin(), snap.end(), 0);
    snap_period_ms = 0;
}

void pmon_counters::write(UINT8* record, size_t size) const
{
    const UINT32 head[2] = {snap_trigger, snap_period_ms};
    std::memcpy(record, head, sizeof(head));
    for (size_t k = 0; k < snap.size() && HEADER + 8 * k + 8 <= size; ++k) {
        const UINT32 halves[2] = {UINT32(snap[k]), UINT32(snap[k] >> 32)};
        std::memcpy(record + HEADER + 8 * k, halves, sizeof(halves));
    }
}

pmon_model::pmon_model()
{
    for (auto& c : enet_)
        c.clear(pairs<kavo_pmon_enet_port_segment_t>(), 0);
    ilkn_intf_.clear(pairs<kavo_pmon_ilkn_intf_t>(), 0);
    for (auto& c : ilkn_pkt_)
        c.clear(pairs<kavo_pmon_ilkn_pkt_t>(), 0);
    for (auto& c : flexe_client_)
        c.clear(pairs<kavo_pmon_flexe_client_t>(), 0);
    for (auto& c : flexe_group_)
        c.clear(pairs<kavo_pmon_flexe_group_t>(), 0);
}

VELT_ERROR pmon_model::configure(const kavo_pmon_cfg_t& cfg, UINT64 now_us)
{
    if (cfg.auto_trigger > 1 || cfg.accumulate_enable > 1 || cfg.debug_counter_enable > 1 ||
        (cfg.auto_trigger && cfg.trigger_period_ms == 0))
        return PMON_ERR_INVALID_PARAMS;
    cfg_ = cfg;
    next_trigger_us_ = now_us + UINT64(cfg.trigger_period_ms) * 1000;
    return VELT_SUCCESS;
}

void pmon_model::count_enet(const chip_view& chip, UINT32 chnl, double seconds)
{
    UINT32 lanes = 0, bit_errors = 0;
    for (UINT32 p = 0; p < NUM_SERDES_PORTS; ++p) {
        if (chip.serdes_owner(p) != chnl) continue;
        ++lanes;
        bit_errors = std::max(bit_errors, chip.knob(SIM_KNOB_BIT_ERRORS, p));
    }
    const double line_bits = LANE_RATE_BPS * std::max(lanes, 1u) * seconds;
    auto& live = enet_[chnl].live;
    auto& t = traffic_[chnl];

    // The physical layer sees the whole line, frames or idles.
    const UINT64 errors = take(t.bit_errors, line_bits * bit_errors / 1e12);
    live[ENET(phy_rx, fec_symbol_err)] += errors;
    live[ENET(phy_rx, fec_corrected_cw)] += errors;
    if (bit_errors >= FEC_LIMIT_ERRORS) {
        const UINT64 lost = errors / FEC_UNCORRECTED_SHARE;
        live[ENET(phy_rx, fec_corrected_cw)] -= lost;
        live[ENET(phy_rx, fec_uncorrected_cw)] += lost;
        live[ENET(phy_rx, errored_blocks)] += lost;
    }

    const double load = std::min(chip.knob(SIM_KNOB_TRAFFIC_LOAD, chnl), 10000u) / 10000.0;
    if (load == 0) return;
    const UINT32 fixed = chip.knob(SIM_KNOB_TRAFFIC_FRAME_SIZE, chnl);
    const UINT32 fcs_ppm = std::min(chip.knob(SIM_KNOB_TRAFFIC_FCS_ERRORS, chnl), 1000000u);
    const size_t streams = fixed ? 1 : 3;
    double wire = 0, weights = 0;
    for (size_t s = 0; s < streams; ++s) {
        const double w = fixed ? 1 : MIX_WEIGHT[s];
        wire += w * ((fixed ? fixed : MIX_SIZE[s]) + WIRE_OVERHEAD) * 8;
        weights += w;
    }
    const double frames_total = line_bits * load / (wire / weights);

    static constexpr size_t RX_BIN[7] = {ENET(mac_rx, bin_64), ENET(mac_rx, bin_65_127), ENET(mac_rx, bin_128_255),
        ENET(mac_rx, bin_256_511), ENET(mac_rx, bin_512_1023), ENET(mac_rx, bin_1024_1518), ENET(mac_rx, bin_1519_max)};
    static constexpr size_t TX_BIN[7] = {ENET(mac_tx, bin_64), ENET(mac_tx, bin_65_127), ENET(mac_tx, bin_128_255),
        ENET(mac_tx, bin_256_511), ENET(mac_tx, bin_512_1023), ENET(mac_tx, bin_1024_1518), ENET(mac_tx, bin_1519_max)};
    for (size_t s = 0; s < streams; ++s) {
        const UINT32 size = fixed ? fixed : MIX_SIZE[s];
        const UINT64 frames = take(t.frames[s], frames_total * (fixed ? 1 : MIX_WEIGHT[s]) / weights);
        if (frames == 0) continue;
        // The partner sends what this port sends; frames too long are not passed on.
        const bool too_long = size > MAX_FRAME;
        const UINT64 bad = std::min(frames, take(t.fcs, double(frames) * fcs_ppm / 1e6));
        const UINT64 good = too_long ? 0 : frames - bad;
        live[RX_BIN[size_bin(size)]] += frames;
        live[ENET(mac_rx, frames_ok)] += good;
        live[ENET(mac_rx, unicast)] += good;
        live[ENET(mac_rx, octets_ok)] += good * size;
        live[ENET(mac_rx, fcs_err)] += bad;
        if (too_long) {
            live[ENET(mac_rx, oversize)] += frames - bad;
            live[ENET(mac_rx, jabbers)] += bad;
            live[ENET(pb, rx_drops)] += frames;
        }
        live[TX_BIN[size_bin(size)]] += frames;
        live[ENET(mac_tx, frames_ok)] += frames;
        live[ENET(mac_tx, octets_ok)] += frames * size;
    }
}

void pmon_model::step(const chip_view& chip, UINT64 to_us)
{
    if (to_us <= last_us_) return;
    const double seconds = double(to_us - last_us_) / 1e6;
    for (UINT32 c = 0; c < KAVO_NUM_CHANNELS; ++c) {
        const bool present = chip.enet_port(c);
        if (present != enet_present_[c]) {
            // A port provisioned anew counts from zero.
            enet_[c].clear(enet_[c].live.size(), last_us_);
            traffic_[c] = traffic{};
            enet_present_[c] = present;
        }
        if (present && chip.link_up(c)) count_enet(chip, c, seconds);
    }
    last_us_ = to_us;
}

void pmon_model::trigger(UINT32 count, UINT64 at_us)
{
    triggers_ += count;
    const bool acc = cfg_.accumulate_enable != 0;
    for (auto& c : enet_)
        c.trigger(acc, triggers_, at_us);
    ilkn_intf_.trigger(acc, triggers_, at_us);
    for (auto& c : ilkn_pkt_)
        c.trigger(acc, triggers_, at_us);
    for (auto& c : flexe_client_)
        c.trigger(acc, triggers_, at_us);
    for (auto& c : flexe_group_)
        c.trigger(acc, triggers_, at_us);
}

UINT32 pmon_model::run(const chip_view& chip, UINT64 now_us)
{
    UINT32 fired = 0;
    if (cfg_.auto_trigger && now_us >= next_trigger_us_) {
        // Only the last period due matters to what the host reads: the ones
        // before it are counted in one step.
        const UINT64 period = UINT64(cfg_.trigger_period_ms) * 1000;
        const UINT64 skipped = (now_us - next_trigger_us_) / period;
        const UINT64 last = next_trigger_us_ + skipped * period;
        if (skipped) {
            step(chip, last - period);
            trigger(UINT32(skipped), last - period);
        }
        step(chip, last);
        trigger(1, last);
        next_trigger_us_ = last + period;
        fired = UINT32(skipped + 1);
    }
    step(chip, now_us);
    return fired;
}

VELT_ERROR pmon_model::manual_trigger(UINT64 now_us)
{
    if (cfg_.auto_trigger) return PMON_ERR_MANUAL_TRIGGER_DISABLED;
    trigger(1, now_us);
    return VELT_SUCCESS;
}

template <class T> void pmon_model::read(pmon_counters& c, bool reset, UINT64 now_us, T& out)
{
    c.write(reinterpret_cast<UINT8*>(&out), sizeof(T));
    if (reset) c.reset(now_us);
}

VELT_ERROR pmon_model::enet_port_get(const chip_view& chip, UINT32 chnl, bool reset, UINT64 now_us,
                                     kavo_pmon_enet_port_segment_t& out)
{
    if (chnl >= KAVO_NUM_CHANNELS || !chip.enet_port(chnl)) return PMON_ERR_INVALID_CHNL_ID;
    step(chip, now_us);
    read(enet_[chnl], reset, now_us, out);
    return VELT_SUCCESS;
}

VELT_ERROR pmon_model::ilkn_intf_get(bool reset, UINT64 now_us, kavo_pmon_ilkn_intf_t& out)
{
    read(ilkn_intf_, reset, now_us, out);
    return VELT_SUCCESS;
}

VELT_ERROR pmon_model::ilkn_pkt_get(UINT32 chnl, bool reset, UINT64 now_us, kavo_pmon_ilkn_pkt_t& out)
{
    if (chnl >= ILKN_PKT_CHANNELS) return PMON_ERR_INVALID_CHNL_ID;
    read(ilkn_pkt_[chnl], reset, now_us, out);
    return VELT_SUCCESS;
}

VELT_ERROR pmon_model::flexe_client_get(UINT32 client, bool reset, UINT64 now_us, kavo_pmon_flexe_client_t& out)
{
    if (client >= FLEXE_CLIENTS) return PMON_ERR_INVALID_CHNL_ID;
    read(flexe_client_[client], reset, now_us, out);
    return VELT_SUCCESS;
}

VELT_ERROR pmon_model::flexe_group_get(UINT32 group, bool reset, UINT64 now_us, kavo_pmon_flexe_group_t& out)
{
    if (group >= FLEXE_GROUPS) return PMON_ERR_INVALID_CHNL_ID;
    read(flexe_group_[group], reset, now_us, out);
    return VELT_SUCCESS;
}

void pmon_model::advance(firmware& fw, UINT64 now_us)
{
    // A device configuration brings its own counter settings.
    if (fw.device.configured && !adopted_) configure(fw.device.config.pmon, now_us);
    adopted_ = fw.device.configured;
    if (run(firmware_view(fw), now_us)) fw.raise_ipi(VELT_IPI_PMON_TRIGGER);
}

// Handlers.

namespace {

void cfg(firmware& fw, const request& req, reply& rep)
{
    kavo_pmon_cfg_t c;
    if (req.data.size() != sizeof(c) || !req.payload(c)) {
        rep.result = PMON_ERR_INVALID_PARAMS;
        return;
    }
    rep.result = fw.model.pmon.configure(c, fw.now_us());
}

void cfg_get(firmware& fw, const request&, reply& rep) { rep.record(fw.model.pmon.config()); }

void manual_trigger(firmware& fw, const request&, reply& rep)
{
    rep.result = fw.model.pmon.manual_trigger(fw.now_us());
    if (rep.result == VELT_SUCCESS) fw.raise_ipi(VELT_IPI_PMON_TRIGGER);
}

template <class T, class F> void counters_get(const request& req, reply& rep, F read)
{
    if (req.info.flag > 1) {
        rep.result = PMON_ERR_INVALID_PARAMS;
        return;
    }
    T out;
    rep.result = read(out, req.info.flag != 0);
    if (rep.result == VELT_SUCCESS) rep.record(out);
}

void enet_port_get(firmware& fw, const request& req, reply& rep)
{
    counters_get<kavo_pmon_enet_port_segment_t>(req, rep, [&](auto& out, bool reset) {
        return fw.model.pmon.enet_port_get(firmware_view(fw), req.info.element_id, reset, fw.now_us(), out);
    });
}

void ilkn_intf_get(firmware& fw, const request& req, reply& rep)
{
    counters_get<kavo_pmon_ilkn_intf_t>(
        req, rep, [&](auto& out, bool reset) { return fw.model.pmon.ilkn_intf_get(reset, fw.now_us(), out); });
}

void ilkn_pkt_get(firmware& fw, const request& req, reply& rep)
{
    counters_get<kavo_pmon_ilkn_pkt_t>(req, rep, [&](auto& out, bool reset) {
        return fw.model.pmon.ilkn_pkt_get(req.info.element_id, reset, fw.now_us(), out);
    });
}

void flexe_client_get(firmware& fw, const request& req, reply& rep)
{
    counters_get<kavo_pmon_flexe_client_t>(req, rep, [&](auto& out, bool reset) {
        return fw.model.pmon.flexe_client_get(req.info.element_id, reset, fw.now_us(), out);
    });
}

void flexe_group_get(firmware& fw, const request& req, reply& rep)
{
    counters_get<kavo_pmon_flexe_group_t>(req, rep, [&](auto& out, bool reset) {
        return fw.model.pmon.flexe_group_get(req.info.element_id, reset, fw.now_us(), out);
    });
}

constexpr handler HANDLERS[] = {
    {KAVO_HTL_OPERATION_PMON_CFG, "pmon_cfg", cfg},
    {KAVO_HTL_OPERATION_PMON_CFG_GET, "pmon_cfg_get", cfg_get},
    {KAVO_HTL_OPERATION_PMON_MANUAL_TRIGGER, "pmon_manual_trigger", manual_trigger},
    {KAVO_HTL_OPERATION_PMON_ILKN_INTF_GET, "pmon_ilkn_intf_get", ilkn_intf_get},
    {KAVO_HTL_OPERATION_PMON_ILKN_PKT_GET, "pmon_ilkn_pkt_get", ilkn_pkt_get},
    {KAVO_HTL_OPERATION_PMON_ENET_PORT_GET, "pmon_enet_port_get", enet_port_get},
    {KAVO_HTL_OPERATION_PMON_FLEXE_CLIENT_GET, "pmon_flexe_client_get", flexe_client_get},
    {KAVO_HTL_OPERATION_PMON_FLEXE_GROUP_GET, "pmon_flexe_group_get", flexe_group_get},
};

} // namespace

std::span<const handler> pmon_handlers() { return HANDLERS; }

} // namespace kavo_sim::fw
