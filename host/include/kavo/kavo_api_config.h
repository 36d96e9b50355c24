/* SDK entry, device bring-up and device-wide configuration commands. */
#ifndef KAVO_API_CONFIG_H
#define KAVO_API_CONFIG_H

#include "kavo/gen/kavo_all_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Installs the application's callout table (a tavo_callout_api_st*), once, before anything else. */
KAVO_API VELT_ERROR kavo_sdk_init(void* context);
/* Creates device `device_id` (0..31), boots it as the init type says and, unless
   debug attach, connects its transport link. */
KAVO_API VELT_ERROR kavo_device_init(const UINT32 device_id, kavo_init_type_t init_type);
/* Sends a shutdown request when asked, and always releases the device. */
KAVO_API VELT_ERROR kavo_device_uninit(UINT32 device_id, BOOL8 shutdown);
KAVO_API VELT_ERROR kavo_device_config(const UINT32 device_id, kavo_config_t* device_cfg);
KAVO_API VELT_ERROR kavo_device_config_get(const UINT32 device_id, kavo_config_t* cfg_ptr);
/* Device status with the host's versions; KAVO_SW_FW_VERSION_MISMATCH when the
   firmware's version differs from the library's in more than its low byte. */
KAVO_API VELT_ERROR kavo_device_status_get(const UINT32 device_id, kavo_status_info_t* status_ptr);
KAVO_API VELT_ERROR kavo_device_chnl_get(const UINT32 device_id, kavo_chnl_info_t* chnl_info_ptr);
KAVO_API VELT_ERROR kavo_dcsu_cfg_get(const UINT32 device_id, const kavo_dcsu_instance_t dcsu_inst,
                                      kavo_dcsu_cfg_get_t* cfg);
/* The firmware image file for the next start; "revx" in the name becomes
   "reva" or "revb" by the chip's revision. */
KAVO_API VELT_ERROR kavo_fw_filename_set(const char* file_name);
KAVO_API void kavo_fw_filename_get(char** file_name);
/* Name of a result code, e.g. "HTL_ERR_DEVICE_OFFLINE". */
KAVO_API const char* kavo_err_t_string(VELT_ERROR value);

#ifdef __cplusplus
}
#endif

#endif /* KAVO_API_CONFIG_H */
