// The C interface of the virtual device: what libkavo_sim.so exports.
#include <dlfcn.h>
#include <sys/stat.h>

#include <cstdlib>
#include <string>

#include "kavo_sim/kavo_sim.h"

namespace {

bool is_directory(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::string dirname_of(const std::string& path)
{
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash);
}

} // namespace

extern "C" {

VELT_ERROR kavo_sim_chip_create(UINT32 device_id, const kavo_sim_chip_options_t* options)
{
    kavo_sim::chip_config cfg;
    if (options != nullptr) {
        cfg.revision_code = options->revision_code;
        cfg.mode = options->threaded ? kavo_sim::exec_mode::threaded : kavo_sim::exec_mode::synchronous;
        cfg.service_time_us = options->service_time_us;
        if (options->clock_step_ns != 0) {
            cfg.host_time = false;
            cfg.bus_transaction_ns = options->clock_step_ns;
        }
    }
    return kavo_sim::chip_create(device_id, cfg);
}

void kavo_sim_chip_destroy(UINT32 device_id) { kavo_sim::chip_destroy(device_id); }

void kavo_sim_chip_destroy_all(void) { kavo_sim::chip_destroy_all(); }

tavo_callout_api_st* kavo_sim_callouts(void) { return kavo_sim::callouts(); }

tavo_callout_api_st* kavo_sim_socket_callouts(const char* socket_path)
{
    return socket_path ? kavo_sim::socket_callouts(socket_path) : nullptr;
}

VELT_ERROR kavo_sim_fault_set(UINT32 device_id, sim_fault_t fault, UINT32 a, UINT32 b)
{
    kavo_sim::chip* c = kavo_sim::chip_get(device_id);
    return c ? c->fault_set(fault, a, b) : VELT_ERROR(KAVO_ERR_INVALID_DEVICE_ID);
}

VELT_ERROR kavo_sim_knob_set(UINT32 device_id, sim_knob_t knob, UINT32 index, UINT32 value)
{
    kavo_sim::chip* c = kavo_sim::chip_get(device_id);
    return c ? c->knob_set(knob, index, value) : VELT_ERROR(KAVO_ERR_INVALID_DEVICE_ID);
}

VELT_ERROR kavo_sim_knob_get(UINT32 device_id, sim_knob_t knob, UINT32 index, UINT32* value)
{
    kavo_sim::chip* c = kavo_sim::chip_get(device_id);
    if (c == nullptr) return KAVO_ERR_INVALID_DEVICE_ID;
    if (value == nullptr || knob >= LAST_SIM_KNOB) return VELT_ERR_INVALID_ARGS;
    *value = c->knob(knob, index);
    return VELT_SUCCESS;
}

VELT_ERROR kavo_sim_advance_time(UINT32 device_id, UINT64 microseconds)
{
    kavo_sim::chip* c = kavo_sim::chip_get(device_id);
    if (c == nullptr) return KAVO_ERR_INVALID_DEVICE_ID;
    c->advance_time(microseconds);
    return VELT_SUCCESS;
}

VELT_ERROR kavo_sim_chip_info(UINT32 device_id, sim_chip_info_t* info)
{
    kavo_sim::chip* c = kavo_sim::chip_get(device_id);
    if (c == nullptr) return KAVO_ERR_INVALID_DEVICE_ID;
    if (info == nullptr) return VELT_ERR_INVALID_ARGS;
    *info = c->info();
    return VELT_SUCCESS;
}

VELT_ERROR kavo_sim_counters(UINT32 device_id, kavo_sim_counters_t* counters)
{
    kavo_sim::chip* c = kavo_sim::chip_get(device_id);
    if (c == nullptr) return KAVO_ERR_INVALID_DEVICE_ID;
    if (counters == nullptr) return VELT_ERR_INVALID_ARGS;
    const kavo_sim::journal_counters j = c->counters();
    *counters = kavo_sim_counters_t{j.reads,         j.writes,     j.burst_reads, j.burst_writes, j.words_read,
                                    j.words_written, j.bus_errors, j.requests,    j.replies};
    return VELT_SUCCESS;
}

VELT_ERROR kavo_sim_journal_reset(UINT32 device_id)
{
    kavo_sim::chip* c = kavo_sim::chip_get(device_id);
    if (c == nullptr) return KAVO_ERR_INVALID_DEVICE_ID;
    c->journal_reset();
    return VELT_SUCCESS;
}

const char* kavo_sim_firmware_dir(void)
{
    static const std::string dir = [] {
        if (const char* env = std::getenv("KAVO_FW_DIR"); env != nullptr && *env != '\0') return std::string(env);
        // Installed: share/kavo/fw beside the lib or bin directory this code was loaded from.
        Dl_info info;
        if (dladdr(reinterpret_cast<void*>(&kavo_sim_firmware_dir), &info) != 0 && info.dli_fname != nullptr) {
            const std::string installed = dirname_of(dirname_of(info.dli_fname)) + "/share/kavo/fw";
            if (is_directory(installed)) return installed;
        }
        return std::string(KAVO_FW_IMAGE_DIR);
    }();
    return dir.c_str();
}

} // extern "C"
