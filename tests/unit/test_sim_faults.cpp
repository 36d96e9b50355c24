// Each injectable fault of the virtual chip, and what the host side sees of it.
#include <gtest/gtest.h>

#include "kavo_sim/bus_client.h"
#include "kavo_sim/kavo_sim.h"

using kavo_sim::bus_client;
using std::chrono::milliseconds;

namespace {

constexpr UINT32 LOG = 0x354004;
constexpr UINT32 DOORBELL = 0xF020E0;
constexpr UINT32 STATUS0 = 0xF021E0;

class SimFaults : public ::testing::Test {
  protected:
    void SetUp() override
    {
        ASSERT_EQ(kavo_sim::chip_create(1), VELT_SUCCESS);
        chip = kavo_sim::chip_get(1);
        ASSERT_TRUE(bus.cold_start(kavo_sim::image_build({})));
    }
    void TearDown() override { kavo_sim::chip_destroy_all(); }
    kavo_sim::exchange_result status(milliseconds timeout = milliseconds(2000))
    {
        return bus.exchange(KAVO_HTL_OPERATION_STATUS, nullptr, 0, {}, timeout);
    }
    kavo_sim::chip* chip = nullptr;
    bus_client bus{kavo_sim::callouts(), 1};
};

TEST_F(SimFaults, BusFailsOnChosenAddresses)
{
    ASSERT_EQ(chip->fault_set(SIM_FAULT_BUS_FAIL_ADDRESS, 0xF00380, 1), VELT_SUCCESS);
    ASSERT_EQ(chip->fault_set(SIM_FAULT_BUS_FAIL_ADDRESS, 0x1000, 1), VELT_SUCCESS);
    UINT32 v = 0, w[4] = {};
    EXPECT_EQ(bus.read(0xF00380, v), kavo_sim::map::BUS_ERR_INJECTED);
    EXPECT_EQ(v, 0xFFFFFFFFu);
    EXPECT_NE(bus.write(0xF00380, 0), 0u);
    EXPECT_NE(bus.bread(0xFF4, w, 4), 0u) << "a burst that covers the address";
    EXPECT_EQ(bus.bread(0xFF0, w, 4), 0u) << "one that stops short of it";
    EXPECT_EQ(bus.read(0xF00320, v), 0u);
    ASSERT_EQ(chip->fault_set(SIM_FAULT_BUS_FAIL_ADDRESS, 0xF00380, 0), VELT_SUCCESS);
    EXPECT_EQ(bus.read(0xF00380, v), 0u);
    EXPECT_EQ(chip->faults().bus_fail_addresses, std::vector<UINT32>{0x1000});
}

TEST_F(SimFaults, BusFailsOnTheNthTransactionOnce)
{
    ASSERT_EQ(chip->fault_set(SIM_FAULT_BUS_FAIL_NTH, 3), VELT_SUCCESS);
    UINT32 w = 0;
    EXPECT_EQ(bus.read(0xF00380, w), 0u);
    EXPECT_EQ(bus.bread(0, &w, 1), 0u);
    EXPECT_NE(bus.write(0xF00320, 5), 0u);
    EXPECT_NE(bus.rd(0xF00320), 5u) << "the failed write had no effect";
    EXPECT_EQ(bus.read(0xF00380, w), 0u);
    EXPECT_EQ(chip->counters().bus_errors, 1u);
}

TEST_F(SimFaults, HungFirmwareNeverAnswersUntilReset)
{
    ASSERT_EQ(chip->fault_set(SIM_FAULT_FW_HANG, 1), VELT_SUCCESS);
    auto r = status(milliseconds(20));
    EXPECT_TRUE(r.posted);
    EXPECT_FALSE(r.replied);
    EXPECT_EQ(chip->fw_state(), SIM_FW_STATE_HUNG);
    EXPECT_EQ(bus.rd(DOORBELL), 0u);
    EXPECT_EQ(bus.rd(STATUS0) & 1, 0u);
    EXPECT_FALSE(status(milliseconds(1)).posted) << "the mailbox stays the firmware's";
    ASSERT_TRUE(bus.cold_start(kavo_sim::image_build({})));
    EXPECT_EQ(status().result(), VELT_SUCCESS);
}

TEST_F(SimFaults, SlowReplyStillArrives)
{
    ASSERT_EQ(chip->fault_set(SIM_FAULT_SLOW_REPLY, 2000), VELT_SUCCESS);
    auto r = status();
    EXPECT_TRUE(r.replied);
    EXPECT_EQ(r.result(), VELT_SUCCESS);
    EXPECT_EQ(chip->faults().slow_reply_us, 2000u) << "slow stays slow";
}

TEST_F(SimFaults, TamperedRepliesAffectTheCountedRepliesOnly)
{
    struct {
        sim_fault_t fault;
        int word;
        UINT32 delta;
    } cases[] = {
        {SIM_FAULT_WRONG_SEQUENCE, 1, 1}, {SIM_FAULT_WRONG_OPERATION, 2, 1}, {SIM_FAULT_WRONG_DEVICE_ID, 0, 1}};
    for (auto& c : cases) {
        ASSERT_EQ(chip->fault_set(c.fault, 2), VELT_SUCCESS);
        for (int i = 0; i < 3; ++i) {
            const UINT32 seq = bus.next_sequence();
            auto r = status();
            ASSERT_TRUE(r.replied);
            const UINT32 expect[3] = {1, seq, KAVO_HTL_OPERATION_STATUS};
            EXPECT_EQ(r.header[c.word], expect[c.word] + (i < 2 ? c.delta : 0)) << c.fault << " reply " << i;
            for (int k = 0; k < 3; ++k) {
                if (k != c.word) {
                    EXPECT_EQ(r.header[k], expect[k]);
                }
            }
        }
    }
}

TEST_F(SimFaults, OversizedReplyCarriesMoreThanTheRecord)
{
    ASSERT_EQ(chip->fault_set(SIM_FAULT_OVERSIZED_REPLY, 1, 100), VELT_SUCCESS);
    auto r = status();
    EXPECT_EQ(r.header[7], 132u);
    EXPECT_EQ(r.data.size(), 132u);
    EXPECT_EQ(status().header[7], 32u);
    ASSERT_EQ(chip->fault_set(SIM_FAULT_OVERSIZED_REPLY, 1, 0x20000), VELT_SUCCESS);
    EXPECT_EQ(status().header[7], 65536u - 32) << "never past the response mailbox";
}

TEST_F(SimFaults, DoorbellKeptLeavesTheMailboxWithTheFirmware)
{
    ASSERT_EQ(chip->fault_set(SIM_FAULT_DOORBELL_KEPT, 1), VELT_SUCCESS);
    const UINT32 seq = bus.next_sequence();
    auto r = status(milliseconds(20));
    EXPECT_FALSE(r.replied);
    EXPECT_EQ(bus.rd(STATUS0) & 1, 1u) << "the reply indication was raised";
    EXPECT_EQ(bus.rd(DOORBELL), 0u);
    EXPECT_EQ(bus.rd(0x344008), seq) << "the reply itself was written";
    EXPECT_FALSE(status(milliseconds(1)).posted);
}

TEST_F(SimFaults, CorruptImageFailsTheNextStartOnly)
{
    ASSERT_EQ(chip->fault_set(SIM_FAULT_CORRUPT_IMAGE, 1), VELT_SUCCESS);
    EXPECT_FALSE(bus.cold_start(kavo_sim::image_build({})));
    EXPECT_EQ(chip->fw_state(), SIM_FW_STATE_BAD_IMAGE);
    EXPECT_TRUE(bus.cold_start(kavo_sim::image_build({})));
}

TEST_F(SimFaults, FirmwareRestartStartsOver)
{
    bus.exchange(KAVO_HTL_OPERATION_DEBUG_CMD, "echo x\0", 8);
    const UINT32 index = bus.rd(LOG + 8);
    ASSERT_EQ(chip->fault_set(SIM_FAULT_FW_RESTART), VELT_SUCCESS);
    EXPECT_EQ(chip->boot_count(), 2u);
    EXPECT_LT(bus.rd(LOG + 8), index) << "a fresh console";
    EXPECT_EQ(status().result(), VELT_SUCCESS);
    bus.write(0xF0002C, 0x5AFEC0DE);
    EXPECT_EQ(chip->fault_set(SIM_FAULT_FW_RESTART), VELT_ERR_FAIL) << "a processor in reset cannot restart";
}

TEST_F(SimFaults, LogBlockCorruption)
{
    struct {
        sim_fault_t fault;
        UINT32 arg;
        UINT32 offset;
        UINT32 expect;
    } cases[] = {
        {SIM_FAULT_CORRUPT_CONSOLE_COOKIE, 0xDEAD, 0, 0xDEAD},
        {SIM_FAULT_CORRUPT_STATS_COOKIE, 0, 20, 0},
        {SIM_FAULT_CORRUPT_DBG_LOG_COOKIE, 0xF00DF00E, 36, 0xF00DF00E},
        {SIM_FAULT_CORRUPT_CONSOLE_RING, 0, 68, 0x21212121},
        {SIM_FAULT_CORRUPT_CONSOLE_RING, 5, 8, 8197},
    };
    for (auto& c : cases) {
        EXPECT_EQ(chip->fault_set(c.fault, c.arg), VELT_SUCCESS);
        EXPECT_EQ(bus.rd(LOG + c.offset), c.expect) << c.fault;
    }
    // A debug log's write index beyond its entries.
    const UINT32 desc = LOG + bus.rd(LOG + 48) + bus.rd(LOG + 44);
    EXPECT_EQ(chip->fault_set(SIM_FAULT_CORRUPT_DBG_LOG_INDEX, 1), VELT_SUCCESS);
    EXPECT_GT(bus.rd(desc + 28), bus.rd(desc + 20));
    EXPECT_EQ(chip->fault_set(SIM_FAULT_CORRUPT_DBG_LOG_INDEX, 3), VELT_ERR_FAIL) << "no fourth log";
}

TEST_F(SimFaults, FaultsNeedAStartedFirmwareForTheLogBlockAndAKnownKind)
{
    ASSERT_EQ(kavo_sim::chip_create(2), VELT_SUCCESS);
    EXPECT_EQ(kavo_sim::chip_get(2)->fault_set(SIM_FAULT_CORRUPT_CONSOLE_COOKIE), VELT_ERR_FAIL);
    EXPECT_EQ(chip->fault_set(LAST_SIM_FAULT), VELT_ERR_INVALID_ARGS);
    EXPECT_EQ(chip->fault_set(sim_fault_t(99)), VELT_ERR_INVALID_ARGS);
    chip->fault_set(SIM_FAULT_WRONG_SEQUENCE, 5);
    chip->fault_set(SIM_FAULT_BUS_FAIL_ADDRESS, 4, 1);
    EXPECT_EQ(chip->fault_set(SIM_FAULT_CLEAR_ALL), VELT_SUCCESS);
    EXPECT_EQ(chip->faults().wrong_sequence, 0u);
    EXPECT_TRUE(chip->faults().bus_fail_addresses.empty());
    kavo_sim::fault_config f;
    f.doorbell_kept = 7;
    chip->faults(f);
    EXPECT_EQ(chip->faults().doorbell_kept, 7u);
}

TEST_F(SimFaults, JournalRecordsRequestsAndReplies)
{
    chip->journal_reset();
    ASSERT_EQ(chip->fault_set(SIM_FAULT_WRONG_SEQUENCE, 1), VELT_SUCCESS);
    const UINT32 seq = bus.next_sequence();
    status();
    const auto j = chip->journal();
    EXPECT_EQ(j.counters.requests, 1u);
    EXPECT_EQ(j.counters.replies, 1u);
    const kavo_sim::journal_event* req = nullptr;
    const kavo_sim::journal_event* rep = nullptr;
    for (auto& e : j.events) {
        if (e.kind == kavo_sim::event_kind::request) req = &e;
        if (e.kind == kavo_sim::event_kind::reply) rep = &e;
    }
    ASSERT_TRUE(req && rep);
    EXPECT_LT(req, rep);
    EXPECT_EQ(req->sequence_num, seq);
    EXPECT_EQ(rep->sequence_num, seq + 1) << "the journal shows what went on the wire";
    EXPECT_EQ(rep->data_size, 32u);
    EXPECT_EQ(chip->info().replies, 1u);
}

} // namespace
