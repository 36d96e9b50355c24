// The device kavoctl acts on: brought up on first use, through callouts that
// count the bus's failures and send the library's lines where kavoctl wants
// them, with an assertion handler that reports instead of halting.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "kavo_sim/kavo_sim.h"
#include "kavoctl.h"

namespace kavoctl {
namespace {

FILE* sink = stderr;
bool opened = false;
tavo_callout_api_st table;
qspi_callout_api_st bus;
const qspi_callout_api_st* chip_bus = nullptr;
FILE* log_context[1] = {stderr};
unsigned bus_errors = 0;
UINT32 last_bus_status = 0;

int log_print(void*, FILE*, const char* format, ...)
{
    if (sink == nullptr) return 0;
    va_list args;
    va_start(args, format);
    const int n = std::vfprintf(sink, format, args);
    va_end(args);
    return n;
}

void* log_init(UINT32, UINT32, const char*) { return log_context; }

/* The library only prints a failed callout; kavoctl counts them so that a
   command whose bus failed does not pass for a success. */
UINT32 counted(UINT32 status)
{
    if (status != 0) {
        ++bus_errors;
        last_bus_status = status;
    }
    return status;
}
UINT32 bus_read(void* c, UINT32 b, UINT32 d, UINT32 a, UINT32* v) { return counted(chip_bus->qspi_read(c, b, d, a, v)); }
UINT32 bus_write(void* c, UINT32 b, UINT32 d, UINT32 a, UINT32 v) { return counted(chip_bus->qspi_write(c, b, d, a, v)); }
UINT32 bus_bread(void* c, UINT32 b, UINT32 d, UINT32 n, UINT32 a, UINT32* p)
{
    return counted(chip_bus->qspi_bread(c, b, d, n, a, p));
}
UINT32 bus_bwrite(void* c, UINT32 b, UINT32 d, UINT32 n, UINT32 a, UINT32* p)
{
    return counted(chip_bus->qspi_bwrite(c, b, d, n, a, p));
}

[[noreturn]] void on_assert(UINT32 code, const char* file, int line)
{
    std::fflush(stdout);
    std::fprintf(stderr, "kavoctl: the library stopped at an assertion: %s:%d, code 0x%x (%s)\n", file ? file : "?",
                 line, code, kavo_err_t_string(code));
    std::_Exit(EXIT_ASSERTION);
}

std::string default_firmware() { return std::string(kavo_sim_firmware_dir()) + "/kavo_fw_app_revx.mem"; }

/* The file the library will load: "revx" becomes the chip's revision. */
std::string firmware_for_chip(const settings& s)
{
    std::string name = s.firmware.empty() ? default_firmware() : s.firmware;
    const size_t at = name.find("revx");
    if (at != std::string::npos) name.replace(at, 4, s.revb ? "revb" : "reva");
    return name;
}

int open_device(const settings& s)
{
    const qspi_callout_api_st* chip = nullptr;
    kavo_sim::chip_config cfg;
    cfg.revision_code = s.revb ? 1 : 0;
    // Each bus transaction takes the chip's time, so that the RAM
    // initialisation ends after the polls the bus needs, not after the user's
    // time. Burst words are left free: a script's commands then leave the
    // chip's other timers (link training) where the user's time puts them.
    cfg.bus_transaction_ns = kavo_sim::QSPI_TRANSACTION_NS;
    // An image that exists but would never start is refused before the download.
    const std::string image = firmware_for_chip(s);
    const kavo_sim::image_info info = kavo_sim::image_inspect_file(image.c_str());
    if (info.readable && !info.problem.empty()) {
        std::fprintf(stderr, "kavoctl: %s: %s\n", image.c_str(), info.problem.c_str());
        return 1;
    }
    if (s.socket_path.empty()) {
        VELT_ERROR rc = kavo_sim::chip_create(s.device, cfg);
        if (rc != VELT_SUCCESS) return finish(rc, "device init");
        chip = kavo_sim::callouts()->qspi_callout_api_ctx;
    } else {
        tavo_callout_api_st* remote = kavo_sim::socket_callouts(s.socket_path.c_str());
        if (remote == nullptr) {
            std::fprintf(stderr, "kavoctl: cannot reach kavo-simd at %s\n", s.socket_path.c_str());
            return EXIT_UNREACHABLE;
        }
        // A chip already served keeps running; a new one is created.
        kavo_sim::socket_chip_create(s.socket_path.c_str(), s.device, cfg);
        chip = remote->qspi_callout_api_ctx;
    }
    chip_bus = chip;
    bus = qspi_callout_api_st{bus_read, bus_write, bus_bread, bus_bwrite};
    table = tavo_callout_api_st{&bus, log_print, log_init, nullptr};
    kavo_sdk_init(&table);
    kavo_assert_handler_set(on_assert);
    kavo_function_logging_set(s.trace ? 1 : 0);
    VELT_ERROR rc = kavo_fw_filename_set((s.firmware.empty() ? default_firmware() : s.firmware).c_str());
    if (rc == VELT_SUCCESS) rc = kavo_device_init(s.device, s.init);
    if (rc != VELT_SUCCESS && last_bus_status == KAVO_ERR_DEVICE_ID_IN_USE) {
        std::fprintf(stderr, "kavoctl: chip %u is busy: another client of kavo-simd drives it\n", s.device);
        return EXIT_UNREACHABLE;
    }
    if (rc != VELT_SUCCESS) return finish(rc, "device init");
    return 0;
}

} // namespace

void log_to(FILE* file) { sink = file; }

void log_quiet(bool quiet) { sink = quiet ? nullptr : stderr; }

int device_ready(const settings& s)
{
    if (opened) return 0;
    if (s.quiet) log_quiet(true);
    const int failed = open_device(s);
    if (failed != 0) {
        bus_errors = 0; // reported with the failure already
        return failed;
    }
    opened = true;
    bus_errors = 0;
    return 0;
}

int bus_verdict(const char* what, int status)
{
    if (bus_errors == 0) return status;
    std::fprintf(stderr, "kavoctl: %s: the bus reported %u failed transaction%s\n", what, bus_errors,
                 bus_errors == 1 ? "" : "s");
    bus_errors = 0;
    return status == 0 ? 1 : status;
}

bool bus_failed() { return bus_errors != 0; }

void close_device(const settings& s)
{
    if (opened) kavo_device_uninit(s.device, 0);
    opened = false;
}

} // namespace kavoctl
