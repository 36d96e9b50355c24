// The MACsec engines: vports, rules, SAs, statistics, notifications.
//
// Refusals: an id that names nothing (out of range or free) or a channel beyond
// the device is KAVO_FW_ERR_NUMBER_OUT_OF_RANGE; a record of the wrong size or
// with values the engine cannot take is KAVO_FW_ERR_INVALID_PARAMETERS; what
// the objects' state forbids (a vport that still has rules or SAs, a full pool,
// an SA that is not the one in use) is KAVO_FW_ERR_FAIL.
#include <algorithm>
#include <cstring>

#include "fw/firmware.h"
#include "fw/macsec_crypto.h"

namespace kavo_sim::fw {

void macsec_model::advance(firmware&, UINT64) {}

namespace {

constexpr UINT32 VPORT_FLAGS = KAVO_MACSEC_VPORT_INCLUDE_SCI | KAVO_MACSEC_VPORT_END_STATION | KAVO_MACSEC_VPORT_SCB;
constexpr UINT32 SA_FLAGS = 0x3FFF;
constexpr UINT32 UPDATE_CMDS = 0x3F;
constexpr UINT32 EVENTS = KAVO_MACSEC_NOTIFICATION_PN_THRESHOLD | KAVO_MACSEC_NOTIFICATION_SA_EXPIRED;

macsec_model& ms(firmware& fw)
{
    fw.model.macsec.pools();
    return fw.model.macsec;
}

/* The request's record, exactly its size; false (and the reply refused) otherwise. */
template <class T> bool take(const request& req, reply& rep, T& out)
{
    if (req.data.size() != sizeof(T) || !req.payload(out)) {
        rep.result = KAVO_FW_ERR_INVALID_PARAMETERS;
        return false;
    }
    return true;
}

bool is_bool(UINT32 v) { return v <= 1; }

void insert_sorted(std::vector<UINT32>& ids, UINT32 id) { ids.insert(std::lower_bound(ids.begin(), ids.end(), id), id); }
void erase_id(std::vector<UINT32>& ids, UINT32 id) { ids.erase(std::remove(ids.begin(), ids.end(), id), ids.end()); }

bool vport_config_ok(const kavo_macsec_vport_config_t& c)
{
    return c.sec_tag_offset <= 64 && c.sec_tag_offset % 2 == 0 && (c.flags & ~VPORT_FLAGS) == 0;
}

bool rule_config_ok(const kavo_macsec_rule_config_t& c)
{
    return is_bool(c.drop) && is_bool(c.control_packet) && !(c.drop && c.control_packet) &&
           UINT32(c.packet_type) < LAST_KAVO_MACSEC_PACKET_TYPE && UINT32(c.num_tags) < LAST_KAVO_MACSEC_NUM_TAGS;
}

UINT64 pn_of(UINT32 lo, UINT32 hi) { return UINT64(hi) << 32 | lo; }

/* A packet number the SA can take: not 0, within 32 bits unless extended. */
bool pn_ok(UINT32 flags, UINT64 pn) { return pn != 0 && ((flags & KAVO_MACSEC_SA_SN_SIZE_64) || pn <= 0xFFFFFFFFull); }

/* Key material and cipher suite: AES-GCM only, the GHASH key (when given) the key's own. */
bool key_ok(const kavo_macsec_sa_config_t& c)
{
    UINT8 h[16];
    const size_t size = (c.flags & KAVO_MACSEC_SA_KEY_SIZE_256) ? 32 : 16;
    if (!gcm::hash_key(reinterpret_cast<const UINT8*>(c.crypt_key), size, h)) return false;
    static const UINT32 zero[4] = {};
    return std::memcmp(c.auth_key, zero, sizeof(zero)) == 0 || std::memcmp(c.auth_key, h, sizeof(h)) == 0;
}

bool sa_config_ok(const kavo_macsec_sa_config_t& c, UINT32 dir)
{
    const UINT32 f = c.flags;
    if ((f & ~SA_FLAGS) || (f & KAVO_MACSEC_SA_ENC_AES_CTR) ||
        ((f & KAVO_MACSEC_SA_AT_BYPASS) && (f & KAVO_MACSEC_SA_AT_DROP)))
        return false;
    if (!pn_ok(f, pn_of(c.seq_num_lo, c.seq_num_hi)) || !key_ok(c)) return false;
    if ((f & KAVO_MACSEC_SA_SN_SIZE_64) && c.window_size > 0x40000000) return false;
    if (dir == 1)
        return UINT32(c.sa_type.ingress.validate_frames) < LAST_KAVO_MACSEC_VALIDATE &&
               is_bool(c.sa_type.ingress.replay_check_disable);
    return true;
}

/* The SA record as it is now: derived GHASH key and current packet number. */
kavo_macsec_sa_config_t sa_now(const macsec_sa& s)
{
    kavo_macsec_sa_config_t c = s.config;
    gcm::hash_key(reinterpret_cast<const UINT8*>(c.crypt_key), (c.flags & KAVO_MACSEC_SA_KEY_SIZE_256) ? 32 : 16,
                  reinterpret_cast<UINT8*>(c.auth_key));
    c.seq_num_lo = UINT32(s.next_pn);
    c.seq_num_hi = UINT32(s.next_pn >> 32);
    return c;
}

void vport_add(firmware& fw, const request& req, reply& rep)
{
    auto& m = ms(fw);
    kavo_macsec_vport_config_t c;
    const UINT32 chnl = req.info.parent_id, dir = req.info.flag, key = req.info.element_id;
    if (!take(req, rep, c)) return;
    if (chnl >= KAVO_NUM_CHANNELS) {
        rep.result = KAVO_FW_ERR_NUMBER_OUT_OF_RANGE;
        return;
    }
    if (dir >= MACSEC_DIRECTIONS || !vport_config_ok(c)) {
        rep.result = KAVO_FW_ERR_INVALID_PARAMETERS;
        return;
    }
    UINT32 on_channel = 0, free_id = MACSEC_NONE;
    for (UINT32 id = dir * KAVO_MACSEC_NUM_VPORTS; id < (dir + 1) * KAVO_MACSEC_NUM_VPORTS; ++id) {
        const macsec_vport& v = m.vports[id];
        if (!v.used) {
            if (free_id == MACSEC_NONE) free_id = id;
        } else if (v.chnl == chnl) {
            ++on_channel;
            if (v.key == key) {
                rep.result = KAVO_FW_ERR_INVALID_PARAMETERS; // the key names a vport already
                return;
            }
        }
    }
    if (free_id == MACSEC_NONE || on_channel >= KAVO_MACSEC_MAX_VPORTS_PER_CHANNEL) {
        rep.result = KAVO_FW_ERR_FAIL;
        return;
    }
    macsec_vport& v = m.vports[free_id];
    v = macsec_vport{};
    v.used = true, v.chnl = chnl, v.dir = dir, v.key = key, v.config = c;
    rep.value = free_id;
}

macsec_vport* vport_or_refuse(firmware& fw, UINT32 id, reply& rep)
{
    macsec_vport* v = ms(fw).vport(id);
    if (v == nullptr) rep.result = KAVO_FW_ERR_NUMBER_OUT_OF_RANGE;
    return v;
}
macsec_rule* rule_or_refuse(firmware& fw, UINT32 id, reply& rep)
{
    macsec_rule* r = ms(fw).rule(id);
    if (r == nullptr) rep.result = KAVO_FW_ERR_NUMBER_OUT_OF_RANGE;
    return r;
}
macsec_sa* sa_or_refuse(firmware& fw, UINT32 id, reply& rep)
{
    macsec_sa* s = ms(fw).sa(id);
    if (s == nullptr) rep.result = KAVO_FW_ERR_NUMBER_OUT_OF_RANGE;
    return s;
}

void vport_read(firmware& fw, const request& req, reply& rep)
{
    const macsec_vport* v = vport_or_refuse(fw, req.info.parent_id, rep);
    if (!v) return;
    kavo_macsec_vport_read_params_t r;
    r.chnl_id = v->chnl;
    r.direction = kavo_macsec_device_direction_t(v->dir);
    r.vport_key = v->key;
    r.config = v->config;
    r.num_rules = UINT32(v->rules.size());
    r.num_sas = UINT32(v->sas.size());
    r.active_sa_id = v->active_sa;
    rep.record(r);
}

void vport_delete(firmware& fw, const request& req, reply& rep)
{
    macsec_vport* v = vport_or_refuse(fw, req.info.element_id, rep);
    if (!v) return;
    if (!v->rules.empty() || !v->sas.empty()) {
        rep.result = KAVO_FW_ERR_FAIL;
        return;
    }
    *v = macsec_vport{};
}

void vport_update(firmware& fw, const request& req, reply& rep)
{
    kavo_macsec_vport_config_t c;
    macsec_vport* v = vport_or_refuse(fw, req.info.element_id, rep);
    if (!v || !take(req, rep, c)) return;
    if (!vport_config_ok(c)) {
        rep.result = KAVO_FW_ERR_INVALID_PARAMETERS;
        return;
    }
    v->config = c;
}

void rule_add(firmware& fw, const request& req, reply& rep)
{
    auto& m = ms(fw);
    kavo_macsec_rule_config_t c;
    macsec_vport* v = vport_or_refuse(fw, req.info.parent_id, rep);
    if (!v || !take(req, rep, c)) return;
    if (!rule_config_ok(c)) {
        rep.result = KAVO_FW_ERR_INVALID_PARAMETERS;
        return;
    }
    auto it = std::find_if(m.rules.begin(), m.rules.end(), [](const macsec_rule& r) { return !r.used; });
    if (it == m.rules.end() || v->rules.size() >= KAVO_MACSEC_MAX_RULES_PER_VPORT) {
        rep.result = KAVO_FW_ERR_FAIL;
        return;
    }
    const UINT32 id = UINT32(it - m.rules.begin());
    *it = macsec_rule{};
    it->used = true, it->vport = req.info.parent_id, it->config = c;
    insert_sorted(v->rules, id);
    rep.value = id;
}

void rule_read(firmware& fw, const request& req, reply& rep)
{
    if (const macsec_rule* r = rule_or_refuse(fw, req.info.element_id, rep)) rep.record(r->config);
}

void rule_delete(firmware& fw, const request& req, reply& rep)
{
    macsec_rule* r = rule_or_refuse(fw, req.info.element_id, rep);
    if (!r) return;
    erase_id(ms(fw).vports[r->vport].rules, req.info.element_id);
    *r = macsec_rule{};
}

/* A new SA on vport vport_id; MACSEC_NONE (and the reply refused) when it cannot be. */
UINT32 sa_create(firmware& fw, UINT32 vport_id, const request& req, reply& rep)
{
    auto& m = ms(fw);
    kavo_macsec_sa_config_t c;
    macsec_vport* v = vport_or_refuse(fw, vport_id, rep);
    if (!v || !take(req, rep, c)) return MACSEC_NONE;
    if (!sa_config_ok(c, v->dir)) {
        rep.result = KAVO_FW_ERR_INVALID_PARAMETERS;
        return MACSEC_NONE;
    }
    const UINT32 an = (c.flags >> 7) & 3;
    for (UINT32 id : v->sas)
        if (m.sas[id].an() == an) {
            rep.result = KAVO_FW_ERR_INVALID_PARAMETERS; // one SA per association number
            return MACSEC_NONE;
        }
    const UINT32 first = v->dir * KAVO_MACSEC_NUM_SAS;
    auto it = std::find_if(m.sas.begin() + first, m.sas.begin() + first + KAVO_MACSEC_NUM_SAS,
                           [](const macsec_sa& s) { return !s.used; });
    if (it == m.sas.begin() + first + KAVO_MACSEC_NUM_SAS || v->sas.size() >= KAVO_MACSEC_MAX_SAS_PER_VPORT) {
        rep.result = KAVO_FW_ERR_FAIL;
        return MACSEC_NONE;
    }
    const UINT32 id = UINT32(it - m.sas.begin());
    *it = macsec_sa{};
    it->used = true, it->vport = vport_id, it->config = c;
    it->next_pn = pn_of(c.seq_num_lo, c.seq_num_hi);
    insert_sorted(v->sas, id);
    rep.value = id;
    return id;
}

void sa_add(firmware& fw, const request& req, reply& rep)
{
    const UINT32 id = sa_create(fw, req.info.parent_id, req, rep);
    if (id == MACSEC_NONE) return;
    macsec_vport& v = ms(fw).vports[req.info.parent_id];
    if (v.active_sa == MACSEC_NONE) v.active_sa = id;
}

void sa_chain(firmware& fw, const request& req, reply& rep)
{
    auto& m = ms(fw);
    macsec_sa* active = sa_or_refuse(fw, req.info.parent_id, rep);
    if (!active) return;
    if (m.vports[active->vport].active_sa != req.info.parent_id || active->chained != MACSEC_NONE) {
        rep.result = KAVO_FW_ERR_FAIL;
        return;
    }
    const UINT32 id = sa_create(fw, active->vport, req, rep);
    if (id != MACSEC_NONE) m.sas[req.info.parent_id].chained = id;
}

void sa_read(firmware& fw, const request& req, reply& rep)
{
    if (const macsec_sa* s = sa_or_refuse(fw, req.info.element_id, rep)) rep.record(sa_now(*s));
}

void sa_update(firmware& fw, const request& req, reply& rep)
{
    kavo_macsec_sa_update_t u;
    macsec_sa* s = sa_or_refuse(fw, req.info.element_id, rep);
    if (!s || !take(req, rep, u)) return;
    const UINT32 cmds = u.update_cmds;
    // The SA as it would become; refused as a whole when any part is wrong.
    kavo_macsec_sa_config_t next = sa_now(*s);
    const kavo_macsec_sa_config_t& in = u.cfg;
    constexpr UINT32 KEY_BITS = KAVO_MACSEC_SA_KEY_SIZE_256 | KAVO_MACSEC_SA_SN_SIZE_64;
    constexpr UINT32 FIXED_BITS = KEY_BITS | KAVO_MACSEC_SA_AN_3;
    if (cmds & KAVO_MACSEC_SA_UPDATE_KEY) {
        std::memcpy(next.crypt_key, in.crypt_key, sizeof(in.crypt_key));
        std::memcpy(next.auth_key, in.auth_key, sizeof(in.auth_key));
        std::memcpy(next.salt, in.salt, sizeof(in.salt));
        next.ssci = in.ssci;
        next.flags = (next.flags & ~KEY_BITS) | (in.flags & KEY_BITS);
    }
    if (cmds & KAVO_MACSEC_SA_UPDATE_FLAGS) next.flags = (next.flags & FIXED_BITS) | (in.flags & ~FIXED_BITS);
    if (cmds & KAVO_MACSEC_SA_UPDATE_PN) next.seq_num_lo = in.seq_num_lo, next.seq_num_hi = in.seq_num_hi;
    if (cmds & KAVO_MACSEC_SA_UPDATE_WINDOW) next.window_size = in.window_size;
    if (cmds & KAVO_MACSEC_SA_UPDATE_MTU) next.mtu_size = in.mtu_size;
    if (cmds & KAVO_MACSEC_SA_UPDATE_FLOW_CONTROL) next.sa_type = in.sa_type;
    if (cmds == 0 || (cmds & ~UPDATE_CMDS) || !sa_config_ok(next, macsec_model::sa_dir(req.info.element_id))) {
        rep.result = KAVO_FW_ERR_INVALID_PARAMETERS;
        return;
    }
    if (!(cmds & KAVO_MACSEC_SA_UPDATE_KEY)) std::memcpy(next.auth_key, s->config.auth_key, sizeof(next.auth_key));
    s->config = next;
    if (cmds & (KAVO_MACSEC_SA_UPDATE_PN | KAVO_MACSEC_SA_UPDATE_KEY)) {
        s->next_pn = pn_of(next.seq_num_lo, next.seq_num_hi);
        s->expired = s->threshold_reported = false;
    }
}

void sa_delete(firmware& fw, const request& req, reply& rep)
{
    auto& m = ms(fw);
    const UINT32 id = req.info.element_id;
    macsec_sa* s = sa_or_refuse(fw, id, rep);
    if (!s) return;
    macsec_vport& v = m.vports[s->vport];
    erase_id(v.sas, id);
    if (v.active_sa == id) v.active_sa = s->chained;
    for (UINT32 other : v.sas)
        if (m.sas[other].chained == id) m.sas[other].chained = MACSEC_NONE;
    for (auto& list : m.pending)
        erase_id(list, id);
    *s = macsec_sa{};
}

void sa_next_pn_set(firmware& fw, const request& req, reply& rep)
{
    kavo_macsec_sa_next_pn_t pn;
    macsec_sa* s = sa_or_refuse(fw, req.info.element_id, rep);
    if (!s || !take(req, rep, pn)) return;
    if (!pn_ok(s->config.flags, pn_of(pn.next_pn_lo, pn.next_pn_hi))) {
        rep.result = KAVO_FW_ERR_INVALID_PARAMETERS;
        return;
    }
    s->next_pn = pn_of(pn.next_pn_lo, pn.next_pn_hi);
    s->expired = s->threshold_reported = false;
}

void sa_next_pn_get(firmware& fw, const request& req, reply& rep)
{
    const macsec_sa* s = sa_or_refuse(fw, req.info.element_id, rep);
    if (!s) return;
    rep.value = UINT32(s->next_pn);
    rep.value2 = UINT32(s->next_pn >> 32);
}

void sa_switch(firmware& fw, const request& req, reply& rep)
{
    auto& m = ms(fw);
    const UINT32 active_id = req.info.parent_id, new_id = req.info.element_id;
    macsec_sa* active = sa_or_refuse(fw, active_id, rep);
    macsec_sa* next = active ? sa_or_refuse(fw, new_id, rep) : nullptr;
    if (!next) return;
    macsec_vport& v = m.vports[active->vport];
    if (next->vport != active->vport || next->expired) {
        rep.result = KAVO_FW_ERR_INVALID_PARAMETERS;
        return;
    }
    if (v.active_sa != active_id) {
        rep.result = KAVO_FW_ERR_FAIL;
        return;
    }
    v.active_sa = new_id;
    if (active->chained == new_id) active->chained = MACSEC_NONE;
}

bool channel_config_ok(const kavo_macsec_channel_config_t& c)
{
    if (!is_bool(c.bypass) || UINT32(c.default_action) >= LAST_KAVO_MACSEC_DEFAULT_ACTION ||
        c.max_frame_size < 64 || c.max_frame_size > 16383 || c.sectag_ethertype == 0 || c.sectag_ethertype > 0xFFFF)
        return false;
    return std::all_of(std::begin(c.bypass_ethertypes), std::end(c.bypass_ethertypes),
                       [](UINT32 e) { return e <= 0xFFFF; });
}

/* The channel and direction of a channel request; false (refused) when out of range. */
bool channel_of(const request& req, reply& rep, bool with_channel)
{
    if (req.info.mode >= MACSEC_DIRECTIONS) {
        rep.result = KAVO_FW_ERR_INVALID_PARAMETERS;
        return false;
    }
    if (with_channel && req.info.element_id >= KAVO_NUM_CHANNELS) {
        rep.result = KAVO_FW_ERR_NUMBER_OUT_OF_RANGE;
        return false;
    }
    return true;
}

void channel_config(firmware& fw, const request& req, reply& rep)
{
    kavo_macsec_channel_config_t c;
    if (!channel_of(req, rep, true) || !take(req, rep, c)) return;
    if (!channel_config_ok(c)) {
        rep.result = KAVO_FW_ERR_INVALID_PARAMETERS;
        return;
    }
    ms(fw).channels[req.info.element_id][req.info.mode] = c;
}

void channel_config_get(firmware& fw, const request& req, reply& rep)
{
    if (channel_of(req, rep, true)) rep.record(ms(fw).channels[req.info.element_id][req.info.mode]);
}

void channel_global_config(firmware& fw, const request& req, reply& rep)
{
    kavo_macsec_channel_global_config_t c;
    if (!channel_of(req, rep, false) || !take(req, rep, c)) return;
    if (!is_bool(c.bypass_all)) {
        rep.result = KAVO_FW_ERR_INVALID_PARAMETERS;
        return;
    }
    ms(fw).global[req.info.mode] = c;
}

void channel_global_config_get(firmware& fw, const request& req, reply& rep)
{
    if (channel_of(req, rep, false)) rep.record(ms(fw).global[req.info.mode]);
}

/* Replies with the counters, then clears them when the request asks to. */
template <class T> void counters(const request& req, reply& rep, T& stats)
{
    rep.record(stats);
    if (req.info.flag) stats.init();
}

void chnl_stats_get(firmware& fw, const request& req, reply& rep)
{
    if (req.info.element_id >= KAVO_NUM_CHANNELS) {
        rep.result = KAVO_FW_ERR_NUMBER_OUT_OF_RANGE;
        return;
    }
    counters(req, rep, ms(fw).channel_stats[req.info.element_id]);
}

void vport_stats_get(firmware& fw, const request& req, reply& rep)
{
    if (macsec_vport* v = vport_or_refuse(fw, req.info.element_id, rep)) counters(req, rep, v->stats);
}

void sa_stats_get(firmware& fw, const request& req, reply& rep)
{
    if (macsec_sa* s = sa_or_refuse(fw, req.info.element_id, rep)) counters(req, rep, s->stats);
}

void rule_stats_get(firmware& fw, const request& req, reply& rep)
{
    if (macsec_rule* r = rule_or_refuse(fw, req.info.element_id, rep)) counters(req, rep, r->stats);
}

void vport_sa_stats_clear(firmware& fw, const request& req, reply& rep)
{
    macsec_vport* v = vport_or_refuse(fw, req.info.element_id, rep);
    if (!v) return;
    v->stats.init();
    for (UINT32 id : v->sas)
        ms(fw).sas[id].stats.init();
}

void notification_enable(firmware& fw, const request& req, reply& rep)
{
    kavo_macsec_notification_summary_t n;
    if (!take(req, rep, n)) return;
    if (n.events & ~EVENTS) {
        rep.result = KAVO_FW_ERR_INVALID_PARAMETERS;
        return;
    }
    auto& m = ms(fw);
    m.notifications_enabled = n.events;
    for (UINT32 e = 0; e < 2; ++e)
        if (!(n.events & (1u << e))) m.pending[e].clear();
}

void notification_summary_get(firmware& fw, const request&, reply& rep)
{
    const auto& m = ms(fw);
    kavo_macsec_notification_summary_t n;
    n.num_pn_threshold = UINT32(m.pending[0].size());
    n.num_sa_expired = UINT32(m.pending[1].size());
    n.events = (n.num_pn_threshold ? KAVO_MACSEC_NOTIFICATION_PN_THRESHOLD : 0) |
               (n.num_sa_expired ? KAVO_MACSEC_NOTIFICATION_SA_EXPIRED : 0);
    rep.record(n);
}

void notification_get(firmware& fw, const request& req, reply& rep)
{
    if (req.info.mode >= LAST_KAVO_MACSEC_NOTIFICATION_GET) {
        rep.result = KAVO_FW_ERR_INVALID_PARAMETERS;
        return;
    }
    auto& list = ms(fw).pending[req.info.mode];
    kavo_macsec_notification_t n;
    n.type = kavo_macsec_notification_get_commands_t(req.info.mode);
    n.num_sa_ids = UINT32(std::min(list.size(), std::size(n.sa_ids)));
    std::copy_n(list.begin(), n.num_sa_ids, n.sa_ids);
    list.erase(list.begin(), list.begin() + n.num_sa_ids);
    n.more = !list.empty();
    rep.record(n);
}

void fips_test(firmware& fw, const request& req, reply& rep)
{
    const UINT32 chnl = req.info.parent_id, size = req.info.element_id, dir = req.info.flag;
    if (chnl >= KAVO_NUM_CHANNELS) {
        rep.result = KAVO_FW_ERR_NUMBER_OUT_OF_RANGE;
        return;
    }
    // A frame carries at least its MAC addresses; the payload is the frame padded to whole words.
    if (dir >= MACSEC_DIRECTIONS || size < 14 || size > req.data.size() || req.data.size() - size > 3 ||
        (req.info.mode != MACSEC_NONE && req.info.mode > 64)) {
        rep.result = KAVO_FW_ERR_INVALID_PARAMETERS;
        return;
    }
    macsec_frame_result r = ms(fw).run_frame(fw, chnl, dir, req.data.data(), size, req.info.mode);
    rep.result = r.result;
    if (r.result != VELT_SUCCESS) return;
    rep.value = UINT32(r.out.size());
    r.out.resize((r.out.size() + 3) / 4 * 4, 0);
    rep.data = std::move(r.out);
}

void list_vports(firmware& fw, const request& req, reply& rep)
{
    if (req.info.parent_id >= KAVO_NUM_CHANNELS) {
        rep.result = KAVO_FW_ERR_NUMBER_OUT_OF_RANGE;
        return;
    }
    kavo_macsec_channel_vport_list_t l;
    const auto& vports = ms(fw).vports;
    for (UINT32 id = 0; id < vports.size() && l.num_vports < std::size(l.vport_ids); ++id)
        if (vports[id].used && vports[id].chnl == req.info.parent_id) l.vport_ids[l.num_vports++] = id;
    rep.record(l);
}

void list_rules(firmware& fw, const request& req, reply& rep)
{
    const macsec_vport* v = vport_or_refuse(fw, req.info.parent_id, rep);
    if (!v) return;
    kavo_macsec_vport_rule_list_t l;
    l.num_rules = UINT32(v->rules.size());
    std::copy(v->rules.begin(), v->rules.end(), l.rule_ids);
    rep.record(l);
}

void list_sas(firmware& fw, const request& req, reply& rep)
{
    const macsec_vport* v = vport_or_refuse(fw, req.info.parent_id, rep);
    if (!v) return;
    kavo_macsec_vport_sa_list_t l;
    l.num_sas = UINT32(v->sas.size());
    l.active_sa_id = v->active_sa;
    std::copy(v->sas.begin(), v->sas.end(), l.sa_ids);
    rep.record(l);
}

constexpr handler HANDLERS[] = {
    {KAVO_HTL_OPERATION_MACSEC_VPORT_ADD, "macsec_vport_add", vport_add},
    {KAVO_HTL_OPERATION_MACSEC_VPORT_DELETE, "macsec_vport_delete", vport_delete},
    {KAVO_HTL_OPERATION_MACSEC_VPORT_UPDATE, "macsec_vport_update", vport_update},
    {KAVO_HTL_OPERATION_MACSEC_RULE_ADD, "macsec_rule_add", rule_add},
    {KAVO_HTL_OPERATION_MACSEC_RULE_DELETE, "macsec_rule_delete", rule_delete},
    {KAVO_HTL_OPERATION_MACSEC_SA_ADD, "macsec_sa_add", sa_add},
    {KAVO_HTL_OPERATION_MACSEC_SA_CHAIN, "macsec_sa_chain", sa_chain},
    {KAVO_HTL_OPERATION_MACSEC_SA_READ, "macsec_sa_read", sa_read},
    {KAVO_HTL_OPERATION_MACSEC_SA_UPDATE, "macsec_sa_update", sa_update},
    {KAVO_HTL_OPERATION_MACSEC_SA_SWITCH, "macsec_sa_switch", sa_switch},
    {KAVO_HTL_OPERATION_MACSEC_SA_DELETE, "macsec_sa_delete", sa_delete},
    {KAVO_HTL_OPERATION_MACSEC_SA_NEXT_PN_SET, "macsec_sa_next_pn_set", sa_next_pn_set},
    {KAVO_HTL_OPERATION_MACSEC_SA_NEXT_PN_GET, "macsec_sa_next_pn_get", sa_next_pn_get},
    {KAVO_HTL_OPERATION_MACSEC_CHANNEL_CONFIG, "macsec_channel_config", channel_config},
    {KAVO_HTL_OPERATION_MACSEC_CHANNEL_GLOBAL_CONFIG, "macsec_channel_global_config", channel_global_config},
    {KAVO_HTL_OPERATION_STATS_MACSEC_CHANNEL_GET, "stats_macsec_channel_get", chnl_stats_get},
    {KAVO_HTL_OPERATION_STATS_MACSEC_SA_GET, "stats_macsec_sa_get", sa_stats_get},
    {KAVO_HTL_OPERATION_STATS_MACSEC_RULE_GET, "stats_macsec_rule_get", rule_stats_get},
    {KAVO_HTL_OPERATION_STATS_MACSEC_VPORT_GET, "stats_macsec_vport_get", vport_stats_get},
    {KAVO_HTL_OPERATION_MACSEC_NOTIFICATION_ENABLE, "macsec_notification_enable", notification_enable},
    {KAVO_HTL_OPERATION_MACSEC_NOTIFICATION_GET, "macsec_notification_get", notification_get},
    {KAVO_HTL_OPERATION_MACSEC_NOTIFICATION_SUMMARY_GET, "macsec_notification_summary_get", notification_summary_get},
    {KAVO_HTL_OPERATION_MACSEC_FIPS_TEST, "macsec_fips_test", fips_test},
    {KAVO_HTL_OPERATION_MACSEC_VPORT_READ, "macsec_vport_read", vport_read},
    {KAVO_HTL_OPERATION_MACSEC_CHNL_VPORT_LIST_GET, "macsec_chnl_vport_list_get", list_vports},
    {KAVO_HTL_OPERATION_MACSEC_VPORT_RULE_LIST_GET, "macsec_vport_rule_list_get", list_rules},
    {KAVO_HTL_OPERATION_MACSEC_VPORT_SA_LIST_GET, "macsec_vport_sa_list_get", list_sas},
    {KAVO_HTL_OPERATION_MACSEC_RULE_READ, "macsec_rule_read", rule_read},
    {KAVO_HTL_OPERATION_STATS_MACSEC_VPORT_SA_CLEAR, "stats_macsec_vport_sa_clear", vport_sa_stats_clear},
    {KAVO_HTL_OPERATION_MACSEC_CHANNEL_CONFIG_GET, "macsec_channel_config_get", channel_config_get},
    {KAVO_HTL_OPERATION_MACSEC_CHANNEL_GLOBAL_CONFIG_GET, "macsec_channel_global_config_get",
     channel_global_config_get},
};

} // namespace

std::span<const handler> macsec_handlers() { return HANDLERS; }

} // namespace kavo_sim::fw
