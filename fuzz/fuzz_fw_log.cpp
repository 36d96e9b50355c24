// The firmware statistics and debug-log reader on arbitrary log-buffer blocks:
// cookies, counts, record sizes, offsets, write indices, wrap counts, entry
// contents and unterminated names, changed between reads as a restarting or
// misbehaving firmware would.
//
// Input: [image length:2][image] is the start of the block (the rest is 0);
// then frames of [op][byte offset:3][length][bytes]: each writes its bytes
// into the block and runs op % 5: debug log, statistics, reload of the
// tables, statistic names, or the dump kind given by the next byte.
#include <cstddef>
#include <cstdint>

#include "kavo_fuzz_support.h"
#include "kavo_fw_log.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    kavo_fuzz::install();
    // One chip for the whole run: each input starts from a zeroed block.
    static kavo_fuzz::chip chip;
    chip.clear();
    kavo_fuzz::input in{data, size};
    const UINT8* image = nullptr;
    const size_t image_size = in.take(&image, in.u16());
    chip.put(0, image, image_size);
    // One reader too: each input reads the tables afresh (stats_init) and the
    // dumps start their console reading over, so only the console mirror's
    // allocation carries from one input to the next.
    static cpu_cfg_handle_t handle{&chip.sys, 0xF00000};
    static kavo_fw_log log;
    log.handle_init(0, &handle);
    try {
        log.log_init();
        log.stats_init();
        log.show_debug_log(stdout);
        log.show_stats(stdout);
        while (!in.done()) {
            const UINT32 op = in.byte();
            const UINT32 offset = in.u16() | in.byte() << 16;
            const UINT8* bytes = nullptr;
            const size_t length = in.take(&bytes, in.byte());
            chip.put(offset, bytes, length);
            switch (op % 5) {
            case 0: log.show_debug_log(stdout); break;
            case 1: log.show_stats(stdout); break;
            case 2: log.stats_init(); break;
            case 3: (void)log.stat_name_get(op >> 3); break;
            // 0..7: every kind, and values beyond the last one (the enum's range).
            default: log.dump(stdout, (kavo_fw_log_dump_t)(in.byte() % 8)); break;
            }
        }
        log.show_debug_log(stdout);
    } catch (const kavo_fuzz::halted&) {
    } catch (const kavo_fuzz::budget_spent&) {
    }
    return 0;
}
