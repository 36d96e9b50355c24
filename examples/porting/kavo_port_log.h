/* The print callouts both example callout tables use: the library's lines go
   to the file it names, standard error when it names none. */
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

#endif /* KAVO_PORT_LOG_H */
