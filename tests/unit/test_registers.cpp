// Register layer: bus operations per access sequence on a counting test bus,
// the misuse halts, and the address, mask and shift of each accessor shape.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "kavo_test_log.h"
#include "velt_registers.h"
#include "velt_sys.h"

namespace {

struct bus_op {
    char kind;  // 'R' or 'W'
    UINT32 addr;
    UINT32 value;
    bool operator==(const bus_op&) const = default;
};
void PrintTo(const bus_op& op, std::ostream* os)
{
    char text[40];
    std::snprintf(text, sizeof(text), "%c 0x%06x 0x%08x", op.kind, op.addr, op.value);
    *os << text;
}

std::map<UINT32, UINT32> chip;
std::vector<bus_op> ops;

UINT32 bus_read(void*, UINT32, UINT32, UINT32 addr, UINT32* value)
{
    *value = chip[addr];
    ops.push_back({'R', addr, *value});
    return 0;
}
UINT32 bus_write(void*, UINT32, UINT32, UINT32 addr, UINT32 value)
{
    chip[addr] = value;
    ops.push_back({'W', addr, value});
    return 0;
}
qspi_callout_api_st bus = {bus_read, bus_write, nullptr, nullptr};

// Halts show the captured log on stderr, so death tests can match the message.
void dump_and_abort(UINT32, const char*, int)
{
    std::fputs(kavo_test::captured().c_str(), stderr);
    std::abort();
}

class Registers : public ::testing::Test {
protected:
    void SetUp() override
    {
        kavo_test::install_capture(&bus);
        kavo_assert_handler_set(dump_and_abort);
        sys = velt_sys_handle_create();
        velt_sys_init(sys, 3);
        velt_handle_init(&cpu, &sys, VELT_CPU_CFG_BASE_ADDRESS);
        velt_handle_init(&dcsu, &sys, VELT_DCSU_BASE_ADDRESS);
        chip.clear();
        ops.clear();
    }
    void TearDown() override
    {
        velt_sys_clock_hooks_set(nullptr);
        velt_sys_handle_destroy(sys);
    }
    std::vector<bus_op> take_ops()
    {
        std::vector<bus_op> out;
        out.swap(ops);
        return out;
    }

    velt_sys_handle_t sys = nullptr;
    cpu_cfg_handle_t cpu{};
    dcsu_handle_t dcsu{};
};

using ops_t = std::vector<bus_op>;

TEST_F(Registers, TwoFieldSetsAndFlushAreOneReadModifyWrite)
{
    chip[0xF00380] = 0x00000ABC;
    cpu_cfg_buffer_t buf{};
    cpu_cfg_field_REVISION_CODE_set(&buf, &cpu, 0x3);
    cpu_cfg_field_DEVICE_ID_set(&buf, &cpu, 0x1234);
    EXPECT_TRUE(ops.empty());
    cpu_cfg_buffer_flush(&buf);
    EXPECT_EQ(take_ops(), (ops_t{{'R', 0xF00380, 0xABC}, {'W', 0xF00380, 0x31234ABC}}));
}

TEST_F(Registers, FlushIsAPlainWriteWhenMasksCoverTheRegister)
{
    chip[0xF020E0 + 4 * 2] = 0xFFFFFFFF;
    int_agr_buffer_t agr{};
    int_agr_field_array_IPI_BITS_set(&agr, &cpu, 2, 1);  // field 0x1 + unused 0xFFFFFFFE
    int_agr_buffer_flush(&agr);
    cpu_cfg_buffer_t buf{};
    cpu_cfg_field_SW_RST_HOST_set(&buf, &cpu, 0x5A);  // whole-register field
    cpu_cfg_buffer_flush(&buf);
    EXPECT_EQ(take_ops(), (ops_t{{'W', 0xF020E8, 1}, {'W', 0xF0002C, 0x5A}}));
}

TEST_F(Registers, BlockAccessorsReachAnyRegisterByItsOffset)
{
    chip[0xF00380] = 0x61080ABC;
    EXPECT_EQ(cpu_cfg_reg_read(nullptr, &cpu, 0x380), 0x61080ABCu);
    EXPECT_EQ(cpu_cfg_field_get(nullptr, &cpu, 0x380, 0x0FFFF000, 12), 0x1080u);
    cpu_cfg_reg_write(nullptr, &cpu, 0x320, 7);
    EXPECT_EQ(dcsu_reg_read(nullptr, &dcsu, 0x1C), 0u);  // the dcsu handle's own base
    // Buffered: two field sets of one register reach it as one write.
    cpu_cfg_buffer_t buf{};
    cpu_cfg_field_set(&buf, &cpu, 0x2C, 0xFFFF0000, 16, 0x1234);
    cpu_cfg_field_set(&buf, &cpu, 0x2C, 0x0000FFFF, 0, 0x5678);
    cpu_cfg_buffer_flush(&buf);
    EXPECT_EQ(take_ops(), (ops_t{{'R', 0xF00380, 0x61080ABC},
                                 {'R', 0xF00380, 0x61080ABC},
                                 {'W', 0xF00320, 7},
                                 {'R', 0x74401C, 0},
                                 {'W', 0xF0002C, 0x12345678}}));
}

// A clock that moves 1 us each time it is read: the poll's rounds are exact.
UINT64 stepped_now(void* at) { return ++*static_cast<UINT64*>(at); }
void stepped_sleep(void* at, UINT32 us) { *static_cast<UINT64*>(at) += us; }

TEST_F(Registers, PollReadsUntilItsTimeHasPassedAndOnceMore)
{
    UINT64 now = 0;
    const velt_sys_clock_hooks_t hooks{stepped_now, stepped_sleep, &now};
    velt_sys_clock_hooks_set(&hooks);
    chip[0xF10020] = 3;
    // Started at 1 us, the reads at 2..6 us are within the 5 us; the one at 7 us is the last.
    EXPECT_EQ(ocr_cfg_poll(nullptr, &cpu, 0x10020, 0xFF, 0, VELT_POLL_EQUAL, 5), VELT_SHARED_ERR_CODE_POLL_TIMEOUT);
    EXPECT_EQ(take_ops(), ops_t(6, bus_op{'R', 0xF10020, 3}));
    // Across a second's boundary the rounds are the same.
    now = 2999990;
    EXPECT_EQ(ocr_cfg_poll(nullptr, &cpu, 0x10020, 0xFF, 0, VELT_POLL_EQUAL, 20), VELT_SHARED_ERR_CODE_POLL_TIMEOUT);
    EXPECT_EQ(take_ops().size(), 21u);
    // A condition met on the last read still succeeds.
    now = 0;
    chip[0xF10020] = 0x100;
    EXPECT_EQ(ocr_cfg_poll(nullptr, &cpu, 0x10020, 0xFF, 0, VELT_POLL_EQUAL, 0), VELT_SUCCESS);
    EXPECT_EQ(take_ops().size(), 1u);
}

TEST_F(Registers, EmptyFlushWritesNothing)
{
    cpu_cfg_buffer_t buf{};
    cpu_cfg_buffer_flush(&buf);
    EXPECT_EQ(cpu_cfg_reg_BOOT_INFO_read(&buf, &cpu), 0u);
    cpu_cfg_buffer_flush(&buf);  // a read value is dropped, not written back
    EXPECT_EQ(take_ops(), (ops_t{{'R', 0xF000F0, 0}}));
}

TEST_F(Registers, FieldGetOnPendingBufferWritesThenReadsAfresh)
{
    cpu_cfg_buffer_t buf{};
    cpu_cfg_field_array_SCRATCH_set(&buf, &cpu, 6, 0x1001);
    chip[0xF00338] = 0x77;  // what the chip holds when the write lands is irrelevant
    EXPECT_EQ(cpu_cfg_field_array_SCRATCH_get(&buf, &cpu, 6), 0x1001u);
    EXPECT_EQ(take_ops(), (ops_t{{'W', 0xF00338, 0x1001}, {'R', 0xF00338, 0x1001}}));
    // The read is cached until the next flush.
    EXPECT_EQ(cpu_cfg_reg_APP_SCRATCH_array_read(&buf, &cpu, 6), 0x1001u);
    EXPECT_TRUE(ops.empty());
    cpu_cfg_buffer_flush(&buf);
    cpu_cfg_reg_APP_SCRATCH_array_read(&buf, &cpu, 6);
    EXPECT_EQ(ops.size(), 1u);
}

TEST_F(Registers, RegisterWriteAndPollFlushPendingFieldsFirst)
{
    ocr_cfg_buffer_t buf{};
    ocr_cfg_field_RAM_INIT_EN_set(&buf, &cpu, 0xFF);
    ocr_cfg_reg_INIT_CTRL_write(&buf, &cpu, 0);
    ocr_cfg_field_RAM_INIT_EN_set(&buf, &cpu, 0x0F);
    EXPECT_EQ(ocr_cfg_field_RAM_INIT_BUSY_poll(&buf, &cpu, 0, VELT_POLL_EQUAL, 0), VELT_SUCCESS);
    EXPECT_EQ(take_ops(), (ops_t{{'W', 0xF10018, 0xFF}, {'W', 0xF10018, 0}, {'W', 0xF10018, 0x0F},
                                 {'R', 0xF10020, 0}}));
}

TEST_F(Registers, ActionOnWriteAndRangeFlagsChooseTheWriteKind)
{
    chip[0xF021E0] = 0xFFFF;
    chip[0xF021F0] = 0x00F0;
    int_agr_buffer_t buf{};
    int_agr_field_IPI2PCIE_0_I0_set_to_clear(&buf, &cpu, 0x1);  // never read a write-one-to-clear register
    int_agr_buffer_flush(&buf);
    EXPECT_EQ(take_ops(), (ops_t{{'W', 0xF021E0, 1}}));
    // The flag outlives the flush: the next field write through this buffer is plain too.
    int_agr_field_IPI2PCIE_0_E0_set(&buf, &cpu, 0x3);
    int_agr_buffer_flush(&buf);
    EXPECT_EQ(take_ops(), (ops_t{{'W', 0xF021F0, 3}}));

    // A range through a buffer is read-modify-write even when field and unused bits cover everything.
    int_agr_buffer_t range{};
    int_agr_field_range_IPI2PCIE_0_E0_set(&range, &cpu, 0, 15, 0xFFFF);
    int_agr_buffer_flush(&range);
    EXPECT_EQ(take_ops(), (ops_t{{'R', 0xF021F0, 3}, {'W', 0xF021F0, 0xFFFF}}));
}

TEST_F(Registers, RangeSetterTouchesOnlyItsBits)
{
    const struct {
        UINT32 start, stop, value, before, after;
    } cases[] = {
        {1, 1, 1, 0x0000, 0x0002},    // enable bit 1 of a group
        {1, 1, 0, 0xFFFF, 0xFFFD},    // and clear it
        {4, 40, 0xFFF, 0x0000, 0xFFF0},  // stop clamped to the field's last bit
        {8, 11, 0xFF, 0x0000, 0x0F00},   // value wider than the range
        {5, 4, 1, 0x1234, 0x1234},    // empty range: no access at all
    };
    for (const auto& c : cases) {
        chip[0xF021F4] = c.before;
        int_agr_field_range_IPI2PCIE_1_E1_set(nullptr, &cpu, c.start, c.stop, c.value);
        EXPECT_EQ(chip[0xF021F4], c.after) << c.start << ".." << c.stop;
    }
}

TEST_F(Registers, UnbufferedFieldSetReadsOnlyWhenOtherBitsMatter)
{
    chip[0x74401C] = 0x3F3F3F3F;
    dcsu_field_POST_DIV_BY0_set(nullptr, &dcsu, 0x2A);  // 0x3F | 0xC0C0C0C0 leaves bits to keep
    dcsu_field_POST_UPDATE_EN_set(nullptr, &dcsu, 1);   // 0x1 | 0xFFFFFFFE covers the register
    EXPECT_EQ(take_ops(), (ops_t{{'R', 0x74401C, 0x3F3F3F3F}, {'W', 0x74401C, 0x3F3F3F2A}, {'W', 0x744010, 1}}));
}

using RegistersDeathTest = Registers;

TEST_F(RegistersDeathTest, MisuseHalts)
{
    cpu_cfg_buffer_t buf{};
    cpu_cfg_field_SW_RST_HOST_AUTO_CLR_EN_set(&buf, &cpu, 1);
    EXPECT_DEATH(cpu_cfg_field_SW_RST_HOST_set(&buf, &cpu, 1),
                 "3:0x1f18:velt_l1_sys.cpp:.* ERROR: register address changed without velt_l1_sys coalescing "
                 "buffer flush,\\.\\.\\. old addr = 0x00f00020 new addr = 0x00f0002c\n.* ASSERT: ");
    EXPECT_DEATH(cpu_cfg_reg_SW_RST_HOST_TRIG_write(&buf, &cpu, 1), "old addr = 0x00f00020 new addr = 0x00f0002c");
    EXPECT_DEATH(cpu_cfg_reg_SW_RST_HOST_EN_read(&buf, &cpu),
                 " ERROR: stale data in velt_l1_sys coalescing buffer,\\.\\.\\. possible missing flush\\(\\) "
                 "addr = 0x00f00020\n");
    cpu_cfg_buffer_flush(&buf);
    cpu_cfg_reg_BOOT_INFO_read(&buf, &cpu);
    EXPECT_DEATH(cpu_cfg_field_DEVICE_ID_get(&buf, &cpu), "old addr = 0x00f000f0 new addr = 0x00f00380");
}

// One field of each shape the accessor generator emits: a top bit, a whole
// register, two fields sharing a register, a register file (at index 6, plain
// and with unused bits), and a field of each block.
struct field_case {
    const char* name;
    UINT32 addr, mask, shift, unused;
    bool dcsu;
    std::function<void(velt_handle_t*, UINT32)> set;
    std::function<UINT32(velt_handle_t*)> get;
    std::function<VELT_ERROR(velt_handle_t*, UINT32)> poll;
};

#define FIELD(B, F, ADDR, MASK, SHIFT, UNUSED)                                                            \
    field_case{#F, ADDR, MASK, SHIFT, UNUSED, std::string(#B) == "dcsu",                                  \
               [](velt_handle_t* h, UINT32 v) { B##_field_##F##_set(nullptr, h, v); },                     \
               [](velt_handle_t* h) { return B##_field_##F##_get(nullptr, h); },                           \
               [](velt_handle_t* h, UINT32 v) { return B##_field_##F##_poll(nullptr, h, v, VELT_POLL_EQUAL, 0); }}
#define FIELD_ARRAY(B, F, ADDR, MASK, SHIFT, UNUSED)                                                        \
    field_case{#F "[6]", (ADDR) + 24, MASK, SHIFT, UNUSED, false,                                           \
               [](velt_handle_t* h, UINT32 v) { B##_field_array_##F##_set(nullptr, h, 6, v); },              \
               [](velt_handle_t* h) { return B##_field_array_##F##_get(nullptr, h, 6); },                    \
               [](velt_handle_t* h, UINT32 v) {                                                              \
                   return B##_field_array_##F##_poll(nullptr, h, 6, v, VELT_POLL_EQUAL, 0);                  \
               }}

const std::vector<field_case>& field_table()
{
    static const std::vector<field_case> table = {
        FIELD(cpu_cfg, SW_RST_HOST_AUTO_CLR_EN, 0xF00020, 0x80000000, 31, 0x720027F4),
        FIELD(cpu_cfg, SW_RST_HOST, 0xF0002C, 0xFFFFFFFF, 0, 0),
        FIELD(cpu_cfg, DEVICE_ID, 0xF00380, 0x0FFFF000, 12, 0),
        FIELD_ARRAY(cpu_cfg, SCRATCH, 0xF00320, 0xFFFFFFFF, 0, 0),
        FIELD(ocr_cfg, RAM_INIT_EN, 0xF10018, 0xFF, 0, 0xFFFFFF00),
        FIELD(dcsu, POST_DIV_BY0, 0x74401C, 0x3F, 0, 0xC0C0C0C0),
        FIELD_ARRAY(int_agr, IPI_BITS, 0xF020E0, 0x1, 0, 0xFFFFFFFE),
        FIELD(int_agr, IPI2PCIE_3_E3, 0xF021FC, 0xFFFF, 0, 0xFFFF0000),
    };
    return table;
}

TEST_F(Registers, EachFieldShapeHitsItsAddressMaskAndShift)
{
    const UINT32 pattern = 0xA5C3965A;
    for (const auto& f : field_table()) {
        SCOPED_TRACE(f.name);
        velt_handle_t* h = f.dcsu ? &dcsu : &cpu;
        const bool rmw = (f.mask | f.unused) != 0xFFFFFFFFu;

        chip[f.addr] = pattern;
        EXPECT_EQ(f.get(h), (pattern & f.mask) >> f.shift);
        EXPECT_EQ(f.poll(h, (pattern & f.mask) >> f.shift), VELT_SUCCESS);
        EXPECT_EQ(f.poll(h, ((pattern & f.mask) >> f.shift) ^ 1), VELT_SHARED_ERR_CODE_POLL_TIMEOUT);
        take_ops();

        // Without a read the whole register is written: value << shift, unmasked.
        f.set(h, 0xFFFFFFFF);
        EXPECT_EQ(chip[f.addr], rmw ? (pattern | f.mask) : 0xFFFFFFFFu << f.shift);
        f.set(h, 0);
        EXPECT_EQ(chip[f.addr], rmw ? (pattern & ~f.mask) : 0u);
        for (const auto& op : take_ops()) EXPECT_EQ(op.addr, f.addr);
    }
}

}  // namespace
