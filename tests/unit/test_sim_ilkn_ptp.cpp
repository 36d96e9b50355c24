// The firmware's Interlaken and PTP rules, driven by raw mailbox exchanges:
// the interface the configuration describes, its lanes' lock, packet channels
// and calendars; the time-of-day clock, 1PPS and the channel checks.
#include <gtest/gtest.h>

#include "kavo_sim/bus_client.h"
#include "kavo_sim/kavo_sim.h"

using kavo_sim::bus_client;

namespace {

constexpr UINT32 FIRST_LANE = 8, LANES = 8;

kavo_htl_general_struct_t info(UINT32 element, UINT32 mode = 0xFFFFFFFF, UINT32 parent = 0xFFFFFFFF, UINT32 flag = 0)
{
    kavo_htl_general_struct_t i;
    i.element_id = element, i.mode = mode, i.parent_id = parent, i.flag = flag;
    return i;
}

/* Eight 53G lanes on ports 8..15 (about 405 Gb/s), flow control with 300-entry calendars. */
kavo_config_t ilkn_config()
{
    kavo_config_t c;
    c.device_mode = KAVO_DEVICE_MODE_1200G_ILKN;
    for (UINT32 n = 0; n < LANES; ++n)
        c.ilkn_lane.serdes_port_ids_tx[n] = c.ilkn_lane.serdes_port_ids_rx[n] = FIRST_LANE + n;
    c.ilkn_intf.fc_enable = 1;
    c.ilkn_intf.fc_cal_length = 300;
    c.ptp_enable[0] = 1;
    return c;
}

class SimIlkn : public ::testing::Test {
  protected:
    void SetUp() override
    {
        ASSERT_EQ(kavo_sim::chip_create(2, kavo_sim::chip_config::stepped(0x6104, 1)), VELT_SUCCESS);
        ASSERT_TRUE(bus.cold_start(kavo_sim::image_build({3, 0, 2, 1})));
    }
    void TearDown() override { kavo_sim::chip_destroy_all(); }
    UINT32 config(const kavo_config_t& c) { return bus.exchange(KAVO_HTL_OPERATION_CONFIG, &c, sizeof(c)).result(); }
    UINT32 op(UINT32 operation, kavo_htl_general_struct_t i = {}, const void* data = nullptr, UINT32 size = 0)
    {
        return bus.exchange(operation, data, size, i).result();
    }
    UINT32 pkt_prov(UINT32 chnl, UINT32 rate, UINT32 bcw_in, UINT32 bcw_out, UINT32 incr = 0)
    {
        kavo_traffic_ilkn_pkt_t p;
        p.fabric_ingress_data.rate_info.rate = kavo_fabric_ingress_rate_t(rate);
        p.fabric_ingress_data.rate_info.client_num_incr = incr;
        p.fabric_ingress_data.bcw_chnl = bcw_in;
        p.fabric_egress_data.bcw_chnl = bcw_out;
        return op(KAVO_HTL_OPERATION_ILKN_PKT_PROV, info(chnl), &p, sizeof(p));
    }
    kavo_ilkn_intf_status_t status()
    {
        auto r = bus.exchange(KAVO_HTL_OPERATION_ILKN_INTF_STATUS_GET);
        kavo_ilkn_intf_status_t s;
        EXPECT_EQ(r.result(), VELT_SUCCESS);
        if (r.data.size() == sizeof(s)) std::memcpy(static_cast<void*>(&s), r.data.data(), sizeof(s));
        return s;
    }
    UINT32 fc(UINT32 direction, UINT32 entries, UINT32 value = 1)
    {
        std::vector<UINT32> cal(entries, value);
        return op(KAVO_HTL_OPERATION_ILKN_FC_CFG, info(0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, direction), cal.data(),
                  entries * 4);
    }
    bus_client bus{kavo_sim::callouts(), 2};
};

TEST_F(SimIlkn, TheConfiguredInterfaceOrWhyNot)
{
    EXPECT_EQ(pkt_prov(0, KAVO_FABRIC_INGRESS_RATE_10G, 0, 0), UINT32(KAVO_ERR_FW_NOT_CONFIGURED));
    struct {
        const char* what;
        void (*spoil)(kavo_config_t&);
        UINT32 code;
    } bad[] = {
        {"no lanes", [](kavo_config_t& c) { c.ilkn_lane.init(); }, SEGMENT_BASE_ILKN_INTERFACE_DOES_NOT_EXIST},
        {"a gap", [](kavo_config_t& c) { c.ilkn_lane.serdes_port_ids_tx[3] = 0xFFFFFFFF; }, ILKN_ERR_INVALID_TX_SERDES_NOT_PACKED},
        {"fewer rx lanes", [](kavo_config_t& c) { c.ilkn_lane.serdes_port_ids_rx[7] = 0xFFFFFFFF; },
         ILKN_ERR_NUMBER_RX_TX_SERDES_MISMATCH},
        {"a lane twice", [](kavo_config_t& c) { c.ilkn_lane.serdes_port_ids_rx[7] = 8; }, ILKN_ERR_SERDES_RX_PORT_SET_TWICE},
        {"rx on other ports", [](kavo_config_t& c) { c.ilkn_lane.serdes_port_ids_rx[7] = 40; }, ILKN_ERR_SERDES_RX_TX_PORT_MISMATCH},
        {"port 48", [](kavo_config_t& c) { c.ilkn_lane.serdes_port_ids_tx[0] = c.ilkn_lane.serdes_port_ids_rx[0] = 48; },
         ILKN_ERR_SERDES_OUT_OF_RANGE},
        {"burst max 96", [](kavo_config_t& c) { c.ilkn_intf.burst_max = 3; }, ILKN_ERR_INVALID_ILKN_BURST_MAX},
        {"burst min over half of max", [](kavo_config_t& c) { c.ilkn_intf.burst_min = KAVO_ILKN_BURST_MIN_128, c.ilkn_intf.burst_max = KAVO_ILKN_BURST_MAX_192; },
         ILKN_ERR_INVALID_ILKN_BURST_MIN},
        {"calendar of 301", [](kavo_config_t& c) { c.ilkn_intf.fc_cal_length = 301; }, ILKN_ERR_INVALID_ILKN_FC_CAL_LEN},
        {"metaframe", [](kavo_config_t& c) { c.ilkn_intf.metaframe = LAST_KAVO_ILKN_MF; }, ILKN_ERR_INVALID_CONFIG},
        {"as configured", [](kavo_config_t&) {}, VELT_SUCCESS},
    };
    for (auto& b : bad) {
        kavo_config_t c = ilkn_config();
        b.spoil(c);
        ASSERT_EQ(config(c), VELT_SUCCESS) << b.what;
        EXPECT_EQ(op(KAVO_HTL_OPERATION_ILKN_LOOPBACK_GET), b.code) << b.what;
    }
    // The lanes are the interface's: a FlexE PHY cannot take them.
    kavo_flexe_group_cfg_t g;
    g.group_info.flexe_group_number_tx = g.group_info.flexe_group_number_rx = 1;
    g.num_phys = 1;
    g.phys[0].phy_id = 0, g.phys[0].serdes_port_id = 14;
    g.phys[0].phy_data_tx.flexe_phy_number = g.phys[0].phy_data_rx.flexe_phy_number = 1;
    EXPECT_EQ(op(KAVO_HTL_OPERATION_FLEXE_GROUP_PROV, info(0), &g, sizeof(g)), UINT32(SEGMENT_BASE_ENET_FLEXE_SERDES_PIN_ALREADY_USED));
    kavo_config_t moved = ilkn_config();
    for (UINT32 n = 0; n < LANES; ++n)
        moved.ilkn_lane.serdes_port_ids_tx[n] = moved.ilkn_lane.serdes_port_ids_rx[n] = 24 + n;
    ASSERT_EQ(config(moved), VELT_SUCCESS);
    EXPECT_EQ(op(KAVO_HTL_OPERATION_FLEXE_GROUP_PROV, info(0), &g, sizeof(g)), VELT_SUCCESS) << "a new configuration frees them";
}

TEST_F(SimIlkn, LanesLockOnASignalAndAlignAfterFourMetaframes)
{
    kavo_config_t c = ilkn_config();
    c.ilkn_lane.rate_mode = KAVO_ILKN_RATE_MODE_6G25;
    c.ilkn_intf.metaframe = KAVO_ILKN_MF_16384;
    ASSERT_EQ(config(c), VELT_SUCCESS);
    for (UINT32 n = 0; n < LANES; ++n)
        kavo_sim::chip_get(2)->knob_set(SIM_KNOB_LINK_PARTNER, FIRST_LANE + n, 0);
    kavo_ilkn_intf_status_t s = status();
    EXPECT_EQ(s.num_lanes, LANES);
    EXPECT_EQ(s.word_lock, 0u);
    EXPECT_FALSE(s.intf_up);

    ASSERT_EQ(op(KAVO_HTL_OPERATION_ILKN_LOOPBACK, info(0xFFFFFFFF, KAVO_ILKN_LOOPBACK_SERDES, 0xFFFFFFFF, 1)), VELT_SUCCESS);
    s = status();
    EXPECT_EQ(s.word_lock, 0xFFu);
    EXPECT_EQ(s.metaframe_lock, 0u) << "four metaframes of 16384 words at 6.25G take 703 us";
    kavo_sim::chip_get(2)->advance_time(400);
    EXPECT_EQ(status().metaframe_lock, 0u);
    kavo_sim::chip_get(2)->advance_time(400);
    s = status();
    EXPECT_EQ(s.metaframe_lock, 0xFFu);
    EXPECT_TRUE(s.lane_aligned && s.intf_up);
    EXPECT_EQ(s.loopback, KAVO_ILKN_LOOPBACK_SERDES);

    EXPECT_EQ(op(KAVO_HTL_OPERATION_ILKN_LOOPBACK, info(0xFFFFFFFF, KAVO_ILKN_LOOPBACK_CORE, 0xFFFFFFFF, 0)), VELT_SUCCESS)
        << "turning off a loopback not in force changes nothing";
    EXPECT_EQ(bus.exchange(KAVO_HTL_OPERATION_ILKN_LOOPBACK_GET).header[4], UINT32(KAVO_ILKN_LOOPBACK_SERDES));
    ASSERT_EQ(op(KAVO_HTL_OPERATION_ILKN_LOOPBACK, info(0xFFFFFFFF, KAVO_ILKN_LOOPBACK_SERDES, 0xFFFFFFFF, 0)), VELT_SUCCESS);
    EXPECT_FALSE(status().intf_up);
    EXPECT_EQ(op(KAVO_HTL_OPERATION_ILKN_LOOPBACK, info(0xFFFFFFFF, LAST_KAVO_ILKN_LOOPBACK, 0xFFFFFFFF, 1)),
              UINT32(SEGMENT_BASE_ILKN_INVALID_LOOPBACK));
}

TEST_F(SimIlkn, PacketChannelsShareChannelNumbersAndBandwidth)
{
    ASSERT_EQ(config(ilkn_config()), VELT_SUCCESS);
    ASSERT_EQ(pkt_prov(0, KAVO_FABRIC_INGRESS_RATE_100G, 10, 10, 3), VELT_SUCCESS) << "channel numbers 10..13 in";
    struct {
        const char* what;
        UINT32 rate, in, out, incr, code;
    } bad[] = {
        {"ingress numbers overlap", KAVO_FABRIC_INGRESS_RATE_10G, 13, 20, 0, ILKN_ERR_INUSE_PKT_BCW_CHNL_ID},
        {"ingress range reaches", KAVO_FABRIC_INGRESS_RATE_10G, 8, 20, 2, ILKN_ERR_INUSE_PKT_BCW_CHNL_ID},
        {"egress number taken", KAVO_FABRIC_INGRESS_RATE_10G, 20, 10, 0, ILKN_ERR_INUSE_PKT_BCW_CHNL_ID},
        {"egress unset", KAVO_FABRIC_INGRESS_RATE_10G, 20, 0xFFFFFFFF, 0, ILKN_ERR_EGRESS_BCW_CHNL_ID_UNSET},
        {"ingress unset", KAVO_FABRIC_INGRESS_RATE_10G, 0xFFFFFFFF, 20, 0, ILKN_ERR_INVALID_PKT_BCW_CHNL_ID},
        {"past 255", KAVO_FABRIC_INGRESS_RATE_10G, 250, 20, 6, ILKN_ERR_INVALID_PKT_BCW_CHNL_ID},
        {"increment 16", KAVO_FABRIC_INGRESS_RATE_10G, 20, 20, 16, SEGMENT_BASE_ERR_INVALID_CLIENT_NUM_INCR},
        {"rate", LAST_KAVO_FABRIC_INGRESS_RATE, 20, 20, 0, ILKN_ERR_INVALID_INGRESS_ARG},
        {"over the lanes' 405G", KAVO_FABRIC_INGRESS_RATE_400G, 20, 20, 0, ILKN_ERR_BANDWIDTH_EXCEEDED_SERDES_RATE},
    };
    for (auto& b : bad)
        EXPECT_EQ(pkt_prov(1, b.rate, b.in, b.out, b.incr), b.code) << b.what;
    EXPECT_EQ(pkt_prov(0, KAVO_FABRIC_INGRESS_RATE_10G, 30, 30), UINT32(SEGMENT_BASE_ERR_EXISTING_CHNL_ID));
    for (UINT32 k = 1; k < KAVO_ILKN_MAX_CHNLS; ++k)
        ASSERT_EQ(pkt_prov(k, KAVO_FABRIC_INGRESS_RATE_25G, 20 + k, 20 + k), VELT_SUCCESS) << k;
    EXPECT_EQ(pkt_prov(9, KAVO_FABRIC_INGRESS_RATE_10G, 40, 40), UINT32(SEGMENT_BASE_ILKN_TOTAL_ILKN_CHNLS));
}

TEST_F(SimIlkn, CalendarsUpToTheConfiguredLength)
{
    kavo_config_t c = ilkn_config();
    c.ilkn_intf.fc_cal_length = 64;
    ASSERT_EQ(config(c), VELT_SUCCESS);
    EXPECT_EQ(fc(1, 64), VELT_SUCCESS);
    EXPECT_EQ(fc(0, 65), UINT32(ILKN_ERR_INVALID_ILKN_FC_CAL_LEN));
    EXPECT_EQ(fc(0, 0), UINT32(ILKN_ERR_INVALID_ILKN_FC_CAL_LEN));
    EXPECT_EQ(fc(0, 10, 256), UINT32(SEGMENT_BASE_ERR_INVALID_ILKN_CAL_FC));
    EXPECT_EQ(fc(0, 10, 0xFFFFFFFF), VELT_SUCCESS) << "idle entries";
    EXPECT_EQ(fc(2, 10), UINT32(ILKN_ERR_INVALID_ILKN_FC_DIRECTION));
    kavo_ilkn_intf_status_t s = status();
    EXPECT_EQ(s.tx_fc_cal_len, 64u);
    EXPECT_EQ(s.rx_fc_cal_len, 10u);

    c.ilkn_intf.disable_prog_fc_cal = 1;
    ASSERT_EQ(config(c), VELT_SUCCESS);
    EXPECT_EQ(fc(1, 10), UINT32(ILKN_LOG_ERR_ILKN_INTF_DISABLE_PROG_FC_CAL));
    c.ilkn_intf.fc_enable = 0;
    ASSERT_EQ(config(c), VELT_SUCCESS);
    EXPECT_EQ(fc(1, 10), UINT32(ILKN_ERR_ILKN_INTF_FC_DISABLE));
}

// ---- PTP ------------------------------------------------------------------------------------

using SimPtp = SimIlkn;

kavo_ptp_tod_t tod_of(UINT64 sec, UINT32 nsec)
{
    kavo_ptp_tod_t t;
    t.sec_hi = UINT32(sec >> 32), t.sec_lo = UINT32(sec), t.nsec = nsec;
    return t;
}

TEST_F(SimPtp, TheClockWrapsItsSecondsAndRefusesBadTimes)
{
    auto get = [&] {
        auto r = bus.exchange(KAVO_HTL_OPERATION_PTP_TOD_GET);
        kavo_ptp_tod_t t;
        EXPECT_EQ(r.data.size(), sizeof(t));
        std::memcpy(static_cast<void*>(&t), r.data.data(), sizeof(t));
        return ((UINT64(t.sec_hi) << 32 | t.sec_lo) * 1000000000 + t.nsec);
    };
    const kavo_ptp_tod_t t0 = tod_of(0xFFFFFFFFFFFFull, 999999000); // a microsecond before the seconds wrap
    ASSERT_EQ(op(KAVO_HTL_OPERATION_PTP_TOD_SET, {}, &t0, sizeof(t0)), VELT_SUCCESS);
    kavo_sim::chip_get(2)->advance_time(2);
    const UINT64 wrapped = get();
    EXPECT_GE(wrapped, 1000u) << "48-bit seconds wrap to 0";
    EXPECT_LT(wrapped, 1000000u);

    kavo_sim::chip_get(2)->advance_time(2500000);
    EXPECT_GE(get() - wrapped, 2500000000u) << "and runs on";
    for (const kavo_ptp_tod_t& bad : {tod_of(1, 1000000000), tod_of(0x1000000000000ull, 0)})
        EXPECT_EQ(op(KAVO_HTL_OPERATION_PTP_TOD_SET, {}, &bad, sizeof(bad)), UINT32(ENET_PTP_RX_TX_MACRO_ERR_INVALID_PARAMETERS));
}

TEST_F(SimPtp, OnePpsAndChannelChecks)
{
    EXPECT_EQ(op(KAVO_HTL_OPERATION_PTP_ONE_PPS_TOD_SRC_SET, info(0xFFFFFFFF, LAST_KAVO_PTP_ONE_PPS_TOD_SRC)),
              UINT32(ENET_PTP_RX_TX_MACRO_ERR_INVALID_PARAMETERS));
    EXPECT_EQ(op(KAVO_HTL_OPERATION_PTP_ONE_PPS_I_DELAY_SET, info(0xFFFFFFFF, 1000000000)),
              UINT32(ENET_PTP_RX_TX_MACRO_ERR_INVALID_PARAMETERS));

    kavo_ptp_chnl_config_t cc;
    kavo_ptp_config_t pc;
    EXPECT_EQ(op(KAVO_HTL_OPERATION_PTP_CHNL_CONFIG, info(0), &cc, sizeof(cc)), UINT32(KAVO_ERR_FW_NOT_CONFIGURED));
    kavo_config_t c = ilkn_config();
    c.ptp_enable[0] = 0;
    ASSERT_EQ(config(c), VELT_SUCCESS);
    EXPECT_EQ(op(KAVO_HTL_OPERATION_PTP_CONFIG, {}, &pc, sizeof(pc)), UINT32(ENET_PTP_RX_TX_MACRO_ERR_NOT_ENABLED));
    ASSERT_EQ(config(ilkn_config()), VELT_SUCCESS);
    EXPECT_EQ(op(KAVO_HTL_OPERATION_PTP_CONFIG, {}, &pc, sizeof(pc)), VELT_SUCCESS);
    pc.da_sa_match_mode = LAST_KAVO_PTP_DA_SA_MATCH_MODE;
    EXPECT_EQ(op(KAVO_HTL_OPERATION_PTP_CONFIG, {}, &pc, sizeof(pc)), UINT32(ENET_PTP_RX_TX_MACRO_ERR_INVALID_PARAMETERS));
    ASSERT_EQ(pkt_prov(3, KAVO_FABRIC_INGRESS_RATE_10G, 1, 1), VELT_SUCCESS);
    for (UINT32 chnl : {3u, 4u, 48u}) {
        EXPECT_EQ(op(KAVO_HTL_OPERATION_PTP_CHNL_CONFIG, info(chnl), &cc, sizeof(cc)), UINT32(ENET_PTP_RX_TX_MACRO_ERR_ILLEGAL_CHNL_ID))
            << "no Ethernet port on channel " << chnl;
        EXPECT_EQ(op(KAVO_HTL_OPERATION_PTP_LATENCY_GET, info(chnl, 0xFFFFFFFF, chnl)), UINT32(ENET_PTP_RX_TX_MACRO_ERR_ILLEGAL_CHNL_ID));
    }
}

} // namespace
