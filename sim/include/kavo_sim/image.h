/* Firmware image files of the virtual kavo chip: a 64-byte kavo_fw_hdr_t and
   the image that is downloaded to RAM address 0. The image starts with the
   firmware's own payload header, which the firmware checks before it runs. */
#ifndef KAVO_SIM_IMAGE_H
#define KAVO_SIM_IMAGE_H

#include <string>
#include <vector>

#include "kavo/kavo_api.h"
#include "kavo_sim/gen/kavo_sim_types.h"

namespace kavo_sim {

// device_rev of an image: which chip revision it runs on.
constexpr UINT32 IMAGE_REV_ANY = 0;
constexpr UINT32 IMAGE_REV_A = 0xA;
constexpr UINT32 IMAGE_REV_B = 0xB;

// Payload header, at RAM address 0 once downloaded (word offsets).
constexpr UINT32 PAYLOAD_MAGIC = 0x4B41564F;
constexpr UINT32 PAYLOAD_FORMAT = 1;
constexpr UINT32 PAYLOAD_HEADER_SIZE = 32;
constexpr UINT32 PAYLOAD_MAX_BODY = 0x340000 - PAYLOAD_HEADER_SIZE; // the shared block follows
namespace payload {
constexpr UINT32 MAGIC = 0, FORMAT = 1, VERSION = 2, VCS_ID = 3, DEVICE_REV = 4, BODY_SIZE = 5, BODY_CRC = 6;
}
constexpr UINT32 IMAGE_HEADER_REV = 1;

struct image_version {
    UINT32 major = 3, minor = 0, build = 2, vcs_id = 1, device_rev = 0;
    UINT32 body_size = 65536; // bytes of firmware body after the payload header, a multiple of 4
};

/* The version word the firmware publishes: major bits 27..20, minor 19..12,
   build 7..0. */
constexpr UINT32 version_word(UINT32 major, UINT32 minor, UINT32 build)
{
    return ((major & 0xFF) << 20) | ((minor & 0xFF) << 12) | (build & 0xFF);
}

UINT32 crc32(const void* data, size_t length, UINT32 crc = 0);

/* The whole file: header and image. corrupt flips a body byte after the
   checksums are taken, so the firmware refuses it. */
std::vector<UINT8> image_build(const image_version& v, bool corrupt = false);
bool image_write(const char* path, const image_version& v, bool corrupt = false);

/* A 32-bit number in decimal or 0x hexadecimal, for the tools' arguments;
   false when malformed, negative or out of range. */
bool parse_u32(const char* text, UINT32& value);
/* "3.0.2" into major, minor and build (each 0..255); false when malformed. */
bool image_version_parse(const char* text, image_version& v);
/* "any", "revx", "reva" or "revb" into a device_rev; false otherwise. */
bool image_rev_parse(const char* text, UINT32& device_rev);
/* The options of `create FILE [--version M.m.b] [--vcs N] [--rev any|reva|revb]
   [--body BYTES] [--corrupt]` after the file name, as kavo-mkimage and kavoctl
   take them. False with the reason in `why` ("unknown option X", "bad value
   for X") when one is wrong. */
bool image_create_parse(const std::vector<std::string>& options, image_version& v, bool& corrupt, std::string& why);

/* What a file holds, decoded on its own terms. */
struct image_info {
    bool readable = false;       // the file opened and holds a 64-byte header
    kavo_fw_hdr_t header;        // as stored
    UINT32 file_image_bytes = 0; // bytes after the header
    bool header_crc_ok = false;  // image_crc matches the image
    bool size_ok = false;        // image_size matches and is a multiple of 4
    bool payload_ok = false;     // payload header sane and body checksum right
    UINT32 payload_version = 0;  // version word in the payload header
    UINT32 payload_vcs_id = 0;
    UINT32 payload_device_rev = 0;
    std::string problem; // first thing wrong, empty when all is well
};
image_info image_inspect(const std::vector<UINT8>& file);
/* A file that is not a regular file, or larger than any image can be, is
   refused unread (problem "not a regular file", "larger than any image"). */
image_info image_inspect_file(const char* path);
/* The largest file an image can be: the header and the RAM below the shared block. */
constexpr UINT64 IMAGE_FILE_MAX = KAVO_FW_HDR_SIZE + 0x340000ull;
/* A few lines of text describing the file, for kavo-mkimage and kavoctl. */
std::string image_describe(const image_info& info);

/* The check the firmware makes on the image in its RAM: null when it may run
   on a chip of this revision code, else the reason in words. */
const char* payload_check(const UINT32* ram_words, UINT32 ram_word_count, UINT32 revision_code);

} // namespace kavo_sim

#endif
