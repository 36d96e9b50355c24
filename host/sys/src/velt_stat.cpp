#include "velt_stat.h"

#include <atomic>
#include <bit>
#include <cmath>
#include <cstring>

#include "velt_customer_os.h"

namespace {

template <typename T>
std::atomic_ref<T> at(T& field)
{
    return std::atomic_ref<T>(field);
}
constexpr auto relaxed = std::memory_order_relaxed;

velt_sys_timeval_t load_mark(velt_stat_t* stat)
{
    return std::bit_cast<velt_sys_timeval_t>(at(stat->mark_word).load(relaxed));
}
void store_mark(velt_stat_t* stat, velt_sys_timeval_t mark)
{
    at(stat->mark_word).store(std::bit_cast<UINT64>(mark), relaxed);
}

/* Closes the open (or last) measurement at `now`. */
void record_end(velt_stat_t* stat, velt_sys_timeval_t now)
{
    const UINT64 elapsed = tv_to_microseconds(now) - tv_to_microseconds(load_mark(stat));
    if (at(stat->num).load(relaxed) == 0) {
        at(stat->min).store(elapsed, relaxed);
        at(stat->max).store(elapsed, relaxed);
        at(stat->total).store(0, relaxed);
    }
    UINT64 seen = at(stat->max).load(relaxed);
    while (elapsed > seen && !at(stat->max).compare_exchange_weak(seen, elapsed, relaxed)) {
    }
    seen = at(stat->min).load(relaxed);
    while (elapsed < seen && !at(stat->min).compare_exchange_weak(seen, elapsed, relaxed)) {
    }
    at(stat->total).fetch_add(elapsed, relaxed);
    at(stat->num).fetch_add(1, relaxed);
    at(stat->mark_started).store(0, relaxed);
}

/* A consistent-enough copy for printing. */
struct snapshot {
    UINT32 num;
    UINT64 total, min, max;
    velt_sys_timeval_t mark;
    bool started;
};
snapshot take_snapshot(velt_stat_t* stat)
{
    return {at(stat->num).load(relaxed),  at(stat->total).load(relaxed), at(stat->min).load(relaxed),
            at(stat->max).load(relaxed),  load_mark(stat),  at(stat->mark_started).load(relaxed) != 0};
}

/* A number in the unit chosen for itself: formatted value and unit name. */
struct in_unit {
    char text[VELT_STAT_NUMBER_SIZE];
    const char* unit;
    double factor;
    explicit in_unit(double microseconds)
    {
        unit = velt_sys_get_units(microseconds, &factor);
        velt_sys_print_time(microseconds, factor, text);
    }
};

struct number {
    char text[VELT_STAT_NUMBER_SIZE];
    number(double value, double factor) { velt_sys_print_time(value, factor, text); }
};

const char* safe(const char* text) { return text != nullptr ? text : ""; }

}  // namespace

void velt_stat_mark_start(velt_stat_t* stat)
{
    const velt_sys_timeval_t now = velt_sys_time_get();
    UINT8 expected = 0;
    if (at(stat->initialized).compare_exchange_strong(expected, 1, relaxed)) {
        at(stat->num).store(0, relaxed);
        at(stat->total).store(0, relaxed);
        at(stat->mark_started).store(0, relaxed);
        at(stat->display_average).store(0, relaxed);
    }
    if (at(stat->mark_started).load(relaxed) == 1) record_end(stat, now);
    store_mark(stat, now);
    at(stat->mark_started).store(1, relaxed);
}

void velt_stat_mark_end(velt_stat_t* stat) { record_end(stat, velt_sys_time_get()); }

void velt_stat_mark_cancel(velt_stat_t* stat) { at(stat->mark_started).store(0, relaxed); }

const char* velt_sys_get_units(double microseconds, double* factor)
{
    struct unit {
        double below;
        const char* name;
        double factor;
    };
    static const unit units[] = {
        {1, "nanoseconds", 1000},
        {1000, "usec", 1},
        {1000000, "milliseconds", 0.001},
        {60000000, "seconds", 0.000001},
        {3600000000.0, "minutes", 1 / 60000000.0},
    };
    for (const unit& u : units) {
        if (microseconds < u.below) {
            *factor = u.factor;
            return u.name;
        }
    }
    *factor = 1 / 3600000000.0;
    return "hours";
}

char* velt_sys_print_time(double value, double factor, char* buffer)
{
    double v = value * factor;
    char* out = buffer;
    size_t room = VELT_STAT_NUMBER_SIZE;
    if (v < 0) {
        *out++ = '-';
        --room;
        v = -v;
    }
    // Large magnitudes are formatted twice: exponent form first, then the plain
    // numeral over it, so the text that stays is always a plain number.
    if (v >= 1000000) std::snprintf(out, room, "%0.3e", v);
    const char* format = v >= 1000 ? "%0.0f" : v >= 100 ? "%0.1f" : v >= 10 ? "%0.2f" : v >= 1 ? "%0.3f" : "%0.4f";
    std::snprintf(out, room, format, v);
    return out;
}

char* velt_stat_print_val(UINT32 microseconds, char* buffer)
{
    in_unit value(microseconds);
    std::snprintf(buffer, 2 * VELT_STAT_NUMBER_SIZE, "%s %s", value.text, value.unit);
    return buffer;
}

/* The host's own statistics, the benchmark's lines and the exit summary go
   straight to the process's standard output, not through the print callout:
   at exit the application's log sink may already be gone. */
void velt_stat_val_show(UINT32 microseconds, const char* label)
{
    char text[2 * VELT_STAT_NUMBER_SIZE];
    std::printf("%s: %s\n", label, velt_stat_print_val(microseconds, text));
}

void velt_stat_show(velt_stat_t* stat, const char* prefix)
{
    const snapshot s = take_snapshot(stat);
    char suffix[2 * VELT_STAT_NUMBER_SIZE + 32] = "";
    if (s.started) {
        in_unit ago((double)(tv_to_microseconds(velt_sys_time_get()) - tv_to_microseconds(s.mark)));
        std::snprintf(suffix, sizeof(suffix), " and one started %s %s ago", ago.text, ago.unit);
    }
    const char* d1 = safe(stat->description);
    const char* d2 = safe(stat->description2);
    in_unit total((double)s.total);
    if (s.num == 0) {
        std::printf("%s%s%s: no stats collected%s\n", prefix, d1, d2, suffix);
    } else if (s.num == 1) {
        std::printf("%s%s%s: %s %s%s\n", prefix, d1, d2, total.text, total.unit, suffix);
    } else {
        in_unit avg((double)s.total / s.num);
        number min((double)s.min, avg.factor);
        number max((double)s.max, avg.factor);
        std::printf("%s%s%s: n=%u, total=%s %s, min=%s, max=%s, avg=%s %s%s\n", prefix, d1, d2, s.num,
                    total.text, total.unit, min.text, max.text, avg.text, avg.unit, suffix);
    }
}

double velt_stat_show_avg(velt_stat_t* stat, const char* prefix)
{
    const snapshot s = take_snapshot(stat);
    const double average = s.num != 0 ? (double)s.total / s.num : 0.0;
    in_unit total((double)s.total);
    in_unit avg(average);
    std::printf("%s%s%s: n=%u, total=%s %s, avg=%s %s\n", prefix, safe(stat->description),
                safe(stat->description2), s.num, total.text, total.unit, avg.text, avg.unit);
    return average;
}

void velt_sys_fw_stat_show(FILE* file, velt_sys_fw_stats_t* stat, const char* prefix)
{
    constexpr double tick = 1 / 181.0;  // firmware ticks per microsecond
    char description[sizeof(stat->description) + 1];
    std::memcpy(description, stat->description, sizeof(stat->description));
    description[sizeof(stat->description)] = '\0';

    // A counting statistic ("i...") holds plain counts, not ticks.
    const bool counting = description[0] == 'i';
    const char* suffix = stat->mark_started ? " AND ONE IN PROGRESS <-- " : "";
    const UINT64 num = stat->num;
    const UINT64 periods = stat->mark_started ? num : num - 1;

    // Durations in microseconds (or counts) and the unit of a value of them.
    const double duration_factor = counting ? 1.0 : tick;
    auto unit_of = [counting](double value, double* factor) {
        if (counting) {
            *factor = 1.0;
            return "";
        }
        return velt_sys_get_units(value, factor);
    };
    const double total_us = (double)stat->duration_sum * duration_factor;
    double total_factor;
    const char* total_unit = unit_of(total_us, &total_factor);
    number total(total_us, total_factor);

    if (num == 0) {
        VELT_PRINTF(file, "FIRMWARE: %s %s: no stats collected%s\n", prefix, description, suffix);
        return;
    }
    if (num == 1) {
        VELT_PRINTF(file, "FIRMWARE: %s %s: %s %s%s\n", prefix, description, total.text, total_unit, suffix);
        return;
    }

    const double avg_us = total_us / (double)num;
    double avg_factor;
    const char* avg_unit = unit_of(avg_us, &avg_factor);
    number min((double)stat->duration_min * duration_factor, avg_factor);
    number max((double)stat->duration_max * duration_factor, avg_factor);
    number avg(avg_us, avg_factor);

    const double period_total_us = (double)stat->period_sum * tick;
    const double period_avg_us = period_total_us / (double)periods;
    char duty[VELT_STAT_NUMBER_SIZE + 2] = "";
    if (!counting) std::snprintf(duty, sizeof(duty), "%s%% ", number(avg_us / period_avg_us, 100).text);

    VELT_PRINTF(file, "FIRMWARE: %s %s", prefix, description);
    VELT_PRINTF(file, "%s %sn=%ld, total=%s %s, min=%s, max=%s, avg=%s %s%s\n", counting ? " x:      " : "", duty,
                (long)num, total.text, total_unit, min.text, max.text, avg.text, avg_unit, suffix);

    in_unit period_total(period_total_us);
    in_unit period_avg(period_avg_us);
    number period_min((double)stat->period_min * tick, period_avg.factor);
    number period_max((double)stat->period_max * tick, period_avg.factor);
    VELT_PRINTF(file, "%*s", (int)(std::strlen(description) + std::strlen(prefix) + 11), "");
    VELT_PRINTF(file, "%s n=%ld, total=%s %s, min=%s, max=%s, avg=%s %s\n", counting ? " period: " : " period:",
                (long)(num - 1), period_total.text, period_total.unit, period_min.text, period_max.text,
                period_avg.text, period_avg.unit);
}

void bench_entire_loop(velt_bench_fn fn, velt_bench_fn finish, void* ctx, velt_stat_t* stat, UINT32 count)
{
    velt_stat_mark_start(stat);
    for (UINT32 i = 0; i < count; ++i) fn(ctx);
    if (finish != nullptr) finish(ctx);
    velt_stat_mark_end(stat);
}

void bench_each_iteration(velt_bench_fn fn, velt_bench_fn finish, void* ctx, velt_stat_t* stat, UINT64 duration_us)
{
    const UINT64 begin = tv_to_microseconds(velt_sys_time_get());
    do {
        velt_stat_mark_start(stat);  // closes the previous iteration
        fn(ctx);
    } while (tv_to_microseconds(load_mark(stat)) - begin < duration_us);
    if (finish != nullptr) finish(ctx);
    velt_stat_mark_end(stat);
}

double velt_stat_bench2(velt_bench_fn fn, velt_bench_fn finish, void* ctx, double seconds, const char* name)
{
    std::printf("testing %s ... \n", name);
    velt_stat_t stat{};
    stat.initialized = 1;
    stat.description = name;
    stat.description2 = "";
    bench_each_iteration(fn, finish, ctx, &stat, (UINT64)(seconds * 1000000));
    velt_stat_show(&stat, "each iteration ");
    const UINT32 n = stat.num;
    stat.num = 0;
    bench_entire_loop(fn, finish, ctx, &stat, n);
    stat.num = n;  // the loop was one measurement of n iterations
    const double average = velt_stat_show_avg(&stat, "overall        ");
    std::printf("\n");
    return average;
}
