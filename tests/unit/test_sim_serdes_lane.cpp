// The physics of a SerDes lane on its own: PRBS checkers against every
// polynomial, polarity and pre-coding on NRZ and PAM4 lines, tap limits, the
// eye against channel loss, taps and adaptation, error statistics, and the
// microcode image layout.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "../../sim/src/fw/serdes_lane.h"
#include "kavo_sim/image.h"

namespace s = kavo_sim::fw::serdes;

namespace {

const UINT32 NO_USER[s::USER_WORDS] = {};
const UINT32 USER[s::USER_WORDS] = {0xDEADBEEF, 1, 2, 3, 0x12345678, 5, 6, 7, 8, 0xCAFEF00D};

s::stream prbs(UINT32 mode, bool invert = false, bool pre_code = false)
{
    s::stream st;
    st.kind = s::stream::prbs;
    st.prbs_mode = mode;
    std::memcpy(st.user, USER, sizeof(USER));
    st.invert = invert;
    st.pre_code = pre_code;
    st.seed = 7;
    return st;
}

bool locks(const s::stream& st, bool pam4, UINT32 monitor, bool rx_invert = false, bool rx_pre_code = false)
{
    const auto bits = s::receive(s::transmit(st, pam4, 2048), pam4, rx_invert, rx_pre_code);
    return s::checker_locks(bits, monitor, monitor == KAVO_SERDES_PRBS_USER ? USER : NO_USER);
}

constexpr UINT32 PATTERNS[] = {KAVO_SERDES_PRBS_7,  KAVO_SERDES_PRBS_9,  KAVO_SERDES_PRBS_11,  KAVO_SERDES_PRBS_13,
                               KAVO_SERDES_PRBS_15, KAVO_SERDES_PRBS_23, KAVO_SERDES_PRBS_31, KAVO_SERDES_PRBS_USER};

TEST(SerdesLane, CheckerLocksOnlyOnItsOwnPatternWithMatchingPolarity)
{
    for (bool pam4 : {false, true}) {
        for (UINT32 gen : PATTERNS) {
            SCOPED_TRACE(testing::Message() << "pattern " << gen << (pam4 ? " PAM4" : " NRZ"));
            EXPECT_TRUE(locks(prbs(gen), pam4, gen));
            EXPECT_FALSE(locks(prbs(gen, true), pam4, gen)) << "inverted at the transmitter";
            EXPECT_FALSE(locks(prbs(gen), pam4, gen, true)) << "inverted at the receiver";
            EXPECT_TRUE(locks(prbs(gen, true), pam4, gen, true)) << "inverted at both ends";
            for (UINT32 mon : PATTERNS) {
                EXPECT_EQ(locks(prbs(gen), pam4, mon), mon == gen) << "monitor " << mon;
            }
        }
    }
}

TEST(SerdesLane, PreCodingMustMatchAtBothEnds)
{
    for (UINT32 gen : {KAVO_SERDES_PRBS_13, KAVO_SERDES_PRBS_31}) {
        for (bool pam4 : {false, true}) {
            EXPECT_TRUE(locks(prbs(gen, false, true), pam4, gen, false, true)) << "both ends";
            EXPECT_TRUE(locks(prbs(gen, true, true), pam4, gen, true, true)) << "with inversion at both ends";
        }
        EXPECT_FALSE(locks(prbs(gen, false, true), true, gen)) << "transmitter only";
        EXPECT_FALSE(locks(prbs(gen), true, gen, false, true)) << "receiver only";
    }
}

TEST(SerdesLane, CheckerNeverLocksOnDataWithoutPattern)
{
    s::stream st;
    for (auto kind : {s::stream::none, s::stream::mission, s::stream::fixed}) {
        st.kind = kind;
        st.fixed_lsw = 0xFFFFFFFF;
        st.fixed_msw = 0xFFFFFFFF; // constant: every even-weight recurrence holds
        for (UINT32 mon : PATTERNS)
            EXPECT_FALSE(locks(st, false, mon)) << "kind " << kind << " monitor " << mon;
    }
}

kavo_serdes_eq_taps_cfg_t taps(INT32 cm2, INT32 cm1, INT32 c0, INT32 c1, INT32 c2)
{
    kavo_serdes_eq_taps_cfg_t t{};
    t.cm2 = cm2, t.cm1 = cm1, t.c0 = c0, t.c1 = c1, t.c2 = c2;
    return t;
}

TEST(SerdesLane, TapsAreCheckedAgainstRangesAndSums)
{
    struct {
        kavo_serdes_eq_taps_cfg_t t;
        bool ok;
    } cases[] = {
        {taps(0, 0, 0, 0, 0), true},     {taps(0, -6, 45, -12, 0), true},  {taps(-8, -16, 40, 0, 0), false},
        {taps(-9, 0, 40, 0, 0), false},  {taps(0, -17, 40, 0, 0), false},  {taps(0, 0, 38, -25, 0), false},
        {taps(0, 0, 50, 0, 9), false},   {taps(0, 0, 64, 0, 0), false},    {taps(0, 0, -1, 0, 0), false},
        {taps(0, -10, 10, 0, 0), false}, {taps(0, -10, 11, 0, 0), true},   {taps(-8, -16, 40, -24, 0), false},
        {taps(8, 16, 39, 0, 0), true},  {taps(0, 0, 63, 0, 0), true},     {taps(0, 0, 0, -5, 0), false},
    };
    for (const auto& c : cases) {
        const auto& t = c.t;
        EXPECT_EQ(s::taps_check(t) == VELT_SUCCESS, c.ok)
            << t.cm2 << " " << t.cm1 << " " << t.c0 << " " << t.c1 << " " << t.c2;
        if (!c.ok) {
            EXPECT_EQ(s::taps_check(t), UINT32(KAVO_FW_ERR_NUMBER_OUT_OF_RANGE));
        }
    }
}

const double FLAT[s::NUM_TAPS] = {0, 0, 1, 0, 0};

TEST(SerdesLane, EyeShrinksWithLossAndOpensWithSuitedTapsAndAdaptation)
{
    const auto preset = taps(0, 0, 0, 0, 0), suited = taps(0, -6, 45, -12, 0), wrong = taps(0, 6, 45, 12, 0);
    double last = 1e9;
    for (double loss : {0.0, 5.0, 10.0, 15.0, 20.0}) {
        const double h = s::eye_height(s::eye_model(loss, preset, FLAT, true), 6);
        EXPECT_LT(h, last) << loss << " dB";
        last = h;
    }
    const auto base = s::eye_model(15, preset, FLAT, true);
    const auto good = s::eye_model(15, suited, FLAT, true);
    EXPECT_GT(good.height_mv, base.height_mv);
    EXPECT_GT(good.width_ui, base.width_ui);
    EXPECT_LT(s::eye_model(15, wrong, FLAT, true).height_mv, base.height_mv) << "emphasis of the wrong sign";

    double w[s::NUM_TAPS] = {0, 0, 1, 0, 0};
    double isi = base.isi / base.main;
    for (int step = 0; step < 8; ++step) {
        s::adapt_step(15, preset, w);
        const auto e = s::eye_model(15, preset, w, true);
        EXPECT_LE(e.isi / e.main, isi + 1e-9) << "step " << step;
        isi = e.isi / e.main;
    }
    EXPECT_EQ(w[s::MAIN], 1.0);
    EXPECT_LT(w[s::MAIN + 1], 0) << "a post-cursor is cancelled with a negative weight";
    EXPECT_GT(s::eye_height(s::eye_model(15, preset, w, true), 6), s::eye_height(base, 6) * 1.2);
}

TEST(SerdesLane, EyeDataAgreeWithTheHeightAndWidthAtEachDepth)
{
    const auto e = s::eye_model(10, taps(0, 0, 0, 0, 0), FLAT, false);
    for (UINT32 depth : {3u, 6u, 9u, 12u}) {
        const double h = s::eye_height(e, depth), wd = s::eye_width(e, depth);
        ASSERT_GT(h, 10);
        EXPECT_LT(h, s::eye_height(e, depth - 1));
        EXPECT_GE(s::ber_decade(e, 0, h / 2 - 1), depth);
        EXPECT_LT(s::ber_decade(e, 0, h / 2 + 1), depth);
        EXPECT_GE(s::ber_decade(e, wd / 2 - 0.01, 0), depth);
        EXPECT_LT(s::ber_decade(e, wd / 2 + 0.01, 0), depth);
    }
    EXPECT_EQ(s::ber_decade(s::eye{}, 0, 0), 0) << "no signal, no eye";
}

TEST(SerdesLane, CountsFollowTheirStatistics)
{
    s::rng r(42);
    for (double mean : {0.5, 10.0, 1000.0, 1e6}) {
        double sum = 0, sq = 0;
        const int n = 2000;
        for (int i = 0; i < n; ++i) {
            const double v = double(r.poisson(mean));
            sum += v, sq += v * v;
        }
        const double m = sum / n, var = sq / n - m * m;
        EXPECT_NEAR(m, mean, 5 * std::sqrt(mean / n)) << mean;
        EXPECT_NEAR(var / mean, 1.0, 0.15) << mean;
    }
    // 1 s of a 53 Gb/s lane at 10^-8: 531 symbol errors expected, each in its own codeword.
    const s::fec_counts f = s::fec_monitor(53.125e9, 1e-8, r);
    EXPECT_EQ(f.codewords, UINT64(53.125e9 / s::FEC_CODEWORD_BITS));
    EXPECT_NEAR(double(f.symbol_errors), 531, 5 * std::sqrt(531.0));
    EXPECT_NEAR(double(f.corrected), double(f.symbol_errors), 5);
    EXPECT_EQ(f.uncorrectable, 0u);
    EXPECT_EQ(s::fec_monitor(53.125e9, 0.02, r).uncorrectable, s::fec_monitor(53.125e9, 0.02, r).codewords)
        << "over a hundred symbol errors per codeword: none corrected";
}

TEST(SerdesLane, MicrocodeImageCarriesItsSizeAndChecksumAndNeverEndsInAClosingSizedChunk)
{
    for (UINT32 code : {100u, s::UCODE_CHUNK - s::UCODE_IMAGE_HEADER + s::UCODE_CLOSING_SIZE, 3 * s::UCODE_CHUNK}) {
        const auto f = s::microcode_file(0x010203, code);
        const UINT8* img = f.data() + s::UCODE_FILE_HEADER;
        UINT32 w[4];
        std::memcpy(w, img, sizeof(w));
        EXPECT_EQ(w[0], s::UCODE_MAGIC);
        EXPECT_EQ(w[1], 0x010203u);
        EXPECT_EQ(w[2], f.size() - s::UCODE_FILE_HEADER);
        EXPECT_NE(w[2] % s::UCODE_CHUNK, s::UCODE_CLOSING_SIZE) << code;
        EXPECT_EQ(w[3], kavo_sim::crc32(img + s::UCODE_IMAGE_HEADER, w[2] - s::UCODE_IMAGE_HEADER));
    }
}

} // namespace
