// FlexE groups, clients, calendars and the FlexE overhead processor.
#ifndef KAVO_SIM_FW_MODEL_FLEXE_H
#define KAVO_SIM_FW_MODEL_FLEXE_H

#include "kavo/kavo_api.h"

namespace kavo_sim::fw {

class firmware;

struct flexe_model {
    /* Brings the model up to time now_us (microseconds since power-up). */
    void advance(firmware& fw, UINT64 now_us);
};

} // namespace kavo_sim::fw

#endif
