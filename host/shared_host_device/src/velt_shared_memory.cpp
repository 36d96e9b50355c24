#include "velt_shared_memory.h"

#include "velt_shared_log.h"

void velt_ocr_or_shared_memory_location::init_shared_memory_ptr(volatile UINT32* ptr)
{
    _sys_handle = nullptr;
    _ocr_addr = 0;
    _shared_memory_ptr = ptr;
}

void velt_ocr_or_shared_memory_location::init_ocr_addr(velt_sys_handle_t handle, UINT32 ocr_addr)
{
    _sys_handle = handle;
    _ocr_addr = ocr_addr;
    _shared_memory_ptr = nullptr;
}

void velt_ocr_or_shared_memory_location::init_offset(const velt_ocr_or_shared_memory_location& base, UINT32 offset)
{
    _sys_handle = base._sys_handle;
    if (base._shared_memory_ptr != nullptr) {
        _ocr_addr = 0;
        _shared_memory_ptr =
            reinterpret_cast<volatile UINT32*>(reinterpret_cast<volatile char*>(base._shared_memory_ptr) + offset);
    } else {
        _ocr_addr = base._ocr_addr + offset;
        _shared_memory_ptr = nullptr;
    }
}

UINT32 velt_ocr_or_shared_memory_location::read_32bit_value() const
{
    if (_shared_memory_ptr != nullptr) return *_shared_memory_ptr;
    return velt_sys_reg_read(_sys_handle, _ocr_addr);
}

void velt_ocr_or_shared_memory_location::read_words_no_flip(UINT32* dst, UINT32 word_offset, UINT32 word_count) const
{
    if (word_count == 0) return;
    if (_shared_memory_ptr != nullptr) {
        // Word by word: the firmware may be writing the same memory.
        for (UINT32 i = 0; i < word_count; ++i) dst[i] = _shared_memory_ptr[word_offset + i];
        return;
    }
    velt_sys_burst_read(_sys_handle, _ocr_addr + 4 * word_offset, word_count, dst);
}

void velt_ocr_or_shared_memory_location::read_bytes_no_flip(void* dst, UINT32 byte_offset, UINT32 byte_count) const
{
    VELT_ASSERT_CODE((byte_offset & 3) == 0, VELT_LOG_NO_DEVID, 0);
    read_words_no_flip(static_cast<UINT32*>(dst), byte_offset / 4, byte_count / 4);
}

void velt_ocr_or_shared_memory_location::read_bytes_and_flip(void* dst, UINT32 byte_offset, UINT32 byte_count) const
{
    if (_shared_memory_ptr != nullptr) {
        const volatile char* src = reinterpret_cast<const volatile char*>(_shared_memory_ptr) + byte_offset;
        char* out = static_cast<char*>(dst);
        for (UINT32 i = 0; i < byte_count; ++i) out[i] = src[i];
        return;
    }
    if (byte_count / 4 == 0) return;
    velt_sys_burst_read(_sys_handle, _ocr_addr + byte_offset, byte_count / 4, static_cast<UINT32*>(dst));
}
