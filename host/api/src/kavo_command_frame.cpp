#include "kavo_command_frame.h"

#include <ctime>

void kavo_command_frame::trace_begin(const char* name)
{
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    char when[32];
    ctime_r(&now.tv_sec, when);
    VELT_PRINTF(velt_global_log_file_ptr, "%.19s.%03ld: ", when, (long)(now.tv_nsec / 1000000));
    VELT_PRINTF(velt_global_log_file_ptr, "t%d ", (int)velt_sys_thread_id_get());
    VELT_PRINTF(velt_global_log_file_ptr, "Function=%s(0x%x", name, _device_id);
}
