// Programmable clock outputs and the MACsec memory scrubber end to end: the
// divider the firmware picks and the ratios it refuses, enable and squelch on
// a SerDes port's signal, and scrub passes and corrected errors in chip time.
#include <gtest/gtest.h>

#include <cmath>

#include "kavo_test_device.h"
#include "kavo_test_log.h"

using kavo_test::device_test;
using kavo_test::take;

namespace {

constexpr UINT32 ID = 0;
constexpr UINT32 NONE = 0xFFFFFFFF;

class clock_test : public device_test {
  protected:
    void SetUp() override
    {
        device_test::SetUp();
        ASSERT_EQ(bring_up(ID), VELT_SUCCESS) << take();
    }
    kavo_pgmrclk_cfg_get_t get(kavo_pgmrclk_id_t clk)
    {
        kavo_pgmrclk_cfg_get_t r;
        EXPECT_EQ(kavo_pgmrclk_cfg_get(ID, clk, &r), VELT_SUCCESS);
        return r;
    }
    kavo_debug_macsec_tcam_scrub_stats_t scrub(BOOL32 reset = 0)
    {
        kavo_debug_macsec_tcam_scrub_stats_t s;
        EXPECT_EQ(kavo_debug_tcam_scrubbing_stats_get(ID, reset, &s), VELT_SUCCESS);
        return s;
    }
    kavo_sim::chip* chip() { return kavo_sim::chip_get(ID); }
};

}  // namespace

TEST_F(clock_test, DividerWithinToleranceOrRefused)
{
    struct {
        double in, out;
        UINT32 code;
        UINT32 divider;
    } cases[] = {
        {156.25, 156.25, VELT_SUCCESS, 1},
        {156.25, 15.625, VELT_SUCCESS, 10},
        {156.25, 10.0, KAVO_FW_ERR_INVALID_PARAMETERS, 0},   // 15.625: no integer within 100 ppm
        {156.25, 25.0, KAVO_FW_ERR_INVALID_PARAMETERS, 0},   // 6.25
        {100.0, 100.0 / 7 * (1 + 90e-6), VELT_SUCCESS, 7},   // 90 ppm off: inside
        {100.0, 100.0 / 7 * (1 + 110e-6), KAVO_FW_ERR_INVALID_PARAMETERS, 0},
        {1000.0, 1000.0 / 4096, VELT_SUCCESS, 4096},
        {1000.0, 1000.0 / 4097, KAVO_FW_ERR_NUMBER_OUT_OF_RANGE, 0},
        {100.0, 300.0, KAVO_FW_ERR_NUMBER_OUT_OF_RANGE, 0},  // no multiplying
        {1000.5, 100.05, KAVO_FW_ERR_NUMBER_OUT_OF_RANGE, 0},
        {0.0, 1.0, KAVO_FW_ERR_INVALID_PARAMETERS, 0},
        {156.25, -1.0, KAVO_FW_ERR_INVALID_PARAMETERS, 0},
        {156.25, NAN, KAVO_FW_ERR_INVALID_PARAMETERS, 0},
    };
    for (auto& c : cases) {
        ASSERT_EQ(kavo_pgmrclk_cfg(ID, KAVO_PGMRCLK_ID_1, KAVO_PGMRCLK_INPUT_SOURCE_REF_CLK, 0, 156.25, 156.25, 1),
                  VELT_SUCCESS);
        EXPECT_EQ(kavo_pgmrclk_cfg(ID, KAVO_PGMRCLK_ID_1, KAVO_PGMRCLK_INPUT_SOURCE_REF_CLK, 0, c.in, c.out, 1),
                  c.code)
            << c.in << " -> " << c.out;
        const kavo_pgmrclk_cfg_get_t r = get(KAVO_PGMRCLK_ID_1);
        if (c.code != VELT_SUCCESS) {
            EXPECT_EQ(r.divider, 1u) << "a refusal leaves the output as it was";
            continue;
        }
        EXPECT_EQ(r.divider, c.divider) << c.out;
        EXPECT_DOUBLE_EQ(r.output_clk_freq, c.out) << "the request, as sent";
        EXPECT_DOUBLE_EQ(r.achieved_clk_freq, c.in / c.divider);
    }
}

TEST_F(clock_test, OutputReadsBackWithItsSourceAndAnOtherStaysUnconfigured)
{
    ASSERT_EQ(kavo_pgmrclk_cfg(ID, KAVO_PGMRCLK_ID_2, KAVO_PGMRCLK_INPUT_SOURCE_SERDES, 17, 161.1328125, 8.056640625, 0),
              VELT_SUCCESS);
    kavo_pgmrclk_cfg_get_t r = get(KAVO_PGMRCLK_ID_2);
    EXPECT_EQ(r.clk_id, KAVO_PGMRCLK_ID_2);
    EXPECT_EQ(r.clk_source, KAVO_PGMRCLK_INPUT_SOURCE_SERDES);
    EXPECT_EQ(r.clk_source_idx, 17u);
    EXPECT_EQ(r.enable, 0u);
    EXPECT_DOUBLE_EQ(r.input_clk_freq, 161.1328125);
    EXPECT_EQ(r.divider, 20u);
    EXPECT_DOUBLE_EQ(r.achieved_clk_freq, 8.056640625);
    EXPECT_EQ(kavo_pgmrclk_enable(ID, KAVO_PGMRCLK_ID_2, 1), VELT_SUCCESS);
    EXPECT_EQ(get(KAVO_PGMRCLK_ID_2).enable, 1u);

    r = get(KAVO_PGMRCLK_ID_3);
    EXPECT_EQ(r.divider, 0u);
    EXPECT_EQ(r.enable, 0u);
    EXPECT_EQ(kavo_pgmrclk_enable(ID, KAVO_PGMRCLK_ID_3, 1), UINT32(KAVO_ERR_FW_NOT_CONFIGURED));

    struct {
        kavo_pgmrclk_id_t clk;
        kavo_pgmrclk_input_source_t source;
        UINT32 idx;
        BOOL32 enable;
        UINT32 code;
    } bad[] = {
        {LAST_KAVO_PGMRCLK_ID, KAVO_PGMRCLK_INPUT_SOURCE_REF_CLK, 0, 1, KAVO_FW_ERR_NUMBER_OUT_OF_RANGE},
        {KAVO_PGMRCLK_ID_0, LAST_KAVO_PGMRCLK_INPUT_SOURCE, 0, 1, KAVO_FW_ERR_INVALID_PARAMETERS},
        {KAVO_PGMRCLK_ID_0, KAVO_PGMRCLK_INPUT_SOURCE_SERDES, 48, 1, SEGMENT_BASE_ERR_ILLEGAL_SERDES_PORT_ID},
        {KAVO_PGMRCLK_ID_0, KAVO_PGMRCLK_INPUT_SOURCE_ENET_CHNL, 48, 1, SEGMENT_BASE_ERR_ILLEGAL_CHNL_ID},
        {KAVO_PGMRCLK_ID_0, KAVO_PGMRCLK_INPUT_SOURCE_ENET_CHNL, 3, 1, SEGMENT_BASE_ERR_NO_SEGMENT_FOR_CHNL_ID},
        {KAVO_PGMRCLK_ID_0, KAVO_PGMRCLK_INPUT_SOURCE_REF_CLK, 0, 2, KAVO_FW_ERR_INVALID_PARAMETERS},
    };
    for (auto& b : bad)
        EXPECT_EQ(kavo_pgmrclk_cfg(ID, b.clk, b.source, b.idx, 156.25, 15.625, b.enable), b.code)
            << b.clk << " " << b.source << " " << b.idx;
    kavo_pgmrclk_cfg_get_t none;
    EXPECT_EQ(kavo_pgmrclk_cfg_get(ID, LAST_KAVO_PGMRCLK_ID, &none), UINT32(KAVO_FW_ERR_NUMBER_OUT_OF_RANGE));
}

TEST_F(clock_test, SquelchFollowsTheSerdesSignal)
{
    ASSERT_EQ(kavo_pgmrclk_cfg(ID, KAVO_PGMRCLK_ID_0, KAVO_PGMRCLK_INPUT_SOURCE_SERDES, 4, 156.25, 15.625, 1),
              VELT_SUCCESS);
    EXPECT_EQ(kavo_pgmrclk_squelch_enable(ID, KAVO_PGMRCLK_ID_0, 48, NONE), UINT32(SEGMENT_BASE_ERR_ILLEGAL_SERDES_PORT_ID));
    EXPECT_EQ(kavo_pgmrclk_squelch_enable(ID, KAVO_PGMRCLK_ID_0, NONE, 48), UINT32(SEGMENT_BASE_ERR_ILLEGAL_CHNL_ID));
    ASSERT_EQ(kavo_pgmrclk_squelch_enable(ID, KAVO_PGMRCLK_ID_0, 4, NONE), VELT_SUCCESS);
    EXPECT_EQ(get(KAVO_PGMRCLK_ID_0).squelched, 0u) << "partner present";

    chip()->knob_set(SIM_KNOB_LINK_PARTNER, 4, 0);
    kavo_pgmrclk_cfg_get_t r = get(KAVO_PGMRCLK_ID_0);
    EXPECT_EQ(r.squelched, 1u);
    EXPECT_EQ(r.squelch_serdes_id, 4u);
    EXPECT_EQ(r.squelch_enet_chnl_id, NONE);
    ASSERT_EQ(kavo_pgmrclk_enable(ID, KAVO_PGMRCLK_ID_0, 0), VELT_SUCCESS);
    EXPECT_EQ(get(KAVO_PGMRCLK_ID_0).squelched, 0u) << "a disabled output is not held, it is off";
    ASSERT_EQ(kavo_pgmrclk_enable(ID, KAVO_PGMRCLK_ID_0, 1), VELT_SUCCESS);
    ASSERT_EQ(kavo_pgmrclk_squelch_enable(ID, KAVO_PGMRCLK_ID_0, NONE, NONE), VELT_SUCCESS);
    EXPECT_EQ(get(KAVO_PGMRCLK_ID_0).squelched, 0u) << "squelch off";
}

TEST_F(clock_test, ScrubberCountsPassesAndCorrectedErrorsInChipTime)
{
    kavo_debug_macsec_tcam_scrub_stats_t s = scrub();
    EXPECT_EQ(s.scrub_period_ms, 100u);
    const UINT32 start = s.scrub_passes;
    chip()->advance_time(1000000);
    s = scrub();
    // One pass per 100 ms; the chip's clock also runs between the two reads.
    EXPECT_GE(s.scrub_passes - start, 10u);
    EXPECT_LE(s.scrub_passes - start, 11u);
    EXPECT_EQ(s.errors_corrected, 0u);
    EXPECT_EQ(s.last_error_pass, 0u);

    const UINT32 before = s.scrub_passes;
    chip()->knob_set(SIM_KNOB_TCAM_ERRORS, 0, 3);
    chip()->advance_time(250000);
    s = scrub();
    EXPECT_EQ(s.errors_corrected, 3u);
    EXPECT_EQ(s.last_error_pass, before + 1) << "found by the next pass";
    chip()->advance_time(500000);
    EXPECT_EQ(scrub().errors_corrected, 3u) << "corrected once";

    chip()->knob_set(SIM_KNOB_TCAM_ERRORS, 0, 4);
    chip()->advance_time(100000);
    s = scrub(1);
    EXPECT_EQ(s.errors_corrected, 4u) << "the read that resets still reports";
    s = scrub();
    EXPECT_EQ(s.scrub_passes, 0u);
    EXPECT_EQ(s.errors_corrected, 0u);
    EXPECT_EQ(s.last_error_pass, 0u);

    kavo_function_logging_set(1);
    take();
    EXPECT_EQ(kavo_debug_tcam_scrubbing_stats_get(ID, 1, nullptr), UINT32(VELT_ERR_INVALID_ARGS));
    const std::string log = take();
    EXPECT_TRUE(kavo_test::has(log, "Function=kavo_debug_tcam_scrubbing_stats_get(0x0 Reset Stats : TRUE)\n")) << log;
    EXPECT_TRUE(kavo_test::has(log, " NULL Pointer supplied for Input parameter\n")) << log;
    EXPECT_EQ(kavo_test::requests_of(ID, KAVO_HTL_OPERATION_DEBUG_MACSEC_TCAM_SCRUB_STATS), 6u) << "none sent for it";
}
