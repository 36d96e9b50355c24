#include "velt_sys.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <atomic>

#include "velt_customer_os.h"
#include "velt_shared_log.h"

namespace {
/* Failed register and burst callouts per device id (an extension: the
   failure is still printed and not otherwise reported to the caller). */
constexpr UINT32 BUS_ERROR_SLOTS = 32;
std::atomic<UINT32> bus_errors[BUS_ERROR_SLOTS];

void bus_error_counted(UINT32 device_id)
{
    if (device_id < BUS_ERROR_SLOTS) bus_errors[device_id].fetch_add(1, std::memory_order_relaxed);
}

/* The clock and the sleep of this layer; a test may put simulated ones in. */
velt_sys_clock_hooks_t clock_hooks{};
}  // namespace

extern "C" VELT_ERROR kavo_bus_error_count_get(UINT32 device_id, UINT32* count)
{
    if (device_id >= BUS_ERROR_SLOTS) return KAVO_ERR_INVALID_DEVICE_ID;
    if (count == nullptr) return VELT_ERR_INVALID_ARGS;
    *count = bus_errors[device_id].load(std::memory_order_relaxed);
    return VELT_SUCCESS;
}

extern "C" VELT_ERROR kavo_bus_error_count_clear(UINT32 device_id)
{
    if (device_id >= BUS_ERROR_SLOTS) return KAVO_ERR_INVALID_DEVICE_ID;
    bus_errors[device_id].store(0, std::memory_order_relaxed);
    return VELT_SUCCESS;
}

void velt_sys_clock_hooks_set(const velt_sys_clock_hooks_t* hooks) { clock_hooks = hooks ? *hooks : velt_sys_clock_hooks_t{}; }

void velt_sys_usleep(UINT32 microseconds)
{
    if (clock_hooks.sleep_us != nullptr) {
        clock_hooks.sleep_us(clock_hooks.context, microseconds);
        return;
    }
    usleep(microseconds);
}

VELT_ERROR velt_sys_sdk_init(tavo_callout_api_st* callouts)
{
    callout_ctx = callouts;
    vendor_qspi_callout_ctx = callouts->qspi_callout_api_ctx;
    callouts->log_ctx = callouts->log_init != nullptr ? callouts->log_init(0, 2, "tavo") : nullptr;
    if (callouts->log_ctx != nullptr) velt_global_log_file_ptr = *static_cast<FILE**>(callouts->log_ctx);
    return VELT_SUCCESS;
}

velt_sys_timeval_t velt_sys_time_get()
{
    if (clock_hooks.now_us != nullptr) {
        const UINT64 us = clock_hooks.now_us(clock_hooks.context);
        return velt_sys_timeval_t{(UINT32)(us / 1000000u), (UINT32)(us % 1000000u)};
    }
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return velt_sys_timeval_t{(UINT32)ts.tv_sec, (UINT32)(ts.tv_nsec / 1000)};
}

velt_sys_handle_t velt_sys_create()
{
    return static_cast<velt_sys_handle_t>(velt_sys_calloc(sizeof(customer_sys_handle_t)));
}

void velt_sys_destroy(velt_sys_handle_t* handle) { velt_customer_os_free(handle); }

velt_sys_handle_t velt_sys_handle_create()
{
    velt_sys_handle_t handle = velt_sys_create();
    velt_l1_sys_allocate(handle);
    return handle;
}

void velt_sys_handle_destroy(velt_sys_handle_t handle)
{
    velt_l1_sys_deallocate(handle);
    velt_sys_destroy(&handle);
}

void velt_l1_sys_allocate(velt_sys_handle_t handle)
{
    handle->internal_sys_handle = velt_sys_calloc(sizeof(velt_l1_sys_state_t));
}

void velt_l1_sys_deallocate(velt_sys_handle_t handle) { velt_customer_os_free(&handle->internal_sys_handle); }

VELT_ERROR velt_sys_init(velt_sys_handle_t handle, UINT32 device_id)
{
    char name[32];
    std::snprintf(name, sizeof(name), "KAVO-%d", (int)device_id);
    handle->device_id = device_id;
    return VELT_SUCCESS;
}

UINT32 velt_sys_reg_read(velt_sys_handle_t handle, UINT32 address)
{
    UINT32 value = 0;
    UINT32 status = vendor_qspi_callout_ctx->qspi_read(nullptr, 0, handle->device_id, address, &value);
    if (status != 0) bus_error_counted(handle->device_id);
    if (status != 0)
        VELT_LOG_ALWAYS(handle->device_id, status, " velt_sys_reg_read FAILED with error code = %x\n for device_id %d",
                        status, handle->device_id);
    return value;
}

void velt_sys_reg_write(velt_sys_handle_t handle, UINT32 address, UINT32 value)
{
    UINT32 status = vendor_qspi_callout_ctx->qspi_write(nullptr, 0, handle->device_id, address, value);
    if (status != 0) bus_error_counted(handle->device_id);
    if (status != 0)
        VELT_LOG_ALWAYS(handle->device_id, status, " velt_sys_reg_write FAILED with error code = %x\n for device_id %d",
                        status, handle->device_id);
}

void velt_sys_reg_read_modify_write(velt_sys_handle_t handle, UINT32 address, UINT32 mask, UINT32 value)
{
    UINT32 old = velt_sys_reg_read(handle, address);
    velt_sys_reg_write(handle, address, (old & ~mask) | (value & mask));
}

void velt_sys_burst_read(velt_sys_handle_t handle, UINT32 address, UINT32 length_words, UINT32* buffer)
{
    UINT32 status = vendor_qspi_callout_ctx->qspi_bread(nullptr, 0, handle->device_id, length_words, address, buffer);
    if (status != 0) bus_error_counted(handle->device_id);
    if (status != 0)
        VELT_LOG_ALWAYS(handle->device_id, status, " velt_sys_burst_read FAILED with error code = %x\n for device_id %d",
                        status, handle->device_id);
}

void velt_sys_burst_write(velt_sys_handle_t handle, UINT32 address, UINT32 length_words, UINT32* buffer)
{
    UINT32 status = vendor_qspi_callout_ctx->qspi_bwrite(nullptr, 0, handle->device_id, length_words, address, buffer);
    if (status != 0) bus_error_counted(handle->device_id);
    if (status != 0)
        VELT_LOG_ALWAYS(handle->device_id, status, " velt_sys_burst_write FAILED with error code = %x\n for device_id %d",
                        status, handle->device_id);
}

static bool poll_condition(UINT32 value, UINT32 expected, VELT_POLL_COMPARISON_TYPE comparison)
{
    switch (comparison) {
    case VELT_POLL_NOT_EQUAL: return value != expected;
    case VELT_POLL_GREATER: return value > expected;
    case VELT_POLL_LESS: return value < expected;
    case VELT_POLL_GREATER_OR_EQUAL: return value >= expected;
    case VELT_POLL_LESS_OR_EQUAL: return value <= expected;
    case VELT_POLL_EQUAL:
    case VELT_POLL_EQUAL_NO_LOG:
    default: return value == expected;
    }
}

VELT_ERROR velt_sys_poll(velt_sys_handle_t handle, UINT32 address, UINT32 mask, UINT32 expected,
                         VELT_POLL_COMPARISON_TYPE comparison, UINT32 timeout_us)
{
    const UINT64 start = tv_to_microseconds(velt_sys_time_get());
    UINT32 rounds = 0;
    for (;;) {
        const bool last = tv_to_microseconds(velt_sys_time_get()) - start > timeout_us;
        if (poll_condition(velt_sys_reg_read(handle, address) & mask, expected, comparison)) return VELT_SUCCESS;
        ++rounds;
        if (last) return VELT_SHARED_ERR_CODE_POLL_TIMEOUT;
    }
}

velt_sys_atomic_t velt_sys_atomic_create()
{
    // A cache line of its own: each device's lock is taken twice per command,
    // and two devices' locks sharing a line would slow both.
    // The block comes zeroed from the porting layer (whose failure asserts);
    // the lock sits at the first line boundary past a slot that remembers the
    // block, so that velt_sys_atomic_delete can free it.
    constexpr size_t line = 64;
    static_assert(sizeof(pthread_mutex_t) + sizeof(void*) <= line, "a lock fits one cache line");
    auto* block = static_cast<char*>(velt_sys_calloc(2 * line));
    const uintptr_t at = ((uintptr_t)block + sizeof(void*) + line - 1) & ~(uintptr_t)(line - 1);
    auto* mutex = reinterpret_cast<pthread_mutex_t*>(at);
    reinterpret_cast<void**>(at)[-1] = block;
    pthread_mutexattr_t attr;
    bool ok = pthread_mutexattr_init(&attr) == 0 && pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE) == 0 &&
              pthread_mutex_init(mutex, &attr) == 0;
    pthread_mutexattr_destroy(&attr);
    VELT_ASSERT_CODE(ok, VELT_LOG_NO_DEVID, VELT_ERR_FAIL);
    return mutex;
}

void velt_sys_atomic_delete(velt_sys_atomic_t* lock)
{
    int rc = pthread_mutex_destroy(static_cast<pthread_mutex_t*>(*lock));
    if (rc != 0) {
        VELT_LOG_ALWAYS(VELT_LOG_NO_DEVID, VELT_ERR_FAIL, " pthread_mutex_destroy FAILED with error code = %d\n", rc);
        VELT_ASSERT_FAIL(VELT_LOG_NO_DEVID, VELT_ERR_FAIL);
    }
    void* block = static_cast<void**>(*lock)[-1];
    velt_customer_os_free(&block);
    *lock = nullptr;
}

void velt_sys_atomic_start(velt_sys_atomic_t lock)
{
    VELT_ASSERT_CODE(pthread_mutex_lock(static_cast<pthread_mutex_t*>(lock)) == 0, VELT_LOG_NO_DEVID, VELT_ERR_FAIL);
}

void velt_sys_atomic_end(velt_sys_atomic_t lock)
{
    VELT_ASSERT_CODE(pthread_mutex_unlock(static_cast<pthread_mutex_t*>(lock)) == 0, VELT_LOG_NO_DEVID, VELT_ERR_FAIL);
}

UINT32 velt_sys_thread_id_get() { return (UINT32)syscall(SYS_gettid); }

namespace {
/* Where the last read through velt_sys_file_read left its stream. Reads that
   continue where the previous one ended (an image download) skip the seek,
   which would cost a system call and drop the stream's buffer each time. */
thread_local FILE* read_stream = nullptr;
thread_local long read_stream_position = -1;
constexpr size_t FILE_BUFFER_SIZE = 64 * 1024;
}  // namespace

FILE* velt_sys_file_open(const char* path)
{
    FILE* file = path ? std::fopen(path, "rb") : nullptr;
    if (file != nullptr) std::setvbuf(file, nullptr, _IOFBF, FILE_BUFFER_SIZE);
    if (file == read_stream) read_stream = nullptr;
    return file;
}

FILE* velt_sys_output_file_open(const char* path) { return path ? std::fopen(path, "wb") : nullptr; }

UINT32 velt_sys_file_close(FILE* file)
{
    if (file == read_stream) read_stream = nullptr;
    return std::fclose(file) != 0 ? 1 : 0;
}

UINT32 velt_sys_file_read(FILE* file, void* buffer, UINT32* offset, UINT32* length)
{
    if (file != read_stream || read_stream_position != (long)*offset) {
        read_stream = nullptr;
        if (std::fseek(file, (long)*offset, SEEK_SET) != 0) return 1;
    }
    *length = (UINT32)std::fread(buffer, 1, *length, file);
    read_stream = file;
    read_stream_position = (long)*offset + (long)*length;
    return 0;
}

UINT32 velt_sys_file_write(FILE* file, const void* buffer, UINT32* length)
{
    *length = (UINT32)std::fwrite(buffer, 1, *length, file);
    return 0;
}

int velt_sys_atoi(const char* text) { return std::atoi(text); }

void* velt_sys_calloc(size_t size) { return velt_customer_os_calloc(size); }

void velt_sys_assert_function(UINT32 code, const char* file, int line) { velt_customer_os_assert(code, file, line); }

UINT8 velt_sys_count_trailing_zeros(UINT16 value)
{
    if (value == 0) return 16;
    UINT8 n = 0;
    while ((value & 1u) == 0) {
        value >>= 1;
        ++n;
    }
    return n;
}

VELT_ERROR velt_sys_replace_string(char* buffer, UINT32 room, const char* search, const char* replacement)
{
    char* at = std::strstr(buffer, search);
    if (at == nullptr) return VELT_ERR_SEARCH_STRING_NOT_FOUND_IN_BUFFER;
    const UINT32 search_len = (UINT32)std::strlen(search);
    const UINT32 replacement_len = (UINT32)std::strlen(replacement);
    // Unsigned 32-bit arithmetic, kept as the chip's tools have always done it.
    if (room + (search_len - (UINT32)std::strlen(buffer)) < replacement_len)
        return VELT_ERR_REPLACEMENT_STRING_TOO_LONG;
    std::memmove(at + replacement_len, at + search_len, std::strlen(at + search_len) + 1);
    std::memcpy(at, replacement, replacement_len);
    return VELT_SUCCESS;
}

void velt_sys_set_thread_name(const char*) {}
void velt_simulation_progress_message(const char*) {}
void velt_sys_wait_for_host_interrupt(UINT32) {}
void velt_sys_wait_for_device_interrupt(UINT32) {}
