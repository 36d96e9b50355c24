/* The log line: a fixed header "%d:0x%x:%s:%d:%s()" padded so that the
   message starts in column 61, then the message, as two print callouts. */
#ifndef VELT_SHARED_LOG_H
#define VELT_SHARED_LOG_H

#include <string>

#include "kavo/kavo_api.h"
#include "velt_customer_os.h"
#include "velt_log.h"

/* Device id of log lines that belong to no device. */
constexpr int VELT_LOG_NO_DEVID = -1;

/* Part of a path after its last "/" (or, failing that, its last "\\"). */
const char* velt_log_extract_file_name(const char* path);
/* Prints the header of one log line through the print callout. */
void velt_log_header(int device_id, UINT32 code, const char* file, int line, const char* function);
/* Name of a result code, for " VELT_RUNTIME_ERROR( %s )\n" lines. */
inline const char* velt_err_name(VELT_ERROR code) { return kavo_err_t_print(static_cast<kavo_err_t>(code)); }

/* A line of the given severity; a suppressed line evaluates none of its arguments. */
#define VELT_LOG(dev, code, sev, ...)                                                  \
    do {                                                                               \
        if (global_verbosity >= (sev)) {                                               \
            velt_log_header((int)(dev), (UINT32)(code), __FILE__, __LINE__, __func__); \
            VELT_PRINTF(velt_global_log_file_ptr, __VA_ARGS__);                        \
        }                                                                              \
    } while (0)

/* A line written whatever the verbosity. */
#define VELT_LOG_ALWAYS(dev, code, ...)                                            \
    do {                                                                           \
        velt_log_header((int)(dev), (UINT32)(code), __FILE__, __LINE__, __func__); \
        VELT_PRINTF(velt_global_log_file_ptr, __VA_ARGS__);                        \
    } while (0)

/* " VELT_RUNTIME_ERROR( <name> )": a failure logged where it is found. */
#define VELT_RUNTIME_ERROR(dev, code) \
    VELT_LOG_ALWAYS(dev, code, " VELT_RUNTIME_ERROR( %s )\n", velt_err_name((VELT_ERROR)(code)))

/* Halts with the header, " ASSERT: " and the porting layer's assertion. */
#define VELT_ASSERT_FAIL(dev, code)                                                    \
    do {                                                                               \
        velt_log_header((int)(dev), (UINT32)(code), __FILE__, __LINE__, __func__);     \
        VELT_PRINTF(velt_global_log_file_ptr, " ASSERT: ");                            \
        velt_customer_os_assert((UINT32)(code), velt_log_extract_file_name(__FILE__), __LINE__); \
    } while (0)

#define VELT_ASSERT_CODE(cond, dev, code)                 \
    do {                                                  \
        if (!(cond)) VELT_ASSERT_FAIL(dev, code);         \
    } while (0)

/* Register formatters of the firmware log decoder. Each returns its own static
   buffer, valid until the formatter's next call; they are not thread-safe. */
const char* display_register(UINT32 reg);
const char* display_block_name(UINT32 block);
const char* display_register_read(UINT32 addr, UINT32 mask, UINT32 value);
const char* display_register_write(UINT32 addr, UINT32 mask, UINT32 value);

/* Stack capture is switched off in this build: a backtrace has no frames. */
struct velt_log_backtrace_t {
    UINT32 num_frames;
    char function_names[30][100];
};
static_assert(sizeof(velt_log_backtrace_t) == 3004, "velt_log_backtrace_t is 3004 bytes");
void velt_log_backtrace_get(velt_log_backtrace_t* bt);
void velt_log_backtrace_print();
std::string velt_log_backtrace_string_get();
void velt_log_lookup_symbol(void* addr, char* name, int size);

#endif /* VELT_SHARED_LOG_H */
