// The fault sweep: for every bus transaction of a cold start, of a warm restart
// with reload and of one command per frame variation, each bus fault is
// injected at that transaction, and each reply fault at each exchange. Every
// case must return within the library's time-outs (simulated time: the
// library's clock and sleeps are the test's), end in a documented outcome (a
// result code, or the assertion seen through kavo_assert_handler_set), and the
// device must work again once the fault is cleared. The outcomes form the
// matrix of docs/reliability.md; the test fails when the committed matrix
// differs from what it observes. `--write-matrix=PATH` (or the environment
// variable KAVO_WRITE_MATRIX=PATH) rewrites the matrix blocks of that file.
#include <gtest/gtest.h>

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <sstream>

#include "kavo_device.h"
#include "kavo_test_device.h"
#include "kavo_test_log.h"
#include "velt_library_options.h"
#include "velt_sys.h"

namespace {

using kavo_sim::event_kind;

constexpr UINT32 ID = 0;
constexpr UINT64 CLOCK_STEP_US = 1000;        // each look at the clock lets this much time pass
constexpr UINT64 EXCHANGE_US = 6000000;       // the reply wait
constexpr UINT64 BOOT_US = 31 * 500000;       // the start-up wait
constexpr UINT64 SLACK_US = 100 * CLOCK_STEP_US;

/* The library's clock in simulated time; the chip's clock moves along. */
struct simulated_clock {
    UINT64 now = 0;
    static void pass(UINT64 us, simulated_clock* c)
    {
        c->now += us;
        if (kavo_sim::chip* chip = kavo_sim::chip_get(ID)) chip->advance_time(us);
    }
    static UINT64 now_us(void* c)
    {
        pass(CLOCK_STEP_US, static_cast<simulated_clock*>(c));
        return static_cast<simulated_clock*>(c)->now;
    }
    static void sleep_us(void* c, UINT32 us) { pass(us, static_cast<simulated_clock*>(c)); }
};
simulated_clock sim_clock;

struct halted {};
void throw_on_assert(UINT32, const char*, int) { throw halted{}; }

/* A fault kind of the sweep and how it is armed. */
enum class on { bus_read, bus_write, exchange };
struct fault_kind {
    const char* name;
    on target;
    std::function<void(kavo_sim::fault_config&)> arm; // for exchange faults
    bool silent = false;                               // bus faults: reported as done
    bool needs_payload = false;                        // only where a reply payload comes back
};

const std::vector<fault_kind>& fault_kinds()
{
    static const std::vector<fault_kind> kinds = {
        {"read error", on::bus_read, nullptr},
        {"read of 0xFFFFFFFF", on::bus_read, nullptr, true},
        {"write error", on::bus_write, nullptr},
        {"write dropped", on::bus_write, nullptr, true},
        {"firmware hang", on::exchange, [](kavo_sim::fault_config& f) { f.fw_hang = true; }},
        // Far past the 6 s wait: the chip's clock also counts real time, which a
        // loaded machine spends meanwhile.
        {"slow reply (60 s)", on::exchange, [](kavo_sim::fault_config& f) { f.slow_reply_us = 60000000; }},
        {"wrong sequence", on::exchange, [](kavo_sim::fault_config& f) { f.wrong_sequence = 1; }},
        {"wrong device id", on::exchange, [](kavo_sim::fault_config& f) { f.wrong_device_id = 1; }},
        {"wrong operation", on::exchange, [](kavo_sim::fault_config& f) { f.wrong_operation = 1; }},
        {"reply over the buffer", on::exchange,
         [](kavo_sim::fault_config& f) {
             f.oversized_reply = 1;
             f.oversized_reply_bytes = 64;
         }},
        {"reply over 65496 bytes", on::exchange,
         [](kavo_sim::fault_config& f) {
             f.oversized_reply = 1;
             f.oversized_reply_bytes = 65536; // the chip cuts it to its mailbox: 65504
         }},
        {"short payload", on::exchange, [](kavo_sim::fault_config& f) { f.short_reply = 1; }, false, true},
    };
    return kinds;
}

/* A step of the sweep, named as the bus or the mailbox sees it. */
std::string transaction_name(const kavo_sim::journal_event& e)
{
    static const std::map<UINT32, const char*> registers = {
        {kavo_sim::map::SW_RST_HOST_EN, "SW_RST_HOST_EN"},
        {kavo_sim::map::SW_RST_HOST_TRIG, "SW_RST_HOST_TRIG"},
        {kavo_sim::map::CA53_CTRL4, "CA53_CTRL4"},
        {kavo_sim::map::BOOT_INFO, "BOOT_INFO"},
        {kavo_sim::map::APP_SCRATCH + 4 * kavo_sim::map::BOOT_ARG_SCRATCH, "APP_SCRATCH[6]"},
        {kavo_sim::map::DEVICE_ID, "DEVICE_ID"},
        {kavo_sim::map::OCR_UNAVAIL, "UNAVAIL"},
        {kavo_sim::map::OCR_INIT_CTRL, "INIT_CTRL"},
        {kavo_sim::map::OCR_INIT_STATUS, "INIT_STATUS"},
        {kavo_sim::map::OCR_SHUTDOWN_CTRL, "SHUTDOWN_CTRL"},
        {kavo_sim::map::DEV_INTB_AGGR_SET, "DEV_INTB_AGGR_SET[0]"},
        {kavo_sim::map::INTER_PROCESSOR_INTS, "INTER_PROCESSOR_INTS[0]"},
        {kavo_sim::map::IPI2PCIE_INT, "IPI2PCIE_0_INT"},
        {kavo_sim::map::DCSU_POST_DIVIDER_UPDATE, "POST_DIVIDER_UPDATE_REG"},
        {kavo_sim::map::DCSU_POST_DIVIDER_CFG_2, "POST_DIVIDER_CFG_REG_2"},
    };
    const bool burst = e.kind == event_kind::burst_read || e.kind == event_kind::burst_write;
    const bool read = e.kind == event_kind::reg_read || e.kind == event_kind::burst_read;
    std::string what = read ? (burst ? "burst read " : "read ") : (burst ? "burst write " : "write ");
    if (!burst) {
        auto it = registers.find(e.address);
        char hex[16];
        std::snprintf(hex, sizeof(hex), "0x%X", e.address);
        return what + (it != registers.end() ? it->second : hex);
    }
    if (e.address == kavo_sim::map::REQUEST) return what + "request";
    if (e.address == kavo_sim::map::RESPONSE) return what + "reply header";
    if (e.address == kavo_sim::map::RESPONSE_DATA) return what + "reply payload";
    if (e.address == kavo_sim::map::VERSION_WORDS) return what + "version words";
    if (e.address == 0 && e.value == 10) return what + "RAM test";
    if (e.address < kavo_sim::map::DEVICE_STATUS) return what + "image";
    return what + "log block";
}

/* One scenario: a set-up without faults, then the call under test. */
struct scenario {
    const char* name;
    std::function<void()> setup;
    std::function<VELT_ERROR()> run;
    bool payload = false; // a reply payload comes back
    UINT64 bound_us = 0;  // the longest the library may take
    std::string clean = "VELT_SUCCESS"; // the outcome without a fault
};

/* What one case came to. */
struct outcome {
    std::string text;
    bool ok = true;
    std::string why;
};

class fault_sweep : public kavo_test::device_test {
  protected:
    void SetUp() override
    {
        device_test::SetUp();
        sim_clock.now = 0;
        const velt_sys_clock_hooks_t hooks{simulated_clock::now_us, simulated_clock::sleep_us, &sim_clock};
        velt_sys_clock_hooks_set(&hooks);
        kavo_assert_handler_set(throw_on_assert);
        // A small image (four whole download chunks and a partial one): every
        // transaction is swept, and a cold start costs little under the sanitizers.
        kavo_sim::image_version v;
        v.body_size = 1088;
        // One file per process: ctest runs the sweep's tests side by side.
        image = kavo_test::firmware_dir() + "/../tests/sweep_image_" + std::to_string(getpid()) + ".mem";
        ASSERT_TRUE(kavo_sim::image_write(image.c_str(), v));
        kavo_fw_filename_set(image.c_str());
    }
    void TearDown() override
    {
        std::remove(image.c_str());
        velt_sys_clock_hooks_set(nullptr);
        kavo_test::install_capture(kavo_sim::callouts()->qspi_callout_api_ctx);
        device_test::TearDown();
    }

    std::string image;
    static kavo_sim::chip* chip() { return kavo_sim::chip_get(ID); }

    /* A fresh chip with the device cold-started on it. */
    static void cold()
    {
        if (kavo_device_find(ID) != nullptr) kavo_device_uninit(ID);
        kavo_sim::chip_destroy_all();
        ASSERT_EQ(kavo_sim::chip_create(ID), VELT_SUCCESS);
        ASSERT_EQ(kavo_device_init(ID, KAVO_INIT_COLD), VELT_SUCCESS);
    }

    /* Runs the call with the chip's journal reset; returns the result or the assertion. */
    static std::string call(const scenario& s, VELT_ERROR& rc, bool& asserted)
    {
        asserted = false;
        rc = VELT_SUCCESS;
        try {
            rc = s.run();
        } catch (const halted&) {
            asserted = true;
        }
        return asserted ? "assertion" : kavo_err_t_string(rc);
    }

    /* The device after the fault is cleared: the next command, or a re-init. */
    static std::string recover()
    {
        chip()->faults(kavo_sim::fault_config{});
        if (kavo_device_find(ID) != nullptr && kavo_test::ping(ID) == VELT_SUCCESS) return "";
        if (kavo_device_find(ID) != nullptr) kavo_device_uninit(ID);
        if (kavo_device_init(ID, KAVO_INIT_COLD) == VELT_SUCCESS && kavo_test::ping(ID) == VELT_SUCCESS)
            return " / re-init";
        return " / NOT RECOVERED";
    }

    static outcome run_case(const scenario& s, const std::function<void(kavo_sim::fault_config&)>& arm)
    {
        s.setup();
        kavo_bus_error_count_clear(ID);
        kavo_sim::fault_config f;
        arm(f);
        chip()->faults(f);
        const UINT64 start = sim_clock.now;
        VELT_ERROR rc = VELT_SUCCESS;
        bool asserted = false;
        outcome o;
        o.text = call(s, rc, asserted);
        const UINT64 took = sim_clock.now - start;
        UINT32 bus_errors = 0;
        kavo_bus_error_count_get(ID, &bus_errors);
        if (bus_errors != 0) o.text += " (bus error counted)";
        if (took > s.bound_us) {
            o.ok = false;
            o.why = "took " + std::to_string(took) + " us of simulated time";
        }
        if (!asserted && std::string(kavo_err_t_string(rc)).find("UNKNOWN") != std::string::npos) {
            o.ok = false;
            o.why = "undocumented result " + std::to_string(rc);
        }
        o.text += recover();
        if (o.text.find("NOT RECOVERED") != std::string::npos) {
            o.ok = false;
            o.why = "no recovery";
        }
        return o;
    }

    /* The transactions and exchanges of a scenario without faults. */
    static std::vector<kavo_sim::journal_event> baseline(const scenario& s, UINT32& exchanges)
    {
        s.setup();
        chip()->journal_reset();
        VELT_ERROR rc = VELT_SUCCESS;
        bool asserted = false;
        const std::string clean = call(s, rc, asserted);
        EXPECT_EQ(clean, s.clean) << s.name << " without a fault";
        std::vector<kavo_sim::journal_event> bus;
        exchanges = 0;
        for (const auto& e : chip()->journal().events) {
            if (e.kind == event_kind::request) ++exchanges;
            if (e.kind != event_kind::request && e.kind != event_kind::reply) bus.push_back(e);
        }
        EXPECT_LT(chip()->counters().reads + chip()->counters().writes + chip()->counters().burst_reads +
                      chip()->counters().burst_writes,
                  (UINT64)kavo_sim::JOURNAL_EVENTS)
            << "the journal holds every transaction";
        return bus;
    }

    /* Sweeps one scenario and returns its two matrix blocks (bus, exchanges). */
    static std::string sweep(const scenario& s)
    {
        UINT32 exchanges = 0;
        const std::vector<kavo_sim::journal_event> bus = baseline(s, exchanges);
        std::ostringstream table;
        // Bus faults: rows are transactions, merged while name and outcomes repeat.
        table << "| " << s.name << ": bus transaction | read error | read of 0xFFFFFFFF | write error | write dropped |\n"
              << "|---|---|---|---|---|\n";
        std::string last_row, last_cells;
        UINT32 first = 0, count = 0;
        auto flush = [&](UINT32 upto) {
            if (count == 0) return;
            table << "| " << first << (count > 1 ? "–" + std::to_string(upto) : "") << " " << last_row << " |"
                  << last_cells << "\n";
        };
        for (UINT32 k = 1; k <= bus.size(); ++k) {
            const auto& e = bus[k - 1];
            const bool read = e.kind == event_kind::reg_read || e.kind == event_kind::burst_read;
            std::string cells;
            for (const fault_kind& f : fault_kinds()) {
                if (f.target == on::exchange) continue;
                if ((f.target == on::bus_read) != read) {
                    cells += " – |";
                    continue;
                }
                const outcome o = run_case(s, [&](kavo_sim::fault_config& c) {
                    c.bus_fail_nth = k;
                    c.bus_fail_effect = f.silent ? kavo_sim::bus_effect::silent : kavo_sim::bus_effect::fail;
                });
                EXPECT_TRUE(o.ok) << s.name << ", " << f.name << " at transaction " << k << " ("
                                  << transaction_name(e) << "): " << o.why << "; " << o.text;
                cells += " " + o.text + " |";
            }
            const std::string row = transaction_name(e);
            if (row == last_row && cells == last_cells) {
                ++count;
                continue;
            }
            flush(k - 1);
            last_row = row;
            last_cells = cells;
            first = k;
            count = 1;
        }
        flush((UINT32)bus.size());
        // Reply faults: rows are exchanges.
        table << "\n| " << s.name << ": exchange |";
        for (const fault_kind& f : fault_kinds())
            if (f.target == on::exchange) table << " " << f.name << " |";
        table << "\n|---|";
        for (const fault_kind& f : fault_kinds())
            if (f.target == on::exchange) table << "---|";
        table << "\n";
        for (UINT32 x = 0; x < exchanges; ++x) {
            table << "| " << x + 1 << " |";
            for (const fault_kind& f : fault_kinds()) {
                if (f.target != on::exchange) continue;
                if (f.needs_payload && !s.payload) {
                    table << " – |";
                    continue;
                }
                const outcome o = run_case(s, [&](kavo_sim::fault_config& c) {
                    f.arm(c);
                    c.reply_faults_after = x;
                });
                EXPECT_TRUE(o.ok) << s.name << ", " << f.name << " at exchange " << x + 1 << ": " << o.why << "; "
                                  << o.text;
                table << " " << o.text << " |";
            }
            table << "\n";
        }
        return table.str();
    }

    /* Compares the scenario's block of the committed matrix, or rewrites it. */
    static void check_matrix(const std::string& block, const std::string& table)
    {
        const std::string open = "<!-- sweep:" + block + " -->\n", close = "<!-- /sweep:" + block + " -->";
        std::string target;
        for (const std::string& a : testing::internal::GetArgvs())
            if (a.rfind("--write-matrix=", 0) == 0) target = a.substr(15);
        if (const char* env = std::getenv("KAVO_WRITE_MATRIX")) target = env;
        const std::string committed = KAVO_RELIABILITY_DOC;
        const std::string path = target.empty() ? committed : target;
        std::ifstream in(path);
        std::stringstream text;
        text << in.rdbuf();
        std::string doc = text.str();
        const size_t at = doc.find(open), end = doc.find(close);
        if (!target.empty()) {
            if (at == std::string::npos || end == std::string::npos)
                doc += "\n" + open + table + close + "\n";
            else
                doc.replace(at + open.size(), end - at - open.size(), table);
            std::ofstream(path) << doc;
            return;
        }
        ASSERT_NE(at, std::string::npos) << "no block " << block << " in " << path;
        ASSERT_NE(end, std::string::npos) << "no end of block " << block << " in " << path;
        EXPECT_EQ(doc.substr(at + open.size(), end - at - open.size()), table)
            << "the committed matrix differs from the sweep: run test_fault_sweep --write-matrix=" << committed;
    }
};

TEST_F(fault_sweep, cold_start)
{
    scenario s{"cold start",
               [] {
                   if (kavo_device_find(ID) != nullptr) kavo_device_uninit(ID);
                   kavo_sim::chip_destroy_all();
                   kavo_sim::chip_create(ID);
                   chip()->journal_reset();
               },
               [] { return kavo_device_init(ID, KAVO_INIT_COLD); }, false, BOOT_US + EXCHANGE_US + SLACK_US};
    check_matrix("cold", sweep(s));
}

TEST_F(fault_sweep, warm_restart_with_reload)
{
    scenario s{"warm restart",
               [] {
                   cold();
                   kavo_device_uninit(ID);
                   velt_option_warm_restart.value = 1;
                   chip()->journal_reset();
               },
               [] { return kavo_device_init(ID, KAVO_INIT_AUTO); }, false, 2 * EXCHANGE_US + BOOT_US + SLACK_US};
    check_matrix("warm", sweep(s));
    velt_option_warm_restart.value = 0;
}

/* One command of each frame variation on a running device. */
TEST_F(fault_sweep, commands)
{
    const UINT64 bound = EXCHANGE_US + SLACK_US;
    // A configured device, so that every variation succeeds without a fault.
    auto on_device = [] {
        if (kavo_device_find(ID) == nullptr || kavo_test::ping(ID) != VELT_SUCCESS) cold();
        kavo_config_t cfg;
        kavo_config_t_init(&cfg);
        cfg.device_mode = KAVO_DEVICE_MODE_1200G_ENET;
        ASSERT_EQ(kavo_device_config(ID, &cfg), VELT_SUCCESS);
        chip()->journal_reset();
    };
    std::string tables;
    const scenario variations[] = {
        {"plain (kavo_device_config)", on_device,
         [] {
             kavo_config_t cfg;
             kavo_config_t_init(&cfg);
             cfg.device_mode = KAVO_DEVICE_MODE_1200G_ENET;
             return kavo_device_config(ID, &cfg);
         },
         false, bound},
        {"reply payload (kavo_device_chnl_get)", on_device,
         [] {
             // On the heap at its exact size: a copy past it is an ASan report.
             auto info = std::make_unique<kavo_chnl_info_t>();
             return kavo_device_chnl_get(ID, info.get());
         },
         true, bound},
        {"response fields (kavo_serdes_ppm_offset_get)", on_device,
         [] {
             auto ppm = std::make_unique<INT32>();
             return kavo_serdes_ppm_offset_get(ID, 5, ppm.get());
         },
         false, bound},
        {"status family (kavo_device_status_get)", on_device,
         [] {
             auto status = std::make_unique<kavo_status_info_t>();
             return kavo_device_status_get(ID, status.get());
         },
         true, bound},
        {"null-output getter (kavo_serdes_ppm_offset_get)", on_device,
         [] { return kavo_serdes_ppm_offset_get(ID, 5, nullptr); }, false, bound, "assertion"},
    };
    for (const scenario& s : variations) tables += (tables.empty() ? "" : "\n") + sweep(s);
    check_matrix("commands", tables);
}

/* Replies of a given tail: the bytes past the last whole word are zero, not
   left over from the reply before. */
TEST_F(fault_sweep, reply_tail_bytes_are_zero)
{
    cold();
    kavo_sim::fault_config f;
    kavo_sim::scripted_reply full;
    full.data.assign(8, 0xEE);
    kavo_sim::scripted_reply tail;
    tail.data = {1, 2, 3, 4, 5};
    f.scripted = {full, tail};
    chip()->faults(f);
    UINT32 in[2] = {}, words[2] = {};
    ASSERT_EQ(kavo_debug_ping(ID, sizeof(in), in, words), VELT_SUCCESS);
    std::memset(words, 0x77, sizeof(words));
    ASSERT_EQ(kavo_debug_ping(ID, sizeof(in), in, words), VELT_SUCCESS);
    UINT8 out[8];
    std::memcpy(out, words, sizeof(out));
    // Four bytes come whole from the chip; the fifth lies in a word that is not
    // read (word counts round down) and comes from a zeroed word, not the 0xEE
    // of the reply before; the caller's bytes past the size stay untouched.
    const UINT8 expected[8] = {1, 2, 3, 4, 0, 0x77, 0x77, 0x77};
    EXPECT_EQ(std::memcmp(out, expected, sizeof(out)), 0);
}

/* A doorbell that flips between 0 and 1 on every read must not keep the wait going. */
TEST_F(fault_sweep, flapping_doorbell_wait_is_bounded)
{
    cold();
    kavo_sim::fault_config f;
    f.fw_hang = true;
    chip()->faults(f);
    // The firmware hangs; the host sees the reply status raised and the
    // doorbell read alternate, as a chip reporting nonsense would.
    kavo_sim::chip* c = chip();
    struct flapping {
        qspi_callout_api_st table;
        qspi_callout_api_st* inner;
        UINT32 reads = 0;
    };
    static flapping bus;
    bus.inner = kavo_sim::callouts()->qspi_callout_api_ctx;
    bus.table = *bus.inner;
    bus.table.qspi_read = [](void* x, UINT32 y, UINT32 id, UINT32 address, UINT32* value) -> UINT32 {
        const UINT32 s = bus.inner->qspi_read(x, y, id, address, value);
        if (address == kavo_sim::map::INTER_PROCESSOR_INTS) *value = ++bus.reads % 2;
        if (address == kavo_sim::map::IPI2PCIE_INT) *value = 1;
        return s;
    };
    kavo_test::install_capture(&bus.table);
    (void)c;
    const UINT64 start = sim_clock.now;
    UINT32 value = 1, back = 0;
    // The first doorbell read (post) sees 1; the wait then reads 0, 1, 0, ...
    const VELT_ERROR rc = kavo_debug_ping(ID, 4, &value, &back);
    EXPECT_LE(sim_clock.now - start, EXCHANGE_US + SLACK_US);
    EXPECT_NE(rc, VELT_SUCCESS);
    kavo_test::install_capture(kavo_sim::callouts()->qspi_callout_api_ctx);
}

/* An image larger than the on-chip RAM: its download fails on the bus past
   the end of the RAM, printed and counted. */
TEST_F(fault_sweep, image_larger_than_the_ram_fails_visibly)
{
    ASSERT_EQ(kavo_sim::chip_create(ID), VELT_SUCCESS);
    const std::string path = kavo_test::make_image("big.mem", 3, 0, 2);
    {
        std::ofstream grow(path, std::ios::app | std::ios::binary);
        const std::string mib(1 << 20, '\x5A');
        for (int i = 0; i < 5; ++i) grow << mib;
    }
    kavo_fw_filename_set(path.c_str());
    kavo_bus_error_count_clear(ID);
    const VELT_ERROR rc = kavo_device_init(ID, KAVO_INIT_COLD);
    UINT32 errors = 0;
    ASSERT_EQ(kavo_bus_error_count_get(ID, &errors), VELT_SUCCESS);
    EXPECT_GT(errors, 0u) << "the writes past the on-chip RAM fail on the bus; result " << rc << kavo_test::captured();
    EXPECT_NE(kavo_test::take().find("velt_sys_burst_write FAILED"), std::string::npos);
}

TEST(bus_error_count, argument_checks)
{
    UINT32 n = 0;
    EXPECT_EQ(kavo_bus_error_count_get(32, &n), KAVO_ERR_INVALID_DEVICE_ID);
    EXPECT_EQ(kavo_bus_error_count_clear(32), KAVO_ERR_INVALID_DEVICE_ID);
    EXPECT_EQ(kavo_bus_error_count_get(0, nullptr), VELT_ERR_INVALID_ARGS);
}

}  // namespace
