// FlexE, the FlexE overhead processor, Interlaken and PTP through the public
// API on the virtual device: provisioning to slot maps and a timed calendar
// switch, debug frames round-tripped, the two requests of the flow-control
// calendars, and the time of day.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdio>
#include <fstream>
#include <vector>

#include "kavo_test_device.h"
#include "kavo_test_log.h"

using kavo_test::device_test;
using kavo_test::has;
using kavo_test::requests_of;

namespace {

UINT64 bus_transactions()
{
    const kavo_sim::journal_counters c = kavo_sim::chip_get(0)->counters();
    return c.reads + c.writes + c.burst_reads + c.burst_writes;
}

class flexe_test : public device_test {
  protected:
    void SetUp() override
    {
        device_test::SetUp();
        ASSERT_EQ(bring_up(0), VELT_SUCCESS);
    }
    VELT_ERROR configure(kavo_config_t c = {})
    {
        c.device_mode = KAVO_DEVICE_MODE_1200G_ENET;
        return kavo_device_config(0, &c);
    }
};

kavo_flexe_client_t client(UINT32 number, UINT32 w0, UINT32 w1)
{
    kavo_flexe_client_t c;
    for (kavo_flexe_client_data_t* d : {&c.tx_client_data, &c.rx_client_data}) {
        d->flexe_client_number = number;
        d->flexe_client_slots[0] = w0;
        d->flexe_client_slots[1] = w1;
    }
    return c;
}

UINT32 slots_of(const kavo_flexe_group_status_t& s, UINT32 calendar, UINT32 chnl)
{
    UINT32 n = 0;
    for (UINT8 c : s.tx_slot_client[calendar])
        n += c == chnl;
    return n;
}

TEST_F(flexe_test, TwoPhyGroupCarriesA25GAndA50GClientAndSwitchesCalendarsOnTime)
{
    ASSERT_EQ(configure(), VELT_SUCCESS);
    kavo_flexe_group_cfg_t g;
    g.group_info.flexe_group_number_tx = g.group_info.flexe_group_number_rx = 0x1234;
    g.num_phys = 2;
    for (UINT32 i = 0; i < 2; ++i) {
        g.phys[i].phy_id = i;
        g.phys[i].serdes_port_id = 4 + 2 * i; // 100G over two PAM4 lanes: ports 4-5 and 6-7
        g.phys[i].phy_data_tx.flexe_phy_number = g.phys[i].phy_data_rx.flexe_phy_number = i + 1;
    }
    ASSERT_EQ(kavo_flexe_group_prov(0, 10, &g), VELT_SUCCESS);
    kavo_flexe_group_cfg_t back;
    ASSERT_EQ(kavo_flexe_group_config_get(0, 10, &back), VELT_SUCCESS);
    EXPECT_EQ(std::memcmp(&back, &g, sizeof(g)), 0) << "read back as provisioned";

    kavo_flexe_client_t c25 = client(1, 0x1F, 0), c50 = client(2, 0xFFC00, 0);
    ASSERT_EQ(kavo_flexe_client_prov(0, 20, 10, &c25), VELT_SUCCESS);
    ASSERT_EQ(kavo_flexe_client_prov(0, 21, 10, &c50), VELT_SUCCESS);
    kavo_flexe_client_t big = client(3, 0x3F0, 0xFFFFF); // 130G from slot 4 on
    EXPECT_EQ(kavo_flexe_client_prov(0, 22, 10, &big), SEGMENT_BASE_ENET_FLEXE_TX_CLIENT_SLOTS_PREVIOUSLY_ALLOCATED)
        << "slot 4 is the 25G client's";
    kavo_flexe_group_status_t s;
    UINT64 before = bus_transactions();
    ASSERT_EQ(kavo_flexe_group_status_get(0, 10, &s), VELT_SUCCESS);
    EXPECT_EQ(bus_transactions() - before, kavo_test::BUS_PER_COMMAND_WITH_PAYLOAD);
    EXPECT_TRUE(s.group_aligned);
    EXPECT_EQ(s.num_slots, 40u);
    EXPECT_EQ(slots_of(s, KAVO_FLEXE_CALENDAR_MODE_B, 20), 5u) << "25G in 5G slots";
    EXPECT_EQ(slots_of(s, KAVO_FLEXE_CALENDAR_MODE_B, 21), 10u) << "50G in 5G slots";
    EXPECT_EQ(slots_of(s, KAVO_FLEXE_CALENDAR_MODE_A, 20), 0u) << "not carried before the switch";

    before = bus_transactions();
    ASSERT_EQ(kavo_flexe_calendar_update(0, 10, KAVO_FLEXE_CALENDAR_UPDATE_MODE_TX_RX, 50), VELT_SUCCESS);
    EXPECT_EQ(bus_transactions() - before, kavo_test::BUS_PER_COMMAND);
    kavo_sim::chip_get(0)->advance_time(40000);
    ASSERT_EQ(kavo_flexe_group_status_get(0, 10, &s), VELT_SUCCESS);
    EXPECT_EQ(s.tx_calendar_in_use, KAVO_FLEXE_CALENDAR_MODE_A);
    EXPECT_TRUE(s.switch_pending);
    kavo_sim::chip_get(0)->advance_time(10000);
    ASSERT_EQ(kavo_flexe_group_status_get(0, 10, &s), VELT_SUCCESS);
    EXPECT_EQ(s.tx_calendar_in_use, KAVO_FLEXE_CALENDAR_MODE_B);
    EXPECT_EQ(s.rx_calendar_in_use, KAVO_FLEXE_CALENDAR_MODE_B);

    // A PHY without a partner is not aligned, nor is the group.
    kavo_sim::chip_get(0)->knob_set(SIM_KNOB_LINK_PARTNER, 7, 0);
    ASSERT_EQ(kavo_flexe_group_status_get(0, 10, &s), VELT_SUCCESS);
    EXPECT_TRUE(s.phy_status[0].aligned);
    EXPECT_FALSE(s.phy_status[1].signal_present);
    EXPECT_FALSE(s.group_aligned);

    kavo_chnl_info_t chnls;
    ASSERT_EQ(kavo_device_chnl_get(0, &chnls), VELT_SUCCESS);
    EXPECT_EQ(chnls.info[10], KAVO_SEGMENT_TYPE_FLEXE_GROUP);
    EXPECT_EQ(chnls.info[21], KAVO_SEGMENT_TYPE_FLEXE_CLIENT);
}

TEST_F(flexe_test, DebugFramesRoundTripThroughTheOverheadLoopback)
{
    ASSERT_EQ(configure(), VELT_SUCCESS);
    ASSERT_EQ(kavo_flexe_ohp_prov(0, KAVO_FLEXE_OHP_INTERFACE_MODE_1000BASE_X), VELT_SUCCESS);
    ASSERT_EQ(kavo_flexe_ohp_dbg_chnl_prov(0, 42, 1), VELT_SUCCESS);
    ASSERT_EQ(kavo_flexe_ohp_loopback_set(0, KAVO_FLEXE_OHP_LOOPBACK_OH), VELT_SUCCESS);
    std::vector<UINT32> frame(16), got(32, 0);
    for (UINT32 i = 0; i < frame.size(); ++i)
        frame[i] = 0x01020304u * (i + 1);
    ASSERT_EQ(kavo_flexe_ohp_dbg_chnl_write(0, 64, frame.data()), VELT_SUCCESS);
    ASSERT_EQ(kavo_flexe_ohp_dbg_chnl_write(0, 60, frame.data()), VELT_SUCCESS);
    UINT32 len = 0;
    ASSERT_EQ(kavo_flexe_ohp_dbg_chnl_read(0, 128, &len, got.data()), VELT_SUCCESS);
    EXPECT_EQ(len, 64u);
    EXPECT_EQ(std::memcmp(got.data(), frame.data(), 64), 0);
    len = 99;
    EXPECT_EQ(kavo_flexe_ohp_dbg_chnl_read(0, 56, &len, got.data()), ENET_FLEXE_OH_PARSER_MACRO_ERR_INVALID_ARG);
    EXPECT_EQ(len, 99u) << "a refused read leaves the length";
    ASSERT_EQ(kavo_flexe_ohp_dbg_chnl_read(0, 60, &len, got.data()), VELT_SUCCESS);
    EXPECT_EQ(len, 60u) << "the frame kept by the refused read";
    ASSERT_EQ(kavo_flexe_ohp_dbg_chnl_read(0, 60, &len, got.data()), VELT_SUCCESS);
    EXPECT_EQ(len, 0u) << "nothing more waiting";

}

class ilkn_test : public flexe_test {
  protected:
    void SetUp() override
    {
        flexe_test::SetUp();
        kavo_config_t c;
        for (UINT32 n = 0; n < 4; ++n)
            c.ilkn_lane.serdes_port_ids_tx[n] = c.ilkn_lane.serdes_port_ids_rx[n] = 12 + n;
        c.ilkn_intf.fc_enable = 1;
        c.ilkn_intf.fc_cal_length = KAVO_ILKN_MAX_FC_CAL_ENTRIES;
        ASSERT_EQ(configure(c), VELT_SUCCESS);
        for (UINT32& e : tx.entry)
            e = 1;
        for (UINT32& e : rx.entry)
            e = 2;
    }
    UINT32 fc_requests() { return requests_of(0, KAVO_HTL_OPERATION_ILKN_FC_CFG); }
    kavo_ilkn_fc_cal_t tx, rx;
};

TEST_F(ilkn_test, CalendarsAtAndPastTheirLimitAndTheTransmitFailureSkipsTheReceive)
{
    kavo_function_logging_set(1);
    kavo_test::take();
    ASSERT_EQ(kavo_ilkn_fc_set(0, &tx, &rx, 300, 300), VELT_SUCCESS);
    EXPECT_EQ(fc_requests(), 2u);
    const std::string trace = kavo_test::take();
    EXPECT_TRUE(has(trace, "Function=kavo_ilkn_fc_set(0x0,tx_fc_cal:\n    entry:\n"));
    EXPECT_TRUE(has(trace, "Function=kavo_ilkn_fc_set(0x0,rx_fc_cal:\n"));
    EXPECT_TRUE(has(trace, "    - 2    #entry[299]\n, 300)\n"));
    kavo_function_logging_set(0);
    kavo_ilkn_intf_status_t st;
    ASSERT_EQ(kavo_ilkn_intf_status_get(0, &st), VELT_SUCCESS);
    EXPECT_EQ(st.tx_fc_cal_len, 300u);
    EXPECT_EQ(st.rx_fc_cal_len, 300u);

    EXPECT_EQ(kavo_ilkn_fc_set(0, &tx, &rx, 301, 10), ILKN_ERR_INVALID_ILKN_FC_CAL_LEN);
    EXPECT_EQ(fc_requests(), 2u) << "a calendar longer than its record is not sent, nor the receive one";
    tx.entry[5] = 256;
    EXPECT_EQ(kavo_ilkn_fc_set(0, &tx, &rx, 10, 10), SEGMENT_BASE_ERR_INVALID_ILKN_CAL_FC);
    EXPECT_EQ(fc_requests(), 3u) << "the refused transmit calendar skips the receive one";
    ASSERT_EQ(kavo_ilkn_intf_status_get(0, &st), VELT_SUCCESS);
    EXPECT_EQ(st.rx_fc_cal_len, 300u);
    EXPECT_EQ(kavo_ilkn_fc_set(0, nullptr, &rx, 0, 20), VELT_SUCCESS);
    EXPECT_EQ(fc_requests(), 4u) << "receive only";
    ASSERT_EQ(kavo_ilkn_intf_status_get(0, &st), VELT_SUCCESS);
    EXPECT_EQ(st.rx_fc_cal_len, 20u);
    EXPECT_EQ(st.tx_fc_cal_len, 300u);
}

TEST_F(ilkn_test, LanesComeUpOnThePartnersSignalAndLoopbacksAreReported)
{
    ASSERT_EQ(kavo_ilkn_loopback_set(0, KAVO_ILKN_LOOPBACK_FABRIC, 1), VELT_SUCCESS);
    kavo_ilkn_loopback_t lb = KAVO_ILKN_LOOPBACK_NONE;
    ASSERT_EQ(kavo_ilkn_loopback_get(0, &lb), VELT_SUCCESS);
    EXPECT_EQ(lb, KAVO_ILKN_LOOPBACK_FABRIC);
    kavo_sim::chip_get(0)->advance_time(100);
    kavo_ilkn_intf_status_t st;
    ASSERT_EQ(kavo_ilkn_intf_status_get(0, &st), VELT_SUCCESS);
    EXPECT_TRUE(st.intf_up) << "the partner's signal on every lane";
    EXPECT_EQ(st.word_lock, 0xFu);
    kavo_sim::chip_get(0)->knob_set(SIM_KNOB_LINK_PARTNER, 13, 0);
    ASSERT_EQ(kavo_ilkn_intf_status_get(0, &st), VELT_SUCCESS);
    EXPECT_FALSE(st.intf_up);
    EXPECT_EQ(st.word_lock, 0xDu) << "lane 1 is on port 13";
}

TEST_F(flexe_test, TimeOfDayRunsOnMonotonicallyFromTheValueSet)
{
    kavo_ptp_tod_t t;
    t.sec_lo = 1700000000;
    t.nsec = 999000000;
    ASSERT_EQ(kavo_ptp_tod_set(0, &t), VELT_SUCCESS);
    UINT64 last = 1700000000ull * 1000000000 + 999000000;
    for (int i = 0; i < 5; ++i) {
        kavo_sim::chip_get(0)->advance_time(300000);
        kavo_ptp_tod_t now;
        ASSERT_EQ(kavo_ptp_tod_get(0, &now), VELT_SUCCESS);
        ASSERT_LT(now.nsec, 1000000000u);
        const UINT64 ns = ((UINT64(now.sec_hi) << 32 | now.sec_lo) * 1000000000) + now.nsec;
        EXPECT_GE(ns, last + 300000000) << i;
        last = ns;
    }
    EXPECT_EQ(last / 1000000000, 1700000002u) << "1.5 s on from .999";

    ASSERT_EQ(kavo_ptp_one_pps_tod_src_set(0, KAVO_PTP_ONE_PPS_TOD_SRC_EXTERNAL_1PPS_TOD, 1), VELT_SUCCESS);
    kavo_ptp_one_pps_tod_src_t src = KAVO_PTP_ONE_PPS_TOD_SRC_INTERNAL;
    BOOL32 loop = 0;
    ASSERT_EQ(kavo_ptp_one_pps_tod_src_get(0, &src, &loop), VELT_SUCCESS);
    EXPECT_EQ(src, KAVO_PTP_ONE_PPS_TOD_SRC_EXTERNAL_1PPS_TOD);
    EXPECT_EQ(loop, 1u);
    ASSERT_EQ(kavo_ptp_one_pps_i_delay_set(0, 250), VELT_SUCCESS);
    UINT32 delay = 0;
    ASSERT_EQ(kavo_ptp_one_pps_i_delay_get(0, &delay), VELT_SUCCESS);
    EXPECT_EQ(delay, 250u);
}

/* kavoctl's exit status and standard output for the given arguments. */
std::pair<int, std::string> kavoctl(const std::string& args)
{
    const kavo_test::kavoctl_run r = kavo_test::run_kavoctl(args, false);
    return {r.status, r.output};
}

TEST(kavoctl_flexe, ViewsShowSlotMapsAndTheTimeOfDay)
{
    const std::string script = ::testing::TempDir() + "kavoctl_flexe.txt";
    std::ofstream(script) << "config set 1200G_ENET\n"
                             "call kavo_flexe_group_prov group_chnl_id=10 group_cfg.group_info.flexe_group_number_tx=7 "
                             "group_cfg.group_info.flexe_group_number_rx=7 group_cfg.num_phys=1 group_cfg.phys[0].phy_id=0 "
                             "group_cfg.phys[0].serdes_port_id=0 group_cfg.phys[0].phy_data_tx.flexe_phy_number=1 "
                             "group_cfg.phys[0].phy_data_rx.flexe_phy_number=1\n"
                             "call kavo_flexe_client_prov client_chnl_id=20 group_chnl_id=10 "
                             "client_data.tx_client_data.flexe_client_number=1 client_data.rx_client_data.flexe_client_number=1 "
                             "client_data.tx_client_data.flexe_client_slots[0]=0x1F client_data.rx_client_data.flexe_client_slots[0]=0x1F\n"
                             "flexe show\nptp tod set 12.5\n";
    auto r = kavoctl("run " + script);
    EXPECT_EQ(r.first, 0) << r.second;
    EXPECT_TRUE(has(r.second, "  tx calendar B\n    0: 20 20 20 20 20  .  .")) << r.second;
    EXPECT_TRUE(has(r.second, "  client 20: 5 slots, 25G (after the switch)\n")) << r.second;
    EXPECT_TRUE(has(r.second, "\n12.500")) << r.second;
    r = kavoctl("--json run " + script);
    EXPECT_TRUE(has(r.second, "\"clients\":{\"20\":{\"gbps\":25,\"slots\":5}}")) << r.second;
    EXPECT_TRUE(has(r.second, "\"seconds\":12")) << r.second;
    EXPECT_EQ(kavoctl("ptp tod set 1.2.3").first, 2);
}

} // namespace
