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
namespace {

int run_verb(const settings& s, const std::string& name, const args_t& args)
{
    const verb* v = find_verb(name);
    if (v == nullptr) return usage_error("unknown command " + name);
    return bus_verdict(v->name, v->run(s, args));
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
            for (const verb* v : all_verbs()) offer(v->name);
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
    app.add_option("--wait", s.wait_s)->check(CLI::Range(0.0, 86400.0));
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
