// The firmware log views against hand-built (and hand-corrupted) log-buffer
// blocks in a fake bus.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <regex>
#include <string>
#include <vector>

#include "kavo_fake_bus.h"
#include "kavo_fw_log.h"
#include "kavo_test_log.h"
#include "velt_circular_buffer_writer.h"
#include "velt_log.h"

namespace {

constexpr UINT32 BASE = VELT_DEVICE_LOG_BUFFERS_OCR_ADDR;
constexpr UINT32 STATS_OFF = 32836;
constexpr UINT32 DESC_OFF = 40000;
constexpr UINT32 DESC_SIZE = 40;
constexpr UINT32 ENTRIES_OFF = 50000;
constexpr UINT64 SEC = 181000000;

class FwLog : public ::testing::Test {
protected:
    void SetUp() override
    {
        kavo_test::install_capture(kavo_test::fake_bus::callouts());
        bus.map(BASE, 131140);
        sys = velt_sys_handle_create();
        velt_sys_init(sys, 0);
        handle = velt_handle_t{&sys, 0xF00000};
        log.handle_init(0, &handle);
    }
    void TearDown() override { velt_sys_handle_destroy(sys); }

    void put(UINT32 offset, UINT32 value) { bus.set_word(BASE + offset, value); }
    void stats_header(UINT32 num, UINT32 rec_size = 80, UINT32 cookie = VELT_STATS_COOKIE)
    {
        put(20, cookie);
        put(24, num);
        put(28, rec_size);
        put(32, STATS_OFF);
    }
    void stat(UINT32 i, const char* name, UINT64 num, bool started)
    {
        velt_sys_fw_stats_t s{};
        std::snprintf(s.description, sizeof(s.description), "%s", name);
        s.num = num;
        s.mark_started = started;
        s.duration_sum = 181 * num;
        s.duration_min = s.duration_max = 181;
        s.period_sum = 1810 * num;
        bus.set_bytes(BASE + STATS_OFF + 80 * i, &s, sizeof(s));
    }
    void dbg_header(UINT32 num, UINT32 cookie = VELT_DBG_LOG_COOKIE)
    {
        put(36, cookie);
        put(40, num);
        put(44, DESC_SIZE);
        put(48, DESC_OFF);
    }
    /* Log i has `entries` entries at its own 4 KiB area. */
    void add_log(UINT32 i, const char* name, UINT32 entries)
    {
        char n[20] = {};
        std::snprintf(n, sizeof(n), "%s", name);
        bus.set_bytes(BASE + DESC_OFF + DESC_SIZE * i, n, sizeof(n));
        put(DESC_OFF + DESC_SIZE * i + 20, entries);
        put(DESC_OFF + DESC_SIZE * i + 24, ENTRIES_OFF + 4096 * i);
    }
    void index(UINT32 i, UINT32 write_index, UINT32 wrap_count)
    {
        put(DESC_OFF + DESC_SIZE * i + 28, write_index);
        put(DESC_OFF + DESC_SIZE * i + 32, wrap_count);
    }
    void entry(UINT32 i, UINT32 idx, UINT64 ticks, UINT16 code, UINT32 d0, UINT32 d1 = 0, UINT32 d2 = 0,
               UINT32 d3 = 0, UINT32 d4 = 0)
    {
        dbg_log_app_entry_t e{ticks, 0, code, d0, d1, d2, d3, d4};
        bus.set_bytes(BASE + ENTRIES_OFF + 4096 * i + 32 * idx, &e, sizeof(e));
    }
    /* A sleep entry whose duration names it in the output. */
    void tagged(UINT32 i, UINT32 idx, UINT64 ticks, UINT32 tag) { entry(i, idx, ticks, LUMOHAL_LOG_SLEEP_STARTED, tag); }
    void text(UINT32 i, UINT32 idx, UINT64 ticks, UINT16 code, const char* chars)
    {
        UINT32 d[5] = {};
        std::memcpy(d, chars, std::strlen(chars));
        entry(i, idx, ticks, code, d[0], d[1], d[2], d[3], d[4]);
    }
    void init()
    {
        testing::internal::CaptureStdout();
        log.stats_init();
        stdout_text = testing::internal::GetCapturedStdout();
    }
    std::string show()
    {
        testing::internal::CaptureStdout();
        log.show_debug_log(stdout);
        testing::internal::GetCapturedStdout();
        return kavo_test::take();
    }
    /* The tags of the entries shown, in order. */
    static std::vector<int> tags(const std::string& out)
    {
        std::vector<int> found;
        static const std::regex tag("duration=(\\d+) usec");
        for (std::sregex_iterator it(out.begin(), out.end(), tag), end; it != end; ++it)
            found.push_back(std::stoi((*it)[1]));
        return found;
    }

    kavo_test::fake_bus bus;
    velt_sys_handle_t sys = nullptr;
    cpu_cfg_handle_t handle{};
    kavo_fw_log log;
    std::string stdout_text;
};

TEST_F(FwLog, EntryLineShowsTimeDeviceNameMessageAndAddresses)
{
    dbg_header(1);
    add_log(0, "main", 8);
    entry(0, 0, 3 * SEC + 1000, LUMOHAL_LOG_SLEEP_STARTED, 7, 0, 42, 0x1234, 0x5678);
    entry(0, 1, 4 * SEC, LUMOHAL_LOG_READ_MODIFY_WRITE, 0xF00020, 0xFF, 0x12, 0xAB, 0xCD);
    entry(0, 2, 3725 * SEC, LUMOHAL_LOG_POLL, 0xF00020, 1, 1, 100, 0xCD);
    index(0, 3, 0);
    init();
    testing::internal::CaptureStdout();
    log.show_debug_log(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "no firmware symbols\n");
    EXPECT_EQ(kavo_test::take(),
              "000003 00:00:03.000005000 0 main LUMOHAL_LOG_SLEEP_STARTED SLEEP_STARTED duration=7 usec "
              "pc=00001234 ra=00005678  line=42\n"
              "000004 00:00:04.000000000 0 main LUMOHAL_LOG_READ_MODIFY_WRITE RMW addr=0x00f00020 mask=0x000000ff "
              "value=0x00000012 // write addr=0x00f00020, mask=0x000000ff, value=0x00000012 pc=000000ab ra=000000cd \n"
              "003725 01:02:05.000000000 0 main LUMOHAL_LOG_POLL Poll addr=0x00f00020 mask=0x00000001 "
              "value=0x00000001 timeout=100 usec // read addr=0x00f00020, mask=0x00000001, value=0x00000001  \n");
}

TEST_F(FwLog, LogsWithInterleavedTicksPrintInGlobalOrder)
{
    struct Case {
        UINT32 logs;
        std::vector<std::vector<UINT64>> ticks;  // per log, in ring order
    } cases[] = {
        {2, {{10, 30, 50}, {20, 40}}},
        {3, {{5, 60, 61}, {10, 20, 70}, {1, 30, 40, 80}}},
        {3, {{100}, {}, {50, 150}}},
    };
    for (const Case& c : cases) {
        dbg_header(c.logs);
        std::vector<int> expected;
        for (UINT32 i = 0; i < c.logs; ++i) {
            add_log(i, "L", 16);
            for (UINT32 k = 0; k < c.ticks[i].size(); ++k) {
                tagged(i, k, c.ticks[i][k], (int)c.ticks[i][k]);
                expected.push_back((int)c.ticks[i][k]);
            }
            index(i, (UINT32)c.ticks[i].size(), 0);
        }
        std::sort(expected.begin(), expected.end());
        init();
        EXPECT_EQ(tags(show()), expected);
    }
}

TEST_F(FwLog, LaterCallsShowOnlyNewEntries)
{
    dbg_header(1);
    add_log(0, "A", 8);
    for (UINT32 k = 0; k < 6; ++k) tagged(0, k, 10 + k, k);
    index(0, 2, 0);
    init();
    EXPECT_EQ(tags(show()), (std::vector<int>{0, 1}));
    EXPECT_EQ(show(), "");
    index(0, 5, 0);
    EXPECT_EQ(tags(show()), (std::vector<int>{2, 3, 4}));
}

TEST_F(FwLog, LappedLogReportsItsMissedEntries)
{
    dbg_header(1);
    add_log(0, "A", 8);
    for (UINT32 k = 0; k < 8; ++k) tagged(0, k, 10 + k, k);
    index(0, 2, 0);
    init();
    show();
    // Eleven more entries: the firmware is at index 5 of its next lap.
    for (UINT32 k = 0; k < 8; ++k) tagged(0, k, 100 + ((k + 3) % 8), 100 + ((k + 3) % 8));
    index(0, 5, 1);
    const std::string out = show();
    EXPECT_EQ(out.substr(0, out.find('\n') + 1), "WARNING: missed 3 log entries in A log (buffer has 8 entries)\n");
    EXPECT_EQ(tags(out), (std::vector<int>{100, 101, 102, 103, 104, 105, 106, 107}));
}

TEST_F(FwLog, LappedLogSkipsTheEntriesLikelyToBeOverwrittenWhileReading)
{
    // 100 entries, 1000 ticks apart: the skip is min(rate / 4, entries / 10) = 10.
    dbg_header(1);
    add_log(0, "A", 100);
    for (UINT32 k = 0; k < 100; ++k) tagged(0, k, 1000 * (k >= 5 ? k : k + 100), k);
    index(0, 5, 1);
    init();
    const std::string out = show();
    EXPECT_EQ(out.substr(0, out.find('\n') + 1), "WARNING: missed 5 log entries in A log (buffer has 100 entries)\n");
    const std::vector<int> shown = tags(out);
    ASSERT_EQ(shown.size(), 90u);
    EXPECT_EQ(shown.front(), 15);
    EXPECT_EQ(shown.back(), 4);
}

TEST_F(FwLog, IndexAboveTheEntryCountMarksOnlyThatLog)
{
    dbg_header(2);
    add_log(0, "good", 8);
    add_log(1, "bad", 8);
    tagged(0, 0, 10, 1);
    tagged(0, 1, 30, 2);
    tagged(1, 0, 20, 99);
    index(0, 2, 0);
    index(1, 9, 0);
    init();
    const std::string out = show();
    EXPECT_NE(out.find(" bad firmware index in log file 'bad' (9 of 8) wrap_count=0\n"), std::string::npos);
    EXPECT_EQ(tags(out), (std::vector<int>{1, 2}));
}

TEST_F(FwLog, RestartedFirmwareResetsPositions)
{
    dbg_header(2);
    add_log(0, "A", 8);
    add_log(1, "B", 8);
    for (UINT32 k = 0; k < 5; ++k) tagged(0, k, 10 * k, k);
    index(0, 5, 0);
    index(1, 0, 0);
    init();
    EXPECT_EQ(tags(show()), (std::vector<int>{0, 1, 2, 3, 4}));
    // The firmware started again: fewer entries than the host has seen.
    tagged(0, 0, 1, 50);
    tagged(0, 1, 2, 51);
    tagged(1, 0, 3, 60);
    index(0, 2, 0);
    index(1, 1, 0);
    const std::string out = show();
    EXPECT_NE(out.find(" negative entries to display A (2 of 8) wrap_count=0\n"), std::string::npos);
    EXPECT_EQ(tags(out), (std::vector<int>{50, 51, 60}));
}

TEST_F(FwLog, TextRecordsCarryTwentyCharactersAndTheirContinuation)
{
    dbg_header(1);
    add_log(0, "A", 8);
    text(0, 0, 1, 6149, "start ");
    text(0, 1, 2, 6150, "middle ");
    text(0, 2, 3, 6151, "end");
    text(0, 3, 4, 6147, "tab\there\x7f");
    text(0, 4, 5, 6148, "twenty characters!!!");
    index(0, 5, 0);
    init();
    const std::string out = show();
    const std::string prefix = "000000 00:00:00.0000000";
    EXPECT_EQ(out, prefix + "05 0 A USER_LOG_START start   \n" + prefix + "10 0 A USER_LOG_CONT  start middle   \n" +
                       prefix + "15 0 A USER_LOG_END   start middle end  \n" + prefix +
                       "20 0 A USER_LOG       tab here   \n" + prefix +
                       "25 0 A STRING_MSG     twenty characters!!!  \n");
}

TEST_F(FwLog, DeltaTimeUsesMillisecondsBelowOneSecond)
{
    dbg_header(1);
    add_log(0, "A", 8);
    tagged(0, 0, SEC, 1);
    tagged(0, 1, SEC + 362000, 2);
    index(0, 2, 0);
    init();
    log.fw_stats->display_fields[0] = {dbg_log_field_delta_time, 0, ""};
    log.fw_stats->num_display_fields = 1;
    EXPECT_EQ(show(), "1.000 secs\n2.000 ms\n");
}

TEST_F(FwLog, StatisticsShowCountedOrRunningRecordsOnly)
{
    stats_header(3);
    stat(0, "cmd", 2, false);
    stat(1, "idle", 0, false);
    stat(2, "busy", 0, true);
    init();
    EXPECT_EQ(stdout_text, "dbg_log cookie mismatch, no dbg_log will be displayed (expected 0xf00df00d, found 0x00000000)\n");
    log.show_stats(stdout);
    const std::string out = kavo_test::take();
    EXPECT_NE(out.find("FIRMWARE:  cmd"), std::string::npos);
    EXPECT_EQ(out.find("idle"), std::string::npos);
    EXPECT_NE(out.find("FIRMWARE:  busy"), std::string::npos);
    EXPECT_STREQ(log.stat_name_get(1), "idle");
    EXPECT_EQ(log.stat_name_get(3), nullptr);
}

TEST_F(FwLog, CookieMismatchesDisableOnlyTheirView)
{
    stats_header(1, 80, 0x12345678);
    stat(0, "cmd", 2, false);
    dbg_header(1);
    add_log(0, "A", 8);
    tagged(0, 0, 10, 1);
    index(0, 1, 0);
    init();
    EXPECT_EQ(stdout_text, "stats cookie mismatch, no stats will be displayed (expected 0xfaded0ff, found 0x12345678)\n"
                           "stats_cookie   = 0x12345678\n"
                           "dbg_log_cookie = 0xf00df00d\n");
    log.show_stats(stdout);
    EXPECT_EQ(kavo_test::take(), "");
    EXPECT_EQ(tags(show()), (std::vector<int>{1}));
}

TEST_F(FwLog, BlockWithoutCookiesIsNotUsed)
{
    global_verbosity = VELT_LOG_SEV_EVENT;
    init();
    EXPECT_EQ(stdout_text, "dbg_log not find in shared memory or ocr\n");
    EXPECT_NE(kavo_test::take().find(" did not find stats in ocr or shared memory\n"), std::string::npos);
    EXPECT_EQ(show(), "");
}

TEST_F(FwLog, BadHeadersAreRefusedOrHalt)
{
    stats_header(1000);
    init();
    EXPECT_NE(kavo_test::take().find(" VELT_RUNTIME_ERROR( VELT_ERR_FAIL )\n"), std::string::npos);
    stats_header(1, 1000);
    EXPECT_DEATH(log.stats_init(), "");
    stats_header(0);
    dbg_header(400);
    EXPECT_DEATH(log.stats_init(), "");
}

TEST_F(FwLog, DumpKindsSelectTheirViews)
{
    put(0, VELT_CONSOLE_COOKIE);
    velt_circular_buffer_writer writer;
    writer.init(reinterpret_cast<volatile UINT32*>(bus.at(BASE + 8)), reinterpret_cast<volatile UINT32*>(bus.at(BASE + 4)),
                reinterpret_cast<char*>(bus.at(BASE + 68)), 32768);
    char hello[] = "console says hi\n";
    writer.write_char_data(hello, (int)std::strlen(hello));
    stats_header(1);
    stat(0, "cmd", 2, false);
    dbg_header(1);
    add_log(0, "A", 8);
    tagged(0, 0, 10, 1);
    index(0, 1, 0);
    init();
    testing::internal::CaptureStdout();
    EXPECT_EQ(log.dump(stdout, KAVO_FW_LOG_DUMP_ALL), 0u);
    std::string out = kavo_test::take();
    EXPECT_NE(out.find("start of console log\nconsole says hi\n"), std::string::npos);
    EXPECT_EQ(tags(out), (std::vector<int>{1}));
    EXPECT_EQ(out.find("FIRMWARE:"), std::string::npos);
    EXPECT_EQ(log.dump(stdout, KAVO_FW_LOG_DUMP_STATS), 0u);
    EXPECT_NE(kavo_test::take().find("FIRMWARE:"), std::string::npos);
    writer.write_char_data(hello, 7);
    EXPECT_EQ(log.dump(stdout, KAVO_FW_LOG_DUMP_CONSOLE_NEW), 0u);
    EXPECT_EQ(kavo_test::take(), "-- firmware console ---\n\nprinting from _read_index=6 to _write_index=10\n"
                                 "console-- end of firmware console ---\n");
    EXPECT_EQ(log.dump(stdout, LAST_KAVO_FW_LOG_DUMP), 0u);
    EXPECT_EQ(kavo_test::take(), "");
    testing::internal::GetCapturedStdout();
}

TEST(FwLogTimeZone, OffsetIsHoursBehindUtc)
{
    const char* saved = std::getenv("TZ");
    const std::string keep = saved != nullptr ? saved : "";
    struct Case {
        const char* tz;
        INT32 hours;
    } cases[] = {{"UTC0", 0}, {"EST5", 5}, {"JST-9", -9}};
    for (const Case& c : cases) {
        setenv("TZ", c.tz, 1);
        tzset();
        EXPECT_EQ(fw_common_calculate_tz_offset(), c.hours) << c.tz;
    }
    if (saved != nullptr)
        setenv("TZ", keep.c_str(), 1);
    else
        unsetenv("TZ");
    tzset();
}

}  // namespace
