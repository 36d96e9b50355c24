/* End-to-end fixture: virtual chips, the library's callouts pointed at them,
   firmware images of chosen versions in a scratch directory. */
#ifndef KAVO_TEST_DEVICE_H
#define KAVO_TEST_DEVICE_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kavo/kavo_api.h"
#include "kavo_sim/kavo_sim.h"

/* 1 when built under a sanitizer that holds freed memory back on purpose:
   resident memory is then the sanitizer's, not the program's, to judge (leaks
   are the sanitizer's to find). g++ and clang say so in different ways. */
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KAVO_TEST_MEMORY_TOOL 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define KAVO_TEST_MEMORY_TOOL 1
#endif
#endif
#ifndef KAVO_TEST_MEMORY_TOOL
#define KAVO_TEST_MEMORY_TOOL 0
#endif

namespace kavo_test {

/* Directory of the images the build produced (kavo_fw_app_revx.mem and its reva/revb names). */
std::string firmware_dir();
/* A program of the build (kavoctl, kavo-simd, ...) by its path from the build's
   sim/ directory, and a file of tests/types. Built by appending, so that no
   compiler sees the length of the build's own path at the call site. */
std::string tool_path(const char* relative);
std::string types_path(const std::string& name);
/* Writes an image of the given version into the scratch directory and returns its path. */
std::string make_image(const std::string& name, UINT32 major, UINT32 minor, UINT32 build, UINT32 vcs_id = 1,
                       bool corrupt = false);

/* Bus transactions of one exchange: the request's burst write, the
   read-modify-write clear of the reply indication (a read and a write), the
   doorbell's read and its clear, the ready check, the reply header's burst
   read; and one more burst read for a reply payload. */
constexpr UINT64 BUS_PER_COMMAND = 7;
constexpr UINT64 BUS_PER_COMMAND_WITH_PAYLOAD = BUS_PER_COMMAND + 1;

/* What a run of this build's kavoctl printed and its exit status. */
struct kavoctl_run {
    int status = -1;
    std::string output;
};
/* Runs kavoctl with args (a shell command line); its standard error joins the
   output unless with_stderr is false. */
kavoctl_run run_kavoctl(const std::string& args, bool with_stderr = true);

/* A one-word echo through the firmware; VELT_ERR_FAIL when the word comes back changed. */
VELT_ERROR ping(UINT32 id, UINT32 value = 0x5A5A5A5A);
inline bool has(const std::string& text, const char* part) { return text.find(part) != std::string::npos; }

/* Requests of one operation the chip has served since its journal was reset. */
UINT32 requests_of(UINT32 id, UINT32 operation);
/* The chip's bus transactions since its journal was last reset, one string
   each: "r ADDR" (a register read), "w ADDR VALUE", "br ADDR WORDS",
   "bw ADDR WORDS", hexadecimal without leading zeros. */
std::vector<std::string> bus_sequence(UINT32 id);

/* The payload of the last request in the chip's mailbox, as text. */
std::string last_request_text(UINT32 id);

/* Each test starts with no devices and no chips, the library's callouts on the
   in-process virtual device (printing captured), tracing off, the default image. */
class device_test : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;
    /* Creates chip `id` and brings device `id` up. */
    VELT_ERROR bring_up(UINT32 id, kavo_init_type_t init = KAVO_INIT_COLD, const kavo_sim::chip_config& cfg = {});
};

}  // namespace kavo_test

#endif
