/* Process-wide log level and the call-trace switches. */
#ifndef VELT_LOG_H
#define VELT_LOG_H

#include "kavo/kavo_api.h"

extern "C" {
/* Highest severity still printed (velt_log_sev_t); VELT_LOG_SEV_EVENT at load. */
extern velt_log_sev_t global_verbosity;
/* When set, every exported command prints its call-trace line. */
extern bool velt_global_function_logging_enabled;
/* When set, the status-polling commands trace and count too. */
extern bool velt_global_trace_status_logging_enabled;
}

/* The device id is accepted for per-device levels to come; the level is process-wide. */
void velt_log_verbosity_level_set(UINT32 device_id, velt_log_sev_t level);
velt_log_sev_t velt_log_verbosity_level_get(UINT32 device_id);
void velt_function_logging_set(UINT32 device_id, bool enable);

#endif /* VELT_LOG_H */
