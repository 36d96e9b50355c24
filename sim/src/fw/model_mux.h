// The protection mux between two line sides.
#ifndef KAVO_SIM_FW_MODEL_MUX_H
#define KAVO_SIM_FW_MODEL_MUX_H

#include "kavo/kavo_api.h"

namespace kavo_sim::fw {

class firmware;

struct mux_model {
    /* Brings the model up to time now_us (microseconds since power-up). */
    void advance(firmware& fw, UINT64 now_us);
};

} // namespace kavo_sim::fw

#endif
