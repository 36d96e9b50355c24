// Where a start goes, in-process, as kavoctl makes it: image inspection, chip
// creation, the library's device initialisation (split at the bus
// transactions that begin each of its phases), one status command, release.
// The first run is the process's first (cold caches, fresh pages, as in a
// kavoctl run); the repeated run is the steady state. Times are CPU times of
// the thread (the virtual device runs on it).
#include <benchmark/benchmark.h>

#include <time.h>

#include <chrono>
#include <cstdio>
#include <string>

#include "kavo/kavo_api.h"
#include "kavo_sim/kavo_sim.h"

namespace {

/* The thread's CPU time: on a shared machine, wall time would also count the
   other programs' turns. */
struct clock_type {
    using duration = std::chrono::nanoseconds;
    using time_point = std::chrono::time_point<clock_type, duration>;
    static time_point now()
    {
        timespec ts;
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
        return time_point(duration(INT64(ts.tv_sec) * 1000000000 + ts.tv_nsec));
    }
};

// The phases of a cold start, each begun by the first transaction of its kind.
enum phase { CHECKS, RAM_CLEAR, RAM_TEST, DOWNLOAD, START_UP, CONNECT, NUM_PHASES };
const char* const PHASE_NAMES[NUM_PHASES] = {"init_checks_us", "ram_clear_us", "ram_test_us",
                                             "download_us",    "start_up_us",  "connect_and_logs_us"};
clock_type::time_point phase_start[NUM_PHASES];
bool phase_seen[NUM_PHASES];
UINT64 transactions = 0;

const qspi_callout_api_st* chip_bus = nullptr;
void mark(phase p)
{
    if (!phase_seen[p]) {
        phase_seen[p] = true;
        phase_start[p] = clock_type::now();
    }
}
UINT32 bus_read(void* c, UINT32 b, UINT32 d, UINT32 a, UINT32* v)
{
    ++transactions;
    return chip_bus->qspi_read(c, b, d, a, v);
}
UINT32 bus_write(void* c, UINT32 b, UINT32 d, UINT32 a, UINT32 v)
{
    ++transactions;
    if (a == kavo_sim::map::OCR_INIT_CTRL && v != 0) mark(RAM_CLEAR);
    if (a == kavo_sim::map::CA53_CTRL4) mark(START_UP);
    return chip_bus->qspi_write(c, b, d, a, v);
}
UINT32 bus_bread(void* c, UINT32 b, UINT32 d, UINT32 n, UINT32 a, UINT32* p)
{
    ++transactions;
    return chip_bus->qspi_bread(c, b, d, n, a, p);
}
UINT32 bus_bwrite(void* c, UINT32 b, UINT32 d, UINT32 n, UINT32 a, UINT32* p)
{
    ++transactions;
    if (a == 0 && phase_seen[RAM_CLEAR]) mark(phase_seen[RAM_TEST] ? DOWNLOAD : RAM_TEST);
    if (a == kavo_sim::map::REQUEST) mark(CONNECT);
    return chip_bus->qspi_bwrite(c, b, d, n, a, p);
}
qspi_callout_api_st bus = {bus_read, bus_write, bus_bread, bus_bwrite};
FILE* devnull = nullptr;
int log_print(void*, FILE*, const char*, ...) { return 0; }
void* log_init(UINT32, UINT32, const char*) { return &devnull; }
tavo_callout_api_st callouts = {&bus, log_print, log_init, nullptr};

double us(clock_type::time_point a, clock_type::time_point b)
{
    return std::chrono::duration<double, std::micro>(b - a).count();
}

void BM_start(benchmark::State& state)
{
    const std::string image = std::string(kavo_sim_firmware_dir()) + "/kavo_fw_app_reva.mem";
    chip_bus = kavo_sim::callouts()->qspi_callout_api_ctx;
    double sums[NUM_PHASES + 6] = {};
    UINT64 count = 0;
    transactions = 0;
    for (auto _ : state) {
        for (bool& seen : phase_seen) seen = false;
        const auto t0 = clock_type::now();
        if (!kavo_sim::image_inspect_file(image.c_str()).problem.empty()) state.SkipWithError("image");
        const auto t1 = clock_type::now();
        kavo_sim::chip_config cfg;
        cfg.bus_transaction_ns = kavo_sim::QSPI_TRANSACTION_NS;
        if (kavo_sim::chip_create(0, cfg) != VELT_SUCCESS) state.SkipWithError("chip");
        const auto t2 = clock_type::now();
        kavo_sdk_init(&callouts);
        kavo_fw_filename_set(image.c_str());
        mark(CHECKS);
        if (kavo_device_init(0, KAVO_INIT_AUTO) != VELT_SUCCESS) state.SkipWithError("init");
        const auto t3 = clock_type::now();
        kavo_status_info_t status;
        if (kavo_device_status_get(0, &status) != VELT_SUCCESS) state.SkipWithError("status");
        const auto t4 = clock_type::now();
        kavo_device_uninit(0, 0);
        kavo_sim::chip_destroy(0);
        const auto t5 = clock_type::now();
        for (int p = 0; p < NUM_PHASES; ++p) {
            const auto end = p + 1 < NUM_PHASES ? phase_start[p + 1] : t3;
            sums[p] += phase_seen[p] ? us(phase_start[p], end) : 0.0;
        }
        sums[NUM_PHASES + 0] += us(t0, t1);
        sums[NUM_PHASES + 1] += us(t1, t2);
        sums[NUM_PHASES + 2] += us(t2, t3);
        sums[NUM_PHASES + 3] += us(t3, t4);
        sums[NUM_PHASES + 4] += us(t4, t5);
        sums[NUM_PHASES + 5] += us(t0, t5);
        ++count;
    }
    const double n = double(count);
    for (int p = 0; p < NUM_PHASES; ++p) state.counters[PHASE_NAMES[p]] = sums[p] / n;
    state.counters["image_check_us"] = sums[NUM_PHASES + 0] / n;
    state.counters["chip_create_us"] = sums[NUM_PHASES + 1] / n;
    state.counters["device_init_us"] = sums[NUM_PHASES + 2] / n;
    state.counters["status_us"] = sums[NUM_PHASES + 3] / n;
    state.counters["release_us"] = sums[NUM_PHASES + 4] / n;
    state.counters["total_us"] = sums[NUM_PHASES + 5] / n;
    state.counters["bus_transactions"] = double(transactions) / n;
}
// Registered first: the process's first start is the one kavoctl makes.
BENCHMARK(BM_start)->Name("start_first")->Iterations(1)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_start)->Name("start_repeated")->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
