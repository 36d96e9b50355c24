// What a virtual chip is made of, as its firmware sees it: the register file,
// the on-chip RAM and the free-running tick counter.
#ifndef KAVO_SIM_CHIP_STATE_H
#define KAVO_SIM_CHIP_STATE_H

#include <sys/mman.h>
#include <sys/prctl.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <new>
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

/* The on-chip RAM, mapped from the system's zero pages: a new chip and a
   cleared bank cost nothing until written, so that 32 chips and a bank clear
   at every cold start stay cheap in time and resident memory. */
class chip_ram {
  public:
    explicit chip_ram(size_t words) : words_(words)
    {
        void* p = mmap(nullptr, bytes(), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (p == MAP_FAILED) throw std::bad_alloc();
        data_ = static_cast<UINT32*>(p);
#ifdef PR_SET_VMA_ANON_NAME
        // Named where the system allows it, so that a memory map tells the
        // chips' RAM from the host's memory.
        prctl(PR_SET_VMA, PR_SET_VMA_ANON_NAME, p, bytes(), "kavo chip RAM");
#endif
    }
    ~chip_ram() { munmap(data_, bytes()); }
    chip_ram(const chip_ram&) = delete;
    chip_ram& operator=(const chip_ram&) = delete;

    UINT32* data() { return data_; }
    const UINT32* data() const { return data_; }
    size_t size() const { return words_; }
    UINT32* begin() { return data_; }
    UINT32& operator[](size_t i) { return data_[i]; }
    const UINT32& operator[](size_t i) const { return data_[i]; }

    /* Words [first, first + count) read 0 again: whole pages go back to the
       system, the ragged ends are cleared in place. */
    void zero(size_t first, size_t count)
    {
        constexpr size_t PAGE_WORDS = 4096 / 4;
        const size_t end = std::min(first + count, words_);
        const size_t lo = std::min((first + PAGE_WORDS - 1) / PAGE_WORDS * PAGE_WORDS, end);
        const size_t hi = std::max(lo, end / PAGE_WORDS * PAGE_WORDS);
        if (hi > lo && madvise(data_ + lo, (hi - lo) * 4, MADV_DONTNEED) != 0)
            std::fill(data_ + lo, data_ + hi, 0u);
        std::fill(data_ + first, data_ + lo, 0u);
        std::fill(data_ + hi, data_ + end, 0u);
    }

  private:
    size_t bytes() const { return words_ * 4; }
    size_t words_;
    UINT32* data_ = nullptr;
};

struct chip_state {
    chip_state(UINT32 id, const chip_config& c)
        : device_id(id), cfg(c), ram(map::RAM_SIZE / 4), epoch(std::chrono::steady_clock::now())
    {
    }

    UINT32 device_id;
    chip_config cfg;
    chip_registers regs;
    chip_ram ram;
    std::chrono::steady_clock::time_point epoch;
    world_knobs knobs;
    UINT64 skipped_ns = 0; // time moved forward on request (SIM_FAULT_ADVANCE_TIME) and by the bus's time

    static constexpr UINT64 TICKS_PER_US = 181;

    /* Nanoseconds since power-up. */
    UINT64 now_ns() const
    {
        if (!cfg.host_time) return skipped_ns;
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
