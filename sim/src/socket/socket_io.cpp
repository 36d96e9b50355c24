#include "socket/socket_io.h"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace kavo_sim::sock {

bool send_all(int fd, const void* data, size_t n)
{
    const auto* p = static_cast<const char*>(data);
    while (n > 0) {
        const ssize_t k = ::send(fd, p, n, MSG_NOSIGNAL);
        if (k < 0 && errno == EINTR) continue;
        if (k <= 0) return false;
        p += k;
        n -= size_t(k);
    }
    return true;
}

bool recv_all(int fd, void* data, size_t n)
{
    auto* p = static_cast<char*>(data);
    while (n > 0) {
        const ssize_t k = ::recv(fd, p, n, 0);
        if (k < 0 && errno == EINTR) continue;
        if (k <= 0) return false;
        p += k;
        n -= size_t(k);
    }
    return true;
}

int connect_to(const char* path)
{
    sockaddr_un addr{};
    if (!path || std::strlen(path) >= sizeof(addr.sun_path)) return -1;
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

bool transact(int fd, sim_message_header_t& hdr, const UINT32* payload_in, UINT32 words_in,
              std::vector<UINT32>* payload_out)
{
    if (fd < 0 || words_in > SIM_MESSAGE_MAX_PAYLOAD_WORDS) return false;
    hdr.length = SIM_MESSAGE_HEADER_SIZE + 4 * words_in;
    if (!send_all(fd, &hdr, sizeof(hdr))) return false;
    if (words_in && !send_all(fd, payload_in, 4 * size_t(words_in))) return false;
    sim_message_header_t rep;
    if (!recv_all(fd, &rep, sizeof(rep))) return false;
    if (rep.command != SIM_COMMAND_REPLY || rep.length < SIM_MESSAGE_HEADER_SIZE || rep.length > MAX_MESSAGE ||
        rep.length % 4 != 0)
        return false;
    const UINT32 words = (rep.length - SIM_MESSAGE_HEADER_SIZE) / 4;
    std::vector<UINT32> scratch;
    std::vector<UINT32>& out = payload_out ? *payload_out : scratch;
    out.resize(words);
    if (words && !recv_all(fd, out.data(), 4 * size_t(words))) return false;
    hdr = rep;
    return true;
}

} // namespace kavo_sim::sock
