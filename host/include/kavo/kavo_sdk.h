/* Library-wide services besides the commands: the assertion handler and the
   options. */
#ifndef KAVO_SDK_H
#define KAVO_SDK_H

#include "kavo/kavo_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Programming errors (null pointers to the porting helpers, allocation
   failure, oversize payloads, misuse of the coalescing buffer) halt the
   calling thread for good. An application may install a handler that is run
   first, for example to abort the process or to log and reboot; when the
   handler returns, the thread halts as before. Null restores the default. */
typedef void (*kavo_assert_handler_t)(UINT32 code, const char* file, int line);
/* Extension: installs the handler run at every halting assertion (null: halt at once). */
KAVO_API void kavo_assert_handler_set(kavo_assert_handler_t handler);

/* Extension: bus failures an application can see. A register or burst
   callout that returns a non-zero status is printed as before and counted
   here, per device id (0..31), from the start of the process or the last
   clear; the count covers every access the library makes for that device
   id, device initialisation included. KAVO_ERR_INVALID_DEVICE_ID for an id of
   32 or more, VELT_ERR_INVALID_ARGS for a null count. */
KAVO_API VELT_ERROR kavo_bus_error_count_get(UINT32 device_id, UINT32* count);
KAVO_API VELT_ERROR kavo_bus_error_count_clear(UINT32 device_id);

/* Options. The library's behaviour for bring-up and debugging (verbosity,
   time-outs, tracing, statistics) is switched by named options: "verbosity",
   "function_stats", "notimeout", "warm_restart", "trace_status_get",
   "trace_reg_read", "log_dir". Each is also read from the environment
   variable "VELT_<name>" when the library is loaded. Options are process-wide
   and read without locks: set them before the library is used. */

/* Stores one option's value from its text, as "name=value" would. Names are
   case-sensitive. VELT_ERR_INVALID_ARGS for an unknown name or a value that
   does not parse (the option keeps its value); never ends the process and
   prints no usage text. A null value counts as the empty text, which sets a
   boolean option. */
KAVO_API VELT_ERROR kavo_option_set(const char* name, const char* value);

/* Writes the option's current value as text into buffer (NUL-terminated,
   truncated to length). VELT_ERR_INVALID_ARGS for an unknown name or a null
   buffer or zero length. */
KAVO_API VELT_ERROR kavo_option_get(const char* name, char* buffer, UINT32 length);

/* 1 when an option of exactly this name is registered, else 0. */
KAVO_API BOOL8 kavo_option_is_known(const char* name);

/* Parses argv[1..argc-1] as options ("name=value", "-name=value",
   "--name=value"; a name alone sets a boolean). Any argument that is not a
   known option or whose value does not parse prints the error and the usage
   text and ends the process with exit status -1. Also shows the command line
   as the terminal's window title. */
KAVO_API void kavo_options_parse_args(int argc, const char** argv);

/* As kavo_options_parse_args for the blank-separated words of text (double
   quotes group words); no window title. */
KAVO_API void kavo_options_parse_string(const char* text);

/* Prints one line per option (name and help text) to standard output; the
   process goes on. */
KAVO_API void kavo_options_usage_print(void);

/* Every option back to its default. */
KAVO_API void kavo_options_reset(void);

/* Extension: the library's version as the firmware words carry it
   (0x300002 for 3.0.2) and as text ("3.0.2"), for applications that check
   at run time the library they were linked against. */
KAVO_API UINT32 kavo_version(void);
KAVO_API const char* kavo_version_string(void);

/* Name of a result code, e.g. "HTL_ERR_DEVICE_OFFLINE". */
KAVO_API const char* kavo_err_t_string(VELT_ERROR value);

#ifdef __cplusplus
}
#endif

#endif /* KAVO_SDK_H */
