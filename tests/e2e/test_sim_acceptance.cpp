// Acceptance of the virtual chip: a cold start done by hand through the
// callout table alone (reset, RAM clear, download of the default image, start,
// handshake), then a STATUS exchange through the mailbox.
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <thread>

#include "kavo_sim/kavo_sim.h"

namespace {

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
    /* Polls until ready() holds, a millisecond apart; false after limit polls. */
    template <class F> bool wait(F ready, int limit)
    {
        for (int i = 0; i < limit; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(1)))
            if (ready()) return true;
        return false;
    }
};

TEST(SimAcceptance, ColdStartByHandAndStatus)
{
    const UINT32 id = 0;
    ASSERT_EQ(kavo_sim::chip_create(id, {0x6100, 1, kavo_sim::exec_mode::threaded, 0}), VELT_SUCCESS);
    host h{kavo_sim::callouts()->qspi_callout_api_ctx, id};
    EXPECT_EQ(h.rd(0xF00380), 0x16100000u);

    // Processor into reset, RAM powered, available and cleared.
    h.wr(0xF0002C, 0x5AFEC0DE);
    h.wr(0xF00020, h.rd(0xF00020) & ~0x80000000u);
    h.wr(0xF10028, 0);
    h.wr(0xF10010, 0);
    h.wr(0xF10018, 15);
    EXPECT_TRUE(h.wait([&] { return (h.rd(0xF10020) & 0xFF) == 0; }, 1000));
    h.wr(0xF10018, 0);

    // Download in 256-byte chunks, the 64-byte file header skipped.
    std::ifstream in(KAVO_FW_IMAGE_DIR "/kavo_fw_app_revx.mem", std::ios::binary);
    const std::vector<UINT8> file{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    ASSERT_GT(file.size(), 64u);
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
    ASSERT_TRUE(h.wait([&] { return h.rd(0xF00338) == 0x1001; }, 300));
    EXPECT_EQ(h.rd(0x3FFFC0), 0x300002u);
    EXPECT_EQ(h.rd(0x3FFFC4), 1u);

    // One STATUS exchange: header into the request mailbox, doorbell handed over.
    UINT32 req[8] = {id, 0, KAVO_HTL_OPERATION_STATUS, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0, 0};
    h.bw(0x340004, req, 8);
    h.wr(0xF021E0, 1);
    ASSERT_EQ(h.rd(0xF020E0), 1u) << "the firmware handed the mailbox over";
    h.wr(0xF020E0, 0);
    ASSERT_TRUE(h.wait([&] { return (h.rd(0xF021E0) & 1) && h.rd(0xF020E0) == 1; }, 6000));
    UINT32 rep[8];
    h.br(0x344004, rep, 8);
    EXPECT_EQ(std::vector<UINT32>(rep, rep + 4), (std::vector<UINT32>{id, 0, KAVO_HTL_OPERATION_STATUS, 0}));
    ASSERT_EQ(rep[7], 32u);
    kavo_device_status_info_t s;
    h.br(0x344024, reinterpret_cast<UINT32*>(&s), 8);
    EXPECT_EQ((std::vector<UINT32>{s.device_type, s.device_revision, s.fw_alive, s.fw_version, s.fw_revision}),
              (std::vector<UINT32>{0x6100, 1, 1, 0x300002, 1}));
    EXPECT_EQ(h.failures, 0u);
    kavo_sim::chip_destroy_all();
}

} // namespace
