/* Register layer under the generated accessors: buffered (coalescing) and
   unbuffered register and field access. Every function takes the coalescing
   buffer or null; null goes straight to the porting layer. Addresses are
   absolute (block base + register offset). */
#ifndef VELT_L1_SYS_H
#define VELT_L1_SYS_H

#include "kavo/kavo_api.h"
#include "velt_handle.h"
#include "velt_sys.h"

/* Adds a field to the pending write of the buffer (opening it for addr), or,
   without a buffer, writes the field at once. set2 also records the register's
   unused-bit mask, which lets the flush skip the read when every bit is covered. */
void velt_l1_sys_field_set(coalesce_buffer_t* buf, velt_sys_handle_t* sys, UINT32 addr, UINT32 mask, UINT32 shift,
                           UINT32 value);
void velt_l1_sys_field_set2(coalesce_buffer_t* buf, velt_sys_handle_t* sys, UINT32 addr, UINT32 mask, UINT32 shift,
                            UINT32 unused_mask, UINT32 value);
/* Field set for write-one-to-clear and other action-on-write fields. Buffered,
   its flush is a plain write of the collected value. Unbuffered it follows the
   rule of every unbuffered field set: a read-modify-write of value << shift
   under the field mask unless the field and the unused bits cover the whole
   register (then a plain write). The read is harmless for such fields: only the
   bits outside the field are taken from it, so a status register whose other
   bits read as 0 receives exactly value << shift (clearing interrupt 63 writes
   0x8000 to IPI2PCIE_3_INT), and set status bits inside the field that are not
   in the value are written as 0, which leaves them set. */
void velt_l1_sys_field_set_action_on_write(coalesce_buffer_t* buf, velt_sys_handle_t* sys, UINT32 addr, UINT32 mask,
                                           UINT32 shift, UINT32 unused_mask, UINT32 value);
/* Sets bits start..stop of a field (stop clamped to the field's last bit); a
   buffer is switched to read-modify-write first so the other bits survive. */
void velt_l1_sys_field_range_set(coalesce_buffer_t* buf, velt_sys_handle_t* sys, UINT32 addr, UINT32 mask,
                                  UINT32 shift, UINT32 unused_mask, UINT32 start_bit, UINT32 stop_bit, UINT32 value);
UINT32 velt_l1_sys_field_get(coalesce_buffer_t* buf, velt_sys_handle_t* sys, UINT32 addr, UINT32 mask, UINT32 shift);
UINT32 velt_l1_sys_reg_read(coalesce_buffer_t* buf, velt_sys_handle_t* sys, UINT32 addr);
void velt_l1_sys_reg_write(coalesce_buffer_t* buf, velt_sys_handle_t* sys, UINT32 addr, UINT32 value);
VELT_ERROR velt_l1_sys_poll(coalesce_buffer_t* buf, velt_sys_handle_t* sys, UINT32 addr, UINT32 mask, UINT32 value,
                            VELT_POLL_COMPARISON_TYPE comparison, UINT32 timeout_us);

void velt_l1_sys_force_read_modify_write(coalesce_buffer_t* buf);
/* Sends a pending write (if any) and empties the buffer. */
void velt_l1_sys_flush(coalesce_buffer_t* buf);
void velt_l1_sys_dirty_flush(coalesce_buffer_t* buf);

/* Misuse of a buffer: both print and halt. */
[[noreturn]] void velt_l1_sys_register_address_changed_without_buffer_flush(velt_sys_handle_t* sys, UINT32 old_addr,
                                                                            UINT32 new_addr);
[[noreturn]] void velt_l1_sys_stale_data_in_coalescing_buffer(velt_sys_handle_t* sys);

#endif /* VELT_L1_SYS_H */
