/* The virtual kavo device: up to 32 chips per process, each with its register
   file, 4 MiB of on-chip RAM, its processor's reset state and its firmware,
   reached through a callout table exactly as libkavo reaches a real chip.

   The C interface (kavo_sim_*) is what libkavo_sim.so exports, for C programs
   and bindings; C++ programs may also use the classes of namespace kavo_sim. */
#ifndef KAVO_SIM_KAVO_SIM_H
#define KAVO_SIM_KAVO_SIM_H

#include "kavo/kavo_api.h"
#include "kavo_sim/gen/kavo_sim_types.h"

#if defined(__GNUC__)
#define KAVO_SIM_API __attribute__((visibility("default")))
#else
#define KAVO_SIM_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* How a new chip is made; zero-initialised it is a revision-a chip answering
   inside each doorbell write. */
typedef struct kavo_sim_chip_options_t {
    UINT32 revision_code;   /* 0: reva, otherwise revb */
    UINT32 threaded;        /* 1: the firmware answers from a thread of its own */
    UINT32 service_time_us; /* time the firmware takes to answer a request */
    UINT32 clock_step_ns;   /* 0: the chip's clock runs in real time; otherwise it
                               stands still and each bus transaction moves it on by
                               this many nanoseconds (kavo_sim_advance_time too) */
} kavo_sim_chip_options_t;

/* Bus and request counters of a chip's journal. */
typedef struct kavo_sim_counters_t {
    UINT64 reads, writes, burst_reads, burst_writes, words_read, words_written, bus_errors, requests, replies;
} kavo_sim_counters_t;

/* Creates chip device_id (0..31); options may be null. KAVO_ERR_INVALID_DEVICE_ID
   or KAVO_ERR_DEVICE_ID_IN_USE when it cannot. */
KAVO_SIM_API VELT_ERROR kavo_sim_chip_create(UINT32 device_id, const kavo_sim_chip_options_t* options);
KAVO_SIM_API void kavo_sim_chip_destroy(UINT32 device_id);
KAVO_SIM_API void kavo_sim_chip_destroy_all(void);
/* The callout table that reaches this process's chips, to give to kavo_sdk_init. */
KAVO_SIM_API tavo_callout_api_st* kavo_sim_callouts(void);
/* The callout table that reaches the chips of kavo-simd at socket_path; null
   when it cannot connect. */
KAVO_SIM_API tavo_callout_api_st* kavo_sim_socket_callouts(const char* socket_path);
/* A fault or one-shot action (sim_fault_t with its two arguments). */
KAVO_SIM_API VELT_ERROR kavo_sim_fault_set(UINT32 device_id, sim_fault_t fault, UINT32 a, UINT32 b);
/* The world outside the chip (sim_knob_t), and its clock moved forward. */
KAVO_SIM_API VELT_ERROR kavo_sim_knob_set(UINT32 device_id, sim_knob_t knob, UINT32 index, UINT32 value);
KAVO_SIM_API VELT_ERROR kavo_sim_knob_get(UINT32 device_id, sim_knob_t knob, UINT32 index, UINT32* value);
KAVO_SIM_API VELT_ERROR kavo_sim_advance_time(UINT32 device_id, UINT64 microseconds);
KAVO_SIM_API VELT_ERROR kavo_sim_chip_info(UINT32 device_id, sim_chip_info_t* info);
KAVO_SIM_API VELT_ERROR kavo_sim_counters(UINT32 device_id, kavo_sim_counters_t* counters);
KAVO_SIM_API VELT_ERROR kavo_sim_journal_reset(UINT32 device_id);
/* The directory of the default firmware images: KAVO_FW_DIR when set, else
   share/kavo/fw of the installation (or the build's images). */
KAVO_SIM_API const char* kavo_sim_firmware_dir(void);

#ifdef __cplusplus
} /* extern "C" */
#endif

/* The C++ classes come with the source tree's static library; an installed
   SDK has the C interface only. */
#if defined(__cplusplus) && __has_include("kavo_sim/chip_map.h")
#define KAVO_SIM_CXX_API 1

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kavo_sim/chip_map.h"
#include "kavo_sim/image.h"

namespace kavo_sim {

enum class exec_mode { synchronous, threaded };

struct chip_config {
    UINT32 device_code = 0x6100; // DEVICE_ID field of register DEVICE_ID
    UINT32 revision_code = 0;    // 0 = reva, else revb
    exec_mode mode = exec_mode::synchronous;
    UINT32 service_time_us = 0; // time the firmware takes to answer a request
    // Times in the chip's clock (moved on by advance_time as well): from the
    // processor's release to the firmware's start-up handshake, and of an
    // on-chip RAM initialisation, during which RAM_INIT_BUSY reads busy.
    UINT32 startup_us = 0;
    UINT32 ram_init_us = 100;
    // Simulated time of the bus: every transaction moves the chip's clock on
    // by bus_transaction_ns, a burst by bus_word_ns more per word, so that a
    // RAM initialisation or an image download takes the chip's time instead
    // of the host's (a poll of RAM_INIT_BUSY ends after as many reads as the
    // bus needs). 0: the chip's clock follows the host's alone.
    UINT32 bus_transaction_ns = 0;
    UINT32 bus_word_ns = 0;
    // false: the chip's clock stands still but for the bus's time and
    // advance_time, so that what a test sees of the chip's timers does not
    // depend on how fast the host runs (its polls still end: reads take time).
    bool host_time = true;

    /* A chip whose clock moves 1 us per bus transaction and on advance_time only. */
    static chip_config stepped(UINT32 device_code = 0x6100, UINT32 revision_code = 0)
    {
        chip_config c;
        c.device_code = device_code;
        c.revision_code = revision_code;
        c.bus_transaction_ns = 1000;
        c.host_time = false;
        return c;
    }
};

/* The bus times of a quad-SPI bus at 50 MHz, as kavoctl's in-process chip uses them. */
constexpr UINT32 QSPI_TRANSACTION_NS = 500;
constexpr UINT32 QSPI_WORD_NS = 160;

constexpr UINT32 MAX_CHIPS = 32;

/* A reply the firmware gives instead of serving a request, for tests that
   check what the host does with any answer. The header echoes the request's
   device id, sequence number and operation. */
struct scripted_reply {
    VELT_ERROR result = VELT_SUCCESS;
    UINT32 mode = 0, value = 0, value2 = 0;
    std::vector<UINT8> data; // the reply payload; its size is the header's data_size
    bool repeat = false;     // answers every request until the faults are cleared
    // Hostile replies: when raw is set, the eight header words go out exactly
    // as given (device id, sequence number, operation, result, mode, value,
    // value2, data_size, whatever they say) and data fills the payload area,
    // cut to the mailbox.
    bool raw = false;
    UINT32 header[8] = {};
};

/* What the Nth bus transaction of bus_fail_nth meets. */
enum class bus_effect : UINT32 {
    fail = 0,   // the transaction reports a bus error
    silent = 1, // reported as done: a read returns all ones, a write is dropped
};

/* Faults a chip can be given. Counted reply faults act on the next N replies. */
struct fault_config {
    std::vector<UINT32> bus_fail_addresses; // transactions touching these fail
    UINT32 bus_fail_nth = 0;                // the Nth bus transaction from now fails (1 = the next); 0 off
    bus_effect bus_fail_effect = bus_effect::fail; // how it fails
    bool fw_hang = false;                   // the next request hangs the firmware until a reset
    UINT32 slow_reply_us = 0;               // extra time before every reply
    UINT32 wrong_sequence = 0;
    UINT32 wrong_operation = 0;
    UINT32 wrong_device_id = 0;
    UINT32 oversized_reply = 0;
    UINT32 oversized_reply_bytes = 64; // added to the reply payload of an oversized reply
    UINT32 doorbell_kept = 0;          // reply written, status raised, doorbell left at 0
    UINT32 short_reply = 0;            // the next N reply payloads come short_reply_bytes short
    UINT32 short_reply_bytes = 5;
    // Hostile replies from a seed: each of the next hostile_replies replies
    // (every reply when 0 and a seed is set) has header words and payload
    // bytes changed at random, reproducibly from hostile_seed.
    UINT32 hostile_seed = 0;
    UINT32 hostile_replies = 0;
    // The hang, slow-reply and reply faults above wait until this many more
    // requests have been served cleanly (to reach the Nth exchange of a start).
    UINT32 reply_faults_after = 0;
    bool corrupt_image = false;        // the next firmware start finds its image corrupt
    std::vector<scripted_reply> scripted; // the next requests are answered with these, in order
};

enum class event_kind { reg_read, reg_write, burst_read, burst_write, request, reply };

/* One journal entry. Bus transactions: address, value (or word count) and bus
   status. Requests and replies: the mailbox header words. */
struct journal_event {
    event_kind kind = event_kind::reg_read;
    UINT32 address = 0;
    UINT32 value = 0;
    UINT32 status = 0;
    UINT32 device_id = 0;
    UINT32 sequence_num = 0;
    UINT32 operation = 0;
    UINT32 result = 0;
    UINT32 data_size = 0;
};

struct journal_counters {
    UINT64 reads = 0;
    UINT64 writes = 0;
    UINT64 burst_reads = 0;
    UINT64 burst_writes = 0;
    UINT64 words_read = 0;    // by burst reads
    UINT64 words_written = 0; // by burst writes
    UINT64 bus_errors = 0;
    UINT64 requests = 0;
    UINT64 replies = 0;
};

struct journal_snapshot {
    journal_counters counters;
    std::vector<journal_event> events; // the most recent JOURNAL_EVENTS, oldest first
};
constexpr UINT32 JOURNAL_EVENTS = 4096;

class chip_impl;

class chip {
  public:
    chip(UINT32 device_id, const chip_config& cfg);
    ~chip();
    chip(const chip&) = delete;
    chip& operator=(const chip&) = delete;

    UINT32 device_id() const;
    const chip_config& config() const;

    // Bus transactions, as the callouts make them; each returns a bus status.
    UINT32 reg_read(UINT32 address, UINT32* value);
    UINT32 reg_write(UINT32 address, UINT32 value);
    UINT32 burst_read(UINT32 address, UINT32 words, UINT32* buffer);
    UINT32 burst_write(UINT32 address, UINT32 words, const UINT32* buffer);

    // Back door for tests: RAM without bus, journal or faults.
    UINT32 ram_peek(UINT32 address) const;
    void ram_poke(UINT32 address, UINT32 value);

    sim_fw_state_t fw_state() const;
    UINT32 boot_count() const;
    sim_chip_info_t info() const;

    fault_config faults() const;
    void faults(const fault_config& f);
    /* The wire form of faults and one-shot actions (restart, log corruption):
       a and b as sim_fault_t says. Unknown faults answer VELT_ERR_INVALID_ARGS. */
    VELT_ERROR fault_set(sim_fault_t fault, UINT32 a = 0, UINT32 b = 0);

    /* The world outside the chip (sim_knob_t); index as the knob says. */
    VELT_ERROR knob_set(sim_knob_t knob, UINT32 index, UINT32 value);
    UINT32 knob(sim_knob_t knob, UINT32 index) const;
    /* Moves the chip's clock forward: link training, timers and counters see
       the time pass at once. */
    void advance_time(UINT64 microseconds);

    journal_snapshot journal() const;
    journal_counters counters() const;
    void journal_reset();

  private:
    std::unique_ptr<chip_impl> impl_;
};

/* A knob's value when it was never set. */
UINT32 knob_default(sim_knob_t knob);

/* KAVO_ERR_INVALID_DEVICE_ID for ids of 32 or more, KAVO_ERR_DEVICE_ID_IN_USE
   for a taken id. Lookups take no lock: destroy a chip only while no callout
   or server is using it. */
VELT_ERROR chip_create(UINT32 device_id, const chip_config& cfg = {});
void chip_destroy(UINT32 device_id);
void chip_destroy_all();
chip* chip_get(UINT32 device_id);

/* In-process callout table reaching every chip by device id. Its log_api
   vfprintf's to the FILE it is given (stdout when null); log_init returns a
   context whose first word is stdout. */
tavo_callout_api_st* callouts();

/* Socket transport. socket_callouts connects this process to kavo-simd (or an
   in-process socket_server) at socket_path and returns a callout table that
   reaches its chips; null if it cannot connect. One connection per process:
   a later call replaces the earlier one. */
tavo_callout_api_st* socket_callouts(const char* socket_path);
void socket_disconnect();
VELT_ERROR socket_chip_create(const char* socket_path, UINT32 device_id, const chip_config& cfg);
VELT_ERROR socket_chip_destroy(const char* socket_path, UINT32 device_id);
VELT_ERROR socket_chip_info(const char* socket_path, UINT32 device_id, sim_chip_info_t* info);
VELT_ERROR socket_fault_set(const char* socket_path, UINT32 device_id, sim_fault_t fault, UINT32 a = 0, UINT32 b = 0);
VELT_ERROR socket_shutdown(const char* socket_path);

/* A chip's bus belongs to one client of kavo-simd at a time: the first that
   touches it, until that client hangs up. Another client's register and burst
   transactions are refused with bus status KAVO_ERR_DEVICE_ID_IN_USE (busy);
   faults and chip information stay open to all. client 0 is not tracked.

   Handles one message of size bytes as kavo-simd does and builds the reply
   message (header and payload). A malformed message (a length word that
   disagrees with size, a command that is no request, a payload of the wrong
   size for its command, a burst over the largest message) changes nothing, is
   answered with status VELT_ERR_INVALID_ARGS, and sets *close_reason to why
   kavo-simd closes that connection (empty otherwise). Returns true for
   SHUTDOWN. */
bool socket_handle_message(const UINT8* data, size_t size, std::vector<UINT8>& reply, UINT32 client = 0,
                           std::string* close_reason = nullptr);

/* Serves the chips of this process on a Unix domain socket: one thread accepts,
   each connection is served by a thread of its own. run() serves until stop()
   (any thread or a signal handler), a SHUTDOWN message, or a fatal socket
   error. A connection that sends a malformed message gets its reply and is
   closed; the reason goes to the log (standard error, "kavo-simd: ..." lines,
   unless log_to chose another sink; an empty sink silences it). */
class socket_server {
  public:
    socket_server();
    ~socket_server();
    socket_server(const socket_server&) = delete;
    socket_server& operator=(const socket_server&) = delete;

    VELT_ERROR listen(const char* socket_path); // binds; VELT_ERR_FAIL if it cannot
    void log_to(std::function<void(const char*)> sink);
    void run();
    void stop();         // async-signal-safe
    void start_thread(); // run() on a thread of its own, for tests
    void join();

  private:
    struct impl;
    std::unique_ptr<impl> impl_;
};

} // namespace kavo_sim

#endif /* KAVO_SIM_CXX_API */

#endif
