// SerDes lanes: sources, PRBS, equalisation, eye, adaptation, microcode.
#ifndef KAVO_SIM_FW_MODEL_SERDES_H
#define KAVO_SIM_FW_MODEL_SERDES_H

#include <vector>

#include "fw/serdes_lane.h"
#include "kavo/kavo_api.h"

namespace kavo_sim::fw {

class firmware;

/* A setting with a stored value (kept for the next reset) and the value the
   running lane uses; see kavo_serdes_cfg_act_t. */
struct serdes_setting {
    bool stored = false, active = false;
    void set(UINT32 action, bool v)
    {
        if (action != KAVO_SERDES_CFG_ACT_APPLY) stored = v;
        if (action != KAVO_SERDES_CFG_ACT_STORE) active = v;
    }
};

enum serdes_adapt_state : UINT32 { ADAPT_IDLE = 0, ADAPT_RUNNING = 1, ADAPT_DONE = 2, ADAPT_WAITING = 3 };

struct serdes_lane_state {
    UINT32 pin_mode = KAVO_SERDES_PIN_MODE_50G_PAM4;
    UINT32 tx_source = KAVO_SERDES_TX_SRC_MISSION, rx_source = KAVO_SERDES_RX_SRC_MISSION;
    kavo_serdes_squelch_data_t tx_fixed{}, rx_fixed{};
    serdes_setting tx_disable, tx_invert, rx_invert, tx_pre_code, rx_pre_code, optical;
    kavo_serdes_eq_taps_cfg_t taps{};
    bool lt_only = false, single_step = false;
    UINT32 los_recovery_ms = 0;

    // PRBS generator and monitor.
    UINT32 gen_mode = KAVO_SERDES_PRBS_NONE, mon_mode = KAVO_SERDES_PRBS_NONE;
    UINT32 gen_user[serdes::USER_WORDS] = {}, mon_user[serdes::USER_WORDS] = {};
    UINT32 tx_errors_pending = 0; // injected into the transmitted PRBS, not yet received
    bool locked = false;
    UINT64 lock_key = 0; // what the lock verdict was taken on
    UINT64 bits = 0, errors = 0;
    UINT32 lock_losses = 0;

    // Receive side: signal, clock recovery, adaptation, monitors.
    bool raw_signal = false, sampled = false, present_from_start = false;
    UINT64 signal_since_us = 0, cdr_ready_us = 0;
    UINT32 los_count = 0, reset_count = 0, fifo_reset_count = 0;
    UINT32 adapt_state = ADAPT_IDLE, adapt_iterations = 0;
    UINT64 adapt_next_us = 0;
    double rx_ffe[serdes::NUM_TAPS] = {0, 0, 1, 0, 0};
    UINT32 eye_depth[2] = {0, 0}; // 1-D and 2-D monitors, 0 when off
    UINT32 fec_dwell_ms = 0;
    UINT64 fec_start_us = 0;
};

struct serdes_model {
    serdes_lane_state lane[48];
    UINT64 last_us = 0;
    UINT64 rng_state = 0;

    // Microcode being streamed, and the one running.
    std::vector<UINT8> ucode;
    UINT32 ucode_expected = 0; // image size the image header announces, 0 before it
    UINT32 ucode_version = 0;  // 0: none loaded

    /* Brings the model up to time now_us (microseconds since power-up). */
    void advance(firmware& fw, UINT64 now_us);
    /* The port's receiver sees a signal: a link partner or a loopback. */
    bool signal_present(const firmware& fw, UINT32 port) const;

    // For the handlers.
    bool raw_signal(const firmware& fw, UINT32 port) const;
    bool cdr_lock(const firmware& fw, UINT32 port) const;
    /* What reaches the port's receiver; kind none without a signal. */
    serdes::stream received_stream(const firmware& fw, UINT32 port) const;
    double path_loss_db(const firmware& fw, UINT32 port) const;
    serdes::eye eye(const firmware& fw, UINT32 port) const;
    double bit_rate_per_us(UINT32 port) const;
    double ber(const firmware& fw, UINT32 port) const;
    void relock(firmware& fw, UINT32 port);
    /* Takes the PRBS checkers' verdicts again where what they see changed. */
    void settle(firmware& fw);
    void settle(firmware& fw, UINT32 port);
    void reset_lane(firmware& fw, UINT32 port, UINT64 now_us);
};

} // namespace kavo_sim::fw

#endif
