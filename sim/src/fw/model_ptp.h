// The PTP time-of-day clock and per-channel time stamping.
#ifndef KAVO_SIM_FW_MODEL_PTP_H
#define KAVO_SIM_FW_MODEL_PTP_H

#include "kavo/kavo_api.h"

namespace kavo_sim::fw {

class firmware;

struct ptp_model {
    /* Brings the model up to time now_us (microseconds since power-up): the
       clock starts at the firmware's start; channels that are no longer
       Ethernet ports lose their PTP configuration. */
    void advance(firmware& fw, UINT64 now_us);
    /* The time of day at now_us. */
    kavo_ptp_tod_t tod(UINT64 now_us) const;
    void tod_set(const kavo_ptp_tod_t& t, UINT64 now_us);

    bool started = false;
    // The clock: the time of day it showed at base_us, then running with chip time.
    UINT64 base_sec = 0;
    UINT32 base_nsec = 0, base_frac = 0;
    UINT64 base_us = 0;

    kavo_ptp_config_t config;
    kavo_ptp_chnl_config_t chnl[KAVO_NUM_CHANNELS];
    kavo_ptp_addr_t local_sa[KAVO_NUM_CHANNELS];
    UINT32 one_pps_src = KAVO_PTP_ONE_PPS_TOD_SRC_INTERNAL;
    UINT32 one_pps_loopback = 0;
    UINT32 one_pps_i_delay = 0;
};

} // namespace kavo_sim::fw

#endif
