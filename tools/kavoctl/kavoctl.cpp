// kavoctl: drives a kavo device through libkavo; the virtual device by default.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "kavo/kavo_api.h"
#include "kavo_sim/kavo_sim.h"

namespace {

const char* const USAGE =
    "usage: kavoctl [options] [name=value ...] COMMAND [ARGS]\n"
    "\n"
    "options:\n"
    "  --device N          device id, 0..31 (default 0)\n"
    "  --sim               run on an in-process virtual device (default)\n"
    "  --sim-socket PATH   run on a virtual device served by kavo-simd at PATH\n"
    "  --fw FILE           firmware image; \"revx\" becomes reva/revb (default: the built image)\n"
    "  --init MODE         cold, auto or attach (default auto)\n"
    "  --revb              a new virtual chip is revision b (default a)\n"
    "  --trace             print the library's call trace\n"
    "  name=value          a library option, e.g. verbosity=6 (also VELT_<name> variables)\n"
    "\n"
    "commands:\n"
    "  status                      device status and the firmware console's new lines\n"
    "  init                        bring the device up and report it\n"
    "  config show                 the device configuration\n"
    "  config set MODE             configure the device mode (1200G_ENET, 1200G_ILKN, 800G_FGB, 800G_RGB)\n"
    "  reg read ADDR               read a chip register\n"
    "  reg write ADDR VALUE        write a chip register\n"
    "  ping [WORDS]                echo WORDS words (default 4) through the firmware\n"
    "  cmd TEXT...                 run a command in the firmware's debug shell\n"
    "  fw-log console|stats|dbg|all|new\n"
    "                              the firmware's console, statistics or debug logs\n"
    "  image create FILE [--version M.m.b] [--vcs N] [--device-rev N] [--corrupt]\n"
    "  image inspect FILE          print an image file's header\n"
    "  options                     the library's options\n"
    "  run FILE                    run the commands of FILE (one a line, # comments) on one device\n"
    "  shell                       read commands from standard input on one device\n";

struct settings {
    UINT32 device = 0;
    std::string socket_path;
    std::string firmware;
    kavo_init_type_t init = KAVO_INIT_AUTO;
    bool revb = false;
    bool trace = false;
};

int usage_error(const char* what)
{
    std::fprintf(stderr, "kavoctl: %s\n\n%s", what, USAGE);
    return 2;
}

/* The command's result: 0, or the code's name on standard error and status 1. */
int finish(VELT_ERROR rc, const char* what)
{
    if (rc == VELT_SUCCESS) return 0;
    std::fprintf(stderr, "kavoctl: %s: %s (0x%x)\n", what, kavo_err_t_string(rc), rc);
    return 1;
}

std::string default_firmware()
{
    return std::string(KAVO_FW_IMAGE_DIR) + "/kavo_fw_app_revx.mem";
}

/* Installs the callouts that reach the chip and brings the device up. */
VELT_ERROR open_device(const settings& s)
{
    tavo_callout_api_st* callouts = nullptr;
    kavo_sim::chip_config cfg;
    cfg.revision_code = s.revb ? 1 : 0;
    if (s.socket_path.empty()) {
        VELT_ERROR rc = kavo_sim::chip_create(s.device, cfg);
        if (rc != VELT_SUCCESS) return rc;
        callouts = kavo_sim::callouts();
    } else {
        callouts = kavo_sim::socket_callouts(s.socket_path.c_str());
        if (callouts == nullptr) {
            std::fprintf(stderr, "kavoctl: cannot reach kavo-simd at %s\n", s.socket_path.c_str());
            return VELT_ERR_FAIL;
        }
        // A chip already served keeps running; a new one is created.
        kavo_sim::socket_chip_create(s.socket_path.c_str(), s.device, cfg);
    }
    kavo_sdk_init(callouts);
    kavo_function_logging_set(s.trace ? 1 : 0);
    VELT_ERROR rc = kavo_fw_filename_set((s.firmware.empty() ? default_firmware() : s.firmware).c_str());
    if (rc != VELT_SUCCESS) return rc;
    return kavo_device_init(s.device, s.init);
}

int cmd_status(const settings& s)
{
    kavo_status_info_t status;
    VELT_ERROR rc = kavo_device_status_get(s.device, &status);
    kavo_status_info_t_print(&status, stdout);
    kavo_fw_log_dump(s.device, KAVO_FW_LOG_DUMP_CONSOLE_NEW);
    return finish(rc, "status");
}

int cmd_config(const settings& s, const std::vector<std::string>& args)
{
    if (args.empty()) return usage_error("config needs show or set");
    kavo_config_t cfg;
    if (args[0] == "show") {
        VELT_ERROR rc = kavo_device_config_get(s.device, &cfg);
        if (rc == VELT_SUCCESS) kavo_config_t_print(&cfg, stdout);
        return finish(rc, "config show");
    }
    if (args[0] == "set" && args.size() == 2) {
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
            return finish(kavo_device_config(s.device, &cfg), "config set");
        }
        return usage_error("unknown device mode");
    }
    return usage_error("config needs show or set MODE");
}

int cmd_reg(const settings& s, const std::vector<std::string>& args)
{
    UINT32 address = 0, value = 0;
    if (args.size() == 2 && args[0] == "read" && kavo_sim::parse_u32(args[1].c_str(), address)) {
        VELT_ERROR rc = kavo_reg_read(s.device, address, &value);
        if (rc == VELT_SUCCESS) std::printf("0x%08x: 0x%08x\n", address, value);
        return finish(rc, "reg read");
    }
    if (args.size() == 3 && args[0] == "write" && kavo_sim::parse_u32(args[1].c_str(), address) &&
        kavo_sim::parse_u32(args[2].c_str(), value))
        return finish(kavo_reg_write(s.device, address, value), "reg write");
    return usage_error("reg read ADDR | reg write ADDR VALUE");
}

int cmd_ping(const settings& s, const std::vector<std::string>& args)
{
    UINT32 words = 4;
    if (args.size() > 1 || (args.size() == 1 && !kavo_sim::parse_u32(args[0].c_str(), words)) || words > 16344 / 4)
        return usage_error("ping [WORDS], at most 4086 words");
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

int cmd_debug(const settings& s, const std::vector<std::string>& args)
{
    if (args.empty()) return usage_error("cmd needs a text");
    std::string text;
    for (const auto& a : args) text += (text.empty() ? "" : " ") + a;
    return finish(kavo_debug_cmd(s.device, text.c_str(), 0, nullptr), "cmd");
}

int cmd_fw_log(const settings& s, const std::vector<std::string>& args)
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
            if (args[0] == k.name) return finish(kavo_fw_log_dump(s.device, k.kind), "fw-log");
    return usage_error("fw-log console|stats|dbg|all|new");
}

int cmd_image(const std::vector<std::string>& args)
{
    if (args.size() == 2 && args[0] == "inspect") {
        FILE* f = std::fopen(args[1].c_str(), "rb");
        kavo_fw_hdr_t header;
        if (f == nullptr || std::fread(&header, 1, sizeof(header), f) != sizeof(header)) {
            if (f) std::fclose(f);
            std::fprintf(stderr, "kavoctl: %s: not a firmware image\n", args[1].c_str());
            return 1;
        }
        std::fclose(f);
        kavo_fw_hdr_t_print(&header, stdout);
        std::printf("version: %u.%u.%u (vcs %u)\n", header.fw_major_num, header.fw_minor_num, header.fw_build_num,
                    header.vcs_id);
        return 0;
    }
    if (args.size() >= 2 && args[0] == "create") {
        kavo_sim::image_version v;
        bool corrupt = false;
        for (size_t i = 2; i < args.size(); ++i) {
            const std::string& a = args[i];
            const char* next = i + 1 < args.size() ? args[i + 1].c_str() : nullptr;
            if (a == "--corrupt") {
                corrupt = true;
            } else if (a == "--version" && next &&
                       std::sscanf(next, "%u.%u.%u", &v.major, &v.minor, &v.build) == 3) {
                ++i;
            } else if (a == "--vcs" && kavo_sim::parse_u32(next, v.vcs_id)) {
                ++i;
            } else if (a == "--device-rev" && kavo_sim::parse_u32(next, v.device_rev)) {
                ++i;
            } else {
                return usage_error("image create FILE [--version M.m.b] [--vcs N] [--device-rev N] [--corrupt]");
            }
        }
        if (!kavo_sim::image_write(args[1].c_str(), v, corrupt)) {
            std::fprintf(stderr, "kavoctl: cannot write %s\n", args[1].c_str());
            return 1;
        }
        std::printf("wrote %s: version %u.%u.%u (vcs %u)%s\n", args[1].c_str(), v.major, v.minor, v.build, v.vcs_id,
                    corrupt ? ", corrupt" : "");
        return 0;
    }
    return usage_error("image create FILE ... | image inspect FILE");
}

bool is_device_command(const std::string& command)
{
    static const char* const commands[] = {"status", "init", "config", "reg", "ping", "cmd", "fw-log"};
    for (const char* c : commands)
        if (command == c) return true;
    return false;
}

int device_command(const settings& s, const std::string& command, const std::vector<std::string>& args)
{
    if (command == "status") return cmd_status(s);
    if (command == "config") return cmd_config(s, args);
    if (command == "reg") return cmd_reg(s, args);
    if (command == "ping") return cmd_ping(s, args);
    if (command == "cmd") return cmd_debug(s, args);
    if (command == "fw-log") return cmd_fw_log(s, args);
    std::printf("device %u is up (%s)\n", s.device, kavo_init_type_t_print(s.init));
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    settings s;
    int i = 1;
    for (; i < argc && argv[i][0] == '-'; ++i) {
        const std::string a = argv[i];
        const char* next = i + 1 < argc ? argv[i + 1] : nullptr;
        if (a == "--help" || a == "-h") {
            std::fputs(USAGE, stdout);
            return 0;
        } else if (a == "--sim") {
            s.socket_path.clear();
        } else if (a == "--revb") {
            s.revb = true;
        } else if (a == "--trace") {
            s.trace = true;
        } else if (a == "--device" && kavo_sim::parse_u32(next, s.device)) {
            ++i;
        } else if (a == "--sim-socket" && next) {
            s.socket_path = argv[++i];
        } else if (a == "--fw" && next) {
            s.firmware = argv[++i];
        } else if (a == "--init" && next) {
            const std::string mode = argv[++i];
            if (mode == "cold")
                s.init = KAVO_INIT_COLD;
            else if (mode == "auto")
                s.init = KAVO_INIT_AUTO;
            else if (mode == "attach")
                s.init = KAVO_INIT_DEBUG_ATTACH;
            else
                return usage_error("--init takes cold, auto or attach");
        } else {
            return usage_error(("unknown option " + a).c_str());
        }
    }
    // Library options, name=value.
    for (; i < argc && std::strchr(argv[i], '=') != nullptr; ++i) {
        std::string word = argv[i];
        const size_t eq = word.find('=');
        if (kavo_option_set(word.substr(0, eq).c_str(), word.substr(eq + 1).c_str()) != VELT_SUCCESS)
            return usage_error(("bad option " + word).c_str());
    }
    if (i >= argc) return usage_error("no command");
    const std::string command = argv[i++];
    const std::vector<std::string> args(argv + i, argv + argc);

    if (command == "image") return cmd_image(args);
    if (command == "options") {
        kavo_options_usage_print();
        return 0;
    }
    if (command == "help") {
        std::fputs(USAGE, stdout);
        return 0;
    }
    const bool script = command == "run" || command == "shell";
    if (!script && !is_device_command(command)) return usage_error(("unknown command " + command).c_str());
    std::ifstream file;
    if (command == "run") {
        if (args.size() != 1) return usage_error("run FILE");
        file.open(args[0]);
        if (!file) {
            std::fprintf(stderr, "kavoctl: cannot read %s\n", args[0].c_str());
            return 1;
        }
    }

    VELT_ERROR rc = open_device(s);
    if (rc != VELT_SUCCESS) return finish(rc, "device init");
    int status = 0;
    if (!script) {
        status = device_command(s, command, args);
    } else {
        // One command a line on the open device; a script stops at its first failure.
        std::istream& in = command == "run" ? static_cast<std::istream&>(file) : std::cin;
        const bool interactive = command == "shell" && isatty(0);
        std::string line;
        for (;;) {
            if (interactive) {
                std::printf("kavo> ");
                std::fflush(stdout);
            }
            if (!std::getline(in, line)) break;
            std::istringstream words(line.substr(0, line.find('#')));
            std::vector<std::string> argv_line;
            for (std::string w; words >> w;) argv_line.push_back(w);
            if (argv_line.empty()) continue;
            const std::string name = argv_line[0];
            argv_line.erase(argv_line.begin());
            int one = 2;
            if (is_device_command(name))
                one = device_command(s, name, argv_line);
            else
                std::fprintf(stderr, "kavoctl: unknown command %s\n", name.c_str());
            if (one != 0) status = one;
            if (one != 0 && command == "run") break;
        }
    }
    kavo_device_uninit(s.device, 0);
    return status;
}
