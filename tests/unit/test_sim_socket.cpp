// The socket transport: chips served by an in-process server and reached
// through the client callout table, malformed messages refused without harm,
// and a server that survives its clients' mistakes.
#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include "kavo_sim/bus_client.h"
#include "kavo_sim/kavo_sim.h"

using kavo_sim::bus_client;

namespace {

sockaddr_un address_of(const std::string& path)
{
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strcpy(addr.sun_path, path.c_str());
    return addr;
}

std::vector<UINT8> message(UINT32 command, UINT32 device_id, UINT32 arg0, UINT32 arg1, std::vector<UINT32> payload = {},
                           int length_delta = 0)
{
    sim_message_header_t h;
    h.command = sim_command_type_t(command);
    h.device_id = device_id;
    h.arg0 = arg0;
    h.arg1 = arg1;
    h.length = UINT32(int(sizeof(h) + 4 * payload.size()) + length_delta);
    std::vector<UINT8> m(sizeof(h) + 4 * payload.size());
    std::memcpy(m.data(), &h, sizeof(h));
    if (!payload.empty()) std::memcpy(m.data() + sizeof(h), payload.data(), 4 * payload.size());
    return m;
}

class SimSocket : public ::testing::Test {
  protected:
    void SetUp() override
    {
        ASSERT_EQ(server.listen(path.c_str()), VELT_SUCCESS);
        server.log_to([this](const char* line) {
            std::lock_guard<std::mutex> lock(log_mutex);
            log.push_back(line);
        });
        server.start_thread();
    }
    /* Waits up to 2 s for a log line that contains `part`. */
    bool logged(const std::string& part)
    {
        for (int i = 0; i < 200; ++i) {
            {
                std::lock_guard<std::mutex> lock(log_mutex);
                for (const auto& l : log)
                    if (l.find(part) != std::string::npos) return true;
            }
            ::usleep(10000);
        }
        return false;
    }
    /* A connection of its own, as another process would have; a server that
       stops answering fails the test, never hangs it. */
    int raw_connection()
    {
        const sockaddr_un addr = address_of(path);
        const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)), 0);
        const timeval limit{10, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
        ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
        return fd;
    }
    /* Sends a message and reads the header of its reply (status 0xDEAD when none came). */
    static sim_message_header_t ask(int fd, const std::vector<UINT8>& m)
    {
        sim_message_header_t h{};
        h.status = 0xDEAD;
        if (::send(fd, m.data(), m.size(), MSG_NOSIGNAL) == ssize_t(m.size()))
            ::recv(fd, &h, sizeof(h), MSG_WAITALL);
        return h;
    }
    static bool closed_by_peer(int fd)
    {
        char byte;
        return ::recv(fd, &byte, 1, 0) == 0;
    }
    void TearDown() override
    {
        kavo_sim::socket_disconnect();
        server.stop();
        server.join();
        kavo_sim::chip_destroy_all();
        EXPECT_NE(::access(path.c_str(), F_OK), 0) << "the socket file is removed";
    }
    const std::string path = "/tmp/kavo_sim_test_" + std::to_string(::getpid()) + ".sock";
    kavo_sim::socket_server server;
    std::mutex log_mutex;
    std::vector<std::string> log;
};

TEST_F(SimSocket, ChipsFaultsAndLargeBurstsTravel)
{
    const kavo_sim::chip_config revb{0x6100, 1};
    ASSERT_EQ(kavo_sim::socket_chip_create(path.c_str(), 4, revb), VELT_SUCCESS);
    EXPECT_EQ(kavo_sim::socket_chip_create(path.c_str(), 4, revb), KAVO_ERR_DEVICE_ID_IN_USE);
    EXPECT_EQ(kavo_sim::socket_chip_create(path.c_str(), 40, revb), KAVO_ERR_INVALID_DEVICE_ID);
    tavo_callout_api_st* table = kavo_sim::socket_callouts(path.c_str());
    ASSERT_NE(table, nullptr);
    bus_client bus(table, 4);
    EXPECT_EQ(bus.rd(0xF00380), 0x16100000u);

    ASSERT_EQ(kavo_sim::socket_fault_set(path.c_str(), 4, SIM_FAULT_BUS_FAIL_NTH, 1), VELT_SUCCESS);
    UINT32 v = 0;
    EXPECT_EQ(bus.read(0xF00380, v), kavo_sim::map::BUS_ERR_INJECTED) << "the bus status crosses the socket";
    EXPECT_EQ(kavo_sim::socket_fault_set(path.c_str(), 4, sim_fault_t(77)), VELT_ERR_INVALID_ARGS);

    // Burst sizes the library uses, both ways, in one message each.
    std::vector<UINT32> big(16374), back(16374);
    for (UINT32 i = 0; i < big.size(); ++i)
        big[i] = i ^ 0x5A5A5A5A;
    EXPECT_EQ(bus.bwrite(0x200000, big.data(), UINT32(big.size())), 0u);
    EXPECT_EQ(bus.bread(0x200000, back.data(), UINT32(back.size())), 0u);
    EXPECT_EQ(back, big);

    ASSERT_EQ(kavo_sim::socket_chip_destroy(path.c_str(), 4), VELT_SUCCESS);
    EXPECT_EQ(kavo_sim::socket_chip_destroy(path.c_str(), 4), KAVO_ERR_INVALID_DEVICE_ID);
    EXPECT_EQ(bus.read(0xF00380, v), kavo_sim::map::BUS_ERR_NO_CHIP);
}

TEST_F(SimSocket, MalformedMessagesAreRefusedWithoutHarm)
{
    ASSERT_EQ(kavo_sim::chip_create(6), VELT_SUCCESS);
    kavo_sim::chip* chip = kavo_sim::chip_get(6);
    chip->reg_write(0xF00320, 0x1111);
    chip->journal_reset();
    // Malformed messages close their connection; well-formed ones that ask for
    // something impossible are only refused.
    struct {
        const char* what;
        std::vector<UINT8> msg;
        UINT32 status;
        const char* closes; // part of the reason, or null
    } cases[] = {
        {"shorter than a header", std::vector<UINT8>(20, 0), VELT_ERR_INVALID_ARGS, "a message of 20 bytes"},
        {"length word too big", message(SIM_COMMAND_REG_WRITE, 6, 0xF00320, 1, {}, 4), VELT_ERR_INVALID_ARGS,
         "length word 28"},
        {"length word too small", message(SIM_COMMAND_REG_WRITE, 6, 0xF00320, 1, {7}, -4), VELT_ERR_INVALID_ARGS,
         "length word 24"},
        {"write with a payload", message(SIM_COMMAND_REG_WRITE, 6, 0xF00320, 2, {7}), VELT_ERR_INVALID_ARGS,
         "REG_WRITE with 1 payload words, 0 expected"},
        {"read with a payload", message(SIM_COMMAND_REG_READ, 6, 0xF00320, 0, {1, 2}), VELT_ERR_INVALID_ARGS,
         "REG_READ with 2"},
        {"burst write short", message(SIM_COMMAND_BURST_WRITE, 6, 0, 3, {1, 2}), VELT_ERR_INVALID_ARGS,
         "BURST_WRITE with 2 payload words, 3 expected"},
        {"burst read too long", message(SIM_COMMAND_BURST_READ, 6, 0, 0x7FFFFFFF), VELT_ERR_INVALID_ARGS,
         "BURST_READ of 2147483647 words"},
        {"a reply sent as request", message(SIM_COMMAND_REPLY, 6, 0, 0), VELT_ERR_INVALID_ARGS, "(REPLY) is no request"},
        {"unknown command", message(99, 6, 0, 0), VELT_ERR_INVALID_ARGS, "command 99"},
        {"end marker", message(LAST_SIM_COMMAND_TYPE, 6, 0, 0), VELT_ERR_INVALID_ARGS, "is no request"},
        {"chip config short", message(SIM_COMMAND_CHIP_CREATE, 7, 0, 0, {0x6100, 0}), VELT_ERR_INVALID_ARGS,
         "CHIP_CREATE with 2"},
        {"fault without arguments", message(SIM_COMMAND_FAULT_SET, 6, SIM_FAULT_FW_HANG, 0, {1}),
         VELT_ERR_INVALID_ARGS, "FAULT_SET with 1"},
        {"chip mode unknown", message(SIM_COMMAND_CHIP_CREATE, 7, 0, 0, {0x6100, 0, 2, 0}), VELT_ERR_INVALID_ARGS,
         nullptr},
        {"fault unknown", message(SIM_COMMAND_FAULT_SET, 6, 77, 0, {0, 0}), VELT_ERR_INVALID_ARGS, nullptr},
        {"well-formed, absent chip", message(SIM_COMMAND_REG_READ, 9, 0xF00380, 0), kavo_sim::map::BUS_ERR_NO_CHIP,
         nullptr},
        {"chip info, absent chip", message(SIM_COMMAND_CHIP_INFO, 40, 0, 0), KAVO_ERR_INVALID_DEVICE_ID, nullptr},
    };
    for (auto& c : cases) {
        std::vector<UINT8> reply;
        std::string reason = "unset";
        EXPECT_FALSE(kavo_sim::socket_handle_message(c.msg.data(), c.msg.size(), reply, 0, &reason)) << c.what;
        sim_message_header_t h;
        ASSERT_EQ(reply.size(), sizeof(h)) << c.what << ": a refusal carries no payload";
        std::memcpy(&h, reply.data(), sizeof(h));
        EXPECT_EQ(h.length, reply.size()) << c.what;
        EXPECT_EQ(h.command, SIM_COMMAND_REPLY) << c.what;
        EXPECT_EQ(h.status, c.status) << c.what;
        if (c.closes)
            EXPECT_NE(reason.find(c.closes), std::string::npos) << c.what << ": " << reason;
        else
            EXPECT_EQ(reason, "") << c.what;
    }
    EXPECT_EQ(chip->ram_peek(0), 0u);
    UINT32 v = 0;
    EXPECT_EQ(chip->reg_read(0xF00320, &v), 0u);
    EXPECT_EQ(v, 0x1111u);
    EXPECT_FALSE(chip->faults().fw_hang);
    EXPECT_EQ(kavo_sim::chip_get(7), nullptr);
    EXPECT_EQ(chip->counters().writes, 0u);
}

TEST_F(SimSocket, AMalformedMessageClosesOnlyItsConnectionWithALoggedReason)
{
    ASSERT_EQ(kavo_sim::chip_create(6), VELT_SUCCESS);
    ASSERT_EQ(kavo_sim::chip_create(7), VELT_SUCCESS);
    bus_client other(kavo_sim::socket_callouts(path.c_str()), 7);
    const auto read = message(SIM_COMMAND_REG_READ, 6, 0xF00380, 0);
    const UINT32 unframed[6] = {7, 1, 6, 0, 0, 0};
    const std::vector<UINT8> garbage(reinterpret_cast<const UINT8*>(unframed),
                                     reinterpret_cast<const UINT8*>(unframed) + sizeof(unframed));
    struct {
        std::vector<UINT8> msg;
        const char* reason;
    } cases[] = {
        {garbage, "closed: length word 7: shorter than a header"},
        {message(42, 6, 0, 0), "closed: command 42 (?) is no request"},
        {message(SIM_COMMAND_REG_READ, 6, 0xF00380, 0, {1}), "closed: REG_READ with 1 payload words, 0 expected"},
        {message(SIM_COMMAND_BURST_READ, 6, 0, 0x10001), "closed: BURST_READ of 65537 words"},
    };
    for (auto& c : cases) {
        const int fd = raw_connection();
        sim_message_header_t h = ask(fd, read);
        EXPECT_EQ(h.status, 0u) << c.reason;
        EXPECT_EQ(h.arg0, 0x06100000u);
        h = ask(fd, c.msg);
        EXPECT_EQ(h.status, UINT32(VELT_ERR_INVALID_ARGS)) << c.reason << ": answered, then";
        EXPECT_TRUE(closed_by_peer(fd)) << c.reason;
        EXPECT_TRUE(logged(c.reason)) << c.reason;
        ::close(fd);
        EXPECT_EQ(other.rd(0xF00380), 0x06100000u) << "another client is served throughout";
    }
}

TEST_F(SimSocket, StalledClientsDelayNobodyAndStopDoesNotWaitForThem)
{
    ASSERT_EQ(kavo_sim::chip_create(1), VELT_SUCCESS);
    ASSERT_EQ(kavo_sim::chip_create(2), VELT_SUCCESS);
    ASSERT_EQ(kavo_sim::chip_create(3), VELT_SUCCESS);
    // Half a message, then nothing.
    const int half = raw_connection();
    const auto read = message(SIM_COMMAND_REG_READ, 1, 0xF00380, 0);
    ASSERT_EQ(::send(half, read.data(), 10, 0), 10);
    // Requests for big replies that it never reads: the daemon's send to it
    // blocks once its socket is full.
    const int deaf = raw_connection();
    const auto big = message(SIM_COMMAND_BURST_READ, 2, 0, SIM_MESSAGE_MAX_PAYLOAD_WORDS);
    int sent = 0;
    for (; sent < 64 && ::send(deaf, big.data(), big.size(), MSG_DONTWAIT | MSG_NOSIGNAL) == ssize_t(big.size()); ++sent)
        ::usleep(1000);
    EXPECT_GE(sent, 2);
    // A client between the two is served as ever.
    bus_client bus(kavo_sim::socket_callouts(path.c_str()), 3);
    for (int i = 0; i < 200; ++i)
        ASSERT_EQ(bus.rd(0xF00380), 0x06100000u) << i;
    std::vector<UINT32> back(SIM_MESSAGE_MAX_PAYLOAD_WORDS);
    EXPECT_EQ(bus.bread(0, back.data(), UINT32(back.size())), 0u);
    // Stopping wakes the connection blocked in its send and the one waiting for
    // the rest of a message (TearDown joins the server).
    kavo_sim::socket_disconnect();
    server.stop();
    server.join();
    EXPECT_TRUE(closed_by_peer(half));
    ::close(half);
    ::close(deaf);
}

TEST_F(SimSocket, AClientThatDiesMidMessageLeavesItsChipToTheNextOwner)
{
    ASSERT_EQ(kavo_sim::chip_create(5), VELT_SUCCESS);
    kavo_sim::chip_get(5)->ram_poke(0x1000, 0x12345678);
    const int dying = raw_connection();
    EXPECT_EQ(ask(dying, message(SIM_COMMAND_REG_READ, 5, 0xF00380, 0)).status, 0u) << "it owns the chip";
    // A burst write of 100 words, of which 10 arrive.
    std::vector<UINT32> words(100, 0xEEEEEEEE);
    const auto write = message(SIM_COMMAND_BURST_WRITE, 5, 0x1000, 100, words);
    ASSERT_EQ(::send(dying, write.data(), 24 + 40, 0), 64);
    ::close(dying);
    EXPECT_TRUE(logged("hung up 64 bytes into a message"));
    tavo_callout_api_st* next = kavo_sim::socket_callouts(path.c_str());
    ASSERT_NE(next, nullptr);
    UINT32 value = 0, status = 1;
    for (int i = 0; i < 100 && (status = next->qspi_callout_api_ctx->qspi_read(nullptr, 0, 5, 0x1000, &value)) != 0;
         ++i)
        ::usleep(10000);
    EXPECT_EQ(status, 0u) << "the next owner gets the chip";
    EXPECT_EQ(value, 0x12345678u) << "nothing of the half message reached it";
}

TEST_F(SimSocket, AChipPassesOnAtOnceWhenItsOwnerHasHungUp)
{
    ASSERT_EQ(kavo_sim::chip_create(2), VELT_SUCCESS);
    // The owner asks for big replies and reads none, so its thread is stuck in
    // a send and cannot see the hang-up that follows.
    const int owner = raw_connection();
    const auto big = message(SIM_COMMAND_BURST_READ, 2, 0, SIM_MESSAGE_MAX_PAYLOAD_WORDS);
    for (int i = 0; i < 64 && ::send(owner, big.data(), big.size(), MSG_DONTWAIT | MSG_NOSIGNAL) > 0; ++i)
        ::usleep(1000);
    const int next = raw_connection();
    const auto read = message(SIM_COMMAND_REG_READ, 2, 0xF00380, 0);
    EXPECT_EQ(ask(next, read).status, UINT32(KAVO_ERR_DEVICE_ID_IN_USE)) << "owned while its owner is there";
    ::shutdown(owner, SHUT_WR);
    EXPECT_EQ(ask(next, read).status, 0u) << "at the first request after the hang-up";
    ::close(owner);
    ::close(next);
}

TEST_F(SimSocket, AHangUpIsSeenBeforeTheNextConnectionAsks)
{
    ASSERT_EQ(kavo_sim::chip_create(4), VELT_SUCCESS);
    // Every new connection is another owner: the daemon has freed the chip by
    // the time the previous one's disconnect returns.
    for (int i = 0; i < 20; ++i) {
        bus_client bus(kavo_sim::socket_callouts(path.c_str()), 4);
        UINT32 v = 0;
        ASSERT_EQ(bus.read(0xF00380, v), 0u) << "connection " << i;
    }
}

TEST_F(SimSocket, ConnectionsBeyondTheLimitAreRefused)
{
    std::vector<int> fds;
    const auto hello = message(SIM_COMMAND_HELLO, 0, 0, 0);
    for (int i = 0; i < 128; ++i) {
        fds.push_back(raw_connection());
        ASSERT_EQ(ask(fds.back(), hello).arg0, UINT32(SIM_PROTOCOL_VERSION)) << i;
    }
    const int refused = raw_connection();
    EXPECT_TRUE(closed_by_peer(refused));
    EXPECT_TRUE(logged("refused a connection: 128 clients connected already"));
    ::close(refused);
    ::close(fds.back());
    fds.pop_back();
    bool served = false;
    for (int i = 0; i < 100 && !served; ++i) { // once the server has seen the close
        const int fd = raw_connection();
        served = ask(fd, hello).arg0 == UINT32(SIM_PROTOCOL_VERSION);
        ::close(fd);
    }
    EXPECT_TRUE(served);
    for (int fd : fds)
        ::close(fd);
}

TEST_F(SimSocket, ListenRefusesAPathInUseButNotAStaleOne)
{
    kavo_sim::socket_server second;
    EXPECT_EQ(second.listen(path.c_str()), VELT_ERR_FAIL);
    EXPECT_EQ(second.listen(std::string(200, 'x').c_str()), VELT_ERR_INVALID_ARGS);
    EXPECT_EQ(kavo_sim::socket_callouts("/tmp/no/such/kavo.sock"), nullptr);
    EXPECT_EQ(kavo_sim::socket_shutdown(path.c_str()), VELT_SUCCESS);
    server.join();
    // A socket file nobody listens on does not block a new server.
    const sockaddr_un addr = address_of(path);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(::bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)), 0);
    ::close(fd);
    kavo_sim::socket_server third;
    EXPECT_EQ(third.listen(path.c_str()), VELT_SUCCESS);
}

} // namespace

TEST(SimSocketOwnership, AChipsBusBelongsToOneClientUntilItHangsUp)
{
    ASSERT_EQ(kavo_sim::chip_create(3), VELT_SUCCESS);
    std::vector<UINT8> reply;
    auto status = [&](UINT32 command, UINT32 client, std::vector<UINT32> payload = {}, UINT32 arg0 = 0xF00380,
                      UINT32 arg1 = 0) {
        const std::vector<UINT8> m = message(command, 3, arg0, arg1, payload);
        kavo_sim::socket_handle_message(m.data(), m.size(), reply, client);
        sim_message_header_t h;
        std::memcpy(&h, reply.data(), sizeof(h));
        return h.status;
    };
    EXPECT_EQ(status(SIM_COMMAND_REG_READ, 1), 0u) << "the first client takes the chip";
    EXPECT_EQ(status(SIM_COMMAND_REG_READ, 2), UINT32(KAVO_ERR_DEVICE_ID_IN_USE)) << "a second one is refused";
    EXPECT_EQ(status(SIM_COMMAND_BURST_READ, 2, {}, 0x340004, 4), UINT32(KAVO_ERR_DEVICE_ID_IN_USE));
    EXPECT_EQ(status(SIM_COMMAND_FAULT_SET, 2, {0, 0}, SIM_FAULT_CLEAR_ALL), 0u) << "faults stay open to all";
    EXPECT_EQ(status(SIM_COMMAND_REG_READ, 0), 0u) << "untracked callers pass";
    kavo_sim::chip_destroy_all();
}

TEST_F(SimSocket, TheOwnerHangingUpFreesTheChip)
{
    ASSERT_EQ(kavo_sim::socket_chip_create(path.c_str(), 4, {}), VELT_SUCCESS);
    tavo_callout_api_st* first = kavo_sim::socket_callouts(path.c_str());
    ASSERT_NE(first, nullptr);
    UINT32 value = 0;
    EXPECT_EQ(first->qspi_callout_api_ctx->qspi_read(nullptr, 0, 4, 0xF00380, &value), 0u);
    // A second connection of its own, as another process would have.
    const int other = ::socket(AF_UNIX, SOCK_STREAM, 0);
    const sockaddr_un addr = address_of(path);
    ASSERT_EQ(::connect(other, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)), 0);
    auto read_status = [&] {
        const std::vector<UINT8> m = message(SIM_COMMAND_REG_READ, 4, 0xF00380, 0);
        EXPECT_EQ(::send(other, m.data(), m.size(), 0), ssize_t(m.size()));
        sim_message_header_t h{};
        EXPECT_EQ(::recv(other, &h, sizeof(h), MSG_WAITALL), ssize_t(sizeof(h)));
        return h.status;
    };
    EXPECT_EQ(read_status(), UINT32(KAVO_ERR_DEVICE_ID_IN_USE));
    kavo_sim::socket_disconnect();
    // The server notices the hang-up on its next turn.
    UINT32 after = 1;
    for (int i = 0; i < 100 && (after = read_status()) != 0; ++i) ::usleep(1000);
    EXPECT_EQ(after, 0u);
    ::close(other);
}
