// The socket path's figures: the bare round trip of one 24-byte message over a
// Unix socket pair between two processes, and library commands a second
// through kavo-simd with one client and with two clients on two chips of one
// daemon. The floor of the socket path is 1 / (bus transactions per command x
// round trip): every bus transaction is one message and its answer.
//
// Every client is a process of its own (the library keeps one socket per
// process); the daemon is this build's kavo-simd (KAVO_SIMD overrides it).
// The three measurements are interleaved in short slices (the round trip, one
// client alone, both clients at once), so that load from elsewhere on the
// machine touches all figures alike. KAVO_BENCH_SOCKET_SLICE_MS sets a slice's
// length (default 5 ms), KAVO_BENCH_SOCKET_SLICES their number (default 200).
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "kavo/kavo_api.h"
#include "kavo_sim/kavo_sim.h"

namespace {

using steady = std::chrono::steady_clock;

int env_int(const char* name, int fallback)
{
    const char* v = std::getenv(name);
    return v && std::atoi(v) > 0 ? std::atoi(v) : fallback;
}
const int SLICE_MS = env_int("KAVO_BENCH_SOCKET_SLICE_MS", 5);
const int SLICES = env_int("KAVO_BENCH_SOCKET_SLICES", 200);

double seconds_since(steady::time_point t0) { return std::chrono::duration<double>(steady::now() - t0).count(); }

bool write_all(int fd, const void* p, size_t n) { return ::write(fd, p, n) == ssize_t(n); }
bool read_all(int fd, void* p, size_t n) { return ::recv(fd, p, n, MSG_WAITALL) == ssize_t(n); }
[[noreturn]] void fail(const char* what)
{
    std::fprintf(stderr, "bench_socket: %s\n", what);
    std::exit(1);
}

/* A child that echoes 24-byte messages (a register transaction's size) on a
   socket pair; round trips of this process with it are the floor. */
struct echo_process {
    int fd = -1;
    pid_t pid = -1;
    echo_process()
    {
        int sv[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) fail("socketpair");
        pid = ::fork();
        if (pid == 0) {
            ::close(sv[0]);
            char m[24];
            while (read_all(sv[1], m, sizeof(m)) && write_all(sv[1], m, sizeof(m))) {
            }
            ::_exit(0);
        }
        ::close(sv[1]);
        fd = sv[0];
        round_trips(1000); // both processes running and warm
    }
    ~echo_process()
    {
        ::close(fd);
        ::waitpid(pid, nullptr, 0);
    }
    void round_trips(long n)
    {
        char m[24] = {};
        for (long i = 0; i < n; ++i)
            if (!write_all(fd, m, sizeof(m)) || !read_all(fd, m, sizeof(m))) fail("echo");
    }
    /* Round trips for about `ms`; seconds spent and how many. */
    void slice(int ms, double& seconds, double& count)
    {
        const auto t0 = steady::now();
        double t = 0;
        while ((t = seconds_since(t0)) * 1000 < ms) {
            round_trips(64);
            count += 64;
        }
        seconds += t;
    }
};

/* kavo-simd with `chips` chips on a socket of its own, stopped on destruction. */
struct daemon_process {
    std::string path = "/tmp/kavo_bench_socket_" + std::to_string(::getpid()) + ".sock";
    pid_t pid = -1;

    explicit daemon_process(UINT32 chips)
    {
        const char* env = std::getenv("KAVO_SIMD");
        const std::string simd = env ? env : std::string(KAVO_SIM_TOOLS_DIR) + "/kavo-simd";
        const std::string n = std::to_string(chips);
        pid = ::fork();
        if (pid == 0) {
            if (!std::freopen("/dev/null", "w", stdout)) ::_exit(126);
            ::execl(simd.c_str(), simd.c_str(), "--socket", path.c_str(), "--chips", n.c_str(), nullptr);
            ::_exit(127);
        }
        for (int i = 0; i < 2000; ++i) {
            sim_chip_info_t info;
            if (kavo_sim::socket_chip_info(path.c_str(), 0, &info) == VELT_SUCCESS) return;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        fail("kavo-simd did not start");
    }
    ~daemon_process()
    {
        kavo_sim::socket_shutdown(path.c_str());
        ::waitpid(pid, nullptr, 0);
    }
};

// Bus transactions the library made, counted between the library and the socket.
UINT64 transactions = 0;
qspi_callout_api_st* socket_bus = nullptr;
UINT32 count_read(void* c, UINT32 b, UINT32 d, UINT32 a, UINT32* v)
{
    ++transactions;
    return socket_bus->qspi_read(c, b, d, a, v);
}
UINT32 count_write(void* c, UINT32 b, UINT32 d, UINT32 a, UINT32 v)
{
    ++transactions;
    return socket_bus->qspi_write(c, b, d, a, v);
}
UINT32 count_bread(void* c, UINT32 b, UINT32 d, UINT32 n, UINT32 a, UINT32* p)
{
    ++transactions;
    return socket_bus->qspi_bread(c, b, d, n, a, p);
}
UINT32 count_bwrite(void* c, UINT32 b, UINT32 d, UINT32 n, UINT32 a, UINT32* p)
{
    ++transactions;
    return socket_bus->qspi_bwrite(c, b, d, n, a, p);
}

/* What a client reports for one slice. */
struct slice_result {
    double commands = 0, transactions = 0, seconds = 0;
};

/* A client process with its device up on chip `id` of the daemon, driven over
   a socket pair: each byte received asks for one slice of status commands
   (the library's `status` with its reply payload), answered with its
   slice_result; end of file ends it. */
struct client_process {
    int fd = -1;
    pid_t pid = -1;

    client_process(const std::string& path, UINT32 id)
    {
        int sv[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) fail("socketpair");
        pid = ::fork();
        if (pid == 0) {
            ::close(sv[0]);
            serve(path, id, sv[1]);
        }
        ::close(sv[1]);
        fd = sv[0];
        char ready;
        if (!read_all(fd, &ready, 1)) fail("a client could not bring its device up");
    }
    ~client_process()
    {
        ::close(fd);
        ::waitpid(pid, nullptr, 0);
    }
    void start() const
    {
        if (!write_all(fd, "s", 1)) fail("client gone");
    }
    slice_result finish() const
    {
        slice_result r;
        if (!read_all(fd, &r, sizeof(r))) fail("a command failed");
        return r;
    }

    [[noreturn]] static void serve(const std::string& path, UINT32 id, int control)
    {
        if (!std::freopen("/dev/null", "w", stdout)) ::_exit(126);
        tavo_callout_api_st* table = kavo_sim::socket_callouts(path.c_str());
        if (!table) ::_exit(1);
        socket_bus = table->qspi_callout_api_ctx;
        static qspi_callout_api_st counted = {count_read, count_write, count_bread, count_bwrite};
        static tavo_callout_api_st callouts = *table;
        callouts.qspi_callout_api_ctx = &counted;
        kavo_sdk_init(&callouts);
        kavo_function_logging_set(0);
        kavo_fw_filename_set(KAVO_FW_IMAGE_DIR "/kavo_fw_app_revx.mem");
        if (kavo_device_init(id, KAVO_INIT_COLD) != VELT_SUCCESS) ::_exit(2);
        kavo_status_info_t status;
        for (int i = 0; i < 200; ++i)
            if (kavo_device_status_get(id, &status) != VELT_SUCCESS) ::_exit(3);
        char b = 0;
        if (!write_all(control, &b, 1)) ::_exit(4);
        while (::read(control, &b, 1) == 1) {
            slice_result r;
            transactions = 0;
            const auto t0 = steady::now();
            while ((r.seconds = seconds_since(t0)) * 1000 < SLICE_MS) {
                for (int i = 0; i < 4; ++i, ++r.commands)
                    if (kavo_device_status_get(id, &status) != VELT_SUCCESS) ::_exit(5);
            }
            r.transactions = double(transactions);
            if (!write_all(control, &r, sizeof(r))) ::_exit(6);
        }
        kavo_device_uninit(id, 0);
        ::_exit(0);
    }
};

void BM_socket_path(benchmark::State& state)
{
    daemon_process d(2);
    echo_process echo;
    client_process first(d.path, 0), second(d.path, 1);
    double rtt_s = 0, rtt_n = 0, one_s = 0, one_n = 0, one_tx = 0, two_s = 0, two_n = 0;
    for (auto _ : state) {
        for (int i = 0; i < SLICES; ++i) {
            echo.slice(SLICE_MS, rtt_s, rtt_n);
            first.start();
            const slice_result one = first.finish();
            one_s += one.seconds;
            one_n += one.commands;
            one_tx += one.transactions;
            first.start();
            second.start();
            const slice_result a = first.finish(), b = second.finish();
            two_s += (a.seconds + b.seconds) / 2;
            two_n += a.commands + b.commands;
        }
        state.SetIterationTime(one_s / one_n);
    }
    const double rtt = rtt_s / rtt_n, one = one_n / one_s, two = two_n / two_s, per_command = one_tx / one_n;
    state.counters["round_trip_us"] = rtt * 1e6;
    state.counters["transactions_per_command"] = per_command;
    state.counters["one_client_commands_per_s"] = one;
    state.counters["floor_commands_per_s"] = 1 / (per_command * rtt);
    state.counters["floor_fraction"] = one * per_command * rtt;
    state.counters["two_clients_commands_per_s"] = two;
    state.counters["two_vs_one"] = two / one;
}
BENCHMARK(BM_socket_path)->Name("socket_status_commands")->UseManualTime()->Iterations(1)->Unit(benchmark::kMicrosecond);

void BM_round_trip(benchmark::State& state)
{
    echo_process echo;
    for (auto _ : state)
        echo.round_trips(1);
}
BENCHMARK(BM_round_trip)->Name("socket_bare_round_trip")->UseRealTime();

} // namespace

BENCHMARK_MAIN();
