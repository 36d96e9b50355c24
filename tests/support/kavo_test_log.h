/* A callout table whose print callout appends to a string, so tests assert
   the library's texts exactly, and an assertion handler that aborts, so
   death tests observe the halting paths. */
#ifndef KAVO_TEST_LOG_H
#define KAVO_TEST_LOG_H

#include <gtest/gtest.h>

#include <cstdio>
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
/* The death-test pattern of a halt with `code` after `text` (a regular
   expression, " ASSERT: " by default). */
/* What fn wrote to the process's standard output; nothing may have gone
   through the print callout meanwhile. */
template <typename F>
std::string printed(F&& fn)
{
    take();
    testing::internal::CaptureStdout();
    fn();
    std::fflush(stdout);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(take(), "") << "printed through the callout";
    return out;
}
std::string halts_with(UINT32 code, const std::string& text = " ASSERT: ");

}  // namespace kavo_test

#endif
