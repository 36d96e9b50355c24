// The doorbell against a fake register bus: bit and group operations, and the
// request hand-over and reply wait of the mailbox protocol.
#include <gtest/gtest.h>

#include <string>

#include "kavo_fake_bus.h"
#include "kavo_ipi.h"
#include "kavo_test_log.h"
#include "velt_library_options.h"
#include "velt_log.h"

namespace {

constexpr UINT32 BASE = 0xF00000;
constexpr UINT32 DOORBELL0 = BASE + 0x20E0;
constexpr UINT32 STATUS[4] = {BASE + 0x21E0, BASE + 0x21E4, BASE + 0x21E8, BASE + 0x21EC};
constexpr UINT32 ENABLE[4] = {BASE + 0x21F0, BASE + 0x21F4, BASE + 0x21F8, BASE + 0x21FC};

class Ipi : public ::testing::Test {
protected:
    void SetUp() override
    {
        kavo_test::install_capture(kavo_test::fake_bus::callouts());
        sys = velt_sys_handle_create();
        velt_sys_init(sys, 2);
        handle = velt_handle_t{&sys, BASE};
        ipi.handle_init(2, &handle);
        velt_option_notimeout.value = false;
        saved_verbosity = global_verbosity;
    }
    void TearDown() override
    {
        velt_option_notimeout.value = false;
        global_verbosity = saved_verbosity;
        velt_sys_handle_destroy(sys);
    }
    std::vector<std::pair<UINT32, UINT32>> writes() { return bus.writes; }
    static std::string fail_line() { return " VELT_RUNTIME_ERROR( VELT_ERR_FAIL )\n"; }

    kavo_test::fake_bus bus;
    velt_sys_handle_t sys = nullptr;
    cpu_cfg_handle_t handle{};
    kavo_ipi ipi;
    velt_log_sev_t saved_verbosity = VELT_LOG_SEV_EVENT;
};

using Writes = std::vector<std::pair<UINT32, UINT32>>;

TEST_F(Ipi, DoorbellBitsArePlainWritesOfTheWholeRegister)
{
    bus.regs[DOORBELL0 + 12] = 0xFFFFFFFE;
    ipi.ipi_bit_set(3);
    ipi.ipi_bit_clear(5);
    EXPECT_EQ(writes(), (Writes{{DOORBELL0 + 12, 1}, {DOORBELL0 + 20, 0}}));
    EXPECT_EQ(bus.reads.count(DOORBELL0 + 12), 0u);
    EXPECT_TRUE(ipi.is_ipi_bit_set(3));
    EXPECT_FALSE(ipi.is_ipi_bit_set(5));
}

TEST_F(Ipi, GroupOperationsSelectRegisterAndBitByNumber)
{
    struct Case {
        UINT32 number;
        int group;
        UINT32 bit;
    } cases[] = {{0, 0, 0x1}, {15, 0, 0x8000}, {16, 1, 0x1}, {17, 1, 0x2}, {31, 1, 0x8000},
                 {32, 2, 0x1}, {40, 2, 0x100}, {47, 2, 0x8000}, {48, 3, 0x1}, {63, 3, 0x8000}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.number);
        bus.writes.clear();
        bus.regs.clear();
        // Enable: read-modify-write of one bit, the others kept.
        bus.regs[ENABLE[c.group]] = 0x00F0;
        ipi.interrupt_enable_set(c.number, true);
        EXPECT_EQ(bus.regs[ENABLE[c.group]], 0x00F0 | c.bit);
        ipi.interrupt_enable_set(c.number, false);
        EXPECT_EQ(bus.regs[ENABLE[c.group]], 0x00F0 & ~c.bit);
        // Clear: write one to the status bit, nothing else.
        bus.writes.clear();
        ipi.interrupt_clear(c.number);
        EXPECT_EQ(writes(), (Writes{{STATUS[c.group], c.bit}}));
        // Status: only this bit of this group counts.
        bus.regs[STATUS[c.group]] = c.bit;
        EXPECT_TRUE(ipi.is_interrupt_set(c.number));
        bus.regs[STATUS[c.group]] = 0xFFFF & ~c.bit;
        EXPECT_FALSE(ipi.is_interrupt_set(c.number));
    }
}

TEST_F(Ipi, StatusGetReturnsTheSixteenBitsOfGroupZero)
{
    bus.regs[STATUS[0]] = 0xABCD1234;
    bus.regs[STATUS[1]] = 0xFFFF;
    UINT32 status = 0;
    ipi.interrupt_status_get(&status);
    EXPECT_EQ(status, 0x1234u);
}

TEST_F(Ipi, NumbersOfSixtyFourOrMoreHalt)
{
    EXPECT_DEATH(ipi.interrupt_enable_set(64, true), "");
    EXPECT_DEATH(ipi.is_interrupt_set(64), "");
    EXPECT_DEATH(ipi.interrupt_clear(100), "");
}

TEST_F(Ipi, PostClearsStaleReplyThenHandsTheMailboxOver)
{
    bus.regs[DOORBELL0] = 1;
    EXPECT_FALSE(ipi.post_host_request());
    EXPECT_EQ(writes(), (Writes{{STATUS[0], 1}, {DOORBELL0, 0}}));
    EXPECT_EQ(kavo_test::take(), "");
}

TEST_F(Ipi, PostFailsWhileTheFirmwareOwnsTheMailbox)
{
    bus.regs[DOORBELL0] = 0;
    EXPECT_TRUE(ipi.post_host_request());
    EXPECT_EQ(writes(), (Writes{{STATUS[0], 1}}));
    const std::string out = kavo_test::take();
    EXPECT_EQ(out.substr(0, 6), "2:0x1:");
    EXPECT_EQ(out.substr(60), fail_line());
}

TEST_F(Ipi, ReplyAlreadyThereNeedsNoStatusRead)
{
    bus.regs[DOORBELL0] = 1;
    EXPECT_TRUE(ipi.device_reply_is_ready());
    EXPECT_EQ(bus.reads.count(STATUS[0]), 0u);
    EXPECT_TRUE(bus.writes.empty());
}

TEST_F(Ipi, StatusWithoutDoorbellEndsTheWaitWithFailure)
{
    bus.regs[STATUS[0]] = 1;
    EXPECT_FALSE(ipi.device_reply_is_ready());
    EXPECT_EQ(kavo_test::take().substr(60), fail_line());
}

TEST_F(Ipi, ReplyArrivingDuringTheWaitIsTakenAndItsStatusCleared)
{
    for (bool notimeout : {false, true}) {
        SCOPED_TRACE(notimeout);
        velt_option_notimeout.value = notimeout;
        global_verbosity = VELT_LOG_SEV_LOW;
        bus.regs.clear();
        bus.writes.clear();
        bus.reads.clear();
        // The firmware answers on the third look at the status register.
        bus.on_read = [this](UINT32 address) {
            if (address == STATUS[0] && bus.reads[STATUS[0]] == 3) {
                bus.regs[DOORBELL0] = 1;
                bus.regs[STATUS[0]] = 1;
            }
        };
        EXPECT_TRUE(ipi.device_reply_is_ready());
        EXPECT_EQ(writes(), (Writes{{STATUS[0], 1}}));
        const std::string out = kavo_test::take();
        const std::string sleeping = " Sleeping for 1000 microseconds\n";
        size_t sleeps = 0;
        for (size_t at = out.find(sleeping); at != std::string::npos; at = out.find(sleeping, at + 1)) ++sleeps;
        EXPECT_EQ(sleeps, notimeout ? 3u : 0u);
    }
    bus.on_read = nullptr;
}

TEST_F(Ipi, NoTimeoutWaitEndsQuietlyWhenTheDoorbellStaysClear)
{
    velt_option_notimeout.value = true;
    bus.regs[STATUS[0]] = 1;
    EXPECT_FALSE(ipi.device_reply_is_ready());
    EXPECT_EQ(kavo_test::take(), "");
}

}  // namespace
