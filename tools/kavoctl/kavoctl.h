// What kavoctl's verbs share: the settings of the run, the device they act on,
// how results and failures are reported, and the verbs themselves.
#ifndef KAVOCTL_KAVOCTL_H
#define KAVOCTL_KAVOCTL_H

#include <istream>
#include <span>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "kavo/kavo_api.h"

namespace kavoctl {

struct settings {
    UINT32 device = 0;
    std::string socket_path;
    std::string firmware;
    kavo_init_type_t init = KAVO_INIT_AUTO;
    bool revb = false;
    bool trace = false;
    bool json = false;  // results as JSON on standard output
    bool quiet = false; // no library log lines
    double wait_s = 0;  // how long to wait for a chip another client drives (--wait)
};

// Exit statuses: 0 success, 1 a command failed, 2 usage, and these.
constexpr int EXIT_UNREACHABLE = 3; // the device cannot be reached
constexpr int EXIT_ASSERTION = 4;   // the library stopped at one of its assertions

using args_t = std::vector<std::string>;

/* One verb of the command line: `kavoctl NAME ARGS`. */
struct verb {
    const char* name;
    const char* usage;   // the arguments, e.g. "read ADDR | write ADDR VALUE"
    const char* summary; // one line
    int (*run)(const settings& s, const args_t& args); // checks its arguments, then calls device_ready
};

// The verbs, one list per area (views/<area>.cpp, builtin.cpp, call.cpp).
std::span<const verb> builtin_verbs();
std::span<const verb> catalogue_verbs();
std::span<const verb> datapath_verbs();
std::span<const verb> macsec_verbs();
std::span<const verb> serdes_verbs();
std::span<const verb> flexe_verbs();
std::span<const verb> mux_verbs();
std::span<const verb> defect_verbs();
std::span<const verb> pmon_verbs();

/* Every verb, area by area. */
std::vector<const verb*> all_verbs();
/* The verb of that name; null when there is none. */
const verb* find_verb(const std::string& name);
/* The usage text: options, exit statuses and every verb with its arguments. */
void print_usage(FILE* out);

/* The words of a script or shell line; # starts a comment. */
args_t split_line(const std::string& line);
/* Runs one line of a script or the shell on the open device: its status, or
   -1 for quit/exit. help alone prints the usage; run and shell are refused. */
int run_line(const settings& s, const std::string& line);
/* run FILE: one command a line; stops at the first failing line and names it
   as source:line on standard error. */
int run_script(const settings& s, std::istream& in, const std::string& source);

/* Brings the device up on first use (the virtual device unless a socket is
   given); 0 when it is up, else the failure reported and its exit status.
   Verbs call it after checking their arguments. */
int device_ready(const settings& s);
void close_device(const settings& s);
/* A verb's status, made a failure (with a line saying so) when the bus
   reported failed transactions while it ran. */
int bus_verdict(const char* what, int status);
/* The bus reported failed transactions since the verb began. */
bool bus_failed();
/* Where the library's lines go: standard error, so that results on standard
   output stay clean; the verbs that show the firmware's logs point it at
   standard output while they do. */
void log_to(FILE* sink);
void log_quiet(bool quiet);

/* Where kavoctl last stopped reading a chip's console: the firmware's boot
   information then, the ring's wrap count and write index, and the start and
   checksum of the last record shown, which must still be there for the
   position to hold. */
struct console_mark {
    bool valid = false;
    UINT32 boot = 0, wrap = 0, index = 0, last_record = 0, last_crc = 0;
};
/* The console's lines written since the last call on this chip (all of them
   on a chip kavoctl has not read, or one that restarted), and a note when the
   ring could not be followed. */
struct console_news {
    std::vector<std::string> lines;
    std::string note;
};
console_news console_read_new(const settings& s);

/* kavoctl's standard output is not a terminal: the boot's progress dots
   (written by the library straight to standard output) are held back from it
   while the device boots, and everything else written meanwhile is passed on
   in order afterwards. */
struct boot_output {
    boot_output();
    ~boot_output();
    boot_output(const boot_output&) = delete;
    boot_output& operator=(const boot_output&) = delete;
};
/* Passes on what a boot_output holds, at once (the assertion handler's exit). */
void boot_output_release();
/* Captured boot output without the download's progress: lines made only of
   dots, and the empty line the download ends with when it had no dots. */
std::string drop_progress(const std::string& captured);

/* A usage error: one line on standard error, status 2. */
int usage_error(const std::string& what);
/* A command's result: 0, or its code by name on standard error and status 1. */
int finish(VELT_ERROR rc, const char* what);
/* A JSON value as one line of text. File names and the chip's strings need not
   be UTF-8: a byte that is not shows as U+FFFD instead of failing the dump. */
std::string json_text(const nlohmann::json& value);
/* Prints a JSON document on standard output (one line per document). */
void print_json(const nlohmann::json& doc);
/* {"result": code, "result_name": "..."} for a command's result. */
nlohmann::json result_json(VELT_ERROR rc);

/* A record as a JSON object keyed by member name; null when the type is not in the catalogue. */
nlohmann::json record_json(const char* type_name, const void* record);
template <class T> nlohmann::json record_json(const char* type_name, const T& record)
{
    return record_json(type_name, static_cast<const void*>(&record));
}

} // namespace kavoctl

#endif
