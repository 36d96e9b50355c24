// Device-level operations: status, configuration, shutdown, restart, channel
// map and the clock units.
#include "fw/firmware.h"

namespace kavo_sim::fw {
namespace {

constexpr UINT32 SERDES_PORTS = 72;
constexpr INT32 TEMPERATURE = 45;

void status(firmware& fw, const request&, reply& rep)
{
    kavo_device_status_info_t s;
    s.device_type = fw.chip.cfg.device_code & 0xFFFF;
    s.device_revision = fw.chip.cfg.revision_code & 0xF;
    s.device_temperature = TEMPERATURE;
    s.fw_alive = 1;
    s.fw_up_time = fw.up_time_seconds();
    s.fw_is_configured = fw.device.configured;
    s.fw_revision = fw.vcs_id();
    s.fw_version = fw.version_word();
    rep.record(s);
}

bool is_bool(UINT32 v) { return v <= 1; }

bool serdes_ids_ok(const UINT32* ids, UINT32 n)
{
    for (UINT32 i = 0; i < n; ++i)
        if (ids[i] != 0xFFFFFFFF && ids[i] >= SERDES_PORTS) return false;
    return true;
}

/* The first thing wrong with a configuration, or VELT_SUCCESS. */
VELT_ERROR check_config(const kavo_config_t& c)
{
    if (c.device_mode >= LAST_KAVO_DEVICE_MODE) return SEGMENT_BASE_ERR_INVALID_APPLICATION_MODE;
    for (UINT32 i = 0; i < 3; ++i)
        if (!is_bool(c.macsec_global_bypass[i]) || !is_bool(c.ptp_enable[i])) return KAVO_FW_ERR_INVALID_PARAMETERS;
    if (!is_bool(c.mux_mode)) return KAVO_FW_ERR_INVALID_PARAMETERS;
    if (c.enet_dcsu_ref_clk >= LAST_KAVO_ENET_DCSU_REF_CLK) return DCSU_ERR_INVALID_ARG;
    if (!is_bool(c.pmon.auto_trigger) || !is_bool(c.pmon.accumulate_enable) ||
        (c.pmon.auto_trigger && c.pmon.trigger_period_ms == 0))
        return PMON_ERR_INVALID_PARAMS;
    if (!serdes_ids_ok(c.ilkn_lane.serdes_port_ids_tx, 24) || !serdes_ids_ok(c.ilkn_lane.serdes_port_ids_rx, 24))
        return SEGMENT_BASE_ERR_ILLEGAL_SERDES_PORT_ID;
    return VELT_SUCCESS;
}

const char* mode_name(UINT32 mode)
{
    static const char* const names[] = {"1200G_ENET", "1200G_ILKN", "800G_FGB", "800G_RGB"};
    return mode < LAST_KAVO_DEVICE_MODE ? names[mode] : "unchosen";
}

void config(firmware& fw, const request& req, reply& rep)
{
    kavo_config_t c;
    if (!req.payload(c)) {
        rep.result = KAVO_FW_ERR_INVALID_PARAMETERS;
        fw.console("config refused: %u bytes, expected %zu\n", req.data_size, sizeof(c));
        return;
    }
    rep.result = check_config(c);
    if (rep.result != VELT_SUCCESS) {
        fw.console("config refused: device mode %s, error 0x%x\n", mode_name(c.device_mode), rep.result);
        return;
    }
    fw.device.config = c;
    fw.device.configured = true;
    fw.console("device configured: mode %s, host sdk mode %u\n", mode_name(c.device_mode), c.host_sdk_mode);
    fw.log(log_id::main, TOP_LOG_DEBUG, c.device_mode, c.host_sdk_mode, __LINE__);
}

void config_get(firmware& fw, const request&, reply& rep)
{
    if (!fw.device.configured) {
        rep.result = KAVO_ERR_FW_NOT_CONFIGURED;
        return;
    }
    rep.record(fw.device.config);
}

void shutdown(firmware& fw, const request&, reply&)
{
    // The datapath stops; the firmware keeps serving the mailbox.
    fw.device = device_state{};
    fw.console("shutdown: datapath stopped\n");
    fw.log(log_id::main, DEV_RESET_LOG_CODE_START, 0, 0, __LINE__);
}

void restart(firmware& fw, const request&, reply&)
{
    fw.console("restart requested\n");
    fw.log(log_id::main, DEV_RESET_LOG_CODE_START, 1, 0, __LINE__);
    fw.request_restart();
}

void chnl_info_get(firmware& fw, const request&, reply& rep)
{
    kavo_chnl_info_t info;
    for (UINT32 i = 0; i < KAVO_NUM_CHANNELS; ++i)
        info.info[i] = kavo_segment_type_t(fw.device.channels[i]);
    rep.record(info);
}

void dcsu_cfg_get(firmware& fw, const request& req, reply& rep)
{
    const UINT32 inst = req.info.element_id;
    if (inst >= LAST_KAVO_DCSU_INSTANCE) {
        rep.result = DCSU_ERR_INVALID_ARG;
        return;
    }
    kavo_dcsu_cfg_get_t c;
    c.atmsb = c.enb = c.osc_clk_en = c.arstb = 1;
    for (UINT32 i = 0; i < 8; ++i)
        c.post_sync_en[i] = 1;
    c.post_sync_cnt = 4;
    c.pre_div_by = 1;
    // Instance 0 is the host-visible unit: its post dividers are what the last
    // update pulse latched. The others run on their reset dividers.
    const chip_registers& r = fw.chip.regs;
    for (UINT32 i = 0; i < 8; ++i) {
        const UINT32 word = inst == 0 ? r.dcsu_latched[i / 4] : map::DCSU_POST_DIVIDER_RESET;
        c.post_div_by[i] = (word >> (8 * (i % 4))) & 0x3F;
    }
    c.fb_int_div_rd = c.fb_int_div = 80 + 4 * inst;
    c.fb_div_denumerator = 1;
    rep.record(c);
}

constexpr handler HANDLERS[] = {
    {KAVO_HTL_OPERATION_STATUS, "status", status},
    {KAVO_HTL_OPERATION_CONFIG, "config", config},
    {KAVO_HTL_OPERATION_CONFIG_GET, "config_get", config_get},
    {KAVO_HTL_OPERATION_SHUTDOWN, "shutdown", shutdown},
    {KAVO_HTL_OPERATION_RESTART, "restart", restart},
    {KAVO_HTL_OPERATION_DCSU_CFG_GET, "dcsu_cfg_get", dcsu_cfg_get},
    {KAVO_HTL_OPERATION_CHNL_INFO_GET, "chnl_info_get", chnl_info_get},
};

} // namespace

std::span<const handler> device_handlers() { return HANDLERS; }

} // namespace kavo_sim::fw
