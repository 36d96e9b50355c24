// The firmware model of the virtual kavo chip: it starts from the image in
// RAM, keeps its logs in the log-buffer block, and serves the mailbox through
// a dispatch table of handlers grouped by family.
#ifndef KAVO_SIM_FW_FIRMWARE_H
#define KAVO_SIM_FW_FIRMWARE_H

#include <cstdarg>
#include <algorithm>
#include <cstring>
#include <iterator>
#include <span>
#include <vector>

#include "chip_state.h"
#include "fw/log_block.h"
#include "fw/models.h"

namespace kavo_sim::fw {

enum class log_id : UINT32 { main, htl, cmd, count };

struct request {
    UINT32 device_id = 0;
    UINT32 sequence_num = 0;
    UINT32 operation = 0;
    kavo_htl_general_struct_t info;
    UINT32 data_size = 0;
    std::vector<UINT8> data; // the payload as it lies in the mailbox

    /* Copies a record from the payload; false when the payload is shorter. */
    template <class T> bool payload(T& out) const
    {
        if (data.size() < sizeof(T)) return false;
        std::memcpy(static_cast<void*>(&out), data.data(), sizeof(T));
        return true;
    }
};

struct reply {
    VELT_ERROR result = VELT_SUCCESS;
    UINT32 mode = 0, value = 0, value2 = 0;
    std::vector<UINT8> data;

    template <class T> void record(const T& rec)
    {
        data.resize(sizeof(T));
        std::memcpy(data.data(), static_cast<const void*>(&rec), sizeof(T));
    }
    void text(const char* s); // NUL-terminated, padded to whole words
};

class firmware;
using handler_fn = void (*)(firmware& fw, const request& req, reply& rep);

struct handler {
    UINT32 operation;
    const char* name;
    handler_fn fn;
};

// One list per family, defined beside its handlers (handlers_<family>.cpp).
std::span<const handler> device_handlers();
std::span<const handler> debug_handlers();
std::span<const handler> datapath_handlers();
std::span<const handler> macsec_handlers();
std::span<const handler> defect_handlers();
std::span<const handler> serdes_handlers();
std::span<const handler> flexe_handlers();
std::span<const handler> ilkn_handlers();
std::span<const handler> ptp_handlers();
std::span<const handler> pmon_handlers();
std::span<const handler> mux_handlers();
std::span<const handler> pe_handlers();
std::span<const handler> pgmrclk_handlers();

constexpr UINT32 NUM_SERDES_PORTS = 48;
constexpr UINT32 NO_OWNER = 0xFFFFFFFF;

/* State that the device-level handlers keep, and the resources the families
   share: what each channel is, and which channel owns each SerDes port. */
struct device_state {
    bool configured = false;
    kavo_config_t config;
    UINT32 channels[KAVO_NUM_CHANNELS] = {}; // kavo_segment_type_t per channel
    UINT32 serdes_owner[NUM_SERDES_PORTS];   // owning channel, or NO_OWNER

    device_state() { std::fill(std::begin(serdes_owner), std::end(serdes_owner), NO_OWNER); }
};

/* What one request produced: the reply header words and payload, as the
   firmware is about to write them to the response mailbox. */
struct outcome {
    UINT32 request[8] = {};
    UINT32 header[8] = {};
    std::vector<UINT8> data;
    bool restart = false;
};

class firmware {
  public:
    explicit firmware(chip_state& chip);

    /* Starts from the image at RAM address 0 and the boot argument left in
       APP_SCRATCH[6]; false when the image is refused (the firmware then never
       hands the mailbox over). */
    bool start();
    void stop() { running_ = false; }
    bool running() const { return running_; }

    /* Reads the request mailbox, dispatches, and fills the reply to deliver. */
    void serve(outcome& out);

    /* Brings every family model up to the chip's current time: link
       training, timers, counters and the interrupts they raise. */
    void advance();
    /* Raises a doorbell interrupt towards the host (VELT_IPI_DEFECTS_ENABLED ...). */
    void raise_ipi(kavo_ipi_type_t type) { chip.regs.ipi2pcie_int[0] |= 1u << UINT32(type); }
    UINT32 knob(sim_knob_t k, UINT32 index) const { return chip.knobs.get(k, index); }
    UINT64 now_us() const { return chip.now_ns() / 1000; }

    /* Faults on the log block; false before the firmware has laid it out. */
    bool corrupt(sim_fault_t what, UINT32 arg);

    // Services for the handlers.
    void console(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void log(log_id which, UINT32 code, UINT32 d0 = 0, UINT32 d1 = 0, UINT32 line = 0);
    void log_text(log_id which, const char* text);
    void request_restart() { restart_requested_ = true; }
    UINT32 up_time_seconds() const;
    UINT32 version_word() const { return version_; }
    UINT32 vcs_id() const { return vcs_id_; }

    chip_state& chip;
    device_state device;
    models model; // the family models, reset with every start
    UINT32 verbosity = VELT_LOG_SEV_EVENT;

    // Log-block geometry, byte offsets from the block.
    static constexpr UINT32 NUM_DBG_LOGS = UINT32(log_id::count);
    static constexpr UINT32 DESC_SIZE = 48;
    static constexpr UINT32 NUM_STATS = 20;
    static constexpr UINT32 STAT_REQUEST = 0;
    static constexpr UINT32 STAT_PAYLOAD_WORDS = 1;
    static constexpr UINT32 STAT_BOOT = 2;
    static constexpr UINT32 STAT_FAMILY = 3; // + operation / 0x100
    UINT32 stats_offset() const;
    UINT32 descriptor_offset(log_id which) const;
    UINT32 log_entries_offset(log_id which) const;
    static UINT32 log_entries(log_id which);
    static const char* log_name(log_id which);

  private:
    void lay_out_log_block();
    void vconsole(const char* format, va_list args);

    bool running_ = false;
    bool laid_out_ = false;
    bool restart_requested_ = false;
    UINT32 version_ = 0;
    UINT32 vcs_id_ = 0;
    UINT64 start_ticks_ = 0;
    console_ring_writer console_;
    debug_log_writer logs_[NUM_DBG_LOGS];
    stats_table stats_;
};

} // namespace kavo_sim::fw

#endif
