// What a virtual chip is made of, as its firmware sees it: the register file,
// the on-chip RAM and the free-running tick counter.
#ifndef KAVO_SIM_CHIP_STATE_H
#define KAVO_SIM_CHIP_STATE_H

#include <chrono>
#include <cstring>
#include <unordered_map>
#include <vector>

#include "kavo_sim/kavo_sim.h"

namespace kavo_sim {

struct chip_registers {
    UINT32 sw_rst_host_en = 0;
    bool host_reset = true; // SW_RST_HOST_TRIG: the processor is held in reset at power-up
    UINT32 ca53_ctrl4 = 1;  // SW_SET_CORERESET: the core is held in reset too
    UINT32 boot_info = 0;
    UINT32 app_scratch[map::APP_SCRATCH_COUNT] = {};
    UINT32 ocr_unavail = 0;
    UINT32 ocr_init_ctrl = 0;
    UINT32 ocr_init_busy = 0;       // banks being initialised
    UINT64 ocr_init_done_ns = 0;    // chip time at which the running init completes
    UINT32 ocr_shutdown = 0;
    UINT32 dev_intb_aggr_set[map::DEV_INTB_AGGR_SET_COUNT] = {};
    UINT32 ipi[map::INTER_PROCESSOR_INTS_COUNT] = {};
    UINT32 ipi2pcie_int[map::IPI2PCIE_GROUPS] = {};
    UINT32 ipi2pcie_en[map::IPI2PCIE_GROUPS] = {};
    UINT32 dcsu_update = 0;
    UINT32 dcsu_cfg[2] = {map::DCSU_POST_DIVIDER_RESET, map::DCSU_POST_DIVIDER_RESET};
    UINT32 dcsu_latched[2] = {map::DCSU_POST_DIVIDER_RESET, map::DCSU_POST_DIVIDER_RESET};
};

/* The world outside the chip: link partners, channels, traffic (sim_knob_t). */
struct world_knobs {
    UINT32 get(sim_knob_t knob, UINT32 index) const
    {
        auto it = values.find(key(knob, index));
        return it != values.end() ? it->second : knob_default(knob);
    }
    void set(sim_knob_t knob, UINT32 index, UINT32 value) { values[key(knob, index)] = value; }
    static UINT32 key(sim_knob_t knob, UINT32 index) { return (UINT32(knob) << 16) | (index & 0xFFFF); }
    std::unordered_map<UINT32, UINT32> values;
};

struct chip_state {
    chip_state(UINT32 id, const chip_config& c)
        : device_id(id), cfg(c), ram(map::RAM_SIZE / 4, 0), epoch(std::chrono::steady_clock::now())
    {
    }

    UINT32 device_id;
    chip_config cfg;
    chip_registers regs;
    std::vector<UINT32> ram;
    std::chrono::steady_clock::time_point epoch;
    world_knobs knobs;
    UINT64 skipped_ns = 0; // time moved forward on request (SIM_FAULT_ADVANCE_TIME) and by stepped bus transactions

    static constexpr UINT64 TICKS_PER_US = 181;

    /* Nanoseconds since power-up. */
    UINT64 now_ns() const
    {
        if (cfg.clock_step_ns != 0) return skipped_ns;
        const auto ns =
            std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - epoch).count();
        return UINT64(ns) + skipped_ns;
    }
    /* 181,000,000 ticks per second since power-up. */
    UINT64 ticks() const { return now_ns() * TICKS_PER_US / 1000; }
    UINT32 device_id_register() const { return ((cfg.revision_code & 0xF) << 28) | ((cfg.device_code & 0xFFFF) << 12); }

    UINT32* words(UINT32 address) { return ram.data() + address / 4; }
    UINT8* bytes(UINT32 address) { return reinterpret_cast<UINT8*>(ram.data()) + address; }
    UINT32 word(UINT32 address) const { return ram[address / 4]; }
    void put(UINT32 address, UINT32 value) { ram[address / 4] = value; }
    void read_bytes(UINT32 address, void* out, size_t n) const
    {
        if (n) std::memcpy(out, reinterpret_cast<const UINT8*>(ram.data()) + address, n);
    }
    void write_bytes(UINT32 address, const void* in, size_t n)
    {
        if (n) std::memcpy(reinterpret_cast<UINT8*>(ram.data()) + address, in, n);
    }
};

} // namespace kavo_sim

#endif
