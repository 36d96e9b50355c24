/* Debug commands: echo, the firmware's debug shell, logs, log level and direct register access. */
#include <cstdlib>
#include <cstring>

#include "kavo/kavo_api.h"
#include "kavo_command_frame.h"
#include "velt_library_options.h"

namespace {
constexpr UINT32 PING_MAX_DATA_SIZE = 16344;
constexpr UINT32 DEBUG_CMD_REPLY_SIZE = 65536;
constexpr UINT32 VERBOSITY_REPLY_SIZE = 80;

/* A refused argument: its runtime-error line, and its code. */
#define DEBUG_REFUSE(device_id, code) \
    do {                              \
        VELT_RUNTIME_ERROR(device_id, code); \
        return (code);                \
    } while (0)
}  // namespace

VELT_ERROR kavo_debug_ping(const UINT32 device_id, const UINT32 data_size, const UINT32* data_ptr,
                           UINT32* resp_data_ptr)
{
    KAVO_COMMAND(frame, device_id);
    frame.trace(", %u", data_size);
    frame.trace_end();
    if (data_size != 0) {
        if (data_ptr == nullptr || resp_data_ptr == nullptr) DEBUG_REFUSE(device_id, HTL_ERR_INVALID_REQUEST_DATA_PTR);
        if (data_size > PING_MAX_DATA_SIZE || data_size % 4 != 0)
            DEBUG_REFUSE(device_id, HTL_ERR_INVALID_REQUEST_DATA_SIZE);
    }
    frame.request(KAVO_HTL_OPERATION_DEBUG_PING).data(data_ptr, data_size).reply(resp_data_ptr, data_size);
    return frame.send();
}

VELT_ERROR kavo_debug_cmd(const UINT32 device_id, const char* cmd, UINT32 max_resp_data_size, char* resp_data_ptr)
{
    KAVO_COMMAND(frame, device_id);
    frame.trace(", %s", cmd ? cmd : "(null)");
    if (KAVO_DEBUG_INPUT_MISSING(frame, cmd)) return VELT_ERR_INVALID_ARGS;
    // The text travels with its terminating zero, rounded up to whole words.
    const UINT32 length = (UINT32)std::strlen(cmd);
    const UINT32 size = length - (length & 3) + 4;
    char* reply = resp_data_ptr;
    UINT32 capacity = max_resp_data_size;
    if (reply == nullptr) {
        reply = static_cast<char*>(velt_customer_os_malloc(DEBUG_CMD_REPLY_SIZE));
        if (reply == nullptr) DEBUG_REFUSE(device_id, VELT_SHARED_ERR_MALLOC_FAILED);
        capacity = DEBUG_CMD_REPLY_SIZE;
    }
    // The words sent reach past the text's end: they are taken from a zeroed
    // copy, never from beyond the caller's string.
    char local[1024];
    char* padded = size <= sizeof(local) ? local : static_cast<char*>(std::malloc(size));
    VELT_ERROR rc = VELT_SHARED_ERR_MALLOC_FAILED;
    if (padded != nullptr) {
        std::memset(padded, 0, size);
        std::memcpy(padded, cmd, length);
        frame.request(KAVO_HTL_OPERATION_DEBUG_CMD).data(padded, size).reply(reply, capacity);
        rc = frame.send();
        if (padded != local) std::free(padded);
    }
    if (resp_data_ptr == nullptr) {
        const UINT32 got = frame.response().data_size;
        if (rc == VELT_SUCCESS && got != 0 && got <= capacity) {
            reply[got < capacity ? got : capacity - 1] = '\0';
            if (reply[0] != '\0') std::printf("%s\n", reply);
        }
        velt_customer_os_free(&reply);
    }
    return rc;
}

VELT_ERROR kavo_fw_log_dump(const UINT32 device_id, const kavo_fw_log_dump_t info)
{
    kavo_device* device = kavo_device_get(device_id);
    if (device == nullptr) return KAVO_ERR_INVALID_DEVICE_ID;
    return device->dump_firmware_info(velt_global_log_file_ptr, info);
}

VELT_ERROR kavo_log_verbosity_level_set(const UINT32 device_id, UINT32 verbosity_level)
{
    KAVO_COMMAND(frame, device_id);
    frame.trace(", %u", verbosity_level);
    frame.trace_end();
    if (verbosity_level >= VELT_LOG_SEV_NUM) DEBUG_REFUSE(device_id, VELT_ERR_INVALID_ARGS);
    if (device_id == 0xFFFFFFFFu) {
        velt_log_verbosity_level_set(device_id, static_cast<velt_log_sev_t>(verbosity_level));
        return VELT_SUCCESS;
    }
    char text[32];
    char reply[VERBOSITY_REPLY_SIZE];
    std::snprintf(text, sizeof(text), "set_verbosity %u ", verbosity_level);
    return kavo_debug_cmd(device_id, text, sizeof(reply), reply);
}

VELT_ERROR kavo_reg_read(const UINT32 device_id, const UINT32 address, UINT32* value_ptr)
{
    kavo_command_frame frame(__func__, device_id,
                             velt_option_trace_reg_read.value ? KAVO_COMMAND_STATS(__func__) : nullptr, true);
    frame.trace(", 0x%x", address);
    frame.trace_end();
    kavo_device* device = kavo_device_get(device_id);
    if (device == nullptr) return KAVO_ERR_INVALID_DEVICE_ID;
    if (value_ptr == nullptr) return VELT_ERR_INVALID_ARGS;
    return device->reg_read(address, value_ptr);
}

VELT_ERROR kavo_reg_write(const UINT32 device_id, const UINT32 address, const UINT32 value)
{
    KAVO_COMMAND(frame, device_id);
    frame.trace(", 0x%x 0x%x", address, value);
    frame.trace_end();
    kavo_device* device = kavo_device_get(device_id);
    if (device == nullptr) return KAVO_ERR_INVALID_DEVICE_ID;
    return device->reg_write(address, value);
}

void kavo_function_logging_set(BOOL8 enable) { velt_function_logging_set(0, enable != 0); }

void kavo_status_logging_set(BOOL8 enable) { velt_global_trace_status_logging_enabled = enable != 0; }
