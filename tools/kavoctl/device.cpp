// The device kavoctl acts on: brought up on first use, through callouts that
// remember the bus's last failure and send the library's lines where kavoctl
// wants them, with an assertion handler that reports instead of halting.
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>

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
UINT32 device_id = 0;
UINT32 last_bus_status = 0;

/* The library's log lines come with its log file (log_context[0]) and go to
   the sink; a record printed to another file (a printer given stdout) is a
   result and goes there, --quiet or not. */
int log_print(void*, FILE* file, const char* format, ...)
{
    FILE* out = file != nullptr && file != log_context[0] ? file : sink;
    if (out == nullptr) return 0;
    va_list args;
    va_start(args, format);
    const int n = std::vfprintf(out, format, args);
    va_end(args);
    return n;
}

void* log_init(UINT32, UINT32, const char*) { return log_context; }

/* The library counts failed callouts (kavo_bus_error_count_get), so that a
   command whose bus failed does not pass for a success; kavoctl keeps the
   last status, which tells a busy chip from a broken bus. */
UINT32 counted(UINT32 status)
{
    if (status != 0) last_bus_status = status;
    return status;
}

UINT32 bus_errors()
{
    UINT32 n = 0;
    kavo_bus_error_count_get(device_id, &n);
    return n;
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
    boot_output_release();
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

/* kavo-simd lets one client at a time drive a chip's bus and refuses the
   others' transactions as busy. A register read finds out before the boot
   (and claims the chip when it is free); with --wait the read is repeated
   until the chip is free or the time is up. */
bool chip_free(const qspi_callout_api_st* chip, const settings& s)
{
    constexpr UINT32 DEVICE_ID_REGISTER = 0xF00380;
    timespec start{};
    clock_gettime(CLOCK_MONOTONIC, &start);
    for (;;) {
        UINT32 value = 0;
        if (chip->qspi_read(nullptr, 0, s.device, DEVICE_ID_REGISTER, &value) != KAVO_ERR_DEVICE_ID_IN_USE) return true;
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        if (double(now.tv_sec - start.tv_sec) + double(now.tv_nsec - start.tv_nsec) / 1e9 >= s.wait_s) return false;
        usleep(50000);
    }
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
        if (!chip_free(chip, s)) {
            if (s.wait_s > 0)
                std::fprintf(stderr, "kavoctl: chip %u is busy: another client of kavo-simd drives it (waited %g s)\n",
                             s.device, s.wait_s);
            else
                std::fprintf(stderr, "kavoctl: chip %u is busy: another client of kavo-simd drives it\n", s.device);
            return EXIT_UNREACHABLE;
        }
    }
    chip_bus = chip;
    bus = qspi_callout_api_st{bus_read, bus_write, bus_bread, bus_bwrite};
    table = tavo_callout_api_st{&bus, log_print, log_init, nullptr};
    kavo_sdk_init(&table);
    kavo_assert_handler_set(on_assert);
    kavo_function_logging_set(s.trace ? 1 : 0);
    VELT_ERROR rc = kavo_fw_filename_set((s.firmware.empty() ? default_firmware() : s.firmware).c_str());
    if (rc == VELT_SUCCESS) {
        boot_output progress; // the download's dots only on a terminal
        rc = kavo_device_init(s.device, s.init);
    }
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
    device_id = s.device;
    if (s.quiet) log_quiet(true);
    const int failed = open_device(s);
    kavo_bus_error_count_clear(device_id); // reported with a failure already, or none
    if (failed != 0) return failed;
    opened = true;
    return 0;
}

int bus_verdict(const char* what, int status)
{
    const UINT32 failed = bus_errors();
    if (failed == 0) return status;
    std::fprintf(stderr, "kavoctl: %s: the bus reported %u failed transaction%s\n", what, failed,
                 failed == 1 ? "" : "s");
    kavo_bus_error_count_clear(device_id);
    return status == 0 ? 1 : status;
}

bool bus_failed() { return bus_errors() != 0; }

void close_device(const settings& s)
{
    if (opened) kavo_device_uninit(s.device, 0);
    opened = false;
}

} // namespace kavoctl
