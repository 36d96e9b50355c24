#include "fw/log_block.h"

#include <cstring>

#include "kavo_sim/chip_map.h"

namespace kavo_sim::fw {

void console_ring_writer::init(volatile UINT32* write_index_ptr, volatile UINT32* wrap_count_ptr, UINT32* ring,
                               UINT32 words)
{
    write_index_ptr_ = write_index_ptr;
    wrap_count_ptr_ = wrap_count_ptr;
    ring_ = ring;
    words_ = words;
    write_index_ = 0;
    wrap_count_ = 0;
}

void console_ring_writer::write_word_data(const UINT32* words, UINT32 last_word, UINT32 count)
{
    if (count == 0 || count + 5 > words_) return; // a record that can never fit is dropped
    if (write_index_ + count + 5 > words_) {
        ring_[write_index_] = 0;
        ring_[write_index_ + 1] = 0;
        write_index_ = 0;
        ++wrap_count_;
        *wrap_count_ptr_ = wrap_count_;
        *write_index_ptr_ = write_index_;
    }
    ring_[write_index_++] = 0;
    ring_[write_index_++] = count;
    for (UINT32 i = 0; i + 1 < count; ++i)
        ring_[write_index_++] = words[i];
    ring_[write_index_++] = last_word;
    *write_index_ptr_ = write_index_;
}

void console_ring_writer::write_char_data(const char* text, size_t length)
{
    constexpr size_t max_words = 256; // longer lines are cut
    if (length == 0) return;
    if (length > max_words * 4) length = max_words * 4;
    size_t r = length % 4;
    if (r == 0) r = 4;
    const size_t full = (length - r) / 4;
    UINT32 words[max_words];
    UINT32 last = 0;
    std::memcpy(words, text, full * 4);
    std::memcpy(&last, text + (length - r), r);
    write_word_data(words, last, UINT32(full + 1));
}

void debug_log_writer::init(UINT8* descriptor, UINT8* entries, UINT32 num_entries)
{
    descriptor_ = descriptor;
    entries_ = entries;
    num_entries_ = num_entries;
    write_index_ = 0;
    wrap_count_ = 0;
}

void debug_log_writer::write(UINT64 ticks, UINT16 code, UINT32 d0, UINT32 d1, UINT32 d2, UINT32 d3, UINT32 d4)
{
    UINT8* e = entries_ + size_t(write_index_) * map::log::ENTRY_SIZE;
    const UINT16 wrap = UINT16(wrap_count_);
    const UINT32 data[5] = {d0, d1, d2, d3, d4};
    std::memcpy(e, &ticks, 8);
    std::memcpy(e + 8, &wrap, 2);
    std::memcpy(e + 10, &code, 2);
    std::memcpy(e + 12, data, sizeof(data));
    if (++write_index_ == num_entries_) {
        write_index_ = 0;
        ++wrap_count_;
        std::memcpy(descriptor_ + map::log::DESC_WRAP_COUNT, &wrap_count_, 4);
    }
    std::memcpy(descriptor_ + map::log::DESC_WRITE_INDEX, &write_index_, 4);
}

void stats_table::init(UINT8* records, UINT32 count)
{
    records_ = records;
    count_ = count;
    std::memset(records_, 0, size_t(count) * sizeof(velt_sys_fw_stats_t));
}

velt_sys_fw_stats_t stats_table::get(UINT32 index) const
{
    velt_sys_fw_stats_t r;
    if (index < count_) std::memcpy(static_cast<void*>(&r), records_ + size_t(index) * sizeof(r), sizeof(r));
    return r;
}

void stats_table::put(UINT32 index, const velt_sys_fw_stats_t& r)
{
    if (index < count_) std::memcpy(records_ + size_t(index) * sizeof(r), static_cast<const void*>(&r), sizeof(r));
}

void stats_table::name(UINT32 index, const char* description)
{
    velt_sys_fw_stats_t r = get(index);
    std::memset(r.description, 0, sizeof(r.description));
    std::strncpy(r.description, description, sizeof(r.description) - 1);
    put(index, r);
}

void stats_table::start(UINT32 index, UINT32 ticks)
{
    velt_sys_fw_stats_t r = get(index);
    if (r.initialized) {
        const UINT32 period = ticks - r.mark;
        if (r.num + r.mark_started == 1) { // the first period
            r.period_min = r.period_max = period;
        } else {
            if (period < r.period_min) r.period_min = period;
            if (period > r.period_max) r.period_max = period;
        }
        r.period_sum += period;
    }
    r.initialized = 1;
    r.mark = ticks;
    r.mark_started = 1;
    put(index, r);
}

namespace {
void add_duration(velt_sys_fw_stats_t& r, UINT32 duration)
{
    if (r.num == 0) {
        r.duration_min = r.duration_max = duration;
    } else {
        if (duration < r.duration_min) r.duration_min = duration;
        if (duration > r.duration_max) r.duration_max = duration;
    }
    r.duration_sum += duration;
    ++r.num;
    r.mark_started = 0;
}
} // namespace

void stats_table::end(UINT32 index, UINT32 ticks)
{
    velt_sys_fw_stats_t r = get(index);
    add_duration(r, ticks - r.mark);
    put(index, r);
}

void stats_table::count(UINT32 index, UINT32 ticks, UINT32 value)
{
    start(index, ticks);
    velt_sys_fw_stats_t r = get(index);
    add_duration(r, value);
    put(index, r);
}

} // namespace kavo_sim::fw
