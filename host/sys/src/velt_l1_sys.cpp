#include "velt_l1_sys.h"

#include <bit>

#include "velt_shared_log.h"

static velt_l1_sys_state_t* coalescing_state(velt_sys_handle_t* sys)
{
    return static_cast<velt_l1_sys_state_t*>((*sys)->internal_sys_handle);
}

static int device_of(velt_sys_handle_t* sys) { return sys != nullptr && *sys != nullptr ? (int)(*sys)->device_id : -1; }

void velt_l1_sys_register_address_changed_without_buffer_flush(velt_sys_handle_t* sys, UINT32 old_addr, UINT32 new_addr)
{
    VELT_LOG_ALWAYS(device_of(sys), VELT_SHARED_LOG_TRACE,
                    " ERROR: register address changed without velt_l1_sys coalescing buffer flush,... old addr = "
                    "0x%08x new addr = 0x%08x\n",
                    old_addr, new_addr);
    VELT_ASSERT_FAIL(device_of(sys), VELT_SHARED_LOG_TRACE);
}

void velt_l1_sys_stale_data_in_coalescing_buffer(velt_sys_handle_t* sys)
{
    VELT_LOG_ALWAYS(device_of(sys), VELT_SHARED_LOG_TRACE,
                    " ERROR: stale data in velt_l1_sys coalescing buffer,... possible missing flush() addr = 0x%08x\n",
                    coalescing_state(sys)->pending_addr);
    VELT_ASSERT_FAIL(device_of(sys), VELT_SHARED_LOG_TRACE);
}

/* A pending write to another register must be flushed before the buffer is reused. */
static void check_pending_for(coalesce_buffer_t* buf, velt_sys_handle_t* sys, UINT32 addr)
{
    if (buf->buffer_state == VELT_L1_BUFFER_PENDING && buf->addr != addr)
        velt_l1_sys_register_address_changed_without_buffer_flush(sys, buf->addr, addr);
}

/* Returns the cached value of addr, reading it first when the buffer holds none. */
static UINT32 cached_read(coalesce_buffer_t* buf, velt_sys_handle_t* sys, UINT32 addr)
{
    if (buf->buffer_state == VELT_L1_BUFFER_READ && buf->addr != addr)
        velt_l1_sys_register_address_changed_without_buffer_flush(sys, buf->addr, addr);
    if (buf->buffer_state != VELT_L1_BUFFER_READ) {
        buf->sys_handle = sys;
        buf->value = velt_sys_reg_read(*sys, addr);
        buf->addr = addr;
        buf->buffer_state = VELT_L1_BUFFER_READ;
    }
    return buf->value;
}

/* Unbuffered field write: a read is needed only when bits outside the field
   (and outside the unused bits) must keep their value. */
static void write_field_now(velt_sys_handle_t* sys, UINT32 addr, UINT32 mask, UINT32 shift, UINT32 unused_mask,
                            UINT32 value)
{
    if ((mask | unused_mask) != 0xFFFFFFFFu)
        velt_sys_reg_read_modify_write(*sys, addr, mask, value << shift);
    else
        velt_sys_reg_write(*sys, addr, value << shift);  // the whole register: written as given
}

void velt_l1_sys_field_set2(coalesce_buffer_t* buf, velt_sys_handle_t* sys, UINT32 addr, UINT32 mask, UINT32 shift,
                            UINT32 unused_mask, UINT32 value)
{
    if (buf == nullptr) {
        write_field_now(sys, addr, mask, shift, unused_mask, value);
        return;
    }
    check_pending_for(buf, sys, addr);
    if (buf->buffer_state != VELT_L1_BUFFER_PENDING) {
        velt_l1_sys_state_t* state = coalescing_state(sys);
        state->pending_addr = addr;
        state->pending = 1;
        buf->sys_handle = sys;
        buf->buffer_state = VELT_L1_BUFFER_PENDING;
        buf->addr = addr;
        buf->mask = 0;
        buf->unused_mask = 0;
        buf->value = 0;
    }
    buf->mask |= mask;
    buf->unused_mask |= unused_mask;
    buf->value |= ((mask >> shift) & value) << shift;
}

void velt_l1_sys_field_set(coalesce_buffer_t* buf, velt_sys_handle_t* sys, UINT32 addr, UINT32 mask, UINT32 shift,
                           UINT32 value)
{
    velt_l1_sys_field_set2(buf, sys, addr, mask, shift, 0, value);
}

void velt_l1_sys_field_set_action_on_write(coalesce_buffer_t* buf, velt_sys_handle_t* sys, UINT32 addr, UINT32 mask,
                                           UINT32 shift, UINT32 unused_mask, UINT32 value)
{
    if (buf == nullptr) {
        write_field_now(sys, addr, mask, shift, unused_mask, value);
        return;
    }
    buf->buffer_flags = VELT_L1_FLAG_ACTION_ON_WRITE;
    velt_l1_sys_field_set(buf, sys, addr, mask, shift, value);
}

void velt_l1_sys_field_range_set(coalesce_buffer_t* buf, velt_sys_handle_t* sys, UINT32 addr, UINT32 mask,
                                  UINT32 shift, UINT32 unused_mask, UINT32 start_bit, UINT32 stop_bit, UINT32 value)
{
    const UINT32 last = (UINT32)std::popcount(mask) - 1;
    if (stop_bit > last) stop_bit = last;
    if (start_bit > stop_bit) return;  // an empty range sets nothing
    const UINT32 width = stop_bit - start_bit + 1;
    const UINT32 range = (width >= 32 ? 0xFFFFFFFFu : (1u << width) - 1) << (start_bit + shift);
    if (buf != nullptr) velt_l1_sys_force_read_modify_write(buf);
    velt_l1_sys_field_set2(buf, sys, addr, range, start_bit + shift, unused_mask, value);
}

UINT32 velt_l1_sys_field_get(coalesce_buffer_t* buf, velt_sys_handle_t* sys, UINT32 addr, UINT32 mask, UINT32 shift)
{
    if (buf == nullptr) return (velt_sys_reg_read(*sys, addr) & mask) >> shift;
    if (buf->buffer_state == VELT_L1_BUFFER_PENDING) velt_l1_sys_dirty_flush(buf);
    return (cached_read(buf, sys, addr) & mask) >> shift;
}

UINT32 velt_l1_sys_reg_read(coalesce_buffer_t* buf, velt_sys_handle_t* sys, UINT32 addr)
{
    if (buf == nullptr) return velt_sys_reg_read(*sys, addr);
    if (buf->buffer_state == VELT_L1_BUFFER_PENDING) velt_l1_sys_stale_data_in_coalescing_buffer(sys);
    return cached_read(buf, sys, addr);
}

void velt_l1_sys_reg_write(coalesce_buffer_t* buf, velt_sys_handle_t* sys, UINT32 addr, UINT32 value)
{
    if (buf != nullptr) {
        check_pending_for(buf, sys, addr);
        velt_l1_sys_flush(buf);
    }
    velt_sys_reg_write(*sys, addr, value);
}

VELT_ERROR velt_l1_sys_poll(coalesce_buffer_t* buf, velt_sys_handle_t* sys, UINT32 addr, UINT32 mask, UINT32 value,
                            VELT_POLL_COMPARISON_TYPE comparison, UINT32 timeout_us)
{
    if (buf != nullptr) velt_l1_sys_flush(buf);
    return velt_sys_poll(*sys, addr, mask, value, comparison, timeout_us);
}

void velt_l1_sys_force_read_modify_write(coalesce_buffer_t* buf) { buf->buffer_flags = VELT_L1_FLAG_FORCE_RMW; }

void velt_l1_sys_flush(coalesce_buffer_t* buf)
{
    if (buf->buffer_state == VELT_L1_BUFFER_PENDING)
        velt_l1_sys_dirty_flush(buf);
    else
        buf->buffer_state = VELT_L1_BUFFER_EMPTY;
}

void velt_l1_sys_dirty_flush(coalesce_buffer_t* buf)
{
    velt_sys_handle_t sys = *buf->sys_handle;
    static_cast<velt_l1_sys_state_t*>(sys->internal_sys_handle)->pending = 0;
    // Flags outlive the flush: a buffer marked action-on-write keeps writing plainly.
    bool rmw;
    if (buf->buffer_flags == VELT_L1_FLAG_ACTION_ON_WRITE)
        rmw = false;
    else if (buf->buffer_flags == VELT_L1_FLAG_FORCE_RMW)
        rmw = true;
    else
        rmw = (buf->unused_mask | buf->mask) != 0xFFFFFFFFu;
    if (rmw)
        velt_sys_reg_read_modify_write(sys, buf->addr, buf->mask, buf->value);
    else
        velt_sys_reg_write(sys, buf->addr, buf->value);
    buf->buffer_state = VELT_L1_BUFFER_EMPTY;
}
