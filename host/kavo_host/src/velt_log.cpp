#include "velt_log.h"

#include "velt_customer_os.h"

extern "C" {
velt_log_sev_t global_verbosity = VELT_LOG_SEV_EVENT;
bool velt_global_function_logging_enabled = true;
bool velt_global_trace_status_logging_enabled = false;
FILE* velt_global_log_file_ptr = stdout;
}

void velt_log_verbosity_level_set(UINT32, velt_log_sev_t level) { global_verbosity = level; }

velt_log_sev_t velt_log_verbosity_level_get(UINT32) { return global_verbosity; }

void velt_function_logging_set(UINT32, bool enable) { velt_global_function_logging_enabled = enable; }
