// The device kavoctl acts on: brought up on first use, through callouts that
// send the library's lines where kavoctl wants them.
#include <cstdarg>
#include <cstdio>

#include "kavo_sim/kavo_sim.h"
#include "kavoctl.h"

namespace kavoctl {
namespace {

FILE* sink = stderr;
bool opened = false;
tavo_callout_api_st table;
FILE* log_context[1] = {stderr};

int log_print(void*, FILE*, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const int n = std::vfprintf(sink, format, args);
    va_end(args);
    return n;
}

void* log_init(UINT32, UINT32, const char*) { return log_context; }

std::string default_firmware() { return std::string(KAVO_FW_IMAGE_DIR) + "/kavo_fw_app_revx.mem"; }

VELT_ERROR open_device(const settings& s)
{
    tavo_callout_api_st* chip = nullptr;
    kavo_sim::chip_config cfg;
    cfg.revision_code = s.revb ? 1 : 0;
    if (s.socket_path.empty()) {
        VELT_ERROR rc = kavo_sim::chip_create(s.device, cfg);
        if (rc != VELT_SUCCESS) return rc;
        chip = kavo_sim::callouts();
    } else {
        chip = kavo_sim::socket_callouts(s.socket_path.c_str());
        if (chip == nullptr) {
            std::fprintf(stderr, "kavoctl: cannot reach kavo-simd at %s\n", s.socket_path.c_str());
            return VELT_ERR_FAIL;
        }
        // A chip already served keeps running; a new one is created.
        kavo_sim::socket_chip_create(s.socket_path.c_str(), s.device, cfg);
    }
    table = tavo_callout_api_st{chip->qspi_callout_api_ctx, log_print, log_init, nullptr};
    kavo_sdk_init(&table);
    kavo_function_logging_set(s.trace ? 1 : 0);
    VELT_ERROR rc = kavo_fw_filename_set((s.firmware.empty() ? default_firmware() : s.firmware).c_str());
    if (rc != VELT_SUCCESS) return rc;
    return kavo_device_init(s.device, s.init);
}

} // namespace

void log_to(FILE* file) { sink = file; }

int device_ready(const settings& s)
{
    if (opened) return 0;
    const VELT_ERROR rc = open_device(s);
    if (rc != VELT_SUCCESS) return finish(rc, "device init");
    opened = true;
    return 0;
}

void close_device(const settings& s)
{
    if (opened) kavo_device_uninit(s.device, 0);
    opened = false;
}

} // namespace kavoctl
