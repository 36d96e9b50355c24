// The firmware's log-buffer block in on-chip RAM: the console ring and its
// writer, the debug logs of 32-byte entries, and the statistics table.
#ifndef KAVO_SIM_FW_LOG_BLOCK_H
#define KAVO_SIM_FW_LOG_BLOCK_H

#include <cstddef>

#include "kavo/kavo_api.h"

namespace kavo_sim::fw {

/* Producer side of the console ring. Records are a zero separator word, a
   count N of text words, then N words of text; a zero count marks a wrap.
   The write index is published after the data, and on a wrap the wrap count
   before the write index, so a reader never sees an index ahead of the data. */
class console_ring_writer {
  public:
    void init(volatile UINT32* write_index_ptr, volatile UINT32* wrap_count_ptr, UINT32* ring, UINT32 words);
    /* count words: count - 1 full words from words, then last_word. */
    void write_word_data(const UINT32* words, UINT32 last_word, UINT32 count);
    /* A text of length bytes; the last 1..4 bytes go zero-padded into the last word. */
    void write_char_data(const char* text, size_t length);
    UINT32 write_index() const { return write_index_; }
    UINT32 wrap_count() const { return wrap_count_; }

  private:
    volatile UINT32* write_index_ptr_ = nullptr;
    volatile UINT32* wrap_count_ptr_ = nullptr;
    UINT32* ring_ = nullptr;
    UINT32 words_ = 0;
    UINT32 write_index_ = 0;
    UINT32 wrap_count_ = 0;
};

/* One named ring of 32-byte entries with its descriptor (name, entry count,
   offset, then the published write index and wrap count). */
class debug_log_writer {
  public:
    void init(UINT8* descriptor, UINT8* entries, UINT32 num_entries);
    void write(UINT64 ticks, UINT16 code, UINT32 d0, UINT32 d1, UINT32 d2, UINT32 d3, UINT32 d4);
    UINT32 write_index() const { return write_index_; }
    UINT32 wrap_count() const { return wrap_count_; }
    UINT8* descriptor() const { return descriptor_; }

  private:
    UINT8* descriptor_ = nullptr;
    UINT8* entries_ = nullptr;
    UINT32 num_entries_ = 0;
    UINT32 write_index_ = 0;
    UINT32 wrap_count_ = 0;
};

/* The table of velt_sys_fw_stats_t records in RAM, one per measured activity. */
class stats_table {
  public:
    void init(UINT8* records, UINT32 count);
    void name(UINT32 index, const char* description);
    void start(UINT32 index, UINT32 ticks);
    void end(UINT32 index, UINT32 ticks);
    /* A counting statistic ("i" names): one sample of value. */
    void count(UINT32 index, UINT32 ticks, UINT32 value);
    velt_sys_fw_stats_t get(UINT32 index) const;

  private:
    void put(UINT32 index, const velt_sys_fw_stats_t& r);
    UINT8* records_ = nullptr;
    UINT32 count_ = 0;
};

} // namespace kavo_sim::fw

#endif
