// Firmware image files: building, writing, inspecting, and the payload check
// the firmware runs on the image in its RAM.
#include "kavo_sim/image.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>

#include <array>
#include <cstdio>
#include <cstring>

namespace kavo_sim {
namespace {

/* Tables of the reflected CRC-32 (polynomial 0xEDB88320) for eight bytes a
   step: table k gives the CRC of a byte followed by k zero bytes. */
using crc_tables = std::array<std::array<UINT32, 256>, 8>;
crc_tables make_crc_tables()
{
    crc_tables t{};
    for (UINT32 i = 0; i < 256; ++i) {
        UINT32 c = i;
        for (int k = 0; k < 8; ++k)
            c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
        t[0][i] = c;
    }
    for (UINT32 i = 0; i < 256; ++i)
        for (size_t k = 1; k < 8; ++k)
            t[k][i] = (t[k - 1][i] >> 8) ^ t[0][t[k - 1][i] & 0xFF];
    return t;
}

void store_word(UINT8* p, UINT32 w) { std::memcpy(p, &w, 4); }

const char* rev_name(UINT32 rev)
{
    switch (rev) {
    case IMAGE_REV_ANY:
        return "any";
    case IMAGE_REV_A:
        return "reva";
    case IMAGE_REV_B:
        return "revb";
    default:
        return "unknown";
    }
}

} // namespace

UINT32 crc32(const void* data, size_t length, UINT32 crc)
{
    static const crc_tables t = make_crc_tables();
    const auto* p = static_cast<const UINT8*>(data);
    crc = ~crc;
    for (; length >= 8; length -= 8, p += 8) {
        UINT32 lo, hi;
        std::memcpy(&lo, p, 4);
        std::memcpy(&hi, p + 4, 4);
        lo ^= crc;
        crc = t[7][lo & 0xFF] ^ t[6][(lo >> 8) & 0xFF] ^ t[5][(lo >> 16) & 0xFF] ^ t[4][lo >> 24] ^
              t[3][hi & 0xFF] ^ t[2][(hi >> 8) & 0xFF] ^ t[1][(hi >> 16) & 0xFF] ^ t[0][hi >> 24];
    }
    for (; length > 0; --length, ++p)
        crc = t[0][(crc ^ *p) & 0xFF] ^ (crc >> 8);
    return ~crc;
}

std::vector<UINT8> image_build(const image_version& v, bool corrupt)
{
    const UINT32 body = v.body_size & ~3u;
    const UINT32 image_bytes = PAYLOAD_HEADER_SIZE + body;
    std::vector<UINT8> file(KAVO_FW_HDR_SIZE + image_bytes, 0);
    UINT8* image = file.data() + KAVO_FW_HDR_SIZE;

    // Body: deterministic filler standing in for code, different per version.
    UINT32 x = version_word(v.major, v.minor, v.build) ^ (v.vcs_id * 0x9E3779B9u) ^ 0xA5A5A5A5u;
    if (x == 0) x = 1;
    for (UINT32 off = 0; off < body; off += 4) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        store_word(image + PAYLOAD_HEADER_SIZE + off, x);
    }
    UINT8* ph = image;
    store_word(ph + 4 * payload::MAGIC, PAYLOAD_MAGIC);
    store_word(ph + 4 * payload::FORMAT, PAYLOAD_FORMAT);
    store_word(ph + 4 * payload::VERSION, version_word(v.major, v.minor, v.build));
    store_word(ph + 4 * payload::VCS_ID, v.vcs_id);
    store_word(ph + 4 * payload::DEVICE_REV, v.device_rev);
    store_word(ph + 4 * payload::BODY_SIZE, body);
    store_word(ph + 4 * payload::BODY_CRC, crc32(image + PAYLOAD_HEADER_SIZE, body));

    kavo_fw_hdr_t hdr;
    hdr.header_rev = IMAGE_HEADER_REV;
    hdr.device_rev = v.device_rev;
    hdr.image_crc = crc32(image, image_bytes);
    hdr.image_size = image_bytes;
    hdr.vcs_id = v.vcs_id;
    hdr.fw_major_num = v.major;
    hdr.fw_minor_num = v.minor;
    hdr.fw_build_num = v.build;
    std::memcpy(file.data(), &hdr, sizeof(hdr));

    if (corrupt) {
        // Without a body, spoil the payload magic instead.
        const size_t at = body ? KAVO_FW_HDR_SIZE + PAYLOAD_HEADER_SIZE + body / 2 : KAVO_FW_HDR_SIZE;
        file[at] ^= 0x5A;
    }
    return file;
}

bool image_write(const char* path, const image_version& v, bool corrupt)
{
    const std::vector<UINT8> file = image_build(v, corrupt);
    FILE* f = std::fopen(path, "wb");
    if (!f) return false;
    const bool ok = std::fwrite(file.data(), 1, file.size(), f) == file.size();
    return std::fclose(f) == 0 && ok;
}

const char* payload_check(const UINT32* ram, UINT32 ram_words, UINT32 revision_code)
{
    if (ram_words < PAYLOAD_HEADER_SIZE / 4) return "RAM too small";
    if (ram[payload::MAGIC] != PAYLOAD_MAGIC) return "bad magic";
    if (ram[payload::FORMAT] != PAYLOAD_FORMAT) return "unknown payload format";
    const UINT32 body = ram[payload::BODY_SIZE];
    if (body % 4 != 0 || body > PAYLOAD_MAX_BODY || body / 4 > ram_words - PAYLOAD_HEADER_SIZE / 4)
        return "bad body size";
    if ((ram[payload::VERSION] & 0xF0000F00u) != 0) return "bad version word";
    const UINT32 rev = ram[payload::DEVICE_REV];
    if (rev != IMAGE_REV_ANY && rev != IMAGE_REV_A && rev != IMAGE_REV_B) return "unknown device revision";
    if ((rev == IMAGE_REV_A && revision_code != 0) || (rev == IMAGE_REV_B && revision_code == 0))
        return "built for another chip revision";
    if (crc32(ram + PAYLOAD_HEADER_SIZE / 4, body) != ram[payload::BODY_CRC]) return "body checksum mismatch";
    return nullptr;
}

bool image_version_parse(const char* text, image_version& v)
{
    unsigned major = 0, minor = 0, build = 0;
    char tail = 0;
    if (!text || std::sscanf(text, "%u.%u.%u%c", &major, &minor, &build, &tail) != 3) return false;
    if (major > 255 || minor > 255 || build > 255) return false;
    v.major = major;
    v.minor = minor;
    v.build = build;
    return true;
}

bool image_rev_parse(const char* text, UINT32& device_rev)
{
    if (!text) return false;
    const std::string t = text;
    if (t == "any" || t == "revx")
        device_rev = IMAGE_REV_ANY;
    else if (t == "reva")
        device_rev = IMAGE_REV_A;
    else if (t == "revb")
        device_rev = IMAGE_REV_B;
    else
        return false;
    return true;
}

bool image_create_parse(const std::vector<std::string>& options, image_version& v, bool& corrupt, std::string& why)
{
    for (size_t i = 0; i < options.size(); ++i) {
        const std::string& opt = options[i];
        const char* val = i + 1 < options.size() ? options[i + 1].c_str() : nullptr;
        bool ok = true;
        if (opt == "--corrupt") {
            corrupt = true;
            continue;
        } else if (opt == "--version") {
            ok = image_version_parse(val, v);
        } else if (opt == "--vcs") {
            ok = parse_u32(val, v.vcs_id);
        } else if (opt == "--rev") {
            ok = image_rev_parse(val, v.device_rev);
        } else if (opt == "--body") {
            ok = parse_u32(val, v.body_size) && v.body_size % 4 == 0 && v.body_size <= PAYLOAD_MAX_BODY;
        } else {
            why = "unknown option " + opt;
            return false;
        }
        if (!ok) {
            why = "bad value for " + opt;
            return false;
        }
        ++i;
    }
    return true;
}

image_info image_inspect(const std::vector<UINT8>& file)
{
    image_info info;
    if (file.size() < KAVO_FW_HDR_SIZE) {
        info.problem = "shorter than the 64-byte header";
        return info;
    }
    info.readable = true;
    std::memcpy(&info.header, file.data(), sizeof(info.header));
    const UINT8* image = file.data() + KAVO_FW_HDR_SIZE;
    info.file_image_bytes = UINT32(file.size() - KAVO_FW_HDR_SIZE);
    info.header_crc_ok = crc32(image, info.file_image_bytes) == info.header.image_crc;
    info.size_ok = info.header.image_size == info.file_image_bytes && info.file_image_bytes % 4 == 0;

    const char* why = "image shorter than the payload header";
    if (info.file_image_bytes >= PAYLOAD_HEADER_SIZE && info.file_image_bytes % 4 == 0) {
        std::vector<UINT32> words(info.file_image_bytes / 4);
        std::memcpy(words.data(), image, info.file_image_bytes);
        info.payload_version = words[payload::VERSION];
        info.payload_vcs_id = words[payload::VCS_ID];
        info.payload_device_rev = words[payload::DEVICE_REV];
        // Any revision code passes when the image names none; otherwise check
        // against the revision it names.
        const UINT32 rev_code = info.payload_device_rev == IMAGE_REV_B ? 1 : 0;
        why = payload_check(words.data(), UINT32(words.size()), rev_code);
        if (!why && words[payload::BODY_SIZE] + PAYLOAD_HEADER_SIZE != info.file_image_bytes)
            why = "body size disagrees with the file";
        if (!why && info.payload_version !=
                        version_word(info.header.fw_major_num, info.header.fw_minor_num, info.header.fw_build_num))
            why = "payload version disagrees with the header";
    } else if (info.file_image_bytes % 4 != 0) {
        why = "image length not a multiple of 4";
    }
    info.payload_ok = why == nullptr;
    if (!info.size_ok)
        info.problem = "image_size disagrees with the file";
    else if (!info.header_crc_ok)
        info.problem = "image_crc mismatch";
    else if (why)
        info.problem = why;
    return info;
}

image_info image_inspect_file(const char* path)
{
    std::vector<UINT8> data;
    // A directory, a device or a pipe would read as nothing or never end.
    struct stat st;
    if (path && ::stat(path, &st) == 0 && (!S_ISREG(st.st_mode) || UINT64(st.st_size) > IMAGE_FILE_MAX)) {
        image_info refused;
        refused.problem = S_ISREG(st.st_mode) ? "larger than any image" : "not a regular file";
        return refused;
    }
    FILE* f = path ? std::fopen(path, "rb") : nullptr;
    if (!f) {
        image_info info;
        info.problem = "cannot open file";
        return info;
    }
    UINT8 chunk[4096];
    size_t n;
    while ((n = std::fread(chunk, 1, sizeof(chunk), f)) > 0)
        data.insert(data.end(), chunk, chunk + n);
    std::fclose(f);
    return image_inspect(data);
}

std::string image_describe(const image_info& info)
{
    char text[1024];
    if (!info.readable) {
        std::snprintf(text, sizeof(text), "not a firmware image: %s\n", info.problem.c_str());
        return text;
    }
    const kavo_fw_hdr_t& h = info.header;
    std::snprintf(text, sizeof(text),
                  "header_rev   %u\n"
                  "device_rev   0x%x (%s)\n"
                  "version      %u_%u_%u_%u\n"
                  "image_size   %u (%u in file)\n"
                  "image_crc    0x%08x (%s)\n"
                  "payload      %s\n"
                  "status       %s\n",
                  h.header_rev, h.device_rev, rev_name(h.device_rev), h.fw_major_num, h.fw_minor_num, h.fw_build_num,
                  h.vcs_id, h.image_size, info.file_image_bytes, h.image_crc, info.header_crc_ok ? "ok" : "mismatch",
                  info.payload_ok ? "ok" : "bad", info.problem.empty() ? "ok" : info.problem.c_str());
    return text;
}

bool parse_u32(const char* text, UINT32& value)
{
    if (text == nullptr || *text == '\0' || *text == '-') return false;
    errno = 0;
    char* end = nullptr;
    const unsigned long v = std::strtoul(text, &end, 0);
    if (errno != 0 || *end != '\0' || v > 0xFFFFFFFFul) return false;
    value = UINT32(v);
    return true;
}

} // namespace kavo_sim
