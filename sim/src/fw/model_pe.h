// PE host provisioning.
#ifndef KAVO_SIM_FW_MODEL_PE_H
#define KAVO_SIM_FW_MODEL_PE_H

#include "kavo/kavo_api.h"

namespace kavo_sim::fw {

class firmware;

/* The PE hosts: each provisioned host claims its host channel (a
   KAVO_SEGMENT_TYPE_PE_HOST channel) until it is deprovisioned or the device
   is shut down. */
struct pe_model {
    struct host {
        bool provisioned = false;
        kavo_pe_config_t cfg;
    };
    host hosts[LAST_KAVO_PE_HOST_ID];

    /* Brings the model up to time now_us (microseconds since power-up). */
    void advance(firmware& fw, UINT64 now_us);
    /* The first thing wrong with provisioning host `id` with `c`, or VELT_SUCCESS. */
    VELT_ERROR check(const firmware& fw, UINT32 id, const kavo_pe_config_t& c) const;
    /* A line channel mapped by a provisioned host other than `except`. */
    bool line_mapped(UINT32 chnl, UINT32 except) const;
};

} // namespace kavo_sim::fw

#endif
