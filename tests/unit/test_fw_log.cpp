// The firmware log views against hand-built (and hand-corrupted) log-buffer
// blocks in a fake bus.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "fw_log_print.h"
#include "kavo_fake_bus.h"
#include "kavo_fw_log.h"
#include "kavo_test_log.h"
#include "velt_circular_buffer_writer.h"
#include "velt_type_print.h"

extern const velt_enum_table_t kavo_err_t_table;

namespace {

constexpr UINT32 BASE = VELT_DEVICE_LOG_BUFFERS_OCR_ADDR;
constexpr UINT32 STATS = 32836, DESC = 40000, ENTRIES = 50000;  // block offsets
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
    void stats(std::vector<std::tuple<const char*, UINT64, bool>> records, UINT32 cookie = VELT_STATS_COOKIE)
    {
        put(20, cookie), put(24, (UINT32)records.size()), put(28, 80), put(32, STATS);
        for (UINT32 i = 0; i < records.size(); ++i) {
            velt_sys_fw_stats_t s{};
            const char* name = std::get<0>(records[i]);  // 28 characters fill it without a NUL
            std::memcpy(s.description, name, std::min(std::strlen(name), sizeof(s.description)));
            s.num = std::get<1>(records[i]), s.mark_started = std::get<2>(records[i]);
            bus.set_bytes(BASE + STATS + 80 * i, &s, sizeof(s));
        }
    }
    /* Debug logs of 40-byte descriptors; log i keeps its entries in its own 4 KiB. */
    void logs(std::vector<std::pair<const char*, UINT32>> names)
    {
        put(36, VELT_DBG_LOG_COOKIE), put(40, (UINT32)names.size()), put(44, 40), put(48, DESC);
        for (UINT32 i = 0; i < names.size(); ++i) {
            bus.set_bytes(BASE + DESC + 40 * i, std::string(names[i].first).append(20, '\0').data(), 20);
            put(DESC + 40 * i + 20, names[i].second), put(DESC + 40 * i + 24, ENTRIES + 4096 * i);
        }
    }
    void index(UINT32 log_i, UINT32 write_index, UINT32 wrap_count)
    {
        put(DESC + 40 * log_i + 28, write_index), put(DESC + 40 * log_i + 32, wrap_count);
    }
    void entry(UINT32 log_i, UINT32 idx, UINT64 ticks, UINT16 code, std::vector<UINT32> d)
    {
        d.resize(5);
        dbg_log_app_entry_t e{ticks, 0, code, d[0], d[1], d[2], d[3], d[4]};
        bus.set_bytes(BASE + ENTRIES + 4096 * log_i + 32 * idx, &e, sizeof(e));
    }
    void tagged(UINT32 log_i, UINT32 idx, UINT64 ticks, UINT32 tag)  // the tag shows as the duration
    {
        entry(log_i, idx, ticks, LUMOHAL_LOG_SLEEP_STARTED, {tag});
    }
    void init()
    {
        testing::internal::CaptureStdout();
        log.stats_init();
        direct = testing::internal::GetCapturedStdout();
    }
    std::string show()
    {
        testing::internal::CaptureStdout();
        log.show_debug_log(stdout);
        direct = testing::internal::GetCapturedStdout();
        return kavo_test::take();
    }
    static std::vector<int> tags(const std::string& out)
    {
        std::vector<int> found;
        for (size_t at = out.find("duration="); at != std::string::npos; at = out.find("duration=", at + 1))
            found.push_back(std::atoi(out.c_str() + at + 9));
        return found;
    }

    kavo_test::fake_bus bus;
    velt_sys_handle_t sys = nullptr;
    cpu_cfg_handle_t handle{};
    kavo_fw_log log;
    std::string direct;  // what went straight to standard output
};

TEST_F(FwLog, EntryLinesShowTimeDeviceNameMessageAddressesLineAndText)
{
    logs({{"main", 8}, {"A", 8}});
    entry(0, 0, 3 * SEC + 1000, LUMOHAL_LOG_SLEEP_STARTED, {7, 0, 42, 0x1234, 0x5678});
    entry(0, 1, 3725 * SEC, LUMOHAL_LOG_READ_MODIFY_WRITE, {0x20, 0xFF, 0x12, 0xAB, 0xCD});  // 3 words
    index(0, 2, 0);
    init();
    EXPECT_EQ(show(), "000003 00:00:03.000005000 0 main LUMOHAL_LOG_SLEEP_STARTED SLEEP_STARTED duration=7 usec "
                      "pc=00001234 ra=00005678  line=42\n"
                      "003725 01:02:05.000000000 0 main LUMOHAL_LOG_READ_MODIFY_WRITE RMW addr=0x00000020 "
                      "mask=0x000000ff value=0x00000012 // write addr=0x00000020, mask=0x000000ff, value=0x00000012 "
                      "pc=000000ab ra=000000cd \n");
    EXPECT_EQ(direct, "no firmware symbols\n");
    // Text records: 20 characters each, control characters as blanks, and the continuation.
    const std::pair<UINT16, const char*> texts[] = {
        {6149, "start "}, {6150, "middle "}, {6151, "end"}, {6147, "tab\there\x7f"}, {6148, "twenty characters!!!"}};
    for (UINT32 k = 0; k < 5; ++k) {
        UINT32 d[5] = {};
        std::memcpy(d, texts[k].second, std::strlen(texts[k].second));
        entry(1, k, k + 1, texts[k].first, {d[0], d[1], d[2], d[3], d[4]});
    }
    index(1, 5, 0);
    const std::string at = "000000 00:00:00.0000000";
    EXPECT_EQ(show(), at + "05 0 A USER_LOG_START start   \n" + at + "10 0 A USER_LOG_CONT  start middle   \n" + at +
                          "15 0 A USER_LOG_END   start middle end  \n" + at + "20 0 A USER_LOG       tab here   \n" +
                          at + "25 0 A STRING_MSG     twenty characters!!!  \n");
}

TEST_F(FwLog, CodesPastTheCodeSpaceAreIllegalAndAnUnnamedLogShowsNoName)
{
    logs({{"", 8}});
    entry(0, 0, 10, (UINT16)(LAST_KAVO_MID * 0x100), {});
    index(0, 1, 0);
    init();
    const std::string out = show();
    EXPECT_NE(out.find(" 0  illegal kavo_err_t "), std::string::npos) << out;
}

TEST_F(FwLog, ATableSetUpAgainWithoutItsCookieShowsNothing)
{
    logs({{"A", 8}});
    tagged(0, 0, 10, 1);
    index(0, 1, 0);
    init();
    EXPECT_EQ(tags(show()), (std::vector<int>{1}));
    tagged(0, 1, 20, 2);
    index(0, 2, 0);
    put(36, 0);  // the firmware's block is gone
    init();
    EXPECT_NE(kavo_test::take().find(" did not find stats in ocr or shared memory\n"), std::string::npos);
    EXPECT_EQ(show(), "");
}

TEST_F(FwLog, TableOffsetsUpToTheLimitAreTaken)
{
    // Both tables may start anywhere below 4 MiB of the block; an offset
    // beyond halts.
    stats({{"cmd", 2, false}});
    logs({{"A", 8}});
    put(32, 0x3FFFFF), put(48, 0x3FFFFF);
    init();
    put(32, 0x400000);
    EXPECT_DEATH(log.stats_init(), kavo_test::halts_with(VELT_ERR_FAIL, " ASSERT: "));
    put(32, STATS), put(48, 0x400000);
    EXPECT_DEATH(log.stats_init(), kavo_test::halts_with(VELT_ERR_FAIL, " ASSERT: "));
}

TEST_F(FwLog, ANewStartRecordDropsAnUnfinishedContinuationAndHoursCountFrom3600Seconds)
{
    logs({{"A", 8}});
    const std::pair<UINT16, const char*> texts[] = {{6149, "one "}, {6150, "two "}, {6149, "three"}};
    for (UINT32 k = 0; k < 3; ++k) {
        UINT32 d[5] = {};
        std::memcpy(d, texts[k].second, std::strlen(texts[k].second));
        entry(0, k, 7200 * SEC + k, texts[k].first, {d[0], d[1], d[2], d[3], d[4]});
    }
    index(0, 3, 0);
    init();
    const std::string at = "007200 02:00:00.0000000";
    EXPECT_EQ(show(), at + "00 0 A USER_LOG_START one   \n" + at + "05 0 A USER_LOG_CONT  one two   \n" + at +
                          "10 0 A USER_LOG_START three  \n");
}

TEST_F(FwLog, TheLongestDecodedMessageIsShownWhole)
{
    // The longest text the decoder makes, over every code and a few data patterns.
    const UINT32 patterns[][5] = {{0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF},
                                  {0x80000000, 0x80000000, 0x80000000, 0x80000000, 0x80000000},
                                  {0xF00020, 0xFFFFFFFF, 0xF00020, 0, 0}, {0x744010, 0x7FFFFFFF, 0x21E0, 0, 0}};
    std::string longest, name;
    UINT16 code = 0;
    UINT32 data[5] = {};
    for (UINT32 i = 0; i < kavo_err_t_table.count; ++i) {
        const velt_enum_entry_t& e = kavo_err_t_table.entries[i];
        EXPECT_LT(std::strlen(e.name), 80u) << e.name;  // the line buffer's room for a name
        if (e.value >= 6147 && e.value <= 6151) continue;  // text records
        for (const auto& d : patterns) {
            char out[1001] = "";
            UINT32 words = 2;
            fw_log_print(&log, (INT32)e.value, d[0], d[1], d[2], d[3], d[4], out, sizeof(out), &words);
            if (std::strlen(out) + std::strlen(e.name) > longest.size() + name.size())
                longest = out, name = e.name, code = (UINT16)e.value, std::memcpy(data, d, sizeof(data));
        }
    }
    ASSERT_GT(longest.size(), 60u);
    logs({{"main", 8}});
    entry(0, 0, 1, code, {data[0], data[1], data[2], data[3], data[4]});
    index(0, 1, 0);
    init();
    const std::string out = show();
    EXPECT_NE(out.find(" main " + name + " " + longest), std::string::npos) << out;
}

TEST_F(FwLog, LogsWithInterleavedTicksPrintInGlobalOrder)
{
    const std::vector<std::vector<UINT64>> cases[] = {
        {{10, 30, 50}, {20, 40}}, {{5, 60, 61}, {10, 20, 70}, {1, 30, 40, 80}}, {{100}, {}, {50, 150}}};
    for (const auto& ticks : cases) {
        logs(std::vector<std::pair<const char*, UINT32>>(ticks.size(), {"L", 16}));
        std::vector<int> expected;
        for (UINT32 i = 0; i < ticks.size(); ++i) {
            for (UINT32 k = 0; k < ticks[i].size(); ++k) tagged(i, k, ticks[i][k], (int)ticks[i][k]);
            expected.insert(expected.end(), ticks[i].begin(), ticks[i].end());
            index(i, (UINT32)ticks[i].size(), 0);
        }
        std::sort(expected.begin(), expected.end());
        init();
        EXPECT_EQ(tags(show()), expected);
    }
}

TEST_F(FwLog, EqualTicksKeepTheMergeHeapsOrder)
{
    // Entry k of log i is tagged 10 i + k. Nothing moves up past an equal parent
    // and a moved-down log stops at an equal child: with three logs all at one
    // tick, the last log comes to the top after log 0, and log 0 goes back
    // below it. Between two equal children the left one is taken.
    struct {
        std::vector<std::vector<UINT64>> ticks;
        std::vector<int> order;
    } cases[] = {
        {{{7, 7}, {7, 7}, {7, 7}}, {0, 20, 1, 21, 10, 11}},
        {{{1}, {5}, {5}, {9}}, {0, 10, 20, 30}},
        {{{1}, {5}, {3}, {9}}, {0, 20, 10, 30}}, // the smaller child is the last slot
    };
    for (const auto& c : cases) {
        logs(std::vector<std::pair<const char*, UINT32>>(c.ticks.size(), {"L", 16}));
        for (UINT32 i = 0; i < c.ticks.size(); ++i) {
            for (UINT32 k = 0; k < c.ticks[i].size(); ++k) tagged(i, k, c.ticks[i][k], int(10 * i + k));
            index(i, UINT32(c.ticks[i].size()), 0);
        }
        init();
        EXPECT_EQ(tags(show()), c.order);
    }
}

TEST_F(FwLog, PositionsPersistABadIndexMarksOnlyItsLogAndARestartResetsThem)
{
    logs({{"A", 8}, {"B", 8}});
    for (UINT32 k = 0; k < 5; ++k) tagged(0, k, 10 * k, k);
    tagged(1, 0, 5, 99);
    index(0, 2, 0), index(1, 9, 0);
    init();
    std::string out = show();
    EXPECT_NE(out.find(" bad firmware index in log file 'B' (9 of 8) wrap_count=0\n"), std::string::npos);
    EXPECT_EQ(tags(out), (std::vector<int>{0, 1}));
    index(1, 0, 0);
    EXPECT_EQ(show(), "");
    index(1, 1, 0);  // a good index again: the log is read again
    EXPECT_EQ(tags(show()), (std::vector<int>{99}));
    index(0, 5, 0);
    EXPECT_EQ(tags(show()), (std::vector<int>{2, 3, 4}));
    // Started again: fewer entries than the host has seen.
    tagged(0, 0, 1, 50), tagged(0, 1, 2, 51), tagged(1, 0, 3, 60);
    index(0, 2, 0), index(1, 1, 0);
    out = show();
    EXPECT_NE(out.find(" negative entries to display A (2 of 8) wrap_count=0\n"), std::string::npos);
    EXPECT_EQ(tags(out), (std::vector<int>{50, 51, 60}));
    // Started again and already twice round its ring: the whole ring from the
    // oldest entry, nothing reported missed.
    for (UINT32 k = 0; k < 8; ++k) tagged(0, k, 100 + (k + 5) % 8, 70 + (k + 5) % 8);
    index(0, 3, 2), index(1, 0, 0);
    out = show();
    EXPECT_EQ(out.find("WARNING: missed"), std::string::npos) << out;
    EXPECT_EQ(tags(out), (std::vector<int>{70, 71, 72, 73, 74, 75, 76, 77}));
}

TEST_F(FwLog, LappedLogReportsItsMissedEntriesAndSkipsWhatIsAboutToBeOverwritten)
{
    // 8 entries: lapped by 3; rate / 4 or 8 / 10 = 0 entries skipped.
    logs({{"A", 8}, {"B", 100}});
    index(0, 2, 0);
    init();
    show();
    for (UINT32 k = 0; k < 8; ++k) tagged(0, k, 100 + (k + 3) % 8, 100 + (k + 3) % 8);
    index(0, 5, 1);
    std::string out = show();
    EXPECT_EQ(out.substr(0, out.find('\n') + 1), "WARNING: missed 3 log entries in A log (buffer has 8 entries)\n");
    EXPECT_EQ(tags(out), (std::vector<int>{100, 101, 102, 103, 104, 105, 106, 107}));
    // 100 entries 1000 ticks apart, lapped by 5: min(rate / 4, 100 / 10) = 10 skipped.
    for (UINT32 k = 0; k < 100; ++k) tagged(1, k, 1000 * (k >= 5 ? k : k + 100), k);
    index(1, 5, 1);
    out = show();
    EXPECT_EQ(out.substr(0, out.find('\n') + 1), "WARNING: missed 5 log entries in B log (buffer has 100 entries)\n");
    const std::vector<int> shown = tags(out);
    ASSERT_EQ(shown.size(), 90u);
    EXPECT_EQ(shown.front(), 15);
    EXPECT_EQ(shown.back(), 4);
}

TEST_F(FwLog, ALappedLogSkipsByItsRateOfWriting)
{
    // 100 entries d ticks apart, lapped by 5: the rate is 400000000 * 100 /
    // (2 * 50 d) entries, and min(rate / 4, 100 / 10) are skipped.
    struct {
        UINT64 d;
        UINT32 skipped;
    } cases[] = {{0, 0}, {20000000, 5}, {11111111, 9}, {9090909, 10}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.d);
        logs({{"C", 100}});
        index(0, 2, 0);
        init();
        show();
        for (UINT32 k = 0; k < 100; ++k) tagged(0, k, c.d * (k >= 5 ? k : k + 100), k);
        index(0, 5, 1);
        const std::vector<int> shown = tags(show());
        ASSERT_EQ(shown.size(), 100u - c.skipped);
        EXPECT_EQ(shown.front(), (int)(5 + c.skipped));
    }
}

TEST_F(FwLog, CookiesAndHeadersDecideWhatIsShown)
{
    init();  // no cookie at all
    EXPECT_EQ(direct, "dbg_log not find in shared memory or ocr\n");
    EXPECT_NE(kavo_test::take().find(" did not find stats in ocr or shared memory\n"), std::string::npos);
    // Statistics alone: records counted or running are shown.
    stats({{"cmd", 2, false}, {"idle", 0, false}, {"busy", 0, true}});
    init();
    EXPECT_EQ(direct, "dbg_log cookie mismatch, no dbg_log will be displayed (expected 0xf00df00d, found 0x00000000)\n");
    log.show_stats(stdout);
    const std::string out = kavo_test::take();
    EXPECT_NE(out.find("FIRMWARE:  cmd"), std::string::npos);
    EXPECT_EQ(out.find("idle"), std::string::npos);
    EXPECT_NE(out.find("FIRMWARE:  busy"), std::string::npos);
    EXPECT_STREQ(log.stat_name_get(1), "idle");
    EXPECT_EQ(log.stat_name_get(3), nullptr);
    // Debug logs alone.
    put(20, 0x12345678);
    logs({{"A", 8}});
    tagged(0, 0, 10, 1);
    index(0, 1, 0);
    init();
    EXPECT_EQ(direct, "stats cookie mismatch, no stats will be displayed (expected 0xfaded0ff, found 0x12345678)\n"
                      "stats_cookie   = 0x12345678\ndbg_log_cookie = 0xf00df00d\n");
    log.show_stats(stdout);
    EXPECT_EQ(kavo_test::take(), "");
    EXPECT_EQ(tags(show()), (std::vector<int>{1}));
    put(20, VELT_STATS_COOKIE), put(24, 1000);
    init();
    EXPECT_NE(kavo_test::take().find(" VELT_RUNTIME_ERROR( VELT_ERR_FAIL )\n"), std::string::npos);
    put(24, 1), put(28, 1000);
    EXPECT_DEATH(log.stats_init(), kavo_test::halts_with(VELT_ERR_FAIL, "0:0x1:kavo_fw_log.cpp.* ASSERT: "));  // record size above 999
    put(28, 80), put(40, 400);
    EXPECT_DEATH(log.stats_init(), kavo_test::halts_with(FW_COMMON_ERR_BAD_NUM_LOGS,
                                                         " fw_common_stats->num_dbg_logs exceeded\\. Max: 399, "
                                                         "Actual: 400 ASSERT: "));
}

TEST_F(FwLog, FirstNewConsoleMessagesFollowTheRingWithoutReprintingIt)
{
    put(0, VELT_CONSOLE_COOKIE);
    velt_circular_buffer_writer writer;
    writer.init(reinterpret_cast<volatile UINT32*>(bus.at(BASE + 8)), reinterpret_cast<volatile UINT32*>(bus.at(BASE + 4)),
                reinterpret_cast<char*>(bus.at(BASE + 68)), 32768);
    char boot[] = "booted\n", later[] = "later\n";
    writer.write_char_data(boot, 7);
    log.dump(stdout, KAVO_FW_LOG_DUMP_CONSOLE_NEW);  // never positioned: from the ring's start, no banners
    EXPECT_EQ(kavo_test::take(), "-- firmware console ---\n\nprinting from _read_index=0 to _write_index=4\nbooted\n"
                                 "-- end of firmware console ---\n");
    writer.write_char_data(later, 6);
    log.dump(stdout, KAVO_FW_LOG_DUMP_CONSOLE_NEW);
    EXPECT_EQ(kavo_test::take(), "-- firmware console ---\n\nprinting from _read_index=4 to _write_index=8\nlater\n"
                                 "-- end of firmware console ---\n");
}

TEST_F(FwLog, FullLengthStatNameKeepsItsLastCharacterAndSymbolsAreMissedOncePerProcess)
{
    stats({{"abcdefghijklmnopqrstuvwxyz01", 1, false}, {"short", 1, false}});
    init();
    EXPECT_STREQ(log.stat_name_get(0), "abcdefghijklmnopqrstuvwxyz01");
    EXPECT_STREQ(log.stat_name_get(1), "short");
    log.show_stats(stdout);
    EXPECT_NE(kavo_test::take().find("FIRMWARE:  abcdefghijklmnopqrstuvwxyz01: "), std::string::npos);
    // A NUL ends a text record's text.
    logs({{"A", 8}});
    entry(0, 0, 1, 6147, {0x00006261, 0x00006463});  // "ab", NUL, NUL, "cd"
    entry(0, 1, 2, LUMOHAL_LOG_SLEEP_STARTED, {1});     // an address: the symbol map is looked for
    index(0, 2, 0);
    init();
    EXPECT_NE(show().find(" A USER_LOG       ab "), std::string::npos);
    // Another device's log prints addresses without saying again that symbols are missing.
    kavo_fw_log other;
    other.handle_init(0, &handle);
    testing::internal::CaptureStdout();
    other.stats_init();
    entry(0, 2, 3, LUMOHAL_LOG_SLEEP_STARTED, {1});
    index(0, 3, 0);
    other.show_debug_log(stdout);
    log.show_debug_log(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    other.ctxt_destroy();
}

TEST_F(FwLog, DumpKindsSelectTheirViews)
{
    put(0, VELT_CONSOLE_COOKIE);
    velt_circular_buffer_writer writer;
    writer.init(reinterpret_cast<volatile UINT32*>(bus.at(BASE + 8)), reinterpret_cast<volatile UINT32*>(bus.at(BASE + 4)),
                reinterpret_cast<char*>(bus.at(BASE + 68)), 32768);
    char hello[] = "console says hi\n";
    writer.write_char_data(hello, 16);
    stats({{"cmd", 2, false}});
    logs({{"A", 8}});
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
    testing::internal::GetCapturedStdout();
}

}  // namespace
