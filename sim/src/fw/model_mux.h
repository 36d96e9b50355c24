// The protection mux between two line sides.
#ifndef KAVO_SIM_FW_MODEL_MUX_H
#define KAVO_SIM_FW_MODEL_MUX_H

#include "kavo/kavo_api.h"

namespace kavo_sim::fw {

class firmware;

/* The mux exists once the device is configured with mux_mode and the host has
   sent its device configuration. Line channels sit on side A or side B; a side
   has link when every one of its line channels has. The side carrying traffic
   moves by the host's selection, by the select pin, or, under firmware
   supervision, when the active side's link has been lost for the hold-off time
   while the other side has link (and back to A after the wait-to-restore time
   when revertive). Link loss is seen when the firmware next looks (every
   request and interrupt read): the hold-off counts from then. */
struct mux_model {
    struct line_chnl {
        bool in_mux = false;
        UINT32 side = KAVO_MUX_ACTIVE_SELECT_LINE_A;
        UINT32 host_chnl = 0;
    };

    bool configured = false;
    kavo_mux_dev_config_t cfg;
    line_chnl lines[KAVO_NUM_CHANNELS];
    UINT32 state = KAVO_MUX_STATE_ACTIVE;
    UINT32 source = KAVO_MUX_INPUT_SELECT_SOURCE_REGISTER;
    bool inv_polarity = false;
    UINT32 select_reg = KAVO_MUX_ACTIVE_SELECT_LINE_A; // the active-select register
    UINT32 active = KAVO_MUX_ACTIVE_SELECT_LINE_A;     // the side carrying traffic
    UINT32 switches = 0;
    UINT64 last_switch_us = 0;
    bool loss_seen = false; // the active side has no link, since loss_since_us
    UINT64 loss_since_us = 0;
    bool restore_seen = false; // line A has link again, since restore_since_us
    UINT64 restore_since_us = 0;

    /* Brings the model up to time now_us (microseconds since power-up). */
    void advance(firmware& fw, UINT64 now_us);

    /* Restarts the state machine on the configuration's initial side. */
    void start(const kavo_mux_dev_config_t& c);
    bool side_up(const firmware& fw, UINT32 side) const;
    /* The side the select pin asks for, after polarity. */
    UINT32 pin_side(const firmware& fw) const;
    /* Moves traffic to `side`; a move the host did not ask for is announced by
       VELT_IPI_HMUX_STATE_CHANGE. */
    void move_to(firmware& fw, UINT32 side, bool announce);
    /* Puts the side where the state and select source say, after a host change. */
    void settle(firmware& fw);
    kavo_mux_status_t status(const firmware& fw) const;
};

} // namespace kavo_sim::fw

#endif
