// The firmware's request handlers, driven by hand-built mailbox exchanges
// (configuration checks, the debug shell, unknown and misdirected requests),
// the console ring writer seen record by record, and the injectable faults
// that the library's own tests do not exercise.
#include <gtest/gtest.h>

#include <string>

#include "kavo_sim/bus_client.h"
#include "kavo_sim/kavo_sim.h"

using kavo_sim::bus_client;
using kavo_sim::exchange_result;
using std::chrono::milliseconds;

namespace {

constexpr UINT32 LOG = 0x354004;
constexpr UINT32 RING_WORDS = 8192;
constexpr UINT32 DOORBELL = 0xF020E0;

class SimFirmware : public ::testing::Test {
  protected:
    void SetUp() override
    {
        ASSERT_EQ(kavo_sim::chip_create(2, kavo_sim::chip_config::stepped(0x6104, 1)), VELT_SUCCESS);
        ASSERT_TRUE(bus.cold_start(kavo_sim::image_build({3, 0, 5, 77})));
    }
    void TearDown() override { kavo_sim::chip_destroy_all(); }
    kavo_sim::chip* chip() { return kavo_sim::chip_get(2); }
    exchange_result cmd(std::string line)
    {
        line.resize(line.size() + 4 - line.size() % 4, '\0');
        return bus.exchange(KAVO_HTL_OPERATION_DEBUG_CMD, line.data(), UINT32(line.size()));
    }
    UINT32 config(const kavo_config_t& c, UINT32 size = sizeof(kavo_config_t))
    {
        return bus.exchange(KAVO_HTL_OPERATION_CONFIG, &c, size).result();
    }
    bus_client bus{kavo_sim::callouts(), 2};
};

TEST_F(SimFirmware, ConfigIsValidatedStoredAndForgottenOnShutdown)
{
    kavo_config_t good;
    good.device_mode = KAVO_DEVICE_MODE_1200G_ENET;
    struct {
        const char* what;
        void (*spoil)(kavo_config_t&);
        UINT32 code;
    } bad[] = {
        {"unchosen device mode", [](kavo_config_t& c) { c.device_mode = LAST_KAVO_DEVICE_MODE; },
         SEGMENT_BASE_ERR_INVALID_APPLICATION_MODE},
        {"macsec bypass not a bool", [](kavo_config_t& c) { c.macsec_global_bypass[2] = 2; },
         KAVO_FW_ERR_INVALID_PARAMETERS},
        {"ptp enable not a bool", [](kavo_config_t& c) { c.ptp_enable[0] = 7; }, KAVO_FW_ERR_INVALID_PARAMETERS},
        {"mux mode not a bool", [](kavo_config_t& c) { c.mux_mode = 3; }, KAVO_FW_ERR_INVALID_PARAMETERS},
        {"reference clock", [](kavo_config_t& c) { c.enet_dcsu_ref_clk = LAST_KAVO_ENET_DCSU_REF_CLK; },
         DCSU_ERR_INVALID_ARG},
        {"pmon period 0", [](kavo_config_t& c) { c.pmon.auto_trigger = 1, c.pmon.trigger_period_ms = 0; },
         PMON_ERR_INVALID_PARAMS},
        {"serdes port 72", [](kavo_config_t& c) { c.ilkn_lane.serdes_port_ids_rx[23] = 72; },
         SEGMENT_BASE_ERR_ILLEGAL_SERDES_PORT_ID},
    };
    for (auto& b : bad) {
        kavo_config_t c = good;
        b.spoil(c);
        EXPECT_EQ(config(c), b.code) << b.what;
    }
    EXPECT_EQ(config(good, 280), UINT32(KAVO_FW_ERR_INVALID_PARAMETERS)) << "a short record";
    EXPECT_EQ(bus.exchange(KAVO_HTL_OPERATION_CONFIG_GET).result(), UINT32(KAVO_ERR_FW_NOT_CONFIGURED));

    ASSERT_EQ(config(good), VELT_SUCCESS);
    kavo_config_t worse = good;
    worse.mux_mode = 9;
    EXPECT_NE(config(worse), VELT_SUCCESS);
    auto r = bus.exchange(KAVO_HTL_OPERATION_CONFIG_GET);
    ASSERT_EQ(r.data.size(), sizeof(good));
    EXPECT_EQ(std::memcmp(r.data.data(), &good, sizeof(good)), 0) << "a refused record leaves the stored one";
    EXPECT_EQ(bus.exchange(KAVO_HTL_OPERATION_SHUTDOWN).result(), VELT_SUCCESS);
    EXPECT_EQ(bus.exchange(KAVO_HTL_OPERATION_CONFIG_GET).result(), UINT32(KAVO_ERR_FW_NOT_CONFIGURED));
    EXPECT_EQ(bus.exchange(KAVO_HTL_OPERATION_STATUS).result(), VELT_SUCCESS) << "still serving after shutdown";
}

TEST_F(SimFirmware, DebugShellAnswersInText)
{
    struct {
        const char* line;
        UINT32 result;
        const char* reply;
    } cases[] = {
        {"noop", VELT_SUCCESS, ""},
        {"", VELT_SUCCESS, ""},
        {"  version  \n", VELT_SUCCESS, "kavo firmware 3.0.5 (vcs 77)"},
        {"set_verbosity 5 ", VELT_SUCCESS, ""},
        {"set_verbosity 8", VELT_ERR_INVALID_ARGS, "usage: set_verbosity 0..7"},
        {"repeat many x", VELT_ERR_INVALID_ARGS, "usage: repeat COUNT TEXT"},
        {"frobnicate now", KAVO_FW_ERR_INVALID_PARAMETERS, "unknown command 'frobnicate', try help"},
    };
    for (auto& c : cases) {
        const auto r = cmd(c.line);
        const char* text = reinterpret_cast<const char*>(r.data.data());
        EXPECT_EQ(r.result(), c.result) << c.line;
        EXPECT_EQ(r.data.empty() ? "" : std::string(text, strnlen(text, r.data.size())), c.reply) << c.line;
        EXPECT_EQ(r.data.size() % 4, 0u) << "text replies travel in whole words";
        EXPECT_EQ(r.data.empty(), !*c.reply) << c.line;
    }
}

TEST_F(SimFirmware, UnknownAndMisdirectedRequests)
{
    for (UINT32 op : {0x000u, 0x00Du, 0x0B00u, 0x1002u, 0xFFFFFFFFu, UINT32(KAVO_HTL_OPERATION_MACSEC_BASE)}) {
        auto r = bus.exchange(op);
        EXPECT_EQ(r.result(), UINT32(KAVO_ERR_FW_REQUEST_UNKNOWN)) << std::hex << op;
        EXPECT_EQ(r.header[2], op);
        EXPECT_TRUE(r.data.empty());
    }
    // A request for another device id, or with an impossible payload size.
    for (UINT32 size_word : {0u, 16353u}) {
        const UINT32 hdr[8] = {size_word ? 2u : 9u, 1, KAVO_HTL_OPERATION_STATUS, 0, 0, 0, 0, size_word};
        bus.bwrite(0x340004, hdr, 8);
        bus.write(0xF020E0, 0);
        EXPECT_EQ(bus.rd(0xF020E0), 1u);
        UINT32 rep[8];
        bus.bread(0x344004, rep, 8);
        EXPECT_EQ(rep[3], UINT32(HTL_ERR_DEVICE_REQUEST_INVALID)) << size_word;
        EXPECT_EQ(rep[7], 0u);
    }
}

// Each record is a zero separator, a word count and the text padded with
// zeros; a record wraps to the start when fewer than count + 5 words remain,
// leaving a zero-count marker at the old position.
TEST_F(SimFirmware, ConsoleRecordsAndWrapsFollowTheWriterRule)
{
    std::vector<UINT32> r(RING_WORDS);
    int wraps = 0;
    for (UINT32 n = 0; wraps < 4; ++n) {
        ASSERT_LT(n, 20000u) << "the ring never wrapped";
        const UINT32 before = bus.rd(LOG + 8), wrap_before = bus.rd(LOG + 4), room = RING_WORDS - before;
        // Near the end, small steps until a record misses by one word (even laps) or just fits (odd laps).
        const UINT32 count = room >= 6 && room <= 17 ? room - (wraps % 2 ? 5 : 4) : room < 40 ? 1 : n % 12 + 1;
        // Every padding: 1 to 4 bytes of the last word used.
        const std::string text(std::max(1, int(4 * count) - 1 - int(n % 4)), char('a' + n % 26)), written = text + "\n";
        ASSERT_EQ(cmd("echo " + text).result(), VELT_SUCCESS);
        bus.bread(LOG + 68, r.data(), RING_WORDS);
        UINT32 at = before;
        if (bus.rd(LOG + 4) != wrap_before) {
            ++wraps;
            EXPECT_EQ(bus.rd(LOG + 4), wrap_before + 1);
            EXPECT_GT(before + count + 5, RING_WORDS) << "wrapped although the record fitted";
            EXPECT_EQ(r[before], 0u) << "wrap marker: separator";
            EXPECT_EQ(r[before + 1], 0u) << "wrap marker: zero count";
            at = 0;
        } else {
            ASSERT_LE(before + count + 5, RING_WORDS) << "should have wrapped at " << before;
        }
        ASSERT_EQ(bus.rd(LOG + 8), at + 2 + count);
        EXPECT_EQ(r[at], 0u);
        EXPECT_EQ(r[at + 1], count);
        const std::string back(reinterpret_cast<const char*>(&r[at + 2]), 4 * count);
        EXPECT_EQ(back.substr(0, written.size()), written);
        EXPECT_EQ(back.find_first_not_of('\0', written.size()), std::string::npos) << "zero padding";
    }
}

TEST_F(SimFirmware, BusFailsOnTheNthTransactionOnce)
{
    ASSERT_EQ(chip()->fault_set(SIM_FAULT_BUS_FAIL_NTH, 3), VELT_SUCCESS);
    chip()->journal_reset();
    UINT32 w = 0;
    EXPECT_EQ(bus.read(0xF00380, w), 0u);
    EXPECT_EQ(bus.bread(0, &w, 1), 0u);
    EXPECT_EQ(bus.write(0xF00320, 5), kavo_sim::map::BUS_ERR_INJECTED);
    EXPECT_NE(bus.rd(0xF00320), 5u) << "the failed write had no effect";
    EXPECT_EQ(bus.read(0xF00380, w), 0u);
    EXPECT_EQ(chip()->counters().bus_errors, 1u);
}

TEST_F(SimFirmware, RestartAndCorruptImageStartOver)
{
    bus.exchange(KAVO_HTL_OPERATION_DEBUG_CMD, "echo x\0", 8);
    const UINT32 index = bus.rd(LOG + 8);
    ASSERT_EQ(chip()->fault_set(SIM_FAULT_FW_RESTART), VELT_SUCCESS);
    EXPECT_EQ(chip()->boot_count(), 2u);
    EXPECT_LT(bus.rd(LOG + 8), index) << "a fresh console";
    EXPECT_EQ(bus.exchange(KAVO_HTL_OPERATION_STATUS).result(), VELT_SUCCESS);
    bus.write(0xF0002C, 0x5AFEC0DE);
    EXPECT_EQ(chip()->fault_set(SIM_FAULT_FW_RESTART), VELT_ERR_FAIL) << "a processor in reset cannot restart";

    ASSERT_EQ(chip()->fault_set(SIM_FAULT_CORRUPT_IMAGE, 1), VELT_SUCCESS);
    EXPECT_FALSE(bus.cold_start(kavo_sim::image_build({})));
    EXPECT_EQ(chip()->fw_state(), SIM_FW_STATE_BAD_IMAGE);
    EXPECT_TRUE(bus.cold_start(kavo_sim::image_build({}))) << "the next start only";
}

TEST_F(SimFirmware, LogBlockCorruptionAndRefusedFaults)
{
    struct {
        sim_fault_t fault;
        UINT32 arg, offset, expect;
    } cases[] = {
        {SIM_FAULT_CORRUPT_CONSOLE_COOKIE, 0xDEAD, 0, 0xDEAD},
        {SIM_FAULT_CORRUPT_STATS_COOKIE, 0, 20, 0},
        {SIM_FAULT_CORRUPT_DBG_LOG_COOKIE, 0xF00DF00E, 36, 0xF00DF00E},
        {SIM_FAULT_CORRUPT_CONSOLE_RING, 0, 68, 0x21212121},
        {SIM_FAULT_CORRUPT_CONSOLE_RING, 5, 8, 8197},
    };
    for (auto& c : cases) {
        EXPECT_EQ(chip()->fault_set(c.fault, c.arg), VELT_SUCCESS);
        EXPECT_EQ(bus.rd(LOG + c.offset), c.expect) << c.fault;
    }
    // A debug log's write index beyond its entries.
    const UINT32 desc = LOG + bus.rd(LOG + 48) + bus.rd(LOG + 44);
    EXPECT_EQ(chip()->fault_set(SIM_FAULT_CORRUPT_DBG_LOG_INDEX, 1), VELT_SUCCESS);
    EXPECT_GT(bus.rd(desc + 28), bus.rd(desc + 20));
    EXPECT_EQ(chip()->fault_set(SIM_FAULT_CORRUPT_DBG_LOG_INDEX, 3), VELT_ERR_FAIL) << "no fourth log";
    // Unknown faults, and log faults without a started firmware, are refused.
    ASSERT_EQ(kavo_sim::chip_create(5), VELT_SUCCESS);
    EXPECT_EQ(kavo_sim::chip_get(5)->fault_set(SIM_FAULT_CORRUPT_CONSOLE_COOKIE), VELT_ERR_FAIL);
    EXPECT_EQ(chip()->fault_set(LAST_SIM_FAULT), VELT_ERR_INVALID_ARGS);
    EXPECT_EQ(chip()->fault_set(sim_fault_t(99)), VELT_ERR_INVALID_ARGS);
    chip()->fault_set(SIM_FAULT_WRONG_SEQUENCE, 5);
    chip()->fault_set(SIM_FAULT_BUS_FAIL_ADDRESS, 4, 1);
    EXPECT_EQ(chip()->fault_set(SIM_FAULT_CLEAR_ALL), VELT_SUCCESS);
    EXPECT_EQ(chip()->faults().wrong_sequence, 0u);
    EXPECT_TRUE(chip()->faults().bus_fail_addresses.empty());
}

// A late reply comes after the host has let go of the bus: in synchronous mode
// at its first bus transaction after the delay, in threaded mode from the
// firmware's thread. A processor reset meanwhile drops the reply.
TEST(SimLateReply, ArrivesLateUnlessTheProcessorIsResetMeanwhile)
{
    for (auto mode : {kavo_sim::exec_mode::synchronous, kavo_sim::exec_mode::threaded}) {
        SCOPED_TRACE(mode == kavo_sim::exec_mode::threaded ? "threaded" : "synchronous");
        ASSERT_EQ(kavo_sim::chip_create(0, {0x6100, 0, mode, 0}), VELT_SUCCESS);
        kavo_sim::chip* chip = kavo_sim::chip_get(0);
        bus_client bus(kavo_sim::callouts(), 0);
        ASSERT_TRUE(bus.cold_start(kavo_sim::image_build({})));
        ASSERT_EQ(chip->fault_set(SIM_FAULT_SLOW_REPLY, 20000), VELT_SUCCESS);
        EXPECT_TRUE(bus.exchange(KAVO_HTL_OPERATION_STATUS).replied);

        ASSERT_EQ(chip->fault_set(SIM_FAULT_SLOW_REPLY, 300000), VELT_SUCCESS);
        const UINT32 hdr[8] = {0, 77, KAVO_HTL_OPERATION_STATUS, 0, 0, 0, 0, 0};
        bus.bwrite(0x340004, hdr, 8);
        bus.write(DOORBELL, 0);
        EXPECT_EQ(bus.rd(DOORBELL), 0u) << "not yet";
        bus.write(0xF0002C, 0x5AFEC0DE);
        std::this_thread::sleep_for(milliseconds(400));
        EXPECT_EQ(bus.rd(DOORBELL), 0u);
        EXPECT_NE(bus.rd(0x344008), 77u) << "no reply written after the reset";
        EXPECT_EQ(chip->counters().replies, 1u);
        chip->fault_set(SIM_FAULT_CLEAR_ALL);
        ASSERT_TRUE(bus.cold_start(kavo_sim::image_build({})));
        EXPECT_EQ(bus.exchange(KAVO_HTL_OPERATION_STATUS).result(), VELT_SUCCESS) << "serving again";
        kavo_sim::chip_destroy(0);
    }
}

} // namespace
