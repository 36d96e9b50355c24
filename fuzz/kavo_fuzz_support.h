/* What the fuzz targets share: a strict memory-backed bus holding the
   log-buffer block, a print callout that formats every line (so that bad
   format arguments are caught) and then drops it, and an assertion handler
   that turns the library's halts into a C++ exception the target catches: a
   halt on bad firmware data is the library's documented answer, not a crash. */
#ifndef KAVO_FUZZ_SUPPORT_H
#define KAVO_FUZZ_SUPPORT_H

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kavo/kavo_api.h"
#include "kavo_fake_bus.h"
#include "velt_shared_memory.h"
#include "velt_sys.h"

namespace kavo_fuzz {

constexpr UINT32 BLOCK_BYTES = 131140;

/* Thrown by the assertion handler. */
struct halted {};
/* Thrown by the print callout when one input has printed this many lines:
   the largest legal blocks list millions of entries, which would only slow
   the search down. Endless loops that print nothing are left to -timeout. */
struct budget_spent {};
constexpr unsigned long PRINT_BUDGET = 50;

inline unsigned long& printed()
{
    static unsigned long count = 0;
    return count;
}
/* Lines one input may print; a target whose single commands print more (a
   traced configuration) sets its own, and lifts it while it sets up. */
inline unsigned long& print_budget()
{
    static unsigned long budget = PRINT_BUDGET;
    return budget;
}

inline int drop_log(void*, FILE*, const char* format, ...)
{
    if (++printed() > print_budget()) throw budget_spent{};
    char line[256];
    va_list args;
    va_start(args, format);
    const int n = std::vsnprintf(line, sizeof(line), format, args);
    va_end(args);
    return n;
}

inline void throw_on_assert(UINT32, const char*, int) { throw halted{}; }

/* Installs the callouts once; stdout (the library's direct messages) goes nowhere. */
inline void install()
{
    static bool done = false;
    if (done) return;
    done = true;
    // A fixed time zone: each log set-up converts times, and without TZ the C
    // library would look at /etc/localtime on every conversion.
    setenv("TZ", "UTC0", 1);
    static FILE* sink = std::fopen("/dev/null", "w");
    if (std::freopen("/dev/null", "w", stdout) == nullptr) std::perror("freopen");
    static tavo_callout_api_st table = {kavo_test::fake_bus::callouts(), drop_log,
                                        [](UINT32, UINT32, const char*) -> void* { return &sink; }, nullptr};
    velt_sys_sdk_init(&table);
    kavo_assert_handler_set(throw_on_assert);
}

/* One input's chip: the block at its OCR address, nothing else decoded. */
struct chip {
    chip()
    {
        printed() = 0;
        bus.strict = true;
        bus.map(VELT_DEVICE_LOG_BUFFERS_OCR_ADDR, BLOCK_BYTES);
        sys = velt_sys_handle_create();
        velt_sys_init(sys, 0);
    }
    ~chip() { velt_sys_handle_destroy(sys); }
    /* A zeroed block and a fresh print budget, for the next input. Only
       what the last input put there and the library wrote is cleared: the
       block is 128 KiB, an input touches a few hundred bytes of it. */
    void clear()
    {
        printed() = 0;
        std::memset(bus.at(VELT_DEVICE_LOG_BUFFERS_OCR_ADDR), 0, put_end);
        put_end = 0;
        for (const auto& [address, value] : bus.writes)
            if (bus.in_window(address, 4)) bus.set_word(address, 0);
        bus.reads.clear();
        bus.writes.clear();
    }
    /* Copies bytes into the block at byte offset, clipped to the block. */
    void put(UINT32 offset, const UINT8* data, size_t size)
    {
        if (size == 0 || offset >= BLOCK_BYTES) return;
        if (size > BLOCK_BYTES - offset) size = BLOCK_BYTES - offset;
        std::memcpy(bus.at(VELT_DEVICE_LOG_BUFFERS_OCR_ADDR + offset), data, size);
        touched(offset + size);
    }
    /* Bytes up to `end` were written behind put()'s back (through a pointer
       into the block): the next clear covers them. */
    void touched(size_t end) { put_end = end > put_end ? end : put_end; }
    void put_word(UINT32 offset, UINT32 value) { put(offset, reinterpret_cast<const UINT8*>(&value), 4); }

    kavo_test::fake_bus bus;
    velt_sys_handle_t sys = nullptr;
    size_t put_end = 0; // the end of what put() wrote since the last clear
};

/* Reads the input front to back; past its end everything is 0. */
struct input {
    const UINT8* data;
    size_t size;
    size_t at = 0;
    bool done() const { return at >= size; }
    UINT32 byte() { return at < size ? data[at++] : 0; }
    UINT32 u16() { return byte() | byte() << 8; }
    /* Up to n bytes; returns how many there were. */
    size_t take(const UINT8** out, size_t n)
    {
        *out = data + at;
        if (n > size - at) n = size - at;
        at += n;
        return n;
    }
};

}  // namespace kavo_fuzz

#endif /* KAVO_FUZZ_SUPPORT_H */
