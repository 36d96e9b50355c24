#include "kavo_fw_log.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <new>

#include "fw_log_print.h"
#include "velt_customer_os.h"
#include "velt_shared_log.h"
#include "velt_stat.h"

namespace {
constexpr UINT32 STATS_MAX_NUM = 1000;
constexpr UINT32 MAX_REC_SIZE = 999;
constexpr UINT32 MAX_TABLE_OFFSET = 0x3FFFFF;
constexpr UINT32 DESCRIPTOR_COPY_BYTES = 28;
constexpr UINT32 DESCRIPTOR_WR_IDX = 28;
constexpr UINT32 DESCRIPTOR_WRAP_COUNT = 32;
constexpr UINT32 ENTRY_BYTES = sizeof(dbg_log_app_entry_t);
/* Decoded text of one debug-log record, at most this many characters. */
constexpr UINT32 MESSAGE_MAX = 1000;
/* Room for the longest log-code name (70 characters today). A message
   is the code name, a blank and the decoded text, and is never cut: its
   buffer is sized from these inputs. */
constexpr UINT32 CODE_NAME_MAX = 80;
constexpr UINT32 ENTRY_MESSAGE_SIZE = CODE_NAME_MAX + 1 + MESSAGE_MAX + 1;
/* An output line: the message plus time, device, log name, addresses and line. */
constexpr UINT32 ENTRY_LINE_SIZE = ENTRY_MESSAGE_SIZE + 256;
/* Entries the firmware writes per this many ticks, in the skip estimate. */
constexpr UINT64 RATE_TICKS = 400000000;

/* Codes whose five data words carry 20 characters of text. */
constexpr int USER_LOG = 6147;
constexpr int STRING_MSG = 6148;
constexpr int USER_LOG_START = 6149;
constexpr int USER_LOG_CONT = 6150;
constexpr int USER_LOG_END = 6151;

/* The name of a log code; codes beyond the code space are unknown and never
   converted to the enumeration. */
const char* code_name(UINT32 code)
{
    return code < (UINT32)LAST_KAVO_MID * 0x100 ? kavo_err_t_print((kavo_err_t)code) : "illegal kavo_err_t";
}

bool is_text_record(int code) { return code >= USER_LOG && code <= USER_LOG_END; }

const char* text_record_label(int code)
{
    switch (code) {
    case USER_LOG: return "USER_LOG       ";
    case STRING_MSG: return "STRING_MSG     ";
    case USER_LOG_START: return "USER_LOG_START ";
    case USER_LOG_CONT: return "USER_LOG_CONT  ";
    default: return "USER_LOG_END   ";
    }
}

template <typename T>
T* table_alloc(UINT32 count)
{
    // At least one element, so that an empty table is still a valid allocation.
    T* table = static_cast<T*>(velt_customer_os_calloc(sizeof(T) * (count != 0 ? count : 1)));
    for (UINT32 i = 0; i < count; ++i) new (&table[i]) T();
    return table;
}

/* Appends printf output to out[0..size), keeping it terminated. */
template <typename... A>
void append(char* out, size_t size, const char* format, A... args)
{
    const size_t used = strnlen(out, size);
    if (used + 1 < size) std::snprintf(out + used, size - used, format, args...);
}
}  // namespace

/* A halt with a message of its own: header, message, " ASSERT: ". */
#define FW_LOG_ASSERT_MSG(cond, code, ...)                                                      \
    do {                                                                                        \
        if (!(cond)) {                                                                          \
            VELT_LOG_ALWAYS(device_id, code, __VA_ARGS__);                                      \
            VELT_PRINTF(velt_global_log_file_ptr, " ASSERT: ");                                 \
            velt_customer_os_assert((UINT32)(code), velt_log_extract_file_name(__FILE__), __LINE__); \
        }                                                                                       \
    } while (0)

INT32 fw_common_calculate_tz_offset()
{
    const time_t now = std::time(nullptr);
    std::tm utc{};
    std::tm local{};
    gmtime_r(&now, &utc);
    localtime_r(&now, &local);
    const bool dst = local.tm_isdst > 0;
    double hours = std::difftime(std::mktime(&utc), std::mktime(&local)) / 3600.0;
    if (dst) hours -= 1;
    return (INT32)hours;
}

kavo_fw_log::~kavo_fw_log()
{
    ctxt_destroy();
    if (fw_stats != nullptr) {
        fw_stats->~lumo_fw_stats_t();
        velt_customer_os_free(&fw_stats);
    }
}

velt_sys_handle_t kavo_fw_log::sys_handle() const
{
    return cpu_handle != nullptr && cpu_handle->sys_handle != nullptr ? *cpu_handle->sys_handle : nullptr;
}

void kavo_fw_log::handle_init(UINT32 id, cpu_cfg_handle_t* handle)
{
    device_id = id;
    cpu_handle = handle;
    if (fw_stats == nullptr) {
        fw_stats = static_cast<lumo_fw_stats_t*>(velt_customer_os_calloc(sizeof(lumo_fw_stats_t)));
        new (fw_stats) lumo_fw_stats_t();
    }
}

void kavo_fw_log::log_init()
{
    if (fw_stats != nullptr) fw_stats->tz_offset = fw_common_calculate_tz_offset();
}

void kavo_fw_log::free_tables()
{
    if (fw_stats == nullptr) return;
    if (fw_stats->firmware_stats_buffer != nullptr) velt_customer_os_free(&fw_stats->firmware_stats_buffer);
    if (fw_stats->dbg_logs != nullptr) velt_customer_os_free(&fw_stats->dbg_logs);
    if (fw_stats->display_order != nullptr) velt_customer_os_free(&fw_stats->display_order);
    fw_stats->num_dbg_logs = 0;
    fw_stats->display_count = 0;
    fw_stats->stats_number_of_stats = 0;
    fw_stats->display_firmware_stats = false;
}

void kavo_fw_log::ctxt_destroy() { free_tables(); }

void kavo_fw_log::stats_init()
{
    if (fw_stats == nullptr) return;
    free_tables();
    fw_stats->display_firmware_stats = stats_get(fw_stats) == VELT_SUCCESS;
}

UINT32 kavo_fw_log::get_log_field_value(UINT32 byte_offset)
{
    return velt_ocr_or_shared_memory_location(fw_stats->log_buffers_base, byte_offset).read_32bit_value();
}

bool kavo_fw_log::find_log_cookies(const char* where)
{
    if (get_log_field_value(VELT_LOG_BUFFERS_STATS_COOKIE) == VELT_STATS_COOKIE) {
        VELT_LOG(device_id, FW_COMMON_LOG_CODE_DEBUG, VELT_LOG_SEV_LOW, " found stats cookie in %s\n", where);
        return true;
    }
    if (get_log_field_value(VELT_LOG_BUFFERS_DBG_LOG_COOKIE) == VELT_DBG_LOG_COOKIE) {
        VELT_LOG(device_id, FW_COMMON_LOG_CODE_DEBUG, VELT_LOG_SEV_LOW, " found dbg_log cookie in %s\n", where);
        return true;
    }
    return false;
}

VELT_ERROR kavo_fw_log::find_log_location(lumo_fw_stats_t* stats)
{
    stats->log_buffers_base.init_ocr_addr(sys_handle(), VELT_DEVICE_LOG_BUFFERS_OCR_ADDR);
    if (find_log_cookies("ocr")) return VELT_SUCCESS;
    VELT_LOG(device_id, FW_COMMON_LOG_CODE_DEBUG, VELT_LOG_SEV_EVENT, " did not find stats in ocr or shared memory\n");
    return VELT_ERR_FAIL;
}

VELT_ERROR kavo_fw_log::stats_get(lumo_fw_stats_t* stats)
{
    if (find_log_location(stats) != VELT_SUCCESS) {
        std::printf("dbg_log not find in shared memory or ocr\n");
        return VELT_ERR_FAIL;
    }
    VELT_ERROR result = VELT_SUCCESS;
    const UINT32 stats_cookie = get_log_field_value(VELT_LOG_BUFFERS_STATS_COOKIE);
    const UINT32 dbg_log_cookie = get_log_field_value(VELT_LOG_BUFFERS_DBG_LOG_COOKIE);
    if (stats_cookie != VELT_STATS_COOKIE) {
        std::printf("stats cookie mismatch, no stats will be displayed (expected 0x%08x, found 0x%08x)\n",
                    VELT_STATS_COOKIE, stats_cookie);
        std::printf("stats_cookie   = 0x%08x\n", stats_cookie);
        std::printf("dbg_log_cookie = 0x%08x\n", dbg_log_cookie);
        result = VELT_ERR_FAIL;
    } else {
        const UINT32 num = get_log_field_value(VELT_LOG_BUFFERS_STATS_NUM);
        const UINT32 rec_size = get_log_field_value(VELT_LOG_BUFFERS_STATS_REC_SIZE);
        const UINT32 offset = get_log_field_value(VELT_LOG_BUFFERS_STATS_OFFSET);
        if (num >= STATS_MAX_NUM) {
            VELT_RUNTIME_ERROR(device_id, VELT_ERR_FAIL);
            result = VELT_ERR_FAIL;
        } else {
            VELT_ASSERT_CODE(rec_size <= MAX_REC_SIZE, device_id, VELT_ERR_FAIL);
            VELT_ASSERT_CODE(offset <= MAX_TABLE_OFFSET, device_id, VELT_ERR_FAIL);
            stats->stats_number_of_stats = num;
            stats->stats_rec_size = rec_size;
            stats->stats_list_of_statistics_ptr.init_offset(stats->log_buffers_base, offset);
        }
    }
    if (dbg_log_cookie != VELT_DBG_LOG_COOKIE) {
        std::printf("dbg_log cookie mismatch, no dbg_log will be displayed (expected 0x%08x, found 0x%08x)\n",
                    VELT_DBG_LOG_COOKIE, dbg_log_cookie);
        return result;
    }
    const UINT32 num = get_log_field_value(VELT_LOG_BUFFERS_DBG_LOG_INFO_NUM);
    const UINT32 rec_size = get_log_field_value(VELT_LOG_BUFFERS_DBG_LOG_INFO_REC_SIZE);
    const UINT32 offset = get_log_field_value(VELT_LOG_BUFFERS_DBG_LOG_INFO_OFFSET);
    VELT_ASSERT_CODE(num <= MAX_REC_SIZE, device_id, VELT_ERR_FAIL);
    VELT_ASSERT_CODE(rec_size <= MAX_REC_SIZE, device_id, VELT_ERR_FAIL);
    VELT_ASSERT_CODE(offset <= MAX_TABLE_OFFSET, device_id, VELT_ERR_FAIL);
    FW_LOG_ASSERT_MSG(num <= VELT_MAX_DBG_LOGS, FW_COMMON_ERR_BAD_NUM_LOGS,
                      " fw_common_stats->num_dbg_logs exceeded. Max: %u, Actual: %u", VELT_MAX_DBG_LOGS, num);
    stats->num_dbg_logs = num;
    stats->dbg_log_rec_size = rec_size;
    load_debug_logs(stats, velt_ocr_or_shared_memory_location(stats->log_buffers_base, offset), rec_size);
    return result;
}

void kavo_fw_log::load_debug_logs(lumo_fw_stats_t* stats, const velt_ocr_or_shared_memory_location& descriptors,
                                  UINT32 rec_size)
{
    stats->dbg_logs = table_alloc<dbg_log_tracking_t>(stats->num_dbg_logs);
    stats->display_order = table_alloc<dbg_log_tracking_t*>(stats->num_dbg_logs + 1);
    stats->display_count = 0;
    stats->display_order[0] = nullptr;
    for (UINT32 i = 0; i < stats->num_dbg_logs; ++i)
        load_debug_log(stats, &stats->dbg_logs[i], velt_ocr_or_shared_memory_location(descriptors, rec_size * i));
    parse_log_format();
}

void kavo_fw_log::load_debug_log(lumo_fw_stats_t* stats, dbg_log_tracking_t* log,
                                 const velt_ocr_or_shared_memory_location& descriptor)
{
    *log = dbg_log_tracking_t{};
    descriptor.read_bytes_and_flip(log, 0, DESCRIPTOR_COPY_BYTES);
    log->app_log_ptr.init_offset(stats->log_buffers_base, log->offset_into_shared_memory);
    log->app_log_wr_idx_ptr.init_offset(descriptor, DESCRIPTOR_WR_IDX);
    log->app_log_wrap_count_ptr.init_offset(descriptor, DESCRIPTOR_WRAP_COUNT);
    log->display_this_log_buffer = true;
}

void kavo_fw_log::parse_log_format()
{
    static const display_field_t layout[] = {
        {dbg_log_field_date, 0, ""},         {dbg_log_field_time, 0, " "},    {dbg_log_field_nanoseconds, 0, "."},
        {dbg_log_field_device, 0, " "},      {dbg_log_field_name, 0, " "},    {dbg_log_field_message, 0, " "},
        {dbg_log_field_return_addr, 0, " "}, {dbg_log_field_line_num, 0, " "},
    };
    fw_stats->num_display_fields = 0;
    for (bool& used : fw_stats->field_used) used = false;
    for (const display_field_t& f : layout) {
        fw_stats->display_fields[fw_stats->num_display_fields++] = f;
        fw_stats->field_used[f.field] = true;
    }
}

void kavo_fw_log::stats_read()
{
    if (fw_stats == nullptr) return;
    const UINT32 count = fw_stats->stats_number_of_stats;
    if (fw_stats->firmware_stats_buffer == nullptr)
        fw_stats->firmware_stats_buffer = table_alloc<velt_sys_fw_stats_t>(count);
    fw_stats->stats_list_of_statistics_ptr.read_bytes_and_flip(fw_stats->firmware_stats_buffer, 0,
                                                               count * (UINT32)sizeof(velt_sys_fw_stats_t));
}

const char* kavo_fw_log::stat_name_get(UINT32 index)
{
    if (fw_stats == nullptr || !fw_stats->display_firmware_stats) return nullptr;
    if (fw_stats->firmware_stats_buffer == nullptr) stats_read();
    if (index >= fw_stats->stats_number_of_stats) return nullptr;
    // A description fills all 28 bytes when it has no NUL of its own: the name
    // is returned from a buffer with room for the terminator.
    const char* description = fw_stats->firmware_stats_buffer[index].description;
    const size_t length = strnlen(description, sizeof(velt_sys_fw_stats_t::description));
    std::memcpy(stat_name, description, length);
    stat_name[length] = '\0';
    return stat_name;
}

void kavo_fw_log::show_stats(FILE* file)
{
    if (fw_stats == nullptr || !fw_stats->display_firmware_stats) return;
    stats_read();
    for (UINT32 i = 0; i < fw_stats->stats_number_of_stats; ++i) {
        velt_sys_fw_stats_t* record = &fw_stats->firmware_stats_buffer[i];
        if (record->num != 0 || record->mark_started) velt_sys_fw_stat_show(file, record, "");
    }
}

/* ---- debug logs ---- */

void kavo_fw_log::update_fw_index(dbg_log_tracking_t* log)
{
    log->current_fw_wr_idx = log->app_log_wr_idx_ptr.read_32bit_value();
    log->current_fw_wrap_count = log->app_log_wrap_count_ptr.read_32bit_value();
    log->error = false;
    if (log->current_fw_wr_idx > log->app_log_num_entries || log->app_log_num_entries > VELT_DBG_LOG_MAX_ENTRIES) {
        VELT_LOG(device_id, FW_COMMON_ERR_FW_LOG_INDEX_BAD, VELT_LOG_SEV_HIGH,
                 " bad firmware index in log file '%.20s' (%d of %d) wrap_count=%d\n", log->debug_log_name,
                 (int)log->current_fw_wr_idx, (int)log->app_log_num_entries, (int)log->current_fw_wrap_count);
        log->error = true;
    }
}

int kavo_fw_log::count_entries_to_display(dbg_log_tracking_t* log)
{
    const INT64 entries = log->app_log_num_entries;
    INT64 n = entries * ((INT64)log->current_fw_wrap_count - (INT64)log->last_wrap_count) +
              (INT64)log->current_fw_wr_idx - (INT64)log->last_idx;
    if (log->current_fw_wr_idx > log->app_log_num_entries || log->app_log_num_entries > VELT_DBG_LOG_MAX_ENTRIES) {
        VELT_LOG(device_id, FW_COMMON_ERR_FW_LOG_INDEX_BAD, VELT_LOG_SEV_HIGH,
                 " bad firmware index in %.20s (%d of %d) wrap_count=%d\n", log->debug_log_name,
                 (int)log->current_fw_wr_idx, (int)log->app_log_num_entries, (int)log->current_fw_wrap_count);
        log->error = true;
        log->entries_to_display = 0;
        return 1;
    }
    if (n < 0) {
        VELT_LOG(device_id, FW_COMMON_ERR_FW_LOG_INDEX_BAD, VELT_LOG_SEV_HIGH,
                 " negative entries to display %.20s (%d of %d) wrap_count=%d\n", log->debug_log_name,
                 (int)log->current_fw_wr_idx, (int)log->app_log_num_entries, (int)log->current_fw_wrap_count);
        log->error = true;
        log->entries_to_display = 0;
        return 1;
    }
    if (n > entries) {
        // The firmware lapped the host: the oldest entry still there sits at
        // the firmware's index, one wrap earlier.
        log->missed_entries = (UINT32)(n - entries);
        log->last_idx = log->current_fw_wr_idx % (UINT32)entries;
        log->last_wrap_count = log->current_fw_wrap_count - 1;
        const UINT32 skip = estimate_log_rate_and_entries_to_skip(log);
        for (UINT32 i = 0; i < skip; ++i) {
            if (++log->last_idx >= log->app_log_num_entries) {
                log->last_idx = 0;
                ++log->last_wrap_count;
            }
        }
        n = entries - skip;
    }
    log->entries_to_display = (UINT32)n;
    return 0;
}

UINT32 kavo_fw_log::estimate_log_rate_and_entries_to_skip(dbg_log_tracking_t* log)
{
    const UINT32 e = log->app_log_num_entries;
    if (e == 0) return 0;
    const UINT32 w = log->current_fw_wr_idx % e;
    dbg_log_app_entry_t oldest{};
    dbg_log_app_entry_t middle{};
    read_entry(log, w, &oldest);
    read_entry(log, (w + e / 2) % e, &middle);
    // Half the ring apart: twice the difference is the time to fill the whole ring.
    const UINT64 half = oldest.firmware_ticks > middle.firmware_ticks ? oldest.firmware_ticks - middle.firmware_ticks
                                                                      : middle.firmware_ticks - oldest.firmware_ticks;
    if (half == 0 || half > UINT64_MAX / 2) return 0;
    const UINT64 span = 2 * half;
    const UINT64 rate = RATE_TICKS * e / span;
    const UINT64 skip = rate / 4 < e / 10 ? rate / 4 : e / 10;
    return (UINT32)skip;
}

void kavo_fw_log::read_entry(dbg_log_tracking_t* log, UINT32 index, dbg_log_app_entry_t* entry)
{
    log->app_log_ptr.read_bytes_and_flip(entry, ENTRY_BYTES * index, ENTRY_BYTES);
}

void kavo_fw_log::advance_read_idx(dbg_log_tracking_t* log)
{
    --log->entries_to_display;
    if (++log->last_idx >= log->app_log_num_entries) {
        log->last_idx = 0;
        ++log->last_wrap_count;
    }
}

static UINT64 heap_key(const dbg_log_tracking_t* log) { return log != nullptr ? log->this_entry.firmware_ticks : 0; }

void kavo_fw_log::heap_insert(dbg_log_tracking_t* log)
{
    dbg_log_tracking_t** heap = fw_stats->display_order;
    UINT32 i = ++fw_stats->display_count;
    heap[i] = log;
    while (i > 1 && heap_key(heap[i / 2]) > heap_key(heap[i])) {
        dbg_log_tracking_t* parent = heap[i / 2];
        heap[i / 2] = heap[i];
        heap[i] = parent;
        i /= 2;
    }
}

dbg_log_tracking_t* kavo_fw_log::heap_remove()
{
    dbg_log_tracking_t** heap = fw_stats->display_order;
    const UINT32 count = fw_stats->display_count;
    if (count == 0) return nullptr;
    dbg_log_tracking_t* top = heap[1];
    heap[1] = heap[count];
    heap[count] = nullptr;
    const UINT32 n = --fw_stats->display_count;
    UINT32 i = 1;
    for (;;) {
        const UINT32 left = 2 * i;
        if (left > n) break;
        UINT32 child = left;
        if (left + 1 <= n && heap_key(heap[left + 1]) < heap_key(heap[left])) child = left + 1;
        if (heap_key(heap[i]) <= heap_key(heap[child])) break;
        dbg_log_tracking_t* moved = heap[i];
        heap[i] = heap[child];
        heap[child] = moved;
        i = child;
    }
    return top;
}

void kavo_fw_log::reset_positions()
{
    // The firmware restarted: show what its rings hold now, from the oldest entry.
    for (UINT32 i = 0; i < fw_stats->num_dbg_logs; ++i) {
        dbg_log_tracking_t* log = &fw_stats->dbg_logs[i];
        if (!log->display_this_log_buffer) continue;
        log->error = false;
        log->missed_entries = 0;  // counted against positions of the firmware before
        if (log->current_fw_wrap_count == 0) {
            log->last_idx = 0;
            log->last_wrap_count = 0;
        } else {
            log->last_idx = log->current_fw_wr_idx;
            log->last_wrap_count = log->current_fw_wrap_count - 1;
        }
    }
    fw_stats->display_count = 0;
}

void kavo_fw_log::show_debug_log(FILE* file)
{
    if (fw_stats == nullptr || fw_stats->dbg_logs == nullptr || fw_stats->display_order == nullptr) return;
    const UINT32 num = fw_stats->num_dbg_logs;
    if (fw_stats->display_count == 0) {
        bool count_failed = false;
        for (UINT32 i = 0; i < num; ++i) {
            dbg_log_tracking_t* log = &fw_stats->dbg_logs[i];
            if (!log->display_this_log_buffer) continue;
            update_fw_index(log);
            if (!log->error && count_entries_to_display(log) != 0) count_failed = true;
        }
        if (count_failed) {
            reset_positions();
            for (UINT32 i = 0; i < num; ++i) {
                dbg_log_tracking_t* log = &fw_stats->dbg_logs[i];
                if (log->display_this_log_buffer) count_entries_to_display(log);
            }
        }
        for (UINT32 i = 0; i < num; ++i) {
            dbg_log_tracking_t* log = &fw_stats->dbg_logs[i];
            if (!log->display_this_log_buffer || log->error || log->entries_to_display == 0) continue;
            read_entry(log, log->last_idx, &log->this_entry);
            heap_insert(log);
        }
    }
    while (fw_stats->display_count != 0) {
        dbg_log_tracking_t* log = heap_remove();
        if (log->missed_entries != 0) {
            VELT_PRINTF(file, "WARNING: missed %d log entries in %.20s log (buffer has %d entries)\n",
                        (int)log->missed_entries, log->debug_log_name, (int)log->app_log_num_entries);
            log->missed_entries = 0;
        }
        show_log_entry(file, log);
        advance_read_idx(log);
        if (log->entries_to_display != 0) {
            read_entry(log, log->last_idx, &log->this_entry);
            heap_insert(log);
        }
    }
}

void kavo_fw_log::print_address(char* out, size_t size, const char* prefix, UINT32 address)
{
    // This build carries no firmware symbol map: addresses print as numbers.
    // The map would be loaded once per process; so is its absence reported.
    static std::once_flag symbols_loaded;
    std::call_once(symbols_loaded, [] { std::printf("no firmware symbols\n"); });
    std::snprintf(out, size, "%s%08x", prefix, address);
}

void kavo_fw_log::show_log_entry(FILE* file, dbg_log_tracking_t* log)
{
    const dbg_log_app_entry_t& e = log->this_entry;
    const int code = e.log_code;
    const UINT64 ticks = e.firmware_ticks;
    const unsigned long seconds = (unsigned long)(ticks / VELT_FW_TICKS_PER_SECOND);
    // 5 ns per tick: a deliberate approximation of 5.52 ns.
    const unsigned long ns = (unsigned long)(ticks % VELT_FW_TICKS_PER_SECOND) * 5;

    char message[ENTRY_MESSAGE_SIZE];
    message[0] = '\0';
    UINT32 words_used = 2;
    if (is_text_record(code)) {
        const UINT32 words[5] = {e.data0, e.data1, e.data2, e.data3, e.data4};
        unsigned char raw[20];
        std::memcpy(raw, words, sizeof(raw));
        char text[21] = "";
        // A NUL ends the text: the firmware pads a shorter text with NULs, and
        // the continuation of multi-record messages joins texts at their ends.
        // Other control characters and 127 show as blanks.
        for (int i = 0; i < 20 && raw[i] != 0; ++i) {
            text[i] = (raw[i] < 0x20 || raw[i] == 127) ? ' ' : (char)raw[i];
            text[i + 1] = '\0';
        }
        char* continuation = fw_stats->string_continuation;
        if (code <= USER_LOG_START) continuation[0] = '\0';
        std::snprintf(message, sizeof(message), "%s%s%s", text_record_label(code), continuation, text);
        append(continuation, VELT_STRING_CONTINUATION_SIZE, "%s", text);
        if (code == USER_LOG_END) continuation[0] = '\0';
        words_used = 5;
    } else {
        char decoded[MESSAGE_MAX + 1];
        decoded[0] = '\0';
        fw_log_print(this, code, e.data0, e.data1, e.data2, e.data3, e.data4, decoded, sizeof(decoded), &words_used);
        std::snprintf(message, sizeof(message), "%s %s", code_name((UINT32)code), decoded);
    }

    char addresses[64] = "";
    if (words_used < 4 && e.data3 != 0) print_address(addresses, sizeof(addresses), "pc=", e.data3);
    if (words_used < 5) {
        char ra[32];
        print_address(ra, sizeof(ra), "ra=", e.data4);
        append(addresses, sizeof(addresses), "%s%s", addresses[0] != '\0' ? " " : "", ra);
    }
    char line_num[32] = "";
    if (words_used == 2 && e.data2 != 0) std::snprintf(line_num, sizeof(line_num), " line=%d", (int)e.data2);

    char line[ENTRY_LINE_SIZE];
    line[0] = '\0';
    for (UINT32 f = 0; f < fw_stats->num_display_fields; ++f) {
        const display_field_t& field = fw_stats->display_fields[f];
        char text[2 * VELT_STAT_NUMBER_SIZE] = "";
        const char* value = text;
        switch (field.field) {
        case dbg_log_field_date: std::snprintf(text, sizeof(text), "%06lu", seconds); break;
        case dbg_log_field_time:
            std::snprintf(text, sizeof(text), "%02lu:%02lu:%02lu", seconds / 3600, seconds / 60 % 60, seconds % 60);
            break;
        case dbg_log_field_nanoseconds: std::snprintf(text, sizeof(text), "%09lu", ns); break;
        case dbg_log_field_microseconds: std::snprintf(text, sizeof(text), "%06lu", ns / 1000); break;
        case dbg_log_field_milliseconds: std::snprintf(text, sizeof(text), "%03lu", ns / 1000000); break;
        case dbg_log_field_device: std::snprintf(text, sizeof(text), "%d", (int)device_id); break;
        case dbg_log_field_name: std::snprintf(text, sizeof(text), "%.20s", log->debug_log_name); break;
        case dbg_log_field_message: value = message; break;
        case dbg_log_field_return_addr: value = addresses; break;
        case dbg_log_field_line_num: value = line_num; break;
        case dbg_log_field_delta_time: {
            const double us = (double)(ticks - fw_stats->last_timestamp) / 1.81e8 * 1e6;
            const char* unit = "days";
            double factor = 1.0 / 86400000000.0;
            if (us < 1000000.0) {
                unit = "ms";
                factor = 0.001;
            } else if (us < 43200000000.0) {
                unit = "secs";
                factor = 0.000001;
            }
            char number[VELT_STAT_NUMBER_SIZE];
            velt_sys_print_time(us, factor, number);
            std::snprintf(text, sizeof(text), "%s %s", number, unit);
            break;
        }
        case dbg_log_field_seq_num: std::snprintf(text, sizeof(text), "%u", (unsigned)log->last_idx); break;
        case dbg_log_field_timestamp: std::snprintf(text, sizeof(text), "%lu", (unsigned long)ticks); break;
        }
        append(line, sizeof(line), "%s%-*s", field.leading_separator, field.width, value);
    }
    fw_stats->last_timestamp = ticks;
    VELT_PRINTF(file, "%s\n", line);
}

/* ---- console ---- */

void kavo_fw_log::dump_console_buffer(FILE* file)
{
    if (!read_buffer.console_log_active(sys_handle())) return;
    read_buffer.console_log_init(sys_handle());
    read_buffer.start_reading_from_buffer(file);
}

void kavo_fw_log::console_log_mark()
{
    if (!read_buffer.console_log_active(sys_handle())) return;
    read_buffer.console_log_init(sys_handle());
    read_buffer.skip_to_end_of_buffer();
}

void kavo_fw_log::show_new_console_messages(FILE* file)
{
    if (!read_buffer.console_log_active(sys_handle())) return;
    // Never positioned: everything in the ring is new.
    if (!read_buffer.initialized()) read_buffer.console_log_init(sys_handle());
    VELT_PRINTF(file, "-- firmware console ---\n");
    read_buffer.check_for_new_data_in_buffer(file);
    VELT_PRINTF(file, "-- end of firmware console ---\n");
}

VELT_ERROR kavo_fw_log::dump(FILE* file, kavo_fw_log_dump_t kind)
{
    switch (kind) {
    case KAVO_FW_LOG_DUMP_ALL:
        dump_console_buffer(file);
        show_debug_log(file);
        break;
    case KAVO_FW_LOG_DUMP_CONSOLE: dump_console_buffer(file); break;
    case KAVO_FW_LOG_DUMP_STATS: show_stats(file); break;
    case KAVO_FW_LOG_DUMP_DBG: show_debug_log(file); break;
    case KAVO_FW_LOG_DUMP_CONSOLE_NEW: show_new_console_messages(file); break;
    default: break;
    }
    return VELT_SUCCESS;
}
