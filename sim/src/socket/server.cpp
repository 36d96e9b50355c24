// kavo-simd's side of the socket: message handling and a single-threaded
// poll loop over the listening socket and its clients.
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

#include "kavo_sim/kavo_sim.h"
#include "socket/socket_io.h"

namespace kavo_sim {
namespace {

struct reply_builder {
    sim_message_header_t hdr;
    std::vector<UINT32> payload;
};

/* Requests whose payload size is fixed; -1 for burst writes (arg1 words). */
int expected_words(UINT32 command)
{
    switch (command) {
    case SIM_COMMAND_HELLO:
    case SIM_COMMAND_REG_READ:
    case SIM_COMMAND_REG_WRITE:
    case SIM_COMMAND_BURST_READ:
    case SIM_COMMAND_CHIP_DESTROY:
    case SIM_COMMAND_CHIP_INFO:
    case SIM_COMMAND_SHUTDOWN:
        return 0;
    case SIM_COMMAND_CHIP_CREATE:
        return sizeof(sim_chip_config_t) / 4;
    case SIM_COMMAND_FAULT_SET:
        return 2;
    case SIM_COMMAND_BURST_WRITE:
        return -1;
    default:
        return -2; // not a request
    }
}

/* Which client drives each chip's bus: the first to touch it, until it
   hangs up. Another client's bus transactions are refused as busy, so that two
   processes never take each other's replies. Faults and information stay open
   to every client (test harnesses set faults beside the driving process). */
std::atomic<UINT32> chip_owner[SIM_MAX_CHIPS];

bool is_bus_command(UINT32 command)
{
    return command == SIM_COMMAND_REG_READ || command == SIM_COMMAND_REG_WRITE || command == SIM_COMMAND_BURST_READ ||
           command == SIM_COMMAND_BURST_WRITE;
}

/* False when another client owns the chip. */
bool claim(UINT32 device_id, UINT32 client)
{
    if (client == 0 || device_id >= SIM_MAX_CHIPS) return true;
    UINT32 expected = 0;
    return chip_owner[device_id].compare_exchange_strong(expected, client) || expected == client;
}

void release_all(UINT32 client)
{
    for (auto& owner : chip_owner) {
        UINT32 mine = client;
        owner.compare_exchange_strong(mine, 0);
    }
}

bool handle(const sim_message_header_t& req, const UINT32* payload, UINT32 words, reply_builder& rep, UINT32 client)
{
    rep.hdr.device_id = req.device_id;
    const int expect = expected_words(req.command);
    const bool size_ok = expect >= 0 ? UINT32(expect) == words : expect == -1 && req.arg1 == words;
    if (!size_ok) {
        rep.hdr.status = VELT_ERR_INVALID_ARGS;
        return false;
    }
    if (is_bus_command(req.command) && !claim(req.device_id, client)) {
        rep.hdr.status = KAVO_ERR_DEVICE_ID_IN_USE;
        return false;
    }
    chip* c = chip_get(req.device_id);
    switch (req.command) {
    case SIM_COMMAND_HELLO:
        rep.hdr.arg0 = SIM_PROTOCOL_VERSION;
        rep.hdr.arg1 = MAX_CHIPS;
        return false;
    case SIM_COMMAND_REG_READ:
        rep.hdr.status = c ? c->reg_read(req.arg0, &rep.hdr.arg0) : map::BUS_ERR_NO_CHIP;
        return false;
    case SIM_COMMAND_REG_WRITE:
        rep.hdr.status = c ? c->reg_write(req.arg0, req.arg1) : map::BUS_ERR_NO_CHIP;
        return false;
    case SIM_COMMAND_BURST_READ:
        if (req.arg1 > SIM_MESSAGE_MAX_PAYLOAD_WORDS) {
            rep.hdr.status = VELT_ERR_INVALID_ARGS;
            return false;
        }
        rep.payload.resize(req.arg1);
        rep.hdr.status = c ? c->burst_read(req.arg0, req.arg1, rep.payload.data()) : map::BUS_ERR_NO_CHIP;
        if (rep.hdr.status != map::BUS_OK) rep.payload.clear();
        return false;
    case SIM_COMMAND_BURST_WRITE:
        rep.hdr.status = c ? c->burst_write(req.arg0, words, payload) : map::BUS_ERR_NO_CHIP;
        return false;
    case SIM_COMMAND_CHIP_CREATE: {
        sim_chip_config_t w;
        std::memcpy(static_cast<void*>(&w), payload, sizeof(w));
        if (w.mode > 1) {
            rep.hdr.status = VELT_ERR_INVALID_ARGS;
            return false;
        }
        chip_config cfg;
        cfg.device_code = w.device_code;
        cfg.revision_code = w.revision_code;
        cfg.mode = w.mode ? exec_mode::threaded : exec_mode::synchronous;
        cfg.service_time_us = w.service_time_us;
        rep.hdr.status = chip_create(req.device_id, cfg);
        return false;
    }
    case SIM_COMMAND_CHIP_DESTROY:
        rep.hdr.status = c ? VELT_SUCCESS : KAVO_ERR_INVALID_DEVICE_ID;
        chip_destroy(req.device_id);
        return false;
    case SIM_COMMAND_CHIP_INFO: {
        if (!c) {
            rep.hdr.status = KAVO_ERR_INVALID_DEVICE_ID;
            return false;
        }
        const sim_chip_info_t info = c->info();
        rep.payload.resize(sizeof(info) / 4);
        std::memcpy(rep.payload.data(), static_cast<const void*>(&info), sizeof(info));
        return false;
    }
    case SIM_COMMAND_FAULT_SET:
        rep.hdr.status =
            c ? c->fault_set(sim_fault_t(req.arg0), payload[0], payload[1]) : VELT_ERROR(KAVO_ERR_INVALID_DEVICE_ID);
        return false;
    case SIM_COMMAND_SHUTDOWN:
        return true;
    default:
        rep.hdr.status = VELT_ERR_INVALID_ARGS;
        return false;
    }
}

void encode(const reply_builder& rep, std::vector<UINT8>& out)
{
    sim_message_header_t h = rep.hdr;
    h.command = SIM_COMMAND_REPLY;
    h.length = UINT32(SIM_MESSAGE_HEADER_SIZE + 4 * rep.payload.size());
    out.resize(h.length);
    std::memcpy(out.data(), &h, sizeof(h));
    if (!rep.payload.empty()) std::memcpy(out.data() + sizeof(h), rep.payload.data(), 4 * rep.payload.size());
}

} // namespace

bool socket_handle_message(const UINT8* data, size_t size, std::vector<UINT8>& reply, UINT32 client)
{
    reply_builder rep;
    bool shutdown = false;
    sim_message_header_t req;
    if (!data || size < sizeof(req) || size % 4 != 0 || size > sock::MAX_MESSAGE) {
        rep.hdr.status = VELT_ERR_INVALID_ARGS;
    } else {
        std::memcpy(&req, data, sizeof(req));
        if (req.length != size) {
            rep.hdr.status = VELT_ERR_INVALID_ARGS;
        } else {
            const UINT32 words = UINT32((size - sizeof(req)) / 4);
            std::vector<UINT32> payload(words);
            if (words) std::memcpy(payload.data(), data + sizeof(req), 4 * size_t(words));
            shutdown = handle(req, payload.data(), words, rep, client);
        }
    }
    encode(rep, reply);
    return shutdown;
}

struct socket_server::impl {
    struct client {
        int fd;
        std::vector<UINT8> in;
        UINT32 id; // names the client as a chip's owner
    };
    UINT32 next_id = 1;
    int listen_fd = -1;
    int wake[2] = {-1, -1};
    std::atomic<bool> stopping{false};
    std::string path;
    std::vector<client> clients;
    std::thread thread;

    /* Consumes complete messages; false when the client must go. */
    bool drain(client& cl, bool& shutdown)
    {
        std::vector<UINT8> reply;
        size_t used = 0;
        while (cl.in.size() - used >= SIM_MESSAGE_HEADER_SIZE) {
            UINT32 length;
            std::memcpy(&length, cl.in.data() + used, 4);
            if (length < SIM_MESSAGE_HEADER_SIZE || length > sock::MAX_MESSAGE || length % 4 != 0) {
                // The stream cannot be resynchronised: refuse and hang up.
                socket_handle_message(nullptr, 0, reply);
                sock::send_all(cl.fd, reply.data(), reply.size());
                return false;
            }
            if (cl.in.size() - used < length) break;
            shutdown = socket_handle_message(cl.in.data() + used, length, reply, cl.id) || shutdown;
            used += length;
            if (!sock::send_all(cl.fd, reply.data(), reply.size())) return false;
        }
        cl.in.erase(cl.in.begin(), cl.in.begin() + long(used));
        return true;
    }

    void close_all()
    {
        for (client& c : clients) {
            ::close(c.fd);
            release_all(c.id);
        }
        clients.clear();
        if (listen_fd >= 0) {
            ::close(listen_fd);
            ::unlink(path.c_str());
            listen_fd = -1;
        }
    }
};

socket_server::socket_server() : impl_(std::make_unique<impl>())
{
    if (::pipe2(impl_->wake, O_CLOEXEC | O_NONBLOCK) != 0) impl_->wake[0] = impl_->wake[1] = -1;
}

socket_server::~socket_server()
{
    stop();
    join();
    impl_->close_all();
    for (int fd : impl_->wake)
        if (fd >= 0) ::close(fd);
}

VELT_ERROR socket_server::listen(const char* socket_path)
{
    sockaddr_un addr{};
    if (!socket_path || std::strlen(socket_path) >= sizeof(addr.sun_path) || impl_->listen_fd >= 0)
        return VELT_ERR_INVALID_ARGS;
    // A live server keeps its path; a stale socket file is replaced.
    const int probe = sock::connect_to(socket_path);
    if (probe >= 0) {
        ::close(probe);
        return VELT_ERR_FAIL;
    }
    struct stat sb;
    if (::stat(socket_path, &sb) == 0) {
        if (!S_ISSOCK(sb.st_mode)) return VELT_ERR_FAIL;
        ::unlink(socket_path);
    }
    addr.sun_family = AF_UNIX;
    std::strcpy(addr.sun_path, socket_path);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return VELT_ERR_FAIL;
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0 || ::listen(fd, 16) != 0) {
        ::close(fd);
        return VELT_ERR_FAIL;
    }
    impl_->listen_fd = fd;
    impl_->path = socket_path;
    return VELT_SUCCESS;
}

void socket_server::run()
{
    impl& s = *impl_;
    std::vector<pollfd> fds;
    bool shutdown = false;
    while (!shutdown && !s.stopping.load() && s.listen_fd >= 0) {
        fds.clear();
        fds.push_back({s.wake[0], POLLIN, 0});
        fds.push_back({s.listen_fd, POLLIN, 0});
        for (const auto& c : s.clients)
            fds.push_back({c.fd, POLLIN, 0});
        if (::poll(fds.data(), fds.size(), -1) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        if (fds[0].revents) break; // stop() was called
        // Clients first: accepting changes the list.
        for (size_t i = s.clients.size(); i-- > 0;) {
            const short ev = fds[i + 2].revents;
            if (!ev) continue;
            auto& cl = s.clients[i];
            bool keep = true;
            if (ev & POLLIN) {
                UINT8 buf[65536];
                const ssize_t k = ::recv(cl.fd, buf, sizeof(buf), 0);
                if (k > 0) {
                    cl.in.insert(cl.in.end(), buf, buf + k);
                    keep = s.drain(cl, shutdown);
                } else if (k == 0 || (errno != EINTR && errno != EAGAIN)) {
                    keep = false;
                }
            } else {
                keep = false; // hang-up or error
            }
            if (!keep) {
                ::close(cl.fd);
                release_all(cl.id);
                s.clients.erase(s.clients.begin() + long(i));
            }
        }
        if (fds[1].revents & POLLIN) {
            const int fd = ::accept4(s.listen_fd, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd >= 0) s.clients.push_back({fd, {}, s.next_id++});
        }
    }
    s.close_all();
}

void socket_server::stop()
{
    impl_->stopping.store(true);
    if (impl_->wake[1] >= 0) {
        const char b = 1;
        [[maybe_unused]] ssize_t k = ::write(impl_->wake[1], &b, 1);
    }
}

void socket_server::start_thread()
{
    impl_->thread = std::thread([this] { run(); });
}

void socket_server::join()
{
    if (impl_->thread.joinable()) impl_->thread.join();
}

} // namespace kavo_sim
