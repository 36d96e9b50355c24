// MACsec through the public API against the virtual engines: the published
// known answers byte for byte both ways, replay and ICV failures counted, the
// object life cycle with its refusals, notifications, and the host frame's
// null checks and record traces.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "kavo_test_device.h"
#include "kavo_test_log.h"

using kavo_test::has;
using kavo_test::take;
using bytes = std::vector<UINT8>;

namespace {

constexpr auto EGRESS = KAVO_MACSEC_EGRESS_DIRECTION;
constexpr auto INGRESS = KAVO_MACSEC_INGRESS_DIRECTION;
constexpr UINT32 CHNL = 3;

bytes hex(const std::string& s)
{
    bytes out;
    for (size_t i = 0; i + 1 < s.size(); i += 2)
        out.push_back(UINT8(std::stoul(s.substr(i, 2), nullptr, 16)));
    return out;
}

const bytes KEY = hex("AD7A2BD03EAC835A6F620FDCB506B345");
const bytes SCI = hex("12153524C0895E81");
constexpr UINT32 PN = 0xB2C28465;
const std::string MACS = "D609B1F056637A0D46DF998D";

struct known_answer {
    const char* name;
    bool confidential;
    std::string plain;     // DA | SA | user data
    std::string protected_; // DA | SA | SecTAG | secure data | ICV
} const KNOWN[] = {
    {"GCM-AES-128 confidentiality", true,
     MACS + "08000F101112131415161718191A1B1C1D1E1F202122232425262728292A2B2C2D2E2F303132333435363738393A0002",
     MACS + "88E52E00B2C2846512153524C0895E81" +
         "701AFA1CC039C0D765128A665DAB69243899BF7318CCDC81C9931DA17FBE8EDD7D17CB8B4C26FC81E3284F2B7FBA713D" +
         "4F8D55E7D3F06FD5A13C0C29B9D5B880"},
    {"GCM-AES-128 integrity only", false,
     MACS + "08000F101112131415161718191A1B1C1D1E1F202122232425262728292A2B2C2D2E2F30313233340001",
     MACS + "88E5222AB2C2846512153524C0895E81" +
         "08000F101112131415161718191A1B1C1D1E1F202122232425262728292A2B2C2D2E2F30313233340001" +
         "F09478A9B09007D06F46E9B6A1DA25DD"},
};

class macsec : public kavo_test::device_test {
  protected:
    void SetUp() override
    {
        device_test::SetUp();
        ASSERT_EQ(bring_up(0), VELT_SUCCESS);
    }

    UINT32 vport(kavo_macsec_device_direction_t dir, UINT32 key = 1, UINT32 chnl = CHNL)
    {
        kavo_macsec_vport_config_t cfg; // the SCI travels in the SecTAG
        UINT32 id = 0xDEAD;
        EXPECT_EQ(kavo_macsec_vport_add(0, chnl, dir, key, &cfg, &id), VELT_SUCCESS);
        return id;
    }
    UINT32 rule(UINT32 vport_id, kavo_macsec_rule_config_t cfg = {})
    {
        UINT32 id = 0xDEAD;
        EXPECT_EQ(kavo_macsec_rule_add(0, vport_id, &cfg, &id), VELT_SUCCESS);
        return id;
    }
    static kavo_macsec_sa_config_t sa_cfg(bool confidential, UINT32 an = KAVO_MACSEC_SA_AN_2, UINT32 pn = PN)
    {
        kavo_macsec_sa_config_t sa;
        sa.flags = an | (confidential ? KAVO_MACSEC_SA_ENC_AUTH_AES_GCM : 0);
        std::memcpy(sa.crypt_key, KEY.data(), KEY.size());
        std::memcpy(sa.sci, SCI.data(), SCI.size());
        sa.seq_num_lo = pn;
        return sa;
    }
    UINT32 sa(UINT32 vport_id, kavo_macsec_sa_config_t cfg)
    {
        UINT32 id = 0xDEAD;
        EXPECT_EQ(kavo_macsec_sa_add(0, vport_id, &cfg, &id), VELT_SUCCESS);
        return id;
    }
    /* One frame through the engine; the output as long as it came back (0: dropped). */
    static VELT_ERROR run(kavo_macsec_device_direction_t dir, const bytes& in, bytes& out, UINT32 bypass = 0)
    {
        bytes padded(in);
        padded.resize((in.size() + 3) & ~size_t(3));
        out.assign(256, 0xEE);
        UINT32 size = UINT32(out.size());
        const VELT_ERROR rc = kavo_macsec_fips_test(0, CHNL, dir, padded.data(), UINT32(in.size()), bypass,
                                                    out.data(), &size);
        out.resize(rc == VELT_SUCCESS ? size : 0);
        return rc;
    }
    static kavo_stats_macsec_sa_t sa_stats(UINT32 id)
    {
        kavo_stats_macsec_sa_t s;
        EXPECT_EQ(kavo_macsec_sa_stats_get(0, id, 0, &s), VELT_SUCCESS);
        return s;
    }
};

/* The frame as the engine returns it: its bytes, zero padding to whole words. */
void expect_frame(const bytes& got, const bytes& want, const char* what)
{
    ASSERT_EQ(got.size(), (want.size() + 3) & ~size_t(3)) << what;
    EXPECT_EQ(bytes(got.begin(), got.begin() + long(want.size())), want) << what;
    for (size_t i = want.size(); i < got.size(); ++i)
        EXPECT_EQ(got[i], 0) << what << ": padding byte " << i;
}

TEST_F(macsec, KnownAnswersProtectAndValidateByteForByte)
{
    for (const known_answer& k : KNOWN) {
        SCOPED_TRACE(k.name);
        const UINT32 out_vp = vport(EGRESS), in_vp = vport(INGRESS);
        rule(out_vp), rule(in_vp);
        const UINT32 out_sa = sa(out_vp, sa_cfg(k.confidential)), in_sa = sa(in_vp, sa_cfg(k.confidential));

        bytes out, back;
        ASSERT_EQ(run(EGRESS, hex(k.plain), out), VELT_SUCCESS);
        const bytes want = hex(k.protected_);
        expect_frame(out, want, "protected");
        UINT32 lo = 0, hi = 9;
        ASSERT_EQ(kavo_macsec_sa_next_pn_get(0, out_sa, &lo, &hi), VELT_SUCCESS);
        EXPECT_EQ(lo, PN + 1); EXPECT_EQ(hi, 0u);

        ASSERT_EQ(run(INGRESS, want, back), VELT_SUCCESS);
        expect_frame(back, hex(k.plain), "validated");
        // The same frame again is a replay; a changed ICV fails validation.
        ASSERT_EQ(run(INGRESS, want, back), VELT_SUCCESS);
        EXPECT_TRUE(back.empty());
        ASSERT_EQ(kavo_macsec_sa_next_pn_set(0, in_sa, PN, 0), VELT_SUCCESS);
        bytes forged = want;
        forged.back() ^= 1;
        ASSERT_EQ(run(INGRESS, forged, back), VELT_SUCCESS);
        EXPECT_TRUE(back.empty());

        const kavo_stats_macsec_sa_t e = sa_stats(out_sa), i = sa_stats(in_sa);
        EXPECT_EQ(e.pkts_protected, 1u);
        EXPECT_EQ(e.pkts_encrypted, k.confidential ? 1u : 0u);
        EXPECT_EQ(e.octets_protected, hex(k.plain).size() - 12);
        EXPECT_EQ(i.pkts_ok, 1u);
        EXPECT_EQ(i.pkts_late, 1u);
        EXPECT_EQ(k.confidential ? i.pkts_invalid : i.pkts_not_valid, 1u);

        // Clean up for the next vector: SAs and rules first, then the vports.
        for (UINT32 id : {out_sa, in_sa})
            ASSERT_EQ(kavo_macsec_sa_delete(0, id), VELT_SUCCESS);
        for (UINT32 vp : {out_vp, in_vp}) {
            kavo_macsec_vport_rule_list_t rules;
            ASSERT_EQ(kavo_macsec_vport_rule_get(0, vp, &rules), VELT_SUCCESS);
            ASSERT_EQ(rules.num_rules, 1u);
            ASSERT_EQ(kavo_macsec_rule_delete(0, rules.rule_ids[0]), VELT_SUCCESS);
            ASSERT_EQ(kavo_macsec_vport_delete(0, vp), VELT_SUCCESS);
        }
    }
}

TEST_F(macsec, IngressDropsEveryAlteredOrCutFrame)
{
    const UINT32 vp = vport(INGRESS);
    rule(vp);
    kavo_macsec_sa_config_t cfg = sa_cfg(true);
    cfg.sa_type.ingress.replay_check_disable = 1;
    sa(vp, cfg);
    const bytes good = hex(KNOWN[0].protected_);
    std::mt19937 random(7);
    bytes out;
    for (int i = 0; i < 3000; ++i) {
        bytes f = good;
        if (i % 3 == 0) {
            f.resize(random() % good.size()); // cut anywhere, down to nothing after the MAC addresses
            if (f.size() < 14) f.resize(14);
        } else {
            f[random() % f.size()] ^= UINT8(1 + random() % 255);
        }
        ASSERT_EQ(run(INGRESS, f, out), VELT_SUCCESS) << i;
        ASSERT_TRUE(out.empty()) << "frame " << i << " came through";
    }
    ASSERT_EQ(run(INGRESS, good, out), VELT_SUCCESS);
    EXPECT_EQ(out.size(), 60u) << "the unaltered frame still validates";
}

TEST_F(macsec, EverySuiteRoundTripsAndWrongKeyMaterialFails)
{
    struct suite {
        const char* name;
        UINT32 flags;
    } const suites[] = {
        {"GCM-AES-256", KAVO_MACSEC_SA_KEY_SIZE_256 | KAVO_MACSEC_SA_ENC_AUTH_AES_GCM},
        {"GCM-AES-XPN-128", KAVO_MACSEC_SA_SN_SIZE_64 | KAVO_MACSEC_SA_ENC_AUTH_AES_GCM},
        {"GCM-AES-XPN-256", KAVO_MACSEC_SA_KEY_SIZE_256 | KAVO_MACSEC_SA_SN_SIZE_64 | KAVO_MACSEC_SA_ENC_AUTH_AES_GCM},
    };
    const UINT32 out_vp = vport(EGRESS), in_vp = vport(INGRESS);
    rule(out_vp), rule(in_vp);
    const bytes plain = hex(KNOWN[0].plain);
    for (const suite& s : suites) {
        SCOPED_TRACE(s.name);
        kavo_macsec_sa_config_t cfg = sa_cfg(true, KAVO_MACSEC_SA_AN_1, 0xFFFFFFF0);
        cfg.flags |= s.flags;
        for (UINT32 i = 0; i < 8; ++i)
            cfg.crypt_key[i] = 0x01020304u * (i + 1);
        cfg.ssci = 0x7A30C118, cfg.salt[0] = 0xE630E81A, cfg.salt[2] = 0x4801A0E1;
        cfg.seq_num_hi = (s.flags & KAVO_MACSEC_SA_SN_SIZE_64) ? 2 : 0;
        const UINT32 out_sa = sa(out_vp, cfg), in_sa = sa(in_vp, cfg);
        bytes out, back;
        ASSERT_EQ(run(EGRESS, plain, out), VELT_SUCCESS);
        ASSERT_EQ(out.size(), plain.size() + 16 + 16);
        EXPECT_EQ(out[14], 0x2D) << "TCI: SC, E, C, AN 1";
        ASSERT_EQ(run(INGRESS, out, back), VELT_SUCCESS);
        EXPECT_EQ(back, plain);

        // The receiver with another salt (XPN) or another key rejects the frame.
        kavo_macsec_sa_update_t u;
        u.update_cmds = KAVO_MACSEC_SA_UPDATE_KEY | KAVO_MACSEC_SA_UPDATE_PN; // the frame's PN again
        u.cfg = cfg;
        u.cfg.salt[1] ^= 1;
        if (!(s.flags & KAVO_MACSEC_SA_SN_SIZE_64)) u.cfg.crypt_key[7] ^= 1;
        ASSERT_EQ(kavo_macsec_sa_update(0, in_sa, &u), VELT_SUCCESS);
        ASSERT_EQ(run(INGRESS, out, back), VELT_SUCCESS);
        EXPECT_TRUE(back.empty());
        EXPECT_EQ(sa_stats(in_sa).pkts_invalid, 1u);
        ASSERT_EQ(kavo_macsec_sa_delete(0, out_sa), VELT_SUCCESS);
        ASSERT_EQ(kavo_macsec_sa_delete(0, in_sa), VELT_SUCCESS);
    }
}

TEST_F(macsec, SecTagFollowsTheClearBytesAndIngressRefusesWhatIsNotWellFormed)
{
    kavo_macsec_vport_config_t keep_tag; // an outer VLAN tag stays in clear
    keep_tag.sec_tag_offset = 4;
    UINT32 out_vp = 0;
    ASSERT_EQ(kavo_macsec_vport_add(0, CHNL, EGRESS, 1, &keep_tag, &out_vp), VELT_SUCCESS);
    const UINT32 in_vp = vport(INGRESS);
    rule(out_vp), rule(in_vp);
    sa(out_vp, sa_cfg(true));
    const UINT32 in_sa = sa(in_vp, sa_cfg(true));
    const bytes tagged = hex(MACS + "81000064" + KNOWN[0].plain.substr(24));
    bytes out, back;
    ASSERT_EQ(run(EGRESS, tagged, out, 0xFFFFFFFF), VELT_SUCCESS) << "the vport's offset";
    EXPECT_EQ(bytes(out.begin() + 12, out.begin() + 18), hex("8100006488E5"));
    ASSERT_EQ(run(INGRESS, out, back, 4), VELT_SUCCESS);
    EXPECT_EQ(back, tagged);

    // Frames the ingress engine refuses, each counted where it belongs.
    ASSERT_EQ(run(EGRESS, tagged, out, 0xFFFFFFFF), VELT_SUCCESS);
    struct bad {
        const char* what;
        size_t at;
        UINT8 value;
    } const bads[] = {
        {"version bit", 18, UINT8(out[18] | 0x80)}, {"C without E", 18, UINT8(out[18] & ~0x08)},
        {"short length on a long frame", 19, 20},  {"packet number 0", 20, 0},
    };
    for (const bad& b : bads) {
        bytes f = out;
        f[b.at] = b.value;
        if (b.at == 20) f[21] = f[22] = f[23] = 0;
        ASSERT_EQ(run(INGRESS, f, back, 4), VELT_SUCCESS);
        EXPECT_TRUE(back.empty()) << b.what;
    }
    bytes other_an = out;
    other_an[18] ^= 1;
    ASSERT_EQ(run(INGRESS, other_an, back, 4), VELT_SUCCESS);
    EXPECT_TRUE(back.empty()) << "no SA for AN 3";
    ASSERT_EQ(run(INGRESS, tagged, back, 4), VELT_SUCCESS);
    EXPECT_TRUE(back.empty()) << "untagged, strict";
    kavo_macsec_sa_update_t check;
    check.update_cmds = KAVO_MACSEC_SA_UPDATE_FLOW_CONTROL;
    check.cfg.sa_type.ingress.validate_frames = KAVO_MACSEC_VALIDATE_CHECK;
    ASSERT_EQ(kavo_macsec_sa_update(0, in_sa, &check), VELT_SUCCESS);
    ASSERT_EQ(run(INGRESS, tagged, back, 4), VELT_SUCCESS);
    EXPECT_EQ(back, tagged) << "untagged, check";
    kavo_stats_macsec_vport_t vs;
    ASSERT_EQ(kavo_macsec_vport_stats_get(0, in_vp, 0, &vs), VELT_SUCCESS);
    EXPECT_EQ(vs.pkts_bad_tag, 4u);
    EXPECT_EQ(vs.pkts_not_using_sa, 1u);
    EXPECT_EQ(vs.pkts_untagged, 2u);
    EXPECT_EQ(vs.pkts_ok, 1u);
    ASSERT_EQ(kavo_macsec_vport_sa_stats_clear(0, in_vp), VELT_SUCCESS);
    EXPECT_EQ(sa_stats(in_sa).pkts_ok, 0u);
}

TEST_F(macsec, ChannelConfigurationDecidesWhatTheEngineSkips)
{
    const bytes eapol = hex(MACS + "888E0102"), ip = hex(MACS + "08000102");
    kavo_macsec_channel_config_t ch;
    ASSERT_EQ(kavo_macsec_channel_config_get(0, CHNL, EGRESS, &ch), VELT_SUCCESS);
    EXPECT_EQ(ch.sectag_ethertype, 0x88E5u);
    ch.default_action = KAVO_MACSEC_DEFAULT_ACTION_DROP;
    ch.bypass_ethertypes[2] = 0x888E;
    ASSERT_EQ(kavo_macsec_channel_config(0, CHNL, EGRESS, &ch), VELT_SUCCESS);
    bytes out;
    ASSERT_EQ(run(EGRESS, eapol, out), VELT_SUCCESS);
    EXPECT_EQ(out, eapol) << "key agreement passes in clear";
    ASSERT_EQ(run(EGRESS, ip, out), VELT_SUCCESS);
    EXPECT_TRUE(out.empty()) << "unclassified frames are dropped";
    kavo_macsec_channel_global_config_t g;
    ASSERT_EQ(kavo_macsec_channel_global_config_get(0, EGRESS, &g), VELT_SUCCESS);
    g.bypass_all = 1;
    ASSERT_EQ(kavo_macsec_channel_global_config(0, EGRESS, &g), VELT_SUCCESS);
    ASSERT_EQ(run(EGRESS, ip, out), VELT_SUCCESS);
    EXPECT_EQ(out, ip) << "every engine of the direction bypassed";
    ch.max_frame_size = 63;
    EXPECT_EQ(kavo_macsec_channel_config(0, CHNL, EGRESS, &ch), KAVO_FW_ERR_INVALID_PARAMETERS);
    EXPECT_EQ(kavo_macsec_channel_config(0, 48, EGRESS, &ch), KAVO_FW_ERR_NUMBER_OUT_OF_RANGE);
}

TEST_F(macsec, RulesClassifyByAddressEtherTypeTagsLabelsAndServiceId)
{
    // Every rule on its own vport, so the vport's statistics tell which one matched.
    struct rule_case {
        const char* name;
        std::function<void(kavo_macsec_rule_config_t&)> set;
        std::string hit, miss; // after the MAC addresses
    } const cases[] = {
        {"EtherType", [](auto& r) { r.packet_type = KAVO_MACSEC_PACKET_TYPE_OTHER;
             r.type.others.ethertype = 0x0800, r.type.others.ethertype_mask = 0xFFFF; },
         "08000102", "86DD0102"},
        {"second VLAN tag", [](auto& r) { r.packet_type = KAVO_MACSEC_PACKET_TYPE_OTHER, r.num_tags = KAVO_MACSEC_NUM_TAGS_2;
             r.type.others.vlan_tag_val_2 = 0x81000064, r.type.others.vlan_tag_mask_2 = 0xFFFF0FFF; },
         "88A8000A81002064080001", "88A8000A81000065080001"},
        {"MPLS second label", [](auto& r) { r.packet_type = KAVO_MACSEC_PACKET_TYPE_MPLS;
             r.type.mpls.label_2 = 0x12345, r.type.mpls.label_mask_2 = 0xFFFFF; },
         "8847000640FF12345140", "8847000640FF12346140"},
        {"PBB I-SID", [](auto& r) { r.packet_type = KAVO_MACSEC_PACKET_TYPE_PBB;
             r.type.pbb.i_sid = 0xABCDE, r.type.pbb.i_sid_mask = 0xFFFFFF; },
         "88A8000788E7000ABCDE00", "88A8000788E7000ABCDF00"},
        {"MAC DA under mask", [](auto& r) { r.mac_da[0] = 0xD6, r.mac_da_mask[0] = 0xFF; }, "0800", ""},
    };
    for (const rule_case& c : cases) {
        SCOPED_TRACE(c.name);
        const UINT32 vp = vport(EGRESS);
        kavo_macsec_rule_config_t r;
        r.drop = 1; // matched frames are dropped: the output tells the match
        c.set(r);
        const UINT32 rid = rule(vp, r);
        bytes out;
        ASSERT_EQ(run(EGRESS, hex(MACS + c.hit), out), VELT_SUCCESS);
        EXPECT_TRUE(out.empty()) << "the rule matched and dropped";
        const std::string miss_frame = c.miss.empty() ? "0102030405067A0D46DF998D0800" : MACS + c.miss;
        ASSERT_EQ(run(EGRESS, hex(miss_frame), out), VELT_SUCCESS);
        EXPECT_EQ(out.size(), (hex(miss_frame).size() + 3) & ~size_t(3)) << "unclassified frames pass";
        kavo_stats_macsec_rule_t rs;
        kavo_stats_macsec_vport_t vs;
        ASSERT_EQ(kavo_macsec_rule_stats_get(0, rid, 1, &rs), VELT_SUCCESS);
        ASSERT_EQ(kavo_macsec_vport_stats_get(0, vp, 0, &vs), VELT_SUCCESS);
        EXPECT_EQ(rs.pkts_matched, 1u);
        EXPECT_EQ(vs.pkts_dropped_rule, 1u);
        ASSERT_EQ(kavo_macsec_rule_delete(0, rid), VELT_SUCCESS);
        ASSERT_EQ(kavo_macsec_vport_delete(0, vp), VELT_SUCCESS);
    }
    kavo_stats_macsec_channel_t cs;
    ASSERT_EQ(kavo_macsec_chnl_stats_get(0, CHNL, 1, &cs), VELT_SUCCESS);
    EXPECT_EQ(cs.egress.pkts, 10u);
    EXPECT_EQ(cs.egress.pkts_unclassified, 5u);
    ASSERT_EQ(kavo_macsec_chnl_stats_get(0, CHNL, 0, &cs), VELT_SUCCESS);
    EXPECT_EQ(cs.egress.pkts, 0u) << "reset on the previous read";
}

TEST_F(macsec, LifeCycleRefusesWhatTheObjectsCannotTake)
{
    const UINT32 vp = vport(EGRESS, 7), in_vp = vport(INGRESS, 7);
    EXPECT_LT(vp, 768u);
    EXPECT_GE(in_vp, 768u);
    const UINT32 r = rule(vp);
    const UINT32 a = sa(vp, sa_cfg(true, KAVO_MACSEC_SA_AN_0));
    UINT32 b = 0, id = 0;
    kavo_macsec_sa_config_t next = sa_cfg(true, KAVO_MACSEC_SA_AN_1, 1);
    ASSERT_EQ(kavo_macsec_sa_chain(0, a, &next, &b), VELT_SUCCESS);
    EXPECT_LT(b, 1536u);
    kavo_macsec_vport_config_t vc;
    kavo_macsec_rule_config_t rc;
    kavo_macsec_sa_config_t same_an = sa_cfg(true, KAVO_MACSEC_SA_AN_0), ctr = sa_cfg(true, KAVO_MACSEC_SA_AN_3),
                            bad_h = sa_cfg(true, KAVO_MACSEC_SA_AN_3), big_pn = sa_cfg(true, KAVO_MACSEC_SA_AN_3);
    ctr.flags |= KAVO_MACSEC_SA_ENC_AES_CTR;
    bad_h.auth_key[0] = 1;
    big_pn.seq_num_hi = 1;
    rc.packet_type = LAST_KAVO_MACSEC_PACKET_TYPE;
    vc.sec_tag_offset = 3;
    kavo_macsec_sa_update_t u;
    u.update_cmds = 0x40;
    struct refusal {
        const char* what;
        std::function<VELT_ERROR()> call;
        VELT_ERROR code;
    } const refusals[] = {
        {"vport on channel 48", [&] { vc.sec_tag_offset = 0; return kavo_macsec_vport_add(0, 48, EGRESS, 1, &vc, &id); }, KAVO_FW_ERR_NUMBER_OUT_OF_RANGE},
        {"vport key taken", [&] { vc.sec_tag_offset = 0; return kavo_macsec_vport_add(0, CHNL, EGRESS, 7, &vc, &id); }, KAVO_FW_ERR_INVALID_PARAMETERS},
        {"odd SecTAG offset", [&] { vc.sec_tag_offset = 3; return kavo_macsec_vport_update(0, &vc, vp); }, KAVO_FW_ERR_INVALID_PARAMETERS},
        {"vport with rules and SAs", [&] { return kavo_macsec_vport_delete(0, vp); }, KAVO_FW_ERR_FAIL},
        {"unknown packet type", [&] { return kavo_macsec_rule_add(0, vp, &rc, &id); }, KAVO_FW_ERR_INVALID_PARAMETERS},
        {"rule on a free vport", [&] { rc.packet_type = KAVO_MACSEC_PACKET_TYPE_ANY; return kavo_macsec_rule_add(0, 100, &rc, &id); }, KAVO_FW_ERR_NUMBER_OUT_OF_RANGE},
        {"second SA of an AN", [&] { return kavo_macsec_sa_add(0, vp, &same_an, &id); }, KAVO_FW_ERR_INVALID_PARAMETERS},
        {"AES-CTR suite", [&] { return kavo_macsec_sa_add(0, vp, &ctr, &id); }, KAVO_FW_ERR_INVALID_PARAMETERS},
        {"foreign GHASH key", [&] { return kavo_macsec_sa_add(0, vp, &bad_h, &id); }, KAVO_FW_ERR_INVALID_PARAMETERS},
        {"64-bit PN without XPN", [&] { return kavo_macsec_sa_add(0, vp, &big_pn, &id); }, KAVO_FW_ERR_INVALID_PARAMETERS},
        {"chain twice", [&] { return kavo_macsec_sa_chain(0, a, &big_pn, &id); }, KAVO_FW_ERR_FAIL},
        {"chain to an SA not in use", [&] { return kavo_macsec_sa_chain(0, b, &big_pn, &id); }, KAVO_FW_ERR_FAIL},
        {"switch from an SA not in use", [&] { return kavo_macsec_sa_switch(0, b, a); }, KAVO_FW_ERR_FAIL},
        {"next PN 0", [&] { return kavo_macsec_sa_next_pn_set(0, a, 0, 0); }, KAVO_FW_ERR_INVALID_PARAMETERS},
        {"unknown update part", [&] { return kavo_macsec_sa_update(0, a, &u); }, KAVO_FW_ERR_INVALID_PARAMETERS},
        {"read of a free SA", [&] { return kavo_macsec_sa_read(0, 1535, &next); }, KAVO_FW_ERR_NUMBER_OUT_OF_RANGE},
    };
    for (const refusal& f : refusals)
        EXPECT_EQ(f.call(), f.code) << f.what;

    // What exists reads back; switching and deleting move the SA in use.
    kavo_macsec_vport_sa_list_t sas;
    ASSERT_EQ(kavo_macsec_vport_sa_get(0, vp, &sas), VELT_SUCCESS);
    EXPECT_EQ(sas.num_sas, 2u); EXPECT_EQ(sas.active_sa_id, a);
    kavo_macsec_channel_vport_list_t vports;
    ASSERT_EQ(kavo_macsec_chnl_vport_get(0, CHNL, &vports), VELT_SUCCESS);
    ASSERT_EQ(vports.num_vports, 2u);
    EXPECT_EQ(vports.vport_ids[0], vp); EXPECT_EQ(vports.vport_ids[1], in_vp);
    kavo_macsec_sa_config_t read;
    ASSERT_EQ(kavo_macsec_sa_read(0, a, &read), VELT_SUCCESS);
    EXPECT_EQ(std::memcmp(read.crypt_key, KEY.data(), 16), 0);
    const bytes h = hex("73A23D80121DE2D5A850253FCF43120E"); // AES-K(0)
    EXPECT_EQ(std::memcmp(read.auth_key, h.data(), 16), 0);
    ASSERT_EQ(kavo_macsec_sa_switch(0, a, b), VELT_SUCCESS);
    kavo_macsec_vport_read_params_t v;
    ASSERT_EQ(kavo_macsec_vport_read(0, vp, &v), VELT_SUCCESS);
    EXPECT_EQ(v.active_sa_id, b); EXPECT_EQ(v.num_rules, 1u); EXPECT_EQ(v.vport_key, 7u);
    for (UINT32 s : {b, a})
        ASSERT_EQ(kavo_macsec_sa_delete(0, s), VELT_SUCCESS);
    ASSERT_EQ(kavo_macsec_rule_delete(0, r), VELT_SUCCESS);
    ASSERT_EQ(kavo_macsec_vport_delete(0, vp), VELT_SUCCESS);
    EXPECT_EQ(kavo_macsec_vport_read(0, vp, &v), KAVO_FW_ERR_NUMBER_OUT_OF_RANGE);
}

bool notified()
{
    UINT32 status = 0;
    EXPECT_EQ(kavo_ipi_interrupt_status_get(0, &status), VELT_SUCCESS);
    return (status >> VELT_IPI_MACSEC_NOTIFICATION) & 1;
}

TEST_F(macsec, ExhaustedSaHandsOverToItsChainAndNotifies)
{
    const UINT32 vp = vport(EGRESS);
    rule(vp);
    kavo_macsec_notification_summary_t enable;
    enable.events = KAVO_MACSEC_NOTIFICATION_PN_THRESHOLD | KAVO_MACSEC_NOTIFICATION_SA_EXPIRED;
    ASSERT_EQ(kavo_macsec_notification_enable(0, &enable), VELT_SUCCESS);
    kavo_macsec_sa_config_t last = sa_cfg(true, KAVO_MACSEC_SA_AN_0, 0xFFFFFFFE);
    last.flags |= KAVO_MACSEC_SA_ENABLE_SA_EXPIRED_IRQ;
    const UINT32 a = sa(vp, last);
    UINT32 b = 0;
    kavo_macsec_sa_config_t fresh = sa_cfg(true, KAVO_MACSEC_SA_AN_1, 1);
    ASSERT_EQ(kavo_macsec_sa_chain(0, a, &fresh, &b), VELT_SUCCESS);
    EXPECT_FALSE(notified());

    const bytes plain = hex(KNOWN[0].plain);
    const UINT8 an_seen[] = {0, 0, 1};
    for (UINT8 an : an_seen) {
        bytes out;
        ASSERT_EQ(run(EGRESS, plain, out), VELT_SUCCESS);
        ASSERT_FALSE(out.empty());
        EXPECT_EQ(out[14] & 3, an);
    }
    EXPECT_TRUE(notified());
    kavo_macsec_notification_summary_t summary;
    ASSERT_EQ(kavo_macsec_notification_summary_get(0, &summary), VELT_SUCCESS);
    EXPECT_EQ(summary.events, enable.events) << "threshold (global 0xC0000000) and expiry";
    EXPECT_EQ(summary.num_sa_expired, 1u);
    kavo_macsec_notification_t n;
    ASSERT_EQ(kavo_macsec_notification_get(0, KAVO_MACSEC_NOTIFICATION_GET_SA_EXPIRED, &n), VELT_SUCCESS);
    ASSERT_EQ(n.num_sa_ids, 1u);
    EXPECT_EQ(n.sa_ids[0], a); EXPECT_EQ(n.more, 0u);
    ASSERT_EQ(kavo_macsec_notification_get(0, KAVO_MACSEC_NOTIFICATION_GET_SA_EXPIRED, &n), VELT_SUCCESS);
    EXPECT_EQ(n.num_sa_ids, 0u) << "read and cleared";

    // The expired SA is no longer taken; a new PN brings it back.
    EXPECT_EQ(kavo_macsec_sa_switch(0, b, a), KAVO_FW_ERR_INVALID_PARAMETERS);
    ASSERT_EQ(kavo_macsec_sa_next_pn_set(0, a, 5, 0), VELT_SUCCESS);
    EXPECT_EQ(kavo_macsec_sa_switch(0, b, a), VELT_SUCCESS);
}

TEST_F(macsec, NullRecordsAreRefusedBeforeAnythingIsSent)
{
    UINT32 id = 0;
    const UINT64 requests = kavo_sim::chip_get(0)->counters().requests;
    const char* IN = " NULL Pointer supplied for Input parameter.\n";
    const char* OUT = " NULL Pointer supplied for Output parameter\n";
    UINT8 frame[16] = {};
    UINT32 size = 16;
    struct null_case {
        const char* what;
        std::function<VELT_ERROR()> call;
        const char* message;
    } const cases[] = {
        {"rule_add", [&] { return kavo_macsec_rule_add(0, 1, nullptr, &id); }, IN},
        {"vport_add", [&] { return kavo_macsec_vport_add(0, 1, EGRESS, 1, nullptr, &id); },
         " NULL Pointer supplied for Input parameter\n"},
        {"sa_add", [&] { return kavo_macsec_sa_add(0, 1, nullptr, &id); }, IN},
        {"sa_chain", [&] { return kavo_macsec_sa_chain(0, 1, nullptr, &id); }, IN},
        {"sa_update", [&] { return kavo_macsec_sa_update(0, 1, nullptr); }, IN},
        {"channel_config", [&] { return kavo_macsec_channel_config(0, 1, EGRESS, nullptr); }, IN},
        {"vport_read", [&] { return kavo_macsec_vport_read(0, 1, nullptr); }, OUT},
        {"sa_stats_get", [&] { return kavo_macsec_sa_stats_get(0, 1, 0, nullptr); }, OUT},
        {"fips_test output", [&] { return kavo_macsec_fips_test(0, 1, EGRESS, frame, 14, 0, nullptr, &size); }, OUT},
    };
    for (const null_case& c : cases) {
        EXPECT_EQ(c.call(), UINT32(MACSEC_ERR_INVALID_PARAMETERS)) << c.what;
        const std::string log = take();
        EXPECT_TRUE(has(log, "0:0x2f34:")) << c.what << ": " << log;
        EXPECT_TRUE(has(log, c.message)) << c.what << ": " << log;
    }
    EXPECT_EQ(kavo_sim::chip_get(0)->counters().requests, requests);
}

TEST_F(macsec, TraceShowsTheMemberThatApplies)
{
    kavo_function_logging_set(1);
    kavo_macsec_sa_config_t sa_cfg_rec;
    kavo_macsec_sa_update_t upd;
    kavo_macsec_rule_config_t rule_cfg;
    UINT32 id = 0;
    const char* EG = "\nkavo_macsec_egress_sa_flow_control_t:";
    const char* IG = "\nkavo_macsec_ingress_sa_flow_control_t:";
    // Each trace opens with the command and its scalar argument, then the
    // record, then the member the variant selects.
    struct trace_case {
        const char* what;
        std::function<void()> call;
        const char* head;
        const char* shown;
        const char* hidden;
    } const cases[] = {
        {"sa_add on vport 767", [&] { kavo_macsec_sa_add(0, 767, &sa_cfg_rec, &id); },
         "Function=kavo_macsec_sa_add(0x0, vport_id = 767,\nkavo_macsec_sa_config_t:", EG, IG},
        {"sa_add on vport 768", [&] { kavo_macsec_sa_add(0, 768, &sa_cfg_rec, &id); },
         "Function=kavo_macsec_sa_add(0x0, vport_id = 768,\nkavo_macsec_sa_config_t:", IG, EG},
        {"sa_chain on SA 1535", [&] { kavo_macsec_sa_chain(0, 1535, &sa_cfg_rec, &id); },
         "Function=kavo_macsec_sa_chain(0x0, active_sa_id = 1535,\nkavo_macsec_sa_config_t:", EG, IG},
        {"sa_chain on SA 1536", [&] { kavo_macsec_sa_chain(0, 1536, &sa_cfg_rec, &id); },
         "Function=kavo_macsec_sa_chain(0x0, active_sa_id = 1536,\nkavo_macsec_sa_config_t:", IG, EG},
        {"sa_update of SA 1535", [&] { kavo_macsec_sa_update(0, 1535, &upd); },
         "Function=kavo_macsec_sa_update(0x0, sa_id = 1535,\nkavo_macsec_sa_update_t:", EG, IG},
        {"sa_update of SA 1536", [&] { kavo_macsec_sa_update(0, 1536, &upd); },
         "Function=kavo_macsec_sa_update(0x0, sa_id = 1536,\nkavo_macsec_sa_update_t:", IG, EG},
        {"rule_add OTHER", [&] { rule_cfg.packet_type = KAVO_MACSEC_PACKET_TYPE_OTHER; kavo_macsec_rule_add(0, 5, &rule_cfg, &id); },
         "Function=kavo_macsec_rule_add(0x0, vport_id = 5,\nkavo_macsec_rule_config_t:", "\nkavo_macsec_rule_config_others_t:", "_pbb_t"},
        {"rule_add PBB", [&] { rule_cfg.packet_type = KAVO_MACSEC_PACKET_TYPE_PBB; kavo_macsec_rule_add(0, 6, &rule_cfg, &id); },
         "Function=kavo_macsec_rule_add(0x0, vport_id = 6,\nkavo_macsec_rule_config_t:", "\nkavo_macsec_rule_config_pbb_t:", "_mpls_t"},
        {"rule_add MPLS", [&] { rule_cfg.packet_type = KAVO_MACSEC_PACKET_TYPE_MPLS; kavo_macsec_rule_add(0, 7, &rule_cfg, &id); },
         "Function=kavo_macsec_rule_add(0x0, vport_id = 7,\nkavo_macsec_rule_config_t:", "\nkavo_macsec_rule_config_mpls_t:", "_others_t"},
        {"rule_add ANY", [&] { rule_cfg.packet_type = KAVO_MACSEC_PACKET_TYPE_ANY; kavo_macsec_rule_add(0, 0, &rule_cfg, &id); },
         "Function=kavo_macsec_rule_add(0x0, vport_id = 0,\nkavo_macsec_rule_config_t:", "kavo_macsec_rule_config_t:", "_t:\n    ethertype"},
    };
    for (const trace_case& c : cases) {
        take();
        c.call();
        const std::string log = take();
        EXPECT_TRUE(has(log, c.head)) << c.what << ": " << log;
        EXPECT_TRUE(has(log, c.shown)) << c.what << ": " << log;
        EXPECT_FALSE(has(log, c.hidden)) << c.what << ": " << log;
    }
    kavo_function_logging_set(0);
}

UINT64 bus_transactions()
{
    const kavo_sim::journal_counters c = kavo_sim::chip_get(0)->counters();
    return c.reads + c.writes + c.burst_reads + c.burst_writes;
}

TEST_F(macsec, SelfTestCostsOneExchangeAndItsFrameBack)
{
    const UINT32 vp = vport(EGRESS);
    rule(vp);
    bytes out;
    UINT64 before = bus_transactions();
    ASSERT_EQ(run(EGRESS, hex(KNOWN[0].plain), out), VELT_SUCCESS);
    EXPECT_EQ(bus_transactions() - before, kavo_test::BUS_PER_COMMAND);
    EXPECT_TRUE(out.empty()) << "no SA in use: dropped";
    sa(vp, sa_cfg(true));
    before = bus_transactions();
    ASSERT_EQ(run(EGRESS, hex(KNOWN[0].plain), out), VELT_SUCCESS);
    EXPECT_EQ(bus_transactions() - before, kavo_test::BUS_PER_COMMAND_WITH_PAYLOAD);
    EXPECT_EQ(out.size(), 92u);
}

} // namespace
