// The virtual MACsec engine below the library: the AES-GCM wrapper against
// published building blocks, and the firmware's refusals of records of the
// wrong size and of ids that name nothing, driven by raw mailbox exchanges.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "../../sim/src/fw/macsec_crypto.h"
#include "kavo_sim/bus_client.h"
#include "kavo_sim/kavo_sim.h"

namespace gcm = kavo_sim::fw::gcm;
using bytes = std::vector<UINT8>;

namespace {

bytes hex(const std::string& s)
{
    bytes out;
    for (size_t i = 0; i + 1 < s.size(); i += 2)
        out.push_back(UINT8(std::stoul(s.substr(i, 2), nullptr, 16)));
    return out;
}

TEST(MacsecGcm, PublishedBlocksSealAndOpen)
{
    struct block {
        const char* key;
        const char* iv;
        const char* aad;
        const char* plain;
        const char* cipher;
        const char* tag;
    } const blocks[] = {
        {"00000000000000000000000000000000", "000000000000000000000000", "", "00000000000000000000000000000000",
         "0388DACE60B6A392F328C2B971B2FE78", "AB6E47D42CEC13BDF53A67B21257BDDF"},
        {"FEFFE9928665731C6D6A8F9467308308", "CAFEBABEFACEDBADDECAF888", "FEEDFACEDEADBEEFFEEDFACEDEADBEEFABADDAD2",
         "D9313225F88406E5A55909C5AFF5269A86A7A9531534F7DA2E4C303D8A318A721C3C0C95956809532FCF0E2449A6B525B16AEDF5AA0DE657BA637B39",
         "42831EC2217774244B7221B784D0D49CE3AA212F2C02A4E035C17E2329ACA12E21D514B25466931C7D8F6A5AAC84AA051BA30B396A0AAC973D58E091",
         "5BC94FBC3221A5DB94FAE95AE7121A47"},
    };
    for (const block& b : blocks) {
        const bytes key = hex(b.key), iv = hex(b.iv), aad = hex(b.aad), plain = hex(b.plain);
        bytes out(plain.size()), tag(16), back(plain.size());
        ASSERT_TRUE(gcm::seal(key.data(), key.size(), iv.data(), aad.data(), aad.size(), plain.data(), plain.size(),
                              out.data(), tag.data()));
        EXPECT_EQ(out, hex(b.cipher));
        EXPECT_EQ(tag, hex(b.tag));
        EXPECT_TRUE(gcm::open(key.data(), key.size(), iv.data(), aad.data(), aad.size(), out.data(), out.size(),
                              back.data(), tag.data()));
        EXPECT_EQ(back, plain);
        tag[15] ^= 0x80;
        EXPECT_FALSE(gcm::open(key.data(), key.size(), iv.data(), aad.data(), aad.size(), out.data(), out.size(),
                               back.data(), tag.data()))
            << "a changed tag is refused";
    }
    UINT8 h[16];
    EXPECT_FALSE(gcm::hash_key(h, 24, h)) << "AES-192 is no MACsec key size";
}

class SimMacsec : public ::testing::Test {
  protected:
    void SetUp() override
    {
        ASSERT_EQ(kavo_sim::chip_create(4, kavo_sim::chip_config::stepped(0x6104, 1)), VELT_SUCCESS);
        ASSERT_TRUE(bus.cold_start(kavo_sim::image_build({3, 0, 2, 1})));
    }
    void TearDown() override { kavo_sim::chip_destroy_all(); }
    kavo_sim::exchange_result call(UINT32 op, const void* data, UINT32 size, kavo_htl_general_struct_t info = {})
    {
        return bus.exchange(op, data, size, info);
    }
    kavo_sim::bus_client bus{kavo_sim::callouts(), 4};
};

TEST_F(SimMacsec, RecordsOfTheWrongSizeAreRefused)
{
    UINT8 zero[256] = {};
    kavo_htl_general_struct_t on_vport0;
    on_vport0.element_id = on_vport0.parent_id = 0;
    on_vport0.mode = on_vport0.flag = 0;
    kavo_macsec_vport_config_t vc;
    ASSERT_EQ(call(KAVO_HTL_OPERATION_MACSEC_VPORT_ADD, &vc, 8, on_vport0).result(), VELT_SUCCESS);
    struct sized {
        UINT32 op;
        UINT32 size;
    } const ops[] = {
        {KAVO_HTL_OPERATION_MACSEC_VPORT_ADD, 8},          {KAVO_HTL_OPERATION_MACSEC_VPORT_UPDATE, 8},
        {KAVO_HTL_OPERATION_MACSEC_RULE_ADD, 52},          {KAVO_HTL_OPERATION_MACSEC_SA_ADD, 100},
        {KAVO_HTL_OPERATION_MACSEC_CHANNEL_CONFIG, 68},    {KAVO_HTL_OPERATION_MACSEC_CHANNEL_GLOBAL_CONFIG, 140},
        {KAVO_HTL_OPERATION_MACSEC_NOTIFICATION_ENABLE, 12},
    };
    for (const sized& o : ops)
        for (UINT32 size : {o.size - 4, o.size + 4})
            EXPECT_EQ(call(o.op, zero, size, on_vport0).result(), UINT32(KAVO_FW_ERR_INVALID_PARAMETERS))
                << kavo_htl_operation_t_print(kavo_htl_operation_t(o.op)) << " with " << size << " bytes";
}

TEST_F(SimMacsec, IdsThatNameNothingAreOutOfRange)
{
    const UINT32 ops[] = {
        KAVO_HTL_OPERATION_MACSEC_VPORT_READ,         KAVO_HTL_OPERATION_MACSEC_VPORT_DELETE,
        KAVO_HTL_OPERATION_MACSEC_RULE_READ,          KAVO_HTL_OPERATION_MACSEC_RULE_DELETE,
        KAVO_HTL_OPERATION_MACSEC_SA_READ,            KAVO_HTL_OPERATION_MACSEC_SA_DELETE,
        KAVO_HTL_OPERATION_MACSEC_SA_NEXT_PN_GET,     KAVO_HTL_OPERATION_MACSEC_SA_SWITCH,
        KAVO_HTL_OPERATION_STATS_MACSEC_VPORT_GET,    KAVO_HTL_OPERATION_STATS_MACSEC_SA_GET,
        KAVO_HTL_OPERATION_STATS_MACSEC_RULE_GET,     KAVO_HTL_OPERATION_STATS_MACSEC_CHANNEL_GET,
        KAVO_HTL_OPERATION_MACSEC_VPORT_SA_LIST_GET,  KAVO_HTL_OPERATION_STATS_MACSEC_VPORT_SA_CLEAR,
        KAVO_HTL_OPERATION_MACSEC_CHNL_VPORT_LIST_GET,
    };
    // The ids of a free object, the last of each pool, and the "not given" value.
    for (UINT32 id : {0u, 3071u, 0xFFFFFFFFu}) {
        kavo_htl_general_struct_t info;
        info.element_id = info.parent_id = id;
        info.mode = info.flag = 0;
        for (UINT32 op : ops) {
            if (id == 0 && (op == KAVO_HTL_OPERATION_STATS_MACSEC_CHANNEL_GET ||
                            op == KAVO_HTL_OPERATION_MACSEC_CHNL_VPORT_LIST_GET))
                continue; // channel 0 exists
            const kavo_sim::exchange_result r = call(op, nullptr, 0, info);
            EXPECT_EQ(r.result(), UINT32(KAVO_FW_ERR_NUMBER_OUT_OF_RANGE))
                << kavo_htl_operation_t_print(kavo_htl_operation_t(op)) << " of " << id;
            EXPECT_TRUE(r.data.empty()) << "a refusal carries no record";
        }
    }
}

TEST_F(SimMacsec, SelfTestFramesMustFitTheirPayload)
{
    const bytes frame(20, 0x11);
    struct shape {
        const char* what;
        UINT32 payload, size, dir, bypass;
        VELT_ERROR code;
    } const shapes[] = {
        {"longer than the payload", 16, 17, 0, 0, KAVO_FW_ERR_INVALID_PARAMETERS},
        {"shorter than its addresses", 16, 13, 0, 0, KAVO_FW_ERR_INVALID_PARAMETERS},
        {"padding beyond a word", 20, 16, 0, 0, KAVO_FW_ERR_INVALID_PARAMETERS},
        {"no such direction", 16, 16, 2, 0, KAVO_FW_ERR_INVALID_PARAMETERS},
        {"bypass beyond 64", 16, 16, 0, 66, KAVO_FW_ERR_INVALID_PARAMETERS},
        {"a frame no rule takes passes", 16, 16, 1, 0, VELT_SUCCESS},
    };
    for (const shape& s : shapes) {
        kavo_htl_general_struct_t info;
        info.parent_id = 0, info.element_id = s.size, info.flag = s.dir, info.mode = s.bypass;
        const kavo_sim::exchange_result r = call(KAVO_HTL_OPERATION_MACSEC_FIPS_TEST, frame.data(), s.payload, info);
        EXPECT_EQ(r.result(), s.code) << s.what;
        if (s.code == VELT_SUCCESS) {
            EXPECT_EQ(r.data, bytes(frame.begin(), frame.begin() + 16)) << s.what;
        }
    }
}

} // namespace
