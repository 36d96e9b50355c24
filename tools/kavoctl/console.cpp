// The firmware console's lines that are new since kavoctl last looked at the
// chip. The library's own console view follows the ring within one process;
// a chip served by kavo-simd outlives kavoctl's processes, so kavoctl keeps
// its position in a small file per daemon socket and chip, and checks on the
// next call that the firmware has not restarted since (BOOT_INFO) and that the
// ring still holds the last record it showed; otherwise every line is new.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "kavo_sim/image.h"
#include "kavoctl.h"

namespace kavoctl {
namespace {

// The console ring in the chip's log-buffer block.
constexpr UINT32 LOG_BLOCK = 0x354004;
constexpr UINT32 COOKIE = 0xFACEF00D;
constexpr UINT32 WRAP_COUNT = LOG_BLOCK + 4, WRITE_INDEX = LOG_BLOCK + 8, RING = LOG_BLOCK + 68;
constexpr UINT32 RING_WORDS = 8192;
// BOOT_INFO, which the firmware sets as it starts: a restart changes it.
constexpr UINT32 BOOT_INFO = 0xF000F0;

struct reader {
    UINT32 device;
    bool failed = false;
    UINT32 word(UINT32 address)
    {
        UINT32 v = 0;
        if (kavo_reg_read(device, address, &v) != VELT_SUCCESS) failed = true;
        return v;
    }
    UINT32 ring(UINT32 index) { return word(RING + 4 * index); }
    UINT32 crc(UINT32 from, UINT32 to)
    {
        UINT32 c = 0;
        for (UINT32 i = from; i < to && i < RING_WORDS; ++i) {
            const UINT32 w = ring(i);
            c = kavo_sim::crc32(&w, 4, c);
        }
        return c;
    }
};

/* Where the position is kept for a chip behind a socket. */
std::string mark_file(const settings& s)
{
    const char* dir = std::getenv("XDG_RUNTIME_DIR");
    if (dir == nullptr || *dir == '\0') dir = "/tmp";
    // FNV-1a of the socket path: one file per daemon and chip.
    UINT32 h = 2166136261u;
    for (unsigned char c : s.socket_path) h = (h ^ c) * 16777619u;
    char name[96];
    std::snprintf(name, sizeof(name), "/kavoctl-console-%u-%08x-%u", unsigned(getuid()), h, s.device);
    return dir + std::string(name);
}

console_mark load_mark(const settings& s)
{
    console_mark m;
    if (s.socket_path.empty()) return m; // an in-process chip is new every time
    FILE* f = std::fopen(mark_file(s).c_str(), "r");
    if (f == nullptr) return m;
    m.valid = std::fscanf(f, "%u %u %u %u %u", &m.boot, &m.wrap, &m.index, &m.last_record, &m.last_crc) == 5;
    std::fclose(f);
    return m;
}

void save_mark(const settings& s, const console_mark& m)
{
    if (s.socket_path.empty()) return;
    const std::string path = mark_file(s), temp = path + ".new";
    FILE* f = std::fopen(temp.c_str(), "w");
    if (f == nullptr) return; // nothing lost but the position: the next call shows more
    std::fprintf(f, "%u %u %u %u %u\n", m.boot, m.wrap, m.index, m.last_record, m.last_crc);
    if (std::fclose(f) == 0) std::rename(temp.c_str(), path.c_str());
}

} // namespace

console_news console_read_new(const settings& s)
{
    console_news news;
    reader r{s.device};
    if (r.word(LOG_BLOCK) != COOKIE) {
        news.note = "the firmware console is not running";
        return news;
    }
    const UINT32 boot = r.word(BOOT_INFO) & 0xFFFF, wrap = r.word(WRAP_COUNT), end = r.word(WRITE_INDEX);
    if (end > RING_WORDS) {
        news.note = "the console's write index is beyond its ring";
        return news;
    }
    console_mark m = load_mark(s);
    const bool same_ring = m.valid && m.boot == boot && m.index <= RING_WORDS && m.last_record <= m.index &&
                           r.crc(m.last_record, m.index) == m.last_crc;
    UINT32 at = 0, lap = wrap;
    if (same_ring && m.wrap == wrap && m.index <= end) {
        at = m.index;
    } else if (same_ring && m.wrap + 1 == wrap) {
        at = m.index;
        lap = m.wrap;
    } else if (wrap > 0) {
        news.note = "older lines were overwritten";
    }
    std::string text;
    UINT32 last = same_ring ? m.last_record : at; // the last record shown, this time or before
    // Records: a zero separator, a count N, N words of text; N = 0 sends the writer back to 0.
    for (unsigned guard = 0; (lap != wrap || at != end) && guard < RING_WORDS && !r.failed; ++guard) {
        if (at + 2 > RING_WORDS || r.ring(at) != 0) {
            news.note = "the console ring is inconsistent";
            break;
        }
        const UINT32 n = r.ring(at + 1);
        if (n == 0) {
            if (lap == wrap) {
                news.note = "the console ring is inconsistent";
                break;
            }
            at = 0;
            ++lap;
            continue;
        }
        if (n > RING_WORDS - at - 2 || (lap == wrap && at + 2 + n > end)) {
            news.note = "the console ring is inconsistent";
            break;
        }
        for (UINT32 i = 0; i < n; ++i) {
            const UINT32 w = r.ring(at + 2 + i);
            for (int b = 0; b < 4; ++b) {
                const char c = char(w >> (8 * b));
                if (c == '\0') {
                    i = n; // the text ends here
                    break;
                }
                text += c;
            }
        }
        last = at;
        at += 2 + n;
    }
    if (r.failed) {
        news.note = "the console could not be read";
        return news;
    }
    for (size_t from = 0; from < text.size();) {
        const size_t nl = text.find('\n', from);
        const size_t stop = nl == std::string::npos ? text.size() : nl;
        news.lines.push_back(text.substr(from, stop - from));
        from = stop + 1;
    }
    if (at == end && lap == wrap) {
        const console_mark next{true, boot, wrap, end, last, r.crc(last, end)};
        save_mark(s, next);
    }
    return news;
}

} // namespace kavoctl
