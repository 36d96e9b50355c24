#include "kavo_test_log.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "velt_sys.h"

namespace kavo_test {
namespace {
std::mutex capture_mutex;
FILE* capture_file = stdout;

int capture_log(void*, FILE*, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    char small[512];
    va_list copy;
    va_copy(copy, args);
    int n = std::vsnprintf(small, sizeof(small), format, copy);
    va_end(copy);
    std::lock_guard<std::mutex> lock(capture_mutex);
    if (n >= 0 && (size_t)n < sizeof(small)) {
        captured().append(small, (size_t)n);
    } else if (n > 0) {
        std::string big((size_t)n + 1, '\0');
        std::vsnprintf(big.data(), big.size(), format, args);
        big.resize((size_t)n);
        captured() += big;
    }
    va_end(args);
    return n;
}

void* capture_init(UINT32, UINT32, const char*) { return &capture_file; }

tavo_callout_api_st table;
}  // namespace

std::string& captured()
{
    static std::string text;
    return text;
}

std::string take()
{
    std::lock_guard<std::mutex> lock(capture_mutex);
    std::string out;
    out.swap(captured());
    return out;
}

void abort_on_assert(UINT32 code, const char*, int)
{
    // What was printed and the code reach the death test's stderr, so that it
    // matches the " ASSERT: " line and the code, not just any crash.
    std::fprintf(stderr, "%s\nhalted with code 0x%x\n", captured().c_str(), code);
    std::abort();
}

std::string halts_with(UINT32 code, const std::string& text)
{
    char tail[48];
    std::snprintf(tail, sizeof(tail), "halted with code 0x%x\n", code);
    return text + ".*" + tail;
}

void install_capture(qspi_callout_api_st* registers)
{
    table.qspi_callout_api_ctx = registers;
    table.log_api = capture_log;
    table.log_init = capture_init;
    table.log_ctx = nullptr;
    velt_sys_sdk_init(&table);
    kavo_assert_handler_set(abort_on_assert);
    take();
}

}  // namespace kavo_test
