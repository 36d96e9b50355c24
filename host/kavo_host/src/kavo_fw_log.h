/* The firmware's diagnostics in on-chip RAM, read by the host: the console
   ring, the firmware's own timing statistics and its debug logs, several ring
   logs merged into one listing ordered by time. One per device. */
#ifndef KAVO_FW_LOG_H
#define KAVO_FW_LOG_H

#include <cstddef>
#include <cstdio>

#include "kavo/kavo_api.h"
#include "velt_circular_buffer_reader.h"
#include "velt_handle.h"
#include "velt_shared_memory.h"

/* Offsets of the header words of the log-buffer block. */
enum : UINT32 {
    VELT_LOG_BUFFERS_STATS_COOKIE = 20,
    VELT_LOG_BUFFERS_STATS_NUM = 24,
    VELT_LOG_BUFFERS_STATS_REC_SIZE = 28,
    VELT_LOG_BUFFERS_STATS_OFFSET = 32,
    VELT_LOG_BUFFERS_DBG_LOG_COOKIE = 36,
    VELT_LOG_BUFFERS_DBG_LOG_INFO_NUM = 40,
    VELT_LOG_BUFFERS_DBG_LOG_INFO_REC_SIZE = 44,
    VELT_LOG_BUFFERS_DBG_LOG_INFO_OFFSET = 48,
};
constexpr UINT32 VELT_STATS_COOKIE = 0xFADED0FF;
constexpr UINT32 VELT_DBG_LOG_COOKIE = 0xF00DF00D;
constexpr UINT32 VELT_MAX_DBG_LOGS = 399;
/* Entries beyond this make a log's index suspect. */
constexpr UINT32 VELT_DBG_LOG_MAX_ENTRIES = 50000;
constexpr UINT64 VELT_FW_TICKS_PER_SECOND = 181000000;

/* One debug-log entry as the firmware writes it (32 bytes, little-endian). */
struct dbg_log_app_entry_t {
    UINT64 firmware_ticks;
    UINT16 wrap_count;
    UINT16 log_code;
    UINT32 data0;
    UINT32 data1;
    UINT32 data2; /* line number of ordinary codes */
    UINT32 data3; /* program counter of ordinary codes */
    UINT32 data4; /* return address of ordinary codes */
};
static_assert(sizeof(dbg_log_app_entry_t) == 32, "dbg_log_app_entry_t is 32 bytes");

/* Host-side position in one debug log. The first three members are copied
   from the firmware's descriptor as they stand. */
struct dbg_log_tracking_t {
    char debug_log_name[20];
    UINT32 app_log_num_entries;
    UINT32 offset_into_shared_memory;
    velt_ocr_or_shared_memory_location app_log_ptr;
    velt_ocr_or_shared_memory_location app_log_wr_idx_ptr;
    velt_ocr_or_shared_memory_location app_log_wrap_count_ptr;
    UINT32 current_fw_wr_idx;
    UINT32 current_fw_wrap_count;
    UINT32 entries_to_display;
    bool error;
    UINT32 last_idx;
    UINT32 last_wrap_count;
    UINT32 missed_entries;
    dbg_log_app_entry_t this_entry; /* the entry waiting in the merge heap */
    bool display_this_log_buffer;
};
static_assert(offsetof(dbg_log_tracking_t, offset_into_shared_memory) == 24, "descriptor copy is 28 bytes");

enum dbg_log_field_t {
    dbg_log_field_date = 0,
    dbg_log_field_time = 1,
    dbg_log_field_nanoseconds = 2,
    dbg_log_field_microseconds = 3,
    dbg_log_field_milliseconds = 4,
    dbg_log_field_device = 5,
    dbg_log_field_name = 6,
    dbg_log_field_message = 7,
    dbg_log_field_return_addr = 8,
    dbg_log_field_line_num = 9,
    dbg_log_field_delta_time = 10,
    dbg_log_field_seq_num = 11,
    dbg_log_field_timestamp = 12,
};

struct display_field_t {
    dbg_log_field_t field;
    int width;
    const char* leading_separator;
};

constexpr UINT32 VELT_MAX_DISPLAY_FIELDS = 20;
constexpr UINT32 VELT_STRING_CONTINUATION_SIZE = 81;

/* Host-side state of the log views. */
struct lumo_fw_stats_t {
    velt_ocr_or_shared_memory_location log_buffers_base;
    velt_ocr_or_shared_memory_location stats_list_of_statistics_ptr;
    bool display_firmware_stats;
    UINT32 stats_number_of_stats;
    UINT32 stats_rec_size;
    velt_sys_fw_stats_t* firmware_stats_buffer;
    UINT32 num_dbg_logs;
    UINT32 dbg_log_rec_size;
    dbg_log_tracking_t* dbg_logs;
    UINT32 display_count;
    dbg_log_tracking_t** display_order; /* merge heap, 1-based; slot 0 unused */
    UINT64 last_timestamp;
    UINT32 num_display_fields;
    display_field_t display_fields[VELT_MAX_DISPLAY_FIELDS];
    bool field_used[VELT_MAX_DISPLAY_FIELDS];
    char string_continuation[VELT_STRING_CONTINUATION_SIZE];
    INT32 tz_offset;
};

/* Hours between UTC and local time. */
INT32 fw_common_calculate_tz_offset();

class kavo_fw_log {
public:
    kavo_fw_log() = default;
    virtual ~kavo_fw_log();
    kavo_fw_log(const kavo_fw_log&) = delete;
    kavo_fw_log& operator=(const kavo_fw_log&) = delete;

    void handle_init(UINT32 device_id, cpu_cfg_handle_t* cpu_handle);
    void log_init();
    void stats_init();
    /* Frees the statistics and debug-log tables. */
    void ctxt_destroy();

    /* Views. */
    void dump_console_buffer(FILE* file);
    void console_log_mark();
    void show_new_console_messages(FILE* file);
    void show_stats(FILE* file);
    void show_debug_log(FILE* file);
    /* ALL: console then debug log; CONSOLE; STATS; DBG; CONSOLE_NEW; others nothing. Always 0. */
    VELT_ERROR dump(FILE* file, kavo_fw_log_dump_t kind);

    /* Locating and validating the log-buffer block. */
    VELT_ERROR find_log_location(lumo_fw_stats_t* stats);
    bool find_log_cookies(const char* where);
    UINT32 get_log_field_value(UINT32 byte_offset);
    VELT_ERROR stats_get(lumo_fw_stats_t* stats);
    void load_debug_logs(lumo_fw_stats_t* stats, const velt_ocr_or_shared_memory_location& descriptors,
                         UINT32 rec_size);
    void load_debug_log(lumo_fw_stats_t* stats, dbg_log_tracking_t* log,
                        const velt_ocr_or_shared_memory_location& descriptor);
    void parse_log_format();
    void stats_read();
    /* The description of statistic i, or null beyond the table. */
    const char* stat_name_get(UINT32 index);

    /* Debug-log reading. */
    void update_fw_index(dbg_log_tracking_t* log);
    int count_entries_to_display(dbg_log_tracking_t* log);
    UINT32 estimate_log_rate_and_entries_to_skip(dbg_log_tracking_t* log);
    void read_entry(dbg_log_tracking_t* log, UINT32 index, dbg_log_app_entry_t* entry);
    void advance_read_idx(dbg_log_tracking_t* log);
    void show_log_entry(FILE* file, dbg_log_tracking_t* log);
    /* "%s%s+%d" with a firmware symbol, else "%s%08x". */
    void print_address(char* out, size_t size, const char* prefix, UINT32 address);

    /* Merge heap keyed by this_entry.firmware_ticks. */
    void heap_insert(dbg_log_tracking_t* log);
    dbg_log_tracking_t* heap_remove();

    UINT32 device_id = 0;
    cpu_cfg_handle_t* cpu_handle = nullptr;
    lumo_fw_stats_t* fw_stats = nullptr;
    velt_circular_buffer_reader read_buffer;

private:
    velt_sys_handle_t sys_handle() const;
    void free_tables();
    void reset_positions();
    char stat_name[sizeof(velt_sys_fw_stats_t::description) + 1] = "";  // what stat_name_get returns
};

#endif /* KAVO_FW_LOG_H */
