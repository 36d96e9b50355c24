#include "velt_circular_buffer_writer.h"

#include <atomic>
#include <cstring>

#include "velt_customer_os.h"

void velt_circular_buffer_writer::init(volatile UINT32* write_index_ptr, volatile UINT32* wrap_count_ptr,
                                       char* buffer, int byte_size)
{
    _write_index_ptr = write_index_ptr;
    _wrap_count_ptr = wrap_count_ptr;
    _buffer = buffer;
    _bufsize = byte_size > 0 ? (UINT32)byte_size / 4 : 0;
    _write_index = 0;
    _wrap_count = 0;
}

void velt_circular_buffer_writer::put(UINT32 word)
{
    std::memcpy(_buffer + 4 * (size_t)_write_index, &word, 4);
    ++_write_index;
}

void velt_circular_buffer_writer::write_word_data(UINT32* words, UINT32 last_word, int count)
{
    // A record must fit behind a wrap together with the room the wrap rule keeps.
    if (count < 1 || (UINT64)count + 5 > _bufsize) return;
    if ((UINT64)_write_index + (UINT32)count + 5 > _bufsize) {
        // Wrap marker: a separator and a zero count, then start again at word 0.
        put(0);
        put(0);
        _write_index = 0;
        ++_wrap_count;
        std::atomic_thread_fence(std::memory_order_release);
        *_wrap_count_ptr = _wrap_count;
        std::atomic_thread_fence(std::memory_order_release);
        *_write_index_ptr = 0;
    }
    put(0);
    put((UINT32)count);
    for (int i = 0; i < count - 1; ++i) put(words[i]);
    put(last_word);
    // Published last, so that a reader never sees a write index ahead of the data.
    std::atomic_thread_fence(std::memory_order_release);
    *_write_index_ptr = _write_index;
}

void velt_circular_buffer_writer::write_char_data(char* text, int length)
{
    // An empty text makes no record: the reader finds a record's end by its text.
    if (length <= 0) return;
    int r = length % 4;
    if (r == 0) r = 4;
    UINT32 last_word = 0;
    std::memcpy(&last_word, text + (length - r), (size_t)r);
    // The full words may sit at any alignment inside the caller's text.
    const int full = (length - r) / 4;
    UINT32 small[64];
    UINT32* words = small;
    UINT32* heap = nullptr;
    if (full > 64) words = heap = static_cast<UINT32*>(velt_customer_os_calloc((size_t)full * 4));
    if (full > 0) std::memcpy(words, text, (size_t)full * 4);
    write_word_data(words, last_word, full + 1);
    if (heap != nullptr) velt_customer_os_free(&heap);
}
