// kavoctl's own verbs: status, configuration, registers, echo, the firmware's
// debug shell and logs, firmware images and the library's options.
#include <cstdio>
#include <cstring>

#include "kavo_sim/image.h"
#include "kavoctl.h"

namespace kavoctl {
namespace {

int cmd_init(const settings& s, const args_t& args)
{
    if (!args.empty()) return usage_error("init takes no arguments");
    if (int failed = device_ready(s)) return failed;
    if (s.json) {
        nlohmann::json doc = result_json(VELT_SUCCESS);
        doc["device"] = s.device;
        doc["init"] = kavo_init_type_t_print(s.init);
        print_json(doc);
        return 0;
    }
    std::printf("device %u is up (%s)\n", s.device, kavo_init_type_t_print(s.init));
    return 0;
}

/* "3.0.2" from a version word (major bits 27..20, minor 19..12, build 7..0). */
std::string version_text(UINT32 word)
{
    char text[32];
    std::snprintf(text, sizeof(text), "%u.%u.%u", (word >> 20) & 0xFF, (word >> 12) & 0xFF, word & 0xFF);
    return text;
}

/* status: the device in a few lines, the version once, identifiers in hex,
   then the console lines that are new since the last status on this chip. */
int cmd_status(const settings& s, const args_t& args)
{
    if (!args.empty()) return usage_error("status takes no arguments");
    if (int failed = device_ready(s)) return failed;
    kavo_status_info_t status;
    const VELT_ERROR rc = kavo_device_status_get(s.device, &status);
    const kavo_device_status_info_t& d = status.device_info;
    const bool reached = rc == VELT_SUCCESS || rc == KAVO_SW_FW_VERSION_MISMATCH;
    const console_news console = reached ? console_read_new(s) : console_news{};
    const std::string firmware = version_text(d.fw_version), library = version_text(status.sw_version);
    if (s.json) {
        nlohmann::json doc = result_json(rc);
        doc["status"] = record_json("kavo_status_info_t", status);
        if (reached) {
            doc["version"] = firmware;
            doc["library_version"] = library;
            doc["console"] = console.lines;
            if (!console.note.empty()) doc["console_note"] = console.note;
        }
        print_json(doc);
        return rc == VELT_SUCCESS ? 0 : 1;
    }
    if (reached) {
        std::printf("device %u: type 0x%x, revision 0x%x, firmware vcs 0x%x, build 0x%x\n", s.device, d.device_type,
                    d.device_revision, d.fw_revision, status.build_code);
        if (firmware == library)
            std::printf("version %s\n", firmware.c_str());
        else
            std::printf("version %s (firmware), %s (library)%s\n", firmware.c_str(), library.c_str(),
                        status.sw_fw_mismatch ? ": they do not work together" : "");
        std::printf("firmware %s, %s, up %u s, %d C\n", d.fw_alive ? "alive" : "not alive",
                    d.fw_is_configured ? "configured" : "not configured", d.fw_up_time, d.device_temperature);
        std::printf("console: %zu new line%s%s%s\n", console.lines.size(), console.lines.size() == 1 ? "" : "s",
                    console.note.empty() ? "" : "; ", console.note.c_str());
        for (const std::string& line : console.lines) std::printf("  %s\n", line.c_str());
    }
    return finish(rc, "status");
}

int cmd_config(const settings& s, const args_t& args)
{
    kavo_config_t cfg;
    if (args.size() == 1 && args[0] == "show") {
        if (int failed = device_ready(s)) return failed;
        VELT_ERROR rc = kavo_device_config_get(s.device, &cfg);
        if (s.json) {
            nlohmann::json doc = result_json(rc);
            if (rc == VELT_SUCCESS) doc["config"] = record_json("kavo_config_t", cfg);
            print_json(doc);
            return rc == VELT_SUCCESS ? 0 : 1;
        }
        if (rc == VELT_SUCCESS) kavo_config_t_print(&cfg, stdout);
        return finish(rc, "config show");
    }
    if (args.size() == 2 && args[0] == "set") {
        static const struct {
            const char* name;
            kavo_device_mode_t mode;
        } modes[] = {{"1200G_ENET", KAVO_DEVICE_MODE_1200G_ENET},
                     {"1200G_ILKN", KAVO_DEVICE_MODE_1200G_ILKN},
                     {"800G_FGB", KAVO_DEVICE_MODE_800G_FGB},
                     {"800G_RGB", KAVO_DEVICE_MODE_800G_RGB}};
        for (const auto& m : modes) {
            if (args[1] != m.name) continue;
            cfg.device_mode = m.mode;
            if (int failed = device_ready(s)) return failed;
            const VELT_ERROR rc = kavo_device_config(s.device, &cfg);
            if (s.json) {
                print_json(result_json(rc));
                return rc == VELT_SUCCESS ? 0 : 1;
            }
            return finish(rc, "config set");
        }
        return usage_error("unknown device mode " + args[1]);
    }
    return usage_error("config show | config set MODE");
}

int cmd_reg(const settings& s, const args_t& args)
{
    UINT32 address = 0, value = 0;
    if (args.size() == 2 && args[0] == "read" && kavo_sim::parse_u32(args[1].c_str(), address)) {
        if (int failed = device_ready(s)) return failed;
        VELT_ERROR rc = kavo_reg_read(s.device, address, &value);
        if (s.json) {
            nlohmann::json doc = result_json(rc);
            doc["address"] = address;
            if (rc == VELT_SUCCESS) doc["value"] = value;
            print_json(doc);
            return rc == VELT_SUCCESS ? 0 : 1;
        }
        if (rc == VELT_SUCCESS && !bus_failed()) std::printf("0x%08x: 0x%08x\n", address, value);
        return finish(rc, "reg read");
    }
    if (args.size() == 3 && args[0] == "write" && kavo_sim::parse_u32(args[1].c_str(), address) &&
        kavo_sim::parse_u32(args[2].c_str(), value)) {
        if (int failed = device_ready(s)) return failed;
        return finish(kavo_reg_write(s.device, address, value), "reg write");
    }
    return usage_error("reg read ADDR | reg write ADDR VALUE");
}

int cmd_ping(const settings& s, const args_t& args)
{
    UINT32 words = 4;
    if (args.size() > 1 || (args.size() == 1 && !kavo_sim::parse_u32(args[0].c_str(), words)) || words > 16344 / 4)
        return usage_error("ping [WORDS], at most 4086 words");
    if (int failed = device_ready(s)) return failed;
    std::vector<UINT32> out(words ? words : 1), back(words ? words : 1, 0);
    for (UINT32 i = 0; i < words; ++i) out[i] = 0xC0DE0000u + i;
    VELT_ERROR rc = kavo_debug_ping(s.device, words * 4, out.data(), back.data());
    if (rc != VELT_SUCCESS) return finish(rc, "ping");
    for (UINT32 i = 0; i < words; ++i) {
        if (back[i] != out[i]) {
            std::fprintf(stderr, "kavoctl: ping: word %u came back as 0x%08x, sent 0x%08x\n", i, back[i], out[i]);
            return 1;
        }
    }
    std::printf("ping: %u words echoed\n", words);
    return 0;
}

int cmd_debug(const settings& s, const args_t& args)
{
    if (args.empty()) return usage_error("cmd needs a text");
    std::string text;
    for (const auto& a : args) text += (text.empty() ? "" : " ") + a;
    if (int failed = device_ready(s)) return failed;
    return finish(kavo_debug_cmd(s.device, text.c_str(), 0, nullptr), "cmd");
}

int cmd_fw_log(const settings& s, const args_t& args)
{
    static const struct {
        const char* name;
        kavo_fw_log_dump_t kind;
    } kinds[] = {{"console", KAVO_FW_LOG_DUMP_CONSOLE},
                 {"stats", KAVO_FW_LOG_DUMP_STATS},
                 {"dbg", KAVO_FW_LOG_DUMP_DBG},
                 {"all", KAVO_FW_LOG_DUMP_ALL},
                 {"new", KAVO_FW_LOG_DUMP_CONSOLE_NEW}};
    if (args.size() == 1)
        for (const auto& k : kinds)
            if (args[0] == k.name) {
                if (int failed = device_ready(s)) return failed;
                log_to(stdout);
                const VELT_ERROR rc = kavo_fw_log_dump(s.device, k.kind);
                log_quiet(s.quiet);
                return finish(rc, "fw-log");
            }
    return usage_error("fw-log console|stats|dbg|all|new");
}

int cmd_image(const settings& s, const args_t& args)
{
    if (args.size() == 2 && args[0] == "inspect") {
        const kavo_sim::image_info info = kavo_sim::image_inspect_file(args[1].c_str());
        const bool good = info.readable && info.problem.empty();
        if (s.json) {
            nlohmann::json doc = result_json(good ? VELT_SUCCESS : VELT_ERR_FAIL);
            doc["file"] = args[1];
            if (info.readable) doc["header"] = record_json("kavo_fw_hdr_t", info.header);
            doc["problem"] = info.problem;
            print_json(doc);
        } else {
            std::fputs(kavo_sim::image_describe(info).c_str(), stdout);
        }
        return good ? 0 : 1;
    }
    if (args.size() >= 2 && args[0] == "create") {
        // The same words as kavo-mkimage create.
        kavo_sim::image_version v;
        bool corrupt = false;
        std::string why;
        if (!kavo_sim::image_create_parse(args_t(args.begin() + 2, args.end()), v, corrupt, why))
            return usage_error("image create FILE: " + why);
        if (!kavo_sim::image_write(args[1].c_str(), v, corrupt)) {
            std::fprintf(stderr, "kavoctl: cannot write %s\n", args[1].c_str());
            return 1;
        }
        std::printf("wrote %s: version %u.%u.%u (vcs %u)%s\n", args[1].c_str(), v.major, v.minor, v.build, v.vcs_id,
                    corrupt ? ", corrupt" : "");
        return 0;
    }
    return usage_error("image create FILE [--version M.m.b] [--vcs N] [--rev any|reva|revb] [--body BYTES] "
                       "[--corrupt] | image inspect FILE");
}

int cmd_options(const settings&, const args_t&)
{
    kavo_options_usage_print();
    return 0;
}

const verb VERBS[] = {
    {"status", "", "device status and the firmware console's new lines", cmd_status},
    {"init", "", "bring the device up and report it", cmd_init},
    {"config", "show | set MODE", "the device configuration (modes 1200G_ENET, 1200G_ILKN, 800G_FGB, 800G_RGB)",
     cmd_config},
    {"reg", "read ADDR | write ADDR VALUE", "a chip register", cmd_reg},
    {"ping", "[WORDS]", "echo WORDS words (default 4) through the firmware", cmd_ping},
    {"cmd", "TEXT...", "run a command in the firmware's debug shell", cmd_debug},
    {"fw-log", "console|stats|dbg|all|new", "the firmware's console, statistics or debug logs", cmd_fw_log},
    {"image", "create FILE [--version M.m.b] [--vcs N] [--rev any|reva|revb] [--body BYTES] [--corrupt] | inspect FILE",
     "write or inspect a firmware image", cmd_image },
    {"options", "", "the library's options", cmd_options },
};

} // namespace

std::span<const verb> builtin_verbs() { return VERBS; }

} // namespace kavoctl
