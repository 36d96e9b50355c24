// Acceptance of the virtual chip: a cold start done by hand through the
// callout table alone (reset, RAM clear and test, download of the default
// image, start, handshake), then a STATUS exchange through the mailbox.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <thread>
#include <unistd.h>

#include "kavo_sim/kavo_sim.h"

namespace {

std::vector<UINT8> read_file(const std::string& path)
{
    std::vector<UINT8> data;
    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) return data;
    UINT8 chunk[4096];
    size_t n;
    while ((n = std::fread(chunk, 1, sizeof(chunk), f)) > 0)
        data.insert(data.end(), chunk, chunk + n);
    std::fclose(f);
    return data;
}

struct host {
    qspi_callout_api_st* q;
    UINT32 id;
    UINT32 failures = 0;
    UINT32 rd(UINT32 a)
    {
        UINT32 v = 0;
        failures += q->qspi_read(nullptr, 0, id, a, &v) != 0;
        return v;
    }
    void wr(UINT32 a, UINT32 v) { failures += q->qspi_write(nullptr, 0, id, a, v) != 0; }
    void bw(UINT32 a, UINT32* w, UINT32 n) { failures += q->qspi_bwrite(nullptr, 0, id, n, a, w) != 0; }
    void br(UINT32 a, UINT32* w, UINT32 n) { failures += q->qspi_bread(nullptr, 0, id, n, a, w) != 0; }
};

void cold_start_and_status(tavo_callout_api_st* table, UINT32 id, const std::string& image_path, UINT32 rev_code)
{
    host h{table->qspi_callout_api_ctx, id};
    ASSERT_EQ(h.rd(0xF00380), (rev_code << 28) | (0x6100u << 12));
    EXPECT_EQ(h.rd(0xF000F0) & 0xFFFF, 0u) << "never booted";

    // Processor into reset, RAM powered, available and cleared.
    h.wr(0xF0002C, 0x5AFEC0DE);
    h.wr(0xF00020, h.rd(0xF00020) & ~0x80000000u);
    h.wr(0xF10028, 0);
    h.wr(0xF10010, 0);
    h.wr(0xF10018, 15);
    int polls = 0;
    while ((h.rd(0xF10020) & 0xFF) != 0 && ++polls < 1000) {
    }
    EXPECT_LT(polls, 1000);
    h.wr(0xF10018, 0);

    // RAM access test.
    UINT32 test[10], back[10] = {};
    for (UINT32 i = 0; i < 10; ++i)
        test[i] = 0x01020304 + i * 0x01010101;
    h.bw(0, test, 10);
    h.br(0, back, 10);
    for (UINT32 i = 0; i < 10; ++i)
        ASSERT_EQ(back[i], test[i]) << i;

    // Download in 256-byte chunks, header skipped.
    const std::vector<UINT8> file = read_file(image_path);
    ASSERT_GT(file.size(), 64u) << image_path;
    kavo_fw_hdr_t hdr;
    std::memcpy(static_cast<void*>(&hdr), file.data(), sizeof(hdr));
    EXPECT_EQ(hdr.fw_major_num, 3u);
    EXPECT_EQ(hdr.fw_minor_num, 0u);
    EXPECT_EQ(hdr.fw_build_num, 2u);
    for (size_t off = 64; off < file.size(); off += 256) {
        UINT32 words[64];
        const size_t n = std::min<size_t>(256, file.size() - off);
        ASSERT_EQ(n % 4, 0u);
        std::memcpy(words, file.data() + off, n);
        h.bw(UINT32(off - 64), words, UINT32(n / 4));
    }

    // Start with a cold boot argument and wait for the handshake.
    h.wr(0xF00338, 0);
    h.wr(0xF0002C, 0);
    h.wr(0xF000B0, 0);
    bool started = false;
    for (int round = 0; round < 31 && !started; ++round) {
        started = h.rd(0xF00338) == 0x1001;
        if (!started) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_TRUE(started);
    h.wr(0xF02000, 0x1000000);
    EXPECT_EQ(h.rd(0x3FFFC0), 0x300002u);
    EXPECT_EQ(h.rd(0x3FFFC4), 1u);

    // One STATUS exchange: header into the request mailbox, doorbell handed over.
    UINT32 req[8] = {id, 0, KAVO_HTL_OPERATION_STATUS, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0, 0};
    h.bw(0x340004, req, 8);
    h.wr(0xF021E0, 1);
    ASSERT_EQ(h.rd(0xF020E0), 1u) << "the firmware handed the mailbox over";
    h.wr(0xF020E0, 0);
    bool ready = false;
    for (int i = 0; i < 6000 && !ready; ++i) {
        ready = (h.rd(0xF021E0) & 1) && h.rd(0xF020E0) == 1;
        if (!ready) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ASSERT_TRUE(ready);
    UINT32 rep[8];
    h.br(0x344004, rep, 8);
    EXPECT_EQ(rep[0], id);
    EXPECT_EQ(rep[1], 0u);
    EXPECT_EQ(rep[2], UINT32(KAVO_HTL_OPERATION_STATUS));
    EXPECT_EQ(rep[3], 0u);
    ASSERT_EQ(rep[7], 32u);
    kavo_device_status_info_t s;
    h.br(0x344024, reinterpret_cast<UINT32*>(&s), 8);
    EXPECT_EQ(s.device_type, 0x6100u);
    EXPECT_EQ(s.device_revision, rev_code);
    EXPECT_EQ(s.fw_alive, 1u);
    EXPECT_EQ(s.fw_version, 0x300002u);
    EXPECT_EQ(s.fw_revision, 1u);
    EXPECT_EQ(h.failures, 0u);
}

struct acceptance_case {
    const char* name;
    kavo_sim::exec_mode mode;
    UINT32 revision_code;
    const char* image;
};

class SimAcceptance : public ::testing::TestWithParam<acceptance_case> {
  protected:
    void TearDown() override { kavo_sim::chip_destroy_all(); }
};

TEST_P(SimAcceptance, ColdStartAndStatus)
{
    const acceptance_case& c = GetParam();
    kavo_sim::chip_config cfg;
    cfg.mode = c.mode;
    cfg.revision_code = c.revision_code;
    ASSERT_EQ(kavo_sim::chip_create(0, cfg), VELT_SUCCESS);
    cold_start_and_status(kavo_sim::callouts(), 0, std::string(KAVO_FW_IMAGE_DIR) + "/" + c.image, c.revision_code);
}

INSTANTIATE_TEST_SUITE_P(
    Images, SimAcceptance,
    ::testing::Values(acceptance_case{"reva_sync", kavo_sim::exec_mode::synchronous, 0, "kavo_fw_app_reva.mem"},
                      acceptance_case{"revb_threaded", kavo_sim::exec_mode::threaded, 1, "kavo_fw_app_revb.mem"},
                      acceptance_case{"revx_on_revb", kavo_sim::exec_mode::synchronous, 1, "kavo_fw_app_revx.mem"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(SimAcceptanceSocket, ColdStartAndStatusOverTheSocket)
{
    const std::string path = "/tmp/kavo_sim_accept_" + std::to_string(::getpid()) + ".sock";
    kavo_sim::socket_server server;
    ASSERT_EQ(server.listen(path.c_str()), VELT_SUCCESS);
    server.start_thread();
    ASSERT_EQ(kavo_sim::socket_chip_create(path.c_str(), 3, {}), VELT_SUCCESS);
    tavo_callout_api_st* table = kavo_sim::socket_callouts(path.c_str());
    ASSERT_NE(table, nullptr);
    cold_start_and_status(table, 3, std::string(KAVO_FW_IMAGE_DIR) + "/kavo_fw_app_reva.mem", 0);
    kavo_sim::socket_disconnect();
    server.stop();
    server.join();
    kavo_sim::chip_destroy_all();
}

} // namespace
