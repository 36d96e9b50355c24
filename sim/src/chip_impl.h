// One virtual chip: bus decode, processor reset, the doorbell that wakes the
// firmware, reply delivery, faults and the journal.
#ifndef KAVO_SIM_CHIP_IMPL_H
#define KAVO_SIM_CHIP_IMPL_H

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "chip_state.h"
#include "fw/firmware.h"

namespace kavo_sim {

class chip_impl {
  public:
    chip_impl(UINT32 device_id, const chip_config& cfg);
    ~chip_impl();

    UINT32 reg_read(UINT32 address, UINT32* value);
    UINT32 reg_write(UINT32 address, UINT32 value);
    UINT32 burst_read(UINT32 address, UINT32 words, UINT32* buffer);
    UINT32 burst_write(UINT32 address, UINT32 words, const UINT32* buffer);
    VELT_ERROR fault_set(sim_fault_t fault, UINT32 a, UINT32 b);
    sim_chip_info_t info() const;

    mutable std::mutex mutex;
    chip_state st;
    fw::firmware fw;
    sim_fw_state_t state = SIM_FW_STATE_IN_RESET;
    fault_config faults;
    journal_counters counters;
    std::vector<journal_event> events; // ring of JOURNAL_EVENTS
    size_t next_event = 0;
    bool events_wrapped = false;

  private:
    using clock = std::chrono::steady_clock;

    // bus_fault's answer for a transaction that fails without saying so.
    static constexpr UINT32 BUS_SILENT = 0xFFFFFFFEu;
    /* The bus's own time, on the chip's clock (chip_config's bus times). */
    void bus_time(UINT32 words) { st.skipped_ns += st.cfg.bus_transaction_ns + UINT64(words) * st.cfg.bus_word_ns; }
    UINT32 bus_fault(UINT32 address, UINT32 words);
    UINT32 ram_check(UINT32 address, UINT32 words) const;
    UINT32 decode_read(UINT32 address, UINT32& value);
    UINT32 decode_write(UINT32 address, UINT32 value);
    void record(const journal_event& e);
    void record_bus(event_kind kind, UINT32 address, UINT32 value, UINT32 status);

    void processor_reset();
    void maybe_start();
    void start_firmware();
    void doorbell_cleared();
    void serve(fw::outcome& out);
    void deliver(fw::outcome& out);
    void deliver_due();
    void hostile(fw::outcome& out);
    void worker();

    fw::outcome pending_;
    bool has_pending_ = false;
    UINT64 pending_due_ns_ = 0;
    std::condition_variable cv_;
    std::thread worker_;
    bool stop_ = false;
    bool work_ = false;
    UINT64 generation_ = 0; // bumped by every processor reset or restart
    bool starting_ = false;  // released from reset, start-up time not yet over
    UINT64 start_due_ns_ = 0;
};

} // namespace kavo_sim

#endif
