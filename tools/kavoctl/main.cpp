// kavoctl: drives a kavo device through libkavo; the virtual device by default.
#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <type_traits>

#include <CLI/CLI.hpp>
#include <editline/readline.h>

#include "catalogue.h"

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
                                      serdes_verbs(),  flexe_verbs(),     mux_verbs(),      defect_verbs(),
                                      pmon_verbs()};

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
    "  --quiet             no library log lines\n"
    "  --version           the versions of kavoctl and the library\n"
    "  name=value          a library option, e.g. verbosity=6, also -name=value, --name=value\n"
    "                      and a lone name for a switch (also VELT_<name> variables)\n"
    "\n"
    "exit status: 0 success, 1 a command failed, 2 usage, 3 device unreachable,\n"
    "4 the library stopped at an assertion\n"
    "\n"
    "commands:\n";

int run_verb(const settings& s, const std::string& name, const args_t& args)
{
    const verb* v = find_verb(name);
    if (v == nullptr) return usage_error("unknown command " + name);
    return bus_verdict(v->name, v->run(s, args));
}

/* Words of a script line; # starts a comment. */
args_t split_line(const std::string& line)
{
    std::istringstream words(line.substr(0, line.find('#')));
    args_t out;
    for (std::string w; words >> w;) out.push_back(w);
    return out;
}

/* The line editor of the interactive shell, loaded when a shell starts on a
   terminal: every other run is spared its loading. Null members when it
   cannot be loaded; the shell then reads plain lines. */
struct line_editor {
    decltype(&::readline) read = nullptr;
    decltype(&::add_history) history_add = nullptr;
    decltype(&::rl_completion_matches) completion_matches = nullptr;
    char** line_buffer = nullptr;
    int* point = nullptr;
    int* completion_over = nullptr;
    rl_completion_func_t** completion_function = nullptr;

    bool load()
    {
        void* lib = dlopen(KAVOCTL_LINE_EDITOR, RTLD_NOW | RTLD_LOCAL);
        if (lib == nullptr) return false;
        auto find = [lib](auto& member, const char* name) {
            member = reinterpret_cast<std::remove_reference_t<decltype(member)>>(dlsym(lib, name));
            return member != nullptr;
        };
        return find(read, "readline") && find(history_add, "add_history") &&
               find(completion_matches, "rl_completion_matches") && find(line_buffer, "rl_line_buffer") &&
               find(point, "rl_point") && find(completion_over, "rl_attempted_completion_over") &&
               find(completion_function, "rl_attempted_completion_function");
    }
};
line_editor editor;

/* Completion of the shell: verbs first, command names after call and help. */
char* complete_word(const char* text, int state)
{
    static std::vector<std::string> matches;
    static size_t next = 0;
    if (state == 0) {
        matches.clear();
        next = 0;
        const std::string prefix = text;
        const std::string line(*editor.line_buffer, size_t(*editor.point));
        const bool first = line.find_first_not_of(' ') == std::string::npos ||
                           line.find(' ', line.find_first_not_of(' ')) == std::string::npos;
        auto offer = [&](const char* name) {
            if (std::strncmp(name, prefix.c_str(), prefix.size()) == 0) matches.emplace_back(name);
        };
        if (first) {
            for (auto area : AREAS)
                for (const verb& v : area) offer(v.name);
            offer("help");
            offer("quit");
        } else {
            for (size_t i = 0; i < NUM_COMMANDS; ++i) offer(COMMANDS[i].name);
        }
    }
    return next < matches.size() ? strdup(matches[next++].c_str()) : nullptr;
}

char** complete(const char* text, int, int)
{
    *editor.completion_over = 1;
    return editor.completion_matches(text, complete_word);
}

/* One line of a script or the shell; -1 asks the shell to end. */
int run_line(const settings& s, const std::string& line)
{
    args_t words = split_line(line);
    if (words.empty()) return 0;
    const std::string name = words[0];
    words.erase(words.begin());
    if (name == "quit" || name == "exit") return -1;
    if (name == "help" && words.empty()) {
        print_usage(stdout);
        return 0;
    }
    const verb* v = find_verb(name);
    if (v == nullptr || name == "run" || name == "shell") return usage_error("unknown command " + name);
    return bus_verdict(v->name, v->run(s, words));
}

/* run FILE: one command a line on the open device; stops at its first failure. */
int run_script(const settings& s, std::istream& in, const std::string& source)
{
    std::string line;
    for (unsigned number = 1; std::getline(in, line); ++number) {
        const int one = run_line(s, line);
        if (one < 0) return 0;
        if (one == 0) continue;
        std::fprintf(stderr, "kavoctl: %s:%u: %s\n", source.c_str(), number, line.c_str());
        return one;
    }
    return 0;
}

/* shell: commands from standard input, with history and completion on a terminal. */
int run_shell(const settings& s)
{
    if (isatty(0) == 0 || !editor.load()) {
        int status = 0;
        for (std::string line; std::getline(std::cin, line);) {
            const int one = run_line(s, line);
            if (one < 0) break;
            if (one != 0) status = one;
        }
        return status;
    }
    *editor.completion_function = complete;
    int status = 0;
    for (;;) {
        char* text = editor.read("kavo> ");
        if (text == nullptr) break;
        const std::string line = text;
        std::free(text);
        if (line.find_first_not_of(' ') != std::string::npos) editor.history_add(line.c_str());
        const int one = run_line(s, line);
        if (one < 0) break;
        status = one;
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
                 "shell", "commands from standard input on one device (help, quit, history, completion)");
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
    app.add_flag("--quiet", s.quiet);
    bool version = false;
    app.add_flag("--version", version);
    app.prefix_command();
    app.allow_extras();
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return usage_error(e.what());
    }
    if (help) {
        print_usage(stdout);
        return 0;
    }
    if (version) {
        std::printf("kavoctl %s (libkavo %s)\n", KAVO_VERSION_STRING, kavo_version_string());
        return 0;
    }
    if (sim) s.socket_path.clear();
    s.init = init == "cold" ? KAVO_INIT_COLD : init == "attach" ? KAVO_INIT_DEBUG_ATTACH : KAVO_INIT_AUTO;

    args_t rest = app.remaining();
    size_t i = 0;
    // Library options before the command: name=value, -name=value,
    // --name=value, or a lone name (with or without dashes) for a switch.
    for (; i < rest.size(); ++i) {
        std::string word = rest[i];
        const bool dashed = word[0] == '-';
        word.erase(0, word.find_first_not_of('-'));
        const size_t eq = word.find('=');
        const std::string name = word.substr(0, eq);
        if (eq == std::string::npos && !kavo_option_is_known(name.c_str())) {
            if (dashed) return usage_error("unknown option " + rest[i]);
            break; // the command
        }
        const std::string value = eq == std::string::npos ? "1" : word.substr(eq + 1);
        if (kavo_option_set(name.c_str(), value.c_str()) != VELT_SUCCESS) return usage_error("bad option " + rest[i]);
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
        status = run_script(s, file, args[0]);
    else if (command == "shell")
        status = run_shell(s);
    else
        status = run_verb(s, command, args);
    close_device(s);
    return status;
}
