#include "velt_circular_buffer_reader.h"

#include <unistd.h>

#include <cctype>
#include <cstring>

#include "velt_customer_os.h"
#include "velt_shared_log.h"

velt_circular_buffer_reader::~velt_circular_buffer_reader()
{
    if (_local_mirror != nullptr) velt_customer_os_free(&_local_mirror);
}

UINT32 velt_circular_buffer_reader::console_cookie_get()
{
    return velt_ocr_or_shared_memory_location(_sys_handle, VELT_DEVICE_LOG_BUFFERS_OCR_ADDR).read_32bit_value();
}

bool velt_circular_buffer_reader::console_log_active(velt_sys_handle_t handle)
{
    _sys_handle = handle;
    return console_cookie_get() == VELT_CONSOLE_COOKIE;
}

void velt_circular_buffer_reader::console_log_init(velt_sys_handle_t handle)
{
    _sys_handle = handle;
    init();
}

void velt_circular_buffer_reader::wait_until_initialized(velt_sys_handle_t handle)
{
    if (!console_log_active(handle)) {
        std::printf("velt_circular_buffer_reader: waiting for firmware to start\n");
        while (!console_log_active(handle)) {
            VELT_LOG(handle != nullptr ? (int)handle->device_id : VELT_LOG_NO_DEVID, VELT_SHARED_LOG_TRACE,
                     VELT_LOG_SEV_LOW, " Sleeping for %d microseconds\n", 10000);
            usleep(10000);
        }
    }
    console_log_init(handle);
}

void velt_circular_buffer_reader::init()
{
    const velt_ocr_or_shared_memory_location base(_sys_handle, VELT_DEVICE_LOG_BUFFERS_OCR_ADDR);
    _fw_write_index.init_offset(base, VELT_CONSOLE_WRITE_INDEX_OFFSET);
    _fw_wrap_count.init_offset(base, VELT_CONSOLE_WRAP_COUNT_OFFSET);
    _fw_buffer.init_offset(base, VELT_CONSOLE_BUFFER_OFFSET);
    _bufsize = VELT_CONSOLE_BUFFER_WORDS;
    _write_index = 0;
    _read_index = 0;
    _read_wrap_count = 0;
}

void velt_circular_buffer_reader::allocate_mirror()
{
    if (_local_mirror == nullptr && _bufsize != 0)
        _local_mirror = static_cast<UINT32*>(velt_customer_os_calloc((size_t)_bufsize * 4));
}

bool velt_circular_buffer_reader::start_reading_from_buffer(FILE* file)
{
    allocate_mirror();
    _read_index = 0;
    _read_wrap_count = 0;
    return buffer_overflow_reprint_entire_buffer(file);
}

bool velt_circular_buffer_reader::buffer_overflow_reprint_entire_buffer(FILE* file)
{
    if (!console_log_active(_sys_handle)) {
        VELT_PRINTF(file, "shared memory overwritten\n");
        return false;
    }
    allocate_mirror();
    _write_index = _fw_write_index.read_32bit_value();
    _wrap_count = _fw_wrap_count.read_32bit_value();
    _read_wrap_count = _wrap_count;
    if (_local_mirror != nullptr) _fw_buffer.read_words_no_flip(_local_mirror, 0, _bufsize);
    _read_index = _fw_write_index.read_32bit_value();
    print_entire_buffer(file);
    return true;
}

bool velt_circular_buffer_reader::skip_to_end_of_buffer()
{
    allocate_mirror();
    if (!console_log_active(_sys_handle)) {
        std::printf("shared memory overwritten\n");
        return false;
    }
    _write_index = _fw_write_index.read_32bit_value();
    _wrap_count = _fw_wrap_count.read_32bit_value();
    _read_wrap_count = _wrap_count;
    _read_index = _fw_write_index.read_32bit_value();
    return true;
}

void velt_circular_buffer_reader::print_partial_word(FILE* file)
{
    char bytes[5];
    std::memcpy(bytes, &_local_mirror[_read_index], 4);
    bytes[4] = '\0';
    int printable = 0;
    while (printable < 4 && std::isprint(static_cast<unsigned char>(bytes[printable]))) ++printable;
    if (printable > 0) VELT_PRINTF(file, "%s", bytes);
    ++_read_index;
}

UINT32 velt_circular_buffer_reader::print_text(FILE* file, UINT32 max_words)
{
    const char* text = reinterpret_cast<const char*>(&_local_mirror[_read_index]);
    // A text whose length is a multiple of 4 carries no NUL: the next record's
    // separator ends it, or else the bound does.
    const UINT32 length = (UINT32)strnlen(text, (size_t)max_words * 4);
    if (length > 0) VELT_PRINTF(file, "%.*s", (int)length, text);
    return length;
}

void velt_circular_buffer_reader::print_entire_buffer(FILE* file)
{
    if (_write_index > _bufsize) {
        VELT_PRINTF(file, "velt_circular_buffer_reader: write index is larger than buffer size %d\n", (int)_bufsize);
        return;
    }
    VELT_PRINTF(file, "velt_circular_buffer_reader: start of console log\n");
    if (_local_mirror == nullptr) return;
    if (_wrap_count != 0) {
        // The older text, from the write index to the writer's wrap marker.
        while (_read_index != 0) {
            if (_read_index >= _bufsize) break;
            if (_local_mirror[_read_index] != 0) {
                print_partial_word(file);
                continue;
            }
            ++_read_index;
            if (_read_index >= _bufsize) break;
            if (_local_mirror[_read_index] == 0) break;
            ++_read_index;
            const UINT32 length = print_text(file, _bufsize - _read_index);
            _read_index += (length + 3) / 4;
            if (_read_index + 2 >= _bufsize) break;
        }
        _read_index = 0;
    }
    // The newer text, from word 0 up to the write index.
    _read_index = 0;
    while (_read_index < _write_index) {
        if (_local_mirror[_read_index] != 0) {
            print_partial_word(file);
            continue;
        }
        ++_read_index;
        if (_read_index >= _bufsize) break;
        if (_local_mirror[_read_index] == 0)
            VELT_PRINTF(file, "velt_circular_buffer_reader: end marker found before _write_index\n");
        ++_read_index;
        if (_read_index >= _write_index) break;
        const UINT32 length = print_text(file, _write_index - _read_index);
        _read_index += (length + 3) / 4;
    }
    VELT_PRINTF(file, "velt_circular_buffer_reader: end of console log\n");
}

void velt_circular_buffer_reader::synchronize_new_data_from_buffer()
{
    if (_local_mirror == nullptr) return;
    const UINT32 from = _read_index < _bufsize ? _read_index : _bufsize;
    if (_write_index >= from) {
        _fw_buffer.read_words_no_flip(_local_mirror + from, from, _write_index - from);
    } else {
        _fw_buffer.read_words_no_flip(_local_mirror + from, from, _bufsize - from);
        _fw_buffer.read_words_no_flip(_local_mirror, 0, _write_index);
    }
}

bool velt_circular_buffer_reader::print_one_record(FILE* file)
{
    // A position at or past the end can only come from a corrupted count.
    if (_local_mirror == nullptr || _read_index >= _bufsize - 1) return false;
    if (_local_mirror[_read_index] != 0) {
        VELT_PRINTF(file, "\nvelt_circular_buffer_reader: _read_index should be 0, but found 0x%08x at [%d]\n",
                    _local_mirror[_read_index], (int)_read_index);
        return false;
    }
    ++_read_index;
    const UINT32 count = _local_mirror[_read_index];
    if (count == 0) {
        VELT_PRINTF(file, "\nvelt_circular_buffer_reader: circular buffer wrapped. wrap_count=%d\n",
                    (int)_read_wrap_count);
        ++_read_wrap_count;
        _read_index = 0;
        return true;
    }
    const UINT32 left = _bufsize - _read_index;
    if (left - 1 < count) {
        VELT_PRINTF(file,
                    "\nvelt_circular_buffer_reader:  there are only %d words before end of circular buffer "
                    "count=%d,_bufsize=%d,_read_index=%d\n",
                    (int)left, (int)count, (int)_bufsize, (int)_read_index);
        return false;
    }
    ++_read_index;
    print_text(file, count);
    _read_index += count;
    return true;
}

bool velt_circular_buffer_reader::check_for_new_data_in_buffer(FILE* file)
{
    // A reader never positioned follows from where it stands (the ring's
    // start): its mirror comes on first use like the others'.
    allocate_mirror();
    _write_index = _fw_write_index.read_32bit_value();
    if (_write_index > _bufsize) {
        VELT_PRINTF(file, "write index %d is larger than buffer size %d, exiting\n", (int)_write_index,
                    (int)_bufsize);
        return false;
    }
    if (_read_index != _write_index)
        VELT_PRINTF(file, "\nprinting from _read_index=%d to _write_index=%d\n", (int)_read_index, (int)_write_index);
    // The firmware publishes its write index only after the data, so one copy
    // of [read index, write index) holds every record this call prints.
    if (_read_index != _write_index) synchronize_new_data_from_buffer();
    // Every record takes at least two words, so a reader that is not lost
    // reaches the write index within one lap of records.
    UINT32 records = 0;
    while (_read_index != _write_index) {
        if (++records > _bufsize || !print_one_record(file)) {
            // Lapped or corrupted: start over from the whole ring, which ends at the write index.
            if (!buffer_overflow_reprint_entire_buffer(file)) return false;
            break;
        }
    }
    return true;
}
