/* Producer side of the console ring, for code that plays the firmware's part:
   writes text records and publishes the write index after the data. */
#ifndef VELT_CIRCULAR_BUFFER_WRITER_H
#define VELT_CIRCULAR_BUFFER_WRITER_H

#include "kavo/kavo_api.h"

class velt_circular_buffer_writer {
public:
    void init(volatile UINT32* write_index_ptr, volatile UINT32* wrap_count_ptr, char* buffer, int byte_size);
    /* Writes one record of `count` words: count - 1 words from `words`, then last_word. */
    void write_word_data(UINT32* words, UINT32 last_word, int count);
    /* Writes one text record; the text carries a NUL only when its length is not a multiple of 4. */
    void write_char_data(char* text, int length);

    UINT32 write_index() const { return _write_index; }
    UINT32 wrap_count() const { return _wrap_count; }

private:
    void put(UINT32 word);

    volatile UINT32* _write_index_ptr = nullptr;
    volatile UINT32* _wrap_count_ptr = nullptr;
    char* _buffer = nullptr;
    UINT32 _bufsize = 0;
    UINT32 _write_index = 0;
    UINT32 _wrap_count = 0;
};

#endif /* VELT_CIRCULAR_BUFFER_WRITER_H */
