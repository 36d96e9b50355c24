// The chips of this process, by device id, and the in-process callout table
// that reaches them.
#include <array>
#include <atomic>
#include <cstdarg>
#include <mutex>

#include "kavo_sim/kavo_sim.h"
#include "sim_callouts.h"

namespace kavo_sim {
namespace {

std::array<std::atomic<chip*>, MAX_CHIPS> chips{};
std::mutex registry_mutex; // create and destroy; lookups are lock-free

UINT32 cb_read(void*, UINT32, UINT32 device_id, UINT32 address, UINT32* value)
{
    chip* c = chip_get(device_id);
    return c ? c->reg_read(address, value) : map::BUS_ERR_NO_CHIP;
}

UINT32 cb_write(void*, UINT32, UINT32 device_id, UINT32 address, UINT32 value)
{
    chip* c = chip_get(device_id);
    return c ? c->reg_write(address, value) : map::BUS_ERR_NO_CHIP;
}

UINT32 cb_bread(void*, UINT32, UINT32 device_id, UINT32 words, UINT32 address, UINT32* buffer)
{
    chip* c = chip_get(device_id);
    return c ? c->burst_read(address, words, buffer) : map::BUS_ERR_NO_CHIP;
}

UINT32 cb_bwrite(void*, UINT32, UINT32 device_id, UINT32 words, UINT32 address, UINT32* buffer)
{
    chip* c = chip_get(device_id);
    return c ? c->burst_write(address, words, buffer) : map::BUS_ERR_NO_CHIP;
}

struct log_context {
    FILE* file;
};

} // namespace

int log_to_file(void*, FILE* file, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const int n = std::vfprintf(file ? file : stdout, format, args);
    va_end(args);
    return n;
}

void* log_context_init(UINT32, UINT32, const char*)
{
    static log_context ctx{stdout};
    return &ctx;
}

VELT_ERROR chip_create(UINT32 device_id, const chip_config& cfg)
{
    if (device_id >= MAX_CHIPS) return KAVO_ERR_INVALID_DEVICE_ID;
    std::lock_guard<std::mutex> lock(registry_mutex);
    if (chips[device_id].load()) return KAVO_ERR_DEVICE_ID_IN_USE;
    chips[device_id].store(new chip(device_id, cfg));
    return VELT_SUCCESS;
}

void chip_destroy(UINT32 device_id)
{
    if (device_id >= MAX_CHIPS) return;
    std::lock_guard<std::mutex> lock(registry_mutex);
    delete chips[device_id].exchange(nullptr);
}

void chip_destroy_all()
{
    for (UINT32 id = 0; id < MAX_CHIPS; ++id)
        chip_destroy(id);
}

chip* chip_get(UINT32 device_id) { return device_id < MAX_CHIPS ? chips[device_id].load() : nullptr; }

tavo_callout_api_st* callouts()
{
    static qspi_callout_api_st bus{cb_read, cb_write, cb_bread, cb_bwrite};
    static tavo_callout_api_st table{&bus, log_to_file, log_context_init, nullptr};
    return &table;
}

} // namespace kavo_sim
