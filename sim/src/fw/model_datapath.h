// Channels, cross-connects, loopback, flow control, Ethernet ports and AN/LT.
#ifndef KAVO_SIM_FW_MODEL_DATAPATH_H
#define KAVO_SIM_FW_MODEL_DATAPATH_H

#include "kavo/kavo_api.h"

namespace kavo_sim::fw {

class firmware;

constexpr UINT32 NO_CHANNEL = 0xFFFFFFFF;
constexpr UINT64 NEVER_US = ~UINT64(0);

/* An Ethernet port as the firmware keeps it. Its settings live in the records
   the getters return, so that what is read back is what was stored. */
struct enet_port {
    bool used = false;
    bool anlt = false;                // provisioned through AN/LT
    kavo_enet_cfg_get_t cfg;          // mode, lanes, FEC and every run-time setting
    kavo_enet_alarm_cfg_get_t alarm;  // alarm mode and consequent actions
    // Receive link: the lanes have seen a signal since signal_since_us; up after training.
    UINT64 signal_since_us = NEVER_US;
    bool up = false;
    // Auto-negotiation and link training.
    kavo_enet_anlt_chnl_cfg_t anlt_cfg;
    kavo_enet_anlt_chnl_status_t anlt_status;
    UINT64 run_start_us = 0;   // the current AN/LT run began
    UINT64 phase_start_us = 0; // the current AN or LT phase began

    void init_settings();
};

struct datapath_model {
    UINT32 source[KAVO_NUM_CHANNELS];      // the channel feeding each destination, or NO_CHANNEL
    kavo_loopback_t loopback[KAVO_NUM_CHANNELS];
    kavo_flow_control_cfg_t flow_control[KAVO_NUM_CHANNELS];
    enet_port port[KAVO_NUM_CHANNELS];

    datapath_model();

    /* Brings the model up to time now_us (microseconds since power-up). */
    void advance(firmware& fw, UINT64 now_us);
    /* The channel's Ethernet link is up (PCS locked and aligned). */
    bool link_up(const firmware& fw, UINT32 chnl) const;
    /* The port's transmit signal comes back to its own receiver (a loopback). */
    bool serdes_looped(const firmware& fw, UINT32 port) const;

    // For the handlers.
    /* The Ethernet port on channel chnl, or null when chnl is none. */
    enet_port* enet(const firmware& fw, UINT32 chnl);
    const enet_port* enet(const firmware& fw, UINT32 chnl) const;
    /* Evaluates the port's link at time now_us after its lanes or settings changed. */
    void step_port(firmware& fw, UINT32 chnl, UINT64 now_us);
    /* Forgets everything about a channel (deprovisioned). */
    void forget(UINT32 chnl);
    bool feeds_any(UINT32 chnl) const;
    bool connected(UINT32 chnl) const { return source[chnl] != NO_CHANNEL || feeds_any(chnl); }
    /* The receive defects the port sees now (kavo_enet_alarm_mask_t bits). */
    UINT32 defects(const firmware& fw, UINT32 chnl) const;
    /* The alignment-marker signal-fail bits the port receives. */
    UINT32 rx_am_sf(const firmware& fw, UINT32 chnl) const;
};

} // namespace kavo_sim::fw

#endif
