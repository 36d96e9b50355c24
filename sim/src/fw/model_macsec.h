// The MACsec engines: vports, rules, SAs, statistics, notifications.
#ifndef KAVO_SIM_FW_MODEL_MACSEC_H
#define KAVO_SIM_FW_MODEL_MACSEC_H

#include "kavo/kavo_api.h"

namespace kavo_sim::fw {

class firmware;

struct macsec_model {
    /* Brings the model up to time now_us (microseconds since power-up). */
    void advance(firmware& fw, UINT64 now_us);
};

} // namespace kavo_sim::fw

#endif
