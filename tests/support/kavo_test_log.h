/* A callout table whose print callout appends to a string, so tests assert
   the library's texts exactly, and an assertion handler that aborts, so
   death tests observe the halting paths. */
#ifndef KAVO_TEST_LOG_H
#define KAVO_TEST_LOG_H

#include <string>

#include "kavo/kavo_api.h"

namespace kavo_test {

/* Everything printed through the callout since the last take(). */
std::string& captured();
/* Returns and clears what was captured. */
std::string take();

/* Installs a callout table whose log_api captures (register callouts as given,
   or null) and the aborting assertion handler. */
void install_capture(qspi_callout_api_st* registers = nullptr);
void abort_on_assert(UINT32 code, const char* file, int line);

}  // namespace kavo_test

#endif
