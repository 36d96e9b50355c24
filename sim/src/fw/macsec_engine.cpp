// The MACsec engine of a channel and direction: classification by the rules of
// the channel's vports, then SecTAG insertion and protection with the vport's
// SA in use (egress), or SecTAG parsing, replay check, validation and removal
// (ingress). Frames are DA | SA | bypass bytes | ... without FCS.
#include <cstring>

#include "fw/firmware.h"
#include "fw/macsec_crypto.h"

namespace kavo_sim::fw {
namespace {

constexpr UINT32 MAC_BYTES = 12;
constexpr UINT32 SECTAG_BASE = 8; // EtherType, TCI/AN, SL, PN
constexpr UINT32 SCI_BYTES = 8;
constexpr UINT32 SHORT_LENGTH_LIMIT = 48;
// TCI bits
constexpr UINT8 TCI_V = 0x80, TCI_ES = 0x40, TCI_SC = 0x20, TCI_SCB = 0x10, TCI_E = 0x08, TCI_C = 0x04;

UINT32 be16(const UINT8* p) { return UINT32(p[0]) << 8 | p[1]; }
UINT32 be32(const UINT8* p) { return UINT32(p[0]) << 24 | UINT32(p[1]) << 16 | UINT32(p[2]) << 8 | p[3]; }
void put_be16(UINT8* p, UINT32 v) { p[0] = UINT8(v >> 8), p[1] = UINT8(v); }
void put_be32(UINT8* p, UINT32 v) { p[0] = UINT8(v >> 24), p[1] = UINT8(v >> 16), p[2] = UINT8(v >> 8), p[3] = UINT8(v); }

bool masked(UINT32 value, UINT32 want, UINT32 mask) { return (value & mask) == (want & mask); }

/* The header fields rules look at. */
struct frame_view {
    UINT32 num_tags = 0;
    UINT32 tags[2] = {};       // TPID << 16 | TCI
    UINT32 ethertype = 0;      // after the tags, 0 when the frame ends
    const UINT8* after = nullptr; // the bytes after that EtherType
    UINT32 after_size = 0;
};

frame_view view_of(const UINT8* f, UINT32 size)
{
    frame_view v;
    UINT32 off = MAC_BYTES;
    while (off + 4 <= size) {
        const UINT32 tpid = be16(f + off);
        if ((tpid != 0x8100 && tpid != 0x88A8) || v.num_tags == 2) break;
        v.tags[v.num_tags++] = tpid << 16 | be16(f + off + 2);
        off += 4;
    }
    if (off + 2 <= size) {
        v.ethertype = be16(f + off);
        v.after = f + off + 2;
        v.after_size = size - off - 2;
    }
    return v;
}

bool tag_matches(const frame_view& v, UINT32 i, UINT32 want, UINT32 mask)
{
    if (mask == 0) return true;
    return i < v.num_tags && masked(v.tags[i], want, mask);
}

bool rule_matches(const kavo_macsec_rule_config_t& r, const UINT8* f, const frame_view& v)
{
    for (int i = 0; i < 6; ++i)
        if ((f[i] & r.mac_da_mask[i]) != (r.mac_da[i] & r.mac_da_mask[i])) return false;
    if (r.num_tags != KAVO_MACSEC_NUM_TAGS_ANY && UINT32(r.num_tags) != v.num_tags) return false;
    switch (r.packet_type) {
    case KAVO_MACSEC_PACKET_TYPE_OTHER: {
        const auto& o = r.type.others;
        return masked(v.ethertype, o.ethertype, o.ethertype_mask) && tag_matches(v, 0, o.vlan_tag_val_1, o.vlan_tag_mask_1) &&
               tag_matches(v, 1, o.vlan_tag_val_2, o.vlan_tag_mask_2);
    }
    case KAVO_MACSEC_PACKET_TYPE_MPLS: {
        const auto& m = r.type.mpls;
        if (!masked(v.ethertype, m.ethertype, m.ethertype_mask)) return false;
        const UINT32 labels[2] = {m.label_1, m.label_2}, masks[2] = {m.label_mask_1, m.label_mask_2};
        for (UINT32 i = 0; i < 2; ++i) {
            if (masks[i] == 0) continue;
            if (v.after_size < 4 * (i + 1) || !masked(be32(v.after + 4 * i) >> 12, labels[i], masks[i])) return false;
        }
        return true;
    }
    case KAVO_MACSEC_PACKET_TYPE_PBB: {
        const auto& p = r.type.pbb;
        if (v.num_tags == 0 || (v.tags[0] >> 16) != 0x88A8 || !masked(v.tags[0] & 0xFFF, p.b_vid, p.b_vid_mask))
            return false;
        if (v.ethertype != 0x88E7 || v.after_size < 4) return false;
        return masked(be32(v.after) & 0xFFFFFF, p.i_sid, p.i_sid_mask) && masked(v.after[0] >> 5, p.i_pcp, p.i_pcp_mask);
    }
    default:
        return true;
    }
}

/* The 12-byte GCM nonce: SCI | PN, or for XPN (SSCI | PN64) XOR salt. */
void nonce_of(const macsec_sa& sa, const UINT8* sci, UINT64 pn, UINT8* nonce)
{
    if (!sa.xpn()) {
        std::memcpy(nonce, sci, SCI_BYTES);
        put_be32(nonce + 8, UINT32(pn));
        return;
    }
    put_be32(nonce, sa.config.ssci);
    put_be32(nonce + 4, UINT32(pn >> 32));
    put_be32(nonce + 8, UINT32(pn));
    const auto* salt = reinterpret_cast<const UINT8*>(sa.config.salt);
    for (UINT32 i = 0; i < gcm::NONCE_SIZE; ++i)
        nonce[i] ^= salt[i];
}

const UINT8* key_of(const macsec_sa& sa) { return reinterpret_cast<const UINT8*>(sa.config.crypt_key); }
size_t key_size_of(const macsec_sa& sa) { return (sa.config.flags & KAVO_MACSEC_SA_KEY_SIZE_256) ? 32 : 16; }

void count(kavo_stats_macsec_channel_dir_t& s, UINT32 size) { s.pkts++, s.octets += size; }

} // namespace

macsec_frame_result macsec_model::run_frame(firmware& fw, UINT32 chnl, UINT32 dir, const UINT8* f, UINT32 size,
                                            UINT32 bypass)
{
    macsec_frame_result r;
    const auto& ch = channels[chnl][dir];
    auto& cs = dir == 0 ? channel_stats[chnl].egress : channel_stats[chnl].ingress;
    const auto pass = [&] {
        cs.pkts_bypassed++;
        r.out.assign(f, f + size);
        return r;
    };
    const auto drop = [&] {
        cs.pkts_dropped++;
        return r;
    };
    count(cs, size);
    if (global[dir].bypass_all || ch.bypass) return pass();
    if (size > ch.max_frame_size) return drop();
    const frame_view v = view_of(f, size);
    for (UINT32 e : ch.bypass_ethertypes)
        if (e != 0 && e == v.ethertype) return pass();

    // Classification: the rules of the channel's vports in this direction, in id order.
    macsec_rule* hit = nullptr;
    for (macsec_rule& rule : rules) {
        if (!rule.used) continue;
        const macsec_vport& vp = vports[rule.vport];
        if (vp.chnl == chnl && vp.dir == dir && rule_matches(rule.config, f, v)) {
            hit = &rule;
            break;
        }
    }
    if (hit == nullptr) {
        cs.pkts_unclassified++;
        return ch.default_action == KAVO_MACSEC_DEFAULT_ACTION_DROP ? drop() : pass();
    }
    hit->stats.pkts_matched++;
    hit->stats.octets_matched += size;
    macsec_vport& vp = vports[hit->vport];
    vp.stats.pkts_classified++;
    if (hit->config.drop) {
        vp.stats.pkts_dropped_rule++;
        return drop();
    }
    if (hit->config.control_packet) {
        vp.stats.pkts_control++;
        return pass();
    }
    if (bypass == MACSEC_NONE) bypass = vp.config.sec_tag_offset;
    const UINT32 clear = MAC_BYTES + bypass;
    if (clear > size) {
        r.result = KAVO_FW_ERR_INVALID_PARAMETERS;
        return r;
    }
    macsec_sa* sa = vp.active_sa == MACSEC_NONE ? nullptr : &sas[vp.active_sa];

    if (dir == 0) {
        if (sa == nullptr || sa->expired) {
            vp.stats.pkts_not_using_sa++;
            return drop();
        }
        const UINT32 flags = sa->config.flags;
        if (flags & KAVO_MACSEC_SA_AT_DROP) return drop();
        if (flags & KAVO_MACSEC_SA_AT_BYPASS) return pass();
        if (sa->config.mtu_size != 0 && size > sa->config.mtu_size) {
            vp.stats.pkts_too_long++;
            if (flags & KAVO_MACSEC_SA_MTU_OVRSZ_DROP_EN) return drop();
        }
        const bool encrypt = (flags & KAVO_MACSEC_SA_ENC_AUTH_AES_GCM) != 0;
        const bool with_sci = (vp.config.flags & KAVO_MACSEC_VPORT_INCLUDE_SCI) != 0;
        const UINT32 data = size - clear;
        const UINT32 tag_size = SECTAG_BASE + (with_sci ? SCI_BYTES : 0);
        const UINT64 pn = sa->next_pn;
        r.out.resize(size + tag_size + gcm::ICV_SIZE);
        UINT8* o = r.out.data();
        std::memcpy(o, f, clear);
        UINT8* tag = o + clear;
        put_be16(tag, ch.sectag_ethertype);
        tag[2] = UINT8((vp.config.flags & KAVO_MACSEC_VPORT_END_STATION ? TCI_ES : 0) | (with_sci ? TCI_SC : 0) |
                       (vp.config.flags & KAVO_MACSEC_VPORT_SCB ? TCI_SCB : 0) | (encrypt ? TCI_E | TCI_C : 0) |
                       sa->an());
        tag[3] = UINT8(data < SHORT_LENGTH_LIMIT ? data : 0);
        put_be32(tag + 4, UINT32(pn));
        const auto* sci = reinterpret_cast<const UINT8*>(sa->config.sci);
        if (with_sci) std::memcpy(tag + SECTAG_BASE, sci, SCI_BYTES);
        UINT8 nonce[gcm::NONCE_SIZE];
        nonce_of(*sa, sci, pn, nonce);
        UINT8* secure = tag + tag_size;
        std::memcpy(secure, f + clear, data);
        const bool ok = encrypt ? gcm::seal(key_of(*sa), key_size_of(*sa), nonce, o, clear + tag_size, secure, data,
                                            secure, secure + data)
                                : gcm::seal(key_of(*sa), key_size_of(*sa), nonce, o, clear + tag_size + data, nullptr,
                                            0, nullptr, secure + data);
        if (!ok) {
            r.result = KAVO_FW_ERR_FAIL;
            r.out.clear();
            return r;
        }
        sa->stats.pkts_protected++;
        if (encrypt) sa->stats.pkts_encrypted++;
        sa->stats.octets_protected += data;
        vp.stats.pkts_protected++;
        cs.pkts_secured++;
        pn_used(fw, UINT32(sa - sas.data()), pn);
        return r;
    }

    // Ingress. Untagged frames: the SA in use decides how strict the vport is.
    const auto strict_of = [](const macsec_sa* s) {
        return s == nullptr || s->config.sa_type.ingress.validate_frames == KAVO_MACSEC_VALIDATE_STRICT;
    };
    if (clear + SECTAG_BASE > size || be16(f + clear) != ch.sectag_ethertype) {
        vp.stats.pkts_untagged++;
        return strict_of(sa) ? drop() : pass();
    }
    const UINT8* tag = f + clear;
    const UINT8 tci = tag[2];
    const bool with_sci = (tci & TCI_SC) != 0, encrypted = (tci & TCI_E) != 0;
    const UINT32 tag_size = SECTAG_BASE + (with_sci ? SCI_BYTES : 0);
    const UINT32 sl = tag[3];
    const UINT32 pn_lo = be32(tag + 4);
    const bool well_formed = !(tci & TCI_V) && !(with_sci && (tci & (TCI_ES | TCI_SCB))) && !((tci & TCI_C) && !encrypted) &&
                             sl < SHORT_LENGTH_LIMIT && pn_lo != 0 && clear + tag_size + gcm::ICV_SIZE <= size;
    const UINT32 data = well_formed ? size - clear - tag_size - UINT32(gcm::ICV_SIZE) : 0;
    if (!well_formed || (sl != 0 && sl != data) || (sl == 0 && data < SHORT_LENGTH_LIMIT)) {
        vp.stats.pkts_bad_tag++;
        return drop();
    }
    // The SA of the tag's association number, on this vport, for this SCI.
    sa = nullptr;
    for (UINT32 id : vp.sas) {
        macsec_sa& s = sas[id];
        if (s.an() == (tci & 3u) && !s.expired &&
            (!with_sci || std::memcmp(tag + SECTAG_BASE, s.config.sci, SCI_BYTES) == 0))
            sa = &s;
    }
    if (sa == nullptr) {
        vp.stats.pkts_not_using_sa++;
        return drop();
    }
    const auto& fc = sa->config.sa_type.ingress;
    // The full packet number: an XPN's high half is recovered around the lowest acceptable PN.
    const UINT64 window = sa->config.window_size;
    const UINT64 lowest = sa->next_pn > window ? sa->next_pn - window : 1;
    UINT64 pn = pn_lo;
    if (sa->xpn()) {
        const UINT64 hi = (lowest >> 32) + (pn_lo < UINT32(lowest) ? 1 : 0);
        pn = hi << 32 | pn_lo;
    }
    if (!fc.replay_check_disable && pn < lowest) {
        sa->stats.pkts_late++;
        return drop();
    }
    UINT8 nonce[gcm::NONCE_SIZE];
    nonce_of(*sa, with_sci ? tag + SECTAG_BASE : reinterpret_cast<const UINT8*>(sa->config.sci), pn, nonce);
    r.out.resize(clear + data);
    UINT8* o = r.out.data();
    std::memcpy(o, f, clear);
    const UINT8* secure = tag + tag_size;
    const UINT8* icv = secure + data;
    const bool valid = encrypted ? gcm::open(key_of(*sa), key_size_of(*sa), nonce, f, clear + tag_size, secure, data,
                                             o + clear, icv)
                                 : (std::memcpy(o + clear, secure, data),
                                    gcm::open(key_of(*sa), key_size_of(*sa), nonce, f, clear + tag_size + data,
                                              nullptr, 0, nullptr, icv));
    if (!valid) {
        (encrypted ? sa->stats.pkts_invalid : sa->stats.pkts_not_valid)++;
        if (fc.validate_frames == KAVO_MACSEC_VALIDATE_STRICT ||
            (encrypted && fc.validate_frames == KAVO_MACSEC_VALIDATE_CHECK)) {
            r.out.clear();
            return drop();
        }
        return r;
    }
    sa->stats.pkts_ok++;
    sa->stats.octets_validated += data;
    vp.stats.pkts_ok++;
    cs.pkts_secured++;
    if (pn >= sa->next_pn) pn_used(fw, UINT32(sa - sas.data()), pn);
    return r;
}

void macsec_model::pn_used(firmware& fw, UINT32 id, UINT64 pn)
{
    macsec_sa& s = sas[id];
    const bool egress = sa_dir(id) == 0;
    if (pn < s.max_pn()) {
        s.next_pn = pn + 1;
    } else if (s.config.flags & KAVO_MACSEC_SA_ENABLE_PN_ROLLOVER) {
        s.next_pn = 1;
        s.threshold_reported = false;
    } else {
        // Packet numbers ran out: the chained SA takes over.
        s.next_pn = s.max_pn();
        s.expired = true;
        if (s.config.flags & KAVO_MACSEC_SA_ENABLE_SA_EXPIRED_IRQ) notify(fw, 1, id);
        macsec_vport& vp = vports[s.vport];
        if (vp.active_sa == id) vp.active_sa = s.chained;
        s.chained = MACSEC_NONE;
    }
    if (!egress || s.expired || s.threshold_reported) return;
    const auto& fc = s.config.sa_type.egress;
    UINT64 threshold = UINT64(fc.pn_threshold_hi) << 32 | fc.pn_threshold_lo;
    const auto& g = global[0];
    if (threshold == 0) threshold = s.xpn() ? UINT64(g.xpn_threshold_hi) << 32 | g.xpn_threshold_lo : g.pn_threshold;
    if (threshold != 0 && s.next_pn >= threshold) {
        s.threshold_reported = true;
        notify(fw, 0, id);
    }
}

void macsec_model::notify(firmware& fw, UINT32 event_index, UINT32 sa_id)
{
    if (!(notifications_enabled & (1u << event_index))) return;
    auto& list = pending[event_index];
    if (std::find(list.begin(), list.end(), sa_id) == list.end()) list.push_back(sa_id);
    fw.raise_ipi(VELT_IPI_MACSEC_NOTIFICATION);
}

} // namespace kavo_sim::fw
