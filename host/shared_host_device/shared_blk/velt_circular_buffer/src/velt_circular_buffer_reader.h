/* Host side of the firmware console ring in the log-buffer block: follows the
   firmware's write index and prints the text records it finds.

   Ring records (word indices): 0 separator, N text words, then the text packed
   four bytes per word; N = 0 is the wrap marker. */
#ifndef VELT_CIRCULAR_BUFFER_READER_H
#define VELT_CIRCULAR_BUFFER_READER_H

#include <cstdio>

#include "kavo/kavo_api.h"
#include "velt_shared_memory.h"

/* Console geometry inside the log-buffer block. */
constexpr UINT32 VELT_CONSOLE_WRAP_COUNT_OFFSET = 4;
constexpr UINT32 VELT_CONSOLE_WRITE_INDEX_OFFSET = 8;
constexpr UINT32 VELT_CONSOLE_BUFFER_OFFSET = 68;
constexpr UINT32 VELT_CONSOLE_BUFFER_WORDS = 0x2000;

class velt_circular_buffer_reader {
public:
    velt_circular_buffer_reader() = default;
    virtual ~velt_circular_buffer_reader();
    velt_circular_buffer_reader(const velt_circular_buffer_reader&) = delete;
    velt_circular_buffer_reader& operator=(const velt_circular_buffer_reader&) = delete;

    UINT32 console_cookie_get();
    bool console_log_active(velt_sys_handle_t handle);
    void console_log_init(velt_sys_handle_t handle);
    /* Waits, without limit, until the firmware has written the console cookie. */
    void wait_until_initialized(velt_sys_handle_t handle);
    void init();

    /* Prints the whole ring, oldest text first, and follows from its end. */
    bool start_reading_from_buffer(FILE* file);
    /* Positions at the firmware's write index without printing. */
    bool skip_to_end_of_buffer();
    /* Prints the records written since the last call. */
    bool check_for_new_data_in_buffer(FILE* file);
    bool buffer_overflow_reprint_entire_buffer(FILE* file);
    void print_entire_buffer(FILE* file);
    bool print_one_record(FILE* file);
    void synchronize_new_data_from_buffer();

    /* False until init() has set the ring's geometry. */
    bool initialized() const { return _bufsize != 0; }
    UINT32 read_index() const { return _read_index; }
    UINT32 read_wrap_count() const { return _read_wrap_count; }

private:
    void allocate_mirror();
    /* Inside an overwritten record: prints the leading printable bytes of the
       word at _read_index and steps over it. */
    void print_partial_word(FILE* file);
    /* Prints the text at _read_index, at most max_words words, and returns its length in bytes. */
    UINT32 print_text(FILE* file, UINT32 max_words);

    velt_sys_handle_t _sys_handle = nullptr;
    velt_ocr_or_shared_memory_location _fw_write_index;
    velt_ocr_or_shared_memory_location _fw_wrap_count;
    velt_ocr_or_shared_memory_location _fw_buffer;
    UINT32 _bufsize = 0;
    UINT32 _write_index = 0;
    UINT32 _wrap_count = 0;
    UINT32* _local_mirror = nullptr;
    UINT32 _read_index = 0;
    UINT32 _read_wrap_count = 0;
};

#endif /* VELT_CIRCULAR_BUFFER_READER_H */
