// The MACsec engines: vports, rules, SAs, statistics, notifications. One engine
// per channel and direction; objects are numbered from pools shared by every
// channel of a direction (vports 0..767 egress, 768.. ingress; SAs 0..1535
// egress, 1536.. ingress; rules 0..1535 of either direction).
#ifndef KAVO_SIM_FW_MODEL_MACSEC_H
#define KAVO_SIM_FW_MODEL_MACSEC_H

#include <vector>

#include "kavo/kavo_api.h"

namespace kavo_sim::fw {

class firmware;

constexpr UINT32 MACSEC_NONE = 0xFFFFFFFF;
constexpr UINT32 MACSEC_DIRECTIONS = 2;

struct macsec_vport {
    bool used = false;
    UINT32 chnl = 0;
    UINT32 dir = 0;
    UINT32 key = 0;
    kavo_macsec_vport_config_t config;
    std::vector<UINT32> rules; // ids, ascending
    std::vector<UINT32> sas;   // ids, ascending
    UINT32 active_sa = MACSEC_NONE;
    kavo_stats_macsec_vport_t stats;
};

struct macsec_rule {
    bool used = false;
    UINT32 vport = 0;
    kavo_macsec_rule_config_t config;
    kavo_stats_macsec_rule_t stats;
};

struct macsec_sa {
    bool used = false;
    UINT32 vport = 0;
    kavo_macsec_sa_config_t config; // as added; its PN words are not kept current
    UINT64 next_pn = 1;             // egress: the next PN to send; ingress: the next expected
    bool expired = false;
    bool threshold_reported = false;
    UINT32 chained = MACSEC_NONE; // the SA that takes over when this one expires
    kavo_stats_macsec_sa_t stats;

    UINT32 an() const { return (config.flags >> 7) & 3; }
    bool xpn() const { return (config.flags & KAVO_MACSEC_SA_SN_SIZE_64) != 0; }
    UINT64 max_pn() const { return xpn() ? ~UINT64(0) : 0xFFFFFFFFull; }
};

/* A frame through one engine: what came in, what goes out (empty: dropped). */
struct macsec_frame_result {
    VELT_ERROR result = VELT_SUCCESS;
    std::vector<UINT8> out;
};

struct macsec_model {
    // The pools live on the heap and are made on the first MACsec request
    // (pools()): a firmware start that never sees one does not pay for them.
    std::vector<macsec_vport> vports;
    std::vector<macsec_rule> rules;
    std::vector<macsec_sa> sas;
    void pools()
    {
        if (!vports.empty()) return;
        vports.resize(KAVO_MACSEC_NUM_VPORTS * MACSEC_DIRECTIONS);
        rules.resize(KAVO_MACSEC_NUM_RULES);
        sas.resize(KAVO_MACSEC_NUM_SAS * MACSEC_DIRECTIONS);
    }
    kavo_macsec_channel_config_t channels[KAVO_NUM_CHANNELS][MACSEC_DIRECTIONS];
    kavo_macsec_channel_global_config_t global[MACSEC_DIRECTIONS];
    kavo_stats_macsec_channel_t channel_stats[KAVO_NUM_CHANNELS];
    UINT32 notifications_enabled = 0;                // kavo_macsec_notification_type_t set
    std::vector<UINT32> pending[2];                  // SA ids per event: PN threshold, expired

    /* Brings the model up to time now_us (microseconds since power-up). */
    void advance(firmware& fw, UINT64 now_us);

    /* One frame through channel chnl's engine in direction dir; bypass is
       the number of bytes after the MAC addresses left in clear, or
       MACSEC_NONE for the vport's sec_tag_offset. */
    macsec_frame_result run_frame(firmware& fw, UINT32 chnl, UINT32 dir, const UINT8* frame, UINT32 size,
                                  UINT32 bypass);

    // Services of the handlers and the engine.
    macsec_vport* vport(UINT32 id) { return id < vports.size() && vports[id].used ? &vports[id] : nullptr; }
    macsec_rule* rule(UINT32 id) { return id < rules.size() && rules[id].used ? &rules[id] : nullptr; }
    macsec_sa* sa(UINT32 id) { return id < sas.size() && sas[id].used ? &sas[id] : nullptr; }
    static UINT32 vport_dir(UINT32 id) { return id < KAVO_MACSEC_NUM_VPORTS ? 0 : 1; }
    static UINT32 sa_dir(UINT32 id) { return id < KAVO_MACSEC_NUM_SAS ? 0 : 1; }
    /* After a frame used PN `pn` of SA `id`: the next PN, expiry, takeover, notifications. */
    void pn_used(firmware& fw, UINT32 id, UINT64 pn);
    void notify(firmware& fw, UINT32 event_index, UINT32 sa_id);
};

} // namespace kavo_sim::fw

#endif
