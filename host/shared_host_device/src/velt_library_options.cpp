#include "velt_library_options.h"

#include "velt_log.h"

/* One translation unit, so that the options register in this order. */

static void trace_status_logging_set(bool enable)
{
    velt_global_trace_status_logging_enabled = enable;
}

VerbosityOption velt_option_verbosity("verbosity",
                                      "set SW APPLIB verbosity level "
                                      "(2=Highest,3=High,4=Event,5=Medium,6=Low,7=Lowest)",
                                      VELT_LOG_SEV_EVENT);
BoolOption velt_option_function_stats("function_stats", "measure api call times", false);
BoolOption velt_option_notimeout("notimeout", "notimeout=TRUE disable host message timeout, else 10 sec default value",
                                 false);
UintOption velt_option_warm_restart("warm_restart", "Perform warm_restart", 0);
BoolOption velt_option_trace_status_get("trace_status_get", "skip/trace status get APIs, default=0", false,
                                        trace_status_logging_set);
BoolOption velt_option_trace_reg_read("trace_reg_read", "skip/trace reg read APIs, default=0", false);
StringOption velt_option_log_dir("log_dir", "log directory for 'dot' files.", "");
