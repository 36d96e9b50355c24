/* A chip bus in host memory, behind the register callouts: registers in a map
   and one window of bytes standing for on-chip RAM. Tests and fuzz targets put
   hand-built (or arbitrary) contents there and let the library read them.
   Header-only, so that the fuzz targets use it without the test framework. */
#ifndef KAVO_FAKE_BUS_H
#define KAVO_FAKE_BUS_H

#include <cstring>
#include <functional>
#include <map>
#include <utility>
#include <vector>

#include "kavo/kavo_api.h"

namespace kavo_test {

class fake_bus {
public:
    fake_bus() { current() = this; }
    ~fake_bus() { current() = nullptr; }
    fake_bus(const fake_bus&) = delete;
    fake_bus& operator=(const fake_bus&) = delete;

    /* The one bus the callouts reach. */
    static fake_bus*& current()
    {
        static fake_bus* bus = nullptr;
        return bus;
    }

    /* Maps `bytes` zeroed bytes of memory at chip address base. */
    void map(UINT32 base, size_t bytes)
    {
        mem_base = base;
        mem.assign(bytes, 0);
    }
    bool in_window(UINT32 address, UINT64 bytes) const
    {
        return address >= mem_base && (UINT64)address - mem_base + bytes <= mem.size();
    }
    UINT8* at(UINT32 address) { return &mem[address - mem_base]; }
    UINT32 word(UINT32 address) const
    {
        UINT32 v;
        std::memcpy(&v, &mem[address - mem_base], 4);
        return v;
    }
    void set_word(UINT32 address, UINT32 value) { std::memcpy(at(address), &value, 4); }
    void set_bytes(UINT32 address, const void* data, size_t n) { std::memcpy(at(address), data, n); }

    /* Register reads count here; unmapped addresses read 0 unless strict. */
    UINT32 read(UINT32 address, UINT32* value)
    {
        ++reads[address];
        if (on_read) on_read(address);
        if (in_window(address, 4)) {
            *value = word(address);
            return 0;
        }
        auto it = regs.find(address);
        if (it == regs.end() && strict) return ++failures, 1;
        *value = it != regs.end() ? it->second : 0;
        return 0;
    }
    UINT32 write(UINT32 address, UINT32 value)
    {
        writes.emplace_back(address, value);
        if (in_window(address, 4)) {
            set_word(address, value);
            return 0;
        }
        if (strict) return ++failures, 1;
        regs[address] = value;
        return 0;
    }
    /* A burst fails as a whole when any word of it is outside the window (strict). */
    UINT32 burst_read(UINT32 address, UINT32 words, UINT32* buffer)
    {
        ++burst_reads;
        if (in_window(address, (UINT64)words * 4)) {
            std::memcpy(buffer, at(address), (size_t)words * 4);
            return 0;
        }
        if (strict) return ++failures, 1;
        for (UINT32 i = 0; i < words; ++i) read(address + 4 * i, &buffer[i]);
        return 0;
    }

    static qspi_callout_api_st* callouts()
    {
        static qspi_callout_api_st table = {
            [](void*, UINT32, UINT32, UINT32 address, UINT32* value) { return current()->read(address, value); },
            [](void*, UINT32, UINT32, UINT32 address, UINT32 value) { return current()->write(address, value); },
            [](void*, UINT32, UINT32, UINT32 words, UINT32 address, UINT32* buffer) {
                return current()->burst_read(address, words, buffer);
            },
            [](void*, UINT32, UINT32, UINT32 words, UINT32 address, UINT32* buffer) {
                for (UINT32 i = 0; i < words; ++i) current()->write(address + 4 * i, buffer[i]);
                return (UINT32)0;
            },
        };
        return &table;
    }

    std::map<UINT32, UINT32> regs;
    std::map<UINT32, UINT32> reads;
    std::vector<std::pair<UINT32, UINT32>> writes;
    std::function<void(UINT32 address)> on_read;
    UINT32 mem_base = 0;
    std::vector<UINT8> mem;
    bool strict = false;
    UINT32 failures = 0;
    UINT32 burst_reads = 0;
};

}  // namespace kavo_test

#endif /* KAVO_FAKE_BUS_H */
