// The long soak of kavo-simd: client processes on chips of one daemon, each
// running commands whose answers it checks, clients killed at random and
// replaced; prints the figures and exits non-zero when anything was wrong.
//   soak_simd [--clients 8] [--commands 100000] [--kills 40] [--kill-every-ms 5000] [--seed 1]
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kavo_simd_soak.h"

int main(int argc, char** argv)
{
    kavo_test::simd_soak_config cfg;
    cfg.commands = 100000;
    cfg.kills = 40;
    cfg.kill_every_ms = 5000;
    for (int i = 1; i + 1 < argc; i += 2) {
        const unsigned long v = std::strtoul(argv[i + 1], nullptr, 0);
        if (!std::strcmp(argv[i], "--clients") && v >= 1 && v <= 32)
            cfg.clients = UINT32(v);
        else if (!std::strcmp(argv[i], "--commands"))
            cfg.commands = v;
        else if (!std::strcmp(argv[i], "--kills"))
            cfg.kills = UINT32(v);
        else if (!std::strcmp(argv[i], "--kill-every-ms"))
            cfg.kill_every_ms = UINT32(v);
        else if (!std::strcmp(argv[i], "--seed"))
            cfg.seed = UINT32(v);
        else {
            std::fprintf(stderr, "usage: soak_simd [--clients N] [--commands N] [--kills N] [--kill-every-ms MS] [--seed N]\n");
            return 2;
        }
    }
    const kavo_test::simd_soak_result r = kavo_test::run_simd_soak(cfg);
    std::printf("clients %u x %llu commands, seed %u\n", cfg.clients, (unsigned long long)cfg.commands, cfg.seed);
    std::printf("killed and replaced   %u\n", r.kills);
    std::printf("surviving clients     %u\n", r.survivors);
    std::printf("their commands        %llu in %.1f s (%.0f a second, killed clients' not counted)\n",
                (unsigned long long)r.commands, r.seconds, double(r.commands) / r.seconds);
    std::printf("failed / mismatched   %llu / %llu\n", (unsigned long long)r.failures, (unsigned long long)r.mismatches);
    std::printf("daemon descriptors    %ld -> %ld\n", r.fds_start, r.fds_end);
    std::printf("daemon resident KiB   %ld -> %ld\n", r.rss_kib_start, r.rss_kib_end);
    std::printf("daemon log lines      %u\n", r.logged_lines);
    std::printf("daemon still serving  %s\n", r.daemon_alive ? "yes" : "no");
    if (!r.error.empty()) std::printf("error: %s\n", r.error.c_str());
    const bool ok = r.error.empty() && r.daemon_alive && r.survivors == cfg.clients &&
                    r.commands == UINT64(cfg.clients) * cfg.commands && r.failures == 0 && r.mismatches == 0 &&
                    r.fds_end == r.fds_start;
    return ok ? 0 : 1;
}
