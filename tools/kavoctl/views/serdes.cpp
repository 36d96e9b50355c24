// kavoctl's views of the serdes family: lane overview and detail, a PRBS run,
// the 2-D eye as a text plot, and the microcode load.
#include <cctype>
#include <cstdio>
#include <string>

#include "kavo_sim/image.h"
#include "kavoctl.h"

namespace kavoctl {
namespace {

constexpr UINT32 NUM_PORTS = 48;
constexpr UINT32 DEFAULT_DEPTH = 6;

bool parse_port(const std::string& text, UINT32& port)
{
    return kavo_sim::parse_u32(text.c_str(), port) && port < NUM_PORTS;
}

/* "31", "prbs31", "PRBS_31Q", "user", "none": a kavo_serdes_prbs_t by its name. */
bool parse_pattern(std::string text, kavo_serdes_prbs_t& out)
{
    for (char& c : text)
        c = char(std::toupper(static_cast<unsigned char>(c)));
    if (text.rfind("PRBS", 0) == 0) text.erase(0, text[4] == '_' ? 5 : 4);
    for (UINT32 v = 0; v < LAST_KAVO_SERDES_PRBS; ++v) {
        const auto p = kavo_serdes_prbs_t(v);
        const char* name = kavo_serdes_prbs_t_suffix_print(p);
        if (std::string(kavo_serdes_prbs_t_print(p)).rfind("illegal", 0) != 0 && text == name) {
            out = p;
            return true;
        }
    }
    return false;
}

const char* yes(BOOL32 v) { return v ? "yes" : "no"; }

int show_all(const settings& s)
{
    nlohmann::json ports = nlohmann::json::array();
    if (!s.json)
        std::printf("port signal cdr  prbs eye_mv eye_mui tx_inv rx_inv adapt  owner\n");
    for (UINT32 p = 0; p < NUM_PORTS; ++p) {
        kavo_serdes_pin_status_t st;
        kavo_serdes_pin_cfg_t cfg;
        VELT_ERROR rc = kavo_serdes_pin_status_get(s.device, p, &st);
        if (rc == VELT_SUCCESS) rc = kavo_serdes_pin_cfg_get(s.device, p, &cfg);
        if (rc != VELT_SUCCESS) return finish(rc, "serdes show");
        if (s.json) {
            ports.push_back({{"port", p},
                             {"status", record_json("kavo_serdes_pin_status_t", st)},
                             {"cfg", record_json("kavo_serdes_pin_cfg_t", cfg)}});
            continue;
        }
        char owner[16] = "-";
        if (cfg.owner_chnl_id != 0xFFFFFFFF) std::snprintf(owner, sizeof(owner), "%u", cfg.owner_chnl_id);
        static const char* ADAPT[] = {"idle", "run", "done", "step"};
        std::printf("%4u %-6s %-4s %-4s %6u %7u %-6s %-6s %-6s %s\n", p, yes(st.signal_detect), yes(st.cdr_lock),
                    yes(st.prbs_lock), st.eye_height_mv, st.eye_width_mui, yes(st.tx_invert), yes(st.rx_invert),
                    st.adapt_state < 4 ? ADAPT[st.adapt_state] : "?", owner);
    }
    if (s.json) {
        nlohmann::json doc = result_json(VELT_SUCCESS);
        doc["ports"] = ports;
        print_json(doc);
    }
    return 0;
}

int show_port(const settings& s, UINT32 port)
{
    kavo_serdes_pin_status_t st;
    kavo_serdes_pin_cfg_t cfg;
    kavo_serdes_prbs_ber_t ber;
    VELT_ERROR rc = kavo_serdes_pin_status_get(s.device, port, &st);
    if (rc == VELT_SUCCESS) rc = kavo_serdes_pin_cfg_get(s.device, port, &cfg);
    // The PRBS counts exist only while the monitor is on.
    const bool monitored = rc == VELT_SUCCESS && cfg.prbs_monitor != KAVO_SERDES_PRBS_NONE &&
                           kavo_serdes_pin_prbs_get(s.device, port, 0, &ber) == VELT_SUCCESS;
    if (s.json) {
        nlohmann::json doc = result_json(rc);
        doc["port"] = port;
        if (rc == VELT_SUCCESS) {
            doc["status"] = record_json("kavo_serdes_pin_status_t", st);
            doc["cfg"] = record_json("kavo_serdes_pin_cfg_t", cfg);
            if (monitored) doc["prbs"] = record_json("kavo_serdes_prbs_ber_t", ber);
        }
        print_json(doc);
        return rc == VELT_SUCCESS ? 0 : 1;
    }
    if (rc != VELT_SUCCESS) return finish(rc, "serdes show");
    std::printf("port %u: %s, tx %s, rx %s\n", port, kavo_serdes_pin_mode_t_suffix_print(cfg.pin_mode),
                kavo_serdes_tx_src_t_suffix_print(cfg.tx_source), kavo_serdes_rx_src_t_suffix_print(cfg.rx_source));
    std::printf("  signal %s, cdr %s, ppm %d, transmitter %s\n", yes(st.signal_detect), yes(st.cdr_lock),
                st.ppm_offset, st.tx_enabled ? "on" : "off");
    std::printf("  polarity tx %s rx %s, pre-coding tx %s rx %s\n", st.tx_invert ? "inverted" : "normal",
                st.rx_invert ? "inverted" : "normal", st.tx_pre_code ? "on" : "off", st.rx_pre_code ? "on" : "off");
    std::printf("  taps cm2 %d cm1 %d c0 %d c1 %d c2 %d\n", cfg.taps.cm2, cfg.taps.cm1, cfg.taps.c0, cfg.taps.c1,
                cfg.taps.c2);
    std::printf("  eye %u mV x %u mUI at 1e-%u\n", st.eye_height_mv, st.eye_width_mui, DEFAULT_DEPTH);
    std::printf("  prbs generator %s, monitor %s", kavo_serdes_prbs_t_suffix_print(cfg.prbs_generator),
                kavo_serdes_prbs_t_suffix_print(cfg.prbs_monitor));
    if (monitored)
        std::printf(": lock %s, %llu bits, %llu errors, ber %.3e", yes(ber.lock), (unsigned long long)ber.bit_count,
                    (unsigned long long)ber.error_count, ber.ber);
    std::printf("\n");
    return 0;
}

int cmd_show(const settings& s, const args_t& args)
{
    UINT32 port = 0;
    if (args.size() > 2 || (args.size() == 2 && !parse_port(args[1], port)))
        return usage_error("serdes show [PORT], PORT 0..47");
    if (int failed = device_ready(s)) return failed;
    return args.size() == 2 ? show_port(s, port) : show_all(s);
}

int cmd_prbs(const settings& s, const args_t& args)
{
    UINT32 port = 0;
    kavo_serdes_prbs_t pattern;
    if (args.size() != 3 || !parse_port(args[1], port) || !parse_pattern(args[2], pattern))
        return usage_error("serdes prbs PORT PATTERN (7 9 11 13 15 23 31 13Q 31Q SSPRQ USER NONE)");
    if (int failed = device_ready(s)) return failed;
    const UINT32 words[10] = {};
    // Generator and monitor together: a looped-back or mirrored lane checks itself.
    VELT_ERROR rc = kavo_serdes_prbs_set(s.device, port, 1, 0, pattern, words);
    if (rc == VELT_SUCCESS && pattern != KAVO_SERDES_PRBS_SSPRQ)
        rc = kavo_serdes_prbs_set(s.device, port, 0, 0, pattern, words);
    kavo_serdes_prbs_ber_t ber;
    const bool read = rc == VELT_SUCCESS && pattern != KAVO_SERDES_PRBS_NONE && pattern != KAVO_SERDES_PRBS_SSPRQ;
    if (read) rc = kavo_serdes_pin_prbs_get(s.device, port, 0, &ber);
    if (s.json) {
        nlohmann::json doc = result_json(rc);
        if (read && rc == VELT_SUCCESS) doc["prbs"] = record_json("kavo_serdes_prbs_ber_t", ber);
        print_json(doc);
        return rc == VELT_SUCCESS ? 0 : 1;
    }
    if (rc != VELT_SUCCESS) return finish(rc, "serdes prbs");
    if (read)
        std::printf("port %u: %s %s\n", port, kavo_serdes_prbs_t_suffix_print(pattern),
                    ber.lock ? "locked" : "not locked");
    else
        std::printf("port %u: PRBS %s\n", port, pattern == KAVO_SERDES_PRBS_NONE ? "off" : "generator on");
    return 0;
}

/* One character per scan point: blank inside the eye (error ratio below
   10^-depth), then denser as the ratio rises. */
char eye_char(UINT8 decade, UINT32 depth)
{
    if (decade >= depth) return ' ';
    if (decade * 3 >= depth * 2) return '.';
    if (decade * 3 >= depth) return '+';
    return '#';
}

int cmd_eye(const settings& s, const args_t& args)
{
    UINT32 port = 0, depth = DEFAULT_DEPTH;
    if (args.size() < 2 || args.size() > 3 || !parse_port(args[1], port) ||
        (args.size() == 3 && (!kavo_sim::parse_u32(args[2].c_str(), depth) || depth == 0 || depth > 15)))
        return usage_error("serdes eye PORT [DEPTH], DEPTH 1..15 (default 6)");
    if (int failed = device_ready(s)) return failed;
    kavo_serdes_2d_eye_data_t eye;
    VELT_ERROR rc = kavo_serdes_2d_eye_mon_enable(s.device, port, 1, depth);
    if (rc == VELT_SUCCESS) rc = kavo_serdes_2d_eye_mon_get(s.device, port, &eye);
    if (s.json) {
        nlohmann::json doc = result_json(rc);
        if (rc == VELT_SUCCESS) doc["eye"] = record_json("kavo_serdes_2d_eye_data_t", eye);
        print_json(doc);
        return rc == VELT_SUCCESS ? 0 : 1;
    }
    if (rc != VELT_SUCCESS) return finish(rc, "serdes eye");
    if (!eye.valid) {
        std::printf("port %u: no eye (no signal or no clock recovery)\n", port);
        return 0;
    }
    const UINT32 steps = sizeof(eye.ber_decade) / sizeof(eye.ber_decade[0]);
    std::printf("port %u eye at 1e-%u: %u mV x %u mUI\n", port, depth, eye.eye_height_mv, eye.eye_width_mui);
    for (UINT32 r = 0; r < steps; ++r) {
        const double mv = (double(steps) / 2 - 0.5 - r) * eye.mv_per_step;
        std::printf(r % 4 == 0 ? "%+5.0f mV |" : "         |", mv);
        for (UINT32 c = 0; c < steps; ++c)
            std::putchar(eye_char(eye.ber_decade[r][c], depth));
        std::printf("|\n");
    }
    std::printf("         -0.5 UI%*s+0.5 UI\n", int(steps) - 14, "");
    return 0;
}

int cmd_load(const settings& s, const args_t& args)
{
    if (args.size() != 2) return usage_error("serdes load FILE");
    if (int failed = device_ready(s)) return failed;
    std::string file = args[1];
    VELT_ERROR rc = kavo_debug_serdes_load(s.device, file.data());
    kavo_serdes_pin_status_t st;
    if (rc == VELT_SUCCESS) rc = kavo_serdes_pin_status_get(s.device, 0, &st);
    if (s.json) {
        nlohmann::json doc = result_json(rc);
        if (rc == VELT_SUCCESS) doc["microcode_version"] = st.microcode_version;
        print_json(doc);
        return rc == VELT_SUCCESS ? 0 : 1;
    }
    if (rc == VELT_SUCCESS) std::printf("microcode 0x%08x running\n", st.microcode_version);
    return finish(rc, "serdes load");
}

int cmd_serdes(const settings& s, const args_t& args)
{
    static const struct {
        const char* name;
        int (*run)(const settings&, const args_t&);
    } subs[] = {{"show", cmd_show}, {"prbs", cmd_prbs}, {"eye", cmd_eye}, {"load", cmd_load}};
    for (const auto& sub : subs)
        if (!args.empty() && args[0] == sub.name) return sub.run(s, args);
    return usage_error("serdes show [PORT] | prbs PORT PATTERN | eye PORT [DEPTH] | load FILE");
}

constexpr verb VERBS[] = {
    {"serdes", "show [PORT] | prbs PORT PATTERN | eye PORT [DEPTH] | load FILE",
     "SerDes lanes: overview or one lane, a PRBS run, the 2-D eye, microcode", cmd_serdes},
};

} // namespace

std::span<const verb> serdes_verbs() { return VERBS; }

} // namespace kavoctl
