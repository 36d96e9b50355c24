/* The options that libkavo itself registers, in registration order. Each is
   set by "name=value" arguments or by the environment variable
   "VELT_<name>" when the library is loaded. */
#ifndef VELT_LIBRARY_OPTIONS_H
#define VELT_LIBRARY_OPTIONS_H

#include "velt_cmd_line_options.h"

extern VerbosityOption velt_option_verbosity;   // "verbosity": the process-wide log level
extern BoolOption velt_option_function_stats;   // "function_stats": measure API call times
extern BoolOption velt_option_notimeout;        // "notimeout": no host message time-out
extern UintOption velt_option_warm_restart;     // "warm_restart": perform a warm restart
extern BoolOption velt_option_trace_status_get; // "trace_status_get": trace the status getters
extern BoolOption velt_option_trace_reg_read;   // "trace_reg_read": trace register reads
extern StringOption velt_option_log_dir;        // "log_dir": directory of 'dot' files

#endif /* VELT_LIBRARY_OPTIONS_H */
