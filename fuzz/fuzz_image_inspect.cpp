// The shared firmware-image inspector (kavoctl image inspect, kavoctl --fw,
// kavo-mkimage inspect) on arbitrary file contents, and the firmware's own
// payload check on the same bytes as if downloaded. A file the inspector
// passes must be one the firmware runs on a chip of the revision it names,
// and its description must name no problem.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "kavo_sim/image.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::vector<UINT8> file(data, data + size);
    const kavo_sim::image_info info = kavo_sim::image_inspect(file);
    const std::string text = kavo_sim::image_describe(info);
    if (text.empty() || text.back() != '\n') __builtin_trap();

    // The image as the firmware sees it in RAM, for both revision codes.
    const size_t image_bytes = size > KAVO_FW_HDR_SIZE ? size - KAVO_FW_HDR_SIZE : 0;
    std::vector<UINT32> ram((image_bytes + 3) / 4, 0);
    if (image_bytes) std::memcpy(ram.data(), data + KAVO_FW_HDR_SIZE, image_bytes);
    const char* on_a = kavo_sim::payload_check(ram.data(), UINT32(ram.size()), 0);
    const char* on_b = kavo_sim::payload_check(ram.data(), UINT32(ram.size()), 1);

    if (info.problem.empty()) {
        if (!info.readable || !info.header_crc_ok || !info.size_ok || !info.payload_ok) __builtin_trap();
        const bool runs = info.payload_device_rev == kavo_sim::IMAGE_REV_B ? on_b == nullptr : on_a == nullptr;
        if (!runs) __builtin_trap();
        if (text.find("status       ok\n") == std::string::npos) __builtin_trap();
    }
    return 0;
}
