// SerDes lanes: sources, PRBS, equalisation, eye, adaptation, microcode.
#ifndef KAVO_SIM_FW_MODEL_SERDES_H
#define KAVO_SIM_FW_MODEL_SERDES_H

#include "kavo/kavo_api.h"

namespace kavo_sim::fw {

class firmware;

struct serdes_model {
    /* Brings the model up to time now_us (microseconds since power-up). */
    void advance(firmware& fw, UINT64 now_us);
    /* The port's receiver sees a signal: a link partner or a loopback. */
    bool signal_present(const firmware& fw, UINT32 port) const;
};

} // namespace kavo_sim::fw

#endif
