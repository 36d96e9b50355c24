// The console ring reader (and writer) on arbitrary ring contents: headers,
// counts, indices and unterminated text, changed between the reader's polls
// as a misbehaving firmware would.
//
// Input: frames of [op][word offset:2][word count][count words]. Each frame
// writes its words into the block (header and ring, word offsets modulo the
// 17 header + 8192 ring words), then runs op & 3: poll for new data, reprint
// everything, skip to the end, or, with op & 4, write the frame's words as
// text through the writer.
#include <cstddef>
#include <cstdint>

#include "kavo_fuzz_support.h"
#include "velt_circular_buffer_reader.h"
#include "velt_circular_buffer_writer.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    kavo_fuzz::install();
    static kavo_fuzz::chip chip;
    chip.clear();
    chip.put_word(0, VELT_CONSOLE_COOKIE);
    kavo_fuzz::input in{data, size};
    velt_circular_buffer_writer writer;
    UINT8* block = chip.bus.at(VELT_DEVICE_LOG_BUFFERS_OCR_ADDR);
    writer.init(reinterpret_cast<volatile UINT32*>(block + VELT_CONSOLE_WRITE_INDEX_OFFSET),
                reinterpret_cast<volatile UINT32*>(block + VELT_CONSOLE_WRAP_COUNT_OFFSET),
                reinterpret_cast<char*>(block + VELT_CONSOLE_BUFFER_OFFSET), VELT_CONSOLE_BUFFER_WORDS * 4);
    velt_circular_buffer_reader reader;
    try {
        reader.console_log_init(chip.sys);
        while (!in.done()) {
            const UINT32 op = in.byte();
            const UINT32 word = in.u16() % (VELT_CONSOLE_BUFFER_OFFSET / 4 + VELT_CONSOLE_BUFFER_WORDS);
            const UINT8* words = nullptr;
            const size_t bytes = in.take(&words, 4 * (size_t)in.byte());
            if (op & 4) {
                chip.touched(VELT_CONSOLE_BUFFER_OFFSET + VELT_CONSOLE_BUFFER_WORDS * 4);
                writer.write_char_data(const_cast<char*>(reinterpret_cast<const char*>(words)), (int)bytes);
            } else {
                chip.put(4 * word, words, bytes);
            }
            switch (op & 3) {
            case 0: reader.check_for_new_data_in_buffer(stdout); break;
            case 1: reader.start_reading_from_buffer(stdout); break;
            case 2: reader.skip_to_end_of_buffer(); break;
            default: reader.console_log_active(chip.sys); break;
            }
        }
        reader.check_for_new_data_in_buffer(stdout);
    } catch (const kavo_fuzz::halted&) {
    } catch (const kavo_fuzz::budget_spent&) {
    }
    return 0;
}
