// A short soak of kavo-simd (bench/soak_simd runs the long one): eight client
// processes on eight chips, three of them killed at random and replaced by the
// chip's next owner. The daemon keeps serving, every surviving client's answers
// are right, and its descriptors and memory are where they were.
#include <gtest/gtest.h>

#include "kavo_simd_soak.h"
#include "kavo_test_device.h"

TEST(SimDaemonSoak, KilledClientsHarmNeitherTheDaemonNorTheOthers)
{
    kavo_test::simd_soak_config cfg;
    cfg.clients = 8;
    cfg.commands = 1500;
    cfg.kills = 3;
    cfg.kill_every_ms = 40;
    const kavo_test::simd_soak_result r = kavo_test::run_simd_soak(cfg);
    ASSERT_EQ(r.error, "");
    EXPECT_TRUE(r.daemon_alive);
    EXPECT_EQ(r.kills, cfg.kills) << "every kill happened while its client ran";
    EXPECT_EQ(r.survivors, cfg.clients);
    EXPECT_EQ(r.commands, cfg.clients * cfg.commands);
    EXPECT_EQ(r.failures, 0u);
    EXPECT_EQ(r.mismatches, 0u);
    EXPECT_EQ(r.fds_end, r.fds_start);
    // Connection threads and their buffers come and go; nothing accumulates.
    // A killed client's connection may still be open when its replacement
    // connects, so a thread stack or two more than at the start may have been
    // touched: the bound is the daemon's memory for a few connections, not for
    // commands (under a sanitizer the memory is the sanitizer's to keep).
#if !KAVO_TEST_MEMORY_TOOL
    EXPECT_LE(r.rss_kib_end, r.rss_kib_start + 4096) << "resident KiB, start " << r.rss_kib_start;
#endif
}
