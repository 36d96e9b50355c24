// SerDes commands through libkavo on the virtual chip: the records as they
// travel, replies landing in the caller's records, the checked PPM getter,
// the bus cost of a command, and the microcode load streaming a file.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "../../sim/src/fw/serdes_lane.h"
#include "kavo_api_serdes.h"
#include "kavo_command_frame.h"
#include "kavo_test_device.h"
#include "kavo_test_log.h"

using kavo_test::device_test;
using kavo_test::has;
using kavo_test::requests_of;
using kavo_test::take;
namespace s = kavo_sim::fw::serdes;

namespace {

constexpr UINT32 PORT = 5;

kavo_sim::chip* chip() { return kavo_sim::chip_get(0); }

UINT64 bus_transactions()
{
    const kavo_sim::journal_counters c = chip()->counters();
    return c.reads + c.writes + c.burst_reads + c.burst_writes;
}

std::string write_file(const std::string& name, const std::vector<UINT8>& bytes)
{
    const std::string path = (std::filesystem::temp_directory_path() / name).string();
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
    return path;
}

/* The sizes of the DEBUG_SERDES_LOAD requests in the journal. */
std::vector<UINT32> load_requests()
{
    std::vector<UINT32> out;
    const auto j = chip()->journal();
    for (size_t i = 0; i < j.events.size(); ++i) {
        const auto& e = j.events[i];
        if (e.kind == kavo_sim::event_kind::request && e.operation == KAVO_HTL_OPERATION_DEBUG_SERDES_LOAD)
            out.push_back(e.data_size);
    }
    return out;
}

TEST_F(device_test, SerdesRecordsTravelAndRepliesLandInTheCallersRecords)
{
    ASSERT_EQ(bring_up(0), VELT_SUCCESS);
    ASSERT_EQ(chip()->knob_set(SIM_KNOB_PARTNER_PRBS, PORT, KAVO_SERDES_PRBS_USER), VELT_SUCCESS);
    const UINT32 zeros[10] = {};
    EXPECT_EQ(kavo_serdes_prbs_set(0, PORT, 0, 0, KAVO_SERDES_PRBS_USER, zeros), VELT_SUCCESS);
    const UINT32 pattern[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    EXPECT_EQ(kavo_serdes_prbs_set(0, PORT, 1, 0, KAVO_SERDES_PRBS_USER, pattern), VELT_SUCCESS);
    EXPECT_EQ(kavo_serdes_tx_eq_set(0, PORT, 0, UINT32(-6), 0, UINT32(-12), 45), VELT_SUCCESS);
    EXPECT_EQ(kavo_serdes_tx_eq_set(0, PORT, 0, 0, 0, UINT32(-30), 30), KAVO_FW_ERR_NUMBER_OUT_OF_RANGE);
    EXPECT_EQ(kavo_serdes_polarity_set(0, PORT, 0, 1, KAVO_SERDES_CFG_ACT_STORE, 1), VELT_SUCCESS);
    EXPECT_EQ(kavo_serdes_tx_source_set(0, PORT, KAVO_SERDES_TX_SRC_FIXED_PATTERN, 0xAAAA5555, 0x0F0F0F0F), VELT_SUCCESS);
    EXPECT_EQ(kavo_serdes_los_holdoff_cfg(0, PORT, 0, 250), VELT_SUCCESS);

    kavo_serdes_pin_cfg_t cfg;
    ASSERT_EQ(kavo_serdes_pin_cfg_get(0, PORT, &cfg), VELT_SUCCESS);
    EXPECT_EQ(cfg.prbs_generator, KAVO_SERDES_PRBS_USER);
    EXPECT_EQ(cfg.user_pattern_crc, kavo_sim::crc32(pattern, sizeof(pattern)));
    EXPECT_EQ(cfg.taps.cm1, -6);
    EXPECT_EQ(cfg.taps.c1, -12);
    EXPECT_EQ(cfg.taps.c0, 45);
    EXPECT_EQ(cfg.tx_invert, 1u);
    EXPECT_EQ(cfg.tx_source, KAVO_SERDES_TX_SRC_FIXED_PATTERN);
    EXPECT_EQ(cfg.tx_fixed.squelch_data_msw, 0xAAAA5555u);
    EXPECT_EQ(cfg.tx_fixed.squelch_data_lsw, 0x0F0F0F0Fu);
    EXPECT_EQ(cfg.los_recovery_ms, 250u);

    kavo_serdes_pin_status_t st;
    ASSERT_EQ(kavo_serdes_pin_status_get(0, PORT, &st), VELT_SUCCESS);
    EXPECT_FALSE(st.tx_invert) << "stored, not applied";
    EXPECT_TRUE(st.prbs_lock) << "the user pattern of all zero words the partner sends";
    kavo_serdes_prbs_ber_t ber;
    ASSERT_EQ(kavo_serdes_pin_prbs_get(0, PORT, 0, &ber), VELT_SUCCESS);
    EXPECT_TRUE(ber.lock);

    // A failing getter leaves the caller's record as it was.
    kavo_serdes_pin_status_t untouched;
    untouched.los_count = 77;
    EXPECT_EQ(kavo_serdes_pin_status_get(0, 48, &untouched), SERDES_ERR_PORT_INVALID);
    EXPECT_EQ(untouched.los_count, 77u);

    INT32 ppm = 0;
    ASSERT_EQ(chip()->knob_set(SIM_KNOB_PPM_OFFSET, PORT, UINT32(-37)), VELT_SUCCESS);
    EXPECT_EQ(kavo_serdes_ppm_offset_get(0, PORT, &ppm), VELT_SUCCESS);
    EXPECT_EQ(ppm, -37);
    EXPECT_DEATH(kavo_serdes_ppm_offset_get(0, PORT, nullptr), "");
}

TEST_F(device_test, SerdesCommandsCostOneExchangeEach)
{
    ASSERT_EQ(bring_up(0), VELT_SUCCESS);
    UINT64 before = bus_transactions();
    ASSERT_EQ(kavo_serdes_adaptation_trigger(0, PORT, 0), VELT_SUCCESS);
    EXPECT_EQ(bus_transactions() - before, kavo_test::BUS_PER_COMMAND);
    kavo_serdes_2d_eye_data_t eye;
    ASSERT_EQ(kavo_serdes_2d_eye_mon_enable(0, PORT, 1, 6), VELT_SUCCESS);
    before = bus_transactions();
    ASSERT_EQ(kavo_serdes_2d_eye_mon_get(0, PORT, &eye), VELT_SUCCESS);
    EXPECT_EQ(bus_transactions() - before, kavo_test::BUS_PER_COMMAND_WITH_PAYLOAD);
    EXPECT_TRUE(eye.valid);
}

TEST_F(device_test, MicrocodeStreamsAfterTheFileHeaderInChunksThenCloses)
{
    ASSERT_EQ(bring_up(0), VELT_SUCCESS);
    const auto file = s::microcode_file(0x00030007, 2 * s::UCODE_CHUNK + 1000);
    const UINT32 image = UINT32(file.size() - s::UCODE_FILE_HEADER);
    std::string path = write_file("kavo_serdes_ucode_ok.bin", file);
    chip()->journal_reset();
    ASSERT_EQ(kavo_debug_serdes_load(0, path.data()), VELT_SUCCESS);
    // The firmware refuses chunks out of order and a wrong total: the offsets
    // were right if it took them. The closing request carries the total.
    const std::vector<UINT32> expected = {8192, 8192, image - 16384, 24};
    EXPECT_EQ(load_requests(), expected);
    EXPECT_EQ(chip()->ram_peek(VELT_SHARED_MEMORY_HTL_REQUEST_ADDR + 16), image);
    kavo_serdes_status_t st;
    ASSERT_EQ(kavo_serdes_status_get(0, 0, &st), VELT_SUCCESS);
    EXPECT_EQ(st.microcode_version, 0x00030007u);

    struct {
        const char* what;
        std::vector<UINT8> bytes;
        VELT_ERROR rc;
        UINT32 requests;
    } cases[] = {
        {"shorter than its header", std::vector<UINT8>(100, 0x11), SERDES_ERR_INVALID_MODE, 1},
        {"image cut short", std::vector<UINT8>(file.begin(), file.end() - 100), SERDES_ERR_INVALID_MODE, 4},
        {"empty", {}, SERDES_ERR_INVALID_MODE, 1},
    };
    for (const auto& c : cases) {
        path = write_file("kavo_serdes_ucode_bad.bin", c.bytes);
        chip()->journal_reset();
        EXPECT_EQ(kavo_debug_serdes_load(0, path.data()), c.rc) << c.what;
        EXPECT_EQ(load_requests().size(), c.requests) << c.what;
    }
    ASSERT_EQ(kavo_serdes_status_get(0, 0, &st), VELT_SUCCESS);
    EXPECT_EQ(st.microcode_version, 0x00030007u) << "a refused load keeps the running microcode";

    // Files that cannot be read send nothing.
    take();
    chip()->journal_reset();
    std::string missing = "/nonexistent/kavo_ucode.bin";
    EXPECT_EQ(kavo_debug_serdes_load(0, missing.data()), VELT_SHARED_ERR_FILE_OPEN_FAILED);
    EXPECT_TRUE(has(take(), " VELT_RUNTIME_ERROR( VELT_SHARED_ERR_FILE_OPEN_FAILED )\n"));
    std::string directory = std::filesystem::temp_directory_path().string();
    EXPECT_EQ(kavo_debug_serdes_load(0, directory.data()), VELT_SHARED_ERR_FILE_OPEN_FAILED);
    EXPECT_EQ(kavo_debug_serdes_load(0, nullptr), VELT_ERR_INVALID_ARGS);
    EXPECT_TRUE(has(take(), " VELT_RUNTIME_ERROR( VELT_ERR_INVALID_ARGS )\n"));
    EXPECT_TRUE(load_requests().empty());
}

TEST(SerdesPrint, Uint32ArraysPrintOnOneLine)
{
    kavo_test::install_capture();
    const UINT32 v[3] = {7, 0, 4294967295u};
    uint32_print_array(v, 3, stdout);
    uint32_print_array(v, 0, stdout);
    EXPECT_EQ(take(), "[7, 0, 4294967295][]");
}

} // namespace
