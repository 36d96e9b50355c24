// kavoctl's views of the flexe family: FlexE groups with their calendars drawn
// as slot maps, the Interlaken interface, and the PTP time of day.
#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

#include "kavoctl.h"

namespace kavoctl {
namespace {

const char* pin_mode_name(kavo_flexe_pin_mode_t m) { return kavo_flexe_pin_mode_t_suffix_print(m); }

/* Slots per client channel in one calendar of a slot map. */
std::map<UINT32, UINT32> clients_of(const UINT8 (&calendar)[80])
{
    std::map<UINT32, UINT32> slots;
    for (UINT8 c : calendar)
        if (c < KAVO_NUM_CHANNELS) ++slots[c];
    return slots;
}

/* One calendar as rows of 20 slots per instance: the client's channel, "." free, "x" unavailable. */
void draw_calendar(const char* direction, UINT32 which, bool in_use, const UINT8 (&calendar)[80], UINT32 instances)
{
    std::printf("  %s calendar %c%s\n", direction, "AB"[which], in_use ? " (in use)" : "");
    for (UINT32 w = 0; w < instances; ++w) {
        std::printf("    %u:", w);
        for (UINT32 s = 0; s < KAVO_FLEXE_SLOTS_PER_INSTANCE; ++s) {
            const UINT8 c = calendar[w * KAVO_FLEXE_SLOTS_PER_INSTANCE + s];
            if (c < KAVO_NUM_CHANNELS) std::printf(" %2u", c);
            else std::printf(" %2s", c == 0xFF ? "." : "x");
        }
        std::printf("\n");
    }
}

void show_group(UINT32 chnl, const kavo_flexe_group_cfg_t& cfg, const kavo_flexe_group_status_t& st)
{
    std::printf("flexe group %u: group numbers %u (tx) %u (rx), %u PHYs, %u slots, %s\n", chnl,
                cfg.group_info.flexe_group_number_tx, cfg.group_info.flexe_group_number_rx, cfg.num_phys,
                st.num_slots, st.group_aligned ? "aligned" : "not aligned");
    UINT32 instances = 0;
    for (UINT32 i = 0; i < cfg.num_phys && i < KAVO_FLEXE_MAX_PHYS; ++i) {
        const kavo_flexe_phy_t& p = cfg.phys[i];
        const kavo_flexe_phy_status_t& ps = st.phy_status[i];
        std::printf("  PHY %u: %s from SerDes port %u, PHY numbers %u (tx) %u (rx), %s\n", p.phy_id,
                    pin_mode_name(p.pin_mode), p.serdes_port_id, p.phy_data_tx.flexe_phy_number,
                    p.phy_data_rx.flexe_phy_number,
                    ps.aligned ? "aligned" : ps.signal_present ? "signal, not aligned" : "no signal");
        instances += p.pin_mode == KAVO_FLEXE_PIN_MODE_400G_8_LANES   ? 4
                     : p.pin_mode == KAVO_FLEXE_PIN_MODE_200G_4_LANES ? 2
                                                                      : 1;
    }
    instances = instances > KAVO_FLEXE_MAX_INSTANCES ? KAVO_FLEXE_MAX_INSTANCES : instances;
    const struct {
        const char* name;
        UINT32 in_use;
        const UINT8 (*calendars)[80];
    } dirs[] = {{"tx", UINT32(st.tx_calendar_in_use), st.tx_slot_client},
                 {"rx", UINT32(st.rx_calendar_in_use), st.rx_slot_client}};
    for (const auto& d : dirs)
        for (UINT32 c = 0; c < 2; ++c)
            draw_calendar(d.name, c, d.in_use == c, d.calendars[c], instances);
    if (st.switch_pending) std::printf("  switch to the other calendars in %u ms\n", st.switch_remaining_ms);
    const auto now = clients_of(st.tx_slot_client[st.tx_calendar_in_use & 1]);
    const auto next = clients_of(st.tx_slot_client[1 - (st.tx_calendar_in_use & 1)]);
    for (const auto& [client, slots] : next) {
        const bool carried = now.count(client) != 0;
        std::printf("  client %u: %u slots, %uG%s\n", client, slots, slots * KAVO_FLEXE_SLOT_GBPS,
                    carried ? "" : " (after the switch)");
    }
}

int cmd_flexe(const settings& s, const args_t& args)
{
    if (args.size() != 1 || args[0] != "show") return usage_error("flexe show");
    if (int failed = device_ready(s)) return failed;
    kavo_chnl_info_t chnls;
    VELT_ERROR rc = kavo_device_chnl_get(s.device, &chnls);
    nlohmann::json groups = nlohmann::json::array();
    for (UINT32 k = 0; rc == VELT_SUCCESS && k < KAVO_NUM_CHANNELS; ++k) {
        if (chnls.info[k] != KAVO_SEGMENT_TYPE_FLEXE_GROUP) continue;
        kavo_flexe_group_cfg_t cfg;
        kavo_flexe_group_status_t st;
        rc = kavo_flexe_group_config_get(s.device, k, &cfg);
        if (rc == VELT_SUCCESS) rc = kavo_flexe_group_status_get(s.device, k, &st);
        if (rc != VELT_SUCCESS) break;
        if (!s.json) {
            show_group(k, cfg, st);
            continue;
        }
        nlohmann::json clients = nlohmann::json::object();
        for (const auto& [client, slots] : clients_of(st.tx_slot_client[1 - (st.tx_calendar_in_use & 1)]))
            clients[std::to_string(client)] = {{"slots", slots}, {"gbps", slots * KAVO_FLEXE_SLOT_GBPS}};
        groups.push_back({{"chnl", k},
                          {"config", record_json("kavo_flexe_group_cfg_t", cfg)},
                          {"status", record_json("kavo_flexe_group_status_t", st)},
                          {"clients", clients}});
    }
    if (s.json) {
        nlohmann::json doc = result_json(rc);
        doc["groups"] = groups;
        print_json(doc);
        return rc == VELT_SUCCESS ? 0 : 1;
    }
    if (rc == VELT_SUCCESS &&
        std::count(chnls.info, chnls.info + KAVO_NUM_CHANNELS, KAVO_SEGMENT_TYPE_FLEXE_GROUP) == 0)
        std::printf("no flexe groups\n");
    return finish(rc, "flexe show");
}

std::string lane_list(const UINT32 (&ports)[24])
{
    std::string out;
    for (UINT32 p : ports)
        if (p != 0xFFFFFFFF) out += (out.empty() ? "" : ",") + std::to_string(p);
    return out.empty() ? "none" : out;
}

int cmd_ilkn(const settings& s, const args_t& args)
{
    if (args.size() != 1 || args[0] != "show") return usage_error("ilkn show");
    if (int failed = device_ready(s)) return failed;
    kavo_config_t cfg;
    kavo_ilkn_intf_status_t st;
    kavo_chnl_info_t chnls;
    VELT_ERROR rc = kavo_device_config_get(s.device, &cfg);
    if (rc == VELT_SUCCESS) rc = kavo_device_chnl_get(s.device, &chnls);
    if (rc == VELT_SUCCESS) rc = kavo_ilkn_intf_status_get(s.device, &st);
    nlohmann::json pkt = nlohmann::json::array();
    for (UINT32 k = 0; rc == VELT_SUCCESS && k < KAVO_NUM_CHANNELS; ++k)
        if (chnls.info[k] == KAVO_SEGMENT_TYPE_ILKN_PKT) pkt.push_back(k);
    if (s.json) {
        nlohmann::json doc = result_json(rc);
        if (rc == VELT_SUCCESS) {
            doc["intf_cfg"] = record_json("kavo_ilkn_intf_cfg_t", cfg.ilkn_intf);
            doc["lane_cfg"] = record_json("kavo_ilkn_lane_cfg_t", cfg.ilkn_lane);
            doc["status"] = record_json("kavo_ilkn_intf_status_t", st);
            doc["pkt_chnls"] = pkt;
        }
        print_json(doc);
        return rc == VELT_SUCCESS ? 0 : 1;
    }
    if (rc != VELT_SUCCESS) return finish(rc, "ilkn show");
    std::printf("ilkn interface: %s, %u lanes at %s on SerDes ports %s\n", st.intf_up ? "up" : "down", st.num_lanes,
                kavo_ilkn_rate_mode_t_suffix_print(kavo_ilkn_rate_mode_t(cfg.ilkn_lane.rate_mode)),
                lane_list(cfg.ilkn_lane.serdes_port_ids_tx).c_str());
    std::printf("  word lock 0x%06x, metaframe lock 0x%06x, lanes %s\n", st.word_lock, st.metaframe_lock,
                st.lane_aligned ? "aligned" : "not aligned");
    std::printf("  metaframe %s words, burst max %u, burst min %u, flow control %s, calendars %u (tx) %u (rx) of %u\n",
                kavo_ilkn_mf_t_suffix_print(kavo_ilkn_mf_t(cfg.ilkn_intf.metaframe)), cfg.ilkn_intf.burst_max * 32,
                cfg.ilkn_intf.burst_min == KAVO_ILKN_BURST_MIN_NONE ? 0 : cfg.ilkn_intf.burst_min * 32,
                cfg.ilkn_intf.fc_enable ? "on" : "off", st.tx_fc_cal_len, st.rx_fc_cal_len, cfg.ilkn_intf.fc_cal_length);
    std::printf("  loopback %s\n", kavo_ilkn_loopback_t_suffix_print(st.loopback));
    std::printf("  packet channels:");
    for (const auto& k : pkt)
        std::printf(" %u", k.get<UINT32>());
    std::printf("%s\n", pkt.empty() ? " none" : "");
    return 0;
}

/* "SECONDS[.FRACTION]" into a time of day; false when it is not one. */
bool parse_tod(const std::string& text, kavo_ptp_tod_t& tod)
{
    const size_t dot = text.find('.');
    const std::string sec = text.substr(0, dot), frac = dot == std::string::npos ? "" : text.substr(dot + 1);
    if (sec.empty() || sec.find_first_not_of("0123456789") != std::string::npos || frac.size() > 9 ||
        frac.find_first_not_of("0123456789") != std::string::npos || (dot != std::string::npos && frac.empty()))
        return false;
    errno = 0;
    const unsigned long long s = std::strtoull(sec.c_str(), nullptr, 10);
    if (errno != 0 || s >> 48 != 0) return false;
    UINT32 ns = 0;
    for (size_t i = 0; i < 9; ++i)
        ns = ns * 10 + (i < frac.size() ? UINT32(frac[i] - '0') : 0);
    tod.sec_hi = UINT32(s >> 32);
    tod.sec_lo = UINT32(s);
    tod.nsec = ns;
    return true;
}

int cmd_ptp(const settings& s, const args_t& args)
{
    kavo_ptp_tod_t tod;
    const bool set = args.size() == 3 && args[0] == "tod" && args[1] == "set";
    if (!(args.size() == 1 && args[0] == "tod") && !set) return usage_error("ptp tod [set SECONDS[.FRACTION]]");
    if (set && !parse_tod(args[2], tod)) return usage_error("bad time of day " + args[2] + " (SECONDS[.FRACTION], below 2^48 s)");
    if (int failed = device_ready(s)) return failed;
    VELT_ERROR rc = set ? kavo_ptp_tod_set(s.device, &tod) : VELT_ERROR(VELT_SUCCESS);
    if (rc == VELT_SUCCESS) rc = kavo_ptp_tod_get(s.device, &tod);
    const UINT64 seconds = (UINT64(tod.sec_hi) << 32) | tod.sec_lo;
    if (s.json) {
        nlohmann::json doc = result_json(rc);
        if (rc == VELT_SUCCESS) {
            doc["tod"] = record_json("kavo_ptp_tod_t", tod);
            doc["seconds"] = seconds;
            doc["nanoseconds"] = tod.nsec;
        }
        print_json(doc);
        return rc == VELT_SUCCESS ? 0 : 1;
    }
    if (rc == VELT_SUCCESS) std::printf("%" PRIu64 ".%09u\n", seconds, tod.nsec);
    return finish(rc, set ? "ptp tod set" : "ptp tod");
}

constexpr verb VERBS[] = {
    {"flexe", "show", "FlexE groups: PHYs, alignment and the slot maps of calendars A and B", cmd_flexe},
    {"ilkn", "show", "the Interlaken interface: lanes, lock, calendars, loopback, packet channels", cmd_ilkn},
    {"ptp", "tod [set SECONDS[.FRACTION]]", "the PTP time of day, set first when a value is given", cmd_ptp},
};

} // namespace

std::span<const verb> flexe_verbs() { return VERBS; }

} // namespace kavoctl
