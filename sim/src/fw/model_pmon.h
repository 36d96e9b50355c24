// Performance counters and their triggers.
#ifndef KAVO_SIM_FW_MODEL_PMON_H
#define KAVO_SIM_FW_MODEL_PMON_H

#include <array>
#include <vector>

#include "model_defect.h"
#include "kavo/kavo_api.h"

namespace kavo_sim::fw {

class firmware;

/* The counters of one object: running totals, and the snapshot the last
   trigger took, which is what the host reads. */
struct pmon_counters {
    std::vector<UINT64> live;  // since power-up or provisioning
    std::vector<UINT64> prev;  // live at the last trigger or reset
    std::vector<UINT64> base;  // live at the last reset
    std::vector<UINT64> snap;  // what the host reads
    UINT32 snap_trigger = 0;   // the trigger that took it
    UINT32 snap_period_ms = 0; // the time it covers
    UINT64 prev_us = 0, base_us = 0;

    void clear(size_t n, UINT64 now_us);
    void trigger(bool accumulate, UINT32 trigger_count, UINT64 now_us);
    void reset(UINT64 now_us);
    /* The record: trigger count, period, then each counter as its low and high halves. */
    void write(UINT8* record, size_t size) const;
};

/* Counters advance with the chip's time for Ethernet ports whose link is up,
   from the traffic knobs of their channel and the bit errors of their lanes;
   Interlaken and FlexE objects keep their counters, which stay zero until
   their datapath counts. A trigger, every trigger_period_ms or on request,
   snapshots them: the counts of the last period, or everything since the
   last reset when accumulating. */
class pmon_model {
  public:
    static constexpr UINT32 ILKN_PKT_CHANNELS = 8;
    static constexpr UINT32 FLEXE_CLIENTS = 24;
    static constexpr UINT32 FLEXE_GROUPS = 12;
    // Line rate of one SerDes lane of an Ethernet port, bit/s.
    static constexpr double LANE_RATE_BPS = 100e9;

    pmon_model();

    /* Brings the model up to time now_us (microseconds since power-up). */
    void advance(firmware& fw, UINT64 now_us);
    /* Counts up to now_us, triggering on the way; the number of triggers. */
    UINT32 run(const chip_view& chip, UINT64 now_us);

    VELT_ERROR configure(const kavo_pmon_cfg_t& cfg, UINT64 now_us);
    const kavo_pmon_cfg_t& config() const { return cfg_; }
    /* A trigger on request (run first); refused while triggering automatically. */
    VELT_ERROR manual_trigger(UINT64 now_us);

    VELT_ERROR enet_port_get(const chip_view& chip, UINT32 chnl, bool reset, UINT64 now_us,
                             kavo_pmon_enet_port_segment_t& out);
    VELT_ERROR ilkn_intf_get(bool reset, UINT64 now_us, kavo_pmon_ilkn_intf_t& out);
    VELT_ERROR ilkn_pkt_get(UINT32 chnl, bool reset, UINT64 now_us, kavo_pmon_ilkn_pkt_t& out);
    VELT_ERROR flexe_client_get(UINT32 client, bool reset, UINT64 now_us, kavo_pmon_flexe_client_t& out);
    VELT_ERROR flexe_group_get(UINT32 group, bool reset, UINT64 now_us, kavo_pmon_flexe_group_t& out);

  private:
    struct traffic {
        double frames[3] = {}; // fractions carried between steps, per frame size
        double fcs = 0, bit_errors = 0;
    };
    void step(const chip_view& chip, UINT64 to_us);
    void count_enet(const chip_view& chip, UINT32 chnl, double seconds);
    void trigger(UINT32 count, UINT64 at_us);
    template <class T> static void read(pmon_counters& c, bool reset, UINT64 now_us, T& out);

    kavo_pmon_cfg_t cfg_;
    bool adopted_ = false; // the device configuration's settings are taken
    UINT64 last_us_ = 0;
    UINT64 next_trigger_us_ = 0;
    UINT32 triggers_ = 0;
    std::array<pmon_counters, KAVO_NUM_CHANNELS> enet_;
    std::array<bool, KAVO_NUM_CHANNELS> enet_present_{};
    std::array<traffic, KAVO_NUM_CHANNELS> traffic_;
    pmon_counters ilkn_intf_;
    std::array<pmon_counters, ILKN_PKT_CHANNELS> ilkn_pkt_;
    std::array<pmon_counters, FLEXE_CLIENTS> flexe_client_;
    std::array<pmon_counters, FLEXE_GROUPS> flexe_group_;
};

} // namespace kavo_sim::fw

#endif
