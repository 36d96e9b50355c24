// The family models of the firmware, one per family (model_<family>.h, served
// by handlers_<family>.cpp). They live in the firmware and are reset with it.
#ifndef KAVO_SIM_FW_MODELS_H
#define KAVO_SIM_FW_MODELS_H

#include "fw/model_datapath.h"
#include "fw/model_defect.h"
#include "fw/model_flexe.h"
#include "fw/model_ilkn.h"
#include "fw/model_macsec.h"
#include "fw/model_mux.h"
#include "fw/model_pe.h"
#include "fw/model_pgmrclk.h"
#include "fw/model_pmon.h"
#include "fw/model_ptp.h"
#include "fw/model_serdes.h"

namespace kavo_sim::fw {

struct models {
    serdes_model serdes;
    datapath_model datapath;
    flexe_model flexe;
    ilkn_model ilkn;
    ptp_model ptp;
    macsec_model macsec;
    mux_model mux;
    pe_model pe;
    pgmrclk_model pgmrclk;
    defect_model defect;
    pmon_model pmon;

    /* In dependency order: the physical layer first, what reports on it last. */
    void advance(firmware& fw, UINT64 now_us)
    {
        serdes.advance(fw, now_us);
        datapath.advance(fw, now_us);
        flexe.advance(fw, now_us);
        ilkn.advance(fw, now_us);
        ptp.advance(fw, now_us);
        macsec.advance(fw, now_us);
        mux.advance(fw, now_us);
        pe.advance(fw, now_us);
        pgmrclk.advance(fw, now_us);
        defect.advance(fw, now_us);
        pmon.advance(fw, now_us);
    }
};

} // namespace kavo_sim::fw

#endif
