// kavo-simd's side of a connection on arbitrary bytes from a client: framing
// across partial reads, every command with any header and payload, chips that
// exist or not, owned by this client or another. Each reply must be one
// well-formed message; after a malformed message or SHUTDOWN nothing more is
// answered.
//
// Input: [chunk][owner] then the byte stream. The stream arrives in pieces of
// chunk % 64 + 1 bytes (all at once when chunk is 0); owner bit 0 gives chip 1
// to another client first (its transactions are then refused as busy).
// Chips 0 and 1 exist (synchronous) at the start of every input, with no
// faults; chips an input creates stay for the next ones, and CHIP_DESTROY
// (found where the stream's own framing puts messages) always names chip 31:
// a chip's 4 MiB of RAM costs more to make again than a whole input.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "kavo_sim/kavo_sim.h"
#include "socket/socket_io.h"

namespace {

using kavo_sim::sock::MAX_MESSAGE;

struct replies {
    size_t count = 0;
    bool ended = false; // a reply that ends the connection went out
};

void check(bool ok)
{
    if (!ok) __builtin_trap();
}

bool on_reply(void* ctx, const void* data, size_t size)
{
    auto& r = *static_cast<replies*>(ctx);
    check(!r.ended);
    sim_message_header_t h;
    check(size >= sizeof(h) && size <= MAX_MESSAGE && size % 4 == 0);
    std::memcpy(static_cast<void*>(&h), data, sizeof(h));
    check(h.length == size && h.command == SIM_COMMAND_REPLY);
    ++r.count;
    return true;
}

void restore()
{
    for (UINT32 id = 0; id < 2; ++id) {
        if (!kavo_sim::chip_get(id)) kavo_sim::chip_create(id);
        kavo_sim::chip_get(id)->fault_set(SIM_FAULT_CLEAR_ALL);
    }
}

/* Points every CHIP_DESTROY of the stream at chip 31. */
void spare_chips(std::vector<UINT8>& stream)
{
    for (size_t at = 0; at + SIM_MESSAGE_HEADER_SIZE <= stream.size();) {
        UINT32 h[3];
        std::memcpy(h, stream.data() + at, sizeof(h));
        if (kavo_sim::sock::framing_error(h[0])) break;
        if (h[1] == SIM_COMMAND_CHIP_DESTROY) {
            const UINT32 spare = kavo_sim::MAX_CHIPS - 1;
            std::memcpy(stream.data() + at + 8, &spare, 4);
        }
        at += h[0];
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    restore();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2) return 0;
    const size_t chunk = data[0] % 64 ? data[0] % 64 + 1 : MAX_MESSAGE;
    const bool taken = data[1] & 1;
    std::vector<UINT8> stream(data + 2, data + size);
    spare_chips(stream);
    data = stream.data();
    size = stream.size();
    // One session each for the whole run (a connection's buffers are mapped
    // memory, slow to make and drop), reset between inputs.
    static kavo_sim::sock::session s(1), other(2);
    if (taken) {
        const UINT32 read[6] = {24, SIM_COMMAND_REG_READ, 1, 0, kavo_sim::map::DEVICE_ID, 0};
        size_t room;
        std::memcpy(other.space(room), read, sizeof(read));
        replies r;
        kavo_sim::sock::verdict v;
        check(other.received(sizeof(read), on_reply, &r, v) && r.count == 1);
    }
    replies r;
    kavo_sim::sock::verdict v;
    size_t at = 0;
    while (at < size && !v.close && !v.shutdown) {
        size_t room;
        UINT8* p = s.space(room);
        check(room > 0);
        const size_t n = std::min({chunk, room, size - at});
        std::memcpy(p, data + at, n);
        at += n;
        check(s.received(n, on_reply, &r, v));
        r.ended = v.close || v.shutdown;
        check(!v.close || v.reason[0] != '\0');
    }
    s.reset();
    other.reset();
    restore();
    return 0;
}
