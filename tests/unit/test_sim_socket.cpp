// The socket transport: a chip served by an in-process server and reached
// through the client callout table, chips outliving their clients, and
// malformed messages refused without harm.
#include <gtest/gtest.h>

#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "kavo_sim/bus_client.h"
#include "kavo_sim/kavo_sim.h"

using kavo_sim::bus_client;

namespace {

std::string socket_path(const char* tag)
{
    return "/tmp/kavo_sim_test_" + std::to_string(::getpid()) + "_" + tag + ".sock";
}

int raw_connect(const std::string& path)
{
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strcpy(addr.sun_path, path.c_str());
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
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

sim_message_header_t reply_header(const std::vector<UINT8>& reply)
{
    sim_message_header_t h;
    EXPECT_GE(reply.size(), sizeof(h));
    std::memcpy(&h, reply.data(), sizeof(h));
    EXPECT_EQ(h.length, reply.size());
    EXPECT_EQ(h.command, SIM_COMMAND_REPLY);
    return h;
}

class SimSocket : public ::testing::Test {
  protected:
    void SetUp() override
    {
        ASSERT_EQ(server.listen(path.c_str()), VELT_SUCCESS);
        server.start_thread();
    }
    void TearDown() override
    {
        kavo_sim::socket_disconnect();
        server.stop();
        server.join();
        kavo_sim::chip_destroy_all();
        EXPECT_NE(::access(path.c_str(), F_OK), 0) << "the socket file is removed";
    }
    std::string path = socket_path("t");
    kavo_sim::socket_server server;
};

TEST_F(SimSocket, ChipsOutliveTheirClients)
{
    kavo_sim::chip_config cfg;
    cfg.revision_code = 1;
    ASSERT_EQ(kavo_sim::socket_chip_create(path.c_str(), 4, cfg), VELT_SUCCESS);
    EXPECT_EQ(kavo_sim::socket_chip_create(path.c_str(), 4, cfg), KAVO_ERR_DEVICE_ID_IN_USE);
    EXPECT_EQ(kavo_sim::socket_chip_create(path.c_str(), 40, cfg), KAVO_ERR_INVALID_DEVICE_ID);

    tavo_callout_api_st* table = kavo_sim::socket_callouts(path.c_str());
    ASSERT_NE(table, nullptr);
    {
        bus_client bus(table, 4);
        EXPECT_EQ(bus.rd(0xF00380), 0x16100000u);
        ASSERT_TRUE(bus.cold_start(kavo_sim::image_build({3, 0, 2, 9, kavo_sim::IMAGE_REV_B})));
        auto r = bus.exchange(KAVO_HTL_OPERATION_STATUS);
        ASSERT_TRUE(r.replied);
        EXPECT_EQ(r.result(), VELT_SUCCESS);
        EXPECT_EQ(r.data.size(), 32u);
    }
    // A second client, as another process would, finds the firmware running.
    kavo_sim::socket_disconnect();
    table = kavo_sim::socket_callouts(path.c_str());
    ASSERT_NE(table, nullptr);
    bus_client again(table, 4);
    EXPECT_NE(again.rd(0xF000F0), 0u);
    EXPECT_EQ(again.rd(0x3FFFC0), 0x300002u);
    EXPECT_EQ(again.rd(0x3FFFC4), 9u);
    EXPECT_EQ(again.exchange(KAVO_HTL_OPERATION_STATUS).result(), VELT_SUCCESS);

    sim_chip_info_t info;
    ASSERT_EQ(kavo_sim::socket_chip_info(path.c_str(), 4, &info), VELT_SUCCESS);
    EXPECT_EQ(info.fw_state, SIM_FW_STATE_RUNNING);
    EXPECT_EQ(info.boot_count, 1u);
    EXPECT_EQ(info.revision_code, 1u);
    EXPECT_EQ(info.requests, 2u);
    EXPECT_EQ(kavo_sim::socket_chip_info(path.c_str(), 5, &info), KAVO_ERR_INVALID_DEVICE_ID);

    ASSERT_EQ(kavo_sim::socket_fault_set(path.c_str(), 4, SIM_FAULT_WRONG_OPERATION, 1), VELT_SUCCESS);
    EXPECT_EQ(again.exchange(KAVO_HTL_OPERATION_STATUS).header[2], UINT32(KAVO_HTL_OPERATION_STATUS) + 1);
    EXPECT_EQ(kavo_sim::socket_fault_set(path.c_str(), 4, sim_fault_t(77)), VELT_ERR_INVALID_ARGS);

    // Burst sizes the library uses, both ways, in one message each.
    std::vector<UINT32> big(16374);
    for (UINT32 i = 0; i < big.size(); ++i)
        big[i] = i ^ 0x5A5A5A5A;
    EXPECT_EQ(again.bwrite(0x200000, big.data(), UINT32(big.size())), 0u);
    std::vector<UINT32> back(big.size());
    EXPECT_EQ(again.bread(0x200000, back.data(), UINT32(back.size())), 0u);
    EXPECT_EQ(back, big);

    ASSERT_EQ(kavo_sim::socket_chip_destroy(path.c_str(), 4), VELT_SUCCESS);
    EXPECT_EQ(kavo_sim::socket_chip_destroy(path.c_str(), 4), KAVO_ERR_INVALID_DEVICE_ID);
    UINT32 v = 0;
    EXPECT_EQ(again.read(0xF00380, v), kavo_sim::map::BUS_ERR_NO_CHIP);
}

TEST_F(SimSocket, MalformedMessagesAreRefusedWithoutHarm)
{
    ASSERT_EQ(kavo_sim::chip_create(6), VELT_SUCCESS);
    kavo_sim::chip* chip = kavo_sim::chip_get(6);
    chip->reg_write(0xF00320, 0x1111);
    chip->journal_reset();
    struct {
        const char* what;
        std::vector<UINT8> msg;
    } cases[] = {
        {"shorter than a header", std::vector<UINT8>(20, 0)},
        {"length word too big", message(SIM_COMMAND_REG_WRITE, 6, 0xF00320, 1, {}, 4)},
        {"length word too small", message(SIM_COMMAND_REG_WRITE, 6, 0xF00320, 1, {7}, -4)},
        {"write with a payload", message(SIM_COMMAND_REG_WRITE, 6, 0xF00320, 2, {7})},
        {"read with a payload", message(SIM_COMMAND_REG_READ, 6, 0xF00320, 0, {1, 2})},
        {"burst write short", message(SIM_COMMAND_BURST_WRITE, 6, 0, 3, {1, 2})},
        {"burst read too long", message(SIM_COMMAND_BURST_READ, 6, 0, 0x7FFFFFFF)},
        {"a reply sent as request", message(SIM_COMMAND_REPLY, 6, 0, 0)},
        {"unknown command", message(99, 6, 0, 0)},
        {"end marker", message(LAST_SIM_COMMAND_TYPE, 6, 0, 0)},
        {"chip config short", message(SIM_COMMAND_CHIP_CREATE, 7, 0, 0, {0x6100, 0})},
        {"chip mode unknown", message(SIM_COMMAND_CHIP_CREATE, 7, 0, 0, {0x6100, 0, 2, 0})},
        {"fault without arguments", message(SIM_COMMAND_FAULT_SET, 6, SIM_FAULT_FW_HANG, 0, {1})},
    };
    for (auto& c : cases) {
        std::vector<UINT8> reply;
        EXPECT_FALSE(kavo_sim::socket_handle_message(c.msg.data(), c.msg.size(), reply)) << c.what;
        EXPECT_EQ(reply_header(reply).status, UINT32(VELT_ERR_INVALID_ARGS)) << c.what;
    }
    EXPECT_EQ(chip->ram_peek(0), 0u);
    UINT32 v = 0;
    EXPECT_EQ(chip->reg_read(0xF00320, &v), 0u);
    EXPECT_EQ(v, 0x1111u);
    EXPECT_FALSE(chip->faults().fw_hang);
    EXPECT_EQ(kavo_sim::chip_get(7), nullptr);
    EXPECT_EQ(chip->counters().writes, 0u);

    // A well-formed read of an absent chip is a bus failure, not a refusal.
    std::vector<UINT8> reply;
    auto m = message(SIM_COMMAND_REG_READ, 9, 0xF00380, 0);
    kavo_sim::socket_handle_message(m.data(), m.size(), reply);
    EXPECT_EQ(reply_header(reply).status, kavo_sim::map::BUS_ERR_NO_CHIP);
}

TEST_F(SimSocket, BrokenFramingHangsUpOnlyThatClient)
{
    ASSERT_EQ(kavo_sim::chip_create(6), VELT_SUCCESS);
    const int fd = raw_connect(path);
    ASSERT_GE(fd, 0);
    // An unknown command keeps the connection: the framing is intact.
    auto unknown = message(42, 6, 0, 0);
    ASSERT_EQ(::send(fd, unknown.data(), unknown.size(), 0), ssize_t(unknown.size()));
    sim_message_header_t h;
    ASSERT_EQ(::recv(fd, &h, sizeof(h), MSG_WAITALL), ssize_t(sizeof(h)));
    EXPECT_EQ(h.status, UINT32(VELT_ERR_INVALID_ARGS));
    auto read = message(SIM_COMMAND_REG_READ, 6, 0xF00380, 0);
    ASSERT_EQ(::send(fd, read.data(), read.size(), 0), ssize_t(read.size()));
    ASSERT_EQ(::recv(fd, &h, sizeof(h), MSG_WAITALL), ssize_t(sizeof(h)));
    EXPECT_EQ(h.status, 0u);
    EXPECT_EQ(h.arg0, 0x06100000u);
    // A length word that cannot be framed: refused, then hung up.
    const UINT32 garbage[6] = {7, 1, 6, 0, 0, 0};
    ASSERT_EQ(::send(fd, garbage, sizeof(garbage), 0), ssize_t(sizeof(garbage)));
    ASSERT_EQ(::recv(fd, &h, sizeof(h), MSG_WAITALL), ssize_t(sizeof(h)));
    EXPECT_EQ(h.status, UINT32(VELT_ERR_INVALID_ARGS));
    char byte;
    EXPECT_EQ(::recv(fd, &byte, 1, 0), 0) << "closed";
    ::close(fd);
    // A client that leaves half a message behind harms nobody.
    const int half = raw_connect(path);
    ASSERT_GE(half, 0);
    ASSERT_EQ(::send(half, read.data(), 10, 0), 10);
    ::close(half);
    ASSERT_NE(kavo_sim::socket_callouts(path.c_str()), nullptr);
    EXPECT_EQ(bus_client(kavo_sim::socket_callouts(path.c_str()), 6).rd(0xF00380), 0x06100000u);
}

TEST_F(SimSocket, ListenRefusesAPathInUseAndShutdownStopsTheServer)
{
    kavo_sim::socket_server second;
    EXPECT_EQ(second.listen(path.c_str()), VELT_ERR_FAIL);
    EXPECT_EQ(second.listen(std::string(200, 'x').c_str()), VELT_ERR_INVALID_ARGS);
    EXPECT_EQ(kavo_sim::socket_callouts("/tmp/no/such/kavo.sock"), nullptr);
    EXPECT_EQ(kavo_sim::socket_chip_create("/tmp/no/such/kavo.sock", 0, {}), VELT_ERR_FAIL);
    EXPECT_EQ(kavo_sim::socket_shutdown(path.c_str()), VELT_SUCCESS);
    server.join();
    EXPECT_NE(::access(path.c_str(), F_OK), 0);
    // A stale socket file does not block a new server.
    kavo_sim::socket_server third;
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strcpy(addr.sun_path, path.c_str());
    ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
    ::close(fd);
    EXPECT_EQ(third.listen(path.c_str()), VELT_SUCCESS);
}

} // namespace
