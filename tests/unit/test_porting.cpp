#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "kavo_fake_bus.h"
#include "kavo_device.h"
#include "kavo_test_log.h"
#include "velt_shared_log.h"
#include "velt_sys.h"

/* Allocation failure is one of the halting paths under test; the sanitizers
   must hand back null instead of reporting it. */
// clang-format off
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }
extern "C" const char* __tsan_default_options() { return "allocator_may_return_null=1"; }
// clang-format on

namespace
{

class Porting : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        kavo_test::install_capture(kavo_test::fake_bus::callouts());
        handle = velt_sys_handle_create();
        velt_sys_init(handle, 3);
    }
    void TearDown() override { velt_sys_handle_destroy(handle); }
    kavo_test::fake_bus bus;
    velt_sys_handle_t handle = nullptr;
};

TEST_F(Porting, PollComparesMaskedValueByEachComparisonType)
{
    struct Row {
        VELT_POLL_COMPARISON_TYPE comparison;
        UINT32 reg, mask, expected;
        bool met;
    } rows[] = {
        // clang-format off
        {VELT_POLL_EQUAL, 0xF5, 0x0F, 5, true},                {VELT_POLL_EQUAL, 0xF5, 0xFF, 5, false},
        {VELT_POLL_NOT_EQUAL, 0x15, 0x0F, 4, true},            {VELT_POLL_NOT_EQUAL, 0x15, 0x0F, 5, false},
        {VELT_POLL_GREATER, 0x80000000, ~0u, 1, true},         {VELT_POLL_GREATER, 5, ~0u, 5, false},
        {VELT_POLL_LESS, 4, ~0u, 5, true},                     {VELT_POLL_LESS, 0x80000000, ~0u, 1, false},
        {VELT_POLL_LESS, 5, ~0u, 5, false},
        {VELT_POLL_GREATER_OR_EQUAL, 5, ~0u, 5, true},         {VELT_POLL_GREATER_OR_EQUAL, 4, ~0u, 5, false},
        {VELT_POLL_LESS_OR_EQUAL, 5, ~0u, 5, true},            {VELT_POLL_LESS_OR_EQUAL, 6, ~0u, 5, false},
        {VELT_POLL_EQUAL_NO_LOG, 0xF5, 0x0F, 5, true},         {VELT_POLL_EQUAL_NO_LOG, 0xF5, 0xFF, 5, false},
        // clang-format on
    };
    UINT64 last_read_us = 0;
    bus.on_read = [&](UINT32) { last_read_us = tv_to_microseconds(velt_sys_time_get()); };
    for (const Row& row : rows) {
        bus.regs[0x40] = row.reg;
        bus.reads.clear();
        const UINT64 start = tv_to_microseconds(velt_sys_time_get());
        const VELT_ERROR rc = velt_sys_poll(handle, 0x40, row.mask, row.expected, row.comparison, 2000);
        SCOPED_TRACE(testing::Message() << row.comparison << " reg=" << row.reg);
        if (row.met) {
            EXPECT_EQ(rc, (VELT_ERROR)VELT_SUCCESS);
            EXPECT_EQ(bus.reads[0x40], 1u);
        } else {
            EXPECT_EQ(rc, (VELT_ERROR)VELT_SHARED_ERR_CODE_POLL_TIMEOUT);
            EXPECT_GE(bus.reads[0x40], 2u);
            EXPECT_GT(last_read_us - start, 2000u); // the last read came after the time-out
        }
    }
    EXPECT_EQ(kavo_test::take(), ""); // a poll logs nothing
}

TEST_F(Porting, RegisterAccessAndItsFailureMessages)
{
    bus.regs[0x10] = 0xF0F0;
    velt_sys_reg_read_modify_write(handle, 0x10, 0xFF, 0x1234);
    EXPECT_EQ(bus.regs[0x10], 0xF034u);
    EXPECT_EQ(kavo_test::take(), "");

    // Every callout fails with its own status, which the message carries.
    static qspi_callout_api_st failing = {
        [](void*, UINT32, UINT32, UINT32, UINT32*) -> UINT32 { return 0x2a; },
        [](void*, UINT32, UINT32, UINT32, UINT32) -> UINT32 { return 0x2a; },
        [](void*, UINT32, UINT32, UINT32, UINT32, UINT32*) -> UINT32 { return 0x2a; },
        [](void*, UINT32, UINT32, UINT32, UINT32, UINT32*) -> UINT32 { return 0x2a; }};
    kavo_test::install_capture(&failing);
    EXPECT_EQ(velt_sys_reg_read(handle, 0x10), 0u); // nothing written by the callout
    velt_sys_reg_write(handle, 0x10, 1);
    velt_sys_burst_read(handle, 0x10, 1, nullptr);
    velt_sys_burst_write(handle, 0x10, 1, nullptr);
    const std::string out = kavo_test::take();
    for (const char* op : {"reg_read", "reg_write", "burst_read", "burst_write"}) {
        const std::string line = std::string(" velt_sys_") + op + " FAILED with error code = 2a\n for device_id 3";
        EXPECT_NE(out.find(line), std::string::npos) << out;
    }
    EXPECT_EQ(out.rfind("3:0x2a:velt_sys.cpp:", 0), 0u) << out;
}

TEST(PortingHelpers, CountTrailingZeros)
{
    const std::pair<UINT16, UINT8> rows[] = {{0, 16}, {1, 0},       {0xFFFF, 0}, {0x0F0F, 0},
                                             {2, 1},  {0x8000, 15}, {0x0100, 8}};
    for (const auto& [value, zeros] : rows)
        EXPECT_EQ(velt_sys_count_trailing_zeros(value), zeros) << value;
}

TEST(PortingHelpers, ReplaceString)
{
    struct Row {
        const char* buffer;
        UINT32 room;
        const char* search;
        const char* replacement;
        VELT_ERROR rc;
        const char* result;
    } rows[] = {
        {"a-b-c", 64, "-", "::", VELT_SUCCESS, "a::b-c"}, // the first occurrence only
        {"abc", 64, "x", "y", VELT_ERR_SEARCH_STRING_NOT_FOUND_IN_BUFFER, "abc"},
        {"abcdef", 10, "cd", "XYZWV", VELT_SUCCESS, "abXYZWVef"}, // 10 + 2 - 6 = 6 >= 5
        {"abcdef", 10, "cd", "XYZWVU7", VELT_ERR_REPLACEMENT_STRING_TOO_LONG, "abcdef"},
        {"abcdef", 1, "c", "XYZ", VELT_SUCCESS, "abXYZdef"}, // 1 + (1 - 6) wraps to a huge room
        {"abc", 64, "abc", "", VELT_SUCCESS, ""},
    };
    for (const Row& row : rows) {
        char buffer[64];
        std::snprintf(buffer, sizeof(buffer), "%s", row.buffer);
        EXPECT_EQ(velt_sys_replace_string(buffer, row.room, row.search, row.replacement), row.rc) << row.buffer;
        EXPECT_STREQ(buffer, row.result);
    }
}

TEST(PortingHelpers, FreeNullsThePointerAndReportsNull)
{
    kavo_test::install_capture();
    void* p = velt_customer_os_calloc(16);
    EXPECT_EQ(static_cast<unsigned char*>(p)[15], 0);
    velt_customer_os_free_function(&p);
    EXPECT_EQ(p, nullptr);
    EXPECT_EQ(kavo_test::take(), "");
    velt_customer_os_free_function(&p);
    velt_customer_os_free_function(nullptr);
    const std::string out = kavo_test::take();
    const std::string line = "-1:0x1f07:velt_customer_os.cpp:" + out.substr(31, 3) +
                             "velt_customer_os_free_function() NULL passed to free()\n";
    EXPECT_EQ(out, line + line);
}

TEST(PortingHelpers, RecursiveDeviceLock)
{
    velt_sys_atomic_t lock = velt_sys_atomic_create();
    velt_sys_atomic_start(lock);
    velt_sys_atomic_start(lock); // the same thread takes it again
    int shared = 0;
    std::thread other([&] {
        velt_sys_atomic_start(lock);
        shared = 2;
        velt_sys_atomic_end(lock);
    });
    shared = 1;
    velt_sys_atomic_end(lock);
    velt_sys_atomic_end(lock);
    other.join();
    EXPECT_EQ(shared, 2);
    velt_sys_atomic_delete(&lock);
    EXPECT_EQ(lock, nullptr);
}

TEST(PortingHelpers, FilesReadAtOffsetsAndReportFailures)
{
    const std::string path = testing::TempDir() + "porting_file.bin";
    FILE* out = velt_sys_output_file_open(path.c_str());
    UINT32 length = 10, offset = 7;
    EXPECT_EQ(velt_sys_file_write(out, "0123456789", &length), 0u);
    EXPECT_EQ(velt_sys_file_close(out), 0u);
    FILE* in = velt_sys_file_open(path.c_str());
    char buffer[16] = {};
    length = 8;
    EXPECT_EQ(velt_sys_file_read(in, buffer, &offset, &length), 0u);
    EXPECT_EQ(length, 3u); // the count actually read
    EXPECT_STREQ(buffer, "789");
    velt_sys_file_close(in);
    std::remove(path.c_str());
    EXPECT_EQ(velt_sys_file_open(path.c_str()), nullptr);
    EXPECT_EQ(velt_sys_output_file_open("/nonexistent-dir/x"), nullptr);
    FILE* pipe_in = popen("true", "r");
    EXPECT_EQ(velt_sys_file_read(pipe_in, buffer, &offset, &length), 1u); // a pipe cannot seek
    pclose(pipe_in);
}

FILE* sdk_log_file = nullptr;
std::string log_init_call;
void* sdk_log_init(UINT32 a, UINT32 b, const char* name)
{
    log_init_call = std::to_string(a) + "," + std::to_string(b) + "," + name;
    return &sdk_log_file;
}

TEST_F(Porting, CalloutsGetZeroForTheirTwoReservedArguments)
{
    static std::vector<std::string> calls;
    calls.clear();
    static qspi_callout_api_st recording = {
        [](void* ctx, UINT32 bus, UINT32 id, UINT32, UINT32* v) -> UINT32 {
            calls.push_back("read " + std::to_string(ctx != nullptr) + std::to_string(bus) + std::to_string(id));
            return *v = 0, 0u;
        },
        [](void* ctx, UINT32 bus, UINT32 id, UINT32, UINT32) -> UINT32 {
            calls.push_back("write " + std::to_string(ctx != nullptr) + std::to_string(bus) + std::to_string(id));
            return 0u;
        },
        [](void* ctx, UINT32 bus, UINT32 id, UINT32, UINT32, UINT32*) -> UINT32 {
            calls.push_back("bread " + std::to_string(ctx != nullptr) + std::to_string(bus) + std::to_string(id));
            return 0u;
        },
        [](void* ctx, UINT32 bus, UINT32 id, UINT32, UINT32, UINT32*) -> UINT32 {
            calls.push_back("bwrite " + std::to_string(ctx != nullptr) + std::to_string(bus) + std::to_string(id));
            return 0u;
        }};
    kavo_test::install_capture(&recording);
    UINT32 word = 0;
    velt_sys_reg_read(handle, 0x10);
    velt_sys_reg_write(handle, 0x10, 1);
    velt_sys_burst_read(handle, 0x10, 1, &word);
    velt_sys_burst_write(handle, 0x10, 1, &word);
    // A null context, bus 0, and the handle's device id 3.
    EXPECT_EQ(calls, (std::vector<std::string>{"read 003", "write 003", "bread 003", "bwrite 003"}));
}

TEST(PortingSdk, InitTakesTheLogFileFromTheContext)
{
    sdk_log_file = tmpfile();
    tavo_callout_api_st table{nullptr, nullptr, sdk_log_init, nullptr};
    EXPECT_EQ(velt_sys_sdk_init(&table), (VELT_ERROR)VELT_SUCCESS);
    EXPECT_EQ(table.log_ctx, &sdk_log_file);
    EXPECT_EQ(velt_global_log_file_ptr, sdk_log_file);
    EXPECT_EQ(log_init_call, "0,2,tavo");
    kavo_test::install_capture();
    std::fclose(sdk_log_file);
    velt_global_log_file_ptr = stdout;
}

/* Shows what was printed before the halt on stderr, where death tests look. */
void show_and_abort(UINT32, const char*, int)
{
    std::fputs(kavo_test::captured().c_str(), stderr);
    std::abort();
}

TEST(PortingDeath, EveryHaltingPath)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    char text[8] = "x";
    const std::pair<const char*, std::function<void()>> rows[] = {
        {"0x1f0b:velt_customer_os.cpp:[0-9]+:velt_customer_os_calloc\\(\\) +ASSERT: ",
         [] { velt_customer_os_calloc(SIZE_MAX); }},
        {"0x1f0b:.*ASSERT: ", [] { velt_customer_os_malloc(SIZE_MAX); }},
        {"0x1f0b:.*ASSERT: ", [] { velt_sys_calloc(SIZE_MAX); }},
        {"0x1f10:.*ASSERT: ", [&] { velt_customer_os_memcmp(nullptr, text, 1); }},
        {"0x1f10:.*ASSERT: ", [&] { velt_customer_os_memcmp(text, nullptr, 1); }},
        {"0x1f11:.*ASSERT: ", [] { velt_customer_os_strlen(nullptr); }},
        {"0x1f13:.*ASSERT: ", [&] { velt_customer_os_strcpy(nullptr, text); }},
        {"0x1f13:.*ASSERT: ", [&] { velt_customer_os_strcpy(text, nullptr); }},
        {"0x1f12:.*ASSERT: ", [&] { velt_customer_os_strcat(nullptr, text); }},
        {"0x1f12:.*ASSERT: ", [&] { velt_customer_os_strcat(text, nullptr); }},
        {"0x1f0e:.*ASSERT: ", [] { velt_log_backtrace_get(nullptr); }},
        {"^ VELT_ASSERT \\(here.cpp:7\\) \\(0x1f18\\)\n$",
         [] {
             velt_log_verbosity_level_set(0, VELT_LOG_SEV_LOW);
             velt_customer_os_assert(VELT_SHARED_LOG_TRACE, "here.cpp", 7);
         }},
        {"^$", [] { velt_customer_os_assert(VELT_SHARED_LOG_TRACE, "here.cpp", 7); }}, // silent at level 5
        {"^ VELT_ASSERT \\(there.cpp:9\\) \\(0x1f0b\\)\n$",
         [] {
             velt_log_verbosity_level_set(0, VELT_LOG_SEV_LOW);
             velt_sys_assert_function(VELT_SHARED_ERR_MALLOC_FAILED, "there.cpp", 9);
         }},
        // The device lock and the device object come from the zeroing allocation.
        {"0x1f0b:velt_customer_os.cpp:[0-9]+:velt_customer_os_calloc\\(\\) +ASSERT: ",
         [] {
             velt_customer_os_allocation_failure_set(1);
             velt_sys_atomic_create();
         }},
        {"0x1f0b:velt_customer_os.cpp:[0-9]+:velt_customer_os_calloc\\(\\) +ASSERT: ",
         [] {
             velt_customer_os_allocation_failure_set(1);
             kavo_device* device = nullptr;
             kavo_device_create(3, &device);
         }},
    };
    for (const auto& [pattern, halt] : rows) {
        EXPECT_DEATH(
            {
                kavo_test::install_capture();
                kavo_assert_handler_set(show_and_abort);
                velt_log_verbosity_level_set(0, VELT_LOG_SEV_MEDIUM);
                halt();
            },
            pattern);
    }
}

} // namespace
