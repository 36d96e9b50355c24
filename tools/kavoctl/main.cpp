// kavoctl: drives a kavo device through libkavo; the virtual device by default.
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>

#include <CLI/CLI.hpp>

#include "kavoctl.h"

namespace kavoctl {

int usage_error(const std::string& what)
{
    std::fprintf(stderr, "kavoctl: %s\n", what.c_str());
    return 2;
}

int finish(VELT_ERROR rc, const char* what)
{
    if (rc == VELT_SUCCESS) return 0;
    std::fprintf(stderr, "kavoctl: %s: %s (0x%x)\n", what, kavo_err_t_string(rc), rc);
    return 1;
}

void print_json(const nlohmann::json& doc) { std::printf("%s\n", doc.dump().c_str()); }

nlohmann::json result_json(VELT_ERROR rc)
{
    return nlohmann::json{{"result", rc}, {"result_name", kavo_err_t_string(rc)}};
}

namespace {

const std::span<const verb> AREAS[] = {builtin_verbs(), catalogue_verbs(), datapath_verbs(), macsec_verbs(),
                                      serdes_verbs(),  flexe_verbs(),     mux_verbs(),      defect_verbs()};

const char* const OPTIONS =
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
    "  --json              results as JSON documents on standard output\n"
    "  name=value          a library option, e.g. verbosity=6 (also VELT_<name> variables)\n"
    "\n"
    "commands:\n";

int run_verb(const settings& s, const std::string& name, const args_t& args)
{
    const verb* v = find_verb(name);
    if (v == nullptr) return usage_error("unknown command " + name);
    return v->run(s, args);
}

/* Words of a script line; # starts a comment. */
args_t split_line(const std::string& line)
{
    std::istringstream words(line.substr(0, line.find('#')));
    args_t out;
    for (std::string w; words >> w;) out.push_back(w);
    return out;
}

/* run FILE and shell: one command a line on the open device; a file stops at its first failure. */
int run_script(const settings& s, std::istream& in, const std::string& source, bool interactive)
{
    int status = 0;
    std::string line;
    for (unsigned number = 1;; ++number) {
        if (interactive) {
            std::printf("kavo> ");
            std::fflush(stdout);
        }
        if (!std::getline(in, line)) break;
        args_t words = split_line(line);
        if (words.empty()) continue;
        const std::string name = words[0];
        words.erase(words.begin());
        const verb* v = find_verb(name);
        const int one = v == nullptr || name == "run" || name == "shell"
                            ? usage_error("unknown command " + name)
                            : v->run(s, words);
        if (one == 0) continue;
        status = one;
        if (!interactive) {
            std::fprintf(stderr, "kavoctl: %s:%u: %s failed\n", source.c_str(), number, name.c_str());
            break;
        }
    }
    return status;
}

} // namespace

const verb* find_verb(const std::string& name)
{
    for (auto area : AREAS)
        for (const verb& v : area)
            if (name == v.name) return &v;
    return nullptr;
}

void print_usage(FILE* out)
{
    std::fputs(OPTIONS, out);
    for (auto area : AREAS)
        for (const verb& v : area) {
            const std::string head = std::string(v.name) + (*v.usage ? " " : "") + v.usage;
            if (head.size() <= 28)
                std::fprintf(out, "  %-28s%s\n", head.c_str(), v.summary);
            else
                std::fprintf(out, "  %s\n  %-28s%s\n", head.c_str(), "", v.summary);
        }
    std::fprintf(out, "  %-28s%s\n  %-28s%s\n", "run FILE", "run the commands of FILE (one a line, # comments)",
                 "shell", "read commands from standard input on one device");
}

} // namespace kavoctl

int main(int argc, char** argv)
{
    using namespace kavoctl;
    settings s;
    std::string init = "auto";
    bool sim = false;
    CLI::App app{"kavoctl"};
    app.set_help_flag();
    bool help = false;
    app.add_flag("-h,--help", help);
    app.add_option("--device", s.device);
    app.add_flag("--sim", sim);
    app.add_option("--sim-socket", s.socket_path);
    app.add_option("--fw", s.firmware);
    app.add_option("--init", init)->check(CLI::IsMember({"cold", "auto", "attach"}));
    app.add_flag("--revb", s.revb);
    app.add_flag("--trace", s.trace);
    app.add_flag("--json", s.json);
    app.prefix_command();
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return usage_error(e.what());
    }
    if (help) {
        print_usage(stdout);
        return 0;
    }
    if (sim) s.socket_path.clear();
    s.init = init == "cold" ? KAVO_INIT_COLD : init == "attach" ? KAVO_INIT_DEBUG_ATTACH : KAVO_INIT_AUTO;

    args_t rest = app.remaining();
    size_t i = 0;
    // Library options, name=value, before the command.
    for (; i < rest.size() && rest[i].find('=') != std::string::npos; ++i) {
        const size_t eq = rest[i].find('=');
        if (kavo_option_set(rest[i].substr(0, eq).c_str(), rest[i].substr(eq + 1).c_str()) != VELT_SUCCESS)
            return usage_error("bad option " + rest[i]);
    }
    if (i >= rest.size()) return usage_error("no command (kavoctl --help lists them)");
    const std::string command = rest[i++];
    const args_t args(rest.begin() + long(i), rest.end());
    if (command == "help" && args.empty()) {
        print_usage(stdout);
        return 0;
    }

    const bool script = command == "run" || command == "shell";
    const verb* v = script ? nullptr : find_verb(command);
    if (!script && v == nullptr) return usage_error("unknown command " + command);
    std::ifstream file;
    if (command == "run") {
        if (args.size() != 1) return usage_error("run FILE");
        file.open(args[0]);
        if (!file) {
            std::fprintf(stderr, "kavoctl: cannot read %s\n", args[0].c_str());
            return 1;
        }
    } else if (command == "shell" && !args.empty()) {
        return usage_error("shell takes no arguments");
    }

    int status = 0;
    if (command == "run")
        status = run_script(s, file, args[0], false);
    else if (command == "shell")
        status = run_script(s, std::cin, "stdin", isatty(0) != 0);
    else
        status = run_verb(s, command, args);
    close_device(s);
    return status;
}
