// Timing statistics: formatter and units, show texts, the firmware statistic
// printer, the per-command registry with its exit summary, and concurrent use.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include <unistd.h>

#include "kavo_test_log.h"
#include "velt_function_stats.h"
#include "velt_library_options.h"
#include "velt_stat.h"

namespace {

using kavo_test::printed;

class Stats : public ::testing::Test {
protected:
    void SetUp() override { kavo_test::install_capture(); }
    void TearDown() override { velt_option_function_stats.value = false; }
};

velt_stat_t stat_of(UINT32 num, UINT64 total, UINT64 min, UINT64 max)
{
    velt_stat_t s{};
    s.initialized = 1;
    s.description = "kavo_x";
    s.description2 = "_y";
    s.num = num;
    s.total = total;
    s.min = min;
    s.max = max;
    return s;
}

TEST_F(Stats, UnitIsTheFirstWhoseBoundExceedsTheValue)
{
    struct {
        double us;
        const char* unit;
        double factor;
    } cases[] = {
        {0.5, "nanoseconds", 1000},       {1, "usec", 1},
        {999.9, "usec", 1},               {1000, "milliseconds", 0.001},
        {999999, "milliseconds", 0.001},  {1000000, "seconds", 0.000001},
        {60000000, "minutes", 1 / 60000000.0}, {3600000000.0, "hours", 1 / 3600000000.0},
    };
    for (const auto& c : cases) {
        double factor = 0;
        EXPECT_STREQ(velt_sys_get_units(c.us, &factor), c.unit) << c.us;
        EXPECT_DOUBLE_EQ(factor, c.factor) << c.us;
    }
}

TEST_F(Stats, NumberFormatKeepsFourSignificantPlacesAndNeverAnExponent)
{
    struct {
        double value, factor;
        const char* text;
    } cases[] = {
        {1500, 0.001, "1.500"}, {0.5, 1000, "500.0"},     {12.5, 1, "12.50"},       {0.00012, 1, "0.0001"},
        {999.5, 1, "999.5"},    {1000, 1, "1000"},        {2000000, 1, "2000000"},  {3e12, 1, "3000000000000"},
        {-12.5, 1, "-12.50"},   {0, 1, "0.0000"},
    };
    for (const auto& c : cases) {
        char buffer[VELT_STAT_NUMBER_SIZE];
        const char* magnitude = velt_sys_print_time(c.value, c.factor, buffer);
        EXPECT_STREQ(buffer, c.text);
        EXPECT_STREQ(magnitude, c.text[0] == '-' ? c.text + 1 : c.text);
    }
    char text[2 * VELT_STAT_NUMBER_SIZE];
    EXPECT_STREQ(velt_stat_print_val(1500, text), "1.500 milliseconds");
    EXPECT_EQ(printed([] { velt_stat_val_show(2500000, "boot"); }), "boot: 2.500 seconds\n");
}

TEST_F(Stats, ShowTexts)
{
    struct {
        velt_stat_t stat;
        const char* prefix;
        const char* text;
    } cases[] = {
        {stat_of(0, 0, 0, 0), "p: ", "p: kavo_x_y: no stats collected\n"},
        {stat_of(1, 1500, 1500, 1500), "", "kavo_x_y: 1.500 milliseconds\n"},
        // min and max follow the average's unit, the total its own.
        {stat_of(4, 2000, 100, 900), "", "kavo_x_y: n=4, total=2.000 milliseconds, min=100.0, max=900.0, avg=500.0 usec\n"},
        {stat_of(2, 1, 0, 1), "", "kavo_x_y: n=2, total=1.000 usec, min=0.0000, max=1000, avg=500.0 nanoseconds\n"},
    };
    for (auto& c : cases) {
        EXPECT_EQ(printed([&] { velt_stat_show(&c.stat, c.prefix); }), c.text);
    }
    double average = 0;
    EXPECT_EQ(printed([&] { average = velt_stat_show_avg(&cases[2].stat, "overall        "); }),
              "overall        kavo_x_y: n=4, total=2.000 milliseconds, avg=500.0 usec\n");
    EXPECT_DOUBLE_EQ(average, 500.0);

    velt_stat_t open = stat_of(0, 0, 0, 0);
    velt_stat_mark_start(&open);
    EXPECT_TRUE(::testing::internal::RE::FullMatch(printed([&] { velt_stat_show(&open, ""); }),
        "kavo_x_y: no stats collected and one started [0-9.]+ (nanoseconds|usec|milliseconds) ago\n"));
}

TEST_F(Stats, StartEndAndCancel)
{
    velt_stat_t s = stat_of(7, 7000, 1, 2);  // stale counters: the first start clears them
    s.initialized = 0;
    velt_stat_mark_start(&s);
    EXPECT_EQ(s.num, 0u);
    EXPECT_EQ(s.mark_started, 1);
    velt_stat_mark_end(&s);
    velt_stat_mark_end(&s);  // no check for an open one: measured again from the same mark
    EXPECT_EQ(s.num, 2u);
    EXPECT_LE(s.min, s.max);
    EXPECT_EQ(s.mark_started, 0);

    velt_stat_mark_start(&s);
    velt_stat_mark_start(&s);  // closes the open one first
    EXPECT_EQ(s.num, 3u);
    velt_stat_mark_cancel(&s);
    EXPECT_EQ(s.mark_started, 0);
    EXPECT_EQ(s.num, 3u);
}

TEST_F(Stats, BenchmarkRunsEachIterationThenTheWholeLoop)
{
    int calls[2] = {0, 0};
    auto fn = [](void* ctx) { ++static_cast<int*>(ctx)[0]; };
    auto finish = [](void* ctx) { ++static_cast<int*>(ctx)[1]; };
    // No time budget: one timed iteration, then a loop of that many.
    double average = -1;
    const std::string out = printed([&] { average = velt_stat_bench2(fn, finish, calls, 0, "noop"); });
    EXPECT_GE(average, 0.0);
    EXPECT_EQ(calls[0], 2);
    EXPECT_EQ(calls[1], 2);
    EXPECT_TRUE(::testing::internal::RE::FullMatch(out,
        "testing noop \\.\\.\\. \n"
        "each iteration noop: [0-9.]+ [a-z]+\n"
        "overall        noop: n=1, total=[0-9.]+ [a-z]+, avg=[0-9.]+ [a-z]+\n\n"));
}

velt_sys_fw_stats_t fw_record(const char* name, UINT64 num, bool started, UINT64 duration_sum = 0, UINT32 dmin = 0,
                              UINT32 dmax = 0, UINT64 period_sum = 0, UINT32 pmin = 0, UINT32 pmax = 0)
{
    velt_sys_fw_stats_t r{};
    std::memcpy(r.description, name, std::min(std::strlen(name), sizeof(r.description)));
    r.mark_started = started, r.num = num, r.duration_sum = duration_sum, r.duration_min = dmin, r.duration_max = dmax;
    r.period_sum = period_sum, r.period_min = pmin, r.period_max = pmax;
    return r;
}

TEST_F(Stats, FirmwareStatistic)
{
    constexpr UINT32 us = 181;  // ticks per microsecond
    struct {
        velt_sys_fw_stats_t record;
        const char* text;
    } cases[] = {
        {fw_record("loop", 0, true),
         "FIRMWARE: fw: loop: no stats collected AND ONE IN PROGRESS <-- \n"},
        {fw_record("loop", 1, false, 1500 * us), "FIRMWARE: fw: loop: 1.500 milliseconds\n"},
        // Two measurements, one period: the period sum is divided by 1.
        {fw_record("loop", 2, false, 200 * us, 50 * us, 150 * us, 1234 * us, 1234 * us, 1234 * us),
         "FIRMWARE: fw: loop 8.104% n=2, total=200.0 usec, min=50.00, max=150.0, avg=100.0 usec\n"
         "                   period: n=1, total=1.234 milliseconds, min=1.234, max=1.234, avg=1.234 milliseconds\n"},
        // In progress: the average divides by num periods, the line still says num - 1.
        {fw_record("loop", 2, true, 200 * us, 50 * us, 150 * us, 2468 * us, 1234 * us, 1234 * us),
         "FIRMWARE: fw: loop 8.104% n=2, total=200.0 usec, min=50.00, max=150.0, avg=100.0 usec AND ONE IN "
         "PROGRESS <-- \n"
         "                   period: n=1, total=2.468 milliseconds, min=1.234, max=1.234, avg=1.234 milliseconds\n"},
        // Counting statistic: plain counts, no unit, no duty cycle.
        {fw_record("irqs", 3, false, 30, 5, 15, 2 * 500 * us, 400 * us, 600 * us),
         "FIRMWARE: fw: irqs x:       n=3, total=30.00 , min=5.000, max=15.00, avg=10.00 \n"
         "                   period:  n=2, total=1.000 milliseconds, min=400.0, max=600.0, avg=500.0 usec\n"},
        // A description filling all 28 bytes has no terminator of its own.
        {fw_record("abcdefghijklmnopqrstuvwxyz01", 0, false),
         "FIRMWARE: fw: abcdefghijklmnopqrstuvwxyz01: no stats collected\n"},
    };
    for (auto& c : cases) {
        velt_sys_fw_stat_show(stdout, &c.record, "fw:");
        EXPECT_EQ(kavo_test::take(), c.text);
    }
}

TEST_F(Stats, RegistryKeepsFirstOfEachNameInCallOrder)
{
    velt_function_stats off("kavo_stats_off");
    EXPECT_EQ(off.pimpl, nullptr);

    velt_option_function_stats.value = true;
    velt_function_stats second("kavo_stats_b");
    velt_function_stats first("kavo_stats_a");
    velt_function_stats dup("kavo_stats_b");
    ASSERT_NE(second.pimpl, nullptr);
    EXPECT_EQ(dup.pimpl, nullptr);
    { velt_function_stat_measure m(&second); }
    {
        velt_function_stat_measure m(&first);
        m.close();
        m.close();
    }
    { velt_function_stat_measure m(&off); }
    EXPECT_EQ(second.pimpl->stats.num, 1u);
    EXPECT_EQ(first.pimpl->stats.num, 1u);

    auto& all = velt_all_function_stats::instance().all_stats_by_order_called;
    ASSERT_GE(all.size(), 2u);
    EXPECT_EQ(all[all.size() - 2]->_function_name, "kavo_stats_b");
    EXPECT_EQ(all.back()->_function_name, "kavo_stats_a");
}

// The exit summary is printed from the registry's destructor; the child writes
// the library's output to stderr where the death test can see it.
int stderr_log(void*, FILE*, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    std::fputs("callout:", stderr);
    int n = std::vfprintf(stderr, format, args);
    va_end(args);
    return n;
}

void kavo_probe_command()
{
    static velt_function_stats stats("kavo_probe_command");
    velt_function_stat_measure measure(&stats);
}

[[noreturn]] void run_probe_and_exit(bool enabled)
{
    static tavo_callout_api_st table{nullptr, stderr_log, nullptr, nullptr};
    velt_sys_sdk_init(&table);
    velt_option_function_stats.value = enabled;
    // Standard output joins stderr, where the death test looks; the print
    // callout's lines would carry "callout:" and must not appear.
    std::fflush(stdout);
    if (dup2(STDERR_FILENO, STDOUT_FILENO) < 0) std::abort();
    kavo_probe_command();
    kavo_probe_command();
    std::fputs("END\n", stderr);
    std::exit(0);
}

TEST(StatsExitTest, SummaryAtExitOnlyWhenEnabled)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(run_probe_and_exit(true), ::testing::ExitedWithCode(0),
                "END\nfunction_stats: kavo_probe_command: n=2, total=[0-9.]+ [a-z]+, min=.*\n$");
    EXPECT_EXIT(run_probe_and_exit(false), ::testing::ExitedWithCode(0), "^END\n$");
}

TEST_F(Stats, TwoThreadsShareOneStatistic)
{
    velt_option_function_stats.value = true;
    velt_function_stats stats("kavo_stats_threads");
    ASSERT_NE(stats.pimpl, nullptr);
    constexpr int calls = 2000;
    auto worker = [&stats] {
        for (int i = 0; i < calls; ++i) velt_function_stat_measure measure(&stats);
    };
    std::thread a(worker), b(worker);
    a.join();
    b.join();
    // Every end counts, and so does every start that found another call open.
    EXPECT_GE(stats.pimpl->stats.num, 2u * calls);
    EXPECT_LE(stats.pimpl->stats.num, 4u * calls);
    EXPECT_LE(stats.pimpl->stats.min, stats.pimpl->stats.max);
    EXPECT_EQ(stats.pimpl->stats.mark_started, 0);
}

}  // namespace
