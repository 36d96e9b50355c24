// FlexE groups, clients, calendars and the FlexE overhead processor.
//
// A group's PHYs take their SerDes lanes (serdes_owner: the group's channel)
// and contribute 100G instances of 20 slots to the group's calendar. Each
// direction has calendars A and B: clients are written into the one not in
// use, and a calendar update switches to it when its timer has run in chip
// time. Groups and clients deprovisioned through the channel map are dropped
// at the next advance, with their lanes, slots and overhead channels.
#include <algorithm>
#include <bit>

#include "fw/firmware.h"

namespace kavo_sim::fw {
namespace {

constexpr UINT32 TX = 0, RX = 1;
constexpr UINT32 MAX_GROUP_NUMBER = 0xFFFFE;
constexpr UINT32 MAX_PHY_NUMBER = 254;
constexpr UINT32 MAX_CLIENT_NUMBER = 0xFFFE;
constexpr UINT32 MAX_PHY_ID = KAVO_FLEXE_MAX_PHYS - 1;
constexpr UINT32 MIN_FRAME = 14, MAX_FRAME = 1518;
constexpr UINT32 VLAN_TAG_BYTES = 4;

bool is_bool(UINT32 v) { return v <= 1; }
UINT32 slots_needed(const UINT32 (&words)[KAVO_FLEXE_MAX_INSTANCES])
{
    UINT32 n = 0;
    for (UINT32 w : words)
        n += UINT32(std::popcount(w));
    return n;
}

const kavo_flexe_phy_info_t& info(const kavo_flexe_phy_t& p, UINT32 dir) { return dir == TX ? p.phy_data_tx : p.phy_data_rx; }
const kavo_flexe_client_data_t& data(const kavo_flexe_client_t& c, UINT32 dir)
{
    return dir == TX ? c.tx_client_data : c.rx_client_data;
}

/* The first thing wrong with one PHY on its own, or VELT_SUCCESS. */
VELT_ERROR check_phy(const kavo_flexe_phy_t& p)
{
    if (p.pin_mode >= LAST_KAVO_FLEXE_PIN_MODE) return SEGMENT_BASE_ERR_INVALID_SERDES_PIN_MODE;
    if (p.phy_id > MAX_PHY_ID) return SEGMENT_BASE_ENET_FLEXE_INVALID_PHY_ID;
    const flexe_phy_mode& m = flexe_phy_mode_of(p.pin_mode);
    if (p.serdes_port_id >= NUM_SERDES_PORTS || p.serdes_port_id + m.lanes > NUM_SERDES_PORTS)
        return SEGMENT_BASE_ERR_ILLEGAL_SERDES_PORT_ID;
    if (p.serdes_port_id % m.lanes != 0) return SEGMENT_BASE_ERR_SERDES_PIN_NOT_ALIGN_QUAD;
    for (UINT32 dir : {TX, RX}) {
        const kavo_flexe_phy_info_t& i = info(p, dir);
        if (i.flexe_phy_number == 0 || i.flexe_phy_number > MAX_PHY_NUMBER)
            return SEGMENT_BASE_ENET_FLEXE_PHY_INVALID_PHY_NUMBER_ARG;
        if (i.num_unavailable_slots != 0xFFFFFFFF && i.num_unavailable_slots >= m.slots)
            return SEGMENT_BASE_ENET_FLEXE_PHY_TS_UNAVAILABLE_NUM_ARG;
    }
    return VELT_SUCCESS;
}

/* The first thing wrong with a group's configuration, or VELT_SUCCESS. */
VELT_ERROR check_group(const firmware& fw, const kavo_flexe_group_cfg_t& g)
{
    const kavo_flexe_group_info_t& gi = g.group_info;
    for (UINT32 n : {gi.flexe_group_number_tx, gi.flexe_group_number_rx})
        if (n == 0 || n > MAX_GROUP_NUMBER) return SEGMENT_BASE_ENET_FLEXE_GROUP_INVALID_FLEXE_GRP_NUM_ARG;
    if (gi.calendar_update_mode >= LAST_KAVO_FLEXE_CALENDAR_UPDATE_MODE ||
        g.initial_calendar >= LAST_KAVO_FLEXE_CALENDAR_MODE)
        return SEGMENT_BASE_ENET_FLEXE_GROUP_INVALID_CAL_MODE_ARG;
    if (g.num_phys == 0 || g.num_phys > KAVO_FLEXE_MAX_PHYS) return SEGMENT_BASE_ERR_INVALID_ARG;
    UINT32 instances = 0;
    for (UINT32 i = 0; i < g.num_phys; ++i) {
        const kavo_flexe_phy_t& p = g.phys[i];
        if (VELT_ERROR rc = check_phy(p)) return rc;
        const flexe_phy_mode& m = flexe_phy_mode_of(p.pin_mode);
        if (m.gbps != flexe_phy_mode_of(g.phys[0].pin_mode).gbps)
            return SEGMENT_BASE_ENET_FLEXE_GROUP_INVALID_FLEXE_MODE_ARG;
        for (UINT32 j = 0; j < i; ++j) {
            const kavo_flexe_phy_t& q = g.phys[j];
            if (q.phy_id == p.phy_id) return SEGMENT_BASE_ENET_FLEXE_INVALID_PHY_ID;
            if (q.phy_data_tx.flexe_phy_number == p.phy_data_tx.flexe_phy_number ||
                q.phy_data_rx.flexe_phy_number == p.phy_data_rx.flexe_phy_number)
                return SEGMENT_BASE_ENET_FLEXE_PHY_INVALID_PHY_NUMBER_ARG;
            const UINT32 q_end = q.serdes_port_id + flexe_phy_mode_of(q.pin_mode).lanes;
            if (p.serdes_port_id < q_end && q.serdes_port_id < p.serdes_port_id + m.lanes)
                return SEGMENT_BASE_SERDES_PIN_ALREADY_USED_FOR_THIS_GROUP;
        }
        for (UINT32 port = p.serdes_port_id; port < p.serdes_port_id + m.lanes; ++port)
            if (fw.device.serdes_owner[port] != NO_OWNER) return SEGMENT_BASE_ENET_FLEXE_SERDES_PIN_ALREADY_USED;
        instances += m.instances;
    }
    if (instances > KAVO_FLEXE_MAX_INSTANCES) return SEGMENT_BASE_ENET_FLEXE_GROUP_RESOURCES_INSUFFICENT;
    return VELT_SUCCESS;
}

/* The slots a client may take per instance and direction, and the calendars'
   free and unavailable slots. */
void lay_out(flexe_group& g)
{
    std::fill(&g.calendar[0][0][0], &g.calendar[0][0][0] + sizeof(g.calendar), FLEXE_SLOT_UNAVAILABLE);
    UINT32 w = 0;
    for (UINT32 i = 0; i < g.cfg.num_phys; ++i) {
        const kavo_flexe_phy_t& p = g.cfg.phys[i];
        const flexe_phy_mode& m = flexe_phy_mode_of(p.pin_mode);
        for (UINT32 dir : {TX, RX}) {
            const UINT32 unavailable = info(p, dir).num_unavailable_slots == 0xFFFFFFFF ? 0 : info(p, dir).num_unavailable_slots;
            // The PHY's slots run instance by instance; the unavailable ones are its last.
            for (UINT32 s = 0; s < m.slots - unavailable; ++s) {
                const UINT32 word = w + s / KAVO_FLEXE_SLOTS_PER_INSTANCE, bit = s % KAVO_FLEXE_SLOTS_PER_INSTANCE;
                g.available[dir][word] |= 1u << bit;
                for (UINT32 c = 0; c < 2; ++c)
                    g.calendar[dir][c][word * KAVO_FLEXE_SLOTS_PER_INSTANCE + bit] = FLEXE_SLOT_FREE;
            }
        }
        w += m.instances;
    }
    g.instances = w;
}

/* Channel checks shared by the group commands: the group, or a refusal. */
flexe_group* find_group(firmware& fw, UINT32 chnl, reply& rep)
{
    if (chnl >= KAVO_NUM_CHANNELS) {
        rep.result = SEGMENT_BASE_ERR_ILLEGAL_CHNL_ID;
        return nullptr;
    }
    flexe_group* g = fw.model.flexe.group(chnl);
    if (g == nullptr) rep.result = SEGMENT_BASE_GROUP_INVALID_SEGMENT_TYPE;
    return g;
}

bool size_is(const request& req, reply& rep, size_t size)
{
    if (req.data_size == size && req.data.size() == size) return true;
    rep.result = KAVO_FW_ERR_INVALID_PARAMETERS;
    return false;
}

bool configured(firmware& fw, reply& rep)
{
    if (!fw.device.configured) rep.result = KAVO_ERR_FW_NOT_CONFIGURED;
    return fw.device.configured;
}

void group_prov(firmware& fw, const request& req, reply& rep)
{
    kavo_flexe_group_cfg_t cfg;
    if (!size_is(req, rep, sizeof(cfg)) || !configured(fw, rep)) return;
    req.payload(cfg);
    const UINT32 chnl = req.info.element_id;
    flexe_model& m = fw.model.flexe;
    if (chnl >= KAVO_NUM_CHANNELS) rep.result = SEGMENT_BASE_ERR_ILLEGAL_CHNL_ID;
    else if (fw.device.channels[chnl] != KAVO_SEGMENT_TYPE_UNUSED) rep.result = SEGMENT_BASE_ERR_EXISTING_CHNL_ID;
    else if (m.num_groups() >= FLEXE_MAX_GROUPS) rep.result = SEGMENT_BASE_ENET_FLEXE_GROUP_RESOURCES_INSUFFICENT;
    else rep.result = check_group(fw, cfg);
    if (rep.result != VELT_SUCCESS) {
        fw.console("flexe group %u refused: 0x%x\n", chnl, rep.result);
        return;
    }
    flexe_group& g = m.groups[chnl];
    g = flexe_group{};
    g.cfg = cfg;
    lay_out(g);
    g.in_use[TX] = g.in_use[RX] = cfg.initial_calendar;
    m.has_group[chnl] = true;
    fw.device.channels[chnl] = KAVO_SEGMENT_TYPE_FLEXE_GROUP;
    for (UINT32 i = 0; i < cfg.num_phys; ++i) {
        const kavo_flexe_phy_t& p = cfg.phys[i];
        for (UINT32 k = 0; k < flexe_phy_mode_of(p.pin_mode).lanes; ++k)
            fw.device.serdes_owner[p.serdes_port_id + k] = chnl;
    }
    fw.console("flexe group %u: %u PHYs, %u slots, group numbers %u/%u\n", chnl, cfg.num_phys,
               g.instances * KAVO_FLEXE_SLOTS_PER_INSTANCE, cfg.group_info.flexe_group_number_tx,
               cfg.group_info.flexe_group_number_rx);
}

/* The first thing wrong with a client on group g, or VELT_SUCCESS. */
VELT_ERROR check_client(const flexe_model& m, const flexe_group& g, UINT32 group_chnl, const kavo_flexe_client_t& c)
{
    static constexpr VELT_ERROR PAST[2] = {SEGMENT_BASE_ENET_FLEXE_TX_CLIENT_SLOTS_ALLOCATED_PAST_UNAVAIL_SLOTS,
                                           SEGMENT_BASE_ENET_FLEXE_RX_CLIENT_SLOTS_ALLOCATED_PAST_UNAVAIL_SLOTS};
    static constexpr VELT_ERROR TAKEN[2] = {SEGMENT_BASE_ENET_FLEXE_TX_CLIENT_SLOTS_PREVIOUSLY_ALLOCATED,
                                            SEGMENT_BASE_ENET_FLEXE_RX_CLIENT_SLOTS_PREVIOUSLY_ALLOCATED};
    for (UINT32 dir : {TX, RX}) {
        const UINT32 number = data(c, dir).flexe_client_number;
        if (number == 0 || number > MAX_CLIENT_NUMBER) return SEGMENT_BASE_ERR_INVALID_ARG;
        for (UINT32 k = 0; k < KAVO_NUM_CHANNELS; ++k)
            if (m.has_client[k] && m.clients[k].group == group_chnl && data(m.clients[k].cfg, dir).flexe_client_number == number)
                return SEGMENT_BASE_ENET_FLEXE_CLIENT_TABLE_ADD_FAIL;
    }
    if (g.switch_pending) return SEGMENT_BASE_ENET_FLEXE_GROUP_CAL_MODE_SW_NOT_COMPLETE;
    for (UINT32 dir : {TX, RX}) {
        const auto& slots = data(c, dir).flexe_client_slots;
        if (slots_needed(slots) == 0) return SEGMENT_BASE_ENET_FLEXE_NO_CLIENT_SLOTS_PROVIDED;
        const UINT8* next = g.calendar[dir][1 - g.in_use[dir]];
        for (UINT32 w = 0; w < KAVO_FLEXE_MAX_INSTANCES; ++w) {
            if (slots[w] & ~g.available[dir][w]) return PAST[dir];
            for (UINT32 s = 0; s < KAVO_FLEXE_SLOTS_PER_INSTANCE; ++s)
                if ((slots[w] >> s & 1) && next[w * KAVO_FLEXE_SLOTS_PER_INSTANCE + s] != FLEXE_SLOT_FREE)
                    return TAKEN[dir];
        }
    }
    if (slots_needed(c.tx_client_data.flexe_client_slots) != slots_needed(c.rx_client_data.flexe_client_slots))
        return SEGMENT_BASE_ENET_FLEXE_TX_CLIENT_SLOTS_DIFFERENT_RATE_TO_RX_CLIENT_SLOTS;
    return VELT_SUCCESS;
}

void client_prov(firmware& fw, const request& req, reply& rep)
{
    kavo_flexe_client_t cfg;
    if (!size_is(req, rep, sizeof(cfg)) || !configured(fw, rep)) return;
    req.payload(cfg);
    const UINT32 chnl = req.info.element_id, group_chnl = req.info.parent_id;
    flexe_model& m = fw.model.flexe;
    if (chnl >= KAVO_NUM_CHANNELS) {
        rep.result = SEGMENT_BASE_ERR_ILLEGAL_CHNL_ID;
        return;
    }
    flexe_group* g = find_group(fw, group_chnl, rep);
    if (g == nullptr) return;
    if (fw.device.channels[chnl] != KAVO_SEGMENT_TYPE_UNUSED) rep.result = SEGMENT_BASE_ERR_EXISTING_CHNL_ID;
    else if (m.num_clients() >= FLEXE_MAX_CLIENTS) rep.result = SEGMENT_BASE_ENET_FLEXE_CLIENT_TABLE_ADD_FAIL;
    else rep.result = check_client(m, *g, group_chnl, cfg);
    if (rep.result != VELT_SUCCESS) {
        fw.console("flexe client %u on group %u refused: 0x%x\n", chnl, group_chnl, rep.result);
        return;
    }
    for (UINT32 dir : {TX, RX}) {
        UINT8* next = g->calendar[dir][1 - g->in_use[dir]];
        const auto& slots = data(cfg, dir).flexe_client_slots;
        for (UINT32 w = 0; w < KAVO_FLEXE_MAX_INSTANCES; ++w)
            for (UINT32 s = 0; s < KAVO_FLEXE_SLOTS_PER_INSTANCE; ++s)
                if (slots[w] >> s & 1) next[w * KAVO_FLEXE_SLOTS_PER_INSTANCE + s] = UINT8(chnl);
    }
    m.has_client[chnl] = true;
    m.clients[chnl] = flexe_client{group_chnl, cfg};
    fw.device.channels[chnl] = KAVO_SEGMENT_TYPE_FLEXE_CLIENT;
    const UINT32 n = slots_needed(cfg.tx_client_data.flexe_client_slots);
    fw.console("flexe client %u on group %u: %u slots, %uG\n", chnl, group_chnl, n, n * KAVO_FLEXE_SLOT_GBPS);
}

bool scope_allowed(UINT32 group_mode, UINT32 scope)
{
    if (scope > KAVO_FLEXE_CALENDAR_UPDATE_MODE_TX_RX) return false;
    return group_mode == KAVO_FLEXE_CALENDAR_UPDATE_MODE_ANY || group_mode == scope;
}

void calendar_update(firmware& fw, const request& req, reply& rep)
{
    UINT32 ms = 0;
    if (!size_is(req, rep, sizeof(ms))) return;
    req.payload(ms);
    const UINT32 chnl = req.info.element_id;
    flexe_group* g = find_group(fw, chnl, rep);
    if (g == nullptr) return;
    if (!scope_allowed(g->cfg.group_info.calendar_update_mode, req.info.mode))
        rep.result = SEGMENT_BASE_ENET_FLEXE_GROUP_INVALID_CAL_MODE_ARG;
    else if (g->switch_pending)
        rep.result = SEGMENT_BASE_ENET_FLEXE_GROUP_CAL_MODE_SW_NOT_COMPLETE;
    if (rep.result != VELT_SUCCESS) return;
    g->switch_pending = true;
    g->switch_scope = req.info.mode;
    g->switch_due_us = fw.now_us() + UINT64(ms) * 1000;
    fw.console("flexe group %u: calendar switch in %u ms\n", chnl, ms);
    fw.model.flexe.switch_calendars(fw, chnl, fw.now_us());
}

void group_config_get(firmware& fw, const request& req, reply& rep)
{
    if (flexe_group* g = find_group(fw, req.info.element_id, rep)) rep.record(g->cfg);
}

void group_status_get(firmware& fw, const request& req, reply& rep)
{
    flexe_group* g = find_group(fw, req.info.element_id, rep);
    if (g == nullptr) return;
    kavo_flexe_group_status_t s;
    s.num_phys = g->cfg.num_phys;
    s.group_aligned = 1;
    for (UINT32 i = 0; i < g->cfg.num_phys; ++i) {
        const kavo_flexe_phy_t& p = g->cfg.phys[i];
        kavo_flexe_phy_status_t& ps = s.phy_status[i];
        ps.phy_id = p.phy_id;
        ps.flexe_phy_number = p.phy_data_rx.flexe_phy_number;
        ps.signal_present = 1;
        for (UINT32 k = 0; k < flexe_phy_mode_of(p.pin_mode).lanes; ++k)
            if (!fw.model.serdes.signal_present(fw, p.serdes_port_id + k)) ps.signal_present = 0;
        // The overhead locks as soon as the PHY's lanes carry a signal; the PHYs
        // deskew into the group together.
        ps.aligned = ps.signal_present;
        if (!ps.aligned) s.group_aligned = 0;
    }
    s.tx_calendar_in_use = kavo_flexe_calendar_mode_t(g->in_use[TX]);
    s.rx_calendar_in_use = kavo_flexe_calendar_mode_t(g->in_use[RX]);
    s.switch_pending = g->switch_pending;
    const UINT64 now = fw.now_us();
    s.switch_remaining_ms = g->switch_pending && g->switch_due_us > now ? UINT32((g->switch_due_us - now + 999) / 1000) : 0;
    for (UINT32 k = 0; k < KAVO_NUM_CHANNELS; ++k)
        if (fw.model.flexe.has_client[k] && fw.model.flexe.clients[k].group == req.info.element_id) ++s.num_clients;
    for (UINT32 i = 0; i < g->cfg.num_phys; ++i)
        s.num_slots += flexe_phy_mode_of(g->cfg.phys[i].pin_mode).slots;
    std::memcpy(s.tx_slot_client, g->calendar[TX], sizeof(s.tx_slot_client));
    std::memcpy(s.rx_slot_client, g->calendar[RX], sizeof(s.rx_slot_client));
    rep.record(s);
}

// ---- the overhead processor -----------------------------------------------------------------

bool ohp_provisioned(firmware& fw, reply& rep)
{
    if (!fw.model.flexe.ohp.provisioned) rep.result = SEGMENT_BASE_ERR_PHYSICAL_RESOURCE_NOT_ASSIGNED;
    return fw.model.flexe.ohp.provisioned;
}

bool vlan_ok(UINT32 vlan) { return vlan >= 1 && vlan <= 4094; }

void ohp_prov(firmware& fw, const request& req, reply& rep)
{
    flexe_ohp& o = fw.model.flexe.ohp;
    if (!configured(fw, rep)) return;
    if (o.provisioned) rep.result = SEGMENT_BASE_ERR_PHYSICAL_RESOURCE_UNAVAILABLE;
    else if (req.info.mode >= LAST_KAVO_FLEXE_OHP_INTERFACE_MODE) rep.result = ENET_FLEXE_OH_INSERT_MACRO_ERR_INVALID_ARG;
    if (rep.result != VELT_SUCCESS) return;
    o = flexe_ohp{};
    o.provisioned = true;
    o.mode = req.info.mode;
    fw.console("flexe overhead processor: interface mode %u\n", o.mode);
}

void ohp_deprov(firmware& fw, const request&, reply& rep)
{
    flexe_ohp& o = fw.model.flexe.ohp;
    if (!ohp_provisioned(fw, rep)) return;
    if (!o.chnls.empty() || o.dbg_provisioned) {
        rep.result = SEGMENT_BASE_ERR_CLEANABLE_APPLICATION_BLOCKING;
        return;
    }
    o = flexe_ohp{};
    fw.console("flexe overhead processor deprovisioned\n");
}

void ohp_chnl_prov(firmware& fw, const request& req, reply& rep)
{
    flexe_ohp& o = fw.model.flexe.ohp;
    kavo_flexe_ohp_chnl_cfg_data_t tags;
    if (!size_is(req, rep, sizeof(tags)) || !ohp_provisioned(fw, rep)) return;
    req.payload(tags);
    const UINT32 group_chnl = req.info.parent_id, phy_id = req.info.element_id;
    flexe_group* g = find_group(fw, group_chnl, rep);
    if (g == nullptr) return;
    const kavo_flexe_phy_t* end = g->cfg.phys + g->cfg.num_phys;
    const kavo_flexe_phy_t* begin = g->cfg.phys;
    if (std::find_if(begin, end, [&](const kavo_flexe_phy_t& p) { return p.phy_id == phy_id; }) == end)
        rep.result = ENET_FLEXE_OH_PARSER_MACRO_ERR_INVALID_PHY_REF;
    else if (std::any_of(o.chnls.begin(), o.chnls.end(),
                         [&](const flexe_ohp_chnl& c) { return c.group == group_chnl && c.phy_id == phy_id; }))
        rep.result = SEGMENT_BASE_ERR_PHYSICAL_RESOURCE_UNAVAILABLE;
    else if (!vlan_ok(tags.shim_vlan_tag) || !vlan_ok(tags.section_vlan_tag) ||
             tags.shim_vlan_tag == tags.section_vlan_tag || fw.model.flexe.vlan_in_use(tags.shim_vlan_tag) ||
             fw.model.flexe.vlan_in_use(tags.section_vlan_tag))
        rep.result = ENET_FLEXE_OH_INSERT_MACRO_ERR_INVALID_ARG;
    if (rep.result != VELT_SUCCESS) return;
    o.chnls.push_back({group_chnl, phy_id, tags});
    fw.console("flexe overhead: group %u PHY %u on VLANs %u (section) and %u (shim)\n", group_chnl, phy_id,
               tags.section_vlan_tag, tags.shim_vlan_tag);
}

void ohp_chnl_deprov(firmware& fw, const request& req, reply& rep)
{
    flexe_ohp& o = fw.model.flexe.ohp;
    if (!ohp_provisioned(fw, rep)) return;
    auto it = std::find_if(o.chnls.begin(), o.chnls.end(), [&](const flexe_ohp_chnl& c) {
        return c.group == req.info.parent_id && c.phy_id == req.info.element_id;
    });
    if (it == o.chnls.end()) {
        rep.result = SEGMENT_BASE_ERR_PHYSICAL_RESOURCE_NOT_ASSIGNED;
        return;
    }
    o.chnls.erase(it);
}

void ohp_loopback(firmware& fw, const request& req, reply& rep)
{
    if (!ohp_provisioned(fw, rep)) return;
    if (req.info.mode >= LAST_KAVO_FLEXE_OHP_LOOPBACK) {
        rep.result = ENET_FLEXE_OH_INSERT_MACRO_ERR_INVALID_ARG;
        return;
    }
    fw.model.flexe.ohp.loopback = req.info.mode;
}

void ohp_ge_pmon_get(firmware& fw, const request& req, reply& rep)
{
    if (!ohp_provisioned(fw, rep)) return;
    if (!is_bool(req.info.flag)) {
        rep.result = KAVO_FW_ERR_INVALID_PARAMETERS;
        return;
    }
    rep.record(fw.model.flexe.ohp.ge);
    if (req.info.flag) fw.model.flexe.ohp.ge = kavo_flexe_ohp_ge_pmon_t{};
}

void ohp_debug_pmon_get(firmware& fw, const request&, reply& rep)
{
    if (ohp_provisioned(fw, rep)) rep.record(fw.model.flexe.ohp.dbg);
}

void ohp_status_get(firmware& fw, const request&, reply& rep)
{
    const flexe_ohp& o = fw.model.flexe.ohp;
    kavo_flexe_ohp_status_t s;
    s.provisioned = o.provisioned;
    s.interface_mode = kavo_flexe_ohp_interface_mode_t(o.mode);
    s.loopback = kavo_flexe_ohp_loopback_t(o.loopback);
    s.num_oh_chnls = UINT32(o.chnls.size());
    s.dbg_chnl_provisioned = o.dbg_provisioned;
    s.dbg_vlan_tag = o.dbg_vlan;
    s.dbg_strip_vlan_tag = o.dbg_strip;
    s.dbg_frames_pending = UINT32(o.dbg_queue.size());
    rep.record(s);
}

void ohp_dbg_chnl_prov(firmware& fw, const request& req, reply& rep)
{
    flexe_ohp& o = fw.model.flexe.ohp;
    if (!ohp_provisioned(fw, rep)) return;
    if (o.dbg_provisioned) rep.result = SEGMENT_BASE_ERR_PHYSICAL_RESOURCE_UNAVAILABLE;
    else if (!vlan_ok(req.info.element_id) || fw.model.flexe.vlan_in_use(req.info.element_id))
        rep.result = ENET_FLEXE_OH_INSERT_MACRO_ERR_INVALID_ARG;
    else if (!is_bool(req.info.flag)) rep.result = KAVO_FW_ERR_INVALID_PARAMETERS;
    if (rep.result != VELT_SUCCESS) return;
    o.dbg_provisioned = true;
    o.dbg_vlan = req.info.element_id;
    o.dbg_strip = req.info.flag != 0;
}

void ohp_dbg_chnl_deprov(firmware& fw, const request&, reply& rep)
{
    flexe_ohp& o = fw.model.flexe.ohp;
    if (!ohp_provisioned(fw, rep)) return;
    if (!o.dbg_provisioned) {
        rep.result = SEGMENT_BASE_ERR_PHYSICAL_RESOURCE_NOT_ASSIGNED;
        return;
    }
    o.dbg_provisioned = false;
    o.dbg_vlan = 0;
    o.dbg_strip = false;
    o.dbg_queue.clear();
}

bool dbg_chnl(firmware& fw, reply& rep)
{
    if (!ohp_provisioned(fw, rep)) return false;
    if (!fw.model.flexe.ohp.dbg_provisioned) rep.result = SEGMENT_BASE_ERR_PHYSICAL_RESOURCE_NOT_ASSIGNED;
    return rep.result == VELT_SUCCESS;
}

void add_octets(UINT32& lsb, UINT32& msb, UINT32 n)
{
    const UINT64 v = ((UINT64(msb) << 32) | lsb) + n;
    lsb = UINT32(v), msb = UINT32(v >> 32);
}

/* A debug frame goes out on the GE interface under the debug VLAN; a loopback
   brings it back into the debug channel's queue, tag stripped or kept. */
void ohp_dbg_chnl_write(firmware& fw, const request& req, reply& rep)
{
    flexe_ohp& o = fw.model.flexe.ohp;
    if (!dbg_chnl(fw, rep)) return;
    const UINT32 len = req.info.element_id;
    if (len < MIN_FRAME || len > MAX_FRAME) {
        ++o.ge.rx_length_errors;
        rep.result = ENET_FLEXE_OH_INSERT_MACRO_ERR_INVALID_ARG;
        return;
    }
    if (!size_is(req, rep, len)) return;
    ++o.dbg.frames_written;
    ++o.ge.tx_frames;
    add_octets(o.ge.tx_octets_lsb, o.ge.tx_octets_msb, len + VLAN_TAG_BYTES);
    if (o.loopback == KAVO_FLEXE_OHP_LOOPBACK_NONE) return;
    ++o.ge.rx_frames;
    add_octets(o.ge.rx_octets_lsb, o.ge.rx_octets_msb, len + VLAN_TAG_BYTES);
    if (o.dbg_queue.size() >= flexe_ohp::DBG_QUEUE_FRAMES) {
        ++o.dbg.frames_dropped;
        return;
    }
    std::vector<UINT8> frame(req.data.begin(), req.data.end());
    if (!o.dbg_strip) {
        const UINT8 tag[VLAN_TAG_BYTES] = {0x81, 0x00, UINT8(o.dbg_vlan >> 8), UINT8(o.dbg_vlan)};
        frame.insert(frame.begin() + 12, tag, tag + VLAN_TAG_BYTES);
    }
    o.dbg_queue.push_back(std::move(frame));
    ++o.dbg.frames_looped_back;
}

void ohp_dbg_chnl_read(firmware& fw, const request& req, reply& rep)
{
    flexe_ohp& o = fw.model.flexe.ohp;
    if (!dbg_chnl(fw, rep) || o.dbg_queue.empty()) return;
    if (o.dbg_queue.front().size() > req.info.element_id) {
        rep.result = ENET_FLEXE_OH_PARSER_MACRO_ERR_INVALID_ARG;
        fw.console("flexe debug frame of %zu bytes kept: the reader takes %u\n", o.dbg_queue.front().size(),
                   req.info.element_id);
        return;
    }
    rep.data = std::move(o.dbg_queue.front());
    o.dbg_queue.pop_front();
    ++o.dbg.frames_read;
}

constexpr handler HANDLERS[] = {
    {KAVO_HTL_OPERATION_FLEXE_GROUP_PROV, "flexe_group_prov", group_prov},
    {KAVO_HTL_OPERATION_FLEXE_CLIENT_ADD, "flexe_client_add", client_prov},
    {KAVO_HTL_OPERATION_FLEXE_CALENDAR_UPDATE, "flexe_calendar_update", calendar_update},
    {KAVO_HTL_OPERATION_FLEXE_GROUP_CONFIG_GET, "flexe_group_config_get", group_config_get},
    {KAVO_HTL_OPERATION_FLEXE_GROUP_STATUS_GET, "flexe_group_status_get", group_status_get},
    {KAVO_HTL_OPERATION_FLEXE_OHP_PROV, "flexe_ohp_prov", ohp_prov},
    {KAVO_HTL_OPERATION_FLEXE_OHP_DEPROV, "flexe_ohp_deprov", ohp_deprov},
    {KAVO_HTL_OPERATION_FLEXE_OHP_CHNL_PROV, "flexe_ohp_chnl_prov", ohp_chnl_prov},
    {KAVO_HTL_OPERATION_FLEXE_OHP_CHNL_DEPROV, "flexe_ohp_chnl_deprov", ohp_chnl_deprov},
    {KAVO_HTL_OPERATION_FLEXE_OHP_LOOPBACK, "flexe_ohp_loopback", ohp_loopback},
    {KAVO_HTL_OPERATION_FLEXE_OHP_GE_PMON_GET, "flexe_ohp_ge_pmon_get", ohp_ge_pmon_get},
    {KAVO_HTL_OPERATION_FLEXE_OHP_DEBUG_PMON_GET, "flexe_ohp_debug_pmon_get", ohp_debug_pmon_get},
    {KAVO_HTL_OPERATION_FLEXE_OHP_STATUS_GET, "flexe_ohp_status_get", ohp_status_get},
    {KAVO_HTL_OPERATION_FLEXE_OHP_DBG_CHNL_PROV, "flexe_ohp_dbg_chnl_prov", ohp_dbg_chnl_prov},
    {KAVO_HTL_OPERATION_FLEXE_OHP_DBG_CHNL_DEPROV, "flexe_ohp_dbg_chnl_deprov", ohp_dbg_chnl_deprov},
    {KAVO_HTL_OPERATION_FLEXE_OHP_DBG_CHNL_READ, "flexe_ohp_dbg_chnl_read", ohp_dbg_chnl_read},
    {KAVO_HTL_OPERATION_FLEXE_OHP_DBG_CHNL_WRITE, "flexe_ohp_dbg_chnl_write", ohp_dbg_chnl_write},
};

} // namespace

const flexe_phy_mode& flexe_phy_mode_of(kavo_flexe_pin_mode_t mode)
{
    static constexpr flexe_phy_mode MODES[] = {
        {50, 1, 1, 10}, {100, 4, 1, 20}, {100, 2, 1, 20}, {200, 4, 2, 40}, {400, 8, 4, 80},
    };
    return MODES[mode < LAST_KAVO_FLEXE_PIN_MODE ? mode : KAVO_FLEXE_PIN_MODE_100G_2_LANES];
}

UINT32 flexe_model::num_groups() const { return UINT32(std::count(std::begin(has_group), std::end(has_group), true)); }
UINT32 flexe_model::num_clients() const { return UINT32(std::count(std::begin(has_client), std::end(has_client), true)); }

bool flexe_model::vlan_in_use(UINT32 vlan) const
{
    if (ohp.dbg_provisioned && ohp.dbg_vlan == vlan) return true;
    return std::any_of(ohp.chnls.begin(), ohp.chnls.end(), [&](const flexe_ohp_chnl& c) {
        return c.tags.shim_vlan_tag == vlan || c.tags.section_vlan_tag == vlan;
    });
}

void flexe_model::switch_calendars(firmware& fw, UINT32 chnl, UINT64 now_us)
{
    flexe_group& g = groups[chnl];
    if (!g.switch_pending || now_us < g.switch_due_us) return;
    g.switch_pending = false;
    for (UINT32 dir : {TX, RX}) {
        if (g.switch_scope != KAVO_FLEXE_CALENDAR_UPDATE_MODE_TX_RX && g.switch_scope != dir) continue;
        g.in_use[dir] = 1 - g.in_use[dir];
        // The calendar left becomes the next one to edit: it starts as a copy of
        // the one now in use.
        std::memcpy(g.calendar[dir][1 - g.in_use[dir]], g.calendar[dir][g.in_use[dir]], FLEXE_GROUP_SLOTS);
    }
    fw.console("flexe group %u: calendars %c (tx) and %c (rx) in use\n", chnl, "AB"[g.in_use[TX]], "AB"[g.in_use[RX]]);
}

void flexe_model::advance(firmware& fw, UINT64 now_us)
{
    for (UINT32 k = 0; k < KAVO_NUM_CHANNELS; ++k) {
        if (has_client[k] && (fw.device.channels[k] != KAVO_SEGMENT_TYPE_FLEXE_CLIENT || !has_group[clients[k].group] ||
                              fw.device.channels[clients[k].group] != KAVO_SEGMENT_TYPE_FLEXE_GROUP)) {
            has_client[k] = false;
            if (fw.device.channels[k] == KAVO_SEGMENT_TYPE_FLEXE_CLIENT) fw.device.channels[k] = KAVO_SEGMENT_TYPE_UNUSED;
            flexe_group& g = groups[clients[k].group];
            for (auto& dir : g.calendar)
                for (auto& cal : dir)
                    std::replace(cal, cal + FLEXE_GROUP_SLOTS, UINT8(k), FLEXE_SLOT_FREE);
        }
    }
    for (UINT32 k = 0; k < KAVO_NUM_CHANNELS; ++k) {
        if (!has_group[k]) continue;
        if (fw.device.channels[k] == KAVO_SEGMENT_TYPE_FLEXE_GROUP) {
            switch_calendars(fw, k, now_us);
            continue;
        }
        has_group[k] = false;
        for (UINT32& owner : fw.device.serdes_owner)
            if (owner == k) owner = NO_OWNER;
        std::erase_if(ohp.chnls, [&](const flexe_ohp_chnl& c) { return c.group == k; });
        for (UINT32 c = 0; c < KAVO_NUM_CHANNELS; ++c)
            if (has_client[c] && clients[c].group == k) {
                has_client[c] = false;
                if (fw.device.channels[c] == KAVO_SEGMENT_TYPE_FLEXE_CLIENT) fw.device.channels[c] = KAVO_SEGMENT_TYPE_UNUSED;
            }
    }
}

std::span<const handler> flexe_handlers() { return HANDLERS; }

} // namespace kavo_sim::fw
