// The client side of kavo-simd's socket: a callout table whose register
// callouts travel as messages, and one-shot chip commands.
#include <cstring>
#include <mutex>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include "kavo_sim/kavo_sim.h"
#include "sim_callouts.h"
#include "socket/socket_io.h"

namespace kavo_sim {
namespace {

// Longest wait for the daemon's answer to one bus transaction; the chip
// answers at once, so only a stopped daemon reaches it.
constexpr long CLIENT_TIMEOUT_S = 5;
// Longest wait for the daemon to acknowledge a hang-up.
constexpr int CLOSE_WAIT_MS = 1000;

/* The process's connection. The callouts carry no context, so there is one;
   a mutex keeps each request and its reply together. */
struct connection {
    std::mutex mutex;
    int fd = -1;
    std::string path;

    bool open_locked()
    {
        if (fd >= 0) return true;
        fd = sock::connect_to(path.c_str());
        if (fd < 0) return false;
        // A stopped or dead daemon fails the exchange in bounded time.
        const timeval limit{CLIENT_TIMEOUT_S, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
        ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
        sim_message_header_t hello;
        hello.command = SIM_COMMAND_HELLO;
        if (!sock::exchange(fd, hello, nullptr, 0, nullptr, 0, nullptr) || hello.arg0 != SIM_PROTOCOL_VERSION) {
            close_locked();
            return false;
        }
        return true;
    }
    /* Hangs up and waits (at most CLOSE_WAIT_MS) until the daemon has seen it
       and freed the chips this connection owned, so that the next process to
       connect, or this one again, finds them free. */
    void close_locked()
    {
        if (fd < 0) return;
        if (::shutdown(fd, SHUT_WR) == 0) {
            pollfd p{fd, POLLIN, 0};
            char byte;
            while (::poll(&p, 1, CLOSE_WAIT_MS) > 0 && ::recv(fd, &byte, 1, MSG_DONTWAIT) > 0) {
            }
        }
        ::close(fd);
        fd = -1;
    }
    /* At the process's exit: hangs up as socket_disconnect does, unless another
       thread is in the middle of an exchange. */
    ~connection()
    {
        std::unique_lock<std::mutex> lock(mutex, std::try_to_lock);
        if (lock.owns_lock()) close_locked();
    }
    /* One exchange; the bus status. A connection that broke, or that carried a
       reply that is not this request's, is closed and reopened by the next
       call, not retried here: the request may have reached the chip already. */
    UINT32 exchange(sim_message_header_t& hdr, const UINT32* in, UINT32 words, UINT32* out, UINT32 out_words,
                    UINT32* got)
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (!open_locked()) return map::BUS_ERR_LINK;
        if (sock::exchange(fd, hdr, in, words, out, out_words, got)) return hdr.status;
        close_locked();
        return map::BUS_ERR_LINK;
    }
};

connection& link()
{
    static connection c;
    return c;
}

sim_message_header_t header(sim_command_type_t command, UINT32 device_id, UINT32 arg0 = 0, UINT32 arg1 = 0)
{
    sim_message_header_t h;
    h.command = command;
    h.device_id = device_id;
    h.arg0 = arg0;
    h.arg1 = arg1;
    return h;
}

UINT32 cb_read(void*, UINT32, UINT32 device_id, UINT32 address, UINT32* value)
{
    sim_message_header_t h = header(SIM_COMMAND_REG_READ, device_id, address);
    const UINT32 s = link().exchange(h, nullptr, 0, nullptr, 0, nullptr);
    if (value) *value = s == map::BUS_ERR_LINK ? 0xFFFFFFFF : h.arg0;
    return s;
}

UINT32 cb_write(void*, UINT32, UINT32 device_id, UINT32 address, UINT32 value)
{
    sim_message_header_t h = header(SIM_COMMAND_REG_WRITE, device_id, address, value);
    return link().exchange(h, nullptr, 0, nullptr, 0, nullptr);
}

/* The words land in the caller's buffer as they arrive. A successful reply
   carries exactly the words asked for; a failed one may carry none. */
UINT32 cb_bread(void*, UINT32, UINT32 device_id, UINT32 words, UINT32 address, UINT32* buffer)
{
    if (words > SIM_MESSAGE_MAX_PAYLOAD_WORDS) return map::BUS_ERR_DECODE;
    sim_message_header_t h = header(SIM_COMMAND_BURST_READ, device_id, address, words);
    UINT32 got = 0;
    const UINT32 s = link().exchange(h, nullptr, 0, buffer, words, &got);
    return s == map::BUS_OK && got != words ? map::BUS_ERR_LINK : s;
}

UINT32 cb_bwrite(void*, UINT32, UINT32 device_id, UINT32 words, UINT32 address, UINT32* buffer)
{
    if (words > SIM_MESSAGE_MAX_PAYLOAD_WORDS) return map::BUS_ERR_DECODE;
    sim_message_header_t h = header(SIM_COMMAND_BURST_WRITE, device_id, address, words);
    return link().exchange(h, buffer, words, nullptr, 0, nullptr);
}

qspi_callout_api_st bus_table{cb_read, cb_write, cb_bread, cb_bwrite};
tavo_callout_api_st callout_table{&bus_table, log_to_file, log_context_init, nullptr};

/* A command on a connection of its own, for the one-shot calls. */
VELT_ERROR command(const char* path, sim_message_header_t& h, const UINT32* in, UINT32 words, UINT32* out = nullptr,
                   UINT32 out_words = 0, UINT32* got = nullptr)
{
    const int fd = sock::connect_to(path);
    if (fd < 0) return VELT_ERR_FAIL;
    const VELT_ERROR e = sock::command_on_fd(fd, h, in, words, out, out_words, got);
    ::close(fd);
    return e;
}

} // namespace

namespace sock {

tavo_callout_api_st* callouts_on_fd(int fd)
{
    connection& c = link();
    std::lock_guard<std::mutex> lock(c.mutex);
    c.close_locked();
    c.path.clear();
    c.fd = fd;
    return &callout_table;
}

VELT_ERROR command_on_fd(int fd, sim_message_header_t& h, const UINT32* in, UINT32 words, UINT32* out,
                         UINT32 out_words, UINT32* got)
{
    return exchange(fd, h, in, words, out, out_words, got) ? VELT_ERROR(h.status) : VELT_ERROR(VELT_ERR_FAIL);
}

} // namespace sock

tavo_callout_api_st* socket_callouts(const char* socket_path)
{
    if (!socket_path) return nullptr;
    connection& c = link();
    std::lock_guard<std::mutex> lock(c.mutex);
    c.close_locked();
    c.path = socket_path;
    return c.open_locked() ? &callout_table : nullptr;
}

void socket_disconnect()
{
    connection& c = link();
    std::lock_guard<std::mutex> lock(c.mutex);
    c.close_locked();
}

VELT_ERROR socket_chip_create(const char* socket_path, UINT32 device_id, const chip_config& cfg)
{
    sim_chip_config_t w;
    w.device_code = cfg.device_code;
    w.revision_code = cfg.revision_code;
    w.mode = cfg.mode == exec_mode::threaded ? 1 : 0;
    w.service_time_us = cfg.service_time_us;
    UINT32 words[sizeof(w) / 4];
    std::memcpy(words, static_cast<const void*>(&w), sizeof(w));
    sim_message_header_t h = header(SIM_COMMAND_CHIP_CREATE, device_id);
    return command(socket_path, h, words, sizeof(w) / 4);
}

VELT_ERROR socket_chip_destroy(const char* socket_path, UINT32 device_id)
{
    sim_message_header_t h = header(SIM_COMMAND_CHIP_DESTROY, device_id);
    return command(socket_path, h, nullptr, 0);
}

VELT_ERROR socket_chip_info(const char* socket_path, UINT32 device_id, sim_chip_info_t* info)
{
    sim_message_header_t h = header(SIM_COMMAND_CHIP_INFO, device_id);
    UINT32 words[sizeof(sim_chip_info_t) / 4];
    UINT32 got = 0;
    const VELT_ERROR e = command(socket_path, h, nullptr, 0, words, sizeof(words) / 4, &got);
    if (e != VELT_SUCCESS) return e;
    if (got != sizeof(words) / 4 || !info) return VELT_ERR_FAIL;
    std::memcpy(static_cast<void*>(info), words, sizeof(*info));
    return VELT_SUCCESS;
}

VELT_ERROR socket_fault_set(const char* socket_path, UINT32 device_id, sim_fault_t fault, UINT32 a, UINT32 b)
{
    const UINT32 words[2] = {a, b};
    sim_message_header_t h = header(SIM_COMMAND_FAULT_SET, device_id, UINT32(fault));
    return command(socket_path, h, words, 2);
}

VELT_ERROR socket_shutdown(const char* socket_path)
{
    sim_message_header_t h = header(SIM_COMMAND_SHUTDOWN, 0);
    return command(socket_path, h, nullptr, 0);
}

} // namespace kavo_sim
