// Start-up of the virtual chip's firmware: image checks, the handshake, the
// version words, the log block, restarts and the RAM that survives them.
#include <gtest/gtest.h>

#include <string>

#include "kavo_sim/bus_client.h"
#include "kavo_sim/kavo_sim.h"

using kavo_sim::bus_client;
namespace L = kavo_sim::map::log;

namespace {

constexpr UINT32 SCRATCH6 = 0xF00338;
constexpr UINT32 LOG = 0x354004;

/* The console ring's text, oldest first, read the way a host would. */
std::string console_text(bus_client& bus)
{
    std::vector<UINT32> ring(8192);
    bus.bread(LOG + 68, ring.data(), 8192);
    const UINT32 end = bus.rd(LOG + 8);
    std::string text;
    for (UINT32 i = 0; i + 1 < end && ring[i] == 0 && ring[i + 1] != 0;) {
        const UINT32 n = ring[i + 1];
        text.append(reinterpret_cast<const char*>(&ring[i + 2]), 4 * n);
        text.resize(std::strlen(text.c_str()));
        i += 2 + n;
    }
    return text;
}

struct mode_case {
    const char* name;
    kavo_sim::exec_mode mode;
};

class SimBoot : public ::testing::TestWithParam<mode_case> {
  protected:
    void SetUp() override
    {
        kavo_sim::chip_config cfg;
        cfg.mode = GetParam().mode;
        ASSERT_EQ(kavo_sim::chip_create(0, cfg), VELT_SUCCESS);
    }
    void TearDown() override { kavo_sim::chip_destroy_all(); }
    bus_client bus{kavo_sim::callouts(), 0};
};

TEST_P(SimBoot, GoodImageStartsAndPublishesItsVersion)
{
    kavo_sim::image_version v;
    v.major = 3;
    v.minor = 7;
    v.build = 0x42;
    v.vcs_id = 90434;
    ASSERT_TRUE(bus.cold_start(kavo_sim::image_build(v)));
    EXPECT_EQ(bus.rd(0x3FFFC0), 0x307042u);
    EXPECT_EQ(bus.rd(0x3FFFC4), 90434u);
    EXPECT_EQ(bus.rd(0xF000F0) & 0xFFFF, 1u);
    EXPECT_EQ(bus.rd(0xF020E0), 1u);
    EXPECT_EQ(bus.rd(LOG + 0), 0xFACEF00Du);
    EXPECT_EQ(bus.rd(LOG + 20), 0xFADED0FFu);
    EXPECT_EQ(bus.rd(LOG + 36), 0xF00DF00Du);
    EXPECT_EQ(kavo_sim::chip_get(0)->fw_state(), SIM_FW_STATE_RUNNING);
    const std::string text = console_text(bus);
    EXPECT_NE(text.find("kavo firmware 3.7.66 (vcs 90434) on device 0x6100 rev A, device id 0\n"), std::string::npos)
        << text;
    EXPECT_NE(text.find("boot argument 0x00000000: cold start, boot 1\n"), std::string::npos) << text;
}

TEST_P(SimBoot, RefusedImagesNeverStart)
{
    struct {
        const char* what;
        std::vector<UINT8> file;
        UINT32 revision_code;
    } cases[] = {
        {"corrupt body", kavo_sim::image_build({}, true), 0},
        {"reva image on revb", kavo_sim::image_build({3, 0, 2, 1, kavo_sim::IMAGE_REV_A}), 1},
        {"revb image on reva", kavo_sim::image_build({3, 0, 2, 1, kavo_sim::IMAGE_REV_B}), 0},
        {"no image", std::vector<UINT8>(64, 0), 0},
        {"empty body corrupted", kavo_sim::image_build({3, 0, 2, 1, 0, 0}, true), 0},
    };
    for (auto& c : cases) {
        kavo_sim::chip_config cfg;
        cfg.revision_code = c.revision_code;
        cfg.mode = GetParam().mode;
        ASSERT_EQ(kavo_sim::chip_create(1, cfg), VELT_SUCCESS);
        bus_client b(kavo_sim::callouts(), 1);
        EXPECT_FALSE(b.cold_start(c.file, 0xABCD)) << c.what;
        EXPECT_EQ(b.rd(SCRATCH6), 0xABCDu) << c.what;
        EXPECT_EQ(b.rd(0xF000F0), 0u) << c.what;
        EXPECT_EQ(b.rd(0xF020E0), 0u) << c.what << ": the mailbox is never handed over";
        EXPECT_NE(b.rd(LOG), 0xFACEF00Du) << c.what;
        EXPECT_EQ(kavo_sim::chip_get(1)->fw_state(), SIM_FW_STATE_BAD_IMAGE) << c.what;
        kavo_sim::chip_destroy(1);
    }
}

TEST_P(SimBoot, ImagesForTheirRevisionStart)
{
    for (UINT32 rev : {0u, 1u}) {
        kavo_sim::chip_config cfg;
        cfg.revision_code = rev;
        cfg.mode = GetParam().mode;
        ASSERT_EQ(kavo_sim::chip_create(1, cfg), VELT_SUCCESS);
        bus_client b(kavo_sim::callouts(), 1);
        const UINT32 own = rev ? kavo_sim::IMAGE_REV_B : kavo_sim::IMAGE_REV_A;
        EXPECT_TRUE(b.cold_start(kavo_sim::image_build({3, 0, 2, 1, own})));
        EXPECT_TRUE(b.cold_start(kavo_sim::image_build({3, 0, 2, 1, kavo_sim::IMAGE_REV_ANY})));
        EXPECT_EQ(b.rd(0xF000F0), 2u) << "BOOT_INFO counts the starts";
        kavo_sim::chip_destroy(1);
    }
}

TEST_P(SimBoot, WarmStartIsLoggedAndRamSurvivesAProcessorReset)
{
    ASSERT_TRUE(bus.cold_start(kavo_sim::image_build({})));
    const UINT32 marks[3] = {0x600DF00D, 0x12345678, 0x9ABCDEF0};
    bus.bwrite(0x300000, marks, 3);
    bus.write(0xF0002C, 0x5AFEC0DE);
    EXPECT_EQ(kavo_sim::chip_get(0)->fw_state(), SIM_FW_STATE_IN_RESET);
    UINT32 back[3] = {};
    bus.bread(0x300000, back, 3);
    EXPECT_EQ(std::vector<UINT32>(back, back + 3), std::vector<UINT32>(marks, marks + 3));
    EXPECT_NE(bus.rd(0xF000F0), 0u) << "BOOT_INFO tells a warm chip";
    // A release without clearing starts again from the image still in RAM.
    ASSERT_TRUE(bus.release(0xBEEB00BA));
    EXPECT_NE(console_text(bus).find("boot argument 0xbeeb00ba: warm start, boot 2\n"), std::string::npos);
    bus.bread(0x300000, back, 3);
    EXPECT_EQ(back[0], marks[0]);
}

TEST_P(SimBoot, RamTestPatternReadsBack)
{
    bus.reset_and_clear();
    UINT32 words[10], back[10] = {};
    for (UINT32 i = 0; i < 10; ++i)
        words[i] = 0x01020304 + i * 0x01010101;
    EXPECT_EQ(bus.bwrite(0, words, 10), 0u);
    EXPECT_EQ(bus.bread(0, back, 10), 0u);
    EXPECT_EQ(std::vector<UINT32>(back, back + 10), std::vector<UINT32>(words, words + 10));
}

TEST_P(SimBoot, RestartRequestStartsOverAfterReplying)
{
    ASSERT_TRUE(bus.cold_start(kavo_sim::image_build({})));
    bus.exchange(KAVO_HTL_OPERATION_DEBUG_CMD, "echo before", 12);
    auto r = bus.exchange(KAVO_HTL_OPERATION_RESTART);
    ASSERT_TRUE(r.replied);
    EXPECT_EQ(r.result(), VELT_SUCCESS);
    // Wait for the firmware to come back (threaded mode restarts on its thread).
    for (int i = 0; i < 1000 && bus.rd(0xF000F0) != 2; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_EQ(bus.rd(0xF000F0), 2u);
    EXPECT_EQ(bus.rd(SCRATCH6), 0x1001u);
    const std::string text = console_text(bus);
    EXPECT_EQ(text.find("before"), std::string::npos) << "the log block is laid out anew";
    EXPECT_NE(text.find("restart, boot 2"), std::string::npos) << text;
    EXPECT_EQ(bus.exchange(KAVO_HTL_OPERATION_STATUS).result(), VELT_SUCCESS);
}

TEST_P(SimBoot, DefaultImagesOnDiskStart)
{
    for (const char* rev : {"revx", "reva"}) {
        const std::string path = std::string(KAVO_FW_IMAGE_DIR) + "/kavo_fw_app_" + rev + ".mem";
        const auto info = kavo_sim::image_inspect_file(path.c_str());
        ASSERT_TRUE(info.readable) << path;
        EXPECT_EQ(info.problem, "") << rev;
        EXPECT_EQ(info.payload_version, 0x300002u);
        EXPECT_EQ(info.header.vcs_id, 1u);
        std::vector<UINT8> file;
        FILE* f = std::fopen(path.c_str(), "rb");
        ASSERT_NE(f, nullptr);
        for (int ch; (ch = std::fgetc(f)) != EOF;)
            file.push_back(UINT8(ch));
        std::fclose(f);
        EXPECT_TRUE(bus.cold_start(file)) << rev;
        EXPECT_EQ(bus.rd(0x3FFFC0), 0x300002u);
    }
}

INSTANTIATE_TEST_SUITE_P(Modes, SimBoot,
                         ::testing::Values(mode_case{"synchronous", kavo_sim::exec_mode::synchronous},
                                           mode_case{"threaded", kavo_sim::exec_mode::threaded}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(SimImage, InspectFindsWhatIsWrong)
{
    auto good = kavo_sim::image_build({});
    EXPECT_EQ(kavo_sim::image_inspect(good).problem, "");
    struct {
        const char* what;
        size_t at;
        UINT8 flip;
        const char* problem;
    } cases[] = {
        {"body byte", 64 + 32 + 100, 1, "image_crc mismatch"},
        {"header size", 12, 1, "image_size disagrees with the file"},
    };
    for (auto& c : cases) {
        auto f = good;
        f[c.at] ^= c.flip;
        EXPECT_EQ(kavo_sim::image_inspect(f).problem, c.problem) << c.what;
    }
    auto truncated = good;
    truncated.resize(40);
    EXPECT_FALSE(kavo_sim::image_inspect(truncated).readable);
    // A consistent file whose payload header lies about the version.
    auto lying = good;
    lying[64 + 8] ^= 1;
    const UINT32 crc = kavo_sim::crc32(lying.data() + 64, lying.size() - 64);
    std::memcpy(lying.data() + 8, &crc, 4);
    EXPECT_EQ(kavo_sim::image_inspect(lying).problem, "payload version disagrees with the header");
}

TEST(SimImage, Crc32OfTheStandardCheckString) { EXPECT_EQ(kavo_sim::crc32("123456789", 9), 0xCBF43926u); }

TEST(SimImage, VersionAndRevisionParse)
{
    kavo_sim::image_version v;
    EXPECT_TRUE(kavo_sim::image_version_parse("3.1.255", v));
    EXPECT_EQ(kavo_sim::version_word(v.major, v.minor, v.build), 0x3010FFu);
    for (const char* bad : {"3.1", "3.1.256", "3.1.2x", "", "a.b.c"})
        EXPECT_FALSE(kavo_sim::image_version_parse(bad, v));
    UINT32 rev = 99;
    EXPECT_TRUE(kavo_sim::image_rev_parse("revb", rev));
    EXPECT_EQ(rev, kavo_sim::IMAGE_REV_B);
    EXPECT_FALSE(kavo_sim::image_rev_parse("revc", rev));
}

} // namespace
