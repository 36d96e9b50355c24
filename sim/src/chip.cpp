#include <algorithm>

#include "chip_impl.h"

namespace kavo_sim {
namespace {

constexpr UINT32 SHUTDOWN_PATTERN = 0x5EED5EED; // what a powered-down bank holds afterwards
constexpr UINT32 IPI_TEST_BIT = VELT_IPI_TEST;

bool in_array(UINT32 address, UINT32 base, UINT32 count, UINT32& index)
{
    if (address < base || address >= base + 4 * count) return false;
    index = (address - base) / 4;
    return true;
}

UINT32 banks_of(UINT32 address, UINT32 words)
{
    UINT32 mask = 0;
    const UINT32 last = address + 4 * words - 1;
    for (UINT32 b = address / map::RAM_BANK_SIZE; b <= last / map::RAM_BANK_SIZE; ++b)
        mask |= 1u << b;
    return mask;
}

} // namespace

chip_impl::chip_impl(UINT32 device_id, const chip_config& cfg) : st(device_id, cfg), fw(st)
{
    if (cfg.mode == exec_mode::threaded) worker_ = std::thread([this] { worker(); });
}

chip_impl::~chip_impl()
{
    if (worker_.joinable()) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            stop_ = true;
        }
        cv_.notify_all();
        worker_.join();
    }
}

void chip_impl::record(const journal_event& e)
{
    // The ring grows to its size with use: a short-lived chip keeps a short journal.
    if (next_event == events.size())
        events.push_back(e);
    else
        events[next_event] = e;
    if (++next_event == JOURNAL_EVENTS) {
        next_event = 0;
        events_wrapped = true;
    }
}

void chip_impl::record_bus(event_kind kind, UINT32 address, UINT32 value, UINT32 status)
{
    journal_event e;
    e.kind = kind;
    e.address = address;
    e.value = value;
    e.status = status;
    record(e);
    if (status != map::BUS_OK) ++counters.bus_errors;
}

UINT32 chip_impl::bus_fault(UINT32 address, UINT32 words)
{
    if (faults.bus_fail_nth != 0 && --faults.bus_fail_nth == 0)
        return faults.bus_fail_effect == bus_effect::silent ? BUS_SILENT : map::BUS_ERR_INJECTED;
    const UINT64 end = UINT64(address) + 4ull * std::max<UINT32>(words, 1);
    for (UINT32 a : faults.bus_fail_addresses)
        if (a >= address && a < end) return map::BUS_ERR_INJECTED;
    return map::BUS_OK;
}

UINT32 chip_impl::ram_check(UINT32 address, UINT32 words) const
{
    if (address % 4 != 0 || UINT64(address) + 4ull * words > map::RAM_SIZE) return map::BUS_ERR_DECODE;
    if (words && (banks_of(address, words) & (st.regs.ocr_unavail | st.regs.ocr_shutdown)))
        return map::BUS_ERR_RAM_OFFLINE;
    return map::BUS_OK;
}

UINT32 chip_impl::decode_read(UINT32 address, UINT32& value)
{
    if (address < map::RAM_SIZE) {
        const UINT32 s = ram_check(address, 1);
        if (s == map::BUS_OK) value = st.word(address);
        return s;
    }
    chip_registers& r = st.regs;
    UINT32 i = 0;
    switch (address) {
    case map::SW_RST_HOST_EN:
        value = r.sw_rst_host_en;
        return map::BUS_OK;
    case map::SW_RST_HOST_TRIG:
        value = r.host_reset ? 1 : 0;
        return map::BUS_OK;
    case map::CA53_CTRL4:
        value = r.ca53_ctrl4;
        return map::BUS_OK;
    case map::BOOT_INFO:
        value = r.boot_info;
        return map::BUS_OK;
    case map::DEVICE_ID:
        value = st.device_id_register();
        return map::BUS_OK;
    case map::OCR_UNAVAIL:
        value = r.ocr_unavail;
        return map::BUS_OK;
    case map::OCR_INIT_CTRL:
        value = r.ocr_init_ctrl;
        return map::BUS_OK;
    case map::OCR_INIT_STATUS:
        if (st.now_ns() >= r.ocr_init_done_ns) r.ocr_init_busy = 0;
        value = r.ocr_init_busy;
        return map::BUS_OK;
    case map::OCR_SHUTDOWN_CTRL:
        value = r.ocr_shutdown;
        return map::BUS_OK;
    case map::DCSU_POST_DIVIDER_UPDATE:
        value = r.dcsu_update;
        return map::BUS_OK;
    case map::DCSU_POST_DIVIDER_CFG_2:
        value = r.dcsu_cfg[0];
        return map::BUS_OK;
    case map::DCSU_POST_DIVIDER_CFG_3:
        value = r.dcsu_cfg[1];
        return map::BUS_OK;
    default:
        break;
    }
    if (in_array(address, map::APP_SCRATCH, map::APP_SCRATCH_COUNT, i)) {
        value = r.app_scratch[i];
    } else if (in_array(address, map::DEV_INTB_AGGR_SET, map::DEV_INTB_AGGR_SET_COUNT, i)) {
        value = r.dev_intb_aggr_set[i];
    } else if (in_array(address, map::INTER_PROCESSOR_INTS, map::INTER_PROCESSOR_INTS_COUNT, i)) {
        value = r.ipi[i];
    } else if (in_array(address, map::IPI2PCIE_INT, map::IPI2PCIE_GROUPS, i)) {
        // Timers and alarms that fell due meanwhile raise their interrupts now.
        if (state == SIM_FW_STATE_RUNNING) fw.advance();
        value = r.ipi2pcie_int[i];
    } else if (in_array(address, map::IPI2PCIE_INT_EN, map::IPI2PCIE_GROUPS, i)) {
        value = r.ipi2pcie_en[i];
    } else {
        return map::BUS_ERR_DECODE;
    }
    return map::BUS_OK;
}

UINT32 chip_impl::decode_write(UINT32 address, UINT32 value)
{
    if (address < map::RAM_SIZE) {
        const UINT32 s = ram_check(address, 1);
        if (s == map::BUS_OK) st.put(address, value);
        return s;
    }
    chip_registers& r = st.regs;
    UINT32 i = 0;
    switch (address) {
    case map::SW_RST_HOST_EN:
        r.sw_rst_host_en = value & map::SW_RST_HOST_EN_WRITABLE;
        return map::BUS_OK;
    case map::SW_RST_HOST_TRIG:
        if (value == map::RESET_MAGIC) {
            processor_reset();
            // With auto-clear the trigger is a pulse: the core reset still holds.
            r.host_reset = (r.sw_rst_host_en & map::SW_RST_HOST_AUTO_CLR_EN) == 0;
            r.ca53_ctrl4 = 1;
        } else if (value == 0) {
            r.host_reset = false;
            maybe_start();
        }
        return map::BUS_OK;
    case map::CA53_CTRL4:
        r.ca53_ctrl4 = value;
        if (value != 0) {
            if (state != SIM_FW_STATE_IN_RESET) processor_reset();
        } else {
            maybe_start();
        }
        return map::BUS_OK;
    case map::BOOT_INFO:
    case map::DEVICE_ID:
    case map::OCR_INIT_STATUS:
        return map::BUS_OK; // read-only
    case map::OCR_UNAVAIL:
        r.ocr_unavail = value & 0xFF;
        return map::BUS_OK;
    case map::OCR_INIT_CTRL: {
        // A rising enable bit clears its bank; the init then reads busy a little while.
        const UINT32 start = value & ~r.ocr_init_ctrl & ((1u << map::RAM_BANKS) - 1);
        for (UINT32 b = 0; b < map::RAM_BANKS; ++b)
            if (start & (1u << b))
                st.ram.zero(b * (map::RAM_BANK_SIZE / 4), map::RAM_BANK_SIZE / 4);
        if (start) {
            r.ocr_init_busy = start;
            r.ocr_init_done_ns = st.now_ns() + UINT64(st.cfg.ram_init_us) * 1000;
        }
        r.ocr_init_ctrl = value & 0xFF;
        return map::BUS_OK;
    }
    case map::OCR_SHUTDOWN_CTRL: {
        const UINT32 down = value & ~r.ocr_shutdown & ((1u << map::RAM_BANKS) - 1);
        for (UINT32 b = 0; b < map::RAM_BANKS; ++b)
            if (down & (1u << b))
                std::fill_n(st.ram.begin() + b * (map::RAM_BANK_SIZE / 4), map::RAM_BANK_SIZE / 4, SHUTDOWN_PATTERN);
        r.ocr_shutdown = value & 0xFF;
        return map::BUS_OK;
    }
    case map::DCSU_POST_DIVIDER_UPDATE:
        if ((value & 1) && !(r.dcsu_update & 1))
            std::copy(std::begin(r.dcsu_cfg), std::end(r.dcsu_cfg), r.dcsu_latched);
        r.dcsu_update = value & 1;
        return map::BUS_OK;
    case map::DCSU_POST_DIVIDER_CFG_2:
        r.dcsu_cfg[0] = value & 0x3F3F3F3F;
        return map::BUS_OK;
    case map::DCSU_POST_DIVIDER_CFG_3:
        r.dcsu_cfg[1] = value & 0x3F3F3F3F;
        return map::BUS_OK;
    default:
        break;
    }
    if (in_array(address, map::APP_SCRATCH, map::APP_SCRATCH_COUNT, i)) {
        r.app_scratch[i] = value;
    } else if (in_array(address, map::DEV_INTB_AGGR_SET, map::DEV_INTB_AGGR_SET_COUNT, i)) {
        r.dev_intb_aggr_set[i] = value;
    } else if (in_array(address, map::INTER_PROCESSOR_INTS, map::INTER_PROCESSOR_INTS_COUNT, i)) {
        const UINT32 old = r.ipi[i];
        r.ipi[i] = value & 1;
        if (i == 0 && old == 1 && r.ipi[0] == 0) doorbell_cleared();
        // The firmware answers the test doorbell by raising its status bit.
        if (i == IPI_TEST_BIT && old == 0 && r.ipi[i] == 1 && state == SIM_FW_STATE_RUNNING)
            r.ipi2pcie_int[0] |= 1u << IPI_TEST_BIT;
    } else if (in_array(address, map::IPI2PCIE_INT, map::IPI2PCIE_GROUPS, i)) {
        r.ipi2pcie_int[i] &= ~(value & 0xFFFF);
    } else if (in_array(address, map::IPI2PCIE_INT_EN, map::IPI2PCIE_GROUPS, i)) {
        r.ipi2pcie_en[i] = value & 0xFFFF;
    } else {
        return map::BUS_ERR_DECODE;
    }
    return map::BUS_OK;
}

UINT32 chip_impl::reg_read(UINT32 address, UINT32* value)
{
    std::lock_guard<std::mutex> lock(mutex);
    bus_time(0);
    deliver_due();
    ++counters.reads;
    UINT32 v = 0xFFFFFFFF;
    UINT32 s = bus_fault(address, 1);
    if (s == map::BUS_OK) s = address % 4 ? map::BUS_ERR_DECODE : decode_read(address, v);
    if (s == BUS_SILENT) s = map::BUS_OK; // all ones, reported as done
    else if (s != map::BUS_OK) v = 0xFFFFFFFF;
    if (value) *value = v;
    record_bus(event_kind::reg_read, address, v, s);
    return s;
}

UINT32 chip_impl::reg_write(UINT32 address, UINT32 value)
{
    std::lock_guard<std::mutex> lock(mutex);
    bus_time(0);
    deliver_due();
    ++counters.writes;
    UINT32 s = bus_fault(address, 1);
    if (s == map::BUS_OK) s = address % 4 ? map::BUS_ERR_DECODE : decode_write(address, value);
    if (s == BUS_SILENT) s = map::BUS_OK; // dropped, reported as done
    record_bus(event_kind::reg_write, address, value, s);
    return s;
}

UINT32 chip_impl::burst_read(UINT32 address, UINT32 words, UINT32* buffer)
{
    std::lock_guard<std::mutex> lock(mutex);
    bus_time(words);
    deliver_due();
    ++counters.burst_reads;
    UINT32 s = bus_fault(address, words);
    if (s == map::BUS_OK) s = ram_check(address, words);
    if (s == map::BUS_OK && words && !buffer) s = map::BUS_ERR_DECODE;
    if (s == map::BUS_OK) {
        std::copy_n(st.ram.begin() + address / 4, words, buffer);
        counters.words_read += words;
    } else if (s == BUS_SILENT) {
        if (buffer) std::fill_n(buffer, words, 0xFFFFFFFFu);
        s = map::BUS_OK;
    } else if (buffer) {
        std::fill_n(buffer, words, 0xFFFFFFFFu);
    }
    record_bus(event_kind::burst_read, address, words, s);
    return s;
}

UINT32 chip_impl::burst_write(UINT32 address, UINT32 words, const UINT32* buffer)
{
    std::lock_guard<std::mutex> lock(mutex);
    bus_time(words);
    deliver_due();
    ++counters.burst_writes;
    UINT32 s = bus_fault(address, words);
    if (s == map::BUS_OK) s = ram_check(address, words);
    if (s == map::BUS_OK && words && !buffer) s = map::BUS_ERR_DECODE;
    if (s == map::BUS_OK) {
        std::copy_n(buffer, words, st.ram.begin() + address / 4);
        counters.words_written += words;
    }
    if (s == BUS_SILENT) s = map::BUS_OK; // dropped, reported as done
    record_bus(event_kind::burst_write, address, words, s);
    return s;
}

void chip_impl::processor_reset()
{
    fw.stop();
    state = SIM_FW_STATE_IN_RESET;
    starting_ = false;
    has_pending_ = false;
    work_ = false;
    ++generation_;
}

void chip_impl::maybe_start()
{
    if (st.regs.host_reset || st.regs.ca53_ctrl4 != 0 || state != SIM_FW_STATE_IN_RESET || starting_) return;
    if (st.cfg.startup_us == 0) {
        start_firmware();
        return;
    }
    // The firmware takes its start-up time before it answers the handshake.
    starting_ = true;
    start_due_ns_ = st.now_ns() + UINT64(st.cfg.startup_us) * 1000;
}

void chip_impl::start_firmware()
{
    if (faults.corrupt_image) {
        // A flipped bit in the body: the firmware's own check must catch it.
        faults.corrupt_image = false;
        st.ram[PAYLOAD_HEADER_SIZE / 4 + 1] ^= 0x00010000;
    }
    state = fw.start() ? SIM_FW_STATE_RUNNING : SIM_FW_STATE_BAD_IMAGE;
}

void chip_impl::doorbell_cleared()
{
    if (state != SIM_FW_STATE_RUNNING) return; // nobody is listening
    if (faults.reply_faults_after > 0) {
        // Served cleanly, the faults held back for a later request.
        const fault_config held = faults;
        faults = fault_config{};
        faults.bus_fail_addresses = held.bus_fail_addresses;
        faults.bus_fail_nth = held.bus_fail_nth;
        faults.bus_fail_effect = held.bus_fail_effect;
        fw::outcome out;
        serve(out);
        deliver(out);
        const fault_config now = faults;
        faults = held;
        faults.bus_fail_nth = now.bus_fail_nth;
        --faults.reply_faults_after;
        return;
    }
    if (faults.fw_hang) {
        faults.fw_hang = false;
        state = SIM_FW_STATE_HUNG;
        return;
    }
    if (worker_.joinable()) {
        work_ = true;
        cv_.notify_one();
        return;
    }
    const UINT32 delay_us = st.cfg.service_time_us + faults.slow_reply_us;
    fw::outcome out;
    serve(out);
    if (delay_us == 0) {
        deliver(out);
    } else {
        pending_ = std::move(out);
        has_pending_ = true;
        // Due in the chip's clock, which a test may move on instead of waiting.
        pending_due_ns_ = st.now_ns() + UINT64(delay_us) * 1000;
    }
}

} // namespace kavo_sim

namespace kavo_sim {

void chip_impl::serve(fw::outcome& out)
{
    if (!faults.scripted.empty()) {
        // Answered as the test scripted it; the firmware never sees the request.
        const scripted_reply& script = faults.scripted.front();
        st.read_bytes(map::REQUEST, out.request, sizeof(out.request));
        const UINT32 header[8] = {out.request[0], out.request[1], out.request[2], script.result,
                                  script.mode,    script.value,   script.value2, UINT32(script.data.size())};
        std::memcpy(out.header, script.raw ? script.header : header, sizeof(header));
        out.data = script.data;
        out.data.resize(std::min<size_t>(out.data.size(), map::RESPONSE_SIZE - map::HEADER_SIZE));
        if (!script.repeat) faults.scripted.erase(faults.scripted.begin());
    } else {
        fw.serve(out);
    }
    ++counters.requests;
    journal_event e;
    e.kind = event_kind::request;
    e.device_id = out.request[0];
    e.sequence_num = out.request[1];
    e.operation = out.request[2];
    e.data_size = out.request[7];
    record(e);

    // Reply faults: the firmware misbehaves on the way out.
    auto take = [](UINT32& count) { return count > 0 ? (--count, true) : false; };
    if (take(faults.wrong_sequence)) out.header[1] += 1;
    if (take(faults.wrong_operation)) out.header[2] += 1;
    if (take(faults.wrong_device_id)) out.header[0] += 1;
    if (take(faults.oversized_reply)) {
        const size_t room = map::RESPONSE_SIZE - map::HEADER_SIZE;
        out.data.resize(std::min(room, out.data.size() + faults.oversized_reply_bytes), 0xA5);
        out.header[7] = UINT32(out.data.size());
    }
    if (take(faults.short_reply) && !out.data.empty()) {
        out.data.resize(out.data.size() - std::min<size_t>(out.data.size(), faults.short_reply_bytes));
        out.header[7] = UINT32(out.data.size());
    }
    if (faults.hostile_seed != 0) hostile(out);
}

void chip_impl::hostile(fw::outcome& out)
{
    // xorshift32: the same seed gives the same replies.
    auto next = [this] {
        UINT32& x = faults.hostile_seed;
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        return x;
    };
    const UINT32 pick = next();
    const UINT32 word = pick % 8;
    switch ((pick >> 3) % 4) {
    case 0: out.header[word] = next(); break;          // any value
    case 1: out.header[word] += 1; break;              // off by one
    case 2: out.header[word] = 0xFFFFFFFFu; break;     // all ones
    default: break;                                    // header kept
    }
    if (word == 7) {
        // The size says one thing; the payload area holds what it holds.
        const size_t room = map::RESPONSE_SIZE - map::HEADER_SIZE;
        out.data.resize(std::min<size_t>(room, out.header[7]), 0xA5);
    }
    for (UINT32 n = next() % 4; n > 0 && !out.data.empty(); --n) out.data[next() % out.data.size()] = UINT8(next());
    if (faults.hostile_replies != 0 && --faults.hostile_replies == 0) faults.hostile_seed = 0;
}

void chip_impl::deliver(fw::outcome& out)
{
    st.write_bytes(map::RESPONSE_DATA, out.data.data(), out.data.size());
    st.write_bytes(map::RESPONSE, out.header, sizeof(out.header));
    ++counters.replies;
    journal_event e;
    e.kind = event_kind::reply;
    e.device_id = out.header[0];
    e.sequence_num = out.header[1];
    e.operation = out.header[2];
    e.result = out.header[3];
    e.data_size = out.header[7];
    record(e);

    st.regs.ipi2pcie_int[0] |= 1; // the reply indication towards the host
    if (faults.doorbell_kept > 0) {
        --faults.doorbell_kept;
    } else {
        st.regs.ipi[0] = 1;
    }
    if (out.restart) {
        // Restart in place: the firmware starts over from the image in RAM.
        fw.stop();
        ++generation_;
        start_firmware();
    }
}

void chip_impl::deliver_due()
{
    if (starting_ && st.now_ns() >= start_due_ns_) {
        starting_ = false;
        start_firmware();
    }
    if (has_pending_ && st.now_ns() >= pending_due_ns_) {
        has_pending_ = false;
        deliver(pending_);
    }
}

void chip_impl::worker()
{
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
        cv_.wait(lock, [this] { return stop_ || work_; });
        if (stop_) return;
        work_ = false;
        const UINT64 gen = generation_;
        const UINT32 delay_us = st.cfg.service_time_us + faults.slow_reply_us;
        if (delay_us) {
            // The firmware works with the bus free for the host.
            cv_.wait_for(lock, std::chrono::microseconds(delay_us), [this] { return stop_; });
            if (stop_) return;
        }
        if (gen != generation_ || state != SIM_FW_STATE_RUNNING) continue; // reset meanwhile
        fw::outcome out;
        serve(out);
        deliver(out);
    }
}

VELT_ERROR chip_impl::fault_set(sim_fault_t fault, UINT32 a, UINT32 b)
{
    std::lock_guard<std::mutex> lock(mutex);
    auto& list = faults.bus_fail_addresses;
    switch (fault) {
    case SIM_FAULT_CLEAR_ALL:
        faults = fault_config{};
        return VELT_SUCCESS;
    case SIM_FAULT_BUS_FAIL_ADDRESS:
        list.erase(std::remove(list.begin(), list.end(), a), list.end());
        if (b) list.push_back(a);
        return VELT_SUCCESS;
    case SIM_FAULT_BUS_FAIL_NTH:
        faults.bus_fail_nth = a;
        faults.bus_fail_effect = b == 1 ? bus_effect::silent : bus_effect::fail;
        return VELT_SUCCESS;
    case SIM_FAULT_FW_HANG:
        faults.fw_hang = a != 0;
        return VELT_SUCCESS;
    case SIM_FAULT_SLOW_REPLY:
        faults.slow_reply_us = a;
        return VELT_SUCCESS;
    case SIM_FAULT_WRONG_SEQUENCE:
        faults.wrong_sequence = a;
        return VELT_SUCCESS;
    case SIM_FAULT_WRONG_OPERATION:
        faults.wrong_operation = a;
        return VELT_SUCCESS;
    case SIM_FAULT_WRONG_DEVICE_ID:
        faults.wrong_device_id = a;
        return VELT_SUCCESS;
    case SIM_FAULT_OVERSIZED_REPLY:
        faults.oversized_reply = a;
        faults.oversized_reply_bytes = b ? b : fault_config{}.oversized_reply_bytes;
        return VELT_SUCCESS;
    case SIM_FAULT_SHORT_REPLY:
        faults.short_reply = a;
        faults.short_reply_bytes = b ? b : fault_config{}.short_reply_bytes;
        return VELT_SUCCESS;
    case SIM_FAULT_HOSTILE:
        faults.hostile_seed = a;
        faults.hostile_replies = b;
        return VELT_SUCCESS;
    case SIM_FAULT_DOORBELL_KEPT:
        faults.doorbell_kept = a;
        return VELT_SUCCESS;
    case SIM_FAULT_CORRUPT_IMAGE:
        faults.corrupt_image = a != 0;
        return VELT_SUCCESS;
    case SIM_FAULT_FW_RESTART:
        // Only a processor out of reset can restart.
        if (state == SIM_FW_STATE_IN_RESET) return VELT_ERR_FAIL;
        fw.stop();
        has_pending_ = false;
        ++generation_;
        st.regs.app_scratch[map::BOOT_ARG_SCRATCH] = map::FW_STARTED;
        start_firmware();
        return VELT_SUCCESS;
    case SIM_FAULT_KNOB:
        if ((a >> 16) >= LAST_SIM_KNOB) return VELT_ERR_INVALID_ARGS;
        st.knobs.set(sim_knob_t(a >> 16), a & 0xFFFF, b);
        return VELT_SUCCESS;
    case SIM_FAULT_ADVANCE_TIME:
        st.skipped_ns += (UINT64(b) << 32 | a) * 1000;
        return VELT_SUCCESS;
    case SIM_FAULT_CORRUPT_CONSOLE_COOKIE:
    case SIM_FAULT_CORRUPT_STATS_COOKIE:
    case SIM_FAULT_CORRUPT_DBG_LOG_COOKIE:
    case SIM_FAULT_CORRUPT_CONSOLE_RING:
    case SIM_FAULT_CORRUPT_DBG_LOG_INDEX:
        return fw.corrupt(fault, a) ? VELT_SUCCESS : VELT_ERR_FAIL;
    default:
        return VELT_ERR_INVALID_ARGS;
    }
}

UINT32 knob_default(sim_knob_t knob)
{
    switch (knob) {
    case SIM_KNOB_LINK_PARTNER:
        return 1;
    case SIM_KNOB_CHANNEL_LOSS:
        return 150;
    case SIM_KNOB_PARTNER_PRBS:
        return 0xFFFFFFFF;
    case SIM_KNOB_LINK_TRAINING_MS:
        return 5;
    case SIM_KNOB_PATH_DELAY_NS:
        return 800;
    case SIM_KNOB_SEED:
        return 1;
    default:
        return 0;
    }
}

sim_chip_info_t chip_impl::info() const
{
    std::lock_guard<std::mutex> lock(mutex);
    sim_chip_info_t i;
    i.device_code = st.cfg.device_code;
    i.revision_code = st.cfg.revision_code;
    i.mode = st.cfg.mode == exec_mode::threaded ? 1 : 0;
    i.service_time_us = st.cfg.service_time_us;
    i.fw_state = state;
    i.boot_count = st.regs.boot_info;
    i.fw_version = st.word(map::VERSION_WORDS);
    i.fw_revision = st.word(map::VERSION_WORDS + 4);
    i.requests = UINT32(counters.requests);
    i.replies = UINT32(counters.replies);
    return i;
}

// The public face.

chip::chip(UINT32 device_id, const chip_config& cfg) : impl_(std::make_unique<chip_impl>(device_id, cfg)) {}
chip::~chip() = default;
UINT32 chip::device_id() const { return impl_->st.device_id; }
const chip_config& chip::config() const { return impl_->st.cfg; }
UINT32 chip::reg_read(UINT32 address, UINT32* value) { return impl_->reg_read(address, value); }
UINT32 chip::reg_write(UINT32 address, UINT32 value) { return impl_->reg_write(address, value); }
UINT32 chip::burst_read(UINT32 address, UINT32 words, UINT32* buffer)
{
    return impl_->burst_read(address, words, buffer);
}
UINT32 chip::burst_write(UINT32 address, UINT32 words, const UINT32* buffer)
{
    return impl_->burst_write(address, words, buffer);
}

UINT32 chip::ram_peek(UINT32 address) const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return address < map::RAM_SIZE ? impl_->st.word(address & ~3u) : 0;
}

void chip::ram_poke(UINT32 address, UINT32 value)
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    if (address < map::RAM_SIZE) impl_->st.put(address & ~3u, value);
}

sim_fw_state_t chip::fw_state() const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->state;
}

UINT32 chip::boot_count() const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->st.regs.boot_info;
}

sim_chip_info_t chip::info() const { return impl_->info(); }

fault_config chip::faults() const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->faults;
}

void chip::faults(const fault_config& f)
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->faults = f;
}

VELT_ERROR chip::fault_set(sim_fault_t fault, UINT32 a, UINT32 b) { return impl_->fault_set(fault, a, b); }
VELT_ERROR chip::knob_set(sim_knob_t knob, UINT32 index, UINT32 value)
{
    return impl_->fault_set(SIM_FAULT_KNOB, (UINT32(knob) << 16) | (index & 0xFFFF), value);
}
UINT32 chip::knob(sim_knob_t knob, UINT32 index) const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->st.knobs.get(knob, index);
}
void chip::advance_time(UINT64 microseconds)
{
    impl_->fault_set(SIM_FAULT_ADVANCE_TIME, UINT32(microseconds), UINT32(microseconds >> 32));
}

journal_snapshot chip::journal() const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    journal_snapshot j;
    j.counters = impl_->counters;
    const auto& ev = impl_->events;
    if (impl_->events_wrapped) j.events.assign(ev.begin() + impl_->next_event, ev.end());
    j.events.insert(j.events.end(), ev.begin(), ev.begin() + impl_->next_event);
    return j;
}

journal_counters chip::counters() const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->counters;
}

void chip::journal_reset()
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->counters = journal_counters{};
    impl_->next_event = 0;
    impl_->events_wrapped = false;
}

} // namespace kavo_sim
