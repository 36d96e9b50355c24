// Channels, cross-connects, loopback, flow control, Ethernet ports and AN/LT.
#ifndef KAVO_SIM_FW_MODEL_DATAPATH_H
#define KAVO_SIM_FW_MODEL_DATAPATH_H

#include "kavo/kavo_api.h"

namespace kavo_sim::fw {

class firmware;

struct datapath_model {
    /* Brings the model up to time now_us (microseconds since power-up). */
    void advance(firmware& fw, UINT64 now_us);
    /* The channel's Ethernet link is up (PCS locked and aligned). */
    bool link_up(const firmware& fw, UINT32 chnl) const;
    /* The port's transmit signal comes back to its own receiver (a loopback). */
    bool serdes_looped(const firmware& fw, UINT32 port) const;
};

} // namespace kavo_sim::fw

#endif
