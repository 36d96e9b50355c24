// The firmware's FlexE rules, driven by raw mailbox exchanges: what a group
// and a client may be, the calendars and their timed switch, and the overhead
// processor's channels and debug frames.
#include <gtest/gtest.h>

#include <vector>

#include "kavo_sim/bus_client.h"
#include "kavo_sim/kavo_sim.h"

using kavo_sim::bus_client;

namespace {

constexpr UINT32 GROUP = 10;

kavo_flexe_phy_t phy(UINT32 id, UINT32 port, UINT32 number, kavo_flexe_pin_mode_t mode = KAVO_FLEXE_PIN_MODE_100G_2_LANES)
{
    kavo_flexe_phy_t p;
    p.phy_id = id;
    p.serdes_port_id = port;
    p.pin_mode = mode;
    p.phy_data_tx.flexe_phy_number = p.phy_data_rx.flexe_phy_number = number;
    return p;
}

/* Two 100G PHYs on ports 0-1 and 2-3: 40 slots, instances 0 and 1. */
kavo_flexe_group_cfg_t two_phys()
{
    kavo_flexe_group_cfg_t g;
    g.group_info.flexe_group_number_tx = g.group_info.flexe_group_number_rx = 7;
    g.num_phys = 2;
    g.phys[0] = phy(0, 0, 1);
    g.phys[1] = phy(1, 2, 2);
    return g;
}

kavo_flexe_client_t client(UINT32 number, UINT32 w0, UINT32 w1 = 0)
{
    kavo_flexe_client_t c;
    for (kavo_flexe_client_data_t* d : {&c.tx_client_data, &c.rx_client_data}) {
        d->flexe_client_number = number;
        d->flexe_client_slots[0] = w0;
        d->flexe_client_slots[1] = w1;
    }
    return c;
}

kavo_htl_general_struct_t info(UINT32 element, UINT32 mode = 0xFFFFFFFF, UINT32 parent = 0xFFFFFFFF, UINT32 flag = 0)
{
    kavo_htl_general_struct_t i;
    i.element_id = element, i.mode = mode, i.parent_id = parent, i.flag = flag;
    return i;
}

class SimFlexe : public ::testing::Test {
  protected:
    void SetUp() override
    {
        ASSERT_EQ(kavo_sim::chip_create(2, kavo_sim::chip_config::stepped(0x6104, 1)), VELT_SUCCESS);
        ASSERT_TRUE(bus.cold_start(kavo_sim::image_build({3, 0, 2, 1})));
        kavo_config_t c;
        c.device_mode = KAVO_DEVICE_MODE_1200G_ENET;
        ASSERT_EQ(bus.exchange(KAVO_HTL_OPERATION_CONFIG, &c, sizeof(c)).result(), VELT_SUCCESS);
    }
    void TearDown() override { kavo_sim::chip_destroy_all(); }

    UINT32 group_prov(UINT32 chnl, const kavo_flexe_group_cfg_t& g)
    {
        return bus.exchange(KAVO_HTL_OPERATION_FLEXE_GROUP_PROV, &g, sizeof(g), info(chnl)).result();
    }
    UINT32 client_prov(UINT32 chnl, const kavo_flexe_client_t& c, UINT32 group = GROUP)
    {
        return bus.exchange(KAVO_HTL_OPERATION_FLEXE_CLIENT_ADD, &c, sizeof(c), info(chnl, 0xFFFFFFFF, group)).result();
    }
    UINT32 update(UINT32 scope, UINT32 ms)
    {
        return bus.exchange(KAVO_HTL_OPERATION_FLEXE_CALENDAR_UPDATE, &ms, 4, info(GROUP, scope)).result();
    }
    kavo_flexe_group_status_t status()
    {
        auto r = bus.exchange(KAVO_HTL_OPERATION_FLEXE_GROUP_STATUS_GET, nullptr, 0, info(GROUP));
        kavo_flexe_group_status_t s;
        EXPECT_EQ(r.result(), VELT_SUCCESS);
        EXPECT_EQ(r.data.size(), sizeof(s));
        std::memcpy(static_cast<void*>(&s), r.data.data(), std::min(r.data.size(), sizeof(s)));
        return s;
    }
    UINT32 op(UINT32 operation, kavo_htl_general_struct_t i = {}, const void* data = nullptr, UINT32 size = 0)
    {
        return bus.exchange(operation, data, size, i).result();
    }
    bus_client bus{kavo_sim::callouts(), 2};
};

TEST_F(SimFlexe, GroupRefusals)
{
    ASSERT_EQ(group_prov(3, [] {
        kavo_flexe_group_cfg_t g = two_phys();
        g.num_phys = 1;
        g.phys[0] = phy(0, 8, 1);
        return g;
    }()), VELT_SUCCESS) << "a group on ports 8-9";
    struct {
        const char* what;
        void (*spoil)(kavo_flexe_group_cfg_t&);
        UINT32 code;
    } bad[] = {
        {"group number 0", [](kavo_flexe_group_cfg_t& g) { g.group_info.flexe_group_number_rx = 0; },
         SEGMENT_BASE_ENET_FLEXE_GROUP_INVALID_FLEXE_GRP_NUM_ARG},
        {"group number unset", [](kavo_flexe_group_cfg_t& g) { g.group_info.init(); },
         SEGMENT_BASE_ENET_FLEXE_GROUP_INVALID_FLEXE_GRP_NUM_ARG},
        {"no PHYs", [](kavo_flexe_group_cfg_t& g) { g.num_phys = 0; }, SEGMENT_BASE_ERR_INVALID_ARG},
        {"PHY left at its defaults", [](kavo_flexe_group_cfg_t& g) { g.phys[1].init(); },
         SEGMENT_BASE_ENET_FLEXE_INVALID_PHY_ID},
        {"duplicate PHY number", [](kavo_flexe_group_cfg_t& g) { g.phys[1].phy_data_rx.flexe_phy_number = 1; },
         SEGMENT_BASE_ENET_FLEXE_PHY_INVALID_PHY_NUMBER_ARG},
        {"PHY number 255", [](kavo_flexe_group_cfg_t& g) { g.phys[1].phy_data_tx.flexe_phy_number = 255; },
         SEGMENT_BASE_ENET_FLEXE_PHY_INVALID_PHY_NUMBER_ARG},
        {"duplicate phy_id", [](kavo_flexe_group_cfg_t& g) { g.phys[1].phy_id = 0; }, SEGMENT_BASE_ENET_FLEXE_INVALID_PHY_ID},
        {"overlapping lanes", [](kavo_flexe_group_cfg_t& g) { g.phys[1] = phy(1, 0, 2, KAVO_FLEXE_PIN_MODE_100G_4_LANES); },
         SEGMENT_BASE_SERDES_PIN_ALREADY_USED_FOR_THIS_GROUP},
        {"lanes of another group", [](kavo_flexe_group_cfg_t& g) { g.phys[1].serdes_port_id = 8; },
         SEGMENT_BASE_ENET_FLEXE_SERDES_PIN_ALREADY_USED},
        {"mixed rates", [](kavo_flexe_group_cfg_t& g) { g.phys[1] = phy(1, 4, 2, KAVO_FLEXE_PIN_MODE_200G_4_LANES); },
         SEGMENT_BASE_ENET_FLEXE_GROUP_INVALID_FLEXE_MODE_ARG},
        {"unaligned lanes", [](kavo_flexe_group_cfg_t& g) { g.phys[1].serdes_port_id = 3; },
         SEGMENT_BASE_ERR_SERDES_PIN_NOT_ALIGN_QUAD},
        {"past the last port", [](kavo_flexe_group_cfg_t& g) { g.phys[1] = phy(1, 44, 2, KAVO_FLEXE_PIN_MODE_400G_8_LANES); },
         SEGMENT_BASE_ERR_ILLEGAL_SERDES_PORT_ID},
        {"eight instances", [](kavo_flexe_group_cfg_t& g) {
             g.phys[0] = phy(0, 16, 1, KAVO_FLEXE_PIN_MODE_400G_8_LANES);
             g.phys[1] = phy(1, 24, 2, KAVO_FLEXE_PIN_MODE_400G_8_LANES); },
         SEGMENT_BASE_ENET_FLEXE_GROUP_RESOURCES_INSUFFICENT},
        {"all slots unavailable", [](kavo_flexe_group_cfg_t& g) { g.phys[0].phy_data_tx.num_unavailable_slots = 20; },
         SEGMENT_BASE_ENET_FLEXE_PHY_TS_UNAVAILABLE_NUM_ARG},
        {"pin mode", [](kavo_flexe_group_cfg_t& g) { g.phys[0].pin_mode = LAST_KAVO_FLEXE_PIN_MODE; },
         SEGMENT_BASE_ERR_INVALID_SERDES_PIN_MODE},
        {"calendar mode", [](kavo_flexe_group_cfg_t& g) { g.initial_calendar = LAST_KAVO_FLEXE_CALENDAR_MODE; },
         SEGMENT_BASE_ENET_FLEXE_GROUP_INVALID_CAL_MODE_ARG},
        {"100G on four lanes goes with 100G on two", [](kavo_flexe_group_cfg_t& g) { g.phys[1] = phy(1, 4, 2, KAVO_FLEXE_PIN_MODE_100G_4_LANES); },
         VELT_SUCCESS},
    };
    for (auto& b : bad) {
        kavo_flexe_group_cfg_t g = two_phys();
        b.spoil(g);
        EXPECT_EQ(group_prov(GROUP, g), b.code) << b.what;
    }
    EXPECT_EQ(group_prov(3, two_phys()), UINT32(SEGMENT_BASE_ERR_EXISTING_CHNL_ID));
    EXPECT_EQ(group_prov(48, two_phys()), UINT32(SEGMENT_BASE_ERR_ILLEGAL_CHNL_ID));
    kavo_flexe_group_cfg_t g = two_phys();
    EXPECT_EQ(bus.exchange(KAVO_HTL_OPERATION_FLEXE_GROUP_PROV, &g, 156, info(12)).result(),
              UINT32(KAVO_FW_ERR_INVALID_PARAMETERS)) << "a short record";
    EXPECT_EQ(op(KAVO_HTL_OPERATION_FLEXE_GROUP_CONFIG_GET, info(12)), UINT32(SEGMENT_BASE_GROUP_INVALID_SEGMENT_TYPE));
}

TEST_F(SimFlexe, ClientsTakeWholeSlotsOfTheCalendarNotInUse)
{
    kavo_flexe_group_cfg_t g = two_phys();
    g.phys[1].phy_data_rx.num_unavailable_slots = 4; // rx slots 16..19 of instance 1
    ASSERT_EQ(group_prov(GROUP, g), VELT_SUCCESS);
    ASSERT_EQ(client_prov(20, client(1, 0x1F)), VELT_SUCCESS) << "25G";
    struct {
        const char* what;
        kavo_flexe_client_t c;
        UINT32 code;
    } bad[] = {
        {"client number taken", client(1, 0, 0x1), SEGMENT_BASE_ENET_FLEXE_CLIENT_TABLE_ADD_FAIL},
        {"client number 0", client(0, 0, 0x1), SEGMENT_BASE_ERR_INVALID_ARG},
        {"no slots", client(2, 0), SEGMENT_BASE_ENET_FLEXE_NO_CLIENT_SLOTS_PROVIDED},
        {"slot taken", client(2, 0x30), SEGMENT_BASE_ENET_FLEXE_TX_CLIENT_SLOTS_PREVIOUSLY_ALLOCATED},
        {"slot 20 of an instance", client(2, 1u << 20), SEGMENT_BASE_ENET_FLEXE_TX_CLIENT_SLOTS_ALLOCATED_PAST_UNAVAIL_SLOTS},
        {"unavailable rx slot", client(2, 0, 1u << 16), SEGMENT_BASE_ENET_FLEXE_RX_CLIENT_SLOTS_ALLOCATED_PAST_UNAVAIL_SLOTS},
        {"tx and rx rates differ", [] { auto c = client(2, 0x20); c.rx_client_data.flexe_client_slots[0] = 0x60; return c; }(),
         SEGMENT_BASE_ENET_FLEXE_TX_CLIENT_SLOTS_DIFFERENT_RATE_TO_RX_CLIENT_SLOTS},
    };
    for (auto& b : bad)
        EXPECT_EQ(client_prov(21, b.c), b.code) << b.what;
    EXPECT_EQ(client_prov(20, client(3, 0, 1)), UINT32(SEGMENT_BASE_ERR_EXISTING_CHNL_ID));
    EXPECT_EQ(client_prov(21, client(3, 0, 1), 20), UINT32(SEGMENT_BASE_GROUP_INVALID_SEGMENT_TYPE)) << "a client as group";

    // A 50G client across both instances; the calendar in use (A) stays empty.
    ASSERT_EQ(client_prov(21, client(2, 0xF8000, 0x1F)), VELT_SUCCESS);
    kavo_flexe_group_status_t s = status();
    EXPECT_EQ(s.num_clients, 2u);
    EXPECT_EQ(s.num_slots, 40u);
    EXPECT_EQ(s.tx_calendar_in_use, KAVO_FLEXE_CALENDAR_MODE_A);
    for (UINT32 slot = 0; slot < 80; ++slot) {
        const UINT8 want = slot < 5 ? 20 : slot >= 15 && slot < 25 ? 21 : slot < 40 ? 0xFF : 0xFE;
        EXPECT_EQ(s.tx_slot_client[1][slot], want) << "tx B slot " << slot;
        EXPECT_EQ(s.tx_slot_client[0][slot], slot < 40 ? 0xFF : 0xFE) << "tx A slot " << slot;
    }
    EXPECT_EQ(s.rx_slot_client[1][36], 0xFE) << "unavailable slots show";
}

TEST_F(SimFlexe, CalendarsSwitchWhenTheTimerHasRun)
{
    ASSERT_EQ(group_prov(GROUP, two_phys()), VELT_SUCCESS);
    ASSERT_EQ(client_prov(20, client(1, 0x3FF)), VELT_SUCCESS);
    ASSERT_EQ(update(KAVO_FLEXE_CALENDAR_UPDATE_MODE_TX_RX, 10), VELT_SUCCESS);
    EXPECT_EQ(update(KAVO_FLEXE_CALENDAR_UPDATE_MODE_TX, 1), UINT32(SEGMENT_BASE_ENET_FLEXE_GROUP_CAL_MODE_SW_NOT_COMPLETE));
    EXPECT_EQ(client_prov(21, client(2, 0x400)), UINT32(SEGMENT_BASE_ENET_FLEXE_GROUP_CAL_MODE_SW_NOT_COMPLETE));
    kavo_sim::chip_get(2)->advance_time(6000);
    kavo_flexe_group_status_t s = status();
    EXPECT_TRUE(s.switch_pending);
    EXPECT_TRUE(s.switch_remaining_ms == 4 || s.switch_remaining_ms == 3) << s.switch_remaining_ms;
    EXPECT_EQ(s.rx_calendar_in_use, KAVO_FLEXE_CALENDAR_MODE_A);
    kavo_sim::chip_get(2)->advance_time(4000);
    s = status();
    EXPECT_FALSE(s.switch_pending);
    EXPECT_EQ(s.tx_calendar_in_use, KAVO_FLEXE_CALENDAR_MODE_B);
    EXPECT_EQ(s.rx_calendar_in_use, KAVO_FLEXE_CALENDAR_MODE_B);
    EXPECT_EQ(s.tx_slot_client[0][9], 20) << "the calendar left starts as a copy of the one in use";

    // The next client goes into A; switching only transmit leaves receive on B.
    ASSERT_EQ(client_prov(21, client(2, 0x400)), VELT_SUCCESS);
    ASSERT_EQ(update(KAVO_FLEXE_CALENDAR_UPDATE_MODE_TX, 0), VELT_SUCCESS);
    s = status();
    EXPECT_EQ(s.tx_calendar_in_use, KAVO_FLEXE_CALENDAR_MODE_A);
    EXPECT_EQ(s.rx_calendar_in_use, KAVO_FLEXE_CALENDAR_MODE_B);
    EXPECT_EQ(s.tx_slot_client[0][10], 21);
    EXPECT_EQ(s.rx_slot_client[1][10], 0xFF);
    EXPECT_EQ(update(KAVO_FLEXE_CALENDAR_UPDATE_MODE_ANY, 0), UINT32(SEGMENT_BASE_ENET_FLEXE_GROUP_INVALID_CAL_MODE_ARG));

    kavo_flexe_group_cfg_t fixed = two_phys();
    fixed.group_info.calendar_update_mode = KAVO_FLEXE_CALENDAR_UPDATE_MODE_RX;
    fixed.phys[0] = phy(0, 4, 1), fixed.phys[1] = phy(1, 6, 2);
    ASSERT_EQ(group_prov(11, fixed), VELT_SUCCESS);
    UINT32 ms = 0;
    EXPECT_EQ(bus.exchange(KAVO_HTL_OPERATION_FLEXE_CALENDAR_UPDATE, &ms, 4, info(11, KAVO_FLEXE_CALENDAR_UPDATE_MODE_TX)).result(),
              UINT32(SEGMENT_BASE_ENET_FLEXE_GROUP_INVALID_CAL_MODE_ARG)) << "a group that switches receive only";
}

class SimFlexeOhp : public SimFlexe {
  protected:
    void SetUp() override
    {
        SimFlexe::SetUp();
        ASSERT_EQ(op(KAVO_HTL_OPERATION_FLEXE_OHP_PROV, info(0xFFFFFFFF, KAVO_FLEXE_OHP_INTERFACE_MODE_SGMII)), VELT_SUCCESS);
    }
    UINT32 write(std::vector<UINT8> frame)
    {
        return op(KAVO_HTL_OPERATION_FLEXE_OHP_DBG_CHNL_WRITE, info(UINT32(frame.size())), frame.data(), UINT32(frame.size()));
    }
    kavo_sim::exchange_result read(UINT32 max) { return bus.exchange(KAVO_HTL_OPERATION_FLEXE_OHP_DBG_CHNL_READ, nullptr, 0, info(max)); }
};

std::vector<UINT8> frame_of(UINT32 len)
{
    std::vector<UINT8> f(len);
    for (UINT32 i = 0; i < len; ++i)
        f[i] = UINT8(i * 7 + 1);
    return f;
}

TEST_F(SimFlexeOhp, DebugFramesComeBackThroughALoopback)
{
    ASSERT_EQ(op(KAVO_HTL_OPERATION_FLEXE_OHP_DBG_CHNL_PROV, info(100, 0xFFFFFFFF, 0xFFFFFFFF, 0)), VELT_SUCCESS);
    ASSERT_EQ(write(frame_of(64)), VELT_SUCCESS);
    EXPECT_EQ(read(2000).data.size(), 0u) << "without a loopback the frame leaves on the GE interface";

    ASSERT_EQ(op(KAVO_HTL_OPERATION_FLEXE_OHP_LOOPBACK, info(0xFFFFFFFF, KAVO_FLEXE_OHP_LOOPBACK_OH)), VELT_SUCCESS);
    ASSERT_EQ(write(frame_of(64)), VELT_SUCCESS);
    EXPECT_EQ(read(67).result(), UINT32(ENET_FLEXE_OH_PARSER_MACRO_ERR_INVALID_ARG)) << "the tag makes it 68 bytes";
    auto r = read(68);
    ASSERT_EQ(r.result(), VELT_SUCCESS);
    std::vector<UINT8> want = frame_of(64);
    const UINT8 tag[] = {0x81, 0x00, 0x00, 100};
    want.insert(want.begin() + 12, tag, tag + 4);
    EXPECT_EQ(r.data, want) << "the frame kept for the first, too short read";

    EXPECT_EQ(write(frame_of(13)), UINT32(ENET_FLEXE_OH_INSERT_MACRO_ERR_INVALID_ARG));
    EXPECT_EQ(write(frame_of(1520)), UINT32(ENET_FLEXE_OH_INSERT_MACRO_ERR_INVALID_ARG));
    for (int i = 0; i < 17; ++i)
        ASSERT_EQ(write(frame_of(60)), VELT_SUCCESS);
    auto d = bus.exchange(KAVO_HTL_OPERATION_FLEXE_OHP_DEBUG_PMON_GET);
    kavo_flexe_ohp_debug_pmon_t dbg;
    ASSERT_EQ(d.data.size(), sizeof(dbg));
    std::memcpy(static_cast<void*>(&dbg), d.data.data(), sizeof(dbg));
    EXPECT_EQ(dbg.frames_written, 19u);
    EXPECT_EQ(dbg.frames_looped_back, 17u);
    EXPECT_EQ(dbg.frames_read, 1u);
    EXPECT_EQ(dbg.frames_dropped, 1u) << "the queue holds 16";

    auto g = bus.exchange(KAVO_HTL_OPERATION_FLEXE_OHP_GE_PMON_GET, nullptr, 0, info(0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 1));
    kavo_flexe_ohp_ge_pmon_t ge;
    ASSERT_EQ(g.data.size(), sizeof(ge));
    std::memcpy(static_cast<void*>(&ge), g.data.data(), sizeof(ge));
    EXPECT_EQ(ge.tx_frames, 19u);
    EXPECT_EQ(ge.tx_octets_lsb, 2 * 68u + 17 * 64u);
    EXPECT_EQ(ge.rx_frames, 18u);
    EXPECT_EQ(ge.rx_length_errors, 2u);
    g = bus.exchange(KAVO_HTL_OPERATION_FLEXE_OHP_GE_PMON_GET, nullptr, 0, info(0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0));
    std::memcpy(static_cast<void*>(&ge), g.data.data(), sizeof(ge));
    EXPECT_EQ(ge.tx_frames, 0u) << "reset after the read";

}

TEST_F(SimFlexeOhp, ChannelsNeedAGroupPhyAndTheirOwnVlans)
{
    ASSERT_EQ(group_prov(GROUP, two_phys()), VELT_SUCCESS);
    kavo_flexe_ohp_chnl_cfg_data_t tags;
    tags.shim_vlan_tag = 10, tags.section_vlan_tag = 11;
    auto chnl = [&](UINT32 group, UINT32 phy_id, UINT32 shim, UINT32 section) {
        kavo_flexe_ohp_chnl_cfg_data_t t;
        t.shim_vlan_tag = shim, t.section_vlan_tag = section;
        return op(KAVO_HTL_OPERATION_FLEXE_OHP_CHNL_PROV, info(phy_id, 0xFFFFFFFF, group), &t, sizeof(t));
    };
    ASSERT_EQ(chnl(GROUP, 1, 10, 11), VELT_SUCCESS);
    EXPECT_EQ(chnl(GROUP, 1, 12, 13), UINT32(SEGMENT_BASE_ERR_PHYSICAL_RESOURCE_UNAVAILABLE)) << "the PHY's channel exists";
    EXPECT_EQ(chnl(GROUP, 2, 12, 13), UINT32(ENET_FLEXE_OH_PARSER_MACRO_ERR_INVALID_PHY_REF)) << "no PHY 2 in the group";
    EXPECT_EQ(chnl(11, 0, 12, 13), UINT32(SEGMENT_BASE_GROUP_INVALID_SEGMENT_TYPE));
    EXPECT_EQ(chnl(GROUP, 0, 11, 13), UINT32(ENET_FLEXE_OH_INSERT_MACRO_ERR_INVALID_ARG)) << "VLAN 11 taken";
    EXPECT_EQ(chnl(GROUP, 0, 12, 12), UINT32(ENET_FLEXE_OH_INSERT_MACRO_ERR_INVALID_ARG)) << "one VLAN for both";
    EXPECT_EQ(chnl(GROUP, 0, 12, 4095), UINT32(ENET_FLEXE_OH_INSERT_MACRO_ERR_INVALID_ARG));
    EXPECT_EQ(op(KAVO_HTL_OPERATION_FLEXE_OHP_DBG_CHNL_PROV, info(10)), UINT32(ENET_FLEXE_OH_INSERT_MACRO_ERR_INVALID_ARG));
    EXPECT_EQ(op(KAVO_HTL_OPERATION_FLEXE_OHP_DEPROV), UINT32(SEGMENT_BASE_ERR_CLEANABLE_APPLICATION_BLOCKING));
    ASSERT_EQ(op(KAVO_HTL_OPERATION_FLEXE_OHP_CHNL_DEPROV, info(1, 0xFFFFFFFF, GROUP)), VELT_SUCCESS);
    EXPECT_EQ(op(KAVO_HTL_OPERATION_FLEXE_OHP_CHNL_DEPROV, info(1, 0xFFFFFFFF, GROUP)),
              UINT32(SEGMENT_BASE_ERR_PHYSICAL_RESOURCE_NOT_ASSIGNED));
    ASSERT_EQ(op(KAVO_HTL_OPERATION_FLEXE_OHP_DEPROV), VELT_SUCCESS);
    EXPECT_EQ(op(KAVO_HTL_OPERATION_FLEXE_OHP_LOOPBACK, info(0xFFFFFFFF, 1)), UINT32(SEGMENT_BASE_ERR_PHYSICAL_RESOURCE_NOT_ASSIGNED));
}

} // namespace
