// PE hosts end to end: the device modes that take them, the checks of the
// host channel and the VLAN map, the channel claimed and released, and the
// deprovisioning request that announces a record it does not carry.
#include <gtest/gtest.h>

#include "kavo_test_device.h"
#include "kavo_test_log.h"

using kavo_test::device_test;
using kavo_test::take;

namespace {

constexpr UINT32 ID = 0;

kavo_pe_config_t two_lines(UINT32 host_chnl)
{
    kavo_pe_config_t c;
    c.host_chnl_id = host_chnl;
    c.num_maps = 2;
    c.vlan_id[0] = 100, c.line_chnl_id[0] = 20, c.pfc_class[0] = 3;
    c.vlan_id[1] = 200, c.line_chnl_id[1] = 21;
    return c;
}

class pe_test : public device_test {
  protected:
    void SetUp() override
    {
        device_test::SetUp();
        ASSERT_EQ(bring_up(ID), VELT_SUCCESS) << take();
    }
    VELT_ERROR configure(kavo_device_mode_t mode)
    {
        kavo_config_t c;
        c.device_mode = mode;
        return kavo_device_config(ID, &c);
    }
    kavo_segment_type_t channel(UINT32 chnl)
    {
        kavo_chnl_info_t info;
        EXPECT_EQ(kavo_device_chnl_get(ID, &info), VELT_SUCCESS);
        return info.info[chnl];
    }
};

}  // namespace

TEST_F(pe_test, AcceptedInTheEthernetDeviceModeOnly)
{
    const kavo_pe_config_t c = two_lines(5);
    EXPECT_EQ(kavo_pe_prov(ID, KAVO_PE_HOST_ID_0, &c), UINT32(KAVO_ERR_FW_NOT_CONFIGURED));
    for (kavo_device_mode_t mode :
         {KAVO_DEVICE_MODE_1200G_ILKN, KAVO_DEVICE_MODE_800G_FGB, KAVO_DEVICE_MODE_800G_RGB}) {
        ASSERT_EQ(configure(mode), VELT_SUCCESS);
        EXPECT_EQ(kavo_pe_prov(ID, KAVO_PE_HOST_ID_0, &c), UINT32(PE_CANNOT_USE_API_IN_THIS_DEVICE_MODE)) << mode;
        EXPECT_EQ(kavo_pe_deprov(ID, KAVO_PE_HOST_ID_0), UINT32(PE_CANNOT_USE_API_IN_THIS_DEVICE_MODE)) << mode;
    }
    ASSERT_EQ(configure(KAVO_DEVICE_MODE_1200G_ENET), VELT_SUCCESS);
    EXPECT_EQ(kavo_pe_prov(ID, KAVO_PE_HOST_ID_0, &c), VELT_SUCCESS);
}

TEST_F(pe_test, HostChannelAndVlanMapAreChecked)
{
    ASSERT_EQ(configure(KAVO_DEVICE_MODE_1200G_ENET), VELT_SUCCESS);
    const kavo_pe_config_t first = two_lines(30);
    ASSERT_EQ(kavo_pe_prov(ID, KAVO_PE_HOST_ID_1, &first), VELT_SUCCESS);
    struct {
        const char* what;
        void (*spoil)(kavo_pe_config_t&);
        UINT32 code;
    } bad[] = {
        {"host channel 48", [](kavo_pe_config_t& c) { c.host_chnl_id = 48; }, PE_ENET_HOST_INVALID_CHNL_ID},
        {"host channel taken", [](kavo_pe_config_t& c) { c.host_chnl_id = 30; }, PE_ENET_HOST_INVALID_CHNL_ID},
        {"rate", [](kavo_pe_config_t& c) { c.host_rate_gbps = 300; }, PE_ENET_HOST_INVALID_RATE},
        {"no map", [](kavo_pe_config_t& c) { c.num_maps = 0; }, PE_INVALID_VLAN_CHNL_ID_MAP},
        {"nine maps", [](kavo_pe_config_t& c) { c.num_maps = 9; }, PE_INVALID_VLAN_CHNL_ID_MAP},
        {"vlan 0", [](kavo_pe_config_t& c) { c.vlan_id[1] = 0; }, PE_INVALID_VLAN_CHNL_ID_MAP},
        {"vlan 4095", [](kavo_pe_config_t& c) { c.vlan_id[0] = 4095; }, PE_INVALID_VLAN_CHNL_ID_MAP},
        {"pfc class 8", [](kavo_pe_config_t& c) { c.pfc_class[1] = 8; }, PE_INVALID_VLAN_CHNL_ID_MAP},
        {"line 48", [](kavo_pe_config_t& c) { c.line_chnl_id[1] = 48; }, PE_ENET_LINE_INVALID_CHNL_ID},
        {"line is host", [](kavo_pe_config_t& c) { c.line_chnl_id[1] = 5; }, PE_ENET_LINE_INVALID_CHNL_ID},
        {"line is a PE host", [](kavo_pe_config_t& c) { c.line_chnl_id[0] = 30; }, PE_ENET_LINE_INVALID_CHNL_ID},
        {"vlan twice", [](kavo_pe_config_t& c) { c.vlan_id[1] = 100; }, PE_DUPLICATED_VLAN_CHNL_ID_MAP},
        {"line twice", [](kavo_pe_config_t& c) { c.line_chnl_id[1] = 20; }, PE_DUPLICATED_VLAN_CHNL_ID_MAP},
        {"pfc class twice", [](kavo_pe_config_t& c) { c.pfc_class[1] = 3; }, PE_DUPLICATED_PE_PFC_CHANNEL_MAP},
        {"tpid", [](kavo_pe_config_t& c) { c.tpid = 0x9100; }, KAVO_FW_ERR_INVALID_PARAMETERS},
    };
    for (auto& b : bad) {
        kavo_pe_config_t c = two_lines(5);
        c.line_chnl_id[0] = 22, c.line_chnl_id[1] = 23;  // lines of their own, unless spoiled
        b.spoil(c);
        EXPECT_EQ(kavo_pe_prov(ID, KAVO_PE_HOST_ID_0, &c), b.code) << b.what;
    }
    kavo_pe_config_t shared = two_lines(5);
    EXPECT_EQ(kavo_pe_prov(ID, KAVO_PE_HOST_ID_0, &shared), UINT32(PE_DUPLICATED_VLAN_CHNL_ID_MAP))
        << "lines 20 and 21 belong to host 1";
    EXPECT_EQ(kavo_pe_prov(ID, LAST_KAVO_PE_HOST_ID, &shared), UINT32(KAVO_FW_ERR_NUMBER_OUT_OF_RANGE));
    EXPECT_EQ(kavo_pe_prov(ID, KAVO_PE_HOST_ID_0, nullptr), UINT32(VELT_ERR_INVALID_ARGS));
    EXPECT_EQ(channel(5), KAVO_SEGMENT_TYPE_UNUSED) << "refusals claim nothing";
}

TEST_F(pe_test, ProvisioningClaimsTheHostChannelUntilDeprovisioned)
{
    ASSERT_EQ(configure(KAVO_DEVICE_MODE_1200G_ENET), VELT_SUCCESS);
    const kavo_pe_config_t c = two_lines(7);
    ASSERT_EQ(kavo_pe_prov(ID, KAVO_PE_HOST_ID_2, &c), VELT_SUCCESS);
    EXPECT_EQ(channel(7), KAVO_SEGMENT_TYPE_PE_HOST);
    EXPECT_EQ(kavo_pe_prov(ID, KAVO_PE_HOST_ID_2, &c), UINT32(PE_CANNOT_SET_PE_CFG_AFTER_PE_PROV));

    // The deprovisioning header announces 48 bytes; only the header crosses the bus.
    kavo_sim::chip_get(ID)->journal_reset();
    ASSERT_EQ(kavo_pe_deprov(ID, KAVO_PE_HOST_ID_2), VELT_SUCCESS) << take();
    const kavo_sim::journal_snapshot j = kavo_sim::chip_get(ID)->journal();
    EXPECT_EQ(j.counters.words_written, KAVO_HTL_HEADER_SIZE / 4);
    EXPECT_EQ(j.counters.reads + j.counters.writes + j.counters.burst_reads + j.counters.burst_writes,
              kavo_test::BUS_PER_COMMAND);
    for (const auto& e : j.events) {
        if (e.kind == kavo_sim::event_kind::request) {
            EXPECT_EQ(e.data_size, 48u);
        }
    }

    EXPECT_EQ(channel(7), KAVO_SEGMENT_TYPE_UNUSED);
    EXPECT_EQ(kavo_pe_deprov(ID, KAVO_PE_HOST_ID_2), UINT32(KAVO_FW_ERR_INVALID_PARAMETERS)) << "not provisioned";
    EXPECT_EQ(kavo_pe_prov(ID, KAVO_PE_HOST_ID_2, &c), VELT_SUCCESS) << "provisioned again after its release";
    ASSERT_EQ(configure(KAVO_DEVICE_MODE_1200G_ILKN), VELT_SUCCESS);
    EXPECT_EQ(kavo_pe_deprov(ID, KAVO_PE_HOST_ID_2), VELT_SUCCESS) << "a host is released in any mode";
    EXPECT_EQ(channel(7), KAVO_SEGMENT_TYPE_UNUSED);
}
