/* What both example programs share around the library: the print callouts
   of their callout tables (the library's lines go to the file it names,
   standard error when it names none) and the run of chip 0. */
#ifndef KAVO_PORT_LOG_H
#define KAVO_PORT_LOG_H

#include <stdarg.h>
#include <stdio.h>

#include "kavo/kavo_api.h"

static int kavo_port_log_print(void* ctx, FILE* file, const char* format, ...)
{
    (void)ctx;
    va_list args;
    va_start(args, format);
    const int n = vfprintf(file ? file : stderr, format, args);
    va_end(args);
    return n;
}

static FILE* kavo_port_log_file[1];
static void* kavo_port_log_init(UINT32 a, UINT32 b, const char* name)
{
    (void)a;
    (void)b;
    (void)name;
    kavo_port_log_file[0] = stderr;
    return kavo_port_log_file;
}

/* Installs the callout table, brings chip 0 up (from `image` when not null),
   prints its status and the result, and releases it; the result code. */
static VELT_ERROR kavo_port_show_status(tavo_callout_api_st* callouts, const char* image)
{
    kavo_sdk_init(callouts);
    if (image != NULL) kavo_fw_filename_set(image);
    VELT_ERROR rc = kavo_device_init(0, KAVO_INIT_AUTO);
    kavo_status_info_t status;
    kavo_status_info_t_init(&status);
    if (rc == VELT_SUCCESS) rc = kavo_device_status_get(0, &status);
    if (rc == VELT_SUCCESS) kavo_status_info_t_print(&status, stdout);
    printf("%s\n", kavo_err_t_string(rc));
    kavo_device_uninit(0, 0);
    return rc;
}

#endif /* KAVO_PORT_LOG_H */
