/* A place in the chip's on-chip RAM, reached either through register access
   (burst reads of OCR addresses) or, when the memory is mapped into the host,
   through a pointer. A plain value: copy it freely. */
#ifndef VELT_SHARED_MEMORY_H
#define VELT_SHARED_MEMORY_H

#include "kavo/kavo_api.h"
#include "velt_sys.h"

/* OCR address of the firmware's log-buffer block (console ring, statistics,
   debug logs) and its console cookie. */
constexpr UINT32 VELT_DEVICE_LOG_BUFFERS_OCR_ADDR = 0x354004;
constexpr UINT32 VELT_CONSOLE_COOKIE = 0xFACEF00D;

class velt_ocr_or_shared_memory_location {
public:
    velt_ocr_or_shared_memory_location() = default;
    explicit velt_ocr_or_shared_memory_location(volatile UINT32* ptr) { init_shared_memory_ptr(ptr); }
    velt_ocr_or_shared_memory_location(velt_sys_handle_t handle, UINT32 ocr_addr) { init_ocr_addr(handle, ocr_addr); }
    velt_ocr_or_shared_memory_location(const velt_ocr_or_shared_memory_location& base, UINT32 offset)
    {
        init_offset(base, offset);
    }

    void init_shared_memory_ptr(volatile UINT32* ptr);
    void init_ocr_addr(velt_sys_handle_t handle, UINT32 ocr_addr);
    /* Same mode and handle as base, moved by offset bytes. */
    void init_offset(const velt_ocr_or_shared_memory_location& base, UINT32 offset);

    bool is_shared_memory() const { return _shared_memory_ptr != nullptr; }

    UINT32 read_32bit_value() const;
    void read_words_no_flip(UINT32* dst, UINT32 word_offset, UINT32 word_count) const;
    /* byte_offset must be a multiple of 4 (asserts otherwise). */
    void read_bytes_no_flip(void* dst, UINT32 byte_offset, UINT32 byte_count) const;
    void read_bytes_and_flip(void* dst, UINT32 byte_offset, UINT32 byte_count) const;

    velt_sys_handle_t _sys_handle = nullptr;
    UINT32 _ocr_addr = 0;
    volatile UINT32* _shared_memory_ptr = nullptr;
};

#endif /* VELT_SHARED_MEMORY_H */
