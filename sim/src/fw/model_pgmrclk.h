// Programmable clock outputs and MACsec memory scrubbing.
#ifndef KAVO_SIM_FW_MODEL_PGMRCLK_H
#define KAVO_SIM_FW_MODEL_PGMRCLK_H

#include "kavo/kavo_api.h"

namespace kavo_sim::fw {

class firmware;

/* The clock outputs: each divides its source by an integer divider that the
   firmware picks, and may be squelched by a SerDes port's loss of signal or an
   Ethernet channel's link loss.

   Beside them, the scrubber of the MACsec classification memory: one pass
   every SCRUB_PERIOD_MS of chip time from the firmware's first look. The
   SIM_KNOB_TCAM_ERRORS knob counts the errors put into the memory; the next
   pass corrects those it has not corrected yet. */
struct pgmrclk_model {
    static constexpr UINT32 MAX_DIVIDER = 4096;
    static constexpr double TOLERANCE_PPM = 100.0; // achieved against requested output
    static constexpr double MAX_INPUT_MHZ = 1000.0;
    static constexpr UINT32 SCRUB_PERIOD_MS = 100;
    static constexpr UINT32 NONE = 0xFFFFFFFF;

    struct output {
        bool configured = false;
        bool squelched = false;
        kavo_pgmrclk_cfg_get_t rec;
    };
    output outputs[LAST_KAVO_PGMRCLK_ID];

    bool scrubbing = false;
    UINT64 next_pass_us = 0;
    UINT32 errors_seen = 0; // knob value already corrected
    kavo_debug_macsec_tcam_scrub_stats_t scrub;

    pgmrclk_model();

    /* Brings the model up to time now_us (microseconds since power-up). */
    void advance(firmware& fw, UINT64 now_us);
    /* The output is held by its squelch source right now. */
    bool held(const firmware& fw, const kavo_pgmrclk_cfg_get_t& r) const;
    /* The divider giving output_mhz from input_mhz within the tolerance, or
       the error that refuses the ratio. */
    static VELT_ERROR divider(double input_mhz, double output_mhz, UINT32& n);
};

} // namespace kavo_sim::fw

#endif
