// Debug operations: ping (an echo of words) and the firmware's text shell.
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "fw/firmware.h"

namespace kavo_sim::fw {
namespace {

void ping(firmware&, const request& req, reply& rep) { rep.data = req.data; }

struct shell_command {
    const char* name;
    const char* usage;
    void (*run)(firmware& fw, const std::string& args, reply& rep);
};

void sh_noop(firmware& fw, const std::string& args, reply&)
{
    if (!args.empty()) fw.console("noop %s\n", args.c_str());
}

void sh_help(firmware&, const std::string&, reply& rep);

void sh_version(firmware& fw, const std::string&, reply& rep)
{
    char text[96];
    const UINT32 v = fw.version_word();
    std::snprintf(text, sizeof(text), "kavo firmware %u.%u.%u (vcs %u)", (v >> 20) & 0xFF, (v >> 12) & 0xFF, v & 0xFF,
                  fw.vcs_id());
    rep.text(text);
}

bool parse_number(const std::string& s, unsigned long& out)
{
    if (s.empty()) return false;
    char* end = nullptr;
    out = std::strtoul(s.c_str(), &end, 0);
    return end && *end == '\0' && s[0] != '-';
}

void sh_set_verbosity(firmware& fw, const std::string& args, reply& rep)
{
    unsigned long level = 0;
    if (!parse_number(args, level) || level >= VELT_LOG_SEV_NUM) {
        rep.result = VELT_ERR_INVALID_ARGS;
        rep.text("usage: set_verbosity 0..7");
        return;
    }
    fw.verbosity = UINT32(level);
    fw.console("verbosity %lu\n", level);
}

void sh_echo(firmware& fw, const std::string& args, reply&) { fw.console("%s\n", args.c_str()); }

void sh_log(firmware& fw, const std::string& args, reply&) { fw.log_text(log_id::main, args.c_str()); }

void sh_repeat(firmware& fw, const std::string& args, reply& rep)
{
    const size_t space = args.find(' ');
    unsigned long count = 0;
    if (space == std::string::npos || !parse_number(args.substr(0, space), count) || count > 100000) {
        rep.result = VELT_ERR_INVALID_ARGS;
        rep.text("usage: repeat COUNT TEXT");
        return;
    }
    const std::string text = args.substr(space + 1);
    for (unsigned long i = 0; i < count; ++i)
        fw.console("%s\n", text.c_str());
}

void sh_uptime(firmware& fw, const std::string&, reply& rep)
{
    char text[32];
    std::snprintf(text, sizeof(text), "%u seconds", fw.up_time_seconds());
    rep.text(text);
}

constexpr shell_command COMMANDS[] = {
    {"noop", "noop [TEXT]            does nothing; TEXT goes to the console", sh_noop},
    {"help", "help                   this list", sh_help},
    {"version", "version                the running firmware version", sh_version},
    {"set_verbosity", "set_verbosity LEVEL    console verbosity 0..7", sh_set_verbosity},
    {"echo", "echo TEXT              writes TEXT to the console", sh_echo},
    {"log", "log TEXT               writes TEXT to the main debug log", sh_log},
    {"repeat", "repeat COUNT TEXT      writes TEXT to the console COUNT times", sh_repeat},
    {"uptime", "uptime                 seconds since start", sh_uptime},
};

void sh_help(firmware&, const std::string&, reply& rep)
{
    std::string text = "commands:";
    for (const shell_command& c : COMMANDS)
        text += std::string("\n  ") + c.usage;
    rep.text(text.c_str());
}

std::string trim(const std::string& s)
{
    size_t b = 0, e = s.size();
    while (b < e && std::isspace(static_cast<unsigned char>(s[b])))
        ++b;
    while (e > b && std::isspace(static_cast<unsigned char>(s[e - 1])))
        --e;
    return s.substr(b, e - b);
}

void cmd(firmware& fw, const request& req, reply& rep)
{
    // The text ends at its NUL or at the end of the payload.
    const char* text = reinterpret_cast<const char*>(req.data.data());
    size_t n = 0;
    while (n < req.data.size() && text[n] != '\0')
        ++n;
    const std::string line = trim(std::string(text, n));
    fw.log_text(log_id::cmd, line.c_str());

    const size_t space = line.find(' ');
    const std::string name = line.substr(0, space);
    const std::string args = space == std::string::npos ? "" : trim(line.substr(space + 1));
    if (name.empty()) return;
    for (const shell_command& c : COMMANDS) {
        if (name == c.name) {
            c.run(fw, args, rep);
            return;
        }
    }
    rep.result = KAVO_FW_ERR_INVALID_PARAMETERS;
    const std::string msg = "unknown command '" + name.substr(0, 40) + "', try help";
    rep.text(msg.c_str());
}

constexpr handler HANDLERS[] = {
    {KAVO_HTL_OPERATION_DEBUG_PING, "debug_ping", ping},
    {KAVO_HTL_OPERATION_DEBUG_CMD, "debug_cmd", cmd},
};

} // namespace

std::span<const handler> debug_handlers() { return HANDLERS; }

} // namespace kavo_sim::fw
