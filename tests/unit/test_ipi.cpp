// The doorbell against a fake register bus: bit and group operations, and the
// reply wait of the mailbox protocol.
#include <gtest/gtest.h>

#include <string>

#include "kavo_fake_bus.h"
#include "kavo_ipi.h"
#include "kavo_test_log.h"
#include "velt_library_options.h"
#include "velt_log.h"

namespace {

constexpr UINT32 DOORBELL0 = 0xF020E0;
constexpr UINT32 STATUS[4] = {0xF021E0, 0xF021E4, 0xF021E8, 0xF021EC};
constexpr UINT32 ENABLE[4] = {0xF021F0, 0xF021F4, 0xF021F8, 0xF021FC};
using Writes = std::vector<std::pair<UINT32, UINT32>>;
const std::string FAIL_LINE = " VELT_RUNTIME_ERROR( VELT_ERR_FAIL )\n";

class Ipi : public ::testing::Test {
protected:
    void SetUp() override
    {
        kavo_test::install_capture(kavo_test::fake_bus::callouts());
        velt_sys_init(sys, 2);
        ipi.handle_init(2, &handle);
    }
    void TearDown() override
    {
        velt_option_notimeout.value = false;
        global_verbosity = VELT_LOG_SEV_EVENT;
        velt_sys_handle_destroy(sys);
    }

    kavo_test::fake_bus bus;
    velt_sys_handle_t sys = velt_sys_handle_create();
    cpu_cfg_handle_t handle{&sys, 0xF00000};
    kavo_ipi ipi;
};

TEST_F(Ipi, DoorbellBitsArePlainWritesOfTheWholeRegister)
{
    ipi.ipi_bit_set(3);
    ipi.ipi_bit_clear(5);
    EXPECT_EQ(bus.writes, (Writes{{DOORBELL0 + 12, 1}, {DOORBELL0 + 20, 0}}));
    EXPECT_TRUE(bus.reads.empty());
    EXPECT_TRUE(ipi.is_ipi_bit_set(3));
    EXPECT_FALSE(ipi.is_ipi_bit_set(5));
}

TEST_F(Ipi, GroupOperationsSelectRegisterAndBitByNumber)
{
    // Every group's first and last number.
    const std::tuple<UINT32, int, UINT32> cases[] = {{0, 0, 0x1},     {15, 0, 0x8000}, {16, 1, 0x1},
                                                     {17, 1, 0x2},    {31, 1, 0x8000}, {32, 2, 0x1},
                                                     {40, 2, 0x100},  {47, 2, 0x8000}, {48, 3, 0x1},
                                                     {63, 3, 0x8000}};
    for (const auto& [number, group, bit] : cases) {
        SCOPED_TRACE(number);
        bus.regs[ENABLE[group]] = 0x00F0;  // enables: one bit changes, the others stay
        ipi.interrupt_enable_set(number, true);
        EXPECT_EQ(bus.regs[ENABLE[group]], 0x00F0 | bit);
        ipi.interrupt_enable_set(number, false);
        EXPECT_EQ(bus.regs[ENABLE[group]], 0x00F0 & ~bit);
        // Clear: a read-modify-write under the 16-bit field. Every status bit is
        // up; only the one cleared is written as 1, the bits above the field are
        // kept (they read as 0 on the chip), so exactly `bit` is written.
        bus.regs[STATUS[group]] = 0xFFFF;
        bus.writes.clear();
        bus.reads.clear();
        ipi.interrupt_clear(number);
        EXPECT_EQ(bus.writes, (Writes{{STATUS[group], bit}}));
        EXPECT_EQ(bus.reads.size(), 1u);
        EXPECT_EQ(bus.reads.count(STATUS[group]), 1u);
        bus.regs[STATUS[group]] = bit;
        EXPECT_TRUE(ipi.is_interrupt_set(number));
        bus.regs[STATUS[group]] = 0xFFFF & ~bit;
        EXPECT_FALSE(ipi.is_interrupt_set(number));
    }
    bus.regs[STATUS[0]] = 0xABCD1234;
    UINT32 status = 0;
    ipi.interrupt_status_get(&status);
    EXPECT_EQ(status, 0x1234u);
    EXPECT_DEATH(ipi.interrupt_enable_set(64, true), kavo_test::halts_with(VELT_ERR_FAIL, " ASSERT: "));
    EXPECT_DEATH(ipi.is_interrupt_set(64), kavo_test::halts_with(VELT_ERR_FAIL, ""));
    EXPECT_DEATH(ipi.interrupt_clear(100), kavo_test::halts_with(VELT_ERR_FAIL, ""));
}

// Posting and the reply wait as the firmware sees them (bus operations per
// command, a doorbell the firmware keeps) are covered end to end; what is left
// here is the wait without a time-out.
TEST_F(Ipi, StatusWithoutTheDoorbellIsNoReplyAndFailsQuietlyWithoutATimeOut)
{
    bus.regs[STATUS[0]] = 1;  // a status bit without the doorbell is no reply
    EXPECT_FALSE(ipi.device_reply_is_ready());
    EXPECT_EQ(kavo_test::take().substr(60), FAIL_LINE);
    velt_option_notimeout.value = true;
    EXPECT_FALSE(ipi.device_reply_is_ready());
    EXPECT_EQ(kavo_test::take(), "");
}

TEST_F(Ipi, ReplyArrivingDuringTheWaitIsTakenAndItsStatusCleared)
{
    global_verbosity = VELT_LOG_SEV_LOW;
    for (bool notimeout : {false, true}) {
        SCOPED_TRACE(notimeout);
        velt_option_notimeout.value = notimeout;
        bus.regs.clear();
        bus.writes.clear();
        bus.reads.clear();
        bus.on_read = [this](UINT32 address) {  // the firmware answers on the third look
            if (address == STATUS[0] && bus.reads[STATUS[0]] == 3) bus.regs[DOORBELL0] = bus.regs[STATUS[0]] = 1;
        };
        EXPECT_TRUE(ipi.device_reply_is_ready());
        EXPECT_EQ(bus.writes, (Writes{{STATUS[0], 1}}));
        const std::string out = kavo_test::take();
        size_t sleeps = 0;
        const std::string sleeping = " Sleeping for 1000 microseconds\n";
        for (size_t at = out.find(sleeping); at != std::string::npos; at = out.find(sleeping, at + 1)) ++sleeps;
        EXPECT_EQ(sleeps, notimeout ? 3u : 0u);
    }
    bus.on_read = nullptr;
}

}  // namespace
