// Ethernet ports and the datapath end to end on the virtual device, through
// the public API: provisioning and its refusals, cross-connects, loopback,
// link training and loss, AN/LT, and the run-time settings read back.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>

#include "kavo_test_device.h"
#include "kavo_test_log.h"

using kavo_test::device_test;
using kavo_test::take;

namespace {

constexpr UINT32 NONE = 0xFFFFFFFF;
constexpr UINT32 TRAINING_MS = 1000; // long enough that the host's own time never completes a training

kavo_sim::chip* chip() { return kavo_sim::chip_get(0); }
void wait_ms(UINT32 ms) { chip()->advance_time(UINT64(ms) * 1000); }

class datapath_test : public device_test {
  protected:
    void SetUp() override
    {
        device_test::SetUp();
        ASSERT_EQ(bring_up(0), VELT_SUCCESS) << take();
        ASSERT_EQ(chip()->knob_set(SIM_KNOB_LINK_TRAINING_MS, 0, TRAINING_MS), VELT_SUCCESS);
        config.device_mode = KAVO_DEVICE_MODE_1200G_ENET;
    }
    VELT_ERROR configure() { return kavo_device_config(0, &config); }
    static VELT_ERROR prov(UINT32 ch, UINT32 lane, kavo_enet_port_mode_t mode, kavo_serdes_pin_mode_t pin,
                           kavo_enet_fec_mode_t fec, kavo_enet_prov_mode_t pm = KAVO_ENET_PROV_MODE_MAC,
                           UINT32 phy = NONE)
    {
        return kavo_enet_prov(0, ch, phy, lane, pin, mode, pm, fec);
    }
    static VELT_ERROR prov_100g(UINT32 ch, UINT32 lane, kavo_enet_prov_mode_t pm = KAVO_ENET_PROV_MODE_MAC)
    {
        return prov(ch, lane, KAVO_ENET_PORT_MODE_100GE_4X25G, KAVO_SERDES_PIN_MODE_25G_NRZ,
                    KAVO_ENET_FEC_MODE_RS_528, pm);
    }
    static VELT_ERROR prov_400g(UINT32 ch, UINT32 lane, kavo_enet_prov_mode_t pm = KAVO_ENET_PROV_MODE_MAC)
    {
        return prov(ch, lane, KAVO_ENET_PORT_MODE_400GE_8X50G, KAVO_SERDES_PIN_MODE_50G_PAM4,
                    KAVO_ENET_FEC_MODE_RS_544, pm);
    }
    static kavo_enet_status_t status(UINT32 ch)
    {
        kavo_enet_status_t s;
        EXPECT_EQ(kavo_enet_status_get(0, ch, &s), VELT_SUCCESS);
        return s;
    }
    static std::pair<BOOL32, BOOL32> connections(UINT32 ch)
    {
        BOOL32 rx = 9, tx = 9;
        EXPECT_EQ(kavo_connect_get(0, ch, &rx, &tx), VELT_SUCCESS);
        return {rx, tx};
    }
    static kavo_enet_cfg_get_t cfg(UINT32 ch)
    {
        kavo_enet_cfg_get_t c;
        EXPECT_EQ(kavo_enet_cfg_get(0, ch, &c), VELT_SUCCESS);
        return c;
    }
    static UINT32 defects(UINT32 ch)
    {
        kavo_enet_alarm_cfg_get_t a;
        EXPECT_EQ(kavo_rs_alarm_cfg_get(0, ch, &a), VELT_SUCCESS);
        return a.active_defects;
    }
    kavo_config_t config;
};

using P = kavo_enet_port_mode_t;
using S = kavo_serdes_pin_mode_t;
using F = kavo_enet_fec_mode_t;

} // namespace

TEST_F(datapath_test, PortsOf100GAnd400GConnectBothWaysTrainAndDeprovision)
{
    EXPECT_EQ(prov_100g(0, 0), UINT32(KAVO_ERR_FW_NOT_CONFIGURED)) << "nothing before the device configuration";
    ASSERT_EQ(configure(), VELT_SUCCESS);
    ASSERT_EQ(prov_100g(0, 0), VELT_SUCCESS);
    ASSERT_EQ(prov_400g(1, 8), VELT_SUCCESS);
    kavo_chnl_info_t info;
    ASSERT_EQ(kavo_device_chnl_get(0, &info), VELT_SUCCESS);
    EXPECT_EQ(info.info[1], KAVO_SEGMENT_TYPE_ENET_PORT);

    const kavo_enet_cfg_get_t c = cfg(1);
    EXPECT_EQ(c.mode, KAVO_ENET_PORT_MODE_400GE_8X50G);
    EXPECT_EQ(c.fec_mode, KAVO_ENET_FEC_MODE_RS_544);
    EXPECT_EQ(c.num_serdes_lanes, 8u);
    EXPECT_EQ(c.serdes_lanes[0], 8u);
    EXPECT_EQ(c.serdes_lanes[7], 15u);
    EXPECT_EQ(c.mru, 1518u);

    ASSERT_EQ(kavo_connect(0, 0, 1), VELT_SUCCESS);
    EXPECT_EQ(connections(0), std::make_pair(BOOL32(1), BOOL32(0)));
    EXPECT_EQ(connections(1), std::make_pair(BOOL32(0), BOOL32(1)));
    ASSERT_EQ(kavo_bidirectional_connect(0, 0), VELT_SUCCESS);
    EXPECT_EQ(connections(0), std::make_pair(BOOL32(1), BOOL32(1)));

    // The partner is there from the start: the link comes up after the training time.
    kavo_enet_status_t s = status(1);
    EXPECT_FALSE(s.link_up);
    EXPECT_TRUE(s.training);
    EXPECT_EQ(s.signal_mask, 0xFFu);
    wait_ms(TRAINING_MS / 2);
    EXPECT_FALSE(status(1).link_up);
    wait_ms(TRAINING_MS);
    s = status(1);
    EXPECT_TRUE(s.link_up && s.pcs_block_lock && s.pcs_align_lock && s.fec_align_lock);
    EXPECT_FALSE(s.local_fault || s.los || s.training);
    EXPECT_EQ(defects(1), 0u);

    EXPECT_EQ(kavo_deprov(0, 1, KAVO_DEPROV_SAFE), UINT32(SEGMENT_BASE_ERR_CLEANABLE_APPLICATION_BLOCKING));
    ASSERT_EQ(kavo_deprov(0, 1, KAVO_DEPROV_FORCE), VELT_SUCCESS);
    EXPECT_EQ(connections(0), std::make_pair(BOOL32(0), BOOL32(0))) << "forced deprovisioning disconnects";
    EXPECT_EQ(kavo_deprov(0, 1, KAVO_DEPROV_SAFE), UINT32(SEGMENT_BASE_ERR_NO_SEGMENT_FOR_CHNL_ID));
    EXPECT_EQ(prov_400g(2, 8), VELT_SUCCESS) << "its lanes are free again";
    EXPECT_EQ(prov_400g(1, 16), VELT_SUCCESS) << "and so is the channel";
}

TEST_F(datapath_test, ProvisioningAcceptsTheIeeeCombinationsAndRefusesTheRest)
{
    ASSERT_EQ(configure(), VELT_SUCCESS);
    const auto AR = KAVO_ENET_PROV_MODE_ANALOG_RETIMER, MAC = KAVO_ENET_PROV_MODE_MAC;
    const auto FP = KAVO_ENET_PROV_MODE_FLEXE_PHY;
    struct {
        P mode;
        S pin;
        F fec;
        kavo_enet_prov_mode_t pm;
        UINT32 lane, phy;
        UINT32 code;
    } cases[] = {
        {KAVO_ENET_PORT_MODE_1GE, KAVO_SERDES_PIN_MODE_10G_NRZ, KAVO_ENET_FEC_MODE_NONE, AR, 0, NONE, 0},
        {KAVO_ENET_PORT_MODE_10GE, KAVO_SERDES_PIN_MODE_10G_NRZ, KAVO_ENET_FEC_MODE_BASE_R, MAC, 0, NONE, 0},
        {KAVO_ENET_PORT_MODE_25GE, KAVO_SERDES_PIN_MODE_25G_NRZ, KAVO_ENET_FEC_MODE_RS_528, MAC, 0, NONE, 0},
        {KAVO_ENET_PORT_MODE_40GE_4X10G, KAVO_SERDES_PIN_MODE_10G_NRZ, KAVO_ENET_FEC_MODE_NONE, MAC, 4, NONE, 0},
        {KAVO_ENET_PORT_MODE_50GE_2X25G, KAVO_SERDES_PIN_MODE_25G_NRZ, KAVO_ENET_FEC_MODE_BASE_R, MAC, 2, NONE, 0},
        {KAVO_ENET_PORT_MODE_50GE_1X50G, KAVO_SERDES_PIN_MODE_50G_PAM4, KAVO_ENET_FEC_MODE_RS_544, MAC, 0, NONE, 0},
        {KAVO_ENET_PORT_MODE_100GE_4X25G, KAVO_SERDES_PIN_MODE_25G_NRZ, KAVO_ENET_FEC_MODE_NONE, MAC, 0, NONE, 0},
        {KAVO_ENET_PORT_MODE_100GE_2X50G, KAVO_SERDES_PIN_MODE_50G_PAM4, KAVO_ENET_FEC_MODE_RS_544, FP, 2, 7, 0},
        {KAVO_ENET_PORT_MODE_100GE_1X100G, KAVO_SERDES_PIN_MODE_100G_PAM4, KAVO_ENET_FEC_MODE_RS_544, MAC, 1, NONE, 0},
        {KAVO_ENET_PORT_MODE_200GE_4X50G, KAVO_SERDES_PIN_MODE_50G_PAM4, KAVO_ENET_FEC_MODE_RS_544, MAC, 4, NONE, 0},
        {KAVO_ENET_PORT_MODE_200GE_2X100G, KAVO_SERDES_PIN_MODE_100G_PAM4, KAVO_ENET_FEC_MODE_RS_544, MAC, 6, NONE, 0},
        {KAVO_ENET_PORT_MODE_400GE_8X50G, KAVO_SERDES_PIN_MODE_50G_PAM4, KAVO_ENET_FEC_MODE_RS_544, MAC, 4, NONE, 0},
        {KAVO_ENET_PORT_MODE_400GE_4X100G, KAVO_SERDES_PIN_MODE_100G_PAM4, KAVO_ENET_FEC_MODE_RS_544, MAC, 0, NONE, 0},
        {P(7), KAVO_SERDES_PIN_MODE_25G_NRZ, KAVO_ENET_FEC_MODE_NONE, MAC, 0, NONE, SEGMENT_BASE_ERR_INVALID_ENET_PORT_MODE},
        {KAVO_ENET_PORT_MODE_25GE, KAVO_SERDES_PIN_MODE_25G_NRZ, KAVO_ENET_FEC_MODE_NONE, kavo_enet_prov_mode_t(5), 0,
         NONE, SEGMENT_BASE_ERR_INVALID_APPLICATION_MODE},
        {KAVO_ENET_PORT_MODE_100GE_4X25G, KAVO_SERDES_PIN_MODE_50G_PAM4, KAVO_ENET_FEC_MODE_RS_528, MAC, 0, NONE,
         SEGMENT_BASE_ERR_INVALID_SERDES_PIN_MODE},
        {KAVO_ENET_PORT_MODE_100GE_2X50G, KAVO_SERDES_PIN_MODE_50G_PAM4, KAVO_ENET_FEC_MODE_NONE, MAC, 0, NONE,
         SEGMENT_BASE_ENET_FEC_MODE_INVALID},
        {KAVO_ENET_PORT_MODE_100GE_2X50G, KAVO_SERDES_PIN_MODE_50G_PAM4, KAVO_ENET_FEC_MODE_RS_528, MAC, 0, NONE,
         SEGMENT_BASE_ENET_FEC_MODE_INVALID},
        {KAVO_ENET_PORT_MODE_100GE_4X25G, KAVO_SERDES_PIN_MODE_25G_NRZ, KAVO_ENET_FEC_MODE_BASE_R, MAC, 0, NONE,
         SEGMENT_BASE_ENET_FEC_MODE_INVALID},
        {KAVO_ENET_PORT_MODE_10GE, KAVO_SERDES_PIN_MODE_10G_NRZ, KAVO_ENET_FEC_MODE_RS_528, MAC, 0, NONE,
         SEGMENT_BASE_ENET_FEC_MODE_INVALID},
        {KAVO_ENET_PORT_MODE_1GE, KAVO_SERDES_PIN_MODE_10G_NRZ, KAVO_ENET_FEC_MODE_NONE, MAC, 0, NONE,
         ANLT_ERR_1G_ONLY_IN_ANALOG_RETIMER_MODE},
        {KAVO_ENET_PORT_MODE_25GE, KAVO_SERDES_PIN_MODE_25G_NRZ, KAVO_ENET_FEC_MODE_NONE, MAC, 0, 5,
         SEGMENT_BASE_ERR_INVALID_ENET_PHY_ID},
        {KAVO_ENET_PORT_MODE_25GE, KAVO_SERDES_PIN_MODE_25G_NRZ, KAVO_ENET_FEC_MODE_NONE, FP, 0, 255,
         SEGMENT_BASE_ERR_INVALID_ENET_PHY_ID},
        {KAVO_ENET_PORT_MODE_100GE_4X25G, KAVO_SERDES_PIN_MODE_25G_NRZ, KAVO_ENET_FEC_MODE_NONE, MAC, 46, NONE,
         SEGMENT_BASE_ERR_ILLEGAL_SERDES_PORT_ID},
        {KAVO_ENET_PORT_MODE_100GE_4X25G, KAVO_SERDES_PIN_MODE_25G_NRZ, KAVO_ENET_FEC_MODE_NONE, MAC, 2, NONE,
         SEGMENT_BASE_ERR_SERDES_PIN_NOT_ALIGN_QUAD},
    };
    for (const auto& c : cases) {
        const std::string what = std::string(kavo_enet_port_mode_t_print(c.mode)) + " " +
                                 kavo_enet_fec_mode_t_print(c.fec) + " " + kavo_enet_prov_mode_t_print(c.pm);
        EXPECT_EQ(prov(5, 8 + c.lane, c.mode, c.pin, c.fec, c.pm, c.phy), c.code) << what;
        if (c.code == VELT_SUCCESS) {
            EXPECT_EQ(kavo_deprov(0, 5, KAVO_DEPROV_SAFE), VELT_SUCCESS) << what;
        }
    }

    // Channels and lanes are held once; the Interlaken lanes of the configuration are not for ports.
    ASSERT_EQ(prov_100g(0, 0), VELT_SUCCESS);
    EXPECT_EQ(prov_100g(0, 4), UINT32(SEGMENT_BASE_ERR_EXISTING_CHNL_ID));
    EXPECT_EQ(prov_100g(1, 0), UINT32(SEGMENT_BASE_ENET_SERDES_PIN_ALREADY_USED));
    EXPECT_EQ(prov_100g(48, 4), UINT32(SEGMENT_BASE_ERR_ILLEGAL_CHNL_ID));

    // Lanes of one's own choosing: as many as the mode needs, within a quad (two adjacent ones for 8).
    struct {
        UINT32 lanes[8];
        P mode;
        UINT32 code;
    } custom[] = {
        {{4, 5, 6, NONE, NONE, NONE, NONE, NONE}, KAVO_ENET_PORT_MODE_100GE_4X25G, SEGMENT_BASE_ERR_NUM_PINS},
        {{4, 5, 6, 9, NONE, NONE, NONE, NONE}, KAVO_ENET_PORT_MODE_100GE_4X25G, SEGMENT_BASE_ERR_SERDES_PIN_NOT_SAME_QUAD},
        {{4, 5, 6, 6, NONE, NONE, NONE, NONE}, KAVO_ENET_PORT_MODE_100GE_4X25G, SEGMENT_BASE_ENET_SERDES_PIN_NOT_VALID},
        {{4, 5, NONE, 7, NONE, NONE, NONE, NONE}, KAVO_ENET_PORT_MODE_100GE_4X25G, SEGMENT_BASE_ENET_SERDES_PIN_NOT_VALID},
        {{44, 45, 46, 50, NONE, NONE, NONE, NONE}, KAVO_ENET_PORT_MODE_100GE_4X25G, SEGMENT_BASE_ERR_ILLEGAL_SERDES_PORT_ID},
        {{3, 2, 1, 0, NONE, NONE, NONE, NONE}, KAVO_ENET_PORT_MODE_100GE_4X25G, SEGMENT_BASE_ENET_SERDES_PIN_ALREADY_USED},
        {{8, 9, 10, 11, 16, 17, 18, 19}, KAVO_ENET_PORT_MODE_400GE_8X50G, SEGMENT_BASE_ERR_SERDES_PIN_NON_ADJACENT_QUAD},
        {{7, 6, 5, 4, NONE, NONE, NONE, NONE}, KAVO_ENET_PORT_MODE_100GE_4X25G, VELT_SUCCESS},
        {{15, 14, 13, 12, 11, 10, 9, 8}, KAVO_ENET_PORT_MODE_400GE_8X50G, VELT_SUCCESS},
    };
    UINT32 ch = 10;
    for (const auto& c : custom) {
        const S pin = c.mode == KAVO_ENET_PORT_MODE_400GE_8X50G ? KAVO_SERDES_PIN_MODE_50G_PAM4
                                                                 : KAVO_SERDES_PIN_MODE_25G_NRZ;
        const F fec = c.mode == KAVO_ENET_PORT_MODE_400GE_8X50G ? KAVO_ENET_FEC_MODE_RS_544 : KAVO_ENET_FEC_MODE_NONE;
        EXPECT_EQ(kavo_enet_super_prov(0, ch++, NONE, c.lanes, pin, c.mode, KAVO_ENET_PROV_MODE_MAC, fec), c.code)
            << "lanes from " << c.lanes[0];
    }
    EXPECT_EQ(cfg(ch - 1).serdes_lanes[0], 15u) << "the lanes keep their order";
    EXPECT_EQ(kavo_enet_super_prov(0, 20, NONE, nullptr, KAVO_SERDES_PIN_MODE_25G_NRZ, KAVO_ENET_PORT_MODE_25GE,
                                   KAVO_ENET_PROV_MODE_MAC, KAVO_ENET_FEC_MODE_NONE),
              UINT32(ENET_LOG_ERR_INVALID_PARAMETERS));

    // 100 + 100 + 400 provisioned; the device carries 1200G of Ethernet.
    EXPECT_EQ(prov_400g(21, 16), VELT_SUCCESS);
    EXPECT_EQ(prov_100g(22, 24), VELT_SUCCESS);
    EXPECT_EQ(prov_100g(23, 28), VELT_SUCCESS);
    EXPECT_EQ(prov(24, 32, KAVO_ENET_PORT_MODE_10GE, KAVO_SERDES_PIN_MODE_10G_NRZ, KAVO_ENET_FEC_MODE_NONE),
              UINT32(CALENDAR_MGR_ENET_PORT_CDU_NOT_ENOUGH_DAYS));
}

TEST_F(datapath_test, InterlakenLanesOfTheConfigurationAreNotForPorts)
{
    config.ilkn_lane.serdes_port_ids_tx[0] = 2;
    ASSERT_EQ(configure(), VELT_SUCCESS);
    EXPECT_EQ(prov_100g(0, 0), UINT32(SEGMENT_BASE_ERR_PINS_ILKN_ASSIGNED));
    EXPECT_EQ(prov_100g(0, 4), VELT_SUCCESS);
}

TEST_F(datapath_test, ConnectionsFollowTheKindAndRateOfBothEnds)
{
    ASSERT_EQ(configure(), VELT_SUCCESS);
    const auto PCS = KAVO_ENET_PROV_MODE_PCS, RT = KAVO_ENET_PROV_MODE_PCS_RETIMER;
    ASSERT_EQ(prov_100g(0, 0), VELT_SUCCESS);                  // MAC 100G
    ASSERT_EQ(prov(1, 4, KAVO_ENET_PORT_MODE_25GE, KAVO_SERDES_PIN_MODE_25G_NRZ, KAVO_ENET_FEC_MODE_NONE),
              VELT_SUCCESS);                                   // MAC 25G
    ASSERT_EQ(prov_100g(2, 8, PCS), VELT_SUCCESS);             // PCS 100G
    ASSERT_EQ(prov_400g(3, 16, PCS), VELT_SUCCESS);            // PCS 400G
    ASSERT_EQ(prov_100g(4, 12, RT), VELT_SUCCESS);             // PCS retimer 100G
    ASSERT_EQ(prov(5, 24, KAVO_ENET_PORT_MODE_100GE_2X50G, KAVO_SERDES_PIN_MODE_50G_PAM4, KAVO_ENET_FEC_MODE_RS_544,
                   RT), VELT_SUCCESS);                         // PCS retimer 100G on PAM4
    ASSERT_EQ(prov(6, 26, KAVO_ENET_PORT_MODE_100GE_2X50G, KAVO_SERDES_PIN_MODE_50G_PAM4, KAVO_ENET_FEC_MODE_RS_544,
                   KAVO_ENET_PROV_MODE_FLEXE_PHY, 1), VELT_SUCCESS);
    ASSERT_EQ(prov(7, 28, KAVO_ENET_PORT_MODE_25GE, KAVO_SERDES_PIN_MODE_25G_NRZ, KAVO_ENET_FEC_MODE_NONE, RT),
              VELT_SUCCESS);                                   // PCS retimer 25G
    struct {
        UINT32 src, dst, code;
    } cases[] = {
        {0, 1, VELT_SUCCESS},   // MAC ports meet in the packet buffer at any rates
        {30, 0, SEGMENT_BASE_ERR_CONNECTION_SOURCE_NOT_PROVISIONED},
        {0, 30, SEGMENT_BASE_ERR_CONNECTION_DESTINATION_NOT_PROVISIONED},
        {0, 0, SEGMENT_BASE_ERR_SWITCH_LOOPBACK_NOT_SUPPORTED},
        {0, 48, SEGMENT_BASE_ERR_ILLEGAL_CHNL_ID},
        {2, 1, SEGMENT_BASE_ERR_PHYSICAL_RESOURCE_UNAVAILABLE}, // 1 has its source already
        {2, 3, SEGMENT_BASE_ERR_INCOMPATIBLE_SRC_TO_DEST_RATE},
        {2, 0, SEGMENT_BASE_ERR_CONNECTION_UNSUPPORTED},
        {4, 0, SEGMENT_BASE_ERR_RETIMER_INCOMPATIBLE_CONNECTION_TYPE},
        {4, 2, SEGMENT_BASE_ERR_RETIMER_INCOMPATIBLE_CONNECTION_TYPE},
        {4, 7, SEGMENT_BASE_ERR_RETIMER_INCOMPATIBLE_RATE},
        {4, 5, SEGMENT_BASE_ERR_RETIMER_INCOMPATIBLE_PIN_MODE},
        {6, 0, SEGMENT_BASE_ERR_CONNECTION_UNSUPPORTED},
        {0, 1, VELT_SUCCESS},   // the same connection again
        {1, 0, VELT_SUCCESS},
    };
    for (const auto& c : cases) EXPECT_EQ(kavo_connect(0, c.src, c.dst), c.code) << c.src << " -> " << c.dst;

    EXPECT_EQ(kavo_disconnect(0, 2), UINT32(RUNTIME_OPERATION_NOT_SUPPORTED_WHEN_SEGMENT_UNCONNECTED));
    EXPECT_EQ(kavo_bidirectional_connect(0, 2), UINT32(SEGMENT_BASE_ERR_PARENT_DIRECTION_NOT_PROVISIONED));
    EXPECT_EQ(kavo_enet_tx_timing_mode_set(0, 0, KAVO_ENET_TX_TIMING_MODE_THROUGH),
              UINT32(SEGMENT_BASE_ENET_CANNOT_UP_TIMING_MODE_WHEN_CONNECTED));
    EXPECT_EQ(kavo_enet_alarm_mode_set(0, 0, KAVO_ENET_ALARM_MODE_TERMINATED),
              UINT32(ENET_ALARM_MODE_CANNOT_SET_ALARM_MODE_WHEN_DATAPATH_CONNECTED));
    ASSERT_EQ(kavo_bidirectional_disconnect(0, 0), VELT_SUCCESS);
    EXPECT_EQ(connections(0), std::make_pair(BOOL32(0), BOOL32(0)));
    EXPECT_EQ(connections(1), std::make_pair(BOOL32(0), BOOL32(0)));
    ASSERT_EQ(kavo_connect(0, 1, 0), VELT_SUCCESS);
    ASSERT_EQ(kavo_disconnect(0, 0), VELT_SUCCESS);
    EXPECT_EQ(connections(1), std::make_pair(BOOL32(0), BOOL32(0)));
    EXPECT_EQ(kavo_connect_get(0, 30, nullptr, nullptr), UINT32(SEGMENT_BASE_ERR_NO_SEGMENT_FOR_CHNL_ID))
        << "a failed getter does not touch its outputs";
}

TEST_F(datapath_test, HostLoopbackBringsThePortUpWithoutAPartner)
{
    ASSERT_EQ(configure(), VELT_SUCCESS);
    for (UINT32 lane = 0; lane < 4; ++lane) ASSERT_EQ(chip()->knob_set(SIM_KNOB_LINK_PARTNER, lane, 0), VELT_SUCCESS);
    ASSERT_EQ(prov_100g(0, 0), VELT_SUCCESS);
    wait_ms(2 * TRAINING_MS);
    kavo_enet_status_t s = status(0);
    EXPECT_TRUE(s.los && !s.link_up);
    EXPECT_EQ(s.signal_mask, 0u);

    kavo_loopback_t mode = KAVO_LOOPBACK_LINE;
    EXPECT_EQ(kavo_loopback_status_get(0, 0, &mode), VELT_SUCCESS);
    EXPECT_EQ(mode, KAVO_LOOPBACK_NONE);
    ASSERT_EQ(kavo_loopback_set(0, 0, KAVO_LOOPBACK_LINE), VELT_SUCCESS);
    wait_ms(2 * TRAINING_MS);
    EXPECT_FALSE(status(0).link_up) << "a line loopback turns the partner's signal around, there is none";
    EXPECT_EQ(kavo_loopback_set(0, 0, KAVO_LOOPBACK_HOST), UINT32(PB_LINE_LPBK_ALREADY_PROV));
    ASSERT_EQ(kavo_loopback_set(0, 0, KAVO_LOOPBACK_NONE), VELT_SUCCESS);
    ASSERT_EQ(kavo_loopback_set(0, 0, KAVO_LOOPBACK_HOST), VELT_SUCCESS);
    EXPECT_EQ(kavo_loopback_set(0, 0, KAVO_LOOPBACK_HOST), UINT32(PB_HOST_LPBK_ALREADY_PROV));
    EXPECT_EQ(kavo_loopback_set(0, 0, kavo_loopback_t(3)), UINT32(PB_LPBK_INVALID_ARG));
    EXPECT_EQ(status(0).signal_mask, 0xFu);
    EXPECT_FALSE(status(0).link_up) << "the PCS locks after the training time";
    wait_ms(TRAINING_MS + 1);
    EXPECT_TRUE(status(0).link_up);
    EXPECT_EQ(kavo_loopback_status_get(0, 0, &mode), VELT_SUCCESS);
    EXPECT_EQ(mode, KAVO_LOOPBACK_HOST);

    // What the port sends comes back: a forced remote fault is seen by its own receiver.
    EXPECT_EQ(kavo_enet_ca_force(0, 0, KAVO_ENET_ALARM_FORCE_TX, KAVO_ENET_ALARM_ACTION_NONE),
              UINT32(RUNTIME_OPERATION_ERR_INVALID_ARGUMENTS));
    ASSERT_EQ(kavo_enet_ca_force(0, 0, KAVO_ENET_ALARM_FORCE_TX, KAVO_ENET_ALARM_ACTION_RF), VELT_SUCCESS);
    EXPECT_TRUE(status(0).remote_fault);
    ASSERT_EQ(kavo_enet_ca_force(0, 0, KAVO_ENET_ALARM_FORCE_OFF, KAVO_ENET_ALARM_ACTION_RF), VELT_SUCCESS);
    EXPECT_FALSE(status(0).remote_fault);

    ASSERT_EQ(kavo_loopback_set(0, 0, KAVO_LOOPBACK_NONE), VELT_SUCCESS);
    EXPECT_FALSE(status(0).link_up);
    EXPECT_EQ(kavo_loopback_status_get(0, 7, &mode), UINT32(SEGMENT_BASE_ERR_NO_SEGMENT_FOR_CHNL_ID));

    ASSERT_EQ(prov(1, 8, KAVO_ENET_PORT_MODE_25GE, KAVO_SERDES_PIN_MODE_25G_NRZ, KAVO_ENET_FEC_MODE_NONE,
                   KAVO_ENET_PROV_MODE_ANALOG_RETIMER), VELT_SUCCESS);
    EXPECT_EQ(kavo_loopback_set(0, 1, KAVO_LOOPBACK_HOST), UINT32(SEGMENT_BASE_ERR_SWITCH_LOOPBACK_NOT_SUPPORTED));
    EXPECT_TRUE(status(1).link_up) << "lanes passed through have nothing to train";
}

TEST_F(datapath_test, LosingThePartnerTakesTheLinkDownAndBitErrorsRaiseHighBer)
{
    ASSERT_EQ(configure(), VELT_SUCCESS);
    ASSERT_EQ(prov_100g(0, 0), VELT_SUCCESS);
    wait_ms(TRAINING_MS + 1);
    ASSERT_TRUE(status(0).link_up);

    ASSERT_EQ(chip()->knob_set(SIM_KNOB_LINK_PARTNER, 2, 0), VELT_SUCCESS);
    kavo_enet_status_t s = status(0);
    EXPECT_TRUE(!s.link_up && s.los && s.local_fault);
    EXPECT_EQ(s.signal_mask, 0xBu);
    EXPECT_EQ(defects(0), UINT32(KAVO_ENET_ALARM_MASK_LOS | KAVO_ENET_ALARM_MASK_LOBL | KAVO_ENET_ALARM_MASK_LOAML |
                                 KAVO_ENET_ALARM_MASK_LF));

    ASSERT_EQ(chip()->knob_set(SIM_KNOB_LINK_PARTNER, 2, 1), VELT_SUCCESS);
    EXPECT_FALSE(status(0).link_up) << "the partner's return starts a new training";
    wait_ms(TRAINING_MS + 1);
    EXPECT_TRUE(status(0).link_up);

    // Beyond what RS(528,514) corrects the PCS loses lock.
    ASSERT_EQ(chip()->knob_set(SIM_KNOB_BIT_ERRORS, 1, 300000000), VELT_SUCCESS);
    s = status(0);
    EXPECT_TRUE(s.hi_ber && !s.link_up);
    EXPECT_TRUE(defects(0) & KAVO_ENET_ALARM_MASK_HI_BER);
}

TEST_F(datapath_test, AnltNegotiatesTrainsEachLaneAndRestarts)
{
    ASSERT_EQ(configure(), VELT_SUCCESS);
    kavo_enet_anlt_chnl_cfg_t c;
    c.advertize_mask = (1u << KAVO_ENET_ANLT_ADVERTIZE_100GBASE_CR4) | (1u << KAVO_ENET_ANLT_ADVERTIZE_25GBASE_CR);
    c.num_serdes_lanes = 4;
    for (UINT32 i = 0; i < 4; ++i) c.serdes_lanes[i] = 4 + i;
    c.fec_request_rs = 1;
    ASSERT_EQ(kavo_enet_anlt_prov(0, 3, NONE, KAVO_ENET_PROV_MODE_MAC, &c), VELT_SUCCESS);
    ASSERT_EQ(prov_100g(0, 0), VELT_SUCCESS);
    wait_ms(TRAINING_MS + 1);

    kavo_enet_anlt_chnl_status_t s;
    ASSERT_EQ(kavo_enet_anlt_status_get(0, 3, &s), VELT_SUCCESS);
    EXPECT_EQ(s.state, KAVO_ENET_ANLT_STATE_LT);
    EXPECT_EQ(s.resolved, KAVO_ENET_ANLT_ADVERTIZE_100GBASE_CR4) << "the fastest common technology";
    EXPECT_EQ(s.port_mode, KAVO_ENET_PORT_MODE_100GE_4X25G);
    EXPECT_EQ(s.fec_mode, KAVO_ENET_FEC_MODE_RS_528);
    EXPECT_EQ(kavo_connect(0, 0, 3), UINT32(ANLT_ERR_CONNECT_NOT_SUPPORTED_WHEN_PROCESS_ACTIVE));

    wait_ms(2 * TRAINING_MS);
    ASSERT_EQ(kavo_enet_anlt_status_get(0, 3, &s), VELT_SUCCESS);
    EXPECT_EQ(s.state, KAVO_ENET_ANLT_STATE_LINK_UP);
    EXPECT_TRUE(s.link_up);
    EXPECT_EQ(s.lt_done_mask, 0xFu);
    // Times from the start of the run: negotiation takes one training time, each lane
    // trains for another, the later lanes a sixteenth of it later each.
    const UINT32 T = TRAINING_MS * 1000;
    EXPECT_EQ(s.ts.an_done_us, T);
    const UINT32 lanes[8] = {2 * T, 2 * T + T / 16, 2 * T + T / 8, 2 * T + 3 * T / 16, 0, 0, 0, 0};
    for (UINT32 i = 0; i < 8; ++i) EXPECT_EQ(s.ts.lt_lane_done_us[i], lanes[i]) << "lane " << i;
    EXPECT_EQ(s.ts.link_up_us, lanes[3]);
    EXPECT_TRUE(status(3).link_up);
    EXPECT_EQ(cfg(3).mode, KAVO_ENET_PORT_MODE_100GE_4X25G);
    EXPECT_EQ(kavo_connect(0, 0, 3), VELT_SUCCESS);

    take();
    kavo_enet_anlt_chnl_ts_t_print(&s.ts, nullptr);
    const std::string text = take();
    EXPECT_NE(text.find("\n    an_done_us: 1.000 seconds\n"), std::string::npos) << text;
    EXPECT_NE(text.find("\n    lt_lane_done_us: [2.000 seconds, 2.062 seconds, 2.125 seconds, 2.188 seconds, 0.0000 "),
              std::string::npos) << text;

    ASSERT_EQ(kavo_an_restart_trigger(0, 3), VELT_SUCCESS);
    ASSERT_EQ(kavo_enet_anlt_status_get(0, 3, &s), VELT_SUCCESS);
    EXPECT_EQ(s.state, KAVO_ENET_ANLT_STATE_AN);
    EXPECT_EQ(s.restart_count, 1u);
    EXPECT_FALSE(status(3).link_up);
    wait_ms(3 * TRAINING_MS);
    EXPECT_TRUE(status(3).link_up);

    // Losing the partner restarts negotiation; over a host loopback it never completes.
    ASSERT_EQ(chip()->knob_set(SIM_KNOB_LINK_PARTNER, 6, 0), VELT_SUCCESS);
    ASSERT_EQ(kavo_enet_anlt_status_get(0, 3, &s), VELT_SUCCESS);
    EXPECT_EQ(s.state, KAVO_ENET_ANLT_STATE_AN);
    EXPECT_EQ(s.restart_count, 2u);
    ASSERT_EQ(kavo_loopback_set(0, 3, KAVO_LOOPBACK_HOST), VELT_SUCCESS);
    ASSERT_EQ(chip()->knob_set(SIM_KNOB_LINK_PARTNER, 6, 1), VELT_SUCCESS);
    wait_ms(5 * TRAINING_MS);
    ASSERT_EQ(kavo_enet_anlt_status_get(0, 3, &s), VELT_SUCCESS);
    EXPECT_EQ(s.state, KAVO_ENET_ANLT_STATE_AN);

    EXPECT_EQ(kavo_an_restart_trigger(0, 0), UINT32(ANLT_ERR_CHNL_NOT_UNDER_MGMT));
    EXPECT_EQ(kavo_enet_anlt_status_get(0, 0, &s), UINT32(ANLT_ERR_CHNL_NOT_UNDER_MGMT));
}

TEST_F(datapath_test, AnltAdvertisementsThePortCannotMeetAreRefused)
{
    ASSERT_EQ(configure(), VELT_SUCCESS);
    const UINT32 KR4 = 1u << KAVO_ENET_ANLT_ADVERTIZE_100GBASE_KR4, CR4 = 1u << KAVO_ENET_ANLT_ADVERTIZE_100GBASE_CR4;
    const UINT32 KX = 1u << KAVO_ENET_ANLT_ADVERTIZE_1000BASE_KX;
    struct {
        const char* what;
        std::function<void(kavo_enet_anlt_chnl_cfg_t&)> spoil;
        kavo_enet_prov_mode_t pm;
        UINT32 code;
    } cases[] = {
        {"nothing advertised", [](auto& c) { c.advertize_mask = 0; }, KAVO_ENET_PROV_MODE_MAC,
         ANLT_ERR_NOT_VALID_ADVERTIZE_MASK},
        {"unknown technology", [](auto& c) { c.advertize_mask |= 1u << 25; }, KAVO_ENET_PROV_MODE_MAC,
         ANLT_ERR_ADVERTIZE_MASK_UNRECOGNIZED_FORMAT},
        {"KR with CR", [=](auto& c) { c.advertize_mask |= CR4; }, KAVO_ENET_PROV_MODE_MAC, ANLT_ERR_KR_CR_IN_ADVERTIZE_MASK},
        {"two 400G", [](auto& c) {
             c.advertize_mask = (1u << KAVO_ENET_ANLT_ADVERTIZE_400GBASE_KR4) | (1u << KAVO_ENET_ANLT_ADVERTIZE_400GBASE_KR8);
             c.num_serdes_lanes = 8;
             for (UINT32 i = 4; i < 8; ++i) c.serdes_lanes[i] = 4 + i;
         }, KAVO_ENET_PROV_MODE_MAC, ANLT_ERR_TWO_400G_ADVERTIZE},
        {"1G outside the analog retimer", [=](auto& c) { c.advertize_mask |= KX; }, KAVO_ENET_PROV_MODE_MAC,
         ANLT_ERR_1G_ONLY_IN_ANALOG_RETIMER_MODE},
        {"training only, two technologies", [=](auto& c) { c.lt_only = 1, c.advertize_mask |= 1u << 2; },
         KAVO_ENET_PROV_MODE_MAC, ANLT_ERR_NOT_VALID_ADVERTIZE_MASK},
        {"training only 1G", [=](auto& c) { c.lt_only = 1, c.advertize_mask = KX, c.num_serdes_lanes = 1; },
         KAVO_ENET_PROV_MODE_ANALOG_RETIMER, ANLT_ERR_UNSUPPORTED_PORT_MODE_IN_LT_ONLY_MODE},
        {"too few lanes", [](auto& c) { c.num_serdes_lanes = 2; }, KAVO_ENET_PROV_MODE_MAC,
         ANLT_ERR_NOT_ENOUGH_SERDES_PIN_FOR_ADVERTIZE_MASK},
        {"too many lanes", [](auto& c) { c.num_serdes_lanes = 5, c.serdes_lanes[4] = 20; }, KAVO_ENET_PROV_MODE_MAC,
         ANLT_ERR_NOT_VALID_REQUIRED_NUM_PIN_FOR_MASK},
        {"no first lane", [](auto& c) { c.serdes_lanes[0] = NONE; }, KAVO_ENET_PROV_MODE_MAC,
         ANLT_ERR_LANE0_NOT_IN_SERDES_SET},
        {"lane 50", [](auto& c) { c.serdes_lanes[3] = 50; }, KAVO_ENET_PROV_MODE_MAC,
         ANLT_ERR_NOT_VALID_REQUIRED_SERDES_PIN},
        {"a lane twice", [](auto& c) { c.serdes_lanes[3] = 8; }, KAVO_ENET_PROV_MODE_MAC,
         ANLT_ERR_LANE_SWAPPING_BAD_SERDES_CONFIG},
        {"a lane beyond the count", [](auto& c) { c.serdes_lanes[5] = 30; }, KAVO_ENET_PROV_MODE_MAC,
         ANLT_ERR_LANE_SWAPPING_PINS_NOT_MATCH_ADVERTIZE_MASK},
        {"the lanes of a port", [](auto& c) { c.serdes_lanes[3] = 0; }, KAVO_ENET_PROV_MODE_MAC,
         SEGMENT_BASE_ENET_SERDES_PIN_ALREADY_USED},
    };
    ASSERT_EQ(prov(0, 0, KAVO_ENET_PORT_MODE_25GE, KAVO_SERDES_PIN_MODE_25G_NRZ, KAVO_ENET_FEC_MODE_NONE), VELT_SUCCESS);
    for (const auto& k : cases) {
        kavo_enet_anlt_chnl_cfg_t c;
        c.advertize_mask = KR4;
        c.num_serdes_lanes = 4;
        for (UINT32 i = 0; i < 4; ++i) c.serdes_lanes[i] = 8 + i;
        k.spoil(c);
        EXPECT_EQ(kavo_enet_anlt_prov(0, 3, NONE, k.pm, &c), k.code) << k.what;
    }
    kavo_enet_anlt_chnl_cfg_t c;
    c.advertize_mask = KR4;
    c.num_serdes_lanes = 4;
    for (UINT32 i = 0; i < 4; ++i) c.serdes_lanes[i] = 11 - i;
    EXPECT_EQ(kavo_enet_anlt_prov(0, 3, NONE, KAVO_ENET_PROV_MODE_MAC, &c), VELT_SUCCESS) << "lanes in any order";
}

TEST_F(datapath_test, RunTimeSettingsAreValidatedStoredAndReadBack)
{
    ASSERT_EQ(configure(), VELT_SUCCESS);
    ASSERT_EQ(prov_400g(0, 0), VELT_SUCCESS);                            // MAC, RS(544,514)
    ASSERT_EQ(prov_100g(1, 8, KAVO_ENET_PROV_MODE_PCS), VELT_SUCCESS);   // PCS, RS(528,514)
    ASSERT_EQ(prov(2, 12, KAVO_ENET_PORT_MODE_25GE, KAVO_SERDES_PIN_MODE_25G_NRZ, KAVO_ENET_FEC_MODE_NONE),
              VELT_SUCCESS);                                             // MAC, no FEC
    kavo_enet_vlan_cfg_t vlan;
    vlan.vlan_tag_num = 2;
    kavo_enet_vlan_cfg_t bad_vlan;
    bad_vlan.inner_tpid = 0x5FF;
    kavo_enet_fec_deg_ser_cfg_t ser;
    ser.enable = 1;
    ser.activate_threshold = 100;
    ser.deactivate_threshold = 50;
    kavo_enet_fec_deg_ser_cfg_t bad_ser = ser;
    bad_ser.deactivate_threshold = 200;
    kavo_enet_fec_err_cfg_t corr;
    corr.bypass_indication = 1;
    kavo_enet_fec_err_cfg_t bypass;
    bypass.bypass_correction = 1;
    using C = kavo_enet_cfg_get_t;
    struct {
        const char* what;
        std::function<VELT_ERROR()> good;
        std::function<bool(const C&)> stored;
        std::function<VELT_ERROR()> bad;
        UINT32 code;
    } cases[] = {
        {"mru", [] { return kavo_enet_mru_set(0, 0, 9600); }, [](const C& c) { return c.mru == 9600; },
         [] { return kavo_enet_mru_set(0, 0, 16001); }, RUNTIME_OPERATION_MRU_MAX_FRAME_LENGTH_EXCEEDED},
        {"mru short", [] { return kavo_enet_mru_set(0, 0, 64); }, [](const C& c) { return c.mru == 64; },
         [] { return kavo_enet_mru_set(0, 0, 63); }, RUNTIME_OPERATION_ERR_INVALID_ARGUMENTS},
        {"mtu", [] { return kavo_enet_mtu_set(0, 0, 9000); }, [](const C& c) { return c.mtu == 9000; },
         [] { return kavo_enet_mtu_set(0, 0, 20000); }, RUNTIME_OPERATION_MTU_MAX_FRAME_LENGTH_EXCEEDED},
        {"mtu on a PCS port", [] { return VELT_SUCCESS; }, [](const C&) { return true; },
         [] { return kavo_enet_mtu_set(0, 1, 9000); }, RUNTIME_OPERATION_NOT_SUPPORTED_BY_SEGMENT_CLASS},
        {"ipg", [] { return kavo_enet_ipg_set(0, 0, 8); }, [](const C& c) { return c.ipg == 8; },
         [] { return kavo_enet_ipg_set(0, 0, 10); }, RUNTIME_OPERATION_IPG_VALUE_NOT_VALID},
        {"inband fcs", [] { return kavo_enet_ilkn_inband_fcs_set(0, 0, 1); }, [](const C& c) { return c.inband_fcs == 1; },
         [] { return kavo_enet_ilkn_inband_fcs_set(0, 0, 2); }, RUNTIME_OPERATION_ERR_INVALID_ARGUMENTS},
        {"vlan", [&] { return kavo_enet_vlan_cfg_set(0, 0, &vlan); },
         [](const C& c) { return c.vlan.vlan_tag_num == 2 && c.vlan.outer_tpid == 0x88A8; },
         [&] { return kavo_enet_vlan_cfg_set(0, 0, &bad_vlan); }, RUNTIME_OPERATION_ERR_INVALID_ARGUMENTS},
        {"error relay", [] { return kavo_enet_err_relay_msk_set(0, 0, KAVO_MAC_RX_ERROR_FCS); },
         [](const C& c) { return c.err_relay_mask == KAVO_MAC_RX_ERROR_FCS; },
         [] { return kavo_enet_err_relay_msk_set(0, 0, 0x10); }, RUNTIME_OPERATION_ERR_INVALID_ARGUMENTS},
        {"fec", [] { return kavo_enet_fec_mode_set(0, 2, KAVO_ENET_FEC_MODE_RS_528); },
         [](const C& c) { return c.fec_mode == KAVO_ENET_FEC_MODE_RS_528; },
         [] { return kavo_enet_fec_mode_set(0, 0, KAVO_ENET_FEC_MODE_NONE); }, SEGMENT_BASE_ENET_FEC_MODE_INVALID},
        {"idle generator", [] { return kavo_enet_scrambled_idle_gen_set(0, 0, KAVO_ENET_SCRAMBLE_IDLE_LEVEL_FEC, 1); },
         [](const C& c) { return c.idle_gen_enable && c.idle_gen_level == KAVO_ENET_SCRAMBLE_IDLE_LEVEL_FEC; },
         [] { return kavo_enet_scrambled_idle_gen_set(0, 0, kavo_enet_scramble_idle_level_t(2), 1); },
         RUNTIME_OPERATION_ERR_INVALID_ARGUMENTS},
        {"error injection", [] { return kavo_enet_err_inj_set(0, 0, KAVO_ENET_SCRAMBLE_IDLE_LEVEL_FEC, 1); },
         [](const C& c) { return c.idle_err_inj_enable == 1; },
         [] { return kavo_enet_err_inj_set(0, 0, KAVO_ENET_SCRAMBLE_IDLE_LEVEL_PCS, 1); },
         RUNTIME_OPERATION_NOT_SUPPORTED},
        {"idle monitor", [] { return kavo_enet_scrambled_idle_mon_set(0, 0, KAVO_ENET_SCRAMBLE_IDLE_LEVEL_PCS, 1); },
         [](const C& c) { return c.idle_mon_enable == 1; },
         [] { return kavo_enet_scrambled_idle_mon_set(0, 3, KAVO_ENET_SCRAMBLE_IDLE_LEVEL_PCS, 1); },
         RUNTIME_OPERATION_COULD_NOT_FIND_A_SEGMENT},
        {"timing", [] { return kavo_enet_tx_timing_mode_set(0, 0, KAVO_ENET_TX_TIMING_MODE_THROUGH); },
         [](const C& c) { return c.tx_timing_mode == KAVO_ENET_TX_TIMING_MODE_THROUGH; },
         [] { return kavo_enet_tx_timing_mode_set(0, 0, LAST_KAVO_ENET_TX_TIMING_MODE); },
         SEGMENT_BASE_ENET_INVALID_TIMING_MODE},
        {"relay alarms", [] { return kavo_enet_alarm_mode_set(0, 1, KAVO_ENET_ALARM_MODE_RELAY); },
         [](const C&) { return true; }, [] { return kavo_enet_alarm_mode_set(0, 0, KAVO_ENET_ALARM_MODE_RELAY); },
         ENET_ALARM_MODE_CANNOT_SET_RELAY_MODE},
        {"am relay", [] { return kavo_enet_pcs_am_relay_mode_enable(0, 1, 1); }, [](const C&) { return true; },
         [] { return kavo_enet_pcs_am_relay_mode_enable(0, 0, 1); }, RUNTIME_OPERATION_NOT_SUPPORTED_BY_SEGMENT_CLASS},
        {"am signal fail", [] { return kavo_enet_fec_tx_am_sf_mode_set(0, 0, KAVO_ENET_ALARM_MODE_TERMINATED, 5); },
         [](const C& c) { return c.tx_am_sf.tx_am_sf_value == 5; },
         [] { return kavo_enet_fec_tx_am_sf_mode_set(0, 1, KAVO_ENET_ALARM_MODE_TERMINATED, 5); },
         SEGMENT_BASE_ENET_FEC_MODE_INVALID},
        {"degraded SER", [&] { return kavo_enet_fec_deg_ser_set(0, 0, &ser); },
         [](const C& c) { return c.fec_deg_ser.enable && c.fec_deg_ser.activate_threshold == 100; },
         [&] { return kavo_enet_fec_deg_ser_set(0, 0, &bad_ser); }, RUNTIME_OPERATION_ERR_INVALID_ARGUMENTS},
        {"FEC errors", [&] { return kavo_enet_fec_err_cfg_set(0, 0, &corr); },
         [](const C& c) { return c.fec_err.bypass_indication == 1; },
         [&] { return kavo_enet_fec_err_cfg_set(0, 0, &bypass); }, SEGMENT_BASE_ENET_FEC_MODE_INVALID},
        {"nominal force", [] { return kavo_enet_dp_nominal_force(0, 0, 1); },
         [](const C& c) { return c.dp_nominal_force == 1; }, [] { return kavo_enet_dp_nominal_force(0, 0, 2); },
         RUNTIME_OPERATION_ERR_INVALID_ARGUMENTS},
    };
    for (const auto& c : cases) {
        ASSERT_EQ(c.good(), VELT_SUCCESS) << c.what;
        const C before = cfg(0);
        EXPECT_TRUE(c.stored(cfg(c.what == std::string("fec") ? 2 : 0))) << c.what;
        EXPECT_EQ(c.bad(), c.code) << c.what;
        const C after = cfg(0);
        EXPECT_EQ(std::memcmp(&before, &after, sizeof(C)), 0) << c.what << ": a refusal changes nothing";
    }

    // Consequent actions and the nominal-timing mask, through the alarm getter.
    ASSERT_EQ(kavo_enet_ca_enable(0, 0, KAVO_ENET_CA_ENABLE_HOST_FAULT_TO_TX, 1), VELT_SUCCESS);
    ASSERT_EQ(kavo_enet_ca_mask_enable(0, 0, KAVO_ENET_ALARM_MASK_HI_BER, KAVO_ENET_ALARM_ACTION_IDLE), VELT_SUCCESS);
    ASSERT_EQ(kavo_enet_nominal_mask_enable(0, 0, KAVO_ENET_ALARM_MASK_LOS), VELT_SUCCESS);
    EXPECT_EQ(kavo_enet_nominal_mask_enable(0, 2, KAVO_ENET_ALARM_MASK_LOS),
              UINT32(RUNTIME_OPERATION_NOMINAL_MASK_CANNOT_SET_WHEN_NOT_THROUGH_TIMING_MODE));
    EXPECT_EQ(kavo_enet_ca_enable(0, 0, LAST_KAVO_ENET_CA_ENABLE, 1), UINT32(RUNTIME_OPERATION_ERR_INVALID_ARGUMENTS));
    EXPECT_EQ(kavo_enet_ca_mask_enable(0, 0, 0x100, KAVO_ENET_ALARM_ACTION_LF),
              UINT32(RUNTIME_OPERATION_ERR_INVALID_ARGUMENTS));
    kavo_enet_alarm_cfg_get_t a;
    ASSERT_EQ(kavo_rs_alarm_cfg_get(0, 0, &a), VELT_SUCCESS);
    EXPECT_EQ(a.ca_enable.enable[KAVO_ENET_CA_ENABLE_HOST_FAULT_TO_TX], 1u);
    EXPECT_EQ(a.mask.defect_mask, UINT32(KAVO_ENET_ALARM_MASK_HI_BER));
    EXPECT_EQ(a.mask.action, KAVO_ENET_ALARM_ACTION_IDLE);
    EXPECT_EQ(a.mask.nominal_mask, UINT32(KAVO_ENET_ALARM_MASK_LOS));
    EXPECT_EQ(a.dp_nominal_force, 1u);

    // Flow control on a MAC port; PFC names its priorities.
    kavo_flow_control_cfg_t fc;
    fc.mode = KAVO_FLOW_CONTROL_MODE_RX_TX;
    fc.frame_type = KAVO_FLOW_CONTROL_FRAME_PFC;
    EXPECT_EQ(kavo_flow_control_cfg_set(0, 0, &fc), UINT32(SEGMENT_BASE_ERR_ILKN_FC_PFC_MASK_NOT_PROVIDED));
    fc.pfc_mask = KAVO_FLOW_CONTROL_PFC_MASK_PRIORITY_3;
    ASSERT_EQ(kavo_flow_control_cfg_set(0, 0, &fc), VELT_SUCCESS);
    kavo_flow_control_cfg_t back;
    ASSERT_EQ(kavo_flow_control_cfg_get(0, 0, &back), VELT_SUCCESS);
    EXPECT_EQ(std::memcmp(&fc, &back, sizeof(fc)), 0);
    EXPECT_EQ(kavo_flow_control_cfg_set(0, 1, &fc), UINT32(RUNTIME_OPERATION_NOT_SUPPORTED_BY_SEGMENT_CLASS));
    fc.refresh_quanta = fc.pause_quanta;
    EXPECT_EQ(kavo_flow_control_cfg_set(0, 0, &fc), UINT32(KAVO_FW_ERR_INVALID_PARAMETERS));
    ASSERT_EQ(kavo_connect(0, 2, 0), VELT_SUCCESS);
    fc.refresh_quanta = 1;
    EXPECT_EQ(kavo_flow_control_cfg_set(0, 0, &fc), UINT32(SEGMENT_BASE_ERR_FC_MAC_TO_MAC_ONLY_PAUSE_SUPPORTED));
}

TEST_F(datapath_test, LoopedBackPortReceivesItsOwnSignalFailAndSymbolErrors)
{
    ASSERT_EQ(configure(), VELT_SUCCESS);
    ASSERT_EQ(prov_400g(0, 0), VELT_SUCCESS);
    ASSERT_EQ(kavo_loopback_set(0, 0, KAVO_LOOPBACK_HOST), VELT_SUCCESS);
    wait_ms(TRAINING_MS + 1);
    ASSERT_EQ(kavo_enet_fec_tx_am_sf_mode_set(0, 0, KAVO_ENET_ALARM_MODE_TERMINATED, 5), VELT_SUCCESS);
    UINT32 rx = 0;
    ASSERT_EQ(kavo_enet_fec_rx_am_sf_status_get(0, 0, &rx), VELT_SUCCESS);
    EXPECT_EQ(rx, 5u);
    EXPECT_EQ(defects(0), UINT32(KAVO_ENET_ALARM_MASK_RX_AM_SF));

    // 10^-6 on every lane: 50,000 bits per ms per lane, 8 lanes, 10 ms: 4,000 symbol errors.
    kavo_enet_fec_deg_ser_cfg_t ser;
    ser.enable = 1;
    ser.activate_threshold = 3999;
    ser.deactivate_threshold = 0;
    ASSERT_EQ(kavo_enet_fec_deg_ser_set(0, 0, &ser), VELT_SUCCESS);
    for (UINT32 lane = 0; lane < 8; ++lane) ASSERT_EQ(chip()->knob_set(SIM_KNOB_BIT_ERRORS, lane, 1000000), VELT_SUCCESS);
    EXPECT_TRUE(defects(0) & KAVO_ENET_ALARM_MASK_FEC_DEG_SER);
    ser.activate_threshold = 4000;
    ASSERT_EQ(kavo_enet_fec_deg_ser_set(0, 0, &ser), VELT_SUCCESS);
    EXPECT_FALSE(defects(0) & KAVO_ENET_ALARM_MASK_FEC_DEG_SER);
}

TEST_F(datapath_test, FlexePhyFaultsAreKeptPerPhyNumber)
{
    ASSERT_EQ(configure(), VELT_SUCCESS);
    ASSERT_EQ(prov(0, 0, KAVO_ENET_PORT_MODE_100GE_2X50G, KAVO_SERDES_PIN_MODE_50G_PAM4, KAVO_ENET_FEC_MODE_RS_544,
                   KAVO_ENET_PROV_MODE_FLEXE_PHY, 3), VELT_SUCCESS);
    ASSERT_EQ(prov_100g(1, 4), VELT_SUCCESS);
    ASSERT_EQ(kavo_enet_aflexe_rpf_force(0, 0, 3, 1), VELT_SUCCESS);
    ASSERT_EQ(kavo_enet_dflexe_rdi_detect_config(0, 0, 3, 0x5), VELT_SUCCESS);
    UINT32 v = 0;
    ASSERT_EQ(kavo_enet_aflexe_rpf_force_get(0, 0, 3, &v), VELT_SUCCESS);
    EXPECT_EQ(v, 1u);
    ASSERT_EQ(kavo_enet_dflexe_rdi_detect_config_get(0, 0, 3, &v), VELT_SUCCESS);
    EXPECT_EQ(v, 5u);
    EXPECT_EQ(kavo_enet_aflexe_rpf_force(0, 0, 4, 1), UINT32(SEGMENT_BASE_ENET_FLEXE_INVALID_PHY_ID));
    EXPECT_EQ(kavo_enet_aflexe_rpf_force_get(0, 1, 3, &v), UINT32(RUNTIME_OPERATION_NOT_SUPPORTED_BY_SEGMENT_CLASS));
}

TEST_F(datapath_test, MuxModeLeavesNoRoomForAnlt)
{
    config.mux_mode = 1;
    ASSERT_EQ(configure(), VELT_SUCCESS);
    kavo_enet_anlt_chnl_cfg_t c;
    c.advertize_mask = 1u << KAVO_ENET_ANLT_ADVERTIZE_25GBASE_KR;
    c.num_serdes_lanes = 1;
    c.serdes_lanes[0] = 0;
    EXPECT_EQ(kavo_enet_anlt_prov(0, 0, NONE, KAVO_ENET_PROV_MODE_MAC, &c), UINT32(ANLT_ERR_MUX_MODE_NOT_SUPPORTED));
}

TEST_F(datapath_test, GettersWithoutOutputHaltAfterTheSend)
{
    ASSERT_EQ(configure(), VELT_SUCCESS);
    ASSERT_EQ(prov_100g(0, 0), VELT_SUCCESS);
    BOOL32 rx = 0;
    EXPECT_DEATH(kavo_connect_get(0, 0, &rx, nullptr), "");
    EXPECT_DEATH(kavo_loopback_status_get(0, 0, nullptr), "");
}

TEST_F(datapath_test, CommandsCostOneExchangeEach)
{
    ASSERT_EQ(configure(), VELT_SUCCESS);
    ASSERT_EQ(prov_100g(0, 0), VELT_SUCCESS);
    kavo_enet_status_t s;
    kavo_loopback_t mode;
    struct {
        const char* what;
        std::function<VELT_ERROR()> call;
        UINT64 transactions;
    } cases[] = {
        {"no payload", [] { return kavo_enet_mru_set(0, 0, 2000); }, kavo_test::BUS_PER_COMMAND},
        {"built record", [] { return kavo_enet_ca_mask_enable(0, 0, 1, KAVO_ENET_ALARM_ACTION_LF); },
         kavo_test::BUS_PER_COMMAND},
        {"result fields", [&] { return kavo_loopback_status_get(0, 0, &mode); }, kavo_test::BUS_PER_COMMAND},
        {"reply payload", [&] { return kavo_enet_status_get(0, 0, &s); }, kavo_test::BUS_PER_COMMAND_WITH_PAYLOAD},
    };
    for (const auto& c : cases) {
        chip()->journal_reset();
        ASSERT_EQ(c.call(), VELT_SUCCESS) << c.what;
        const kavo_sim::journal_counters n = chip()->counters();
        EXPECT_EQ(n.reads + n.writes + n.burst_reads + n.burst_writes, c.transactions) << c.what;
    }
}
