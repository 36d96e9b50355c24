#include "kavo_simd_soak.h"

#include <chrono>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fstream>
#include <random>
#include <signal.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "kavo_sim/kavo_sim.h"

namespace kavo_test {
namespace {

using steady = std::chrono::steady_clock;

struct client_report {
    UINT64 commands = 0, mismatches = 0, failures = 0;
};

long fd_count(pid_t pid)
{
    long n = 0;
    if (DIR* d = ::opendir(("/proc/" + std::to_string(pid) + "/fd").c_str())) {
        while (dirent* e = ::readdir(d))
            n += e->d_name[0] != '.';
        ::closedir(d);
    }
    return n;
}

/* The daemon's descriptors once connections that ended are closed: the count
   after it has stayed the same for 300 ms (at most 10 s). */
long settled_fd_count(pid_t pid)
{
    long last = fd_count(pid);
    for (int same = 0, i = 0; same < 30 && i < 1000; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        const long now = fd_count(pid);
        same = now == last ? same + 1 : 0;
        last = now;
    }
    return last;
}

long rss_kib(pid_t pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(in, line);)
        if (line.rfind("VmRSS:", 0) == 0) return std::atol(line.c_str() + 6);
    return -1;
}

/* The client process: waits until the chip's previous owner is gone, brings
   the device up from cold, runs its commands and writes its report. */
[[noreturn]] void client_main(const std::string& path, UINT32 id, UINT64 commands, UINT32 seed, int out)
{
    if (!std::freopen("/dev/null", "w", stdout)) ::_exit(126);
    tavo_callout_api_st* table = nullptr;
    for (int i = 0; i < 200 && !(table = kavo_sim::socket_callouts(path.c_str())); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    if (!table) ::_exit(10);
    // A killed owner's connection is closed by the kernel; the daemon frees
    // the chip when it sees that, an instant later.
    UINT32 value = 0, status = 0;
    for (int i = 0; i < 200; ++i) {
        status = table->qspi_callout_api_ctx->qspi_read(nullptr, 0, id, kavo_sim::map::DEVICE_ID, &value);
        if (status != UINT32(KAVO_ERR_DEVICE_ID_IN_USE)) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (status != 0) ::_exit(11);
    kavo_sdk_init(table);
    kavo_function_logging_set(0);
    kavo_fw_filename_set(KAVO_FW_IMAGE_DIR "/kavo_fw_app_revx.mem");
    if (kavo_device_init(id, KAVO_INIT_COLD) != VELT_SUCCESS) ::_exit(12);

    client_report r;
    std::mt19937 rng(seed);
    UINT32 data[16], back[16];
    kavo_status_info_t info;
    for (UINT64 k = 0; k < commands; ++k, ++r.commands) {
        const UINT32 words = 1 + rng() % 16;
        for (UINT32 w = 0; w < words; ++w)
            data[w] = rng();
        std::memset(back, 0, sizeof(back));
        const VELT_ERROR rc = kavo_debug_ping(id, 4 * words, data, back);
        if (rc != VELT_SUCCESS)
            ++r.failures;
        else if (std::memcmp(data, back, 4 * words) != 0)
            ++r.mismatches;
        if (k % 64 == 63 && kavo_device_status_get(id, &info) != VELT_SUCCESS) ++r.failures;
    }
    kavo_device_uninit(id, 0);
    kavo_sim::socket_disconnect();
    ::_exit(::write(out, &r, sizeof(r)) == ssize_t(sizeof(r)) ? 0 : 13);
}

struct client {
    UINT32 id;
    pid_t pid;
    int out;         // read end of the report pipe
    int status = -1; // once reaped
};

client spawn(const std::string& path, UINT32 id, UINT64 commands, UINT32 seed)
{
    int p[2];
    if (::pipe(p) != 0) return {id, -1, -1};
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::close(p[0]);
        client_main(path, id, commands, seed, p[1]);
    }
    ::close(p[1]);
    return {id, pid, p[0]};
}

bool running(client& c)
{
    if (c.status == -1 && ::waitpid(c.pid, &c.status, WNOHANG) == 0) return true;
    return false;
}

/* Waits for a client; its report, or false if it failed. */
bool finish(client& c, client_report& r, std::string& error)
{
    if (c.status == -1) ::waitpid(c.pid, &c.status, 0);
    const bool read = ::read(c.out, &r, sizeof(r)) == ssize_t(sizeof(r));
    ::close(c.out);
    if (!WIFEXITED(c.status) || WEXITSTATUS(c.status) != 0 || !read) {
        error = "client on chip " + std::to_string(c.id) + " failed (exit status " +
                std::to_string(WIFEXITED(c.status) ? WEXITSTATUS(c.status) : -1) + ")";
        return false;
    }
    return true;
}

} // namespace

simd_soak_result run_simd_soak(const simd_soak_config& cfg)
{
    simd_soak_result res;
    const std::string path = "/tmp/kavo_simd_soak_" + std::to_string(::getpid()) + ".sock";
    const std::string log = "/tmp/kavo_simd_soak_" + std::to_string(::getpid()) + ".log";
    const std::string simd = std::string(KAVO_SIM_TOOLS_DIR) + "/kavo-simd";
    const std::string chips = std::to_string(cfg.clients);
    const pid_t daemon = ::fork();
    if (daemon == 0) {
        if (!std::freopen("/dev/null", "w", stdout) || !std::freopen(log.c_str(), "w", stderr)) ::_exit(126);
        ::execl(simd.c_str(), simd.c_str(), "--socket", path.c_str(), "--chips", chips.c_str(), nullptr);
        ::_exit(127);
    }
    sim_chip_info_t info;
    for (int i = 0; i < 500 && kavo_sim::socket_chip_info(path.c_str(), 0, &info) != VELT_SUCCESS; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));

    std::mt19937 rng(cfg.seed);
    // Warm-up: every chip booted once, the daemon's threads and buffers made.
    std::vector<client> clients;
    for (UINT32 id = 0; id < cfg.clients; ++id)
        clients.push_back(spawn(path, id, cfg.warmup_commands, rng()));
    client_report r;
    for (client& c : clients)
        if (!finish(c, r, res.error)) break;
    res.fds_start = settled_fd_count(daemon);
    res.rss_kib_start = rss_kib(daemon);

    const auto t0 = steady::now();
    clients.clear();
    for (UINT32 id = 0; res.error.empty() && id < cfg.clients; ++id)
        clients.push_back(spawn(path, id, cfg.commands, rng()));
    std::exponential_distribution<double> gap(1.0 / std::max<UINT32>(cfg.kill_every_ms, 1));
    while (res.error.empty() && res.kills < cfg.kills) {
        std::this_thread::sleep_for(std::chrono::microseconds(long(gap(rng) * 1000)));
        std::vector<client*> alive;
        for (client& c : clients)
            if (running(c)) alive.push_back(&c);
        if (alive.empty()) break;
        // Killed at a random moment: mid-command, mid-message or between them.
        client& victim = *alive[rng() % alive.size()];
        ::kill(victim.pid, SIGKILL);
        ::waitpid(victim.pid, nullptr, 0);
        ::close(victim.out);
        ++res.kills;
        victim = spawn(path, victim.id, cfg.commands, rng());
    }
    for (client& c : clients) {
        if (!finish(c, r, res.error)) continue;
        ++res.survivors;
        res.commands += r.commands;
        res.mismatches += r.mismatches;
        res.failures += r.failures;
    }
    res.seconds = std::chrono::duration<double>(steady::now() - t0).count();

    // The last connections close as their processes exit; let the daemon see it.
    res.fds_end = settled_fd_count(daemon);
    res.rss_kib_end = rss_kib(daemon);
    res.daemon_alive = ::waitpid(daemon, nullptr, WNOHANG) == 0 &&
                       kavo_sim::socket_chip_info(path.c_str(), 0, &info) == VELT_SUCCESS;
    kavo_sim::socket_shutdown(path.c_str());
    int status = 0;
    ::waitpid(daemon, &status, 0);
    std::ifstream in(log);
    for (std::string line; std::getline(in, line);)
        ++res.logged_lines;
    ::unlink(log.c_str());
    return res;
}

} // namespace kavo_test
