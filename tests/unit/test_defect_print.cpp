// Printers of defect bytes, summaries, masks, defect records and counter
// records, with their filters and selections; record sizes by defect type.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "kavo/kavo_api.h"
#include "kavo_test_log.h"

namespace {

/* The printers write to the process's standard output, not through the
   print callout: each test reads what reached it. */
class DefectPrint : public ::testing::Test {
  protected:
    void SetUp() override
    {
        kavo_test::install_capture();
        ::testing::internal::CaptureStdout();
    }
    void TearDown() override { ::testing::internal::GetCapturedStdout(); }
    static std::string take()
    {
        std::fflush(stdout);
        std::string out = ::testing::internal::GetCapturedStdout();
        ::testing::internal::CaptureStdout();
        EXPECT_EQ(kavo_test::take(), "") << "nothing goes through the print callout";
        return out;
    }
};

kavo_defect_ive_t ive(UINT8 byte)
{
    kavo_defect_ive_t d;
    std::memcpy(static_cast<void*>(&d), &byte, 1);
    return d;
}

TEST_F(DefectPrint, DefectByteUnderEveryFilter)
{
    struct {
        UINT8 byte;
        const char* text;
        bool shown[5]; // filters 0 .. 3 and an unknown one
    } cases[] = {
        {0x03, "los: {V: 1, I: 1, E: 0}\n", {true, true, true, true, true}},
        {0x04, "los: {V: 0, I: 0, E: 1}\n", {true, false, false, false, true}},
        {0x01, "los: {V: 0, I: 1, E: 0}\n", {true, true, false, true, true}},
        {0x0A, "los: {V: 1, I: 0, E: 0}\n", {true, false, true, true, true}},
    };
    for (auto& c : cases)
        for (int f = 0; f <= 4; ++f) {
            ive(c.byte).print("los", kavo_defect_print_filter_t(f), 0, -1);
            EXPECT_EQ(take(), c.shown[f] ? c.text : "") << int(c.byte) << " filter " << f;
        }
    ive(0x07).print("lane", KAVO_DEFECT_PRINT_FILTER_ALL, 2, 3);
    EXPECT_EQ(take(), "        - {V: 1, I: 1, E: 1}    # lane[3]\n");
}

TEST_F(DefectPrint, SummaryAndMask)
{
    kavo_defect_summary_ive_valid_t s;
    s.v = 1;
    s.is_valid = 1;
    s.print("summary", KAVO_DEFECT_PRINT_FILTER_V_ASSERTED, 1, -1);
    EXPECT_EQ(take(), "    Summary: {V: 1, I: 0, E: 0}\n");
    s.print("summary", KAVO_DEFECT_PRINT_FILTER_I_ASSERTED, 1, -1);
    EXPECT_EQ(take(), "");
    s.print("summary", KAVO_DEFECT_PRINT_FILTER_ALL, 1, 0); // element 0 of a list
    EXPECT_EQ(take(), "    - {V: 1, I: 0, E: 0}    # summary[0]\n");

    struct {
        UINT32 active;
        const char* bits;
    } masks[] = {{0x000001, "100000000000000000000000"}, {0x800000, "000000000000000000000001"},
                 {0xFF000000, "000000000000000000000000"}, {0x00A005, "101000000000010100000000"}};
    for (auto& m : masks) {
        kavo_defect_summary_mask_t mask;
        mask.active = m.active;
        mask.print("mask", KAVO_DEFECT_PRINT_FILTER_ALL, 1, -1);
        EXPECT_EQ(take(), std::string("    Active Mask [23:0]: {") + m.bits + "}\n") << std::hex << m.active;
    }
}

TEST_F(DefectPrint, RecordsListTheirDefectsFiltered)
{
    kavo_defect_dcsu_t d;
    std::memset(static_cast<void*>(&d), 0x08, sizeof(d));
    d.summary = {};
    d.summary.v = d.summary.i = d.summary.is_valid = 1;
    d.err_fast.v = d.err_fast.i = 1;
    kavo_defect_dcsu_t_print(&d, KAVO_DEFECT_PRINT_FILTER_V_OR_I_ASSERTED);
    EXPECT_EQ(take(), "kavo_defect_dcsu_t:\n    Summary: {V: 1, I: 1, E: 0}\n    err_fast: {V: 1, I: 1, E: 0}\n");

    kavo_defect_anlt_chnl_t a;
    a.lt[6].frame_lock_lost.e = 1;
    a.print("anlt", KAVO_DEFECT_PRINT_FILTER_ALL, 0, -1);
    const std::string all = take();
    EXPECT_NE(all.find("    an_complete: {V: 0, I: 0, E: 0}\n    fatal_error: {V: 0, I: 0, E: 0}\n    -   # lt[0]\n"
                       "        training_failure: {V: 0, I: 0, E: 0}\n"),
              std::string::npos)
        << all;
    EXPECT_NE(all.find("    -   # lt[6]\n        training_failure: {V: 0, I: 0, E: 0}\n"
                       "        frame_lock_lost: {V: 0, I: 0, E: 1}\n"),
              std::string::npos)
        << all;
    EXPECT_EQ(all.find("pad"), std::string::npos) << "padding is not a defect";

    kavo_defect_device_summary_t s;
    s.enet_port[47].i = 1;
    kavo_defect_device_summary_t_print(&s, KAVO_DEFECT_PRINT_FILTER_I_ASSERTED);
    EXPECT_EQ(take(), "kavo_defect_device_summary_t:\n    - {V: 0, I: 1, E: 0}    # enet_port[47]\n");
}

TEST_F(DefectPrint, CounterRecordsPrintHalvesBySelection)
{
    kavo_pmon_flexe_group_t g;
    g.oh_crc_err_lsb = 5;
    g.oh_crc_err_msb = 1;
    kavo_pmon_flexe_group_t_print(&g, KAVO_PMON_PRINT_ALL_NON_ZERO);
    EXPECT_EQ(take(), "kavo_pmon_flexe_group_t:\n    oh_crc_err_lsb: 5\n    oh_crc_err_msb: 1\n");
    kavo_pmon_flexe_group_t_print(&g, KAVO_PMON_PRINT_NONE);
    EXPECT_EQ(take(), "kavo_pmon_flexe_group_t:\n");
    kavo_pmon_enet_port_segment_t e;
    e.print("port", KAVO_PMON_PRINT_ALL_NON_ZERO, 0, 7);
    EXPECT_EQ(take(), "7:\n    phy_rx:\n    mac_rx:\n    mac_tx:\n    pb:\n") << "nested records keep their headers";
}

void show_and_abort(UINT32, const char*, int)
{
    std::fputs(kavo_test::captured().c_str(), stderr);
    std::abort();
}

TEST_F(DefectPrint, RecordSizeByTypeAndNoneForTheOthers)
{
    const UINT32 sizes[] = {116, 36, 32, 492, 76, 0, 32, 0, 104, 8, 48};
    for (UINT32 t = 0; t < LAST_KAVO_DEFECT_TYPE; ++t) {
        if (sizes[t] == 0) continue;
        EXPECT_EQ(kavo_defect_sizeof(kavo_defect_type_t(t)), sizes[t]) << t;
    }
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    kavo_assert_handler_set(show_and_abort);
    for (UINT32 t : {5u, 7u, 11u, 0xFFFFFFFFu})
        EXPECT_DEATH(kavo_defect_sizeof(kavo_defect_type_t(t)),
                     "^-1:0x0:kavo_api_defect.cpp:[0-9]+:kavo_defect_sizeof\\(\\) +ASSERT: $")
            << t;
}

} // namespace
