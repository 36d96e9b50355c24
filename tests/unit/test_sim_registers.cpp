// Register semantics of the virtual chip, seen through the callout table only.
// Addresses are written out as numbers on purpose: they are the chip's map, not
// the simulator's own constants.
#include <gtest/gtest.h>

#include "kavo_sim/bus_client.h"
#include "kavo_sim/kavo_sim.h"

using kavo_sim::bus_client;

namespace {

constexpr UINT32 OK = 0;

class SimRegisters : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(kavo_sim::chip_create(3), VELT_SUCCESS); }
    void TearDown() override { kavo_sim::chip_destroy_all(); }
    bus_client bus{kavo_sim::callouts(), 3};
};

TEST_F(SimRegisters, DeviceIdCarriesCodeAndRevision)
{
    struct {
        UINT32 code, rev, expect;
    } cases[] = {{0x6100, 0, 0x06100000}, {0x6104, 1, 0x16104000}, {0x61FF, 2, 0x261FF000}, {0x1234, 0, 0x01234000}};
    for (auto& c : cases) {
        kavo_sim::chip_config cfg;
        cfg.device_code = c.code;
        cfg.revision_code = c.rev;
        ASSERT_EQ(kavo_sim::chip_create(7, cfg), VELT_SUCCESS);
        bus_client b(kavo_sim::callouts(), 7);
        EXPECT_EQ(b.rd(0xF00380), c.expect) << std::hex << c.code;
        b.write(0xF00380, 0); // read-only
        EXPECT_EQ(b.rd(0xF00380), c.expect);
        kavo_sim::chip_destroy(7);
    }
}

TEST_F(SimRegisters, UndecodedAddressesAndAbsentChipsFailOnTheBus)
{
    const UINT32 undecoded[] = {0x400000, 0x500000, 0xF00000, 0xF00024, 0xF000B4, 0xF00381, 0xF00384,
                                0xF10014, 0xF10030, 0xF021E2, 0xF02200, 0x744000, 0x744014, 0x740010};
    for (UINT32 a : undecoded) {
        UINT32 v = 0;
        EXPECT_NE(bus.read(a, v), OK) << std::hex << a;
        EXPECT_NE(bus.write(a, 1), OK) << std::hex << a;
    }
    UINT32 words[4] = {};
    EXPECT_NE(bus.bread(0x3FFFF8, words, 4), OK) << "burst past the end of RAM";
    EXPECT_NE(bus.bwrite(0xF00320, words, 1), OK) << "bursts reach RAM only";
    EXPECT_NE(bus.bread(0x2, words, 1), OK) << "unaligned";
    EXPECT_EQ(bus.bread(0x3FFFF0, words, 4), OK);

    bus_client absent(kavo_sim::callouts(), 4);
    UINT32 v = 0;
    EXPECT_NE(absent.read(0xF00380, v), OK);
    EXPECT_NE(absent.write(0xF00320, 1), OK);
    EXPECT_NE(absent.bread(0, words, 1), OK);
    bus_client out_of_range(kavo_sim::callouts(), 32);
    EXPECT_NE(out_of_range.read(0xF00380, v), OK);
}

TEST_F(SimRegisters, StorageRegistersKeepTheirWritableBits)
{
    struct {
        UINT32 address, written, reads;
    } cases[] = {
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

TEST_F(SimRegisters, InterruptStatusIsWriteOneToClear)
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
    auto r = bus.exchange(KAVO_HTL_OPERATION_STATUS);
    ASSERT_TRUE(r.replied);
    EXPECT_EQ(bus.rd(0xF021E0), 1u);
    EXPECT_EQ(bus.rd(0xF021E4) | bus.rd(0xF021E8) | bus.rd(0xF021EC), 0u);
}

TEST_F(SimRegisters, RamInitClearsTheChosenBanksAndIsBusyAWhile)
{
    const UINT32 pattern[2] = {0x11111111, 0x22222222};
    for (UINT32 bank = 0; bank < 4; ++bank)
        bus.bwrite(bank * 0x100000 + 0x40, pattern, 2);
    bus.write(0xF10018, 0x3); // RAM_INIT_EN: banks 0 and 1
    int busy_reads = 0;
    while (bus.rd(0xF10020) != 0 && busy_reads < 100)
        ++busy_reads;
    EXPECT_GT(busy_reads, 0) << "an init is busy for a short while";
    EXPECT_LT(busy_reads, 100);
    bus.write(0xF10018, 0);
    UINT32 w[2];
    for (UINT32 bank = 0; bank < 4; ++bank) {
        bus.bread(bank * 0x100000 + 0x40, w, 2);
        EXPECT_EQ(w[0], bank < 2 ? 0u : pattern[0]) << "bank " << bank;
    }
    // Enable bits that stay set clear nothing more.
    bus.write(0xF10018, 0x3);
    bus.bwrite(0x40, pattern, 2);
    bus.bwrite(0x200040, pattern, 2);
    bus.write(0xF10018, 0x7);
    EXPECT_EQ(bus.rd(0x40), pattern[0]);
    EXPECT_EQ(bus.rd(0x200040), 0u);
}

TEST_F(SimRegisters, UnavailableOrShutDownBanksRefuseAccess)
{
    const UINT32 v = 0xCAFEF00D;
    bus.bwrite(0x100000, &v, 1);
    UINT32 w = 0, two[2];
    bus.write(0xF10010, 0x2); // RAM_UNAVAIL bank 1
    EXPECT_NE(bus.bread(0x100000, &w, 1), OK);
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

TEST_F(SimRegisters, SingleAccessesReachRam)
{
    EXPECT_EQ(bus.write(0x3FFFFC, 0xA5A5A5A5), OK);
    UINT32 w = 0;
    EXPECT_EQ(bus.bread(0x3FFFFC, &w, 1), OK);
    EXPECT_EQ(w, 0xA5A5A5A5u);
    EXPECT_EQ(bus.rd(0x3FFFFC), 0xA5A5A5A5u);
}

TEST_F(SimRegisters, DcsuLatchesOnTheRisingUpdatePulse)
{
    ASSERT_TRUE(bus.cold_start(kavo_sim::image_build({})));
    auto post_div0 = [&] {
        kavo_htl_general_struct_t info;
        info.element_id = 0;
        auto r = bus.exchange(KAVO_HTL_OPERATION_DCSU_CFG_GET, nullptr, 0, info);
        kavo_dcsu_cfg_get_t cfg;
        std::memcpy(static_cast<void*>(&cfg), r.data.data(), sizeof(cfg));
        return cfg.post_div_by[0];
    };
    EXPECT_EQ(post_div0(), 4u);
    bus.write(0x74401C, 0x04040403); // POST_DIV_BY0 = 3, not yet latched
    EXPECT_EQ(post_div0(), 4u);
    bus.write(0x744010, 1);
    bus.write(0x744010, 0);
    EXPECT_EQ(post_div0(), 3u);
    bus.write(0x74401C, 0x04040405); // a held enable latches nothing more
    bus.write(0x744010, 0);
    EXPECT_EQ(post_div0(), 3u);
}

TEST_F(SimRegisters, ProcessorResetAndRelease)
{
    auto image = kavo_sim::image_build({});
    bus.download(image);
    EXPECT_EQ(bus.rd(0xF000F0), 0u) << "BOOT_INFO is 0 until the firmware has run";
    // Released at power-up? No: the processor is held until the host lets go.
    bus.write(0xF00320 + 24, 0);
    bus.write(0xF0002C, 0); // SW_RST_HOST released, core reset still held
    EXPECT_NE(bus.rd(0xF00338), 0x1001u);
    bus.write(0xF000B0, 0); // SW_SET_CORERESET released: the firmware runs
    EXPECT_EQ(bus.rd(0xF00338), 0x1001u);
    EXPECT_NE(bus.rd(0xF000F0), 0u);
    EXPECT_EQ(bus.rd(0xF020E0), 1u) << "the mailbox is handed to the host";

    // Any other trigger value does nothing; the magic resets.
    bus.write(0xF00338, 0x77);
    bus.write(0xF0002C, 0x12345678);
    bus.write(0xF000B0, 0);
    EXPECT_EQ(bus.rd(0xF00338), 0x77u);
    bus.write(0xF0002C, 0x5AFEC0DE);
    bus.write(0xF0002C, 0);
    bus.write(0xF000B0, 0);
    EXPECT_EQ(bus.rd(0xF00338), 0x1001u) << "a release after the magic starts over";
}

TEST_F(SimRegisters, AutoClearMakesTheResetAPulse)
{
    bus.download(kavo_sim::image_build({}));
    bus.write(0xF00020, 0x80000000);
    bus.write(0xF00338, 0);
    bus.write(0xF0002C, 0x5AFEC0DE);
    EXPECT_EQ(bus.rd(0xF0002C), 0u) << "the trigger cleared itself";
    EXPECT_NE(bus.rd(0xF00338), 0x1001u) << "the core reset still holds";
    bus.write(0xF000B0, 0);
    EXPECT_EQ(bus.rd(0xF00338), 0x1001u);
}

TEST_F(SimRegisters, JournalCountsEachTransactionKind)
{
    kavo_sim::chip* c = kavo_sim::chip_get(3);
    c->journal_reset();
    UINT32 w[8] = {};
    UINT32 v = 0;
    bus.read(0xF00380, v);
    bus.read(0xF00384, v); // fails, still counted
    bus.write(0xF00320, 1);
    bus.bread(0, w, 8);
    bus.bwrite(0, w, 5);
    bus.bwrite(0, w, 3);
    const auto j = c->journal();
    EXPECT_EQ(j.counters.reads, 2u);
    EXPECT_EQ(j.counters.writes, 1u);
    EXPECT_EQ(j.counters.burst_reads, 1u);
    EXPECT_EQ(j.counters.burst_writes, 2u);
    EXPECT_EQ(j.counters.words_read, 8u);
    EXPECT_EQ(j.counters.words_written, 8u);
    EXPECT_EQ(j.counters.bus_errors, 1u);
    ASSERT_EQ(j.events.size(), 6u);
    EXPECT_EQ(j.events[1].kind, kavo_sim::event_kind::reg_read);
    EXPECT_EQ(j.events[1].address, 0xF00384u);
    EXPECT_NE(j.events[1].status, 0u);
    EXPECT_EQ(j.events[4].kind, kavo_sim::event_kind::burst_write);
    EXPECT_EQ(j.events[4].value, 5u);
    c->journal_reset();
    EXPECT_EQ(c->journal().counters.reads, 0u);
    EXPECT_TRUE(c->journal().events.empty());
}

TEST(SimRegistry, CreateRefusesTakenAndOutOfRangeIds)
{
    EXPECT_EQ(kavo_sim::chip_create(32), KAVO_ERR_INVALID_DEVICE_ID);
    EXPECT_EQ(kavo_sim::chip_create(31), VELT_SUCCESS);
    EXPECT_EQ(kavo_sim::chip_create(31), KAVO_ERR_DEVICE_ID_IN_USE);
    EXPECT_NE(kavo_sim::chip_get(31), nullptr);
    kavo_sim::chip_destroy(31);
    EXPECT_EQ(kavo_sim::chip_get(31), nullptr);
    EXPECT_EQ(kavo_sim::chip_create(31), VELT_SUCCESS);
    kavo_sim::chip_destroy_all();
    EXPECT_EQ(kavo_sim::chip_get(31), nullptr);
}

} // namespace
