// kavo-simd: serves virtual kavo chips over a Unix domain socket, so that the
// chips outlive the processes that drive them.
#include <csignal>
#include <malloc.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kavo_sim/kavo_sim.h"

namespace {

kavo_sim::socket_server* running_server = nullptr;

void on_signal(int)
{
    if (running_server) running_server->stop();
}

int usage()
{
    std::fprintf(stderr, "usage: kavo-simd --socket PATH [--chips N] [--revision reva|revb] [--mode sync|threaded]\n"
                         "                 [--service-time US] [--device-code CODE]\n");
    return 2;
}

} // namespace

int main(int argc, char** argv)
{
    const char* path = nullptr;
    UINT32 chips = 1;
    kavo_sim::chip_config cfg;
    for (int i = 1; i < argc; ++i) {
        const char* opt = argv[i];
        const char* val = i + 1 < argc ? argv[++i] : nullptr;
        bool ok = val != nullptr;
        if (!ok) {
        } else if (!std::strcmp(opt, "--socket")) {
            path = val;
        } else if (!std::strcmp(opt, "--chips")) {
            ok = kavo_sim::parse_u32(val, chips) && chips <= kavo_sim::MAX_CHIPS;
        } else if (!std::strcmp(opt, "--revision")) {
            ok = !std::strcmp(val, "reva") || !std::strcmp(val, "revb");
            cfg.revision_code = std::strcmp(val, "revb") == 0 ? 1 : 0;
        } else if (!std::strcmp(opt, "--mode")) {
            ok = !std::strcmp(val, "sync") || !std::strcmp(val, "threaded");
            cfg.mode =
                std::strcmp(val, "threaded") == 0 ? kavo_sim::exec_mode::threaded : kavo_sim::exec_mode::synchronous;
        } else if (!std::strcmp(opt, "--service-time")) {
            ok = kavo_sim::parse_u32(val, cfg.service_time_us);
        } else if (!std::strcmp(opt, "--device-code")) {
            ok = kavo_sim::parse_u32(val, cfg.device_code) && cfg.device_code <= 0xFFFF;
        } else {
            ok = false;
        }
        if (!ok) return usage();
    }
    if (!path) return usage();

    // Connections come and go with threads of their own, and a chip's
    // firmware is rebuilt on whichever thread restarts it: one heap for all
    // keeps freed memory in use instead of spread over per-thread arenas
    // (nothing is allocated per message).
    mallopt(M_ARENA_MAX, 1);

    kavo_sim::socket_server server;
    if (server.listen(path) != VELT_SUCCESS) {
        std::fprintf(stderr, "kavo-simd: cannot listen on %s (in use or not creatable)\n", path);
        return 1;
    }
    for (UINT32 id = 0; id < chips; ++id)
        kavo_sim::chip_create(id, cfg);

    running_server = &server;
    struct sigaction sa {};
    sa.sa_handler = on_signal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    std::printf("kavo-simd: %u chip(s), revision %s, serving %s\n", chips, cfg.revision_code ? "revb" : "reva", path);
    std::fflush(stdout);
    server.run();
    running_server = nullptr;
    kavo_sim::chip_destroy_all();
    std::printf("kavo-simd: stopped\n");
    return 0;
}
