// The firmware's console ring writer, checked record by record from outside:
// separator, count and text words, and the wrap when fewer than count + 5
// words remain, leaving the wrap marker at the old position.
#include <gtest/gtest.h>

#include <string>

#include "kavo_sim/bus_client.h"
#include "kavo_sim/kavo_sim.h"

using kavo_sim::bus_client;

namespace {

constexpr UINT32 LOG = 0x354004;
constexpr UINT32 RING_WORDS = 8192;

struct position {
    UINT32 index, wrap;
};

class SimConsoleRing : public ::testing::Test {
  protected:
    void SetUp() override
    {
        ASSERT_EQ(kavo_sim::chip_create(0), VELT_SUCCESS);
        ASSERT_TRUE(bus.cold_start(kavo_sim::image_build({})));
    }
    void TearDown() override { kavo_sim::chip_destroy_all(); }
    position where() { return {bus.rd(LOG + 8), bus.rd(LOG + 4)}; }
    std::vector<UINT32> ring()
    {
        std::vector<UINT32> r(RING_WORDS);
        bus.bread(LOG + 68, r.data(), RING_WORDS);
        return r;
    }
    void echo(const std::string& text)
    {
        std::string line = "echo " + text;
        line.resize(line.size() + 4 - line.size() % 4, '\0');
        ASSERT_EQ(bus.exchange(KAVO_HTL_OPERATION_DEBUG_CMD, line.data(), UINT32(line.size())).result(), VELT_SUCCESS);
    }
    bus_client bus{kavo_sim::callouts(), 0};
};

TEST_F(SimConsoleRing, GeometryAndCookieAfterStart)
{
    EXPECT_EQ(bus.rd(LOG + 0), 0xFACEF00Du);
    EXPECT_EQ(bus.rd(LOG + 12), RING_WORDS * 4);
    EXPECT_EQ(bus.rd(LOG + 16), 68u);
    const position p = where();
    EXPECT_EQ(p.wrap, 0u);
    EXPECT_GT(p.index, 0u) << "start-up lines";
    EXPECT_EQ(ring()[0], 0u) << "a record starts with its separator";
}

TEST_F(SimConsoleRing, RecordsAndWrapsFollowTheWriterRule)
{
    int wraps = 0;
    for (UINT32 n = 0; wraps < 3; ++n) {
        ASSERT_LT(n, 20000u) << "the ring never wrapped";
        // Lengths 1..47 with the newline: every padding case.
        std::string text(n % 46 + 1, char('a' + n % 26));
        const std::string written = text + "\n";
        const UINT32 count = UINT32((written.size() + 3) / 4);
        const position before = where();
        echo(text);
        const position after = where();
        const std::vector<UINT32> r = ring();
        UINT32 at = before.index;
        if (after.wrap != before.wrap) {
            ++wraps;
            EXPECT_EQ(after.wrap, before.wrap + 1);
            EXPECT_GT(before.index + count + 5, RING_WORDS) << "wrapped although the record fitted";
            EXPECT_EQ(r[before.index], 0u) << "wrap marker: separator";
            EXPECT_EQ(r[before.index + 1], 0u) << "wrap marker: zero count";
            at = 0;
        } else {
            ASSERT_LE(before.index + count + 5, RING_WORDS) << "should have wrapped at " << before.index;
        }
        ASSERT_EQ(after.index, at + 2 + count);
        EXPECT_EQ(r[at], 0u);
        EXPECT_EQ(r[at + 1], count);
        std::string back(reinterpret_cast<const char*>(&r[at + 2]), 4 * count);
        EXPECT_EQ(back.substr(0, written.size()), written);
        EXPECT_EQ(back.find_first_not_of('\0', written.size()), std::string::npos) << "zero padding";
    }
}

TEST_F(SimConsoleRing, RepeatFloodsTheRingWithoutOverrunningIt)
{
    const char line[36] = "repeat 5000 0123456789abcdefghijk";
    auto r = bus.exchange(KAVO_HTL_OPERATION_DEBUG_CMD, line, sizeof(line));
    ASSERT_EQ(r.result(), VELT_SUCCESS);
    const position p = where();
    EXPECT_GE(p.wrap, 3u);
    EXPECT_LE(p.index, RING_WORDS);
    // The newest record ends right at the write index.
    const std::vector<UINT32> ring_words = ring();
    EXPECT_EQ(ring_words[p.index - 8], 0u);
    EXPECT_EQ(ring_words[p.index - 7], 6u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&ring_words[p.index - 6])), "0123456789abcdefghijk\n");
}

} // namespace
