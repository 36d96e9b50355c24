/* Timing statistics: an elapsed-time statistic in microseconds from the
   monotonic clock, the unit and number formatting of its texts, the printer of
   the statistics the firmware keeps about itself, and a two-phase
   micro-benchmark. Host texts go to standard output through the print callout. */
#ifndef VELT_STAT_H
#define VELT_STAT_H

#include <cstdio>

#include "kavo/kavo_api.h"
#include "velt_sys.h"

/* One elapsed-time statistic. Starts and ends may come from several threads
   (a command's statistic is shared by its callers): every field is accessed
   atomically, and a start while a measurement is open closes that one first,
   so overlapping calls count as back to back. */
struct velt_stat_t {
    UINT8 initialized;        /* the first start clears the counters and sets it */
    const char* description;  /* label: description followed by description2 */
    const char* description2;
    UINT32 num;               /* completed measurements */
    UINT64 total;             /* microseconds */
    UINT64 min;
    UINT64 max;
    union {                   /* time of the last start, read and written as one 64-bit word */
        velt_sys_timeval_t mark;
        UINT64 mark_word;
    };
    INT8 mark_started;        /* 1 while a measurement is open */
    INT8 display_average;
};

void velt_stat_mark_start(velt_stat_t* stat);
/* Ends at now, measured from the last mark even when none is open. */
void velt_stat_mark_end(velt_stat_t* stat);
void velt_stat_mark_cancel(velt_stat_t* stat);

void velt_stat_show(velt_stat_t* stat, const char* prefix);
/* Prints count, total and average; returns the average in microseconds. */
double velt_stat_show_avg(velt_stat_t* stat, const char* prefix);

/* Room every formatted number needs. */
constexpr size_t VELT_STAT_NUMBER_SIZE = 64;
/* Unit name for a duration in microseconds; *factor converts microseconds to it. */
const char* velt_sys_get_units(double microseconds, double* factor);
/* Formats value * factor into buffer (VELT_STAT_NUMBER_SIZE bytes); returns the
   position after a leading "-". */
char* velt_sys_print_time(double value, double factor, char* buffer);
/* "<value> <unit>" into buffer (2 * VELT_STAT_NUMBER_SIZE bytes); returns buffer. */
char* velt_stat_print_val(UINT32 microseconds, char* buffer);
void velt_stat_val_show(UINT32 microseconds, const char* label);

/* One statistic record kept by the firmware (ticks at 181 per microsecond). */
void velt_sys_fw_stat_show(FILE* file, velt_sys_fw_stats_t* stat, const char* prefix);

typedef void (*velt_bench_fn)(void* ctx);
/* Times count calls of fn (then finish) as one measurement. */
void bench_entire_loop(velt_bench_fn fn, velt_bench_fn finish, void* ctx, velt_stat_t* stat, UINT32 count);
/* Times each call of fn until duration_us have passed. */
void bench_each_iteration(velt_bench_fn fn, velt_bench_fn finish, void* ctx, velt_stat_t* stat, UINT64 duration_us);
/* Both phases over about `seconds`; returns the per-iteration average in microseconds. */
double velt_stat_bench2(velt_bench_fn fn, velt_bench_fn finish, void* ctx, double seconds, const char* name);

#endif /* VELT_STAT_H */
