// Failures that take the library's full waiting time: a reply time-out (6 s)
// and a firmware that never starts (about 15 s of start-up polling).
#include <gtest/gtest.h>

#include <string>

#include "kavo_device.h"
#include "kavo_test_device.h"
#include "kavo_test_log.h"

using kavo_test::device_test;
using kavo_test::take;

using kavo_test::has;
using kavo_test::ping;

TEST_F(device_test, FirmwareThatStopsAnsweringGoesOfflineUntilReconnected)
{
    ASSERT_EQ(bring_up(0), VELT_SUCCESS);
    kavo_sim::fault_config f;
    f.fw_hang = true;
    kavo_sim::chip_get(0)->faults(f);
    take();
    // The caller's response tells the time-out as well: this device, no operation, offline.
    UINT32 word = 1, back = 0;
    kavo_htl_request_t request;
    request.device_id = 0;
    request.operation = KAVO_HTL_OPERATION_DEBUG_PING;
    request.data_ptr = &word;
    request.data_size = 4;
    kavo_htl_response_t response;
    response.data_ptr = &back;
    response.data_size = 4;
    EXPECT_EQ(kavo_device::send(request, response), HTL_ERR_DEVICE_OFFLINE);
    EXPECT_EQ(response.result, (VELT_ERROR)HTL_ERR_DEVICE_OFFLINE);
    EXPECT_EQ((UINT32)response.operation, 4098u);
    EXPECT_EQ(response.device_id, 0u);
    const std::string log = take();
    EXPECT_TRUE(has(log, " HOST_MSG IPI: 0\n")) << log;
    size_t first = log.find(" VELT_RUNTIME_ERROR( HTL_ERR_DEVICE_OFFLINE )\n");
    ASSERT_NE(first, std::string::npos);
    EXPECT_NE(log.find(" VELT_RUNTIME_ERROR( HTL_ERR_DEVICE_OFFLINE )\n", first + 1), std::string::npos);
    EXPECT_TRUE(has(log, "velt_circular_buffer_reader: start of console log\n")) << "the firmware's logs are dumped";

    EXPECT_EQ(ping(0), HTL_ERR_DEVICE_NOT_CONNECTED);
    kavo_status_info_t status;
    EXPECT_EQ(kavo_device_status_get(0, &status), HTL_ERR_DEVICE_NOT_CONNECTED);
    EXPECT_EQ(status.device_connected, 0);

    // A cold start brings it back.
    ASSERT_EQ(kavo_device_uninit(0, 0), VELT_SUCCESS);
    kavo_sim::chip_get(0)->faults(kavo_sim::fault_config{});
    ASSERT_EQ(kavo_device_init(0, KAVO_INIT_COLD), VELT_SUCCESS) << take();
    EXPECT_EQ(ping(0), VELT_SUCCESS);
}


TEST_F(device_test, CorruptImageNeverStarts)
{
    kavo_fw_filename_set(kavo_test::make_image("corrupt.mem", 3, 0, 2, 1, true).c_str());
    EXPECT_EQ(bring_up(0), KAVO_ERR_FW_BOOT_FAIL);
}

