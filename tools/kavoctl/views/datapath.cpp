// kavoctl's views of the datapath family: the channel table and the common
// steps of bringing up Ethernet ports (provision, connect, loop back).
#include <cstdio>
#include <algorithm>
#include <cctype>
#include <cstring>

#include "catalogue.h"
#include "kavo_sim/image.h"
#include "kavoctl.h"

namespace kavoctl {
namespace {

constexpr UINT32 NONE = 0xFFFFFFFF;

const enum_info* find_enum(const char* name)
{
    for (size_t i = 0; i < NUM_ENUMS; ++i)
        if (std::strcmp(ENUMS[i]->name, name) == 0) return ENUMS[i];
    return nullptr;
}

template <class T> bool parse_as(const char* type, const std::string& text, T& out)
{
    UINT32 v = 0;
    const enum_info* e = find_enum(type);
    if (e == nullptr || !parse_enum(*e, text, v)) return false;
    out = T(v);
    return true;
}

bool parse_channel(const std::string& text, UINT32& chnl)
{
    return kavo_sim::parse_u32(text.c_str(), chnl) && chnl < KAVO_NUM_CHANNELS;
}

/* The lane signalling a port mode runs on. */
kavo_serdes_pin_mode_t pin_mode_of(kavo_enet_port_mode_t mode)
{
    switch (mode) {
    case KAVO_ENET_PORT_MODE_1GE:
    case KAVO_ENET_PORT_MODE_10GE:
    case KAVO_ENET_PORT_MODE_40GE_4X10G: return KAVO_SERDES_PIN_MODE_10G_NRZ;
    case KAVO_ENET_PORT_MODE_25GE:
    case KAVO_ENET_PORT_MODE_50GE_2X25G:
    case KAVO_ENET_PORT_MODE_100GE_4X25G: return KAVO_SERDES_PIN_MODE_25G_NRZ;
    case KAVO_ENET_PORT_MODE_100GE_1X100G:
    case KAVO_ENET_PORT_MODE_200GE_2X100G:
    case KAVO_ENET_PORT_MODE_400GE_4X100G: return KAVO_SERDES_PIN_MODE_100G_PAM4;
    default: return KAVO_SERDES_PIN_MODE_50G_PAM4;
    }
}

int done(const settings& s, VELT_ERROR rc, const char* what)
{
    if (s.json) {
        print_json(result_json(rc));
        return rc == VELT_SUCCESS ? 0 : 1;
    }
    return finish(rc, what);
}

/* One row of the channel table. */
struct channel_row {
    UINT32 chnl;
    kavo_segment_type_t type;
    bool enet = false;
    kavo_enet_cfg_get_t cfg;
    kavo_enet_status_t status;
    kavo_loopback_t loopback = KAVO_LOOPBACK_NONE;
    BOOL32 rx = 0, tx = 0;
};

VELT_ERROR read_row(UINT32 device, channel_row& r)
{
    if (r.type == KAVO_SEGMENT_TYPE_UNUSED) return VELT_SUCCESS;
    VELT_ERROR rc = kavo_connect_get(device, r.chnl, &r.rx, &r.tx);
    if (rc == VELT_SUCCESS) rc = kavo_loopback_status_get(device, r.chnl, &r.loopback);
    r.enet = r.type == KAVO_SEGMENT_TYPE_ENET_PORT || r.type == KAVO_SEGMENT_TYPE_ENET_ANLT;
    if (rc == VELT_SUCCESS && r.enet) rc = kavo_enet_cfg_get(device, r.chnl, &r.cfg);
    if (rc == VELT_SUCCESS && r.enet) rc = kavo_enet_status_get(device, r.chnl, &r.status);
    return rc;
}

std::string lanes_text(const kavo_enet_cfg_get_t& c)
{
    std::string t;
    for (UINT32 i = 0; i < c.num_serdes_lanes && i < KAVO_ENET_MAX_SERDES_LANES; ++i)
        t += (i ? "," : "") + std::to_string(c.serdes_lanes[i]);
    return t;
}

nlohmann::json row_json(const channel_row& r)
{
    nlohmann::json j;
    j["chnl"] = r.chnl;
    j["type"] = kavo_segment_type_t_suffix_print(r.type);
    if (r.type == KAVO_SEGMENT_TYPE_UNUSED) return j;
    j["rx_connect"] = r.rx != 0;
    j["tx_connect"] = r.tx != 0;
    j["loopback"] = kavo_loopback_t_suffix_print(r.loopback);
    if (!r.enet) return j;
    j["mode"] = kavo_enet_port_mode_t_suffix_print(r.cfg.mode);
    j["prov_mode"] = kavo_enet_prov_mode_t_suffix_print(r.cfg.prov_mode);
    j["fec"] = kavo_enet_fec_mode_t_suffix_print(r.cfg.fec_mode);
    nlohmann::json lanes = nlohmann::json::array();
    for (UINT32 i = 0; i < r.cfg.num_serdes_lanes && i < KAVO_ENET_MAX_SERDES_LANES; ++i)
        lanes.push_back(r.cfg.serdes_lanes[i]);
    j["lanes"] = lanes;
    j["link_up"] = r.status.link_up != 0;
    return j;
}

int cmd_show(const settings& s, const args_t& args)
{
    if (args.size() != 1 || args[0] != "show") return usage_error("datapath show");
    if (int failed = device_ready(s)) return failed;
    kavo_chnl_info_t info;
    VELT_ERROR rc = kavo_device_chnl_get(s.device, &info);
    channel_row rows[KAVO_NUM_CHANNELS];
    for (UINT32 c = 0; c < KAVO_NUM_CHANNELS && rc == VELT_SUCCESS; ++c) {
        rows[c].chnl = c;
        rows[c].type = info.info[c];
        rc = read_row(s.device, rows[c]);
    }
    if (s.json) {
        nlohmann::json doc = result_json(rc);
        if (rc == VELT_SUCCESS) {
            nlohmann::json list = nlohmann::json::array();
            for (const auto& r : rows) list.push_back(row_json(r));
            doc["channels"] = list;
        }
        print_json(doc);
        return rc == VELT_SUCCESS ? 0 : 1;
    }
    if (rc != VELT_SUCCESS) return finish(rc, "datapath show");
    std::printf("%-5s %-12s %-14s %-23s %-9s %-5s %-3s %-3s %s\n", "chnl", "type", "mode", "lanes", "fec", "link",
                "rx", "tx", "loopback");
    for (const auto& r : rows) {
        if (r.type == KAVO_SEGMENT_TYPE_UNUSED) {
            std::printf("%-5u %s\n", r.chnl, "-");
            continue;
        }
        std::printf("%-5u %-12s %-14s %-23s %-9s %-5s %-3s %-3s %s\n", r.chnl, kavo_segment_type_t_suffix_print(r.type),
                    r.enet ? kavo_enet_port_mode_t_suffix_print(r.cfg.mode) : "-",
                    r.enet ? lanes_text(r.cfg).c_str() : "-",
                    r.enet ? kavo_enet_fec_mode_t_suffix_print(r.cfg.fec_mode) : "-",
                    r.enet ? (r.status.link_up ? "up" : "down") : "-", r.rx ? "yes" : "no", r.tx ? "yes" : "no",
                    kavo_loopback_t_suffix_print(r.loopback));
    }
    return 0;
}

/* enet prov CHNL MODE LANES FEC [PROV_MODE] [PHY]: LANES is the first lane, or every lane separated by commas. */
int cmd_enet(const settings& s, const args_t& args)
{
    const char* usage = "enet prov CHNL MODE LANE[,LANE...] FEC [PROV_MODE] [PHY]";
    if (args.size() < 5 || args.size() > 7 || args[0] != "prov") return usage_error(usage);
    UINT32 chnl = 0, phy = NONE;
    kavo_enet_port_mode_t mode;
    kavo_enet_fec_mode_t fec;
    kavo_enet_prov_mode_t prov_mode = KAVO_ENET_PROV_MODE_MAC;
    if (!parse_channel(args[1], chnl)) return usage_error("bad channel " + args[1]);
    if (!parse_as("kavo_enet_port_mode_t", args[2], mode)) return usage_error("unknown port mode " + args[2]);
    if (!parse_as("kavo_enet_fec_mode_t", args[4], fec)) return usage_error("unknown FEC " + args[4]);
    if (args.size() > 5 && !parse_as("kavo_enet_prov_mode_t", args[5], prov_mode))
        return usage_error("unknown provisioning mode " + args[5]);
    if (args.size() > 6 && !kavo_sim::parse_u32(args[6].c_str(), phy)) return usage_error("bad PHY " + args[6]);
    UINT32 lanes[KAVO_ENET_MAX_SERDES_LANES];
    std::fill(std::begin(lanes), std::end(lanes), NONE);
    UINT32 n = 0;
    for (size_t at = 0; at <= args[3].size();) {
        const size_t comma = std::min(args[3].find(',', at), args[3].size());
        if (n == KAVO_ENET_MAX_SERDES_LANES || !kavo_sim::parse_u32(args[3].substr(at, comma - at).c_str(), lanes[n]))
            return usage_error("bad lanes " + args[3]);
        ++n;
        at = comma + 1;
    }
    if (int failed = device_ready(s)) return failed;
    const kavo_serdes_pin_mode_t pin = pin_mode_of(mode);
    const VELT_ERROR rc = n == 1 ? kavo_enet_prov(s.device, chnl, phy, lanes[0], pin, mode, prov_mode, fec)
                                 : kavo_enet_super_prov(s.device, chnl, phy, lanes, pin, mode, prov_mode, fec);
    return done(s, rc, "enet prov");
}

/* connect SRC DST | connect both LINE | connect none DST */
int cmd_connect(const settings& s, const args_t& args)
{
    const char* usage = "connect SRC DST | connect both LINE | connect none DST";
    UINT32 a = 0, b = 0;
    if (args.size() != 2) return usage_error(usage);
    if (!parse_channel(args[1], b)) return usage_error("bad channel " + args[1]);
    const bool both = args[0] == "both", none = args[0] == "none";
    if (!both && !none && !parse_channel(args[0], a)) return usage_error("bad channel " + args[0]);
    if (int failed = device_ready(s)) return failed;
    const VELT_ERROR rc = both ? kavo_bidirectional_connect(s.device, b)
                          : none ? kavo_disconnect(s.device, b)
                                 : kavo_connect(s.device, a, b);
    return done(s, rc, "connect");
}

/* loopback CHNL [none | host | line]: without a kind, shows the channel's loopback. */
int cmd_loopback(const settings& s, const args_t& args)
{
    UINT32 chnl = 0;
    kavo_loopback_t mode = KAVO_LOOPBACK_NONE;
    if (args.empty() || args.size() > 2) return usage_error("loopback CHNL [none|host|line]");
    if (!parse_channel(args[0], chnl)) return usage_error("bad channel " + args[0]);
    std::string kind = args.size() == 2 ? args[1] : "";
    for (char& ch : kind) ch = char(std::toupper(static_cast<unsigned char>(ch)));
    if (args.size() == 2 && !parse_as("kavo_loopback_t", kind, mode)) return usage_error("unknown loopback " + args[1]);
    if (int failed = device_ready(s)) return failed;
    if (args.size() == 2) return done(s, kavo_loopback_set(s.device, chnl, mode), "loopback");
    const VELT_ERROR rc = kavo_loopback_status_get(s.device, chnl, &mode);
    if (s.json) {
        nlohmann::json doc = result_json(rc);
        if (rc == VELT_SUCCESS) doc["loopback"] = kavo_loopback_t_suffix_print(mode);
        print_json(doc);
        return rc == VELT_SUCCESS ? 0 : 1;
    }
    if (rc == VELT_SUCCESS) std::printf("channel %u: loopback %s\n", chnl, kavo_loopback_t_suffix_print(mode));
    return finish(rc, "loopback");
}

const verb VERBS[] = {
    {"datapath", "show", "the 48 channels: kind, mode, lanes, FEC, link, connections, loopback", cmd_show},
    {"enet", "prov CHNL MODE LANE[,LANE...] FEC [PROV_MODE] [PHY]", "provision an Ethernet port", cmd_enet},
    {"connect", "SRC DST | both LINE | none DST", "connect, connect both ways, or disconnect channels", cmd_connect},
    {"loopback", "CHNL [none|host|line]", "set or show a channel's loopback", cmd_loopback},
};

} // namespace

std::span<const verb> datapath_verbs() { return VERBS; }

} // namespace kavoctl
