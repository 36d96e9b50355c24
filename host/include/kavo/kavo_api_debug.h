/* Debug commands: echo through the firmware, the firmware's debug shell, its
   logs, the log level, direct register access and call tracing. */
#ifndef KAVO_API_DEBUG_H
#define KAVO_API_DEBUG_H

#include "kavo/gen/kavo_all_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Echoes data_size bytes (a multiple of 4, at most 16344) through the firmware into resp_data_ptr. */
KAVO_API VELT_ERROR kavo_debug_ping(const UINT32 device_id, const UINT32 data_size, const UINT32* data_ptr,
                                    UINT32* resp_data_ptr);
/* Runs a text command in the firmware's debug shell. With resp_data_ptr the
   reply text lands there (max_resp_data_size bytes); without, it is printed. */
KAVO_API VELT_ERROR kavo_debug_cmd(const UINT32 device_id, const char* cmd, UINT32 max_resp_data_size,
                                   char* resp_data_ptr);
/* Prints the firmware's console, statistics or debug logs to the log file. */
KAVO_API VELT_ERROR kavo_fw_log_dump(const UINT32 device_id, const kavo_fw_log_dump_t info);
/* Log level 0..7: the library's own with device id 0xFFFFFFFF, else that firmware's. */
KAVO_API VELT_ERROR kavo_log_verbosity_level_set(const UINT32 device_id, UINT32 verbosity_level);
KAVO_API VELT_ERROR kavo_reg_read(const UINT32 device_id, const UINT32 address, UINT32* value_ptr);
KAVO_API VELT_ERROR kavo_reg_write(const UINT32 device_id, const UINT32 address, const UINT32 value);
/* Turns the per-command call trace on or off (on at load), and that of the
   status-polling commands (off at load). */
KAVO_API void kavo_function_logging_set(BOOL8 enable);
KAVO_API void kavo_status_logging_set(BOOL8 enable);

#ifdef __cplusplus
}
#endif

#endif /* KAVO_API_DEBUG_H */
