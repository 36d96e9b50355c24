// The firmware's SerDes lanes driven by hand-built mailbox exchanges and the
// world knobs: refusals, PRBS lock and counts against the link partner, taps,
// adaptation, configuration actions, loss of signal, PPM, FEC monitor, eye
// monitors and the microcode reassembly.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "../../sim/src/fw/serdes_lane.h"
#include "kavo_sim/bus_client.h"
#include "kavo_sim/kavo_sim.h"

using kavo_sim::exchange_result;

namespace {

constexpr UINT32 PORT = 3;
constexpr double BITS_PER_US = 53125.0; // the default 50G PAM4 lane
constexpr UINT32 X = 0xFFFFFFFF;

kavo_htl_general_struct_t info(UINT32 element, UINT32 mode = X, UINT32 parent = X, UINT32 flag = 0)
{
    kavo_htl_general_struct_t i;
    i.element_id = element, i.mode = mode, i.parent_id = parent, i.flag = flag;
    return i;
}

template <class T> T as(const exchange_result& r)
{
    T t{};
    EXPECT_EQ(r.data.size(), sizeof(T));
    if (r.data.size() == sizeof(T)) std::memcpy(static_cast<void*>(&t), r.data.data(), sizeof(T));
    return t;
}

class SimSerdes : public ::testing::Test {
  protected:
    void SetUp() override
    {
        ASSERT_EQ(kavo_sim::chip_create(4, kavo_sim::chip_config::stepped(0x6104, 1)), VELT_SUCCESS);
        ASSERT_TRUE(bus.cold_start(kavo_sim::image_build({3, 0, 5, 77})));
    }
    void TearDown() override { kavo_sim::chip_destroy_all(); }
    kavo_sim::chip* chip() { return kavo_sim::chip_get(4); }
    void knob(sim_knob_t k, UINT32 v, UINT32 port = PORT) { ASSERT_EQ(chip()->knob_set(k, port, v), VELT_SUCCESS); }

    template <class T = UINT8> UINT32 op(UINT32 operation, kavo_htl_general_struct_t i, const T* payload = nullptr)
    {
        return bus.exchange(operation, payload, payload ? sizeof(T) : 0, i).result();
    }
    UINT32 prbs(UINT32 gen, UINT32 mode, const UINT32* pattern = nullptr)
    {
        kavo_serdes_prbs_cfg_t c;
        c.gen_mon_b = gen, c.prbs_mode = kavo_serdes_prbs_t(mode);
        if (pattern) std::memcpy(c.pattern, pattern, sizeof(c.pattern));
        return op(KAVO_HTL_OPERATION_SERDES_PORT_PRBS_SET, info(PORT), &c);
    }
    kavo_serdes_prbs_ber_t ber(bool resync = false)
    {
        return as<kavo_serdes_prbs_ber_t>(bus.exchange(KAVO_HTL_OPERATION_SERDES_PIN_PRBS_GET, nullptr, 0,
                                                       info(PORT, X, X, resync)));
    }
    template <class T> T get(UINT32 operation, UINT32 mode = X)
    {
        auto r = bus.exchange(operation, nullptr, 0, info(PORT, mode));
        EXPECT_EQ(r.result(), VELT_SUCCESS);
        return as<T>(r);
    }
    kavo_serdes_pin_status_t status() { return get<kavo_serdes_pin_status_t>(KAVO_HTL_OPERATION_SERDES_PORT_STATUS_GET); }
    kavo_serdes_pin_cfg_t cfg() { return get<kavo_serdes_pin_cfg_t>(KAVO_HTL_OPERATION_SERDES_PORT_CFG_GET); }
    kavo_sim::bus_client bus{kavo_sim::callouts(), 4};
};

TEST_F(SimSerdes, RequestsAreRefusedWithTheMostSpecificCode)
{
    kavo_serdes_prbs_cfg_t monitor_ssprq, bad_pattern, both;
    monitor_ssprq.prbs_mode = KAVO_SERDES_PRBS_SSPRQ;
    bad_pattern.prbs_mode = kavo_serdes_prbs_t(11);
    both.gen_mon_b = 2;
    kavo_serdes_polarity_cfg_t bad_action, whole_port;
    bad_action.action = LAST_KAVO_SERDES_CFG_ACT;
    whole_port.port_pin_b = 1; // no channel owns the port
    const kavo_serdes_squelch_data_t fixed{};
    const UINT32 short_payload = 0;
    struct {
        const char* what;
        UINT32 code;
        UINT32 got;
    } cases[] = {
        {"port 48", SERDES_ERR_PORT_INVALID, op<UINT8>(KAVO_HTL_OPERATION_SERDES_PORT_STATUS_GET, info(48))},
        {"port X", SERDES_ERR_PORT_INVALID, op<UINT8>(KAVO_HTL_OPERATION_SERDES_PORT_TX_ERR_SET, info(X))},
        {"channel 48", SEGMENT_BASE_ERR_ILLEGAL_CHNL_ID, op<UINT8>(KAVO_HTL_OPERATION_SERDES_STATUS_GET, info(48))},
        {"tx source 4", SERDES_ERR_INVALID_MODE, op(KAVO_HTL_OPERATION_SERDES_PORT_TX_SOURCE_SET, info(PORT, 4), &fixed)},
        {"short source data", HTL_ERR_INVALID_REQUEST_DATA_SIZE,
         op(KAVO_HTL_OPERATION_SERDES_PORT_TX_SOURCE_SET, info(PORT, 0), &short_payload)},
        {"tx PRBS without generator", SERDES_ERR_PRBS_GENERATOR_NOT_ENABLED,
         op(KAVO_HTL_OPERATION_SERDES_PORT_TX_SOURCE_SET, info(PORT, KAVO_SERDES_TX_SRC_PRBS), &fixed)},
        {"rx PRBS without monitor", SERDES_ERR_PRBS_MONITOR_NOT_ENABLED,
         op(KAVO_HTL_OPERATION_SERDES_PORT_RX_SOURCE_SET, info(PORT, KAVO_SERDES_RX_SRC_PRBS), &fixed)},
        {"pattern 11", SERDES_ERR_PRBS_INVALID_MODE, op(KAVO_HTL_OPERATION_SERDES_PORT_PRBS_SET, info(PORT), &bad_pattern)},
        {"SSPRQ monitor", SERDES_ERR_NO_P56_PRBS_MONITOR,
         op(KAVO_HTL_OPERATION_SERDES_PORT_PRBS_SET, info(PORT), &monitor_ssprq)},
        {"gen_mon_b 2", KAVO_FW_ERR_INVALID_PARAMETERS, op(KAVO_HTL_OPERATION_SERDES_PORT_PRBS_SET, info(PORT), &both)},
        {"action 3", SERDES_ERR_INVALID_CFG_ACTION,
         op(KAVO_HTL_OPERATION_SERDES_PORT_POLARITY_SET, info(PORT), &bad_action)},
        {"tx ctrl action 3", SERDES_ERR_INVALID_CFG_ACTION,
         op<UINT8>(KAVO_HTL_OPERATION_SERDES_PORT_TX_CTRL_SET, info(PORT, 3, 0, 1))},
        {"unowned port", SERDES_ERR_PORT_NOT_ASSIGNED,
         op(KAVO_HTL_OPERATION_SERDES_PORT_POLARITY_SET, info(PORT), &whole_port)},
        {"PRBS read, monitor off", SERDES_ERR_PRBS_MONITOR_NOT_ENABLED,
         op<UINT8>(KAVO_HTL_OPERATION_SERDES_PIN_PRBS_GET, info(PORT))},
        {"error without generator", SERDES_ERR_PRBS_GENERATOR_NOT_ENABLED,
         op<UINT8>(KAVO_HTL_OPERATION_SERDES_PORT_TX_ERR_SET, info(PORT))},
        {"eye kind 3", SERDES_ERR_INVALID_MODE, op<UINT8>(KAVO_HTL_OPERATION_SERDES_EYE_MON_ENABLE, info(PORT, 3, 6, 1))},
        {"eye depth 16", KAVO_FW_ERR_NUMBER_OUT_OF_RANGE,
         op<UINT8>(KAVO_HTL_OPERATION_SERDES_EYE_MON_ENABLE, info(PORT, 2, 16, 1))},
        {"eye not enabled", SERDES_ERR_INVALID_MODE, op<UINT8>(KAVO_HTL_OPERATION_SERDES_EYE_DATA_GET, info(PORT, 1))},
        {"hold-off 60001 ms", SERDES_ERR_INVALID_MODE,
         op<UINT8>(KAVO_HTL_OPERATION_SERDES_PORT_HOLD_OFF_SET, info(PORT, 60001, 0))},
        {"dwell 0", SERDES_ERR_INVALID_MODE, op<UINT8>(KAVO_HTL_OPERATION_SERDES_FEC_MON_TRIGGER, info(PORT, 0))},
        {"step, mode off", SERDES_ERR_INVALID_MODE, op<UINT8>(KAVO_HTL_OPERATION_SERDES_PORT_SINGLE_STEP_START, info(PORT))},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.got, c.code) << c.what;
}

TEST_F(SimSerdes, MonitorLocksOnThePartnersPatternAndCountsEveryBitSinceLock)
{
    knob(SIM_KNOB_PARTNER_PRBS, KAVO_SERDES_PRBS_31);
    ASSERT_EQ(prbs(0, KAVO_SERDES_PRBS_31), VELT_SUCCESS);
    EXPECT_TRUE(ber().lock);
    chip()->advance_time(1000000);
    auto b = ber();
    EXPECT_TRUE(b.lock);
    EXPECT_GE(double(b.bit_count), BITS_PER_US * 1e6);
    // The chip's clock also runs in real time: the exchanges add a little, more
    // under a sanitizer.
    EXPECT_LT(double(b.bit_count), BITS_PER_US * 1.01e6) << "the bus traffic's own time is small";
    EXPECT_EQ(b.error_count, 0u);
    const auto read = ber(true), fresh = ber();
    EXPECT_LT(fresh.bit_count, read.bit_count / 1000) << "read, then counted again from zero";

    struct {
        const char* what;
        UINT32 pattern, inverted, rx_invert;
        bool lock;
    } cases[] = {
        {"partner inverted", KAVO_SERDES_PRBS_31, 1, 0, false},
        {"both inverted", KAVO_SERDES_PRBS_31, 1, 1, true},
        {"receiver inverted", KAVO_SERDES_PRBS_31, 0, 1, false},
        {"other polynomial", KAVO_SERDES_PRBS_23, 0, 0, false},
        {"mission data", X, 0, 0, false},
        {"same again", KAVO_SERDES_PRBS_31, 0, 0, true},
    };
    UINT32 losses = ber().lock_loss_count;
    bool locked = true;
    for (const auto& c : cases) {
        knob(SIM_KNOB_PARTNER_PRBS, c.pattern);
        knob(SIM_KNOB_PARTNER_INVERTED, c.inverted);
        kavo_serdes_polarity_cfg_t pol;
        pol.invert = c.rx_invert;
        ASSERT_EQ(op(KAVO_HTL_OPERATION_SERDES_PORT_POLARITY_SET, info(PORT), &pol), VELT_SUCCESS);
        chip()->advance_time(1000);
        b = ber();
        EXPECT_EQ(bool(b.lock), c.lock) << c.what;
        losses += locked && !c.lock;
        locked = c.lock;
        EXPECT_EQ(b.lock_loss_count, losses) << c.what;
        chip()->advance_time(1000);
        EXPECT_EQ(ber().bit_count > b.bit_count, c.lock) << c.what << ": counts only while locked";
    }
}

TEST_F(SimSerdes, ConfiguredErrorRatioIsSeenWithinItsStatisticalBounds)
{
    knob(SIM_KNOB_PARTNER_PRBS, KAVO_SERDES_PRBS_15);
    ASSERT_EQ(prbs(0, KAVO_SERDES_PRBS_15), VELT_SUCCESS);
    for (UINT32 per_1e12 : {1000u, 100000u, 10000000u}) {
        knob(SIM_KNOB_BIT_ERRORS, per_1e12);
        ber(true);
        chip()->advance_time(500000);
        const auto b = ber();
        const double mean = double(b.bit_count) * per_1e12 / 1e12;
        EXPECT_NEAR(double(b.error_count), mean, 5 * std::sqrt(mean) + 1) << per_1e12;
        EXPECT_NEAR(b.ber, per_1e12 / 1e12, 5 * std::sqrt(mean) / double(b.bit_count) + 1e-12);
    }
    // Injected errors leave with the transmitted signal: to the partner here.
    ASSERT_EQ(prbs(1, KAVO_SERDES_PRBS_15), VELT_SUCCESS);
    EXPECT_EQ(op<UINT8>(KAVO_HTL_OPERATION_SERDES_PORT_TX_ERR_SET, info(PORT)), VELT_SUCCESS);
}

TEST_F(SimSerdes, TapsAreValidatedStoredAndOwnedByLinkTrainingOnly)
{
    kavo_serdes_eq_taps_cfg_t good{}, bad{};
    good.cm1 = -6, good.c0 = 45, good.c1 = -12;
    bad.c0 = 40, bad.c1 = -24; // the main cursor must outweigh the others
    ASSERT_EQ(op(KAVO_HTL_OPERATION_SERDES_PIN_TX_EQ_TAPS_SET, info(PORT), &good), VELT_SUCCESS);
    EXPECT_EQ(op(KAVO_HTL_OPERATION_SERDES_PIN_TX_EQ_TAPS_SET, info(PORT), &bad), UINT32(KAVO_FW_ERR_NUMBER_OUT_OF_RANGE));
    const auto stored = cfg().taps;
    EXPECT_EQ(std::memcmp(&stored, &good, sizeof(good)), 0) << "a refused set keeps the stored taps";
    ASSERT_EQ(op<UINT8>(KAVO_HTL_OPERATION_SERDES_LINK_TRAINING_ONLY_MODE_EN, info(PORT, X, X, 1)), VELT_SUCCESS);
    EXPECT_EQ(op(KAVO_HTL_OPERATION_SERDES_PIN_TX_EQ_TAPS_SET, info(PORT), &good), UINT32(SERDES_ERR_INVALID_MODE));
    EXPECT_TRUE(cfg().lt_only_mode);
}

TEST_F(SimSerdes, AdaptationOpensTheEyeStepByStepOrOnItsOwn)
{
    knob(SIM_KNOB_CHANNEL_LOSS, 200); // 20 dB: closed at depth 6 without equalisation
    const auto before = get<kavo_serdes_pin_adapt_objects_t>(KAVO_HTL_OPERATION_SERDES_ADAPT_OBJECTS_GET);
    EXPECT_EQ(before.eye_height_mv, 0u);
    ASSERT_EQ(op<UINT8>(KAVO_HTL_OPERATION_SERDES_ADAPTATION_TRIGGER, info(PORT, X, X, 0)), VELT_SUCCESS);
    EXPECT_EQ(status().adapt_state, 1u);
    chip()->advance_time(10000);
    const auto after = get<kavo_serdes_pin_adapt_objects_t>(KAVO_HTL_OPERATION_SERDES_ADAPT_OBJECTS_GET);
    EXPECT_EQ(after.state, 2u);
    EXPECT_EQ(after.iterations, 8u);
    EXPECT_GT(after.eye_height_mv, 10u);
    EXPECT_LT(after.isi_ppm, before.isi_ppm / 2);
    const auto w = get<kavo_serdes_ffe_wt_t>(KAVO_HTL_OPERATION_SERDES_FFE_WT_GET);
    EXPECT_EQ(w.weight[w.main_tap], 1000);
    EXPECT_LT(w.weight[w.main_tap + 1], -50);

    // Single steps: each one request, and a port reset starts over.
    ASSERT_EQ(op<UINT8>(KAVO_HTL_OPERATION_SERDES_PORT_RESET, info(PORT, X, X, 0)), VELT_SUCCESS);
    ASSERT_EQ(op<UINT8>(KAVO_HTL_OPERATION_SERDES_PORT_SINGLE_STEP_MODE_SET, info(PORT, X, X, 1)), VELT_SUCCESS);
    EXPECT_EQ(op<UINT8>(KAVO_HTL_OPERATION_SERDES_PORT_SINGLE_STEP_START, info(PORT)), UINT32(SERDES_ERR_INVALID_MODE))
        << "nothing triggered";
    ASSERT_EQ(op<UINT8>(KAVO_HTL_OPERATION_SERDES_ADAPTATION_TRIGGER, info(PORT, X, X, 0)), VELT_SUCCESS);
    chip()->advance_time(20000);
    UINT32 height = 0;
    for (UINT32 step = 1; step <= 8; ++step) {
        auto o = get<kavo_serdes_pin_adapt_objects_t>(KAVO_HTL_OPERATION_SERDES_ADAPT_OBJECTS_GET);
        EXPECT_EQ(o.state, 3u);
        EXPECT_EQ(o.iterations, step - 1) << "no step without a request";
        EXPECT_GE(o.eye_height_mv, height);
        height = o.eye_height_mv;
        ASSERT_EQ(op<UINT8>(KAVO_HTL_OPERATION_SERDES_PORT_SINGLE_STEP_START, info(PORT)), VELT_SUCCESS);
    }
    EXPECT_EQ(status().adapt_state, 2u);
}

TEST_F(SimSerdes, ActionsStoreApplyOrBothAndResetsRestoreTheStored)
{
    struct {
        UINT32 action;
        bool running, stored, after_reset;
    } cases[] = {
        {KAVO_SERDES_CFG_ACT_STORE, false, true, true},
        {KAVO_SERDES_CFG_ACT_APPLY, true, false, false},
        {KAVO_SERDES_CFG_ACT_STORE_AND_APPLY, true, true, true},
    };
    for (const auto& c : cases) {
        ASSERT_EQ(op<UINT8>(KAVO_HTL_OPERATION_SERDES_PORT_TX_CTRL_SET, info(PORT, KAVO_SERDES_CFG_ACT_STORE_AND_APPLY, 0, 0)),
                  VELT_SUCCESS);
        ASSERT_EQ(op<UINT8>(KAVO_HTL_OPERATION_SERDES_PORT_TX_CTRL_SET, info(PORT, c.action, 0, 1)), VELT_SUCCESS);
        EXPECT_EQ(!status().tx_enabled, c.running) << c.action;
        EXPECT_EQ(bool(cfg().tx_disable), c.stored) << c.action;
        const UINT32 resets = status().reset_count;
        ASSERT_EQ(op<UINT8>(KAVO_HTL_OPERATION_SERDES_PORT_RESET, info(PORT, X, X, 0)), VELT_SUCCESS);
        EXPECT_EQ(!status().tx_enabled, c.after_reset) << c.action;
        EXPECT_EQ(status().reset_count, resets + 1);
        EXPECT_FALSE(status().cdr_lock) << "clock recovery starts again";
        chip()->advance_time(2000);
        EXPECT_TRUE(status().cdr_lock);
    }
}

TEST_F(SimSerdes, LossOfSignalHoldOffPpmAndClockRecovery)
{
    ASSERT_EQ(op<UINT8>(KAVO_HTL_OPERATION_SERDES_PORT_HOLD_OFF_SET, info(PORT, 100, 0)), VELT_SUCCESS);
    EXPECT_TRUE(status().signal_detect);
    knob(SIM_KNOB_LINK_PARTNER, 0);
    EXPECT_FALSE(status().signal_detect);
    EXPECT_EQ(status().los_count, 1u);
    knob(SIM_KNOB_LINK_PARTNER, 1);
    EXPECT_FALSE(status().signal_detect) << "held off";
    chip()->advance_time(100000);
    EXPECT_TRUE(status().signal_detect);

    for (INT32 ppm : {0, 150, -200, 201, -250}) {
        knob(SIM_KNOB_PPM_OFFSET, UINT32(ppm));
        auto r = bus.exchange(KAVO_HTL_OPERATION_SERDES_PPM_OFFSET_GET, nullptr, 0, info(PORT));
        EXPECT_EQ(INT32(r.header[5]), ppm);
        EXPECT_EQ(bool(status().cdr_lock), std::abs(ppm) <= 200) << ppm;
    }
}

TEST_F(SimSerdes, FecMonitorCountsOverItsDwellTime)
{
    knob(SIM_KNOB_BIT_ERRORS, 100000); // 10^-7
    ASSERT_EQ(op<UINT8>(KAVO_HTL_OPERATION_SERDES_FEC_MON_TRIGGER, info(PORT, 100)), VELT_SUCCESS);
    EXPECT_FALSE(get<kavo_serdes_fec_mon_data_t>(KAVO_HTL_OPERATION_SERDES_FEC_MON_GET).done);
    chip()->advance_time(200000);
    const auto f = get<kavo_serdes_fec_mon_data_t>(KAVO_HTL_OPERATION_SERDES_FEC_MON_GET);
    EXPECT_TRUE(f.done);
    EXPECT_EQ(f.elapsed_ms, 100u);
    EXPECT_EQ(f.codewords, UINT64(BITS_PER_US * 100000 / 5440));
    const double mean = f.codewords * 5440 * 1e-7; // one symbol per bit error at this ratio
    EXPECT_NEAR(double(f.symbol_errors), mean, 5 * std::sqrt(mean));
    EXPECT_EQ(f.uncorrectable_codewords, 0u);
    const auto again = get<kavo_serdes_fec_mon_data_t>(KAVO_HTL_OPERATION_SERDES_FEC_MON_GET);
    EXPECT_EQ(again.symbol_errors, f.symbol_errors) << "a finished window reads the same";
}

TEST_F(SimSerdes, EyeScansMatchTheLaneStatus)
{
    ASSERT_EQ(op<UINT8>(KAVO_HTL_OPERATION_SERDES_EYE_MON_ENABLE, info(PORT, 2, 6, 1)), VELT_SUCCESS);
    ASSERT_EQ(op<UINT8>(KAVO_HTL_OPERATION_SERDES_EYE_MON_ENABLE, info(PORT, 1, 9, 1)), VELT_SUCCESS);
    const auto two = get<kavo_serdes_2d_eye_data_t>(KAVO_HTL_OPERATION_SERDES_EYE_DATA_GET, 2);
    const auto one = get<kavo_serdes_1d_eye_data_t>(KAVO_HTL_OPERATION_SERDES_EYE_DATA_GET, 1);
    ASSERT_TRUE(two.valid && one.valid);
    EXPECT_EQ(two.eye_height_mv, status().eye_height_mv) << "both at depth 6";
    EXPECT_EQ(two.eye_width_mui, status().eye_width_mui);
    EXPECT_LT(one.eye_height_mv, two.eye_height_mv) << "depth 9 is a smaller eye";
    UINT32 open = 0;
    for (UINT32 r = 0; r < 32; ++r)
        open += two.ber_decade[r][15] >= 6;
    EXPECT_NEAR(open * two.mv_per_step, two.eye_height_mv, 2.0 * two.mv_per_step);
    knob(SIM_KNOB_LINK_PARTNER, 0);
    EXPECT_FALSE(get<kavo_serdes_2d_eye_data_t>(KAVO_HTL_OPERATION_SERDES_EYE_DATA_GET, 2).valid);
}

TEST_F(SimSerdes, MicrocodeIsReassembledByOffsetAndCheckedBeforeItRuns)
{
    namespace s = kavo_sim::fw::serdes;
    const auto file = s::microcode_file(0x00020001, 20000);
    const UINT8* image = file.data() + s::UCODE_FILE_HEADER;
    const UINT32 total = UINT32(file.size() - s::UCODE_FILE_HEADER);
    const UINT8 closing[24] = {};
    auto send = [&](UINT32 offset, UINT32 n, const UINT8* data = nullptr) {
        return bus.exchange(KAVO_HTL_OPERATION_DEBUG_SERDES_LOAD, data ? data : image + offset, n, info(X, offset)).result();
    };
    auto load = [&](UINT32 chunk, UINT32 closing_total) {
        for (UINT32 at = 0; at < total; at += chunk)
            if (UINT32 rc = send(at, std::min(chunk, total - at)); rc != VELT_SUCCESS) return rc;
        return send(closing_total, 24, closing);
    };
    EXPECT_EQ(load(8192, total - 4), UINT32(SERDES_ERR_INVALID_MODE)) << "wrong total";
    EXPECT_EQ(status().microcode_version, 0u);

    ASSERT_EQ(send(0, 8192), VELT_SUCCESS);
    EXPECT_EQ(send(8192 + 4, 8192), UINT32(SERDES_ERR_INVALID_MODE)) << "gap";
    ASSERT_EQ(send(0, 8192), VELT_SUCCESS);
    EXPECT_EQ(send(8192 - 4, 8192), UINT32(SERDES_ERR_INVALID_MODE)) << "overlap";
    ASSERT_EQ(send(0, 8192), VELT_SUCCESS);
    EXPECT_EQ(send(8192, 24, closing), UINT32(SERDES_ERR_INVALID_MODE)) << "closed early";

    auto corrupt = file;
    corrupt[s::UCODE_FILE_HEADER + 5000] ^= 1;
    ASSERT_EQ(send(0, 8192, corrupt.data() + s::UCODE_FILE_HEADER), VELT_SUCCESS);
    for (UINT32 at = 8192; at < total; at += 8192)
        ASSERT_EQ(send(at, std::min(8192u, total - at)), VELT_SUCCESS);
    EXPECT_EQ(send(total, 24, closing), UINT32(SERDES_ERR_INVALID_MODE)) << "checksum";

    EXPECT_EQ(send(0, 64, file.data()), UINT32(SERDES_ERR_INVALID_MODE)) << "the file header is not an image";
    EXPECT_EQ(load(4096, total), VELT_SUCCESS) << "any chunk size, in order";
    EXPECT_EQ(status().microcode_version, 0x00020001u);
    EXPECT_EQ(get<kavo_serdes_status_t>(KAVO_HTL_OPERATION_SERDES_STATUS_GET).microcode_loaded, 1u);
}

} // namespace
