// kavo-simd's side of the socket: message handling, and a server that accepts
// on one thread and serves each connection on a thread of its own, so that a
// slow, stopped or half-sent client never delays another.
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <list>
#include <new>
#include <mutex>
#include <poll.h>
#include <shared_mutex>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

#include "kavo_sim/kavo_sim.h"
#include "socket/socket_io.h"

namespace kavo_sim {
namespace sock {
namespace {

/* Per chip: its lifetime lock (shared while a message uses the chip, unique
   while the socket creates or destroys it) and which client drives its bus:
   the first to touch it, until it hangs up. Another client's bus transactions
   are refused as busy, so that two processes never take each other's replies;
   faults and information stay open to every client (test harnesses set faults
   beside the driving process). One cache line each: clients of different
   chips share nothing. */
struct alignas(64) chip_slot {
    std::shared_mutex life;
    std::atomic<UINT64> owner{0}; // client id << 32 | its socket + 1; 0 when free
};

constexpr UINT32 owner_id(UINT64 word) { return UINT32(word >> 32); }
constexpr int owner_fd(UINT64 word) { return int(UINT32(word)) - 1; }
constexpr UINT64 owner_word(UINT32 client, int fd) { return UINT64(client) << 32 | UINT32(fd + 1); }
chip_slot slots[SIM_MAX_CHIPS];

const char* command_name(UINT32 command)
{
    static const char* const names[] = {"HELLO",        "REG_READ",  "REG_WRITE",  "BURST_READ",
                                        "BURST_WRITE",  "CHIP_CREATE", "CHIP_DESTROY", "CHIP_INFO",
                                        "FAULT_SET",    "REPLY",     "SHUTDOWN"};
    return command < sizeof(names) / sizeof(names[0]) ? names[command] : "?";
}

/* Payload words a request carries; -1 for burst writes (arg1 words), -2 for
   what is no request. */
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
        return -2;
    }
}

bool is_bus_command(UINT32 command)
{
    return command == SIM_COMMAND_REG_READ || command == SIM_COMMAND_REG_WRITE || command == SIM_COMMAND_BURST_READ ||
           command == SIM_COMMAND_BURST_WRITE;
}

/* True when the peer of socket fd has hung up (closed, died, or shut its
   sending side), whether or not its own thread has read that yet. */
bool peer_gone(int fd)
{
    pollfd p{fd, POLLRDHUP, 0};
    return fd >= 0 && ::poll(&p, 1, 0) == 1 && (p.revents & (POLLRDHUP | POLLHUP | POLLERR));
}

/* False when another client owns the chip. The owner's own transactions only
   read the word. A chip whose owner has hung up passes on at once: its
   connection's thread frees it too, but perhaps only after the next process
   has asked (a killed client, a machine under load). */
bool claim(UINT32 device_id, UINT32 client, int fd)
{
    if (client == 0 || device_id >= SIM_MAX_CHIPS) return true;
    std::atomic<UINT64>& owner = slots[device_id].owner;
    UINT64 current = owner.load(std::memory_order_acquire);
    if (owner_id(current) == client) return true;
    if (current != 0 && !peer_gone(owner_fd(current))) return false;
    // Free, or its owner gone: whoever changes the word first has it.
    return owner.compare_exchange_strong(current, owner_word(client, fd)) || owner_id(current) == client;
}

void malformed(verdict& out, const char* format, ...) __attribute__((format(printf, 2, 3)));
void malformed(verdict& out, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    std::vsnprintf(out.reason, sizeof(out.reason), format, args);
    va_end(args);
    out.close = true;
}

/* Serves a well-framed request; the reply's payload words are written after
   its header in `reply`. */
UINT32 serve(const sim_message_header_t& req, const UINT32* payload, UINT32 words, UINT32 client, int client_fd,
             sim_message_header_t& rep, UINT32* reply_payload, verdict& out)
{
    const int expect = expected_words(req.command);
    if (expect == -2) {
        malformed(out, "command %u (%s) is no request", UINT32(req.command), command_name(req.command));
        return 0;
    }
    if (expect == -1 ? req.arg1 != words : UINT32(expect) != words) {
        malformed(out, "%s with %u payload words, %u expected", command_name(req.command), words,
                  expect == -1 ? req.arg1 : UINT32(expect));
        return 0;
    }
    if (req.command == SIM_COMMAND_BURST_READ && req.arg1 > SIM_MESSAGE_MAX_PAYLOAD_WORDS) {
        malformed(out, "BURST_READ of %u words, at most %u", req.arg1, SIM_MESSAGE_MAX_PAYLOAD_WORDS);
        return 0;
    }
    switch (req.command) {
    case SIM_COMMAND_HELLO:
        rep.arg0 = SIM_PROTOCOL_VERSION;
        rep.arg1 = MAX_CHIPS;
        return 0;
    case SIM_COMMAND_SHUTDOWN:
        out.shutdown = true;
        return 0;
    case SIM_COMMAND_CHIP_CREATE: {
        sim_chip_config_t w;
        std::memcpy(static_cast<void*>(&w), payload, sizeof(w));
        if (w.mode > 1) {
            rep.status = VELT_ERR_INVALID_ARGS;
            return 0;
        }
        chip_config cfg;
        cfg.device_code = w.device_code;
        cfg.revision_code = w.revision_code;
        cfg.mode = w.mode ? exec_mode::threaded : exec_mode::synchronous;
        cfg.service_time_us = w.service_time_us;
        if (req.device_id >= SIM_MAX_CHIPS) {
            rep.status = KAVO_ERR_INVALID_DEVICE_ID;
            return 0;
        }
        std::unique_lock<std::shared_mutex> lock(slots[req.device_id].life);
        rep.status = chip_create(req.device_id, cfg);
        return 0;
    }
    case SIM_COMMAND_CHIP_DESTROY: {
        if (req.device_id >= SIM_MAX_CHIPS) {
            rep.status = KAVO_ERR_INVALID_DEVICE_ID;
            return 0;
        }
        std::unique_lock<std::shared_mutex> lock(slots[req.device_id].life);
        rep.status = chip_get(req.device_id) ? VELT_SUCCESS : KAVO_ERR_INVALID_DEVICE_ID;
        chip_destroy(req.device_id);
        return 0;
    }
    default:
        break;
    }

    // The rest use a chip that exists: it stays while they do.
    if (is_bus_command(req.command) && !claim(req.device_id, client, client_fd)) {
        rep.status = KAVO_ERR_DEVICE_ID_IN_USE;
        return 0;
    }
    std::shared_lock<std::shared_mutex> lock;
    if (req.device_id < SIM_MAX_CHIPS) lock = std::shared_lock<std::shared_mutex>(slots[req.device_id].life);
    chip* c = chip_get(req.device_id);
    const UINT32 no_chip = is_bus_command(req.command) ? map::BUS_ERR_NO_CHIP : UINT32(KAVO_ERR_INVALID_DEVICE_ID);
    if (!c) {
        rep.status = no_chip;
        return 0;
    }
    switch (req.command) {
    case SIM_COMMAND_REG_READ:
        rep.status = c->reg_read(req.arg0, &rep.arg0);
        return 0;
    case SIM_COMMAND_REG_WRITE:
        rep.status = c->reg_write(req.arg0, req.arg1);
        return 0;
    case SIM_COMMAND_BURST_READ:
        rep.status = c->burst_read(req.arg0, req.arg1, reply_payload);
        return rep.status == map::BUS_OK ? req.arg1 : 0;
    case SIM_COMMAND_BURST_WRITE:
        rep.status = c->burst_write(req.arg0, words, payload);
        return 0;
    case SIM_COMMAND_CHIP_INFO: {
        const sim_chip_info_t info = c->info();
        std::memcpy(reply_payload, static_cast<const void*>(&info), sizeof(info));
        return sizeof(info) / 4;
    }
    case SIM_COMMAND_FAULT_SET:
        rep.status = c->fault_set(sim_fault_t(req.arg0), payload[0], payload[1]);
        return 0;
    default:
        return 0;
    }
}

size_t finish_reply(sim_message_header_t& rep, UINT32 payload_words, UINT32* reply)
{
    rep.command = SIM_COMMAND_REPLY;
    rep.length = SIM_MESSAGE_HEADER_SIZE + 4 * payload_words;
    std::memcpy(reply, static_cast<const void*>(&rep), sizeof(rep));
    return rep.length;
}

} // namespace

size_t handle_message(const UINT32* msg, size_t size, UINT32 client, UINT32* reply, verdict& out, int client_fd)
{
    sim_message_header_t rep;
    UINT32 words = 0;
    if (!msg || size < SIM_MESSAGE_HEADER_SIZE || size % 4 != 0 || size > MAX_MESSAGE) {
        malformed(out, "a message of %zu bytes", size);
    } else {
        sim_message_header_t req;
        std::memcpy(static_cast<void*>(&req), msg, sizeof(req));
        rep.device_id = req.device_id;
        if (req.length != size)
            malformed(out, "length word %u in a message of %zu bytes", req.length, size);
        else
            words = serve(req, msg + HEADER_WORDS, UINT32((size - sizeof(req)) / 4), client, client_fd, rep,
                          reply + HEADER_WORDS, out);
    }
    if (out.close) {
        rep.status = VELT_ERR_INVALID_ARGS;
        words = 0;
    }
    return finish_reply(rep, words, reply);
}

void release_chips(UINT32 client)
{
    if (client == 0) return;
    for (chip_slot& s : slots) {
        UINT64 word = s.owner.load();
        if (owner_id(word) == client) s.owner.compare_exchange_strong(word, 0);
    }
}

page_words::page_words(size_t words)
{
    const size_t page = size_t(::sysconf(_SC_PAGESIZE));
    const size_t bytes = (4 * words + page - 1) / page * page;
    map_size_ = bytes + page;
    map_ = ::mmap(nullptr, map_size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (map_ == MAP_FAILED) throw std::bad_alloc();
    auto* base = static_cast<UINT8*>(map_);
    ::mprotect(base + bytes, page, PROT_NONE);
    words_ = reinterpret_cast<UINT32*>(base + bytes - 4 * words);
}

page_words::~page_words() { ::munmap(map_, map_size_); }

session::session(UINT32 client, int fd) : client_(client), fd_(fd), in_(MAX_MESSAGE_WORDS), reply_(MAX_MESSAGE_WORDS) {}

session::~session() { release_chips(client_); }

void session::reset()
{
    have_ = 0;
    release_chips(client_);
}

UINT8* session::space(size_t& room)
{
    room = MAX_MESSAGE - have_;
    return reinterpret_cast<UINT8*>(in_.get()) + have_;
}

bool session::received(size_t n, send_fn send, void* ctx, verdict& out)
{
    have_ += n;
    const UINT8* base = reinterpret_cast<const UINT8*>(in_.get());
    size_t used = 0;
    while (have_ - used >= SIM_MESSAGE_HEADER_SIZE) {
        UINT32 length;
        std::memcpy(&length, base + used, 4);
        if (const char* why = framing_error(length)) {
            // The stream cannot be cut into messages any more: refuse, then hang up.
            malformed(out, "length word %u: %s", length, why);
            sim_message_header_t rep;
            std::memcpy(&rep.device_id, base + used + 8, 4);
            rep.status = VELT_ERR_INVALID_ARGS;
            const size_t size = finish_reply(rep, 0, reply_.get());
            have_ = 0;
            return send(ctx, reply_.get(), size);
        }
        if (have_ - used < length) break;
        // Messages are whole words, so each starts on a word.
        const size_t size = handle_message(in_.get() + used / 4, length, client_, reply_.get(), out, fd_);
        used += length;
        if (!send(ctx, reply_.get(), size)) {
            have_ = 0;
            return false;
        }
        if (out.close || out.shutdown) {
            have_ = 0;
            return true;
        }
    }
    if (used) {
        std::memmove(in_.get(), base + used, have_ - used);
        have_ -= used;
    }
    return true;
}

} // namespace sock

bool socket_handle_message(const UINT8* data, size_t size, std::vector<UINT8>& reply, UINT32 client,
                           std::string* close_reason)
{
    // Word-aligned copies: the daemon's buffers are words.
    std::vector<UINT32> in(size <= sock::MAX_MESSAGE ? (size + 3) / 4 : 0);
    if (data && !in.empty()) std::memcpy(in.data(), data, size);
    std::vector<UINT32> out(sock::MAX_MESSAGE_WORDS);
    sock::verdict v;
    const size_t n = sock::handle_message(data ? in.data() : nullptr, size, client, out.data(), v);
    reply.resize(n);
    std::memcpy(reply.data(), out.data(), n);
    if (close_reason) *close_reason = v.close ? v.reason : "";
    return v.shutdown;
}

namespace {

// More connections than this are refused at once: each has a thread and two
// message buffers.
constexpr size_t MAX_CLIENTS = 128;

void default_log(const char* line) { std::fprintf(stderr, "kavo-simd: %s\n", line); }

bool send_to_fd(void* ctx, const void* data, size_t size) { return sock::send_all(*static_cast<int*>(ctx), data, size); }

} // namespace

struct socket_server::impl {
    struct connection {
        int fd;
        UINT32 id; // names the client as a chip's owner
        std::thread thread;
        std::atomic<bool> done{false};
    };
    UINT32 next_id = 1;
    int listen_fd = -1;
    int wake[2] = {-1, -1}; // stop() and SHUTDOWN wake the accepting thread
    int reap[2] = {-1, -1}; // a connection's thread has ended
    std::atomic<bool> stopping{false};
    std::string path;
    std::list<connection> connections; // the accepting thread's own
    std::thread thread;
    std::mutex log_mutex;
    std::function<void(const char*)> log = default_log;

    void say(const char* format, ...) __attribute__((format(printf, 2, 3)))
    {
        char line[256];
        va_list args;
        va_start(args, format);
        std::vsnprintf(line, sizeof(line), format, args);
        va_end(args);
        std::lock_guard<std::mutex> lock(log_mutex);
        if (log) log(line);
    }

    static void poke(int fd)
    {
        const char b = 1;
        [[maybe_unused]] ssize_t k = ::write(fd, &b, 1);
    }

    /* One connection, until it closes, breaks the protocol or the server stops. */
    void serve(connection& c)
    {
        {
            sock::session s(c.id, c.fd);
            sock::verdict v;
            for (;;) {
                size_t room;
                UINT8* p = s.space(room);
                iovec iov{p, room};
                const ssize_t k = sock::receive(c.fd, &iov, 1);
                if (k < 0 && errno == EINTR) continue;
                if (k <= 0) {
                    if (s.pending() && !stopping.load())
                        say("client %u: hung up %zu bytes into a message", c.id, s.pending());
                    break;
                }
                if (!s.received(size_t(k), send_to_fd, &c.fd, v)) break; // gone before its reply
                if (v.close) {
                    say("client %u: closed: %s", c.id, v.reason);
                    break;
                }
                if (v.shutdown) {
                    stopping.store(true);
                    poke(wake[1]);
                    break;
                }
            }
        } // the session frees its chips, then the client sees the hang-up
        ::shutdown(c.fd, SHUT_RDWR);
        c.done.store(true);
        poke(reap[1]);
    }

    void reap_done()
    {
        char drain[64];
        while (::read(reap[0], drain, sizeof(drain)) > 0) {
        }
        for (auto it = connections.begin(); it != connections.end();) {
            if (!it->done.load()) {
                ++it;
                continue;
            }
            it->thread.join();
            ::close(it->fd);
            it = connections.erase(it);
        }
    }

    void accept_one()
    {
        const int fd = ::accept4(listen_fd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS) {
                say("cannot accept a connection: %s", std::strerror(errno));
                std::this_thread::sleep_for(std::chrono::milliseconds(50)); // until a connection ends
            }
            return;
        }
        if (connections.size() >= MAX_CLIENTS) {
            say("refused a connection: %zu clients connected already", connections.size());
            ::close(fd);
            return;
        }
        connection& c = connections.emplace_back();
        c.fd = fd;
        c.id = next_id++;
        if (next_id == 0) next_id = 1; // 0 is the untracked caller
        c.thread = std::thread([this, &c] { serve(c); });
    }

    void close_all()
    {
        // Every connection's thread wakes from its recv or send and ends.
        for (connection& c : connections)
            ::shutdown(c.fd, SHUT_RDWR);
        for (connection& c : connections) {
            c.thread.join();
            ::close(c.fd);
        }
        connections.clear();
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
    if (::pipe2(impl_->reap, O_CLOEXEC | O_NONBLOCK) != 0) impl_->reap[0] = impl_->reap[1] = -1;
}

socket_server::~socket_server()
{
    stop();
    join();
    impl_->close_all();
    for (int fd : {impl_->wake[0], impl_->wake[1], impl_->reap[0], impl_->reap[1]})
        if (fd >= 0) ::close(fd);
}

void socket_server::log_to(std::function<void(const char*)> sink)
{
    std::lock_guard<std::mutex> lock(impl_->log_mutex);
    impl_->log = std::move(sink);
}

VELT_ERROR socket_server::listen(const char* socket_path)
{
    sockaddr_un addr{};
    if (!socket_path || std::strlen(socket_path) >= sizeof(addr.sun_path) || impl_->listen_fd >= 0)
        return VELT_ERR_INVALID_ARGS;
    if (impl_->wake[0] < 0 || impl_->reap[0] < 0) return VELT_ERR_FAIL;
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
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0 || ::listen(fd, 64) != 0) {
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
    while (!s.stopping.load() && s.listen_fd >= 0) {
        pollfd fds[3] = {{s.wake[0], POLLIN, 0}, {s.listen_fd, POLLIN, 0}, {s.reap[0], POLLIN, 0}};
        if (::poll(fds, 3, -1) < 0) {
            if (errno == EINTR) continue;
            s.say("poll: %s", std::strerror(errno));
            break;
        }
        if (fds[0].revents) break; // stop() or SHUTDOWN
        if (fds[2].revents) s.reap_done();
        if (fds[1].revents & POLLIN) s.accept_one();
    }
    s.close_all();
}

void socket_server::stop()
{
    impl_->stopping.store(true);
    if (impl_->wake[1] >= 0) impl::poke(impl_->wake[1]);
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
