// The virtual device's defect and counter models, driven through a chip whose
// provisioning, links, signals and traffic the test sets by hand: what the
// firmware will see once the datapath and SerDes models report real state.
#include <gtest/gtest.h>

#include <cstring>
#include <map>

#include "../../sim/src/fw/model_pmon.h"

using kavo_sim::fw::chip_view;
using kavo_sim::fw::defect_model;
using kavo_sim::fw::pmon_model;

namespace {

struct hand_chip final : chip_view {
    bool enet[KAVO_NUM_CHANNELS] = {};
    bool up[KAVO_NUM_CHANNELS] = {};
    bool signal[48];
    UINT32 owner[48];
    std::map<std::pair<int, UINT32>, UINT32> knobs;

    hand_chip()
    {
        std::fill(std::begin(signal), std::end(signal), true);
        std::fill(std::begin(owner), std::end(owner), 0xFFFFFFFF);
    }
    bool enet_port(UINT32 c) const override { return c < KAVO_NUM_CHANNELS && enet[c]; }
    bool link_up(UINT32 c) const override { return up[c]; }
    bool signal_present(UINT32 p) const override { return signal[p]; }
    UINT32 serdes_owner(UINT32 p) const override { return owner[p]; }
    UINT32 knob(sim_knob_t k, UINT32 i) const override
    {
        auto it = knobs.find({int(k), i});
        return it == knobs.end() ? 0 : it->second;
    }
    void port(UINT32 chnl, UINT32 lane)
    {
        enet[chnl] = true;
        owner[lane] = chnl;
    }
};

constexpr UINT32 ENET = KAVO_DEFECT_TYPE_ENET_PORT;
constexpr UINT32 LOCAL_FAULT = offsetof(kavo_defect_enet_port_segment_t, phy) + offsetof(kavo_defect_enet_phy_chnl_t, local_fault);
constexpr UINT32 LOS = offsetof(kavo_defect_enet_port_segment_t, phy);

class DefectModel : public ::testing::Test {
  protected:
    void SetUp() override { chip.port(3, 12); }
    kavo_defect_ive_t byte(UINT32 type, UINT32 id, UINT32 offset, UINT32 clear = KAVO_DEFECT_CLEAR_NONE)
    {
        UINT8 rec[defect_model::MAX_RECORD];
        EXPECT_EQ(model.get(chip, type, id, clear, rec), VELT_SUCCESS);
        kavo_defect_ive_t d;
        std::memcpy(static_cast<void*>(&d), rec + offset, 1);
        return d;
    }
    hand_chip chip;
    defect_model model;
    bool latched = false;
};

TEST_F(DefectModel, LinkFaultFollowsTheLinkAndLatchesEveryRise)
{
    struct {
        bool up;
        int v, i;
    } steps[] = {{false, 1, 1}, {true, 0, 1}, {false, 1, 1}, {true, 0, 1}};
    for (auto& s : steps) {
        chip.up[3] = s.up;
        model.update(chip);
        const auto d = byte(ENET, 3, LOCAL_FAULT);
        EXPECT_EQ(d.v, s.v);
        EXPECT_EQ(d.i, s.i);
        EXPECT_EQ(d.is_valid, 1);
    }
    // Cleared while the link is up, it stays clear until the next fall.
    byte(ENET, 3, LOCAL_FAULT, KAVO_DEFECT_CLEAR_ALL);
    model.update(chip);
    EXPECT_EQ(byte(ENET, 3, LOCAL_FAULT).i, 0);
    chip.signal[12] = false;
    model.update(chip);
    EXPECT_EQ(byte(ENET, 3, LOS).v, 1) << "a lane without signal";
}

TEST_F(DefectModel, ClearModesActOnTheEnabledOrDisabledLatches)
{
    // Two latched defects of a clock unit: lock enabled, err_slow not.
    const UINT32 lock = offsetof(kavo_defect_dcsu_t, lock), slow = offsetof(kavo_defect_dcsu_t, err_slow);
    struct {
        UINT32 clear;
        int lock_i, slow_i;
    } cases[] = {{KAVO_DEFECT_CLEAR_ALL, 0, 0}, {KAVO_DEFECT_CLEAR_ENABLED, 0, 1},
                 {KAVO_DEFECT_CLEAR_DISABLED, 1, 0}, {KAVO_DEFECT_CLEAR_NONE, 1, 1}};
    for (auto& c : cases) {
        defect_model m;
        for (UINT32 off : {lock, slow}) {
            ASSERT_EQ(m.v_set(chip, KAVO_DEFECT_TYPE_DCSU, 2, off, true, latched), VELT_SUCCESS);
            ASSERT_EQ(m.v_set(chip, KAVO_DEFECT_TYPE_DCSU, 2, off, false, latched), VELT_SUCCESS);
        }
        ASSERT_EQ(m.e_set(chip, KAVO_DEFECT_TYPE_DCSU, 2, lock, true, latched), VELT_SUCCESS);
        EXPECT_TRUE(latched) << "enabling a latched defect interrupts";
        kavo_defect_dcsu_t before, after;
        ASSERT_EQ(m.get(chip, KAVO_DEFECT_TYPE_DCSU, 2, c.clear, reinterpret_cast<UINT8*>(&before)), VELT_SUCCESS);
        ASSERT_EQ(m.get(chip, KAVO_DEFECT_TYPE_DCSU, 2, KAVO_DEFECT_CLEAR_NONE, reinterpret_cast<UINT8*>(&after)),
                  VELT_SUCCESS);
        EXPECT_EQ(before.lock.i + before.err_slow.i, 2) << c.clear << ": the record is copied before clearing";
        EXPECT_EQ(after.lock.i, c.lock_i) << c.clear;
        EXPECT_EQ(after.err_slow.i, c.slow_i) << c.clear;
        EXPECT_EQ(after.summary.i, c.lock_i | c.slow_i) << c.clear;
        EXPECT_EQ(after.summary.e, 1) << c.clear;
    }
}

TEST_F(DefectModel, EnabledLatchesInterruptAndForcedValuesHoldUntilReleased)
{
    chip.up[3] = true;
    model.update(chip);
    EXPECT_FALSE(model.update(chip));
    ASSERT_EQ(model.e_set(chip, ENET, 3, LOCAL_FAULT, true, latched), VELT_SUCCESS);
    EXPECT_FALSE(latched);
    chip.up[3] = false;
    EXPECT_TRUE(model.update(chip)) << "an enabled defect latched";
    EXPECT_FALSE(model.update(chip)) << "only on the rise";

    // Forced on a port whose link is up; released, it follows the link again.
    chip.up[3] = true;
    model.update(chip);
    const UINT32 fcs = offsetof(kavo_defect_enet_port_segment_t, mac);
    ASSERT_EQ(model.v_set(chip, ENET, 3, fcs, true, latched), VELT_SUCCESS);
    model.update(chip);
    EXPECT_EQ(byte(ENET, 3, fcs).v, 1);
    ASSERT_EQ(model.v_set(chip, ENET, 3, fcs, false, latched), VELT_SUCCESS);
    EXPECT_EQ(byte(ENET, 3, fcs).v, 0);
    EXPECT_EQ(byte(ENET, 3, fcs).i, 1);

    // Objects without a model of their own keep what the host forces.
    const UINT32 rpf = offsetof(kavo_defect_flexe_group_segment_t, phy[5].foh[2].rpf);
    ASSERT_EQ(model.v_set(chip, KAVO_DEFECT_TYPE_FLEXE_GROUP, 11, rpf, true, latched), VELT_SUCCESS);
    model.update(chip);
    EXPECT_EQ(byte(KAVO_DEFECT_TYPE_FLEXE_GROUP, 11, rpf).v, 1);
    EXPECT_EQ(byte(KAVO_DEFECT_TYPE_FLEXE_GROUP, 11, 0).v, 1) << "summary";
}

TEST_F(DefectModel, RefusalsAndANewlyProvisionedPort)
{
    UINT8 rec[defect_model::MAX_RECORD] = {};
    struct {
        UINT32 type, id, offset;
        VELT_ERROR code;
    } cases[] = {
        {KAVO_DEFECT_TYPE_UNUSED_0, 0, 1, DEFECTS_ERR_UNKNOWN_SW_DEFECT},
        {KAVO_DEFECT_TYPE_MACSEC, 0, 1, DEFECTS_ERR_UNKNOWN_SW_DEFECT},
        {LAST_KAVO_DEFECT_TYPE, 0, 1, DEFECTS_ERR_UNKNOWN_SW_DEFECT},
        {ENET, 48, 1, DEFECTS_ERR_UNKNOWN_CHNL_ID},
        {ENET, 4, 1, DEFECTS_ERR_INVALID_CHNL_ID},
        {KAVO_DEFECT_TYPE_DCSU, 6, 1, DEFECTS_ERR_UNKNOWN_CHNL_ID},
        {KAVO_DEFECT_TYPE_ILKN_PKT_CHNL, 8, 1, DEFECTS_ERR_UNKNOWN_CHNL_ID},
        {KAVO_DEFECT_TYPE_DCSU, 0, 0, DEFECTS_ERR_IVE_NOT_VALID},   // the summary
        {KAVO_DEFECT_TYPE_DCSU, 0, 6, DEFECTS_ERR_IVE_NOT_VALID},   // padding
        {KAVO_DEFECT_TYPE_TLIC, 0, 104, DEFECTS_ERR_IVE_NOT_VALID}, // beyond
        {KAVO_DEFECT_TYPE_TLIC, 0, 103, VELT_SUCCESS},
    };
    for (auto& c : cases) {
        EXPECT_EQ(model.e_set(chip, c.type, c.id, c.offset, true, latched), c.code) << c.type << "/" << c.id;
        EXPECT_EQ(model.v_set(chip, c.type, c.id, c.offset, true, latched), c.code) << c.type << "/" << c.id;
    }
    EXPECT_EQ(model.enable_set(chip, KAVO_DEFECT_TYPE_DCSU, 0, rec, 7, latched), UINT32(KAVO_FW_ERR_INVALID_PARAMETERS));
    EXPECT_EQ(model.get(chip, KAVO_DEFECT_TYPE_DCSU, 0, LAST_KAVO_DEFECT_CLEAR, rec),
              UINT32(KAVO_FW_ERR_INVALID_PARAMETERS));

    // Deprovisioned and provisioned again, a port forgets its latches and enables.
    model.update(chip);
    ASSERT_EQ(model.e_set(chip, ENET, 3, LOCAL_FAULT, true, latched), VELT_SUCCESS);
    chip.enet[3] = false;
    model.update(chip);
    chip.enet[3] = true;
    chip.up[3] = true;
    model.update(chip);
    const auto d = byte(ENET, 3, LOCAL_FAULT);
    EXPECT_EQ(d.i + d.v + d.e, 0);
}

TEST_F(DefectModel, DeviceSummaryIsEveryObjectsSummaryByte)
{
    model.update(chip); // port 3 down
    ASSERT_EQ(model.v_set(chip, KAVO_DEFECT_TYPE_ANLT, 47, 5, true, latched), VELT_SUCCESS);
    ASSERT_EQ(model.v_set(chip, KAVO_DEFECT_TYPE_ILKN_INTERFACE, 0, 9, true, latched), VELT_SUCCESS);
    kavo_defect_device_summary_t s;
    model.summary(s);
    const auto* bytes = reinterpret_cast<const UINT8*>(&s);
    struct {
        UINT32 type, first, count;
    } layout[] = {{2, 0, 1}, {1, 1, 8}, {0, 9, 48}, {4, 57, 24}, {3, 81, 12}, {6, 93, 48}, {8, 141, 1}, {9, 142, 6},
                  {10, 148, 48}};
    for (auto& l : layout)
        for (UINT32 id = 0; id < l.count; ++id) {
            UINT8 rec[defect_model::MAX_RECORD];
            if (l.type == ENET && id != 3) {
                EXPECT_EQ(bytes[l.first + id], 0) << "an unprovisioned port";
                continue;
            }
            ASSERT_EQ(model.get(chip, l.type, id, KAVO_DEFECT_CLEAR_NONE, rec), VELT_SUCCESS);
            EXPECT_EQ(bytes[l.first + id], rec[0]) << l.type << "/" << id;
        }
    EXPECT_EQ(bytes[9 + 3], 0x0B) << "port 3: valid, down, latched";
    EXPECT_EQ(bytes[148 + 47], 0x0B);
}

// Counters.

constexpr UINT32 CH = 5;

class PmonModel : public ::testing::Test {
  protected:
    void SetUp() override
    {
        chip.port(CH, 20); // one 100 Gb/s lane
        chip.up[CH] = true;
        chip.knobs[{SIM_KNOB_TRAFFIC_LOAD, CH}] = 4000; // 40 %
        chip.knobs[{SIM_KNOB_TRAFFIC_FRAME_SIZE, CH}] = 1000;
    }
    kavo_pmon_enet_port_segment_t read(bool reset = false)
    {
        kavo_pmon_enet_port_segment_t r;
        EXPECT_EQ(model.enet_port_get(chip, CH, reset, now, r), VELT_SUCCESS);
        return r;
    }
    UINT64 at(UINT64 us) { return model.run(chip, now = us); }
    static UINT64 u64(UINT32 lsb, UINT32 msb) { return UINT64(msb) << 32 | lsb; }
    hand_chip chip;
    pmon_model model;
    UINT64 now = 0;
};

// 40 % of 100 Gb/s in frames of 1000 bytes and 20 bytes of wire overhead.
constexpr UINT64 FRAMES_PER_S = 4901960;

TEST_F(PmonModel, CountsAtTheConfiguredRateWhileTheLinkIsUp)
{
    at(1000000);
    ASSERT_EQ(model.manual_trigger(now), VELT_SUCCESS);
    auto r = read();
    EXPECT_EQ(r.trigger_count, 1u);
    EXPECT_EQ(r.period_ms, 1000u);
    EXPECT_EQ(r.mac_rx.frames_ok_lsb, FRAMES_PER_S);
    EXPECT_EQ(r.mac_tx.frames_ok_lsb, FRAMES_PER_S);
    EXPECT_EQ(r.mac_rx.bin_512_1023_lsb, FRAMES_PER_S);
    EXPECT_EQ(u64(r.mac_rx.octets_ok_lsb, r.mac_rx.octets_ok_msb), FRAMES_PER_S * 1000) << "beyond 32 bits";
    EXPECT_EQ(r.mac_rx.fcs_err_lsb, 0u);

    // Down for a second: nothing; errors at 1 per 1000 frames once up again.
    chip.up[CH] = false;
    at(2000000);
    chip.up[CH] = true;
    chip.knobs[{SIM_KNOB_TRAFFIC_FCS_ERRORS, CH}] = 1000;
    at(3000000);
    ASSERT_EQ(model.manual_trigger(now), VELT_SUCCESS);
    r = read();
    EXPECT_EQ(r.period_ms, 2000u);
    EXPECT_EQ(r.mac_rx.fcs_err_lsb, FRAMES_PER_S / 1000);
    EXPECT_NEAR(double(r.mac_rx.frames_ok_lsb + r.mac_rx.fcs_err_lsb), double(FRAMES_PER_S), 1);
}

TEST_F(PmonModel, AutomaticTriggersSnapshotPeriodsOrAccumulate)
{
    for (bool accumulate : {false, true}) {
        pmon_model m;
        kavo_pmon_cfg_t cfg;
        cfg.auto_trigger = 1;
        cfg.accumulate_enable = accumulate;
        cfg.trigger_period_ms = 500;
        ASSERT_EQ(m.configure(cfg, 0), VELT_SUCCESS);
        EXPECT_EQ(m.manual_trigger(0), UINT32(PMON_ERR_MANUAL_TRIGGER_DISABLED));
        EXPECT_EQ(m.run(chip, 499999), 0u);
        EXPECT_EQ(m.run(chip, 1700000), 3u) << "triggers at 0.5, 1.0 and 1.5 s";
        kavo_pmon_enet_port_segment_t r;
        ASSERT_EQ(m.enet_port_get(chip, CH, true, 1700000, r), VELT_SUCCESS);
        EXPECT_EQ(r.trigger_count, 3u);
        const UINT64 per_period = FRAMES_PER_S / 2;
        EXPECT_NEAR(double(r.mac_rx.frames_ok_lsb), double(accumulate ? 3 * per_period : per_period), 1);
        ASSERT_EQ(m.enet_port_get(chip, CH, false, 1700000, r), VELT_SUCCESS);
        EXPECT_EQ(r.mac_rx.frames_ok_lsb, 0u) << "reset";
        m.run(chip, 2000000);
        ASSERT_EQ(m.enet_port_get(chip, CH, false, 2000000, r), VELT_SUCCESS);
        EXPECT_NEAR(double(r.mac_rx.frames_ok_lsb), double(FRAMES_PER_S * 3 / 10), 1) << "since the reset";
    }
}

TEST_F(PmonModel, MixedSizesFecErrorsAndRefusals)
{
    chip.knobs[{SIM_KNOB_TRAFFIC_FRAME_SIZE, CH}] = 0;
    chip.knobs[{SIM_KNOB_BIT_ERRORS, 20}] = 1000000; // 10^-6
    at(1000000);
    model.manual_trigger(now);
    const auto r = read();
    EXPECT_EQ(r.mac_rx.bin_1519_max_lsb, 0u) << "1500 is in 1024..1518";
    EXPECT_NEAR(double(r.mac_rx.bin_64_lsb) / r.mac_rx.bin_1024_1518_lsb, 7.0, 0.01);
    EXPECT_NEAR(double(r.mac_rx.bin_512_1023_lsb) / r.mac_rx.bin_1024_1518_lsb, 4.0, 0.01);
    EXPECT_EQ(r.phy_rx.fec_corrected_cw_lsb, 100000u) << "10^11 bits at 10^-6";
    EXPECT_EQ(r.phy_rx.fec_uncorrected_cw_lsb, 0u);

    kavo_pmon_enet_port_segment_t e;
    kavo_pmon_flexe_group_t g;
    kavo_pmon_cfg_t bad;
    bad.auto_trigger = 1;
    bad.trigger_period_ms = 0;
    EXPECT_EQ(model.configure(bad, now), UINT32(PMON_ERR_INVALID_PARAMS));
    EXPECT_EQ(model.enet_port_get(chip, CH + 1, false, now, e), UINT32(PMON_ERR_INVALID_CHNL_ID));
    EXPECT_EQ(model.flexe_group_get(12, false, now, g), UINT32(PMON_ERR_INVALID_CHNL_ID));
    EXPECT_EQ(model.flexe_group_get(11, false, now, g), VELT_SUCCESS);
    EXPECT_EQ(g.trigger_count, 1u);
}

} // namespace
