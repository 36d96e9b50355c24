// FlexE groups, clients, calendars and the FlexE overhead processor.
#ifndef KAVO_SIM_FW_MODEL_FLEXE_H
#define KAVO_SIM_FW_MODEL_FLEXE_H

#include <deque>
#include <vector>

#include "kavo/kavo_api.h"

namespace kavo_sim::fw {

class firmware;

/* A group's calendar slot: instance w, slot s is slot 20 w + s. */
constexpr UINT32 FLEXE_GROUP_SLOTS = KAVO_FLEXE_MAX_INSTANCES * KAVO_FLEXE_SLOTS_PER_INSTANCE;
constexpr UINT8 FLEXE_SLOT_FREE = 0xFF;
constexpr UINT8 FLEXE_SLOT_UNAVAILABLE = 0xFE;
constexpr UINT32 FLEXE_MAX_GROUPS = 12;
constexpr UINT32 FLEXE_MAX_CLIENTS = 24;

/* What a PHY's pin mode gives: its rate, its SerDes lanes, its 100G instances
   and its slots (a 50G PHY fills half an instance). */
struct flexe_phy_mode {
    UINT32 gbps, lanes, instances, slots;
};
const flexe_phy_mode& flexe_phy_mode_of(kavo_flexe_pin_mode_t mode);

struct flexe_group {
    kavo_flexe_group_cfg_t cfg;
    UINT32 instances = 0;
    UINT32 available[2][KAVO_FLEXE_MAX_INSTANCES] = {}; // per direction (0 tx, 1 rx), slots a client may take
    UINT8 calendar[2][2][FLEXE_GROUP_SLOTS];             // [direction][A/B][slot]: client channel
    UINT32 in_use[2] = {};                               // per direction: KAVO_FLEXE_CALENDAR_MODE_A or _B
    bool switch_pending = false;
    UINT64 switch_due_us = 0;
    UINT32 switch_scope = 0;
};

struct flexe_client {
    UINT32 group = 0;
    kavo_flexe_client_t cfg;
};

/* A PHY's management channels on the overhead processor's GE interface. */
struct flexe_ohp_chnl {
    UINT32 group, phy_id;
    kavo_flexe_ohp_chnl_cfg_data_t tags;
};

struct flexe_ohp {
    static constexpr UINT32 DBG_QUEUE_FRAMES = 16;
    bool provisioned = false;
    UINT32 mode = LAST_KAVO_FLEXE_OHP_INTERFACE_MODE;
    UINT32 loopback = KAVO_FLEXE_OHP_LOOPBACK_NONE;
    std::vector<flexe_ohp_chnl> chnls;
    bool dbg_provisioned = false;
    UINT32 dbg_vlan = 0;
    bool dbg_strip = false;
    std::deque<std::vector<UINT8>> dbg_queue; // frames waiting for the host, as it will read them
    kavo_flexe_ohp_ge_pmon_t ge;
    kavo_flexe_ohp_debug_pmon_t dbg;
};

struct flexe_model {
    /* Brings the model up to time now_us (microseconds since power-up): drops
       what was deprovisioned elsewhere, makes calendar switches whose timer ran. */
    void advance(firmware& fw, UINT64 now_us);

    flexe_group* group(UINT32 chnl) { return chnl < KAVO_NUM_CHANNELS && has_group[chnl] ? &groups[chnl] : nullptr; }
    UINT32 num_groups() const;
    UINT32 num_clients() const;
    /* The overhead processor's VLAN ids in use (management and debug channels). */
    bool vlan_in_use(UINT32 vlan) const;
    void switch_calendars(firmware& fw, UINT32 chnl, UINT64 now_us);

    bool has_group[KAVO_NUM_CHANNELS] = {};
    flexe_group groups[KAVO_NUM_CHANNELS];
    bool has_client[KAVO_NUM_CHANNELS] = {};
    flexe_client clients[KAVO_NUM_CHANNELS];
    flexe_ohp ohp;
};

} // namespace kavo_sim::fw

#endif
