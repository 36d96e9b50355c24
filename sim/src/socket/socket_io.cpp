// Socket plumbing and the client's side of one exchange.
#include "socket/socket_io.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <sched.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

namespace kavo_sim::sock {
namespace {

/* Sends every byte of the iovecs (advanced in place); MSG_NOSIGNAL, so a peer
   that went away fails the send instead of killing the process. */
bool sendv_all(int fd, iovec* iov, int count)
{
    while (count > 0) {
        msghdr m{};
        m.msg_iov = iov;
        m.msg_iovlen = size_t(count);
        ssize_t k = ::sendmsg(fd, &m, MSG_NOSIGNAL);
        if (k < 0 && errno == EINTR) continue;
        if (k <= 0) return false;
        while (count > 0 && size_t(k) >= iov->iov_len) {
            k -= ssize_t(iov->iov_len);
            ++iov;
            --count;
        }
        if (count > 0) {
            iov->iov_base = static_cast<char*>(iov->iov_base) + k;
            iov->iov_len -= size_t(k);
        }
    }
    return true;
}

} // namespace

ssize_t receive(int fd, iovec* iov, int count)
{
    msghdr m{};
    m.msg_iov = iov;
    m.msg_iovlen = size_t(count);
    using clock = std::chrono::steady_clock;
    const auto until = clock::now() + std::chrono::microseconds(RECEIVE_SPIN_US);
    for (;;) {
        const ssize_t k = ::recvmsg(fd, &m, MSG_DONTWAIT);
        if (k >= 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) return k;
        if (clock::now() >= until) break;
        ::sched_yield(); // a peer on this processor runs now
    }
    return ::recvmsg(fd, &m, 0);
}

bool send_all(int fd, const void* data, size_t n)
{
    iovec iov{const_cast<void*>(data), n};
    return sendv_all(fd, &iov, 1);
}

int connect_to(const char* path)
{
    sockaddr_un addr{};
    if (!path || !*path || std::strlen(path) >= sizeof(addr.sun_path)) return -1;
    addr.sun_family = AF_UNIX;
    std::strcpy(addr.sun_path, path);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

const char* framing_error(UINT32 length)
{
    if (length < SIM_MESSAGE_HEADER_SIZE) return "shorter than a header";
    if (length > MAX_MESSAGE) return "longer than the largest message";
    if (length % 4 != 0) return "not whole words";
    return nullptr;
}

bool exchange(int fd, sim_message_header_t& hdr, const UINT32* in, UINT32 words_in, UINT32* out, UINT32 out_words,
              UINT32* got)
{
    if (got) *got = 0;
    if (fd < 0 || words_in > SIM_MESSAGE_MAX_PAYLOAD_WORDS || out_words > SIM_MESSAGE_MAX_PAYLOAD_WORDS) return false;
    // Header and payload leave in one call, the reply's header and payload
    // arrive in one (the common case), straight into the caller's buffer.
    hdr.length = SIM_MESSAGE_HEADER_SIZE + 4 * words_in;
    iovec request[2] = {{&hdr, SIM_MESSAGE_HEADER_SIZE}, {const_cast<UINT32*>(in), 4 * size_t(words_in)}};
    if (!sendv_all(fd, request, words_in ? 2 : 1)) return false;

    sim_message_header_t rep;
    auto* payload = reinterpret_cast<char*>(out);
    size_t limit = SIM_MESSAGE_HEADER_SIZE + 4 * size_t(out_words); // until the header says otherwise
    size_t have = 0;
    bool framed = false;
    while (have < limit) {
        iovec iov[2];
        int count = 0;
        if (have < SIM_MESSAGE_HEADER_SIZE) {
            iov[count++] = {reinterpret_cast<char*>(&rep) + have, SIM_MESSAGE_HEADER_SIZE - have};
            if (limit > SIM_MESSAGE_HEADER_SIZE) iov[count++] = {payload, limit - SIM_MESSAGE_HEADER_SIZE};
        } else {
            iov[count++] = {payload + (have - SIM_MESSAGE_HEADER_SIZE), limit - have};
        }
        const ssize_t k = receive(fd, iov, count);
        if (k < 0 && errno == EINTR) continue;
        if (k <= 0) return false;
        have += size_t(k);
        if (!framed && have >= SIM_MESSAGE_HEADER_SIZE) {
            if (rep.command != SIM_COMMAND_REPLY || framing_error(rep.length) || rep.length > limit ||
                rep.device_id != hdr.device_id)
                return false;
            framed = true;
            limit = rep.length;
        }
    }
    // A byte past the reply is one the daemon had no reason to send.
    if (have != limit) return false;
    if (got) *got = (rep.length - SIM_MESSAGE_HEADER_SIZE) / 4;
    hdr = rep;
    return true;
}

} // namespace kavo_sim::sock
