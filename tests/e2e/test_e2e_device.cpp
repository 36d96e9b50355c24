// Device lifecycle end to end on the virtual device: cold start by revision,
// warm restart and reload, debug attach, firmware options, version check,
// configuration, many devices.
#include <gtest/gtest.h>

#include <dirent.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "kavo_device.h"
#include "kavo_test_device.h"
#include "kavo_test_log.h"
#include "velt_library_options.h"
#include "velt_log.h"
#include "velt_sys.h"

using kavo_test::device_test;
using kavo_test::has;
using kavo_test::ping;
using kavo_test::take;

namespace {

UINT32 running_version_word(UINT32 id)
{
    UINT32 word = 0;
    EXPECT_EQ(kavo_reg_read(id, VELT_FW_VERSION_ADDR, &word), VELT_SUCCESS);
    return word;
}

constexpr UINT32 version_word(UINT32 major, UINT32 minor, UINT32 build)
{
    return (major << 20) | (minor << 12) | build;
}

int open_descriptors()
{
    int n = 0;
    if (DIR* dir = opendir("/proc/self/fd")) {
        while (readdir(dir) != nullptr) ++n;
        closedir(dir);
    }
    return n;
}

size_t count(const std::string& text, const std::string& what)
{
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

/* The porting layer's clock moves 1 us a reading and its sleeps pass at once,
   for as long as the guard lives. */
struct instant_sleeps {
    UINT64 now = 0;
    instant_sleeps()
    {
        const velt_sys_clock_hooks_t hooks{[](void* c) { return ++*static_cast<UINT64*>(c); },
                                           [](void* c, UINT32 us) { *static_cast<UINT64*>(c) += us; }, &now};
        velt_sys_clock_hooks_set(&hooks);
    }
    ~instant_sleeps() { velt_sys_clock_hooks_set(nullptr); }
};

}  // namespace

TEST_F(device_test, ColdStartPicksTheImageOfTheChipRevision)
{
    struct {
        UINT32 revision_code;
        const char* expected;
    } cases[] = {{0, "kavo_fw_app_reva.mem"}, {1, "kavo_fw_app_revb.mem"}};
    UINT32 id = 0;
    for (const auto& c : cases) {
        kavo_fw_filename_set((kavo_test::firmware_dir() + "/kavo_fw_app_revx.mem").c_str());
        kavo_sim::chip_config cfg;
        cfg.revision_code = c.revision_code;
        ASSERT_EQ(bring_up(id, KAVO_INIT_COLD, cfg), VELT_SUCCESS) << take();
        char* name = nullptr;
        kavo_fw_filename_get(&name);
        EXPECT_NE(std::strstr(name, c.expected), nullptr) << name;
        EXPECT_EQ(running_version_word(id), version_word(3, 0, 2));
        ++id;
    }
}

TEST_F(device_test, ColdStartLogsEachStageInOrder)
{
    const std::string path = kavo_test::make_image("staged.mem", 3, 0, 2, 1);
    kavo_fw_filename_set(path.c_str());
    ASSERT_EQ(bring_up(0, KAVO_INIT_COLD), VELT_SUCCESS);
    const std::string log = take();
    size_t at = 0;
    for (const std::string& line : {" Starting Firmware Download - " + path + " \n", std::string(" Firmware Version - 3_0_2_1 \n"),
                                   std::string(" Firmware Download Complete\n"), std::string(" Starting Firmware\n"),
                                   std::string(" Poll the KAVO FW to see if it is alive or not\n"),
                                   std::string(" FW started successfully\n")}) {
        const size_t found = log.find(line, at);
        ASSERT_NE(found, std::string::npos) << "missing or out of order: " << line << log;
        at = found + line.size();
    }
}

TEST_F(device_test, NameWithoutRevxIsUsedAsSet)
{
    const std::string path = kavo_test::make_image("plain.mem", 3, 0, 2);
    kavo_fw_filename_set(path.c_str());
    ASSERT_EQ(bring_up(0), VELT_SUCCESS) << take();
    char* name = nullptr;
    kavo_fw_filename_get(&name);
    EXPECT_EQ(std::string(name), path);
}

TEST_F(device_test, MissingImageIsReported)
{
    kavo_fw_filename_set("/nonexistent/kavo_fw_app_revx.mem");
    EXPECT_EQ(bring_up(0), KAVO_ERR_FW_IMAGE_DOES_NOT_EXIST);
    EXPECT_NE(take().find(" Firmware image not found, filename=/nonexistent/kavo_fw_app_reva.mem\n"), std::string::npos);
}

TEST_F(device_test, WarmRestartReloadsOnlyWhenTheImageIsNewer)
{
    const std::string running = kavo_test::make_image("r127.mem", 1, 2, 7, 5);
    struct {
        const char* name;
        UINT32 major, minor, build, vcs;
        UINT32 option;
        bool reload;
    } cases[] = {
        {"same version, same revision", 1, 2, 7, 5, 0, false},
        {"newer build, older minor", 1, 1, 9, 5, 0, true},
        {"newer minor", 1, 3, 0, 5, 0, true},
        {"other revision of the same version", 1, 2, 7, 6, 0, true},
        {"newer major alone", 2, 0, 0, 5, 0, false},
        {"option forces a reload", 1, 2, 7, 5, 1, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const int descriptors = open_descriptors();
        kavo_fw_filename_set(running.c_str());
        ASSERT_EQ(bring_up(0, KAVO_INIT_COLD), VELT_SUCCESS) << take();
        ASSERT_EQ(kavo_device_uninit(0, 0), VELT_SUCCESS);

        const std::string image = kavo_test::make_image("candidate.mem", c.major, c.minor, c.build, c.vcs);
        kavo_fw_filename_set(image.c_str());
        velt_option_warm_restart.value = c.option;
        take();
        ASSERT_EQ(kavo_device_init(0, KAVO_INIT_AUTO), VELT_SUCCESS) << take();
        const std::string log = take();
        EXPECT_EQ(running_version_word(0), c.reload ? version_word(c.major, c.minor, c.build) : version_word(1, 2, 7));
        EXPECT_EQ(log.find(" Firmware Download Complete\n") != std::string::npos, c.reload) << log;
        EXPECT_EQ(has(log, " Newer FW version found. \n"), c.reload);
        EXPECT_EQ(has(log, " Restarting Device. \n"), c.reload);
        // The link works after either path.
        kavo_status_info_t status;
        kavo_device_status_get(0, &status);
        EXPECT_EQ(status.device_connected, 1);
        velt_option_warm_restart.value = 0;
        kavo_device_uninit(0, 0);
        kavo_sim::chip_destroy(0);
        EXPECT_EQ(open_descriptors(), descriptors) << "the image files are closed again";
    }
}

TEST_F(device_test, DebugAttachLeavesTheLinkUnconnected)
{
    ASSERT_EQ(bring_up(0, KAVO_INIT_COLD), VELT_SUCCESS);
    ASSERT_EQ(kavo_device_uninit(0, 0), VELT_SUCCESS);
    ASSERT_EQ(kavo_device_init(0, KAVO_INIT_DEBUG_ATTACH), VELT_SUCCESS);
    UINT32 word = 1, back = 0;
    EXPECT_EQ(kavo_debug_ping(0, 4, &word, &back), HTL_ERR_DEVICE_NOT_CONNECTED);
    // Registers are reachable while attached.
    EXPECT_EQ(running_version_word(0), version_word(3, 0, 2));
}

TEST_F(device_test, FirmwareOptionsTravelAfterTheHandshake)
{
    ::setenv("VELT_FW_OPTIONS", "trace_all=1", 1);
    VELT_ERROR rc = bring_up(0);
    ::unsetenv("VELT_FW_OPTIONS");
    ASSERT_EQ(rc, VELT_SUCCESS) << take();
    EXPECT_EQ(kavo_test::requests_of(0, KAVO_HTL_OPERATION_DEBUG_CMD), 1u);
    EXPECT_EQ(kavo_test::last_request_text(0), "noop trace_all=1");
}

TEST_F(device_test, StatusChecksTheFirmwareVersionAgainstTheLibrary)
{
    struct {
        UINT32 minor, build;
        VELT_ERROR expected;
        BOOL8 mismatch;
    } cases[] = {{0, 2, VELT_SUCCESS, 0}, {0, 5, VELT_SUCCESS, 0}, {16, 2, KAVO_SW_FW_VERSION_MISMATCH, 1}};
    for (const auto& c : cases) {
        kavo_fw_filename_set(kavo_test::make_image("v.mem", 3, c.minor, c.build).c_str());
        ASSERT_EQ(bring_up(0), VELT_SUCCESS) << take();
        take();
        kavo_status_info_t status;
        EXPECT_EQ(kavo_device_status_get(0, &status), c.expected);
        EXPECT_EQ(status.sw_fw_mismatch, c.mismatch);
        EXPECT_EQ(status.device_connected, 1);
        EXPECT_EQ(status.sw_version, 0x300002u);
        EXPECT_EQ(status.sw_revision, 0x16142u);
        EXPECT_EQ(status.device_info.fw_version, version_word(3, c.minor, c.build));
        if (c.mismatch) {
            EXPECT_NE(take().find(" SW-FW Version mismatch! FW Version = 0x310000, SW Version = 0x300000"),
                      std::string::npos);
        }
        kavo_device_uninit(0, 0);
        kavo_sim::chip_destroy(0);
    }
}

TEST_F(device_test, ConfigurationRoundTripsThroughTheFirmware)
{
    ASSERT_EQ(bring_up(0), VELT_SUCCESS);
    kavo_config_t cfg;
    EXPECT_NE(kavo_device_config(0, &cfg), VELT_SUCCESS) << "an unchosen device mode is refused";
    cfg.device_mode = KAVO_DEVICE_MODE_800G_FGB;
    cfg.pmon.trigger_period_ms = 250;
    cfg.ptp_enable[1] = 1;
    ASSERT_EQ(kavo_device_config(0, &cfg), VELT_SUCCESS) << take();
    kavo_config_t back;
    std::memset(static_cast<void*>(&back), 0xAB, sizeof(back));
    ASSERT_EQ(kavo_device_config_get(0, &back), VELT_SUCCESS);
    EXPECT_EQ(std::memcmp(&cfg, &back, sizeof(cfg)), 0);
    kavo_status_info_t status;
    kavo_device_status_get(0, &status);
    EXPECT_EQ(status.device_info.fw_is_configured, 1u);
}

TEST_F(device_test, ChannelsAndClockUnitsReadBack)
{
    ASSERT_EQ(bring_up(0), VELT_SUCCESS);
    kavo_chnl_info_t channels;
    ASSERT_EQ(kavo_device_chnl_get(0, &channels), VELT_SUCCESS);
    for (int i = 0; i < 48; ++i) EXPECT_EQ(channels.info[i], KAVO_SEGMENT_TYPE_UNUSED);
    kavo_dcsu_cfg_get_t dcsu;
    EXPECT_EQ(kavo_dcsu_cfg_get(0, KAVO_DCSU_INSTANCE_0, &dcsu), VELT_SUCCESS);
    EXPECT_EQ(dcsu.post_div_by[0], 3u) << "reva latches the post divider at start";
    EXPECT_NE(kavo_dcsu_cfg_get(0, LAST_KAVO_DCSU_INSTANCE, &dcsu), VELT_SUCCESS);
}

TEST_F(device_test, ThirtyTwoDevices)
{
    for (UINT32 id = 0; id < 32; ++id) ASSERT_EQ(bring_up(id), VELT_SUCCESS) << id << take();
    for (UINT32 id = 0; id < 32; ++id) {
        UINT32 word = 0x1000 + id, back = 0;
        EXPECT_EQ(kavo_debug_ping(id, 4, &word, &back), VELT_SUCCESS);
        EXPECT_EQ(back, word);
    }
    EXPECT_EQ(kavo_device_init(32, KAVO_INIT_COLD), KAVO_ERR_INVALID_DEVICE_ID);
    EXPECT_EQ(kavo_device_init(5, KAVO_INIT_COLD), KAVO_ERR_DEVICE_ID_IN_USE);
}

TEST_F(device_test, UninitWithShutdownTellsTheFirmware)
{
    ASSERT_EQ(bring_up(0), VELT_SUCCESS);
    EXPECT_EQ(kavo_device_uninit(0, 1), VELT_SUCCESS);
    EXPECT_EQ(kavo_device_find(0), nullptr);
    EXPECT_EQ(kavo_test::requests_of(0, KAVO_HTL_OPERATION_SHUTDOWN), 1u);
    // Unknown devices: nothing to release, commands refuse.
    EXPECT_EQ(kavo_device_uninit(7, 1), HTL_ERR_DEVICE_NOT_INIT);
    kavo_status_info_t status;
    EXPECT_EQ(kavo_device_status_get(7, &status), HTL_ERR_DEVICE_NOT_INIT);
    EXPECT_EQ(status.device_connected, 0);
    EXPECT_EQ(status.sw_version, 0x300002u);
}

TEST_F(device_test, DebugShellAndPing)
{
    ASSERT_EQ(bring_up(0), VELT_SUCCESS);
    char reply[256] = {};
    ASSERT_EQ(kavo_debug_cmd(0, "version", sizeof(reply), reply), VELT_SUCCESS);
    EXPECT_NE(std::strstr(reply, "3.0.2"), nullptr) << reply;
    EXPECT_NE(kavo_debug_cmd(0, "no_such_command", sizeof(reply), reply), VELT_SUCCESS);

    UINT32 words[16], back[16] = {};
    for (UINT32 i = 0; i < 16; ++i) words[i] = 0xA5A50000u + i;
    ASSERT_EQ(kavo_debug_ping(0, sizeof(words), words, back), VELT_SUCCESS);
    EXPECT_EQ(std::memcmp(words, back, sizeof(words)), 0);

    struct {
        UINT32 size;
        const UINT32* data;
        UINT32* reply;
        VELT_ERROR expected;
    } refused[] = {{4, nullptr, back, HTL_ERR_INVALID_REQUEST_DATA_PTR},
                   {4, words, nullptr, HTL_ERR_INVALID_REQUEST_DATA_PTR},
                   {16348, words, back, HTL_ERR_INVALID_REQUEST_DATA_SIZE},
                   {6, words, back, HTL_ERR_INVALID_REQUEST_DATA_SIZE}};
    for (const auto& r : refused) EXPECT_EQ(kavo_debug_ping(0, r.size, r.data, r.reply), r.expected);
    EXPECT_EQ(kavo_debug_ping(0, 0, nullptr, nullptr), VELT_SUCCESS);
}

TEST_F(device_test, VerbosityForTheLibraryAndForTheFirmware)
{
    ASSERT_EQ(bring_up(0), VELT_SUCCESS);
    EXPECT_EQ(kavo_log_verbosity_level_set(0xFFFFFFFF, 8), VELT_ERR_INVALID_ARGS);
    EXPECT_EQ(kavo_log_verbosity_level_set(0xFFFFFFFF, 3), VELT_SUCCESS);
    EXPECT_EQ(global_verbosity, VELT_LOG_SEV_HIGH);
    kavo_log_verbosity_level_set(0xFFFFFFFF, 4);
    EXPECT_EQ(kavo_log_verbosity_level_set(0, 6), VELT_SUCCESS);
    EXPECT_EQ(kavo_test::last_request_text(0), "set_verbosity 6 ");
}

namespace {

/* The register writes and reads of a bring-up, from the chip's journal: bursts
   left out, a poll's repeated reads of one register shown once. */
std::vector<std::string> register_sequence(UINT32 id)
{
    std::vector<std::string> out;
    for (const std::string& op : kavo_test::bus_sequence(id)) {
        if (op[0] == 'b') continue;
        if (!out.empty() && op[0] == 'r' && out.back() == op) continue;
        out.push_back(op);
    }
    return out;
}

}  // namespace

TEST_F(device_test, ColdStartAndReloadWriteExactlyTheirRegisterSequences)
{
    const std::vector<std::string> cold_reset = {
        "w f0002c 5afec0de", "r f00020", "w f00020 0", "w f10028 0", "w f10010 0", "w f10018 f", "r f10020",
        "w f10018 0"};
    const std::vector<std::string> release = {"w f0002c 0", "w f000b0 0", "r f00338", "w f02000 1000000"};
    // DEVICE_ID read (valid id, revision for the image, revision for the divider);
    // the divider's other fields keep their reset value 4.
    const std::vector<std::string> reva_check = {"r f00380", "r 74401c", "w 74401c 4040403", "w 744010 1",
                                                 "w 744010 0"};
    const std::vector<std::string> revb_check = {"r f00380"};  // no divider on revb
    for (UINT32 revision : {0u, 1u}) {
        SCOPED_TRACE(revision);
        kavo_fw_filename_set((kavo_test::firmware_dir() + "/kavo_fw_app_revx.mem").c_str());
        ASSERT_EQ(kavo_sim::chip_create(revision, {0x6100, revision}), VELT_SUCCESS);
        ASSERT_EQ(kavo_device_init(revision, KAVO_INIT_COLD), VELT_SUCCESS) << take();
        std::vector<std::string> expected = revision == 0 ? reva_check : revb_check;
        expected.insert(expected.end(), cold_reset.begin(), cold_reset.end());
        expected.push_back("w f00338 0");  // boot argument of a cold start
        expected.insert(expected.end(), release.begin(), release.end());
        const std::vector<std::string> seen = register_sequence(revision);
        ASSERT_GE(seen.size(), expected.size());
        EXPECT_EQ(std::vector<std::string>(seen.begin(), seen.begin() + expected.size()), expected);
    }
    // A newer image on a running chip: reload with mask 3 and the warm boot argument.
    kavo_fw_filename_set(kavo_test::make_image("newer.mem", 3, 0, 9).c_str());
    kavo_device_uninit(0, 0);
    kavo_sim::chip_get(0)->journal_reset();
    ASSERT_EQ(kavo_device_init(0, KAVO_INIT_AUTO), VELT_SUCCESS) << take();
    const std::vector<std::string> reload = {
        "w f00020 1000000", "w f0002c 5afec0de", "r f00020", "w f00020 1000000", "w f10028 3", "w f10028 0",
        "w f10018 3",       "r f10020",          "w f10018 0", "w f00338 beeb00ba", "w f0002c 0", "w f000b0 0",
        "r f00338",         "w f02000 1000000"};
    const std::vector<std::string> seen = register_sequence(0);
    auto at = std::search(seen.begin(), seen.end(), reload.begin(), reload.begin() + 1);
    ASSERT_NE(at, seen.end()) << "no reload";
    ASSERT_GE(seen.end() - at, (long)reload.size());
    EXPECT_EQ(std::vector<std::string>(at, at + reload.size()), reload);
    EXPECT_EQ(kavo_test::requests_of(0, KAVO_HTL_OPERATION_RESTART), 1u);
}

TEST_F(device_test, StartUpAndRamInitTakeTheirTimeAndThePollsWaitForThem)
{
    // The RAM init outlasts the clear's 1000 us poll: the cold start goes on,
    // its RAM test decides. The firmware answers the handshake after 0.3 s:
    // the start-up poll sleeps once.
    kavo_sim::chip_config cfg;
    cfg.startup_us = 300000;
    cfg.ram_init_us = 5000;
    velt_log_verbosity_level_set(0, VELT_LOG_SEV_LOW);
    ASSERT_EQ(bring_up(0, KAVO_INIT_COLD, cfg), VELT_SUCCESS) << take();
    velt_log_verbosity_level_set(0, VELT_LOG_SEV_EVENT);
    const std::string log = take();
    EXPECT_TRUE(has(log, " Sleeping for 500000 microseconds\n")) << log;
    EXPECT_TRUE(has(log, " FW started successfully\n"));
    int polls = 0;
    for (const std::string& op : kavo_test::bus_sequence(0)) polls += op == "r f10020";
    EXPECT_GE(polls, 2) << "the clear's poll read until its time-out";
    EXPECT_EQ(ping(0), VELT_SUCCESS);
}

TEST_F(device_test, FirmwareThatNeverStartsIsPolledThirtyOneTimes)
{
    // A corrupt image never starts: the start-up poll reads the started word
    // once, then 30 times more after a 0.5 s sleep each, and gives up.
    kavo_fw_filename_set(kavo_test::make_image("corrupt.mem", 3, 0, 2, 1, true).c_str());
    velt_log_verbosity_level_set(0, VELT_LOG_SEV_LOW);
    {
        instant_sleeps clock;
        EXPECT_EQ(bring_up(0), KAVO_ERR_FW_BOOT_FAIL);
        EXPECT_GE(clock.now, 30u * 500000u) << "the sleeps passed on the porting layer's clock";
    }
    velt_log_verbosity_level_set(0, VELT_LOG_SEV_EVENT);
    const std::string log = take();
    EXPECT_EQ(count(log, " Sleeping for 500000 microseconds\n"), 30u) << log;
    const std::vector<std::string> seen = kavo_test::bus_sequence(0);
    // The boot argument is the last word written there before the polls.
    const auto boot_argument = std::find_if(seen.rbegin(), seen.rend(),
                                            [](const std::string& op) { return op.rfind("w f00338 ", 0) == 0; });
    ASSERT_NE(boot_argument, seen.rend());
    EXPECT_EQ(std::count(seen.rbegin(), boot_argument, "r f00338"), 31);
}

TEST_F(device_test, EveryRequestFromTheHandshakeOnTakesTheNextSequenceNumber)
{
    ASSERT_EQ(bring_up(0), VELT_SUCCESS);
    ASSERT_EQ(ping(0), VELT_SUCCESS);
    ASSERT_EQ(ping(0), VELT_SUCCESS);
    std::vector<UINT32> numbers;
    for (const auto& e : kavo_sim::chip_get(0)->journal().events)
        if (e.kind == kavo_sim::event_kind::request) numbers.push_back(e.sequence_num);
    ASSERT_EQ(numbers.size(), 3u);  // the handshake and two pings
    for (size_t i = 1; i < numbers.size(); ++i) EXPECT_EQ(numbers[i], numbers[0] + i) << "request " << i;
}
