#include "fw/firmware.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <vector>

#include "kavo_sim/image.h"

namespace kavo_sim::fw {
namespace {

constexpr UINT32 BLOCK = map::LOG_BLOCK;
constexpr UINT32 REQUEST_MAX_DATA = map::REQUEST_SIZE - map::HEADER_SIZE;
constexpr UINT32 ALIGN = 32;
constexpr UINT32 WATCHDOG_PERIOD_MS = 1000;
constexpr UINT32 align_up(UINT32 v) { return (v + ALIGN - 1) / ALIGN * ALIGN; }

// Stats names of the families, by operation / 0x100.
constexpr const char* FAMILY_NAMES[] = {"device", "ilkn",         "enet",   "macsec",    "serdes",  "pmon",
                                        "defect", "enet_runtime", "switch", "debug",     "pgmrclk", nullptr,
                                        "hmux",   nullptr,        "ptp",    "flexe_ohp", "pe"};
constexpr UINT32 NUM_FAMILIES = sizeof(FAMILY_NAMES) / sizeof(FAMILY_NAMES[0]);

std::vector<handler> build_dispatch_table()
{
    std::vector<handler> table;
    for (auto family : {device_handlers(), debug_handlers(), datapath_handlers(), macsec_handlers(),
                        defect_handlers(), serdes_handlers(), flexe_handlers(), ilkn_handlers(), ptp_handlers(),
                        pmon_handlers(), mux_handlers(), pe_handlers(), pgmrclk_handlers()})
        table.insert(table.end(), family.begin(), family.end());
    std::sort(table.begin(), table.end(), [](const handler& a, const handler& b) { return a.operation < b.operation; });
    return table;
}

const handler* find_handler(UINT32 operation)
{
    static const std::vector<handler> table = build_dispatch_table();
    auto it = std::lower_bound(table.begin(), table.end(), operation,
                               [](const handler& h, UINT32 op) { return h.operation < op; });
    return it != table.end() && it->operation == operation ? &*it : nullptr;
}

} // namespace

void reply::text(const char* s)
{
    const size_t n = std::strlen(s) + 1;
    data.assign((n + 3) / 4 * 4, 0);
    std::memcpy(data.data(), s, n);
}

firmware::firmware(chip_state& c) : chip(c) {}

UINT32 firmware::log_entries(log_id which)
{
    switch (which) {
    case log_id::main:
        return 512;
    case log_id::htl:
        return 1024;
    default:
        return 512;
    }
}

const char* firmware::log_name(log_id which)
{
    switch (which) {
    case log_id::main:
        return "main";
    case log_id::htl:
        return "htl";
    default:
        return "cmd";
    }
}

UINT32 firmware::descriptor_offset(log_id which) const { return map::log::DBG_LOG_BUFFERS + UINT32(which) * DESC_SIZE; }

UINT32 firmware::stats_offset() const { return align_up(descriptor_offset(log_id::count)); }

UINT32 firmware::log_entries_offset(log_id which) const
{
    UINT32 off = align_up(stats_offset() + NUM_STATS * map::log::STATS_RECORD_SIZE);
    for (UINT32 i = 0; i < UINT32(which); ++i)
        off += log_entries(log_id(i)) * map::log::ENTRY_SIZE;
    return off;
}

UINT32 firmware::up_time_seconds() const { return UINT32((chip.ticks() - start_ticks_) / map::log::TICKS_PER_SECOND); }

void firmware::lay_out_log_block()
{
    namespace L = map::log;
    static_assert(L::DBG_LOG_BUFFERS + L::DBG_LOG_BUFFERS_SIZE == L::BLOCK_SIZE);
    // Invalidate first so that a reader never trusts a half-built block.
    chip.put(BLOCK + L::CONSOLE_COOKIE, 0);
    chip.put(BLOCK + L::STATS_COOKIE, 0);
    chip.put(BLOCK + L::DBG_LOG_COOKIE, 0);
    static_assert(BLOCK % 4 == 0 && L::BLOCK_SIZE % 4 == 0);
    chip.ram.zero(BLOCK / 4, L::BLOCK_SIZE / 4); // pages nobody writes stay unbacked

    chip.put(BLOCK + L::CONSOLE_BUFFER_SIZE, L::CONSOLE_WORDS * 4);
    chip.put(BLOCK + L::CONSOLE_BUFFER_OFFSET, L::CONSOLE_BUFFER);
    console_.init(chip.words(BLOCK + L::CONSOLE_WRITE_INDEX), chip.words(BLOCK + L::CONSOLE_WRAP_COUNT),
                  chip.words(BLOCK + L::CONSOLE_BUFFER), L::CONSOLE_WORDS);

    chip.put(BLOCK + L::STATS_NUM, NUM_STATS);
    chip.put(BLOCK + L::STATS_REC_SIZE, L::STATS_RECORD_SIZE);
    chip.put(BLOCK + L::STATS_OFFSET, stats_offset());
    stats_.init(chip.bytes(BLOCK + stats_offset()), NUM_STATS);
    stats_.name(STAT_REQUEST, "htl_request");
    stats_.name(STAT_PAYLOAD_WORDS, "ihtl_request_words");
    stats_.name(STAT_BOOT, "boot");
    char name[32];
    for (UINT32 f = 0; f < NUM_FAMILIES && STAT_FAMILY + f < NUM_STATS; ++f) {
        if (!FAMILY_NAMES[f]) continue;
        std::snprintf(name, sizeof(name), "htl_%s", FAMILY_NAMES[f]);
        stats_.name(STAT_FAMILY + f, name);
    }

    chip.put(BLOCK + L::DBG_LOG_INFO_NUM, NUM_DBG_LOGS);
    chip.put(BLOCK + L::DBG_LOG_INFO_REC_SIZE, DESC_SIZE);
    chip.put(BLOCK + L::DBG_LOG_INFO_OFFSET, descriptor_offset(log_id::main));
    for (UINT32 i = 0; i < NUM_DBG_LOGS; ++i) {
        const auto which = log_id(i);
        UINT8* d = chip.bytes(BLOCK + descriptor_offset(which));
        std::strncpy(reinterpret_cast<char*>(d + L::DESC_NAME), log_name(which), L::DESC_NAME_SIZE - 1);
        const UINT32 entries = log_entries(which), offset = log_entries_offset(which);
        std::memcpy(d + L::DESC_ENTRIES, &entries, 4);
        std::memcpy(d + L::DESC_OFFSET, &offset, 4);
        logs_[i].init(d, chip.bytes(BLOCK + offset), entries);
    }
    // No function log in this firmware: its cookie stays 0.
    chip.put(BLOCK + L::CONSOLE_COOKIE, L::CONSOLE_COOKIE_VALUE);
    chip.put(BLOCK + L::STATS_COOKIE, L::STATS_COOKIE_VALUE);
    chip.put(BLOCK + L::DBG_LOG_COOKIE, L::DBG_LOG_COOKIE_VALUE);
    laid_out_ = true;
}

bool firmware::start()
{
    running_ = false;
    restart_requested_ = false;
    const UINT64 t0 = chip.ticks();
    if (payload_check(chip.ram.data(), UINT32(chip.ram.size()), chip.cfg.revision_code)) return false;
    version_ = chip.word(4 * payload::VERSION);
    vcs_id_ = chip.word(4 * payload::VCS_ID);
    const UINT32 boot_arg = chip.regs.app_scratch[map::BOOT_ARG_SCRATCH];
    start_ticks_ = t0;
    device = device_state{};
    // Rebuilt in place: a temporary of the models would cost a copy of them.
    std::destroy_at(&model);
    std::construct_at(&model);
    verbosity = VELT_LOG_SEV_EVENT;

    chip.put(map::VERSION_WORDS, version_);
    chip.put(map::VERSION_WORDS + 4, vcs_id_);
    lay_out_log_block();

    const UINT32 boots = (chip.regs.boot_info & 0xFFFF) == 0xFFFF ? 1 : (chip.regs.boot_info & 0xFFFF) + 1;
    console("kavo firmware %u.%u.%u (vcs %u) on device 0x%x rev %c, device id %u\n", (version_ >> 20) & 0xFF,
            (version_ >> 12) & 0xFF, version_ & 0xFF, vcs_id_, chip.cfg.device_code & 0xFFFF,
            chip.cfg.revision_code ? 'B' : 'A', chip.device_id);
    const char* kind = boot_arg == 0                    ? "cold start"
                       : boot_arg == map::WARM_BOOT_ARG ? "warm start"
                       : boot_arg == map::FW_STARTED    ? "restart"
                                                        : "unknown";
    console("boot argument 0x%08x: %s, boot %u\n", boot_arg, kind, boots);
    log(log_id::main, TOP_LOG_DEBUG, boot_arg, boots, __LINE__);
    log(log_id::main, WDOG_LOG_WATCHDOG_START, WATCHDOG_PERIOD_MS, 0, __LINE__);
    log(log_id::main, STATS_LOG_TASK_START, NUM_STATS, 0, __LINE__);

    chip.put(map::DEVICE_STATUS, map::DEVICE_STATUS_RUNNING);
    chip.regs.boot_info = boots;
    chip.regs.app_scratch[map::BOOT_ARG_SCRATCH] = map::FW_STARTED;
    chip.regs.ipi[0] = 1; // the mailbox is the host's
    running_ = true;
    stats_.start(STAT_BOOT, UINT32(t0));
    stats_.end(STAT_BOOT, UINT32(chip.ticks()));
    console("ready\n");
    return true;
}

void firmware::vconsole(const char* format, va_list args)
{
    if (!laid_out_) return;
    char line[1024];
    int n = std::vsnprintf(line, sizeof(line), format, args);
    if (n <= 0) return;
    console_.write_char_data(line, std::min<size_t>(size_t(n), sizeof(line) - 1));
}

void firmware::console(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    vconsole(format, args);
    va_end(args);
}

void firmware::log(log_id which, UINT32 code, UINT32 d0, UINT32 d1, UINT32 line)
{
    if (!laid_out_) return;
    // pc: an address inside the image, derived from the source line.
    const UINT32 pc = line ? PAYLOAD_HEADER_SIZE + line * 16 : 0;
    logs_[UINT32(which)].write(chip.ticks(), UINT16(code), d0, d1, line, pc, 0);
}

void firmware::log_text(log_id which, const char* text)
{
    if (!laid_out_) return;
    // 20 characters per entry: one USER_LOG entry, or START, CONT..., END.
    const size_t n = std::strlen(text);
    const UINT64 ticks = chip.ticks();
    for (size_t at = 0; at < n || at == 0; at += 20) {
        UINT32 d[5] = {};
        std::memcpy(d, text + at, std::min<size_t>(20, n - at));
        UINT16 code = DBG_LOG_USER_LOG;
        if (n > 20)
            code = at == 0 ? DBG_LOG_ERROR_LOG_START : at + 20 >= n ? DBG_LOG_ERROR_LOG_END : DBG_LOG_ERROR_LOG_CONT;
        logs_[UINT32(which)].write(ticks, code, d[0], d[1], d[2], d[3], d[4]);
        if (n == 0) break;
    }
}

void firmware::serve(outcome& out)
{
    const UINT32 t0 = UINT32(chip.ticks());
    stats_.start(STAT_REQUEST, t0);

    request req;
    chip.read_bytes(map::REQUEST, out.request, sizeof(out.request));
    req.device_id = out.request[0];
    req.sequence_num = out.request[1];
    req.operation = out.request[2];
    std::memcpy(static_cast<void*>(&req.info), &out.request[3], sizeof(req.info));
    req.data_size = out.request[7];
    log(log_id::htl, HTL_LOG_CODE_DEBUG, req.operation, req.sequence_num, __LINE__);

    advance();
    reply rep;
    const UINT32 family = req.operation >> 8;
    if (req.device_id != chip.device_id || req.data_size > REQUEST_MAX_DATA) {
        rep.result = HTL_ERR_DEVICE_REQUEST_INVALID;
        console("request %u refused: device id %u, data size %u\n", req.sequence_num, req.device_id, req.data_size);
    } else if (const handler* h = find_handler(req.operation)) {
        req.data.resize(req.data_size);
        chip.read_bytes(map::REQUEST + map::HEADER_SIZE, req.data.data(), req.data_size);
        stats_.count(STAT_PAYLOAD_WORDS, t0, req.data_size / 4);
        if (family < NUM_FAMILIES) stats_.start(STAT_FAMILY + family, t0);
        if (verbosity >= VELT_LOG_SEV_LOW) console("request %u: %s\n", req.sequence_num, h->name);
        h->fn(*this, req, rep);
        if (family < NUM_FAMILIES) stats_.end(STAT_FAMILY + family, UINT32(chip.ticks()));
    } else {
        rep.result = KAVO_ERR_FW_REQUEST_UNKNOWN;
        console("unknown operation 0x%x in request %u\n", req.operation, req.sequence_num);
    }
    if (rep.result != VELT_SUCCESS) log(log_id::htl, DBG_LOG_RUNTIME_ERROR_LOG, rep.result, req.operation, __LINE__);

    // The response mailbox holds at most its size less the header.
    if (rep.data.size() > map::RESPONSE_SIZE - map::HEADER_SIZE) rep.data.resize(map::RESPONSE_SIZE - map::HEADER_SIZE);
    out.header[0] = req.device_id;
    out.header[1] = req.sequence_num;
    out.header[2] = req.operation;
    out.header[3] = rep.result;
    out.header[4] = rep.mode;
    out.header[5] = rep.value;
    out.header[6] = rep.value2;
    out.header[7] = UINT32(rep.data.size());
    out.data = std::move(rep.data);
    out.restart = restart_requested_;
    restart_requested_ = false;
    stats_.end(STAT_REQUEST, UINT32(chip.ticks()));
}

void firmware::advance()
{
    const UINT64 now = now_us();
    model.advance(*this, now);
}

bool firmware::corrupt(sim_fault_t what, UINT32 arg)
{
    namespace L = map::log;
    if (!laid_out_) return false;
    switch (what) {
    case SIM_FAULT_CORRUPT_CONSOLE_COOKIE:
        chip.put(BLOCK + L::CONSOLE_COOKIE, arg);
        return true;
    case SIM_FAULT_CORRUPT_STATS_COOKIE:
        chip.put(BLOCK + L::STATS_COOKIE, arg);
        return true;
    case SIM_FAULT_CORRUPT_DBG_LOG_COOKIE:
        chip.put(BLOCK + L::DBG_LOG_COOKIE, arg);
        return true;
    case SIM_FAULT_CORRUPT_CONSOLE_RING:
        if (arg == 0) {
            // Text where the first record's separator belongs.
            chip.put(BLOCK + L::CONSOLE_BUFFER, 0x21212121);
        } else {
            chip.put(BLOCK + L::CONSOLE_WRITE_INDEX, L::CONSOLE_WORDS + arg);
        }
        return true;
    case SIM_FAULT_CORRUPT_DBG_LOG_INDEX: {
        if (arg >= NUM_DBG_LOGS) return false;
        const UINT32 bad = log_entries(log_id(arg)) + 7;
        chip.put(BLOCK + descriptor_offset(log_id(arg)) + L::DESC_WRITE_INDEX, bad);
        return true;
    }
    default:
        return false;
    }
}

} // namespace kavo_sim::fw
