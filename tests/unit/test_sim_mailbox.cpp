// Hand-built mailbox exchanges with each firmware handler, and what the
// firmware writes into its statistics table and debug logs while serving.
#include <gtest/gtest.h>

#include <string>

#include "kavo_sim/bus_client.h"
#include "kavo_sim/kavo_sim.h"

using kavo_sim::bus_client;
using kavo_sim::exchange_result;

namespace {

constexpr UINT32 LOG = 0x354004;

template <class T> T as(const exchange_result& r)
{
    T out;
    EXPECT_EQ(r.data.size(), sizeof(T));
    std::memcpy(static_cast<void*>(&out), r.data.data(), std::min(sizeof(T), r.data.size()));
    return out;
}

std::string text_of(const exchange_result& r)
{
    EXPECT_EQ(r.data.size() % 4, 0u) << "text replies travel in whole words";
    if (r.data.empty()) return "";
    return std::string(reinterpret_cast<const char*>(r.data.data()),
                       strnlen(reinterpret_cast<const char*>(r.data.data()), r.data.size()));
}

kavo_config_t good_config()
{
    kavo_config_t c;
    c.device_mode = KAVO_DEVICE_MODE_1200G_ENET;
    return c;
}

class SimMailbox : public ::testing::TestWithParam<kavo_sim::exec_mode> {
  protected:
    void SetUp() override
    {
        kavo_sim::chip_config cfg;
        cfg.device_code = 0x6104;
        cfg.revision_code = 1;
        cfg.mode = GetParam();
        ASSERT_EQ(kavo_sim::chip_create(2, cfg), VELT_SUCCESS);
        ASSERT_TRUE(bus.cold_start(kavo_sim::image_build({3, 0, 5, 77})));
    }
    void TearDown() override { kavo_sim::chip_destroy_all(); }
    exchange_result cmd(const std::string& text)
    {
        std::vector<char> padded(text.size() + 4 - text.size() % 4, '\0');
        std::memcpy(padded.data(), text.data(), text.size());
        return bus.exchange(KAVO_HTL_OPERATION_DEBUG_CMD, padded.data(), UINT32(padded.size()));
    }
    bus_client bus{kavo_sim::callouts(), 2};
};

TEST_P(SimMailbox, RepliesEchoTheRequestHeader)
{
    for (int i = 0; i < 3; ++i) {
        const UINT32 seq = bus.next_sequence();
        auto r = bus.exchange(KAVO_HTL_OPERATION_STATUS);
        ASSERT_TRUE(r.replied);
        EXPECT_EQ(r.header[0], 2u);
        EXPECT_EQ(r.header[1], seq);
        EXPECT_EQ(r.header[2], UINT32(KAVO_HTL_OPERATION_STATUS));
        EXPECT_EQ(r.header[7], 32u);
        EXPECT_EQ(bus.rd(0xF021E0) & 1, 1u) << "status bit 0 raised with the reply";
    }
}

TEST_P(SimMailbox, StatusDescribesChipAndFirmware)
{
    auto s = as<kavo_device_status_info_t>(bus.exchange(KAVO_HTL_OPERATION_STATUS));
    EXPECT_EQ(s.device_type, 0x6104u);
    EXPECT_EQ(s.device_revision, 1u);
    EXPECT_EQ(s.fw_alive, 1u);
    EXPECT_EQ(s.fw_is_configured, 0u);
    EXPECT_EQ(s.fw_revision, 77u);
    EXPECT_EQ(s.fw_version, 0x300005u);
    EXPECT_GT(s.device_temperature, 0);
    EXPECT_LT(s.device_temperature, 125);
    kavo_config_t c = good_config();
    ASSERT_EQ(bus.exchange(KAVO_HTL_OPERATION_CONFIG, &c, sizeof(c)).result(), VELT_SUCCESS);
    EXPECT_EQ(as<kavo_device_status_info_t>(bus.exchange(KAVO_HTL_OPERATION_STATUS)).fw_is_configured, 1u);
}

TEST_P(SimMailbox, ConfigIsValidatedStoredAndReturned)
{
    EXPECT_EQ(bus.exchange(KAVO_HTL_OPERATION_CONFIG_GET).result(), UINT32(KAVO_ERR_FW_NOT_CONFIGURED));
    struct {
        const char* what;
        void (*spoil)(kavo_config_t&);
        UINT32 code;
    } bad[] = {
        {"unchosen device mode", [](kavo_config_t& c) { c.device_mode = LAST_KAVO_DEVICE_MODE; },
         SEGMENT_BASE_ERR_INVALID_APPLICATION_MODE},
        {"macsec bypass not a bool", [](kavo_config_t& c) { c.macsec_global_bypass[2] = 2; },
         KAVO_FW_ERR_INVALID_PARAMETERS},
        {"ptp enable not a bool", [](kavo_config_t& c) { c.ptp_enable[0] = 7; }, KAVO_FW_ERR_INVALID_PARAMETERS},
        {"mux mode not a bool", [](kavo_config_t& c) { c.mux_mode = 3; }, KAVO_FW_ERR_INVALID_PARAMETERS},
        {"reference clock", [](kavo_config_t& c) { c.enet_dcsu_ref_clk = LAST_KAVO_ENET_DCSU_REF_CLK; },
         DCSU_ERR_INVALID_ARG},
        {"pmon period 0", [](kavo_config_t& c) { c.pmon.auto_trigger = 1, c.pmon.trigger_period_ms = 0; },
         PMON_ERR_INVALID_PARAMS},
        {"serdes port 72", [](kavo_config_t& c) { c.ilkn_lane.serdes_port_ids_rx[23] = 72; },
         SEGMENT_BASE_ERR_ILLEGAL_SERDES_PORT_ID},
    };
    kavo_config_t fresh;
    EXPECT_EQ(bus.exchange(KAVO_HTL_OPERATION_CONFIG, &fresh, sizeof(fresh)).result(),
              UINT32(SEGMENT_BASE_ERR_INVALID_APPLICATION_MODE))
        << "a freshly initialised record leaves the mode unchosen";
    for (auto& b : bad) {
        kavo_config_t c = good_config();
        b.spoil(c);
        EXPECT_EQ(bus.exchange(KAVO_HTL_OPERATION_CONFIG, &c, sizeof(c)).result(), b.code) << b.what;
    }
    kavo_config_t c = good_config();
    EXPECT_EQ(bus.exchange(KAVO_HTL_OPERATION_CONFIG, &c, 280).result(), UINT32(KAVO_FW_ERR_INVALID_PARAMETERS))
        << "a short record";
    EXPECT_EQ(bus.exchange(KAVO_HTL_OPERATION_CONFIG_GET).result(), UINT32(KAVO_ERR_FW_NOT_CONFIGURED));

    c.device_mode = KAVO_DEVICE_MODE_800G_RGB;
    c.ptp_enable[1] = 1;
    c.ilkn_lane.serdes_port_ids_tx[0] = 71;
    ASSERT_EQ(bus.exchange(KAVO_HTL_OPERATION_CONFIG, &c, sizeof(c)).result(), VELT_SUCCESS);
    auto r = bus.exchange(KAVO_HTL_OPERATION_CONFIG_GET);
    ASSERT_EQ(r.result(), VELT_SUCCESS);
    EXPECT_EQ(std::memcmp(r.data.data(), &c, sizeof(c)), 0);

    // A refused config leaves the stored one alone; shutdown forgets it.
    kavo_config_t worse = c;
    worse.mux_mode = 9;
    bus.exchange(KAVO_HTL_OPERATION_CONFIG, &worse, sizeof(worse));
    EXPECT_EQ(as<kavo_config_t>(bus.exchange(KAVO_HTL_OPERATION_CONFIG_GET)).mux_mode, 0u);
    EXPECT_EQ(bus.exchange(KAVO_HTL_OPERATION_SHUTDOWN).result(), VELT_SUCCESS);
    EXPECT_EQ(bus.exchange(KAVO_HTL_OPERATION_CONFIG_GET).result(), UINT32(KAVO_ERR_FW_NOT_CONFIGURED));
    EXPECT_EQ(bus.exchange(KAVO_HTL_OPERATION_STATUS).result(), VELT_SUCCESS) << "still serving after shutdown";
}

TEST_P(SimMailbox, ChannelMapAndClockUnits)
{
    auto chnl = as<kavo_chnl_info_t>(bus.exchange(KAVO_HTL_OPERATION_CHNL_INFO_GET));
    for (UINT32 i = 0; i < 48; ++i)
        EXPECT_EQ(chnl.info[i], KAVO_SEGMENT_TYPE_UNUSED);

    for (UINT32 inst = 0; inst <= LAST_KAVO_DCSU_INSTANCE; ++inst) {
        kavo_htl_general_struct_t info;
        info.element_id = inst;
        auto r = bus.exchange(KAVO_HTL_OPERATION_DCSU_CFG_GET, nullptr, 0, info);
        if (inst == LAST_KAVO_DCSU_INSTANCE) {
            EXPECT_EQ(r.result(), UINT32(DCSU_ERR_INVALID_ARG));
            EXPECT_TRUE(r.data.empty());
            continue;
        }
        auto cfg = as<kavo_dcsu_cfg_get_t>(r);
        EXPECT_EQ(cfg.post_div_by[7], 4u) << inst;
        EXPECT_EQ(cfg.arstb, 1u);
        EXPECT_EQ(cfg.fb_int_div, 80 + 4 * inst);
    }
}

TEST_P(SimMailbox, PingEchoes)
{
    std::vector<UINT32> words(4088);
    for (UINT32 i = 0; i < words.size(); ++i)
        words[i] = i * 2654435761u;
    for (UINT32 n : {0u, 1u, 16u, 4086u, 4088u}) {
        auto r = bus.exchange(KAVO_HTL_OPERATION_DEBUG_PING, words.data(), 4 * n);
        EXPECT_EQ(r.result(), VELT_SUCCESS);
        ASSERT_EQ(r.data.size(), 4 * n);
        EXPECT_TRUE(std::equal(r.data.begin(), r.data.end(), reinterpret_cast<const UINT8*>(words.data()))) << n;
    }
}

TEST_P(SimMailbox, DebugShellAnswersInText)
{
    struct {
        const char* line;
        UINT32 result;
        const char* reply;
    } cases[] = {
        {"noop", VELT_SUCCESS, ""},
        {"", VELT_SUCCESS, ""},
        {"version", VELT_SUCCESS, "kavo firmware 3.0.5 (vcs 77)"},
        {"  version  \n", VELT_SUCCESS, "kavo firmware 3.0.5 (vcs 77)"},
        {"set_verbosity 5 ", VELT_SUCCESS, ""},
        {"set_verbosity 8", VELT_ERR_INVALID_ARGS, "usage: set_verbosity 0..7"},
        {"set_verbosity x", VELT_ERR_INVALID_ARGS, "usage: set_verbosity 0..7"},
        {"repeat many x", VELT_ERR_INVALID_ARGS, "usage: repeat COUNT TEXT"},
        {"frobnicate now", KAVO_FW_ERR_INVALID_PARAMETERS, "unknown command 'frobnicate', try help"},
    };
    for (auto& c : cases) {
        auto r = cmd(c.line);
        EXPECT_EQ(r.result(), c.result) << c.line;
        EXPECT_EQ(text_of(r), c.reply) << c.line;
        if (!*c.reply) {
            EXPECT_TRUE(r.data.empty()) << c.line;
        }
    }
    const std::string help = text_of(cmd("help"));
    for (const char* word : {"noop", "help", "version", "set_verbosity", "echo", "log", "repeat", "uptime"})
        EXPECT_NE(help.find(word), std::string::npos) << word;
    EXPECT_EQ(text_of(cmd("uptime")).substr(0, 1), "0");
}

/* Word offsets of the log block's debug-log descriptors and stats table,
   read from its header as a host reader would. */
struct block_view {
    bus_client& bus;
    UINT32 h(UINT32 off) { return bus.rd(LOG + off); }
    velt_sys_fw_stats_t stat(const char* name)
    {
        velt_sys_fw_stats_t r;
        for (UINT32 i = 0; i < h(24); ++i) {
            auto b = bus.bytes_read(LOG + h(32) + i * h(28), 80);
            std::memcpy(static_cast<void*>(&r), b.data(), 80);
            if (std::string(r.description) == name) return r;
        }
        ADD_FAILURE() << "no statistic " << name;
        return r;
    }
    /* Entries of a debug log, oldest first, while it has not wrapped. */
    std::vector<std::vector<UINT32>> entries(const char* name)
    {
        std::vector<std::vector<UINT32>> out;
        for (UINT32 i = 0; i < h(40); ++i) {
            const UINT32 d = LOG + h(48) + i * h(44);
            auto desc = bus.bytes_read(d, 36);
            if (std::string(reinterpret_cast<const char*>(desc.data())) != name) continue;
            UINT32 offset, windex;
            std::memcpy(&offset, desc.data() + 24, 4);
            std::memcpy(&windex, desc.data() + 28, 4);
            for (UINT32 e = 0; e < windex; ++e) {
                std::vector<UINT32> w(8);
                bus.bread(LOG + offset + 32 * e, w.data(), 8);
                out.push_back(w);
            }
        }
        return out;
    }
};

TEST_P(SimMailbox, EveryRequestIsCountedAndLogged)
{
    block_view v{bus};
    EXPECT_EQ(v.h(28), 80u);
    const UINT64 before = v.stat("htl_request").num;
    bus.exchange(KAVO_HTL_OPERATION_STATUS);
    bus.exchange(KAVO_HTL_OPERATION_CHNL_INFO_GET);
    bus.exchange(0x0F0F); // unknown
    cmd("noop");
    const auto req = v.stat("htl_request");
    EXPECT_EQ(req.num, before + 4);
    EXPECT_EQ(req.mark_started, 0u);
    EXPECT_GE(req.period_sum, UINT64(req.period_min) * (req.num - 1));
    EXPECT_EQ(v.stat("htl_device").num, 2u);
    EXPECT_EQ(v.stat("htl_debug").num, 1u);
    EXPECT_EQ(v.stat("ihtl_request_words").duration_sum, 2u) << "the noop text is 2 words";

    const auto htl = v.entries("htl");
    ASSERT_GE(htl.size(), 5u);
    UINT64 last = 0;
    for (auto& e : htl) {
        const UINT64 ticks = e[0] | UINT64(e[1]) << 32;
        EXPECT_GE(ticks, last) << "time stamps never go back";
        last = ticks;
    }
    // The unknown operation: a request entry, then a runtime-error entry with its code.
    bool found = false;
    for (size_t i = 0; i + 1 < htl.size(); ++i) {
        if ((htl[i][2] >> 16) == HTL_LOG_CODE_DEBUG && htl[i][3] == 0x0F0F) {
            EXPECT_EQ(htl[i + 1][2] >> 16, UINT32(DBG_LOG_RUNTIME_ERROR_LOG));
            EXPECT_EQ(htl[i + 1][3], UINT32(KAVO_ERR_FW_REQUEST_UNKNOWN));
            found = true;
        }
    }
    EXPECT_TRUE(found);

    // Shell lines go to the cmd log, the log command's text to the main log,
    // 20 characters per entry.
    cmd("log abcdefghijklmnopqrstuvwxyz0123456789ABCDEFGHIJ");
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&v.entries("cmd").back()[3])), "ABCDEFGHIJ");
    const auto log = v.entries("main");
    ASSERT_GE(log.size(), 3u);
    const auto& last3 = std::vector<std::vector<UINT32>>(log.end() - 3, log.end());
    EXPECT_EQ(last3[0][2] >> 16, UINT32(DBG_LOG_ERROR_LOG_START));
    EXPECT_EQ(last3[1][2] >> 16, UINT32(DBG_LOG_ERROR_LOG_CONT));
    EXPECT_EQ(last3[2][2] >> 16, UINT32(DBG_LOG_ERROR_LOG_END));
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&last3[2][3])), "EFGHIJ") << "characters 40..45";
}

TEST_P(SimMailbox, UnknownAndMisdirectedRequests)
{
    for (UINT32 op : {0x000u, 0x00Du, 0x0B00u, 0x1002u, 0xFFFFFFFFu, UINT32(KAVO_HTL_OPERATION_MACSEC_SA_ADD)}) {
        auto r = bus.exchange(op);
        EXPECT_EQ(r.result(), UINT32(KAVO_ERR_FW_REQUEST_UNKNOWN)) << std::hex << op;
        EXPECT_EQ(r.header[2], op);
        EXPECT_TRUE(r.data.empty());
    }
    // A request for another device id, or with an impossible payload size.
    UINT32 hdr[8] = {9, 1, KAVO_HTL_OPERATION_STATUS, 0, 0, 0, 0, 0};
    for (UINT32 size_word : {0u, 16353u}) {
        hdr[0] = size_word ? 2 : 9;
        hdr[7] = size_word;
        bus.bwrite(0x340004, hdr, 8);
        bus.write(0xF020E0, 0);
        for (int i = 0; i < 2000 && bus.rd(0xF020E0) != 1; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        UINT32 rep[8];
        bus.bread(0x344004, rep, 8);
        EXPECT_EQ(rep[3], UINT32(HTL_ERR_DEVICE_REQUEST_INVALID)) << size_word;
        EXPECT_EQ(rep[7], 0u);
    }
}

INSTANTIATE_TEST_SUITE_P(Modes, SimMailbox,
                         ::testing::Values(kavo_sim::exec_mode::synchronous, kavo_sim::exec_mode::threaded),
                         [](const auto& info) {
                             return std::string(info.param == kavo_sim::exec_mode::threaded ? "threaded"
                                                                                            : "synchronous");
                         });

TEST(SimMailboxService, FirmwareWithAServiceTimeStillAnswersEveryRequest)
{
    for (auto mode : {kavo_sim::exec_mode::synchronous, kavo_sim::exec_mode::threaded}) {
        kavo_sim::chip_config cfg;
        cfg.mode = mode;
        cfg.service_time_us = 500;
        ASSERT_EQ(kavo_sim::chip_create(5, cfg), VELT_SUCCESS);
        bus_client bus(kavo_sim::callouts(), 5);
        ASSERT_TRUE(bus.cold_start(kavo_sim::image_build({})));
        for (int i = 0; i < 5; ++i) {
            auto r = bus.exchange(KAVO_HTL_OPERATION_STATUS);
            ASSERT_TRUE(r.replied);
            EXPECT_EQ(r.header[1], UINT32(i));
        }
        kavo_sim::chip_destroy_all();
    }
}

} // namespace
