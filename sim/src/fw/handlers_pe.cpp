// PE host provisioning.
#include "fw/firmware.h"

namespace kavo_sim::fw {
namespace {

constexpr UINT32 MAX_MAPS = 8;
constexpr UINT32 NO_CLASS = 0xFF;
constexpr UINT32 NUM_PFC_CLASSES = 8;
constexpr UINT32 MAX_VLAN_ID = 4094;

void host_prov(firmware& fw, const request& req, reply& rep)
{
    const UINT32 id = req.info.element_id, prov = req.info.parent_id;
    if (id >= LAST_KAVO_PE_HOST_ID) {
        rep.result = KAVO_FW_ERR_NUMBER_OUT_OF_RANGE;
        return;
    }
    if (prov > 1) {
        rep.result = KAVO_FW_ERR_INVALID_PARAMETERS;
        return;
    }
    pe_model::host& h = fw.model.pe.hosts[id];
    if (prov == 0 && h.provisioned) {
        // Released in any device mode; the payload of a deprovisioning carries nothing.
        fw.device.channels[h.cfg.host_chnl_id] = KAVO_SEGMENT_TYPE_UNUSED;
        fw.console("pe host %u deprovisioned, channel %u released\n", id, h.cfg.host_chnl_id);
        h = {};
        return;
    }
    if (!fw.device.configured)
        rep.result = KAVO_ERR_FW_NOT_CONFIGURED;
    else if (fw.device.config.device_mode != KAVO_DEVICE_MODE_1200G_ENET)
        rep.result = PE_CANNOT_USE_API_IN_THIS_DEVICE_MODE;
    else if (prov == 0)
        rep.result = KAVO_FW_ERR_INVALID_PARAMETERS; // not provisioned
    if (rep.result != VELT_SUCCESS) return;
    kavo_pe_config_t c;
    if (req.data.size() != sizeof(c) || !req.payload(c)) {
        rep.result = KAVO_FW_ERR_INVALID_PARAMETERS;
        return;
    }
    rep.result = fw.model.pe.check(fw, id, c);
    if (rep.result != VELT_SUCCESS) return;
    h.provisioned = true;
    h.cfg = c;
    fw.device.channels[c.host_chnl_id] = KAVO_SEGMENT_TYPE_PE_HOST;
    fw.console("pe host %u provisioned on channel %u, %u Gb/s, %u line channels\n", id, c.host_chnl_id,
               c.host_rate_gbps, c.num_maps);
}

constexpr handler HANDLERS[] = {
    {KAVO_HTL_OPERATION_PE_HOST_PROV, "pe_host_prov", host_prov},
};

} // namespace

void pe_model::advance(firmware& fw, UINT64)
{
    // A shutdown released every channel, and with them the hosts.
    if (!fw.device.configured) *this = pe_model{};
}

bool pe_model::line_mapped(UINT32 chnl, UINT32 except) const
{
    for (UINT32 id = 0; id < LAST_KAVO_PE_HOST_ID; ++id) {
        const host& h = hosts[id];
        if (id == except || !h.provisioned) continue;
        for (UINT32 i = 0; i < h.cfg.num_maps; ++i)
            if (h.cfg.line_chnl_id[i] == chnl) return true;
    }
    return false;
}

VELT_ERROR pe_model::check(const firmware& fw, UINT32 id, const kavo_pe_config_t& c) const
{
    if (hosts[id].provisioned) return PE_CANNOT_SET_PE_CFG_AFTER_PE_PROV;
    if (c.host_chnl_id >= KAVO_NUM_CHANNELS || fw.device.channels[c.host_chnl_id] != KAVO_SEGMENT_TYPE_UNUSED)
        return PE_ENET_HOST_INVALID_CHNL_ID;
    if (c.host_rate_gbps != 100 && c.host_rate_gbps != 200 && c.host_rate_gbps != 400) return PE_ENET_HOST_INVALID_RATE;
    if (c.tpid != 0x8100 && c.tpid != 0x88A8) return KAVO_FW_ERR_INVALID_PARAMETERS;
    if (c.num_maps == 0 || c.num_maps > MAX_MAPS) return PE_INVALID_VLAN_CHNL_ID_MAP;
    for (UINT32 i = 0; i < c.num_maps; ++i) {
        const UINT32 line = c.line_chnl_id[i], cls = c.pfc_class[i];
        if (c.vlan_id[i] == 0 || c.vlan_id[i] > MAX_VLAN_ID) return PE_INVALID_VLAN_CHNL_ID_MAP;
        if (cls != NO_CLASS && cls >= NUM_PFC_CLASSES) return PE_INVALID_VLAN_CHNL_ID_MAP;
        // A line channel is an Ethernet channel (or one still to be provisioned).
        if (line >= KAVO_NUM_CHANNELS || line == c.host_chnl_id ||
            (fw.device.channels[line] != KAVO_SEGMENT_TYPE_UNUSED &&
             fw.device.channels[line] != KAVO_SEGMENT_TYPE_ENET_PORT &&
             fw.device.channels[line] != KAVO_SEGMENT_TYPE_ENET_ANLT))
            return PE_ENET_LINE_INVALID_CHNL_ID;
        if (line_mapped(line, id)) return PE_DUPLICATED_VLAN_CHNL_ID_MAP;
        for (UINT32 j = 0; j < i; ++j) {
            if (c.vlan_id[j] == c.vlan_id[i] || c.line_chnl_id[j] == line) return PE_DUPLICATED_VLAN_CHNL_ID_MAP;
            if (cls != NO_CLASS && c.pfc_class[j] == cls) return PE_DUPLICATED_PE_PFC_CHANNEL_MAP;
        }
    }
    return VELT_SUCCESS;
}

std::span<const handler> pe_handlers() { return HANDLERS; }

} // namespace kavo_sim::fw
