// The datapath handlers of the virtual device on raw mailbox exchanges: what
// the library never sends (short records, a record that disagrees with the
// request's own fields) and what a shutdown leaves behind.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "kavo_sim/bus_client.h"
#include "kavo_sim/kavo_sim.h"

namespace {

class SimDatapath : public ::testing::Test {
  protected:
    void SetUp() override
    {
        ASSERT_EQ(kavo_sim::chip_create(3, kavo_sim::chip_config::stepped()), VELT_SUCCESS);
        ASSERT_TRUE(bus.cold_start(kavo_sim::image_build({3, 0, 2, 1})));
        kavo_config_t c;
        c.device_mode = KAVO_DEVICE_MODE_1200G_ENET;
        ASSERT_EQ(bus.exchange(KAVO_HTL_OPERATION_CONFIG, &c, sizeof(c)).result(), VELT_SUCCESS);
        port.enet_chnl_id = 4;
        port.serdes_port_id = 8;
        port.fec = KAVO_ENET_FEC_MODE_RS_544; // mandatory on the PAM4 lanes of the default mode
    }
    void TearDown() override { kavo_sim::chip_destroy_all(); }
    UINT32 prov(const kavo_traffic_enet_t& t, UINT32 chnl, UINT32 parent, UINT32 size = sizeof(kavo_traffic_enet_t))
    {
        kavo_htl_general_struct_t info;
        info.element_id = chnl;
        info.parent_id = parent;
        // A longer payload than the record carries zeros after it.
        std::vector<UINT8> payload(std::max<size_t>(size, sizeof(t)), 0);
        std::memcpy(payload.data(), &t, sizeof(t));
        return bus.exchange(KAVO_HTL_OPERATION_ENET_PROV, payload.data(), size, info).result();
    }
    kavo_sim::bus_client bus{kavo_sim::callouts(), 3};
    kavo_traffic_enet_t port; // the defaults: 100G over two 50G PAM4 lanes, MAC
};

} // namespace

TEST_F(SimDatapath, ProvisioningRecordMustAgreeWithTheRequest)
{
    struct {
        const char* what;
        UINT32 chnl, parent, size, code;
    } cases[] = {
        {"a short record", 4, 8, 84, KAVO_FW_ERR_INVALID_PARAMETERS},
        {"a long record", 4, 8, 92, KAVO_FW_ERR_INVALID_PARAMETERS},
        {"another channel", 5, 8, 88, ENET_LOG_ERR_INVALID_PARAMETERS},
        {"another first lane", 4, 12, 88, ENET_LOG_ERR_INVALID_PARAMETERS},
        {"as sent by the library", 4, 8, 88, VELT_SUCCESS},
    };
    for (const auto& c : cases) EXPECT_EQ(prov(port, c.chnl, c.parent, c.size), c.code) << c.what;

    kavo_traffic_enet_t custom = port;
    custom.enet_chnl_id = 6;
    custom.use_custom_serdes_lanes = 1;
    const UINT32 lanes[8] = {17, 16, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF};
    std::copy(std::begin(lanes), std::end(lanes), custom.serdes_lanes);
    EXPECT_EQ(prov(custom, 6, 16), UINT32(ENET_LOG_ERR_INVALID_PARAMETERS)) << "the first lane is the list's";
    EXPECT_EQ(prov(custom, 6, 17), VELT_SUCCESS);
    custom.use_custom_serdes_lanes = 2;
    custom.enet_chnl_id = 7;
    EXPECT_EQ(prov(custom, 7, 17), UINT32(ENET_LOG_ERR_INVALID_PARAMETERS));
}

TEST_F(SimDatapath, ShutdownReleasesChannelsLanesAndConnections)
{
    ASSERT_EQ(prov(port, 4, 8), VELT_SUCCESS);
    kavo_htl_general_struct_t info;
    info.element_id = 4;
    EXPECT_EQ(bus.exchange(KAVO_HTL_OPERATION_LOOPBACK_GET, nullptr, 0, info).result(), VELT_SUCCESS);
    ASSERT_EQ(bus.exchange(KAVO_HTL_OPERATION_SHUTDOWN).result(), VELT_SUCCESS);
    EXPECT_EQ(bus.exchange(KAVO_HTL_OPERATION_LOOPBACK_GET, nullptr, 0, info).result(),
              UINT32(KAVO_ERR_FW_NOT_CONFIGURED));
    kavo_config_t c;
    c.device_mode = KAVO_DEVICE_MODE_1200G_ENET;
    ASSERT_EQ(bus.exchange(KAVO_HTL_OPERATION_CONFIG, &c, sizeof(c)).result(), VELT_SUCCESS);
    EXPECT_EQ(bus.exchange(KAVO_HTL_OPERATION_LOOPBACK_GET, nullptr, 0, info).result(),
              UINT32(SEGMENT_BASE_ERR_NO_SEGMENT_FOR_CHNL_ID));
    kavo_traffic_enet_t other = port;
    other.enet_chnl_id = 9;
    EXPECT_EQ(prov(other, 9, 8), VELT_SUCCESS) << "the lanes are free";
}
