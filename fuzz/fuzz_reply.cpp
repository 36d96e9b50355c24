// The library's reply decoding against a hostile chip: the virtual device
// answers each request with header words and payload taken from the input
// (any device id, sequence number, operation, result, scalars and data_size,
// whatever the payload area holds), or changed at random from a seed the
// input gives. The device is brought up once; each input is one command of
// a frame variation chosen by the input.
//
// Input: [variation][mode][8 header words][payload ...]. mode bit 0 set: the
// firmware's own reply, changed from the seed in the first header word.
// Variations: 0 plain, 1 reply payload, 2 response fields, 3 status family,
// 4 debug command with a reply buffer whose size comes from the third header
// word (1 to 65537 bytes, on the heap at that exact size), 5 null-output getter.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include <unistd.h>

#include "kavo_fuzz_support.h"
#include "kavo_sim/kavo_sim.h"

namespace {

constexpr UINT32 ID = 0;

bool configure()
{
    kavo_config_t cfg;
    kavo_config_t_init(&cfg);
    cfg.device_mode = KAVO_DEVICE_MODE_1200G_ENET;
    return kavo_device_config(ID, &cfg) == VELT_SUCCESS;
}

bool bring_up()
{
    static FILE* sink = std::fopen("/dev/null", "w");
    if (std::freopen("/dev/null", "w", stdout) == nullptr) std::perror("freopen");
    static tavo_callout_api_st table = {kavo_sim::callouts()->qspi_callout_api_ctx, kavo_fuzz::drop_log,
                                        [](UINT32, UINT32, const char*) -> void* { return &sink; }, nullptr};
    kavo_sdk_init(&table);
    kavo_assert_handler_set(kavo_fuzz::throw_on_assert);
    const std::string image = "/tmp/kavo_fuzz_reply_" + std::to_string(getpid()) + ".mem";
    if (!kavo_sim::image_write(image.c_str(), kavo_sim::image_version{})) return false;
    kavo_fw_filename_set(image.c_str());
    if (kavo_sim::chip_create(ID) != VELT_SUCCESS) return false;
    const bool up = kavo_device_init(ID, KAVO_INIT_COLD) == VELT_SUCCESS && configure();
    std::remove(image.c_str());
    return up;
}

UINT32 word(const uint8_t* data, size_t size, size_t at)
{
    UINT32 w = 0;
    for (size_t i = 0; i < 4; ++i)
        if (at + i < size) w |= UINT32(data[at + i]) << (8 * i);
    return w;
}

void command(UINT32 variation, UINT32 capacity)
{
    switch (variation % 6) {
    case 0: {
        kavo_config_t cfg;
        kavo_config_t_init(&cfg);
        cfg.device_mode = KAVO_DEVICE_MODE_1200G_ENET;
        (void)kavo_device_config(ID, &cfg);
        break;
    }
    case 1: {
        auto info = std::make_unique<kavo_chnl_info_t>();
        (void)kavo_device_chnl_get(ID, info.get());
        break;
    }
    case 2: {
        auto ppm = std::make_unique<INT32>();
        (void)kavo_serdes_ppm_offset_get(ID, 5, ppm.get());
        break;
    }
    case 3: {
        auto status = std::make_unique<kavo_status_info_t>();
        (void)kavo_device_status_get(ID, status.get());
        break;
    }
    case 4: {
        // A debug command's reply buffer may be larger than any reply: the
        // library's own bound on the reply size is what stops a large one.
        const UINT32 bytes = capacity % 65537 + 1;
        std::unique_ptr<char[]> out(new char[bytes]);
        (void)kavo_debug_cmd(ID, "help", bytes, out.get());
        break;
    }
    default: (void)kavo_serdes_ppm_offset_get(ID, 5, nullptr); break;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // The set-up's traced configuration prints a line per member; an input's
    // command, and a re-initialisation after it, may print up to 200.
    static const bool up = [] {
        kavo_fuzz::print_budget() = ~0ul;
        const bool done = bring_up();
        kavo_fuzz::print_budget() = 200;
        return done;
    }();
    if (!up) std::abort();
    if (size < 2) return 0;
    kavo_sim::chip* chip = kavo_sim::chip_get(ID);
    kavo_fuzz::printed() = 0;
    kavo_sim::fault_config f;
    if (data[1] & 1) {
        f.hostile_seed = word(data, size, 2) | 1; // a seed of 0 would switch the mode off
        f.hostile_replies = 1;
    } else {
        kavo_sim::scripted_reply r;
        r.raw = true;
        for (size_t i = 0; i < 8; ++i) r.header[i] = word(data, size, 2 + 4 * i);
        if (size > 34) r.data.assign(data + 34, data + size);
        f.scripted = {r};
    }
    chip->faults(f);
    try {
        command(data[0], word(data, size, 10));
    } catch (const kavo_fuzz::halted&) {
    } catch (const kavo_fuzz::budget_spent&) {
    }
    // The next input starts from a working device: the fault cleared, the
    // next command answered (or, should it not be, the device brought up again).
    chip->faults(kavo_sim::fault_config{});
    UINT32 ping = 0x5A5A5A5A, back = 0;
    if (kavo_debug_ping(ID, 4, &ping, &back) != VELT_SUCCESS || back != ping) {
        kavo_device_uninit(ID, 0);
        if (kavo_device_init(ID, KAVO_INIT_COLD) != VELT_SUCCESS || !configure()) std::abort();
    }
    return 0;
}
