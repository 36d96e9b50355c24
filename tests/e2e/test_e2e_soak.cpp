// Long runs, short here: many devices and threads with commands mixed across
// families while the bus fails now and then, and many init/uninit cycles with
// failing inits among them. bench/soak runs the same with the long counts
// (KAVO_SOAK_COMMANDS, KAVO_SOAK_CYCLES) and under valgrind.
//
// Every command's outcome is checked: the right data, or a documented code
// with a bus failure seen during that very command. A bus failure may also
// leave a success whose payload read failed: the failure is reported to the
// application by its callout, so that data is not trusted and not checked.
#include <gtest/gtest.h>

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "kavo/kavo_api.h"
#include "kavo_sim/kavo_sim.h"
#include "kavo_test_device.h"

namespace {

UINT64 setting(const char* name, UINT64 fallback)
{
    const char* v = std::getenv(name);
    return v && *v ? std::strtoull(v, nullptr, 0) : fallback;
}

// The callouts: the in-process chips behind a tap that counts failed
// transactions per thread (the library calls them on the calling thread) and
// checks each device's request sequence numbers.
const qspi_callout_api_st* chip_bus = nullptr;
thread_local UINT64 bus_failures = 0;
struct sequence_check {
    bool seen = false;
    UINT32 last = 0;
    UINT64 repeats = 0, requests = 0;
};
sequence_check sequences[kavo_sim::MAX_CHIPS]; // each touched under its device's lock only

UINT32 tapped(UINT32 status)
{
    if (status != 0) ++bus_failures;
    return status;
}
UINT32 tap_read(void* c, UINT32 b, UINT32 d, UINT32 a, UINT32* v) { return tapped(chip_bus->qspi_read(c, b, d, a, v)); }
UINT32 tap_write(void* c, UINT32 b, UINT32 d, UINT32 a, UINT32 v) { return tapped(chip_bus->qspi_write(c, b, d, a, v)); }
UINT32 tap_bread(void* c, UINT32 b, UINT32 d, UINT32 n, UINT32 a, UINT32* p)
{
    return tapped(chip_bus->qspi_bread(c, b, d, n, a, p));
}
UINT32 tap_bwrite(void* c, UINT32 b, UINT32 d, UINT32 n, UINT32 a, UINT32* p)
{
    if (a == kavo_sim::map::REQUEST && n >= 2 && d < kavo_sim::MAX_CHIPS) {
        sequence_check& s = sequences[d];
        if (s.seen && p[1] != s.last + 1) ++s.repeats;
        s.seen = true;
        s.last = p[1];
        ++s.requests;
    }
    return tapped(chip_bus->qspi_bwrite(c, b, d, n, a, p));
}
qspi_callout_api_st tap = {tap_read, tap_write, tap_bread, tap_bwrite};
std::atomic<UINT64> log_lines{0};
int quiet_log(void*, FILE*, const char*, ...)
{
    log_lines.fetch_add(1, std::memory_order_relaxed);
    return 0;
}
void* log_context(UINT32, UINT32, const char*) { return nullptr; }
tavo_callout_api_st callouts = {&tap, quiet_log, log_context, nullptr};

/* Resident memory (KiB) of this process, also without the chips' on-chip RAM
   (mappings named "kavo chip RAM" where the system names them: the firmware's
   log rings fill its pages as they go round, bounded, not a leak), and open
   descriptors. */
struct usage {
    long rss_kib = 0, host_rss_kib = 0;
    int fds = 0;
    bool chip_ram_named = false; // the system names mappings: host_rss_kib leaves the chips' RAM out
};
usage measure()
{
    usage u;
    if (FILE* f = std::fopen("/proc/self/smaps", "r")) {
        char line[512];
        bool chip_ram = false;
        while (std::fgets(line, sizeof(line), f)) {
            unsigned long lo = 0, hi = 0, inode = 1;
            char path[256] = "";
            if (std::sscanf(line, "%lx-%lx %*s %*s %*s %lu %255s", &lo, &hi, &inode, path) >= 3) {
                (void)lo, (void)hi, (void)inode;
                chip_ram = std::strcmp(path, "[anon:kavo") == 0;
                u.chip_ram_named = u.chip_ram_named || chip_ram;
                continue;
            }
            long kib = 0;
            if (std::sscanf(line, "Rss: %ld kB", &kib) == 1) {
                u.rss_kib += kib;
                if (!chip_ram) u.host_rss_kib += kib;
            }
        }
        std::fclose(f);
    }
    if (DIR* d = opendir("/proc/self/fd")) {
        while (readdir(d) != nullptr) ++u.fds;
        closedir(d);
        u.fds -= 3; // ".", ".." and the directory itself
    }
    return u;
}

/* Resident memory is judged only without a memory tool (KAVO_TEST_MEMORY_TOOL;
   under valgrind, KAVO_SOAK_RSS_CHECK=0 turns the judgement off). */
bool judge_memory() { return !KAVO_TEST_MEMORY_TOOL && setting("KAVO_SOAK_RSS_CHECK", 1) != 0; }

bool documented(VELT_ERROR rc)
{
    static const std::string unknown = kavo_err_t_string(0x7FFFFFF0);
    return unknown != kavo_err_t_string(rc);
}

enum outcome { RIGHT, CODE_AFTER_BUS_FAILURE, UNTRUSTED_AFTER_BUS_FAILURE, WRONG, UNEXPLAINED_CODE, NUM_OUTCOMES };
const char* const OUTCOME_NAMES[NUM_OUTCOMES] = {"right data", "documented code after a bus failure",
                                                 "success with a failed bus transaction (data not trusted)",
                                                 "wrong data without a bus failure", "code without a bus failure"};

class Soak : public ::testing::Test {
  protected:
    void SetUp() override
    {
        chip_bus = kavo_sim::callouts()->qspi_callout_api_ctx;
        ASSERT_EQ(kavo_sdk_init(&callouts), VELT_SUCCESS);
        kavo_fw_filename_set((std::string(kavo_sim_firmware_dir()) + "/kavo_fw_app_revx.mem").c_str());
        for (auto& s : sequences) s = sequence_check{};
    }
    void TearDown() override
    {
        for (UINT32 id = 0; id < kavo_sim::MAX_CHIPS; ++id) kavo_device_uninit(id, 0);
        kavo_sim::chip_destroy_all();
    }
};

/* One command of a family, its outcome judged by what it returned and whether
   the bus failed while it ran. Thread t owns programmable clock t of every
   device, so that its read-back is its own. */
outcome one_command(UINT32 device, UINT32 thread, std::mt19937& rng)
{
    bus_failures = 0;
    bool right = false;
    VELT_ERROR rc = VELT_SUCCESS;
    switch (rng() % 3) {
    case 0: { // debug: an echo of 1..64 words
        UINT32 data[64], back[64] = {};
        const UINT32 words = 1 + rng() % 64;
        for (UINT32 i = 0; i < words; ++i) data[i] = UINT32(rng());
        rc = kavo_debug_ping(device, words * 4, data, back);
        right = std::memcmp(data, back, words * 4) == 0;
        break;
    }
    case 1: { // config: the device's status
        kavo_status_info_t status;
        rc = kavo_device_status_get(device, &status);
        right = status.device_info.device_type == 0x6100 && status.device_info.fw_alive == 1;
        break;
    }
    default: { // pgmrclk: configure a clock, read it back
        static const DOUBLE outputs[] = {156.25, 78.125, 31.25};
        const DOUBLE out = outputs[rng() % 3];
        const auto clk = kavo_pgmrclk_id_t(thread % LAST_KAVO_PGMRCLK_ID);
        rc = kavo_pgmrclk_cfg(device, clk, KAVO_PGMRCLK_INPUT_SOURCE_REF_CLK, 0, 156.25, out, 1);
        if (rc == VELT_SUCCESS) {
            kavo_pgmrclk_cfg_get_t got;
            rc = kavo_pgmrclk_cfg_get(device, clk, &got);
            right = got.output_clk_freq == out && got.enable == 1;
        }
        break;
    }
    }
    const bool failed_bus = bus_failures != 0;
    if (rc == VELT_SUCCESS) return right ? RIGHT : failed_bus ? UNTRUSTED_AFTER_BUS_FAILURE : WRONG;
    return failed_bus && documented(rc) ? CODE_AFTER_BUS_FAILURE : UNEXPLAINED_CODE;
}

TEST_F(Soak, MixedCommandsOnManyDevicesAndThreadsWithBusFaults)
{
    const UINT32 devices = UINT32(setting("KAVO_SOAK_DEVICES", 32));
    const UINT32 threads = UINT32(setting("KAVO_SOAK_THREADS", 4));
    const UINT64 commands = setting("KAVO_SOAK_COMMANDS", 20000);
    const UINT64 fault_every = setting("KAVO_SOAK_FAULT_EVERY", 10000); // bus transactions, on average
    ASSERT_LE(devices, kavo_sim::MAX_CHIPS);
    for (UINT32 id = 0; id < devices; ++id) {
        ASSERT_EQ(kavo_sim::chip_create(id), VELT_SUCCESS);
        ASSERT_EQ(kavo_device_init(id, KAVO_INIT_COLD), VELT_SUCCESS);
    }
    std::mt19937 arm_rng(7);
    auto arm = [&](UINT32 id, std::mt19937& rng) {
        kavo_sim::fault_config f;
        f.bus_fail_nth = 1 + UINT32(rng() % (2 * fault_every - 1));
        kavo_sim::chip_get(id)->faults(f);
    };
    for (UINT32 id = 0; id < devices; ++id) arm(id, arm_rng);

    std::atomic<UINT64> outcomes[NUM_OUTCOMES] = {};
    std::atomic<UINT64> issued{0};
    auto run = [&](UINT64 count) {
        std::vector<std::thread> workers;
        for (UINT32 t = 0; t < threads; ++t)
            workers.emplace_back([&, t] {
                std::mt19937 rng(1000 + t);
                UINT64 local[NUM_OUTCOMES] = {};
                for (UINT64 i = t; i < count; i += threads) {
                    // Any thread on any device: the library serialises each device.
                    const UINT32 device = UINT32(rng() % devices);
                    ++local[one_command(device, t, rng)];
                    if (kavo_sim::chip_get(device)->faults().bus_fail_nth == 0) arm(device, rng);
                }
                for (int o = 0; o < NUM_OUTCOMES; ++o) outcomes[o] += local[o];
            });
        for (auto& w : workers) w.join();
        issued += count;
    };
    // A warm-up first, so that the memory the run needs is in place before
    // the figures are taken: the chips' journals fill up (4096 events, some
    // 550 commands a device), the allocator's pools settle.
    const UINT64 warm_up = std::max<UINT64>(commands / 10, devices * 600ull);
    run(warm_up);
    const usage before = measure();
    const auto t0 = std::chrono::steady_clock::now();
    run(commands);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    const usage after = measure();

    UINT64 injected = 0, requests = 0, replies = 0, repeats = 0;
    for (UINT32 id = 0; id < devices; ++id) {
        const kavo_sim::journal_counters c = kavo_sim::chip_get(id)->counters();
        injected += c.bus_errors;
        requests += c.requests;
        replies += c.replies;
        repeats += sequences[id].repeats;
        EXPECT_EQ(c.requests, c.replies) << "device " << id << ": every request served is answered once";
    }
    std::printf("soak: %u devices, %u threads, %llu commands in %.2f s after a warm-up of %llu: %.0f commands/s\n",
                devices, threads, (unsigned long long)commands, seconds, (unsigned long long)warm_up,
                double(commands) / seconds);
    std::printf("soak: %llu bus transactions failed (1 in %llu armed), %llu requests served, %llu replies\n",
                (unsigned long long)injected, (unsigned long long)fault_every, (unsigned long long)requests,
                (unsigned long long)replies);
    for (int o = 0; o < NUM_OUTCOMES; ++o)
        std::printf("soak: %-58s %llu\n", OUTCOME_NAMES[o], (unsigned long long)outcomes[o].load());
    std::printf("soak: resident %ld KiB -> %ld KiB (without the chips' RAM %ld KiB -> %ld KiB), descriptors %d -> %d\n",
                before.rss_kib, after.rss_kib, before.host_rss_kib, after.host_rss_kib, before.fds, after.fds);
    EXPECT_EQ(outcomes[WRONG].load(), 0u);
    EXPECT_EQ(outcomes[UNEXPLAINED_CODE].load(), 0u);
    UINT64 total = 0;
    for (auto& o : outcomes) total += o.load();
    EXPECT_EQ(total, issued.load()) << "every command returned exactly once";
    EXPECT_EQ(repeats, 0u) << "a device's sequence numbers never repeat";
    EXPECT_GT(injected, 0u);
    EXPECT_EQ(after.fds, before.fds);
    // Where the chips' RAM cannot be told apart, it may grow by their log rings.
    const long allowance = after.chip_ram_named ? 0 : long(devices) * 160;
    if (judge_memory()) {
        EXPECT_LT(after.host_rss_kib - before.host_rss_kib, 256 + allowance) << "resident memory stays flat";
    }
}

TEST_F(Soak, InitUninitCyclesWithFailingInitsLeakNothing)
{
    const UINT64 cycles = setting("KAVO_SOAK_CYCLES", 200);
    const std::string good = std::string(kavo_sim_firmware_dir()) + "/kavo_fw_app_revx.mem";
    ASSERT_EQ(kavo_sim::chip_create(0), VELT_SUCCESS);
    std::map<VELT_ERROR, UINT64> results;
    usage before;
    auto cycle = [&](UINT64 i) {
        // One cycle in four fails: image missing, RAM test failing on the bus,
        // or a device id out of range; the others start cold or warm.
        VELT_ERROR rc = VELT_SUCCESS;
        UINT32 id = 0;
        switch (i % 8) {
        case 1:
            kavo_fw_filename_set("/nonexistent/kavo_fw_app_revx.mem");
            rc = kavo_device_init(0, KAVO_INIT_COLD);
            kavo_fw_filename_set(good.c_str());
            break;
        case 3: {
            kavo_sim::fault_config f;
            f.bus_fail_addresses = {0};
            kavo_sim::chip_get(0)->faults(f);
            rc = kavo_device_init(0, KAVO_INIT_COLD);
            kavo_sim::chip_get(0)->faults(kavo_sim::fault_config{});
            break;
        }
        case 5:
            id = kavo_sim::MAX_CHIPS;
            rc = kavo_device_init(id, KAVO_INIT_COLD);
            break;
        default:
            rc = kavo_device_init(0, i % 2 ? KAVO_INIT_AUTO : KAVO_INIT_COLD);
            if (rc == VELT_SUCCESS) {
                kavo_status_info_t status;
                rc = kavo_device_status_get(0, &status);
            }
        }
        ++results[rc];
        kavo_device_uninit(id, 0);
    };
    for (UINT64 i = 0; i < 16; ++i) cycle(i);
    before = measure();
    for (UINT64 i = 16; i < cycles; ++i) cycle(i);
    const usage after = measure();
    std::printf("soak: %llu init/uninit cycles; results:", (unsigned long long)cycles);
    for (const auto& [rc, n] : results) std::printf(" %s x%llu", kavo_err_t_string(rc), (unsigned long long)n);
    std::printf("\nsoak: resident %ld KiB -> %ld KiB (without the chip's RAM %ld KiB -> %ld KiB), descriptors %d -> %d\n",
                before.rss_kib, after.rss_kib, before.host_rss_kib, after.host_rss_kib, before.fds, after.fds);
    EXPECT_EQ(results.size(), 4u) << "success and the three failures";
    EXPECT_EQ(results[VELT_SUCCESS], cycles - 3 * (cycles / 8) - (cycles % 8 > 1) - (cycles % 8 > 3) - (cycles % 8 > 5));
    EXPECT_EQ(results[KAVO_ERR_FW_IMAGE_DOES_NOT_EXIST], cycles / 8 + (cycles % 8 > 1));
    EXPECT_EQ(results[KAVO_ERR_FW_SPRAM_WRITE_FAIL], cycles / 8 + (cycles % 8 > 3));
    EXPECT_EQ(results[KAVO_ERR_INVALID_DEVICE_ID], cycles / 8 + (cycles % 8 > 5));
    EXPECT_EQ(after.fds, before.fds);
    if (judge_memory()) {
        EXPECT_LT(after.host_rss_kib - before.host_rss_kib, after.chip_ram_named ? 256 : 416)
            << "resident memory stays flat";
    }
}

} // namespace
