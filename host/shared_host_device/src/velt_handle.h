/* Register-block handles and the write-coalescing buffer of the register
   layer. A handle names a block (system handle plus base address); a buffer
   lives on the caller's stack and merges consecutive field writes to one
   register into one bus operation. The accessors per register and field are
   generated into velt_registers.h. */
#ifndef VELT_HANDLE_H
#define VELT_HANDLE_H

#include "kavo/kavo_api.h"
#include "velt_sys.h"

#define VELT_CPU_CFG_BASE_ADDRESS 0xF00000
#define VELT_DCSU_BASE_ADDRESS 0x744000

struct velt_handle_t {
    velt_sys_handle_t* sys_handle;
    UINT32 base_address;
};
/* cpu_cfg, ocr_cfg and int_agr share one handle at VELT_CPU_CFG_BASE_ADDRESS. */
typedef velt_handle_t cpu_cfg_handle_t;
typedef velt_handle_t dcsu_handle_t;

void velt_handle_init(velt_handle_t* handle, velt_sys_handle_t* sys_handle, UINT32 base_address);

/* buffer_state values */
enum : UINT8 {
    VELT_L1_BUFFER_EMPTY = 0,
    VELT_L1_BUFFER_READ = 1,    /* value holds what was read from addr */
    VELT_L1_BUFFER_PENDING = 2, /* value holds field writes not yet sent to addr */
};
/* buffer_flags values */
enum : UINT8 {
    VELT_L1_FLAG_NORMAL = 0,
    VELT_L1_FLAG_FORCE_RMW = 4,       /* flush by read-modify-write whatever the masks say */
    VELT_L1_FLAG_ACTION_ON_WRITE = 8, /* flush by a plain write (write-one-to-clear bits) */
};

struct coalesce_buffer_t {
    velt_sys_handle_t* sys_handle;
    UINT8 buffer_state;
    UINT8 buffer_flags;
    UINT32 addr;
    UINT32 mask;        /* OR of the masks of the fields set since the buffer opened */
    UINT32 unused_mask; /* OR of the unused-bit masks given with them */
    UINT32 value;
};

/* One buffer type per block, so that a buffer cannot be handed to another
   block's accessors by mistake. Zero-initialise ({}) or use velt_buffer_init. */
struct cpu_cfg_buffer_t {
    coalesce_buffer_t buffer;
};
struct ocr_cfg_buffer_t {
    coalesce_buffer_t buffer;
};
struct dcsu_buffer_t {
    coalesce_buffer_t buffer;
};
struct int_agr_buffer_t {
    coalesce_buffer_t buffer;
};

/* The coalescing buffer inside a block buffer; null stays null (no coalescing). */
template <typename B>
inline coalesce_buffer_t* velt_coalesce_of(B* block_buffer)
{
    return block_buffer != nullptr ? &block_buffer->buffer : nullptr;
}

#endif /* VELT_HANDLE_H */
