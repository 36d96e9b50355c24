#include "kavo_test_device.h"

#include <sys/wait.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "kavo_device.h"
#include "kavo_test_log.h"
#include "velt_library_options.h"

namespace kavo_test {

kavoctl_run run_kavoctl(const std::string& args, bool with_stderr)
{
    // kavoctl is built beside the virtual device's tools.
    std::string command = tool_path("/../tools/kavoctl/kavoctl ");
    command += args;
    command += with_stderr ? " 2>&1" : " 2>/dev/null";
    kavoctl_run r;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return r;
    char chunk[4096];
    for (size_t n; (n = std::fread(chunk, 1, sizeof(chunk), pipe)) > 0;) r.output.append(chunk, n);
    const int raw = pclose(pipe);
    r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    return r;
}


std::string firmware_dir() { return KAVO_FW_IMAGE_DIR; }

std::string tool_path(const char* relative)
{
    std::string path = KAVO_SIM_TOOLS_DIR;
    path += relative;
    return path;
}

std::string types_path(const std::string& name)
{
    std::string path = KAVO_TEST_TYPES_DIR;
    path += '/';
    path += name;
    return path;
}

static std::string scratch_dir()
{
    static std::string dir = [] {
        std::string d = std::filesystem::temp_directory_path() / ("kavo_e2e_" + std::to_string(getpid()));
        std::filesystem::create_directories(d);
        return d;
    }();
    return dir;
}

std::string make_image(const std::string& name, UINT32 major, UINT32 minor, UINT32 build, UINT32 vcs_id, bool corrupt)
{
    kavo_sim::image_version v;
    v.major = major;
    v.minor = minor;
    v.build = build;
    v.vcs_id = vcs_id;
    const std::string path = scratch_dir() + "/" + name;
    EXPECT_TRUE(kavo_sim::image_write(path.c_str(), v, corrupt)) << path;
    return path;
}

VELT_ERROR ping(UINT32 id, UINT32 value)
{
    UINT32 back = 0;
    VELT_ERROR rc = kavo_debug_ping(id, 4, &value, &back);
    if (rc == VELT_SUCCESS && back != value) return VELT_ERR_FAIL;
    return rc;
}

UINT32 requests_of(UINT32 id, UINT32 operation)
{
    UINT32 n = 0;
    for (const auto& e : kavo_sim::chip_get(id)->journal().events)
        if (e.kind == kavo_sim::event_kind::request && e.operation == operation) ++n;
    return n;
}

std::vector<std::string> bus_sequence(UINT32 id)
{
    std::vector<std::string> out;
    char text[64];
    for (const auto& e : kavo_sim::chip_get(id)->journal().events) {
        switch (e.kind) {
        case kavo_sim::event_kind::reg_read: std::snprintf(text, sizeof(text), "r %x", e.address); break;
        case kavo_sim::event_kind::reg_write: std::snprintf(text, sizeof(text), "w %x %x", e.address, e.value); break;
        case kavo_sim::event_kind::burst_read: std::snprintf(text, sizeof(text), "br %x %x", e.address, e.value); break;
        case kavo_sim::event_kind::burst_write: std::snprintf(text, sizeof(text), "bw %x %x", e.address, e.value); break;
        default: continue;
        }
        out.push_back(text);
    }
    return out;
}

std::string last_request_text(UINT32 id)
{
    const kavo_sim::chip* chip = kavo_sim::chip_get(id);
    const UINT32 size = chip->ram_peek(VELT_SHARED_MEMORY_HTL_REQUEST_ADDR + 28);
    std::string text;
    for (UINT32 at = 0; at < size && at < 256; at += 4) {
        UINT32 word = chip->ram_peek(VELT_SHARED_MEMORY_HTL_REQUEST_ADDR + KAVO_HTL_HEADER_SIZE + at);
        for (int b = 0; b < 4; ++b) text.push_back((char)((word >> (8 * b)) & 0xFF));
    }
    return std::string(text.c_str());
}

void device_test::SetUp()
{
    for (UINT32 id = 0; id < KAVO_MAX_DEVICES; ++id)
        if (kavo_device_find(id) != nullptr) kavo_device_uninit(id);
    kavo_sim::chip_destroy_all();
    install_capture(kavo_sim::callouts()->qspi_callout_api_ctx);
    kavo_function_logging_set(0);
    kavo_status_logging_set(0);
    velt_option_warm_restart.value = 0;
    kavo_fw_filename_set((firmware_dir() + "/kavo_fw_app_revx.mem").c_str());
}

void device_test::TearDown()
{
    for (UINT32 id = 0; id < KAVO_MAX_DEVICES; ++id)
        if (kavo_device_find(id) != nullptr) kavo_device_uninit(id);
    kavo_sim::chip_destroy_all();
    kavo_function_logging_set(1);
    take();
}

VELT_ERROR device_test::bring_up(UINT32 id, kavo_init_type_t init, const kavo_sim::chip_config& cfg)
{
    VELT_ERROR rc = kavo_sim::chip_create(id, cfg);
    if (rc != VELT_SUCCESS) return rc;
    return kavo_device_init(id, init);
}

}  // namespace kavo_test
