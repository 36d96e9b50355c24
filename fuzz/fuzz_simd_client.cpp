// The client's side of kavo-simd's socket on arbitrary bytes from a daemon:
// replies of any kind, length, device id and payload, cut short or followed by
// more, through the callout table the library uses and through the one-shot
// commands. Nothing may be written past a caller's buffer (the buffers are
// exactly as large as asked, with a guard word checked after), and a
// transaction either succeeds with the whole reply or fails.
//
// Input: [mode][n][n operation bytes] then the daemon's bytes, all of them
// queued on the socket before the first request (the stream then ends).
// Mode bit 0: the operations are callouts (op % 4: register read, register
// write, burst read, burst write, of op / 4 % 64 + 1 words) or else one-shot
// commands (op % 4: HELLO, CHIP_INFO, FAULT_SET, CHIP_CREATE).
#include <cstdint>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "kavo_sim/kavo_sim.h"
#include "socket/socket_io.h"

namespace {

constexpr UINT32 GUARD = 0xC0FFEE11;

void check(bool ok)
{
    if (!ok) __builtin_trap();
}

void callouts(int fd, const uint8_t* ops, size_t n)
{
    qspi_callout_api_st* bus = kavo_sim::sock::callouts_on_fd(fd)->qspi_callout_api_ctx;
    for (size_t i = 0; i < n; ++i) {
        const UINT32 words = ops[i] / 4 % 64 + 1;
        std::vector<UINT32> buffer(words + 1, 0x5A5A5A5A);
        buffer[words] = GUARD;
        UINT32 value = 0;
        switch (ops[i] % 4) {
        case 0: bus->qspi_read(nullptr, 0, 3, 0xF00380, &value); break;
        case 1: bus->qspi_write(nullptr, 0, 3, 0xF00320, 1); break;
        case 2: bus->qspi_bread(nullptr, 0, 3, words, 0x1000, buffer.data()); break;
        default: bus->qspi_bwrite(nullptr, 0, 3, words, 0x1000, buffer.data()); break;
        }
        check(buffer[words] == GUARD);
    }
    kavo_sim::socket_disconnect();
}

void commands(int fd, const uint8_t* ops, size_t n)
{
    for (size_t i = 0; i < n; ++i) {
        sim_message_header_t h;
        h.device_id = ops[i] >> 4;
        const UINT32 in[4] = {0x6100, 0, 0, 0};
        UINT32 out[sizeof(sim_chip_info_t) / 4 + 1];
        out[sizeof(out) / 4 - 1] = GUARD;
        UINT32 got = 0xFFFF;
        VELT_ERROR e = VELT_SUCCESS;
        switch (ops[i] % 4) {
        case 0:
            h.command = SIM_COMMAND_HELLO;
            e = kavo_sim::sock::command_on_fd(fd, h, nullptr, 0, nullptr, 0, &got);
            break;
        case 1:
            h.command = SIM_COMMAND_CHIP_INFO;
            e = kavo_sim::sock::command_on_fd(fd, h, nullptr, 0, out, sizeof(out) / 4 - 1, &got);
            break;
        case 2:
            h.command = SIM_COMMAND_FAULT_SET;
            e = kavo_sim::sock::command_on_fd(fd, h, in, 2, nullptr, 0, &got);
            break;
        default:
            h.command = SIM_COMMAND_CHIP_CREATE;
            e = kavo_sim::sock::command_on_fd(fd, h, in, 4, nullptr, 0, &got);
            break;
        }
        check(out[sizeof(out) / 4 - 1] == GUARD);
        if (e == VELT_ERR_FAIL && got == 0) break; // the stream is broken: a client hangs up
        check(got <= sizeof(out) / 4 - 1);
        check(h.command == SIM_COMMAND_REPLY && h.length == SIM_MESSAGE_HEADER_SIZE + 4 * got);
    }
    ::close(fd);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2) return 0;
    const bool through_callouts = data[0] & 1;
    const size_t n = std::min<size_t>(data[1], size - 2);
    const uint8_t* ops = data + 2;
    data += 2 + n;
    size -= 2 + n;
    int sv[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) return 0;
    // The daemon's side says everything at once and then hangs up; requests
    // pile up unread on it (at most 255 of at most 64 words: they fit).
    if (size > 0 && ::send(sv[1], data, size, MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
    }
    ::shutdown(sv[1], SHUT_WR);
    if (through_callouts)
        callouts(sv[0], ops, n);
    else
        commands(sv[0], ops, n);
    ::close(sv[1]);
    return 0;
}
