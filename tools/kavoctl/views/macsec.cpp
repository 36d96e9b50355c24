// kavoctl's views of the macsec family: what the engines hold per channel
// (vports, rules, SAs with association number, next PN and whether in use),
// and their counters. Key material shows as hex strings in transmission order.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "kavo_sim/image.h"
#include "kavoctl.h"

namespace kavoctl {
namespace {

std::string hex_of(const void* data, size_t size)
{
    static const char DIGITS[] = "0123456789ABCDEF";
    std::string out;
    for (size_t i = 0; i < size; ++i) {
        const UINT8 b = static_cast<const UINT8*>(data)[i];
        out += DIGITS[b >> 4];
        out += DIGITS[b & 15];
    }
    return out;
}

std::string suite_of(UINT32 flags)
{
    std::string s = flags & KAVO_MACSEC_SA_SN_SIZE_64 ? "GCM-AES-XPN-" : "GCM-AES-";
    s += flags & KAVO_MACSEC_SA_KEY_SIZE_256 ? "256" : "128";
    if (!(flags & KAVO_MACSEC_SA_ENC_AUTH_AES_GCM)) s += " integrity only";
    return s;
}

/* The channels a verb looks at: the one given, or all of them. */
bool channels_of(const args_t& args, UINT32& first, UINT32& last)
{
    first = 0, last = KAVO_NUM_CHANNELS - 1;
    if (args.size() < 2) return true;
    if (args.size() > 2 || !kavo_sim::parse_u32(args[1].c_str(), first) || first >= KAVO_NUM_CHANNELS) return false;
    last = first;
    return true;
}

/* One SA as shown: the record read back and its state. */
nlohmann::json sa_json(UINT32 device, UINT32 id, bool in_use, VELT_ERROR& rc)
{
    kavo_macsec_sa_config_t sa;
    nlohmann::json j;
    rc = kavo_macsec_sa_read(device, id, &sa);
    if (rc != VELT_SUCCESS) return j;
    const bool xpn = sa.flags & KAVO_MACSEC_SA_SN_SIZE_64;
    j["id"] = id;
    j["an"] = (sa.flags >> 7) & 3;
    j["next_pn"] = (UINT64(sa.seq_num_hi) << 32) | sa.seq_num_lo;
    j["suite"] = suite_of(sa.flags);
    j["in_use"] = in_use;
    j["key"] = hex_of(sa.crypt_key, sa.flags & KAVO_MACSEC_SA_KEY_SIZE_256 ? 32 : 16);
    j["sci"] = hex_of(sa.sci, 8);
    if (xpn) j["ssci"] = sa.ssci, j["salt"] = hex_of(sa.salt, 12);
    j["window_size"] = sa.window_size;
    return j;
}

/* Everything the engines of the chosen channels hold; rc the first failure. */
nlohmann::json engines(UINT32 device, UINT32 first, UINT32 last, VELT_ERROR& rc)
{
    nlohmann::json channels = nlohmann::json::array();
    rc = VELT_SUCCESS;
    for (UINT32 ch = first; ch <= last && rc == VELT_SUCCESS; ++ch) {
        kavo_macsec_channel_vport_list_t list;
        if ((rc = kavo_macsec_chnl_vport_get(device, ch, &list)) != VELT_SUCCESS || list.num_vports == 0) continue;
        nlohmann::json vports = nlohmann::json::array();
        for (UINT32 i = 0; i < list.num_vports && rc == VELT_SUCCESS; ++i) {
            const UINT32 id = list.vport_ids[i];
            kavo_macsec_vport_read_params_t v;
            kavo_macsec_vport_rule_list_t rules;
            kavo_macsec_vport_sa_list_t sas;
            if ((rc = kavo_macsec_vport_read(device, id, &v)) != VELT_SUCCESS ||
                (rc = kavo_macsec_vport_rule_get(device, id, &rules)) != VELT_SUCCESS ||
                (rc = kavo_macsec_vport_sa_get(device, id, &sas)) != VELT_SUCCESS)
                break;
            nlohmann::json vp = {{"id", id}, {"direction", kavo_macsec_device_direction_t_suffix_print(v.direction)},
                                 {"key", v.vport_key}, {"config", record_json("kavo_macsec_vport_config_t", v.config)}};
            vp["rules"] = nlohmann::json::array();
            for (UINT32 r = 0; r < rules.num_rules && rc == VELT_SUCCESS; ++r) {
                kavo_macsec_rule_config_t rule;
                if ((rc = kavo_macsec_rule_read(device, rules.rule_ids[r], &rule)) == VELT_SUCCESS)
                    vp["rules"].push_back({{"id", rules.rule_ids[r]}, {"config", record_json("kavo_macsec_rule_config_t", rule)}});
            }
            vp["sas"] = nlohmann::json::array();
            for (UINT32 s = 0; s < sas.num_sas && rc == VELT_SUCCESS; ++s)
                vp["sas"].push_back(sa_json(device, sas.sa_ids[s], sas.sa_ids[s] == sas.active_sa_id, rc));
            vports.push_back(vp);
        }
        channels.push_back({{"channel", ch}, {"vports", vports}});
    }
    return channels;
}

void print_text(const nlohmann::json& channels)
{
    for (const auto& ch : channels) {
        std::printf("channel %u\n", ch["channel"].get<UINT32>());
        for (const auto& vp : ch["vports"]) {
            std::printf("  vport %u %s key 0x%x sec_tag_offset %u flags 0x%x\n", vp["id"].get<UINT32>(),
                        vp["direction"].get<std::string>().c_str(), vp["key"].get<UINT32>(),
                        vp["config"]["sec_tag_offset"].get<UINT32>(), vp["config"]["flags"].get<UINT32>());
            for (const auto& r : vp["rules"]) {
                const auto& c = r["config"];
                std::printf("    rule %u %s%s%s\n", r["id"].get<UINT32>(), c["packet_type"].get<std::string>().c_str(),
                            c["drop"].get<UINT32>() ? " drop" : "", c["control_packet"].get<UINT32>() ? " control" : "");
            }
            for (const auto& s : vp["sas"])
                std::printf("    sa %u an %u next_pn 0x%llx %s sci %s%s\n", s["id"].get<UINT32>(),
                            s["an"].get<UINT32>(), (unsigned long long)s["next_pn"].get<UINT64>(),
                            s["suite"].get<std::string>().c_str(), s["sci"].get<std::string>().c_str(),
                            s["in_use"].get<bool>() ? " in use" : "");
        }
    }
}

/* A counter record under a heading; the printers write through the library's callout. */
template <class T> void print_counts(const char* what, UINT32 id, const T& counts, void (*print)(const T*, kavo_pmon_print_sel_t))
{
    std::printf("%s %u\n", what, id);
    std::fflush(stdout);
    log_to(stdout);
    print(&counts, KAVO_PMON_PRINT_ALL_NON_ZERO);
    log_to(stderr);
}

/* Hex text (two digits a byte) into exactly `size` bytes. */
bool bytes_of(const std::string& text, void* out, size_t size)
{
    if (text.size() != 2 * size) return false;
    for (size_t i = 0; i < size; ++i) {
        UINT32 b = 0;
        if (!kavo_sim::parse_u32(("0x" + text.substr(2 * i, 2)).c_str(), b)) return false;
        static_cast<UINT8*>(out)[i] = UINT8(b);
    }
    return true;
}

/* macsec sa-add VPORT key=HEX ...: an SA from key material as published. */
int sa_add(const settings& st, const args_t& args)
{
    const char* USAGE = "macsec sa-add VPORT key=HEX [sci=HEX] [an=0..3] [pn=N] [ssci=N salt=HEX] [window=N] [integrity]";
    kavo_macsec_sa_config_t sa;
    UINT32 vport_id = 0, an = 0, window = 0;
    UINT64 pn = 1;
    bool key = false, salt = false;
    if (args.size() < 2 || !kavo_sim::parse_u32(args[1].c_str(), vport_id)) return usage_error(USAGE);
    for (size_t i = 2; i < args.size(); ++i) {
        const std::string& a = args[i];
        const size_t eq = a.find('=');
        const std::string name = a.substr(0, eq), value = eq == std::string::npos ? "" : a.substr(eq + 1);
        char* end = nullptr;
        bool ok = true;
        if (name == "key") {
            ok = key = bytes_of(value, sa.crypt_key, 16) || bytes_of(value, sa.crypt_key, 32);
            if (value.size() == 64) sa.flags |= KAVO_MACSEC_SA_KEY_SIZE_256;
        } else if (name == "sci") {
            ok = bytes_of(value, sa.sci, 8);
        } else if (name == "salt") {
            ok = salt = bytes_of(value, sa.salt, 12);
        } else if (name == "an") {
            ok = kavo_sim::parse_u32(value.c_str(), an) && an < 4;
        } else if (name == "ssci") {
            ok = kavo_sim::parse_u32(value.c_str(), sa.ssci);
        } else if (name == "window") {
            ok = kavo_sim::parse_u32(value.c_str(), window);
        } else if (name == "pn") {
            pn = std::strtoull(value.c_str(), &end, 0);
            ok = !value.empty() && end && *end == '\0';
        } else if (a == "integrity") {
            sa.flags &= ~UINT32(KAVO_MACSEC_SA_ENC_AUTH_AES_GCM);
        } else {
            ok = false;
        }
        if (!ok) return usage_error("bad " + a + ": " + USAGE);
    }
    if (!key) return usage_error(USAGE);
    if (salt) sa.flags |= KAVO_MACSEC_SA_SN_SIZE_64;
    sa.flags |= an << 7;
    sa.seq_num_lo = UINT32(pn), sa.seq_num_hi = UINT32(pn >> 32);
    sa.window_size = window;
    if (int failed = device_ready(st)) return failed;
    UINT32 id = 0;
    const VELT_ERROR rc = kavo_macsec_sa_add(st.device, vport_id, &sa, &id);
    if (st.json) {
        nlohmann::json doc = result_json(rc);
        if (rc == VELT_SUCCESS) doc["sa_id"] = id;
        print_json(doc);
        return rc == VELT_SUCCESS ? 0 : 1;
    }
    if (rc == VELT_SUCCESS) std::printf("sa %u\n", id);
    return finish(rc, "macsec sa-add");
}

/* macsec frame CHNL egress|ingress HEX [bypass=N]: one frame through an engine. */
int frame(const settings& st, const args_t& args)
{
    const char* USAGE = "macsec frame CHNL egress|ingress HEX [bypass=N]";
    UINT32 chnl = 0, bypass = 0;
    if (args.size() < 4 || args.size() > 5 || !kavo_sim::parse_u32(args[1].c_str(), chnl) ||
        (args[2] != "egress" && args[2] != "ingress") || args[3].size() % 2 != 0 ||
        (args.size() == 5 && (args[4].rfind("bypass=", 0) != 0 || !kavo_sim::parse_u32(args[4].c_str() + 7, bypass))))
        return usage_error(USAGE);
    std::vector<UINT8> in((args[3].size() / 2 + 3) & ~size_t(3)), out(in.size() + 64);
    if (!bytes_of(args[3], in.data(), args[3].size() / 2)) return usage_error(USAGE);
    if (int failed = device_ready(st)) return failed;
    UINT32 size = UINT32(out.size());
    const auto dir = args[2] == "egress" ? KAVO_MACSEC_EGRESS_DIRECTION : KAVO_MACSEC_INGRESS_DIRECTION;
    const VELT_ERROR rc =
        kavo_macsec_fips_test(st.device, chnl, dir, in.data(), UINT32(args[3].size() / 2), bypass, out.data(), &size);
    const std::string text = rc == VELT_SUCCESS ? hex_of(out.data(), size) : "";
    if (st.json) {
        nlohmann::json doc = result_json(rc);
        if (rc == VELT_SUCCESS) doc["frame"] = text;
        print_json(doc);
        return rc == VELT_SUCCESS ? 0 : 1;
    }
    if (rc == VELT_SUCCESS) std::printf("%s\n", size ? text.c_str() : "(dropped)");
    return finish(rc, "macsec frame");
}

int cmd_macsec(const settings& st, const args_t& args)
{
    if (!args.empty() && args[0] == "sa-add") return sa_add(st, args);
    if (!args.empty() && args[0] == "frame") return frame(st, args);
    UINT32 first = 0, last = 0;
    const bool show = !args.empty() && args[0] == "show", stats = !args.empty() && args[0] == "stats";
    if ((!show && !stats) || !channels_of(args, first, last))
        return usage_error("macsec show|stats [CHNL] | sa-add VPORT key=HEX ... | frame CHNL egress|ingress HEX");
    if (int failed = device_ready(st)) return failed;
    VELT_ERROR rc = VELT_SUCCESS;
    nlohmann::json channels = engines(st.device, first, last, rc);
    if (stats && rc == VELT_SUCCESS) {
        // The counters of each channel shown, and of its vports and SAs.
        for (auto& ch : channels) {
            kavo_stats_macsec_channel_t cs;
            if ((rc = kavo_macsec_chnl_stats_get(st.device, ch["channel"].get<UINT32>(), 0, &cs)) != VELT_SUCCESS) break;
            ch["stats"] = record_json("kavo_stats_macsec_channel_t", cs);
            if (!st.json) print_counts("channel", ch["channel"].get<UINT32>(), cs, kavo_stats_macsec_channel_t_print);
            for (auto& vp : ch["vports"]) {
                kavo_stats_macsec_vport_t vs;
                if ((rc = kavo_macsec_vport_stats_get(st.device, vp["id"].get<UINT32>(), 0, &vs)) != VELT_SUCCESS) break;
                vp["stats"] = record_json("kavo_stats_macsec_vport_t", vs);
                if (!st.json) print_counts("vport", vp["id"].get<UINT32>(), vs, kavo_stats_macsec_vport_t_print);
                for (auto& s : vp["sas"]) {
                    kavo_stats_macsec_sa_t ss;
                    if ((rc = kavo_macsec_sa_stats_get(st.device, s["id"].get<UINT32>(), 0, &ss)) != VELT_SUCCESS) break;
                    s["stats"] = record_json("kavo_stats_macsec_sa_t", ss);
                    if (!st.json) print_counts("sa", s["id"].get<UINT32>(), ss, kavo_stats_macsec_sa_t_print);
                }
            }
        }
    }
    if (st.json) {
        nlohmann::json doc = result_json(rc);
        doc["channels"] = channels;
        print_json(doc);
        return rc == VELT_SUCCESS ? 0 : 1;
    }
    if (show) print_text(channels);
    return finish(rc, args[0] == "show" ? "macsec show" : "macsec stats");
}

const verb VERBS[] = {
    {"macsec",
     "show|stats [CHNL] | sa-add VPORT key=HEX [sci=HEX] [an=0..3] [pn=N] [ssci=N salt=HEX] [window=N] [integrity]"
     " | frame CHNL egress|ingress HEX [bypass=N]",
     "the MACsec engines: vports, rules and SAs (AN, next PN, in use; keys in hex) or their counters; an SA from hex "
     "key material; one frame (hex, no FCS) through an engine, zero-padded to whole words",
     cmd_macsec},
};

} // namespace

std::span<const verb> macsec_verbs() { return VERBS; }

} // namespace kavoctl
