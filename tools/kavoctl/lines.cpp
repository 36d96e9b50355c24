// How kavoctl reports (usage errors, results, JSON) and reads its command
// lines: the verbs by name, the usage text, and one line of a script or the
// shell. Nothing here needs a device until a verb asks for it, so the line
// parser runs on its own (fuzz/fuzz_kavoctl_line.cpp).
#include <cstdio>
#include <sstream>

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

std::string json_text(const nlohmann::json& value)
{
    return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

void print_json(const nlohmann::json& doc) { std::printf("%s\n", json_text(doc).c_str()); }

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
    "  --wait SECONDS      wait at most SECONDS for a chip another client of kavo-simd drives\n"
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
    "exit status: 0 success, 1 a command failed, 2 usage, 3 device unreachable or busy,\n"
    "4 the library stopped at an assertion\n"
    "\n"
    "commands:\n";

} // namespace

std::vector<const verb*> all_verbs()
{
    std::vector<const verb*> out;
    for (auto area : AREAS)
        for (const verb& v : area) out.push_back(&v);
    return out;
}

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

args_t split_line(const std::string& line)
{
    std::istringstream words(line.substr(0, line.find('#')));
    args_t out;
    for (std::string w; words >> w;) out.push_back(w);
    return out;
}

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

} // namespace kavoctl
