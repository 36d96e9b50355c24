/* Porting layer: the only place where libkavo touches the platform. The
   application's callouts reach the chip and the log sink; everything else is a
   thin checked service over the operating system. */
#ifndef VELT_CUSTOMER_OS_H
#define VELT_CUSTOMER_OS_H

#include <cstdio>

#include "kavo/kavo_api.h"

extern "C" {
/* The application's callout table (installed by velt_sys_sdk_init) and its
   register callouts, copied out of the table's first field. */
extern tavo_callout_api_st* callout_ctx;
extern qspi_callout_api_st* vendor_qspi_callout_ctx;
/* Where every log line goes; standard output until the application's log
   context names another file. */
extern FILE* velt_global_log_file_ptr;
}

/* Prints through the application's print callout. Before a callout table is
   installed the text goes straight to the file, so tools can print early. */
#define VELT_PRINTF(file, ...)                                                                   \
    ((callout_ctx != nullptr && callout_ctx->log_api != nullptr)                                 \
         ? (void)callout_ctx->log_api(callout_ctx->log_ctx, (file), __VA_ARGS__)                \
         : (void)std::fprintf((file) != nullptr ? (file) : stdout, __VA_ARGS__))

void* velt_customer_os_malloc(size_t size);
/* Makes the count-th allocation from now (malloc or calloc) fail, as an
   exhausted heap would; 0 turns it off. For tests of the failure paths. */
void velt_customer_os_allocation_failure_set(UINT32 count);
void* velt_customer_os_calloc(size_t size);
/* Frees *ptr and sets it to null; a null pointer-to-pointer or pointer is reported, not fatal. */
void velt_customer_os_free_function(void** ptr);
template <typename T>
inline void velt_customer_os_free(T** ptr)
{
    void* p = *ptr;
    velt_customer_os_free_function(&p);
    *ptr = static_cast<T*>(p);
}
int velt_customer_os_memcmp(const void* a, const void* b, size_t size);
size_t velt_customer_os_strlen(const char* s);
char* velt_customer_os_strcpy(char* dst, const char* src);
char* velt_customer_os_strcat(char* dst, const char* src);

/* Halts: programming errors end here. Prints " VELT_ASSERT (%s:%d) (0x%x)\n"
   above verbosity 5, runs the application's assertion handler if one is
   installed (kavo_assert_handler_set), and otherwise never returns. */
[[noreturn]] void velt_customer_os_assert(UINT32 code, const char* file, int line);

#endif /* VELT_CUSTOMER_OS_H */
