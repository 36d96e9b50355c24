// Command-path figures on the in-process virtual device (synchronous mode):
// bus transactions and heap allocations per command, library-side CPU time,
// the cost of trace and statistics, two-device throughput, download speed.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <x86intrin.h>

#include <atomic>
#include <cstdarg>
#include <chrono>
#include <cstdio>
#include <sys/types.h>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <algorithm>
#include <map>

#include "kavo/kavo_api.h"
#include "kavo_command_cases.h"
#include "kavo_device.h"
#include "kavo_sim/kavo_sim.h"
#include "velt_function_stats.h"
#include "velt_library_options.h"

// Every allocation made outside the device's callouts is the library's.
static std::atomic<UINT64> allocations{0};
static thread_local bool in_device = false;
extern "C" void* __libc_malloc(size_t);
extern "C" void* malloc(size_t size)
{
    if (!in_device) allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_malloc(size);
}

namespace {

// Time spent inside the device: every callout is wrapped and timed, so the
// library's own time is the total minus this.
thread_local UINT64 device_ticks = 0;
qspi_callout_api_st* device_bus = nullptr;

struct tick_guard {
    tick_guard() { in_device = true; }
    ~tick_guard()
    {
        device_ticks += __rdtsc() - start;
        in_device = false;
    }
    UINT64 start = __rdtsc();
};
UINT32 timed_read(void* c, UINT32 b, UINT32 d, UINT32 a, UINT32* v)
{
    tick_guard g;
    return device_bus->qspi_read(c, b, d, a, v);
}
UINT32 timed_write(void* c, UINT32 b, UINT32 d, UINT32 a, UINT32 v)
{
    tick_guard g;
    return device_bus->qspi_write(c, b, d, a, v);
}
UINT32 timed_bread(void* c, UINT32 b, UINT32 d, UINT32 n, UINT32 a, UINT32* p)
{
    tick_guard g;
    return device_bus->qspi_bread(c, b, d, n, a, p);
}
UINT32 timed_bwrite(void* c, UINT32 b, UINT32 d, UINT32 n, UINT32 a, UINT32* p)
{
    tick_guard g;
    return device_bus->qspi_bwrite(c, b, d, n, a, p);
}
qspi_callout_api_st timed_bus = {timed_read, timed_write, timed_bread, timed_bwrite};

// Everything the library prints goes to a sink that counts its lines.
std::atomic<UINT64> lines_out{0};
ssize_t count_lines(void*, const char* data, size_t size)
{
    UINT64 n = 0;
    for (size_t i = 0; i < size; ++i) n += data[i] == '\n';
    lines_out.fetch_add(n, std::memory_order_relaxed);
    return ssize_t(size);
}
FILE* line_counter()
{
    cookie_io_functions_t io = {nullptr, count_lines, nullptr, nullptr};
    return fopencookie(nullptr, "w", io);
}

FILE* devnull = nullptr;
int null_log(void*, FILE* file, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    int n = std::vfprintf(file, format, args);
    va_end(args);
    return n;
}
void* log_init(UINT32, UINT32, const char*) { return &devnull; }
tavo_callout_api_st callouts = {&timed_bus, null_log, log_init, nullptr};
// The same without the timing wrappers, for throughput.
tavo_callout_api_st plain_callouts = {nullptr, null_log, log_init, nullptr};

double ticks_per_ns()
{
    static double value = [] {
        auto t0 = std::chrono::steady_clock::now();
        UINT64 c0 = __rdtsc();
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        UINT64 c1 = __rdtsc();
        auto t1 = std::chrono::steady_clock::now();
        return double(c1 - c0) / double(std::chrono::duration_cast<std::chrono::nanoseconds>(t1 - t0).count());
    }();
    return value;
}

void bring_up(UINT32 devices)
{
    static bool sdk = false;
    if (!sdk) {
        devnull = line_counter();
        device_bus = kavo_sim::callouts()->qspi_callout_api_ctx;
        plain_callouts.qspi_callout_api_ctx = device_bus;
        kavo_sdk_init(&callouts);
        kavo_fw_filename_set(KAVO_FW_IMAGE_DIR "/kavo_fw_app_revx.mem");
        sdk = true;
    }
    for (UINT32 id = 0; id < devices; ++id) {
        if (kavo_device_find(id) != nullptr) continue;
        kavo_sim::chip_create(id);
        kavo_function_logging_set(0);
        if (kavo_device_init(id, KAVO_INIT_COLD) != VELT_SUCCESS) std::abort();
    }
    kavo_function_logging_set(0);
    velt_option_function_stats.value = false;
}

UINT64 bus_transactions(UINT32 id)
{
    const kavo_sim::journal_counters c = kavo_sim::chip_get(id)->counters();
    return c.reads + c.writes + c.burst_reads + c.burst_writes;
}

// A command whose reply carries no payload (configuration) and one whose reply does (status).
VELT_ERROR command_without_payload(UINT32 id)
{
    static kavo_config_t cfg = [] {
        kavo_config_t c;
        c.device_mode = KAVO_DEVICE_MODE_1200G_ENET;
        return c;
    }();
    return kavo_device_config(id, &cfg);
}
VELT_ERROR command_with_payload(UINT32 id)
{
    kavo_status_info_t status;
    return kavo_device_status_get(id, &status);
}

// MACsec: a frame protected by the engine (its reply payload is the frame), and
// an SA's packet number read back in the reply's fields.
UINT32 macsec_sa_id = 0;
VELT_ERROR macsec_frame(UINT32 id)
{
    static bool ready = false;
    if (!ready) {
        kavo_macsec_vport_config_t vport;
        kavo_macsec_rule_config_t rule;
        kavo_macsec_sa_config_t sa;
        sa.sa_type.egress.pn_threshold_hi = 0xFFFFFFFF; // no notifications
        UINT32 vport_id = 0, rule_id = 0;
        if (kavo_macsec_vport_add(id, 0, KAVO_MACSEC_EGRESS_DIRECTION, 1, &vport, &vport_id) != VELT_SUCCESS ||
            kavo_macsec_rule_add(id, vport_id, &rule, &rule_id) != VELT_SUCCESS ||
            kavo_macsec_sa_add(id, vport_id, &sa, &macsec_sa_id) != VELT_SUCCESS)
            return VELT_ERR_FAIL;
        ready = true;
    }
    static UINT8 in[64] = {0xD6, 0x09, 0xB1, 0xF0, 0x56, 0x63, 0x7A, 0x0D, 0x46, 0xDF, 0x99, 0x8D, 0x08, 0x00};
    UINT8 out[128];
    UINT32 size = sizeof(out);
    return kavo_macsec_fips_test(id, 0, KAVO_MACSEC_EGRESS_DIRECTION, in, sizeof(in), 0, out, &size);
}
VELT_ERROR macsec_pn_get(UINT32 id)
{
    UINT32 lo = 0, hi = 0;
    return kavo_macsec_sa_next_pn_get(id, macsec_sa_id, &lo, &hi);
}

template <VELT_ERROR (*command)(UINT32)>
void BM_command(benchmark::State& state)
{
    bring_up(1);
    const bool trace = state.range(0) != 0;
    kavo_function_logging_set(trace);
    kavo_status_logging_set(trace);
    if (trace) callouts.log_api = null_log;
    const UINT64 bus0 = bus_transactions(0);
    const UINT64 alloc0 = allocations.load();
    const UINT64 device0 = device_ticks;
    const UINT64 lines0 = lines_out.load();
    const auto t0 = std::chrono::steady_clock::now();
    for (auto _ : state)
        if (command(0) != VELT_SUCCESS) state.SkipWithError("command failed");
    std::fflush(devnull);
    const double ns = std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - t0).count();
    const double n = double(state.iterations());
    state.counters["lines_per_cmd"] = double(lines_out.load() - lines0) / n;
    const double device_ns = double(device_ticks - device0) / ticks_per_ns();
    state.counters["bus_per_cmd"] = double(bus_transactions(0) - bus0) / n;
    state.counters["allocs_per_cmd"] = double(allocations.load() - alloc0) / n;
    state.counters["total_us"] = ns / n / 1000.0;
    state.counters["device_us"] = device_ns / n / 1000.0;
    state.counters["library_us"] = (ns - device_ns) / n / 1000.0;
    kavo_function_logging_set(0);
    kavo_status_logging_set(0);
}
BENCHMARK(BM_command<command_without_payload>)->Name("config_no_reply_payload")->Arg(0)->Arg(1);
BENCHMARK(BM_command<command_with_payload>)->Name("status_with_reply_payload")->Arg(0)->Arg(1);
BENCHMARK(BM_command<macsec_frame>)->Name("macsec_fips_test_64_bytes")->Arg(0);
BENCHMARK(BM_command<macsec_pn_get>)->Name("macsec_sa_next_pn_get")->Arg(0);

// Statistics on: the timing guard every counted command runs.
void BM_statistics_guard(benchmark::State& state)
{
    velt_option_function_stats.value = true;
    static velt_function_stats stats("bench_statistics_guard");
    velt_option_function_stats.value = false;
    for (auto _ : state) {
        velt_function_stat_measure measure(&stats);
        benchmark::DoNotOptimize(&measure);
    }
}
BENCHMARK(BM_statistics_guard)->Name("statistics_guard_on");

// Commands per second with one thread on one device, and two threads on two devices.
void BM_throughput(benchmark::State& state)
{
    const UINT32 threads = (UINT32)state.range(0);
    bring_up(threads);
    // KAVO_BENCH_THROUGHPUT_COMMANDS: commands per thread and iteration (bench/report takes fewer).
    const char* env = std::getenv("KAVO_BENCH_THROUGHPUT_COMMANDS");
    const int per_thread = env && std::atoi(env) > 0 ? std::atoi(env) : 200000;
    kavo_sdk_init(&plain_callouts);
    double seconds = 0;
    for (auto _ : state) {
        const auto t0 = std::chrono::steady_clock::now();
        std::vector<std::thread> workers;
        for (UINT32 t = 0; t < threads; ++t)
            workers.emplace_back([t, per_thread] {
                for (int i = 0; i < per_thread; ++i) command_with_payload(t);
            });
        for (auto& w : workers) w.join();
        seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    }
    state.counters["commands_per_s"] = double(threads) * per_thread * double(state.iterations()) / seconds;
    kavo_sdk_init(&callouts);
}
BENCHMARK(BM_throughput)->Name("throughput_threads_devices")->Arg(1)->Arg(2)->UseRealTime()->Iterations(10)->Repetitions(3)->ReportAggregatesOnly(true);

// Host-side download speed of a 3 MiB image: the library's time, the device's excluded.
void BM_download(benchmark::State& state)
{
    bring_up(1);
    static const std::string path = [] {
        kavo_sim::image_version v;
        v.body_size = 3u << 20;
        std::string p = "/tmp/kavo_bench_download.mem";
        kavo_sim::image_write(p.c_str(), v, false);
        return p;
    }();
    kavo_fw_filename_set(path.c_str());
    kavo_device* device = kavo_device_find(0);
    double library_ns = 0, bytes = 0;
    for (auto _ : state) {
        const UINT64 device0 = device_ticks;
        const auto t0 = std::chrono::steady_clock::now();
        if (device->download_fw() != VELT_SUCCESS) state.SkipWithError("download failed");
        const double ns = std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - t0).count();
        library_ns += ns - double(device_ticks - device0) / ticks_per_ns();
        bytes += double(3u << 20);
    }
    state.counters["host_GB_per_s"] = bytes / library_ns;
    state.SetBytesProcessed((int64_t)bytes);
    kavo_fw_filename_set(KAVO_FW_IMAGE_DIR "/kavo_fw_app_revx.mem");
}
BENCHMARK(BM_download)->Name("firmware_download_3MiB")->Unit(benchmark::kMillisecond);

// The firmware's debug logs read and decoded into lines: each round the
// firmware writes a batch of entries (untimed), then one dump decodes them.
void BM_debug_log_decode(benchmark::State& state)
{
    bring_up(1);
    kavo_device* device = kavo_device_find(0);
    FILE* sink = line_counter();
    device->dump_firmware_info(sink, KAVO_FW_LOG_DUMP_DBG); // what start-up wrote
    std::fflush(sink);
    const int batch = int(state.range(0));
    UINT64 lines = 0;
    for (auto _ : state) {
        state.PauseTiming();
        for (int i = 0; i < batch; ++i)
            if (kavo_debug_cmd(0, "log a debug-log entry for the decoder", 0, nullptr) != VELT_SUCCESS)
                state.SkipWithError("debug command failed");
        const UINT64 before = lines_out.load();
        state.ResumeTiming();
        device->dump_firmware_info(sink, KAVO_FW_LOG_DUMP_DBG);
        std::fflush(sink);
        lines += lines_out.load() - before;
    }
    std::fclose(sink);
    state.counters["entries_per_s"] = benchmark::Counter(double(lines), benchmark::Counter::kIsRate);
    state.counters["entries_per_dump"] = double(lines) / double(state.iterations());
}
BENCHMARK(BM_debug_log_decode)->Name("debug_log_decode")->Arg(100)->Unit(benchmark::kMicrosecond);

// Every regular command of the tables, its reply scripted to the payload the
// command takes: bus transactions and heap allocations per command, trace and
// statistics off. The figures per family are summed up after the run.
struct command_figures {
    const char* family;
    double bus, allocs;
};
std::map<std::string, command_figures> table_figures; // by command, the last run's

void BM_table(benchmark::State& state, const kavo_test::wire_case* c, bool trace)
{
    bring_up(1);
    std::vector<UINT8> reply(c->reply_size, 0x5A);
    {
        in_device = true; // the script is the device's, not the library's
        kavo_sim::scripted_reply script;
        script.data = reply;
        script.repeat = true;
        kavo_sim::fault_config f;
        f.scripted.push_back(script);
        kavo_sim::chip_get(0)->faults(f);
        in_device = false;
    }
    kavo_test::wire_run run;
    run.reply = reply.data();
    run.data_size = UINT32(reply.size());
    run.expectations = false;
    kavo_function_logging_set(trace);
    kavo_status_logging_set(trace);
    const UINT64 bus0 = bus_transactions(0);
    const UINT64 alloc0 = allocations.load();
    const UINT64 device0 = device_ticks;
    const UINT64 lines0 = lines_out.load();
    const auto t0 = std::chrono::steady_clock::now();
    for (auto _ : state)
        if (c->run(run) != VELT_SUCCESS) state.SkipWithError("command failed");
    std::fflush(devnull);
    const double ns = std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - t0).count();
    kavo_function_logging_set(0);
    kavo_status_logging_set(0);
    const double n = double(state.iterations());
    const double bus = double(bus_transactions(0) - bus0) / n, allocs = double(allocations.load() - alloc0) / n;
    const double device_ns = double(device_ticks - device0) / ticks_per_ns();
    state.counters["bus_per_cmd"] = bus;
    state.counters["allocs_per_cmd"] = allocs;
    state.counters["library_us"] = (ns - device_ns) / n / 1000.0;
    state.counters["device_us"] = device_ns / n / 1000.0;
    state.counters["total_us"] = ns / n / 1000.0;
    state.counters["lines_per_cmd"] = double(lines_out.load() - lines0) / n;
    in_device = true;
    kavo_sim::chip_get(0)->faults(kavo_sim::fault_config{});
    if (!trace) table_figures[c->name] = command_figures{c->family, bus, allocs};
    in_device = false;
}

}  // namespace

int main(int argc, char** argv)
{
    for (size_t i = 0; i < kavo_test::NUM_WIRE_CASES; ++i) {
        const kavo_test::wire_case* c = &kavo_test::WIRE_CASES[i];
        benchmark::RegisterBenchmark((std::string("table/") + c->family + "/" + c->name).c_str(), BM_table, c, false);
        benchmark::RegisterBenchmark((std::string("trace/") + c->family + "/" + c->name).c_str(), BM_table, c, true);
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    struct family_figures {
        double min_bus = 1e9, max_bus = 0, max_allocs = 0;
        int commands = 0;
    };
    std::map<std::string, family_figures> families;
    for (const auto& [name, c] : table_figures) {
        family_figures& f = families[c.family];
        f.min_bus = std::min(f.min_bus, c.bus);
        f.max_bus = std::max(f.max_bus, c.bus);
        f.max_allocs = std::max(f.max_allocs, c.allocs);
        f.commands += 1;
    }
    if (!families.empty()) {
        std::printf("\n%-10s %8s %12s %12s %14s\n", "family", "commands", "min bus/cmd", "max bus/cmd",
                    "max allocs/cmd");
        for (const auto& [family, f] : families)
            std::printf("%-10s %8d %12.2f %12.2f %14.4f\n", family.c_str(), f.commands, f.min_bus, f.max_bus,
                        f.max_allocs);
    }
    benchmark::Shutdown();
    return 0;
}
