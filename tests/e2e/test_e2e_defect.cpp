// Defect commands end to end: request packing as the firmware sees it, trace
// fragments, defects that follow the world outside the chip, latches and their
// clearing, enables and the defect interrupt, the summary, refusals.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>

#include "kavo_test_device.h"
#include "kavo_test_log.h"

using kavo_test::device_test;
using kavo_test::has;
using kavo_test::take;

namespace {

UINT32 mailbox_word(UINT32 byte_offset)
{
    return kavo_sim::chip_get(0)->ram_peek(VELT_SHARED_MEMORY_HTL_REQUEST_ADDR + byte_offset);
}

UINT64 bus_transactions()
{
    const kavo_sim::journal_counters c = kavo_sim::chip_get(0)->counters();
    return c.reads + c.writes + c.burst_reads + c.burst_writes;
}

constexpr UINT32 NONE = 0xFFFFFFFF;

/* The interrupt the firmware raised towards the host (0 or 1). */
UINT32 raised(kavo_ipi_type_t type)
{
    UINT32 status = 0;
    EXPECT_EQ(kavo_ipi_interrupt_status_get(0, &status), VELT_SUCCESS);
    return (status >> type) & 1;
}
constexpr UINT32 LOS = offsetof(kavo_defect_serdes_t, los);

kavo_defect_serdes_t serdes(UINT32 port, kavo_defect_transfer_clear_t clear = KAVO_DEFECT_CLEAR_NONE)
{
    kavo_defect_serdes_t d;
    EXPECT_EQ(kavo_serdes_port_defect_get(0, port, clear, &d), VELT_SUCCESS);
    return d;
}

TEST_F(device_test, DefectRequestsArePackedAsTheFirmwareExpects)
{
    ASSERT_EQ(bring_up(0), VELT_SUCCESS);
    kavo_defect_dcsu_t dcsu;
    kavo_defect_tlic_t tlic;
    kavo_defect_ilkn_intf_t intf;
    struct {
        const char* what;
        std::function<VELT_ERROR()> call;
        VELT_ERROR result;
        UINT32 op, element, mode, flag, size;
        UINT64 transactions;
    } cases[] = {
        {"chnl_e_set", [] { return kavo_defect_chnl_e_set(0, 7, KAVO_DEFECT_TYPE_DCSU, 1, 1); },
         DEFECTS_ERR_UNKNOWN_CHNL_ID, KAVO_HTL_OPERATION_DEFECT_E_SET, 7, 9, 1, 1, kavo_test::BUS_PER_COMMAND},
        {"v_set", [] { return kavo_defect_v_set(0, KAVO_DEFECT_TYPE_TLIC, 103, 0); }, VELT_SUCCESS,
         KAVO_HTL_OPERATION_DEFECT_V_SET, 0, 8, 0, 103, kavo_test::BUS_PER_COMMAND},
        {"dcsu get", [&] { return kavo_dcsu_defect_get(0, KAVO_DCSU_INSTANCE_2, KAVO_DEFECT_CLEAR_NONE, &dcsu); },
         VELT_SUCCESS, KAVO_HTL_OPERATION_DEFECT_GET, 2, 3, 0, 9, kavo_test::BUS_PER_COMMAND_WITH_PAYLOAD},
        {"tlic get", [&] { return kavo_tlic_defect_get(0, KAVO_DEFECT_CLEAR_ENABLED, &tlic); }, VELT_SUCCESS,
         KAVO_HTL_OPERATION_DEFECT_GET, 0, 1, 0, 8, kavo_test::BUS_PER_COMMAND_WITH_PAYLOAD},
        {"intf enable", [&] { return kavo_ilkn_intf_defect_enable_set(0, &intf); }, VELT_SUCCESS,
         KAVO_HTL_OPERATION_DEFECT_ENABLE_SET, 0, 2, 0, 32, kavo_test::BUS_PER_COMMAND},
    };
    for (auto& c : cases) {
        const UINT64 before = bus_transactions();
        EXPECT_EQ(c.call(), c.result) << c.what;
        EXPECT_EQ(bus_transactions() - before, c.transactions) << c.what;
        EXPECT_EQ(mailbox_word(8), c.op) << c.what;
        EXPECT_EQ(mailbox_word(12), c.element) << c.what;
        EXPECT_EQ(mailbox_word(16), c.mode) << c.what;
        EXPECT_EQ(mailbox_word(20), NONE) << c.what;
        EXPECT_EQ(mailbox_word(24), c.flag) << c.what;
        EXPECT_EQ(mailbox_word(28), c.size) << c.what;
    }
}

TEST_F(device_test, DefectTraceFragments)
{
    ASSERT_EQ(bring_up(0), VELT_SUCCESS);
    kavo_defect_dcsu_t dcsu;
    kavo_defect_ilkn_intf_t intf;
    kavo_defect_serdes_t serdes;
    kavo_defect_anlt_chnl_t anlt;
    kavo_function_logging_set(1);
    struct {
        std::function<void()> call;
        std::string text;
    } cases[] = {
        {[] { kavo_defect_chnl_v_set(0, 7, KAVO_DEFECT_TYPE_DCSU, 1, 1); },
         "Function=kavo_defect_chnl_v_set(0x0, chnl_id=0x7, defect_type=9, ive_offset=1, enable=1)\n"},
        {[] { kavo_defect_chnl_e_set(0, 7, KAVO_DEFECT_TYPE_DCSU, 1, 0); },
         "Function=kavo_defect_chnl_e_set(0x0, defect_type=9, chnl_id=0x7, ive_offset=1, enable=0)\n"},
        {[&] { kavo_dcsu_defect_enable_set(0, KAVO_DCSU_INSTANCE_3, &dcsu); },
         "Function=kavo_dcsu_defect_enable_set(0x0, dcsu_inst=0x3)\n"},
        {[&] { kavo_ilkn_intf_defect_enable_set(0, &intf); },
         "Function=kavo_ilkn_intf_defect_enable_set(0x0, ilkn_intf=0)\n"},
        {[&] { kavo_serdes_port_defect_enable_set(0, 12, &serdes); },
         "Function=kavo_serdes_port_defect_enable_set(0x0, serdes_port_id=0xc)\n"},
        {[&] { kavo_anlt_defect_enable_set(0, 5, &anlt); }, "Function=kavo_anlt_defect_enable_set(0x0, chnl_id=0x5)\n"},
        {[] { kavo_defect_e_set(0, KAVO_DEFECT_TYPE_TLIC, 2, 1); },
         "Function=kavo_defect_e_set(0x0, defect_type=" + std::to_string(KAVO_DEFECT_TYPE_TLIC) +
             ", ive_offset=2, enable=1)\n"},
        {[] { kavo_defect_v_set(0, KAVO_DEFECT_TYPE_TLIC, 3, 0); },
         "Function=kavo_defect_v_set(0x0, defect_type=" + std::to_string(KAVO_DEFECT_TYPE_TLIC) +
             ", ive_offset=3, enable=0)\n"},
    };
    for (auto& c : cases) {
        take();
        c.call();
        EXPECT_TRUE(has(take(), c.text.c_str())) << c.text;
    }
    // Record reads poll: traced only while status tracing is on.
    take();
    kavo_dcsu_defect_get(0, KAVO_DCSU_INSTANCE_2, KAVO_DEFECT_CLEAR_NONE, &dcsu);
    kavo_ilkn_intf_defect_get(0, KAVO_DEFECT_CLEAR_ALL, &intf);
    EXPECT_EQ(take(), "");
    kavo_status_logging_set(1);
    kavo_dcsu_defect_get(0, KAVO_DCSU_INSTANCE_2, KAVO_DEFECT_CLEAR_NONE, &dcsu);
    kavo_ilkn_intf_defect_get(0, KAVO_DEFECT_CLEAR_ALL, &intf);
    const std::string log = take();
    kavo_status_logging_set(0);
    kavo_function_logging_set(0);
    EXPECT_TRUE(has(log, "Function=kavo_dcsu_defect_get(0x0, 2, 3)\n")) << log;
    EXPECT_TRUE(has(log, "Function=kavo_ilkn_intf_defect_get(0x0, clear_type=0, ilkn_intf=0)\n")) << log;
}

TEST_F(device_test, SerdesLossOfSignalFollowsThePartnerLatchesAndInterruptsWhenEnabled)
{
    ASSERT_EQ(bring_up(0), VELT_SUCCESS);
    kavo_sim::chip* chip = kavo_sim::chip_get(0);
    EXPECT_EQ(serdes(4).los.v, 0);
    ASSERT_EQ(kavo_defect_chnl_e_set(0, 4, KAVO_DEFECT_TYPE_SERDES, LOS, 1), VELT_SUCCESS);
    ASSERT_EQ(kavo_ipi_clear(0, VELT_IPI_DEFECTS_ENABLED), VELT_SUCCESS);

    // Port 5's loss is not enabled: no interrupt.
    chip->knob_set(SIM_KNOB_LINK_PARTNER, 5, 0);
    EXPECT_EQ(serdes(5).los.v, 1);
    EXPECT_EQ(raised(VELT_IPI_DEFECTS_ENABLED), 0u);

    chip->knob_set(SIM_KNOB_LINK_PARTNER, 4, 0);
    EXPECT_EQ(raised(VELT_IPI_DEFECTS_ENABLED), 1u) << "raised as the host looks";
    auto d = serdes(4);
    EXPECT_EQ(d.los.v + d.los.i + d.los.e + d.cdr_lol.v, 4);
    EXPECT_EQ(d.summary.v + d.summary.is_valid, 2);

    chip->knob_set(SIM_KNOB_LINK_PARTNER, 4, 1);
    d = serdes(4, KAVO_DEFECT_CLEAR_DISABLED);
    EXPECT_EQ(d.los.v, 0);
    EXPECT_EQ(d.los.i, 1) << "latched until cleared";
    EXPECT_EQ(d.cdr_lol.i, 1);
    d = serdes(4, KAVO_DEFECT_CLEAR_ENABLED);
    EXPECT_EQ(d.los.i, 1) << "an enabled latch outlives CLEAR_DISABLED";
    EXPECT_EQ(d.cdr_lol.i, 0) << "a disabled one does not";
    EXPECT_EQ(serdes(4).los.i, 0);

    kavo_defect_device_summary_t s;
    ASSERT_EQ(kavo_defect_summary_get(0, &s), VELT_SUCCESS);
    for (UINT32 p : {4u, 5u, 6u}) {
        const auto rec = serdes(p);
        EXPECT_EQ(std::memcmp(&s.serdes[p], &rec.summary, 1), 0) << p;
    }
}

TEST_F(device_test, ForcedDefectsAndReadsThatKeepTheLatches)
{
    ASSERT_EQ(bring_up(0), VELT_SUCCESS);
    const UINT32 lock = offsetof(kavo_defect_dcsu_t, lock);
    ASSERT_EQ(kavo_defect_chnl_v_set(0, KAVO_DCSU_INSTANCE_1, KAVO_DEFECT_TYPE_DCSU, lock, 1), VELT_SUCCESS);
    ASSERT_EQ(kavo_defect_chnl_v_set(0, KAVO_DCSU_INSTANCE_1, KAVO_DEFECT_TYPE_DCSU, lock, 0), VELT_SUCCESS);
    for (int read = 0; read < 2; ++read) {
        UINT8 buffer[12];
        std::memset(buffer, 0xEE, sizeof(buffer));
        auto* d = reinterpret_cast<kavo_defect_dcsu_t*>(buffer);
        ASSERT_EQ(kavo_dcsu_defect_get(0, KAVO_DCSU_INSTANCE_1, KAVO_DEFECT_CLEAR_NONE, d), VELT_SUCCESS);
        EXPECT_EQ(d->lock.i, 1) << read;
        EXPECT_EQ(d->lock.v, 0) << read;
        EXPECT_EQ(buffer[8], 0xEE) << "8 bytes read";
    }

    // Enables from a record: the e bits of its defects.
    kavo_defect_anlt_chnl_t en;
    en.fatal_error.e = 1;
    en.lt[7].rx_trained.e = 1;
    ASSERT_EQ(kavo_anlt_defect_enable_set(0, 40, &en), VELT_SUCCESS);
    kavo_defect_anlt_chnl_t got;
    ASSERT_EQ(kavo_anlt_defect_get(0, 40, KAVO_DEFECT_CLEAR_ALL, &got), VELT_SUCCESS);
    EXPECT_EQ(got.fatal_error.e + got.lt[7].rx_trained.e + got.an_complete.e + got.summary.e, 3);
    EXPECT_EQ(got.lt[7].rx_trained.is_valid, 1);
    EXPECT_EQ(got.pad[0], 0);
}

TEST_F(device_test, DefectRefusalsLeaveTheRecordAlone)
{
    ASSERT_EQ(bring_up(0), VELT_SUCCESS);
    EXPECT_EQ(kavo_defect_e_set(0, KAVO_DEFECT_TYPE_UNUSED_0, 1, 1), UINT32(DEFECTS_ERR_UNKNOWN_SW_DEFECT));
    EXPECT_EQ(kavo_defect_v_set(0, KAVO_DEFECT_TYPE_TLIC, 0, 1), UINT32(DEFECTS_ERR_IVE_NOT_VALID));
    EXPECT_EQ(kavo_defect_chnl_v_set(0, 48, KAVO_DEFECT_TYPE_SERDES, LOS, 1), UINT32(DEFECTS_ERR_UNKNOWN_CHNL_ID));
    EXPECT_EQ(kavo_defect_chnl_e_set(0, 3, KAVO_DEFECT_TYPE_SERDES, LOS, 2), UINT32(KAVO_FW_ERR_INVALID_PARAMETERS));
    kavo_defect_enet_port_segment_t port;
    std::memset(static_cast<void*>(&port), 0x5A, sizeof(port));
    EXPECT_EQ(kavo_enet_port_defect_get(0, 0, KAVO_DEFECT_CLEAR_ALL, &port), UINT32(DEFECTS_ERR_INVALID_CHNL_ID))
        << "no port provisioned";
    EXPECT_EQ(reinterpret_cast<UINT8*>(&port)[115], 0x5A);
    kavo_defect_flexe_client_segment_t client;
    EXPECT_EQ(kavo_flexe_client_defect_get(0, 24, KAVO_DEFECT_CLEAR_NONE, &client),
              UINT32(DEFECTS_ERR_UNKNOWN_CHNL_ID));
    EXPECT_EQ(kavo_flexe_client_defect_get(0, 23, kavo_defect_transfer_clear_t(4), &client),
              UINT32(KAVO_FW_ERR_INVALID_PARAMETERS));
}

} // namespace
