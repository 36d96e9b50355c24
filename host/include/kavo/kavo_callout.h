/* The callout table through which the application gives libkavo its register
   transport and its logging sink. The table is installed once by kavo_sdk_init
   and kept by pointer for the life of the process. */
#ifndef KAVO_CALLOUT_H
#define KAVO_CALLOUT_H

#include "kavo/kavo_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Register callouts. Each returns a bus status, 0 meaning success. The two
   leading arguments are reserved and always passed as 0. */
typedef UINT32 (*kavo_qspi_read_fn)(void* ctx, UINT32 bus, UINT32 device_id, UINT32 address, UINT32* value);
typedef UINT32 (*kavo_qspi_write_fn)(void* ctx, UINT32 bus, UINT32 device_id, UINT32 address, UINT32 value);
typedef UINT32 (*kavo_qspi_bread_fn)(void* ctx, UINT32 bus, UINT32 device_id, UINT32 length_words,
                                     UINT32 address, UINT32* buffer);
typedef UINT32 (*kavo_qspi_bwrite_fn)(void* ctx, UINT32 bus, UINT32 device_id, UINT32 length_words,
                                      UINT32 address, UINT32* buffer);

typedef struct qspi_callout_api_st {
    kavo_qspi_read_fn qspi_read;     /* read one 32-bit register */
    kavo_qspi_write_fn qspi_write;   /* write one 32-bit register */
    kavo_qspi_bread_fn qspi_bread;   /* burst read of consecutive words */
    kavo_qspi_bwrite_fn qspi_bwrite; /* burst write of consecutive words */
} qspi_callout_api_st;

/* printf-like print of every line the library writes. */
typedef int (*kavo_log_api_fn)(void* log_ctx, FILE* file, const char* format, ...);
/* Called once by kavo_sdk_init as (0, 2, "tavo"); returns the log context,
   whose first word is taken as the file all library output goes to. */
typedef void* (*kavo_log_init_fn)(UINT32, UINT32, const char*);

typedef struct tavo_callout_api_st {
    qspi_callout_api_st* qspi_callout_api_ctx;
    kavo_log_api_fn log_api;
    kavo_log_init_fn log_init;
    void* log_ctx; /* filled in by kavo_sdk_init with what log_init returned */
} tavo_callout_api_st;

#ifdef __cplusplus
}
#endif

#endif /* KAVO_CALLOUT_H */
