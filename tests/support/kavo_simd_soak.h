/* A soak of kavo-simd: client processes, one per chip, each bringing its
   device up and running commands whose answers it checks, while clients are
   killed at random and replaced by a new owner of the same chip. The daemon's
   descriptors and resident memory are sampled after a warm-up round and at the
   end, both times with no client connected. Shared by the short soak in ctest
   and bench/soak_simd. */
#ifndef KAVO_SIMD_SOAK_H
#define KAVO_SIMD_SOAK_H

#include <string>

#include "kavo/kavo_api.h"

namespace kavo_test {

struct simd_soak_config {
    UINT32 clients = 8;        // one chip each
    UINT64 commands = 1000;    // per client: pings of 1..16 random words, a status every 64th
    UINT32 kills = 3;          // clients killed (SIGKILL) at random moments and replaced
    UINT32 kill_every_ms = 30; // mean time between kills
    UINT32 seed = 1;
    // Before the first sample: enough for every chip's journal (4096 bus
    // transactions) and the daemon's heap to reach their size.
    UINT64 warmup_commands = 600;
};

struct simd_soak_result {
    std::string error;          // empty when the soak ran to its end
    bool daemon_alive = false;  // kavo-simd still running and answering at the end
    UINT32 kills = 0;           // clients killed
    UINT32 survivors = 0;       // clients that ran all their commands
    UINT64 commands = 0;        // commands the survivors ran
    UINT64 mismatches = 0;      // answers that differ from what was sent
    UINT64 failures = 0;        // commands that did not succeed
    double seconds = 0;         // of the soak proper
    long fds_start = 0, fds_end = 0;
    long rss_kib_start = 0, rss_kib_end = 0;
    UINT32 logged_lines = 0;    // lines kavo-simd wrote to its log
};

simd_soak_result run_simd_soak(const simd_soak_config& cfg);

} // namespace kavo_test

#endif
