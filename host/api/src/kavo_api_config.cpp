/* SDK entry, device bring-up and device-wide configuration: the commands whose
   algorithm is more than one request (the regular ones are generated). */
#include "kavo/kavo_api.h"
#include "kavo_command_frame.h"

VELT_ERROR kavo_sdk_init(void* context)
{
    return velt_sys_sdk_init(static_cast<tavo_callout_api_st*>(context));
}

VELT_ERROR kavo_device_init(const UINT32 device_id, kavo_init_type_t init_type)
{
    KAVO_COMMAND(frame, device_id);
    frame.trace(", %s", kavo_init_type_t_print(init_type));
    frame.trace_end();
    kavo_device* device = nullptr;
    VELT_ERROR rc = kavo_device_create(device_id, &device);
    if (rc != VELT_SUCCESS) return rc;
    rc = device->init(init_type);
    if (rc != VELT_SUCCESS) return rc;
    if (init_type == KAVO_INIT_DEBUG_ATTACH) return VELT_SUCCESS;
    return device->link().connect();
}

VELT_ERROR kavo_device_uninit(UINT32 device_id, BOOL8 shutdown)
{
    KAVO_COMMAND(frame, device_id);
    frame.trace(", %d", shutdown);
    VELT_ERROR rc = VELT_SUCCESS;
    frame.request(KAVO_HTL_OPERATION_SHUTDOWN);
    if (shutdown) rc = frame.send();
    kavo_device_uninit(device_id);
    return rc;
}

VELT_ERROR kavo_device_status_get(const UINT32 device_id, kavo_status_info_t* status_ptr)
{
    KAVO_STATUS_COMMAND(frame, device_id);
    frame.trace(", [status_ptr=0x%p]", (void*)status_ptr);
    // The host's versions are filled first, so the caller has them even when the device is down.
    status_ptr->sw_revision = KAVO_SW_REVISION;
    status_ptr->sw_version = KAVO_SW_VERSION;
    kavo_device_status_info_t info;
    frame.request(KAVO_HTL_OPERATION_STATUS).reply(&info, sizeof(info));
    VELT_ERROR rc = frame.send();
    if (rc != VELT_SUCCESS) {
        status_ptr->device_connected = 0;
        return rc;
    }
    status_ptr->device_info = info;
    rc = frame.response().result;
    status_ptr->device_connected = 1;
    status_ptr->sw_fw_mismatch = 0;
    // A difference in the low byte (a patch level) is tolerated.
    if ((info.fw_version ^ KAVO_SW_VERSION) > 0xFF) {
        velt_log_header((int)device_id, VELT_SHARED_ERR_INVALID_PARAM, __FILE__, __LINE__, __func__);
        VELT_PRINTF(velt_global_log_file_ptr, " SW-FW Version mismatch! FW Version = 0x%x, SW Version = 0x%x",
                    info.fw_version & ~0xFFu, KAVO_SW_VERSION & ~0xFFu);
        status_ptr->sw_fw_mismatch = 1;
        return KAVO_SW_FW_VERSION_MISMATCH;
    }
    return rc;
}

VELT_ERROR kavo_fw_filename_set(const char* file_name)
{
    KAVO_COMMAND(frame, VELT_LOG_NO_DEVID);
    frame.trace(", FW Filename = %s", file_name ? file_name : "(null)");
    frame.trace_end();
    return kavo_firmware_filename_set(file_name);
}

void kavo_fw_filename_get(char** file_name)
{
    KAVO_COMMAND(frame, VELT_LOG_NO_DEVID);
    frame.trace_end();
    *file_name = kavo_firmware_filename_get();
}

const char* kavo_err_t_string(VELT_ERROR value) { return kavo_err_t_print(static_cast<kavo_err_t>(value), nullptr, 0); }
