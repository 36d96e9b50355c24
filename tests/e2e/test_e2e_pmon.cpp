// Counter commands end to end: trigger configuration and its refusals, manual
// and automatic triggers with their interrupt, snapshots, unknown objects.
#include <gtest/gtest.h>

#include "kavo_test_device.h"

using kavo_test::device_test;

namespace {

/* The interrupt the firmware raised towards the host (0 or 1). */
UINT32 raised(kavo_ipi_type_t type)
{
    UINT32 status = 0;
    EXPECT_EQ(kavo_ipi_interrupt_status_get(0, &status), VELT_SUCCESS);
    return (status >> type) & 1;
}

void expect_cfg(UINT32 auto_trigger, UINT32 accumulate, UINT32 period, const char* what)
{
    kavo_pmon_cfg_t c;
    c.trigger_period_ms = 7;
    ASSERT_EQ(kavo_pmon_cfg_get(0, &c), VELT_SUCCESS) << what;
    EXPECT_EQ(c.auto_trigger, auto_trigger) << what;
    EXPECT_EQ(c.accumulate_enable, accumulate) << what;
    EXPECT_EQ(c.trigger_period_ms, period) << what;
    EXPECT_EQ(c.debug_counter_enable, 0u) << what;
}

TEST_F(device_test, PmonConfigurationAndItsRefusals)
{
    ASSERT_EQ(bring_up(0), VELT_SUCCESS);
    expect_cfg(0, 0, 1000, "defaults");
    ASSERT_EQ(kavo_pmon_cfg(0, 0, 1, 250), VELT_SUCCESS);
    expect_cfg(0, 1, 250, "set");
    struct {
        UINT32 auto_trigger, accumulate, period;
    } bad[] = {{1, 0, 0}, {2, 0, 100}, {0, 3, 100}};
    for (auto& b : bad)
        EXPECT_EQ(kavo_pmon_cfg(0, b.auto_trigger, b.accumulate, b.period), UINT32(PMON_ERR_INVALID_PARAMS));
    expect_cfg(0, 1, 250, "unchanged by a refusal");

    // A device configuration brings its own counter settings.
    kavo_config_t cfg;
    cfg.device_mode = KAVO_DEVICE_MODE_1200G_ENET;
    cfg.pmon.auto_trigger = 1;
    cfg.pmon.trigger_period_ms = 200;
    ASSERT_EQ(kavo_device_config(0, &cfg), VELT_SUCCESS);
    expect_cfg(1, 0, 200, "from the device configuration");
    EXPECT_EQ(kavo_pmon_manual_trigger(0), UINT32(PMON_ERR_MANUAL_TRIGGER_DISABLED));
}

TEST_F(device_test, TriggersSnapshotEveryObjectAndInterrupt)
{
    ASSERT_EQ(bring_up(0), VELT_SUCCESS);
    ASSERT_EQ(kavo_ipi_clear(0, VELT_IPI_PMON_TRIGGER), VELT_SUCCESS);
    kavo_pmon_flexe_group_t group;
    ASSERT_EQ(kavo_flexe_group_pmon_get(0, 11, 0, &group), VELT_SUCCESS);
    EXPECT_EQ(group.trigger_count, 0u) << "nothing until a trigger";

    kavo_sim::chip_get(0)->advance_time(300000);
    ASSERT_EQ(kavo_pmon_manual_trigger(0), VELT_SUCCESS);
    EXPECT_EQ(raised(VELT_IPI_PMON_TRIGGER), 1u);
    kavo_pmon_ilkn_intf_t intf;
    kavo_pmon_ilkn_pkt_t pkt;
    kavo_pmon_flexe_client_t client;
    ASSERT_EQ(kavo_ilkn_intf_pmon_get(0, 0, &intf), VELT_SUCCESS);
    ASSERT_EQ(kavo_ilkn_pkt_pmon_get(0, 7, 0, &pkt), VELT_SUCCESS);
    ASSERT_EQ(kavo_flexe_client_pmon_get(0, 23, 1, &client), VELT_SUCCESS);
    EXPECT_EQ(intf.trigger_count + pkt.trigger_count + client.trigger_count, 3u);
    EXPECT_GE(intf.period_ms, 300u);
    ASSERT_EQ(kavo_flexe_client_pmon_get(0, 23, 0, &client), VELT_SUCCESS);
    EXPECT_EQ(client.period_ms, 0u) << "reset";

    // Automatic: every 100 ms of chip time.
    ASSERT_EQ(kavo_ipi_clear(0, VELT_IPI_PMON_TRIGGER), VELT_SUCCESS);
    ASSERT_EQ(kavo_pmon_cfg(0, 1, 0, 100), VELT_SUCCESS);
    kavo_sim::chip_get(0)->advance_time(1000000);
    EXPECT_EQ(raised(VELT_IPI_PMON_TRIGGER), 1u);
    ASSERT_EQ(kavo_flexe_group_pmon_get(0, 0, 0, &group), VELT_SUCCESS);
    EXPECT_GE(group.trigger_count, 11u);
    EXPECT_EQ(group.period_ms, 100u);
}

TEST_F(device_test, PmonUnknownObjects)
{
    ASSERT_EQ(bring_up(0), VELT_SUCCESS);
    kavo_pmon_enet_port_segment_t port;
    kavo_pmon_ilkn_pkt_t pkt;
    kavo_pmon_flexe_client_t client;
    kavo_pmon_flexe_group_t group;
    EXPECT_EQ(kavo_enet_port_pmon_get(0, 0, 0, &port), UINT32(PMON_ERR_INVALID_CHNL_ID)) << "not provisioned";
    EXPECT_EQ(kavo_enet_port_pmon_get(0, 48, 0, &port), UINT32(PMON_ERR_INVALID_CHNL_ID));
    EXPECT_EQ(kavo_ilkn_pkt_pmon_get(0, 8, 0, &pkt), UINT32(PMON_ERR_INVALID_CHNL_ID));
    EXPECT_EQ(kavo_flexe_client_pmon_get(0, 24, 0, &client), UINT32(PMON_ERR_INVALID_CHNL_ID));
    EXPECT_EQ(kavo_flexe_group_pmon_get(0, 12, 0, &group), UINT32(PMON_ERR_INVALID_CHNL_ID));
    EXPECT_EQ(kavo_flexe_group_pmon_get(0, 1, 2, &group), UINT32(PMON_ERR_INVALID_PARAMS)) << "reset not a bool";
}

} // namespace
