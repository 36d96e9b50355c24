// kavoctl's line parser on arbitrary text: each input line goes through
// run_line as a line of `run FILE` or of `shell` would, into every verb's
// argument checks (call's arg=value, record.member=value, member[i]=value,
// lists and enumerations over the catalogue; the views' options; image
// create's words), with a device that never comes up, so that a line that
// passes its checks stops where it would open the device. `image create`
// lines go to the shared argument parser only: the fuzzer writes no files.
// The first byte chooses --json and --quiet.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "kavo_fuzz_support.h"
#include "kavo_sim/image.h"
#include "kavoctl.h"

// The device side of kavoctl (device.cpp), replaced: nothing is ever opened.
namespace kavoctl {
int device_ready(const settings&) { return EXIT_UNREACHABLE; }
void close_device(const settings&) {}
int bus_verdict(const char*, int status) { return status; }
bool bus_failed() { return false; }
void log_to(FILE*) {}
void log_quiet(bool) {}
} // namespace kavoctl

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    kavo_fuzz::install();
    static FILE* quiet = std::fopen("/dev/null", "w");
    if (size == 0) return 0;
    kavoctl::settings s;
    s.json = data[0] & 1;
    s.quiet = data[0] & 2;
    const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);

    // kavoctl's own complaints go to standard error; the fuzzer's reports stay there.
    FILE* saved = stderr;
    stderr = quiet;
    size_t start = 0;
    for (int lines = 0; start <= text.size() && lines < 64; ++lines) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        const std::string line = text.substr(start, end - start);
        start = end + 1;
        const kavoctl::args_t words = kavoctl::split_line(line);
        if (words.size() >= 2 && words[0] == "image" && words[1] == "create") {
            kavo_sim::image_version v;
            bool corrupt = false;
            std::string why;
            const bool ok = kavo_sim::image_create_parse(kavoctl::args_t(words.begin() + std::min<size_t>(3, words.size()), words.end()),
                                                         v, corrupt, why);
            if (ok == !why.empty() || (ok && v.body_size % 4 != 0)) __builtin_trap();
            continue;
        }
        const int status = kavoctl::run_line(s, line);
        // A line either parses and reaches the device (3), is refused as usage (2),
        // fails on its own (1: an unreadable image), succeeds without a device, or quits.
        if (status < -1 || status > kavoctl::EXIT_UNREACHABLE) __builtin_trap();
        if (status == -1) break;
    }
    stderr = saved;
    return 0;
}
