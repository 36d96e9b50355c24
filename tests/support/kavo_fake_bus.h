/* A chip bus in host memory behind the register callouts: registers in a map
   and one window of bytes standing for on-chip RAM, where tests and fuzz
   targets put hand-built (or arbitrary) contents. Header-only, so that the
   fuzz targets use it without the test framework. */
#ifndef KAVO_FAKE_BUS_H
#define KAVO_FAKE_BUS_H

#include <cstring>
#include <functional>
#include <map>
#include <vector>

#include "kavo/kavo_api.h"

namespace kavo_test {

class fake_bus {
public:
    fake_bus() { current() = this; }
    ~fake_bus() { current() = nullptr; }
    static fake_bus*& current()  // the one bus the callouts reach
    {
        static fake_bus* bus = nullptr;
        return bus;
    }

    void map(UINT32 base, size_t bytes) { mem_base = base, mem.assign(bytes, 0); }
    bool in_window(UINT32 a, UINT64 bytes) const { return a >= mem_base && (UINT64)a - mem_base + bytes <= mem.size(); }
    UINT8* at(UINT32 a) { return &mem[a - mem_base]; }
    UINT32 word(UINT32 a)
    {
        UINT32 v;
        std::memcpy(&v, at(a), 4);
        return v;
    }
    void set_word(UINT32 a, UINT32 value) { std::memcpy(at(a), &value, 4); }
    void set_bytes(UINT32 a, const void* data, size_t n) { std::memcpy(at(a), data, n); }

    /* Outside the window: regs, where an unknown address reads 0, or with
       strict set, every access fails as a bus error. */
    UINT32 read(UINT32 a, UINT32* value)
    {
        ++reads[a];
        if (on_read) on_read(a);
        if (in_window(a, 4)) return *value = word(a), 0;
        if (strict) return 1;
        return *value = regs[a], 0;
    }
    UINT32 write(UINT32 a, UINT32 value)
    {
        writes.emplace_back(a, value);
        if (in_window(a, 4)) return set_word(a, value), 0;
        if (strict) return 1;
        return regs[a] = value, 0;
    }
    UINT32 burst_read(UINT32 a, UINT32 words, UINT32* buffer)
    {
        if (in_window(a, (UINT64)words * 4)) return std::memcpy(buffer, at(a), (size_t)words * 4), 0;
        if (strict) return 1;
        for (UINT32 i = 0; i < words; ++i) read(a + 4 * i, &buffer[i]);
        return 0;
    }

    static qspi_callout_api_st* callouts()
    {
        static qspi_callout_api_st table = {
            [](void*, UINT32, UINT32, UINT32 a, UINT32* value) { return current()->read(a, value); },
            [](void*, UINT32, UINT32, UINT32 a, UINT32 value) { return current()->write(a, value); },
            [](void*, UINT32, UINT32, UINT32 n, UINT32 a, UINT32* buffer) { return current()->burst_read(a, n, buffer); },
            [](void*, UINT32, UINT32, UINT32 n, UINT32 a, UINT32* buffer) {
                UINT32 status = 0;
                for (UINT32 i = 0; i < n; ++i) status |= current()->write(a + 4 * i, buffer[i]);
                return status;
            },
        };
        return &table;
    }

    std::map<UINT32, UINT32> regs;
    std::map<UINT32, UINT32> reads;
    std::vector<std::pair<UINT32, UINT32>> writes;
    std::function<void(UINT32 address)> on_read; /* runs before each single read, e.g. as the firmware */
    UINT32 mem_base = 0;
    std::vector<UINT8> mem;
    bool strict = false;
};

}  // namespace kavo_test

#endif /* KAVO_FAKE_BUS_H */
