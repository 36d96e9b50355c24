// The virtual chip seen through the callout table only: register semantics,
// which images start on which chip, what a start leaves behind, restarts and
// the RAM that survives them. Addresses are written out as numbers on purpose:
// they are the chip's map, not the simulator's own constants.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "kavo_sim/bus_client.h"
#include "kavo_sim/kavo_sim.h"

using kavo_sim::bus_client;

namespace {

constexpr UINT32 OK = 0;
constexpr UINT32 SCRATCH6 = 0xF00338;
constexpr UINT32 BOOT_INFO = 0xF000F0;
constexpr UINT32 LOG = 0x354004;

/* The console ring up to its write index, as bytes: each line sits whole in one record. */
std::string console_text(bus_client& bus)
{
    const auto bytes = bus.bytes_read(LOG + 68, 4 * bus.rd(LOG + 8));
    return std::string(bytes.begin(), bytes.end());
}

constexpr auto THREADED = kavo_sim::exec_mode::threaded;

// Chips run threaded, so that requests are served on the firmware's thread,
// on a stepped clock, so that the chip's timers do not depend on the host's speed.
class SimChip : public ::testing::Test {
  protected:
    void SetUp() override
    {
        kavo_sim::chip_config cfg{0x6100, 0, THREADED, 0};
        cfg.bus_transaction_ns = 1;
        cfg.host_time = false;
        ASSERT_EQ(kavo_sim::chip_create(0, cfg), VELT_SUCCESS);
    }
    void TearDown() override { kavo_sim::chip_destroy_all(); }
    bus_client bus{kavo_sim::callouts(), 0};
};

TEST_F(SimChip, DeviceIdCarriesCodeAndRevisionAndIsReadOnly)
{
    struct {
        UINT32 code, rev, expect;
    } cases[] = {{0x6100, 0, 0x06100000}, {0x6104, 1, 0x16104000}, {0x61FF, 2, 0x261FF000}};
    for (auto& c : cases) {
        ASSERT_EQ(kavo_sim::chip_create(7, {c.code, c.rev}), VELT_SUCCESS);
        bus_client b(kavo_sim::callouts(), 7);
        b.write(0xF00380, 0);
        EXPECT_EQ(b.rd(0xF00380), c.expect) << std::hex << c.code;
        kavo_sim::chip_destroy(7);
    }
}

TEST_F(SimChip, UndecodedUnalignedAndAbsentFailOnTheBus)
{
    const UINT32 undecoded[] = {0x400000, 0x500000, 0xF00000, 0xF00024, 0xF000B4, 0xF00381, 0xF00384,
                                0xF10014, 0xF10030, 0xF021E2, 0xF02200, 0x744000, 0x744014, 0x740010};
    UINT32 v = 0, words[4] = {};
    for (UINT32 a : undecoded) {
        EXPECT_NE(bus.read(a, v), OK) << std::hex << a;
        EXPECT_NE(bus.write(a, 1), OK) << std::hex << a;
    }
    EXPECT_NE(bus.bread(0x3FFFF8, words, 4), OK) << "burst past the end of RAM";
    EXPECT_NE(bus.bwrite(0xF00320, words, 1), OK) << "bursts reach RAM only";
    EXPECT_NE(bus.bread(0x2, words, 1), OK) << "unaligned";
    EXPECT_EQ(bus.bread(0x3FFFF0, words, 4), OK);
    for (UINT32 id : {4u, 32u}) {
        bus_client absent(kavo_sim::callouts(), id);
        EXPECT_EQ(absent.read(0xF00380, v), kavo_sim::map::BUS_ERR_NO_CHIP) << id;
        EXPECT_NE(absent.write(0xF00320, 1), OK);
        EXPECT_NE(absent.bread(0, words, 1), OK);
    }
}

TEST_F(SimChip, StorageRegistersKeepTheirWritableBits)
{
    struct {
        UINT32 address, written, reads;
    } cases[] = {
        {0x3FFFFC, 0xA5A5A5A5, 0xA5A5A5A5},   // last RAM word, by single access
        {0xF00320, 0xDEADBEEF, 0xDEADBEEF},   // APP_SCRATCH[0]
        {0xF0037C, 0x12345678, 0x12345678},   // APP_SCRATCH[23]
        {0xF02000, 0x01000000, 0x01000000},   // DEV_INTB_AGGR_SET[0]
        {0xF020DC, 0xFFFFFFFF, 0xFFFFFFFF},   // DEV_INTB_AGGR_SET[55]
        {0xF020E4, 0xFFFFFFFF, 1},            // INTER_PROCESSOR_INTS[1]: bit 0 only
        {0xF021DC, 2, 0},                     // INTER_PROCESSOR_INTS[63]
        {0xF021F0, 0xFFFFFFFF, 0xFFFF},       // IPI2PCIE_0_INT_EN
        {0xF021FC, 0x12345, 0x2345},          // IPI2PCIE_3_INT_EN
        {0xF00020, 0xFFFFFFFF, ~0x720027F4u}, // SW_RST_HOST_EN
        {0xF10010, 0x1FF, 0xFF},              // RAM_UNAVAIL
        {0xF10028, 0x100, 0},                 // RAM_LOWPWR_SD
        {0xF000F0, 5, 0},                     // BOOT_INFO is the firmware's
        {0x74401C, 0xFFFFFFFF, 0x3F3F3F3F},   // POST_DIVIDER_CFG_REG_2
        {0x744010, 3, 1},                     // POST_DIVIDER_UPDATE_REG
    };
    for (auto& c : cases) {
        EXPECT_EQ(bus.write(c.address, c.written), OK) << std::hex << c.address;
        EXPECT_EQ(bus.rd(c.address), c.reads) << std::hex << c.address;
    }
}

TEST_F(SimChip, InterruptStatusIsWriteOneToClear)
{
    // The test doorbell is answered by a running firmware; boot one.
    ASSERT_TRUE(bus.cold_start(kavo_sim::image_build({})));
    EXPECT_EQ(bus.rd(0xF021E0) & 0x20, 0u);
    bus.write(0xF020F4, 1); // INTER_PROCESSOR_INTS[5], the test doorbell
    EXPECT_EQ(bus.rd(0xF021E0) & 0x20, 0x20u);
    bus.write(0xF021E0, 0x1F); // other bits: no effect
    EXPECT_EQ(bus.rd(0xF021E0) & 0x20, 0x20u);
    bus.write(0xF021E0, 0x20);
    EXPECT_EQ(bus.rd(0xF021E0) & 0x20, 0u);
    // An exchange raises bit 0 of group 0 only.
    ASSERT_TRUE(bus.exchange(KAVO_HTL_OPERATION_STATUS).replied);
    EXPECT_EQ(bus.rd(0xF021E0), 1u);
    EXPECT_EQ(bus.rd(0xF021E4) | bus.rd(0xF021E8) | bus.rd(0xF021EC), 0u);
}

TEST_F(SimChip, RamInitClearsTheRisingBanksAndIsBusyAWhile)
{
    const UINT32 pattern[2] = {0x11111111, 0x22222222};
    for (UINT32 bank = 0; bank < 4; ++bank)
        bus.bwrite(bank * 0x100000 + 0x40, pattern, 2);
    bus.write(0xF10018, 0x3); // RAM_INIT_EN: banks 0 and 1
    // Busy for the chip's RAM-init time (100 us by default), in the chip's clock.
    EXPECT_EQ(bus.rd(0xF10020), 0x3u) << "both banks busy";
    kavo_sim::chip_get(0)->advance_time(100);
    EXPECT_EQ(bus.rd(0xF10020), 0u);
    for (UINT32 bank = 0; bank < 4; ++bank)
        EXPECT_EQ(bus.rd(bank * 0x100000 + 0x40), bank < 2 ? 0u : pattern[0]) << "bank " << bank;
    // Enable bits that stay set clear nothing more.
    bus.bwrite(0x40, pattern, 2);
    bus.write(0xF10018, 0x7);
    EXPECT_EQ(bus.rd(0x40), pattern[0]);
    EXPECT_EQ(bus.rd(0x200040), 0u);
}

TEST(SimChipClock, ASteppedClockMovesWithBusTransactionsAndRequestsOnly)
{
    kavo_sim::chip_config cfg;
    cfg.bus_transaction_ns = 10000;
    cfg.host_time = false;
    ASSERT_EQ(kavo_sim::chip_create(1, cfg), VELT_SUCCESS);
    bus_client b{kavo_sim::callouts(), 1};
    b.write(0xF10018, 0x1); // RAM_INIT_EN: bank 0, busy for 100 us of the chip's clock
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    int busy_reads = 0;
    while (b.rd(0xF10020) != 0 && busy_reads < 100)
        ++busy_reads;
    EXPECT_EQ(busy_reads, 9) << "10 us per transaction, the host's own time not counted";
    b.write(0xF10018, 0x3);
    kavo_sim::chip_get(1)->advance_time(100);
    EXPECT_EQ(b.rd(0xF10020), 0u) << "advance_time moves a stepped clock";
    kavo_sim::chip_destroy(1);
}

TEST(SimChipBusTime, RamInitEndsAfterTheBusHasTakenItsTimeAndTheClearedBankReadsZero)
{
    // A 1-second init on a bus whose reads take 1 ms of the chip's time each.
    kavo_sim::chip_config cfg;
    cfg.ram_init_us = 1000000;
    cfg.bus_transaction_ns = 1000000;
    ASSERT_EQ(kavo_sim::chip_create(1, cfg), VELT_SUCCESS);
    bus_client bus{kavo_sim::callouts(), 1};
    const UINT32 words[3] = {1, 2, 3};
    bus.bwrite(0x100000 - 4, words, 3); // the last word of bank 0 and two of bank 1
    bus.bwrite(0x1FF000, words, 3);     // bank 1's last page
    bus.write(0xF10018, 0x2);           // RAM_INIT_EN: bank 1
    UINT32 reads = 1;
    EXPECT_EQ(bus.rd(0xF10020), 0x2u);
    while (bus.rd(0xF10020) != 0 && reads < 2000) ++reads;
    EXPECT_LE(reads, 1000u) << "the bus's time ends the init";
    EXPECT_EQ(bus.rd(0xFFFFC), 1u) << "bank 0 untouched";
    for (UINT32 at : {0x100000u, 0x100004u, 0x1FF000u, 0x1FF008u, 0x180000u})
        EXPECT_EQ(bus.rd(at), 0u) << std::hex << at;
    bus.bwrite(0x100000, words, 3); // a cleared bank takes writes again
    EXPECT_EQ(bus.rd(0x100008), 3u);
    kavo_sim::chip_destroy(1);
}

TEST_F(SimChip, UnavailableOrShutDownBanksRefuseAccess)
{
    const UINT32 v = 0xCAFEF00D;
    bus.bwrite(0x100000, &v, 1);
    UINT32 w = 0, two[2];
    bus.write(0xF10010, 0x2); // RAM_UNAVAIL bank 1
    EXPECT_EQ(bus.bread(0x100000, &w, 1), kavo_sim::map::BUS_ERR_RAM_OFFLINE);
    EXPECT_NE(bus.read(0x100000, w), OK);
    EXPECT_NE(bus.bread(0xFFFFC, two, 2), OK) << "a burst into the bank";
    EXPECT_EQ(bus.bread(0x0, &w, 1), OK);
    bus.write(0xF10010, 0);
    EXPECT_EQ(bus.rd(0x100000), v);

    bus.write(0xF10028, 0x2); // RAM_LOWPWR_SD bank 1: its content is lost
    EXPECT_NE(bus.read(0x100000, w), OK);
    bus.write(0xF10028, 0);
    EXPECT_EQ(bus.read(0x100000, w), OK);
    EXPECT_NE(w, v);
}

TEST_F(SimChip, DcsuLatchesOnTheRisingUpdatePulseOnly)
{
    ASSERT_TRUE(bus.cold_start(kavo_sim::image_build({})));
    kavo_htl_general_struct_t instance0;
    instance0.element_id = 0;
    auto post_div0 = [&] { // as the firmware reports it, from the reply mailbox
        EXPECT_EQ(bus.exchange(KAVO_HTL_OPERATION_DCSU_CFG_GET, nullptr, 0, instance0).result(), VELT_SUCCESS);
        return bus.rd(0x344024 + offsetof(kavo_dcsu_cfg_get_t, post_div_by));
    };
    EXPECT_EQ(post_div0(), 4u);
    bus.write(0x74401C, 0x04040403); // POST_DIV_BY0 = 3, not yet latched
    EXPECT_EQ(post_div0(), 4u);
    bus.write(0x744010, 1);
    EXPECT_EQ(post_div0(), 3u);
    bus.write(0x74401C, 0x04040405);
    bus.write(0x744010, 1); // held high: no new edge
    EXPECT_EQ(post_div0(), 3u);
}

// The firmware starts when SW_RST_HOST_TRIG (0xF0002C) and SW_SET_CORERESET
// (0xF000B0) are both released; it then answers 0x1001 in APP_SCRATCH[6].
TEST_F(SimChip, ResetMagicCoreResetAndAutoClear)
{
    bus.download(kavo_sim::image_build({}));
    EXPECT_EQ(bus.rd(BOOT_INFO), 0u) << "BOOT_INFO is 0 until the firmware has run";
    struct {
        UINT32 address, value, check, expect;
        const char* why;
    } steps[] = {
        {0xF00338, 0, 0xF00338, 0, "boot argument"},
        {0xF0002C, 0, 0xF00338, 0, "core reset held from power-up"},
        {0xF000B0, 0, 0xF00338, 0x1001, "both released: the firmware runs"},
        {0xF00338, 0x77, 0xF020E0, 1, "the mailbox is handed to the host"},
        {0xF0002C, 0x12345678, 0xF00338, 0x77, "not the magic: nothing"},
        {0xF000B0, 1, 0xF00338, 0x77, "core reset alone stops the processor"},
        {0xF000B0, 0, 0xF00338, 0x1001, "released again, it starts over"},
        {0xF00338, 0x77, 0xF00338, 0x77, ""},
        {0xF0002C, 0x5AFEC0DE, 0xF000B0, 1, "the magic re-asserts the core reset"},
        {0xF000B0, 0, 0xF00338, 0x77, "the trigger still holds"},
        {0xF0002C, 0, 0xF00338, 0x1001, "both released"},
        {0xF00020, 0x80000000, 0xF00338, 0x1001, "auto-clear enabled"},
        {0xF0002C, 0x5AFEC0DE, 0xF0002C, 0, "a pulse: the trigger cleared itself"},
        {0xF00338, 0, 0xF00338, 0, "the core reset still holds"},
        {0xF000B0, 0, 0xF00338, 0x1001, ""},
    };
    for (auto& step : steps) {
        bus.write(step.address, step.value);
        EXPECT_EQ(bus.rd(step.check), step.expect) << std::hex << step.address << " " << step.value << ": " << step.why;
    }
    EXPECT_EQ(bus.rd(BOOT_INFO), 4u) << "BOOT_INFO counts the starts";
}

TEST_F(SimChip, JournalCountsEachTransactionKind)
{
    kavo_sim::chip* c = kavo_sim::chip_get(0);
    c->journal_reset();
    UINT32 w[8] = {}, v = 0;
    bus.read(0xF00380, v);
    bus.read(0xF00384, v); // fails, still counted
    bus.write(0xF00320, 1);
    bus.bread(0, w, 8);
    bus.bwrite(0, w, 5);
    bus.bwrite(0, w, 3);
    const auto j = c->journal();
    const auto& n = j.counters;
    EXPECT_EQ((std::vector<UINT64>{n.reads, n.writes, n.burst_reads, n.burst_writes, n.words_read, n.words_written,
                                   n.bus_errors}),
              (std::vector<UINT64>{2, 1, 1, 2, 8, 8, 1}));
    ASSERT_EQ(j.events.size(), 6u);
    EXPECT_TRUE(j.events[1].address == 0xF00384 && j.events[1].status != OK) << "the failed read";
    EXPECT_TRUE(j.events[4].kind == kavo_sim::event_kind::burst_write && j.events[4].value == 5) << "5 words";
}

TEST_F(SimChip, ImagesStartOnlyOnTheirRevisionAndIntact)
{
    auto rev = [](UINT32 device_rev) { return kavo_sim::image_build({3, 0, 2, 1, device_rev}); };
    struct {
        const char* what;
        std::vector<UINT8> file;
        UINT32 revision_code;
        bool starts;
    } cases[] = {
        {"reva image on reva", rev(kavo_sim::IMAGE_REV_A), 0, true},
        {"revb image on revb", rev(kavo_sim::IMAGE_REV_B), 1, true},
        {"any image on revb", rev(kavo_sim::IMAGE_REV_ANY), 1, true},
        {"reva image on revb", rev(kavo_sim::IMAGE_REV_A), 1, false},
        {"revb image on reva", rev(kavo_sim::IMAGE_REV_B), 0, false},
        {"corrupt body", kavo_sim::image_build({}, true), 0, false},
        {"empty body corrupted", kavo_sim::image_build({3, 0, 2, 1, 0, 0}, true), 0, false},
        {"no image", std::vector<UINT8>(64, 0), 0, false},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_EQ(kavo_sim::chip_create(1, {0x6100, c.revision_code, THREADED, 0}), VELT_SUCCESS);
        bus_client b(kavo_sim::callouts(), 1);
        EXPECT_EQ(b.cold_start(c.file, 0xABCD), c.starts);
        EXPECT_EQ(b.rd(SCRATCH6), c.starts ? 0x1001u : 0xABCDu);
        EXPECT_EQ(b.rd(BOOT_INFO), c.starts ? 1u : 0u);
        EXPECT_EQ(b.rd(0xF020E0), c.starts ? 1u : 0u) << "the mailbox is handed over";
        EXPECT_EQ(b.rd(LOG) == 0xFACEF00D, c.starts) << "the log block is laid out";
        EXPECT_EQ(kavo_sim::chip_get(1)->fw_state(), c.starts ? SIM_FW_STATE_RUNNING : SIM_FW_STATE_BAD_IMAGE);
        kavo_sim::chip_destroy(1);
    }
}

TEST_F(SimChip, StartIsLoggedAndRamSurvivesAProcessorReset)
{
    ASSERT_TRUE(bus.cold_start(kavo_sim::image_build({3, 7, 66, 90434})));
    const std::string cold = console_text(bus);
    EXPECT_NE(cold.find("kavo firmware 3.7.66 (vcs 90434) on device 0x6100 rev A, device id 0\n"), std::string::npos)
        << cold;
    EXPECT_NE(cold.find("boot argument 0x00000000: cold start, boot 1\n"), std::string::npos) << cold;
    const UINT32 marks[3] = {0x600DF00D, 0x12345678, 0x9ABCDEF0};
    UINT32 back[3] = {};
    bus.bwrite(0x300000, marks, 3);
    bus.write(0xF0002C, 0x5AFEC0DE);
    EXPECT_EQ(kavo_sim::chip_get(0)->fw_state(), SIM_FW_STATE_IN_RESET);
    EXPECT_EQ(bus.rd(BOOT_INFO), 1u) << "BOOT_INFO tells a warm chip";
    // A release without clearing starts again from the image still in RAM.
    ASSERT_TRUE(bus.release(0xBEEB00BA));
    EXPECT_NE(console_text(bus).find("boot argument 0xbeeb00ba: warm start, boot 2\n"), std::string::npos);
    bus.bread(0x300000, back, 3);
    EXPECT_EQ(std::vector<UINT32>(back, back + 3), std::vector<UINT32>(marks, marks + 3));
}

TEST_F(SimChip, RestartRequestStartsOverAfterReplying)
{
    ASSERT_TRUE(bus.cold_start(kavo_sim::image_build({})));
    bus.exchange(KAVO_HTL_OPERATION_DEBUG_CMD, "echo before", 12);
    auto r = bus.exchange(KAVO_HTL_OPERATION_RESTART);
    ASSERT_TRUE(r.replied);
    EXPECT_EQ(r.result(), VELT_SUCCESS);
    EXPECT_EQ(bus.rd(BOOT_INFO), 2u) << "started over before the doorbell came back";
    EXPECT_EQ(bus.rd(SCRATCH6), 0x1001u);
    const std::string text = console_text(bus);
    EXPECT_EQ(text.find("before"), std::string::npos) << "the log block is laid out anew";
    EXPECT_NE(text.find("restart, boot 2"), std::string::npos) << text;
    EXPECT_EQ(bus.exchange(KAVO_HTL_OPERATION_STATUS).result(), VELT_SUCCESS);
}

TEST(SimImage, InspectParseAndChecksum)
{
    EXPECT_EQ(kavo_sim::crc32("123456789", 9), 0xCBF43926u);
    // Every length and alignment against the bit-at-a-time definition, and in pieces.
    std::vector<UINT8> bytes(67);
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = UINT8(i * 37 + 11);
    for (size_t from = 0; from < 8; ++from)
        for (size_t n = 0; from + n <= bytes.size(); ++n) {
            UINT32 c = ~0u;
            for (size_t i = from; i < from + n; ++i) {
                c ^= bytes[i];
                for (int k = 0; k < 8; ++k) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
            }
            ASSERT_EQ(kavo_sim::crc32(bytes.data() + from, n), ~c) << from << "+" << n;
            ASSERT_EQ(kavo_sim::crc32(bytes.data() + from + n / 2, n - n / 2, kavo_sim::crc32(bytes.data() + from, n / 2)), ~c);
        }
    const auto good = kavo_sim::image_build({});
    EXPECT_EQ(kavo_sim::image_inspect(good).problem, "");
    auto body = good, lying = good;
    body[64 + 32 + 100] ^= 1;
    EXPECT_EQ(kavo_sim::image_inspect(body).problem, "image_crc mismatch");
    EXPECT_FALSE(kavo_sim::image_inspect(std::vector<UINT8>(good.begin(), good.begin() + 40)).readable);
    // A consistent file whose payload header lies about the version.
    lying[64 + 8] ^= 1;
    const UINT32 crc = kavo_sim::crc32(lying.data() + 64, lying.size() - 64);
    std::memcpy(lying.data() + 8, &crc, 4);
    EXPECT_EQ(kavo_sim::image_inspect(lying).problem, "payload version disagrees with the header");

    kavo_sim::image_version v;
    EXPECT_TRUE(kavo_sim::image_version_parse("3.1.255", v));
    EXPECT_EQ(kavo_sim::version_word(v.major, v.minor, v.build), 0x3010FFu);
    for (const char* bad : {"3.1", "3.1.256", "3.1.2x", "", "a.b.c"})
        EXPECT_FALSE(kavo_sim::image_version_parse(bad, v)) << bad;
    UINT32 rev = 99;
    EXPECT_TRUE(kavo_sim::image_rev_parse("revb", rev));
    EXPECT_EQ(rev, kavo_sim::IMAGE_REV_B);
    EXPECT_FALSE(kavo_sim::image_rev_parse("revc", rev));
}

} // namespace
