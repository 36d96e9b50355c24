// The Interlaken interface and its packet channels.
#ifndef KAVO_SIM_FW_MODEL_ILKN_H
#define KAVO_SIM_FW_MODEL_ILKN_H

#include "kavo/kavo_api.h"

namespace kavo_sim::fw {

class firmware;

/* The owner the interface's lanes carry in serdes_owner: not a channel. */
constexpr UINT32 ILKN_LANE_OWNER = 0x1000;
constexpr UINT32 ILKN_MAX_LANES = 24;
constexpr UINT32 ILKN_MAX_BCW_CHNL = 255;
constexpr UINT64 NEVER = ~UINT64(0);

struct ilkn_model {
    /* Brings the model up to time now_us (microseconds since power-up): takes
       up the interface the device configuration describes, follows its lanes'
       lock, drops channels deprovisioned elsewhere. */
    void advance(firmware& fw, UINT64 now_us);

    /* The interface's lanes, the configuration they came from, and what is
       wrong with it (VELT_SUCCESS when the interface is up for use). */
    bool applied = false;
    kavo_ilkn_intf_cfg_t intf;
    kavo_ilkn_lane_cfg_t lane_cfg;
    VELT_ERROR intf_error = KAVO_ERR_FW_NOT_CONFIGURED;
    UINT32 num_lanes = 0;
    UINT32 lane_port[ILKN_MAX_LANES] = {};
    UINT64 signal_since_us[ILKN_MAX_LANES] = {}; // NEVER while the lane sees no signal

    UINT32 loopback = KAVO_ILKN_LOOPBACK_NONE;
    UINT32 fc_cal_len[2] = {}; // [0] receive, [1] transmit, as the request's flag
    UINT32 fc_cal[2][KAVO_ILKN_MAX_FC_CAL_ENTRIES] = {};

    bool has_chnl[KAVO_NUM_CHANNELS] = {};
    kavo_traffic_ilkn_pkt_t chnls[KAVO_NUM_CHANNELS];

    /* Lane n receives: the interface's own loopback or a signal on its port. */
    bool lane_signal(const firmware& fw, UINT32 n) const;
    /* Time for metaframe lock after the signal appears: four metaframes. */
    UINT64 metaframe_lock_us() const;
    /* Payload bandwidth of the interface, Mb/s. */
    UINT64 bandwidth_mbps() const;
};

} // namespace kavo_sim::fw

#endif
