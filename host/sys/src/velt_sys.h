/* System services of the porting layer: the per-device system handle,
   register and burst access through the application's callouts, the
   busy-wait poll, the recursive device lock, files, time and small helpers. */
#ifndef VELT_SYS_H
#define VELT_SYS_H

#include <cstdio>

#include "kavo/kavo_api.h"

/* One per device, zero-filled at creation. internal_sys_handle owns the
   register layer's coalescing state block. */
struct customer_sys_handle_t {
    void* internal_sys_handle;
    UINT32 device_id;
};
typedef customer_sys_handle_t* velt_sys_handle_t;

/* Coalescing state block behind internal_sys_handle: word 1 the address whose
   write is pending, word 2 the pending flag. */
struct velt_l1_sys_state_t {
    UINT32 unused;
    UINT32 pending_addr;
    UINT32 pending;
};

struct velt_sys_timeval_t {
    UINT32 tv_sec;
    UINT32 tv_usec;
};
inline UINT64 tv_to_microseconds(const velt_sys_timeval_t& tv) { return (UINT64)tv.tv_sec * 1000000u + tv.tv_usec; }
/* Now, from the monotonic clock (or the clock hook's). */
velt_sys_timeval_t velt_sys_time_get();
/* Sleeps (or lets the clock hook's time pass). */
void velt_sys_usleep(UINT32 microseconds);
/* A simulated clock for tests that wait out the library's time-outs without
   spending them: now_us gives the time, sleep_us lets time pass. Null (or
   null members) restores the monotonic clock and real sleeps. Not for use
   while devices are in use on other threads. */
struct velt_sys_clock_hooks_t {
    UINT64 (*now_us)(void* context);
    void (*sleep_us)(void* context, UINT32 microseconds);
    void* context;
};
void velt_sys_clock_hooks_set(const velt_sys_clock_hooks_t* hooks);

VELT_ERROR velt_sys_sdk_init(tavo_callout_api_st* callouts);

velt_sys_handle_t velt_sys_create();
void velt_sys_destroy(velt_sys_handle_t* handle);
velt_sys_handle_t velt_sys_handle_create();
void velt_sys_handle_destroy(velt_sys_handle_t handle);
VELT_ERROR velt_sys_init(velt_sys_handle_t handle, UINT32 device_id);
void velt_l1_sys_allocate(velt_sys_handle_t handle);
void velt_l1_sys_deallocate(velt_sys_handle_t handle);

UINT32 velt_sys_reg_read(velt_sys_handle_t handle, UINT32 address);
void velt_sys_reg_write(velt_sys_handle_t handle, UINT32 address, UINT32 value);
void velt_sys_reg_read_modify_write(velt_sys_handle_t handle, UINT32 address, UINT32 mask, UINT32 value);
void velt_sys_burst_read(velt_sys_handle_t handle, UINT32 address, UINT32 length_words, UINT32* buffer);
void velt_sys_burst_write(velt_sys_handle_t handle, UINT32 address, UINT32 length_words, UINT32* buffer);
/* Busy wait until (register AND mask) compares true with expected; reads at
   least once, and once more after the time-out has passed. */
VELT_ERROR velt_sys_poll(velt_sys_handle_t handle, UINT32 address, UINT32 mask, UINT32 expected,
                         VELT_POLL_COMPARISON_TYPE comparison, UINT32 timeout_us);

/* Recursive device lock. */
typedef void* velt_sys_atomic_t;
velt_sys_atomic_t velt_sys_atomic_create();
void velt_sys_atomic_delete(velt_sys_atomic_t* lock);
void velt_sys_atomic_start(velt_sys_atomic_t lock);
void velt_sys_atomic_end(velt_sys_atomic_t lock);

UINT32 velt_sys_thread_id_get();
FILE* velt_sys_file_open(const char* path);
FILE* velt_sys_output_file_open(const char* path);
UINT32 velt_sys_file_close(FILE* file);
UINT32 velt_sys_file_read(FILE* file, void* buffer, UINT32* offset, UINT32* length);
UINT32 velt_sys_file_write(FILE* file, const void* buffer, UINT32* length);
int velt_sys_atoi(const char* text);
void* velt_sys_calloc(size_t size);
/* The system layer's assertion: the porting layer's, which never returns. */
[[noreturn]] void velt_sys_assert_function(UINT32 code, const char* file, int line);

UINT8 velt_sys_count_trailing_zeros(UINT16 value);
/* Replaces the first `search` in `buffer` by `replacement`, in place. */
VELT_ERROR velt_sys_replace_string(char* buffer, UINT32 room, const char* search, const char* replacement);

/* Hooks a port may fill; empty on this platform. */
void velt_sys_set_thread_name(const char* name);
void velt_simulation_progress_message(const char* text);
void velt_sys_wait_for_host_interrupt(UINT32 device_id);
void velt_sys_wait_for_device_interrupt(UINT32 device_id);

#endif /* VELT_SYS_H */
