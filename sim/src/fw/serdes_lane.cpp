// The physics of one SerDes lane (see serdes_lane.h).
#include "fw/serdes_lane.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "kavo_sim/image.h"

namespace kavo_sim::fw::serdes {

UINT64 rng::next()
{
    UINT64 z = (state += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
}

double rng::uniform() { return (double(next() >> 11) + 0.5) / 9007199254740992.0; }

UINT64 rng::poisson(double mean)
{
    if (!(mean > 0)) return 0;
    if (mean < 64) {
        const double limit = std::exp(-mean);
        UINT64 k = 0;
        for (double p = uniform(); p > limit; p *= uniform())
            ++k;
        return k;
    }
    const double gauss = std::sqrt(-2 * std::log(uniform())) * std::cos(2 * M_PI * uniform());
    const double v = std::round(mean + std::sqrt(mean) * gauss);
    return v > 0 ? UINT64(v) : 0;
}

std::vector<UINT32> prbs_exponents(UINT32 mode)
{
    switch (mode) {
    case KAVO_SERDES_PRBS_7: return {7, 6};
    case KAVO_SERDES_PRBS_9: return {9, 5};
    case KAVO_SERDES_PRBS_11: return {11, 9};
    case KAVO_SERDES_PRBS_13:
    case KAVO_SERDES_PRBS_13Q: return {13, 12, 2, 1};
    case KAVO_SERDES_PRBS_15: return {15, 14};
    case KAVO_SERDES_PRBS_23: return {23, 18};
    case KAVO_SERDES_PRBS_31:
    case KAVO_SERDES_PRBS_31Q:
    case KAVO_SERDES_PRBS_SSPRQ: return {31, 28};
    default: return {};
    }
}

bool prbs_is_pam4_only(UINT32 mode)
{
    return mode == KAVO_SERDES_PRBS_13Q || mode == KAVO_SERDES_PRBS_31Q || mode == KAVO_SERDES_PRBS_SSPRQ;
}

namespace {

std::vector<UINT8> source_bits(const stream& s, size_t n)
{
    std::vector<UINT8> b(n, 0);
    rng r(s.seed);
    switch (s.kind) {
    case stream::none: break;
    case stream::mission: // scrambled data look random
        for (auto& x : b)
            x = UINT8(r.next() & 1);
        break;
    case stream::fixed:
        for (size_t k = 0; k < n; ++k) {
            const UINT32 i = UINT32(k % 64);
            b[k] = UINT8(((i < 32 ? s.fixed_lsw >> i : s.fixed_msw >> (i - 32))) & 1);
        }
        break;
    case stream::prbs:
        if (s.prbs_mode == KAVO_SERDES_PRBS_USER) {
            for (size_t k = 0; k < n; ++k)
                b[k] = UINT8((s.user[(k % USER_BITS) / 32] >> (k % 32)) & 1);
        } else {
            const auto exps = prbs_exponents(s.prbs_mode);
            const size_t degree = exps.empty() ? 0 : exps[0];
            UINT64 seed = r.next() | 1; // a non-zero start state
            for (size_t k = 0; k < n; ++k) {
                if (k < degree) {
                    b[k] = UINT8((seed >> k) & 1);
                } else {
                    UINT8 v = 0;
                    for (UINT32 e : exps)
                        v ^= b[k - e];
                    b[k] = v;
                }
            }
        }
        break;
    }
    return b;
}

// PAM4 Gray coding of a bit pair (first bit most significant) and back.
constexpr UINT8 GRAY_LEVEL[4] = {0, 1, 3, 2}; // bits 00 01 10 11 -> levels 0 1 3 2
constexpr UINT8 LEVEL_BITS[4] = {0, 1, 3, 2};

} // namespace

std::vector<UINT8> transmit(const stream& s, bool pam4, size_t n_bits)
{
    const std::vector<UINT8> bits = source_bits(s, n_bits);
    const UINT8 levels = pam4 ? 4 : 2;
    std::vector<UINT8> line;
    line.reserve(pam4 ? n_bits / 2 : n_bits);
    UINT8 prev = 0;
    for (size_t k = 0; pam4 ? k + 1 < n_bits : k < n_bits; k += pam4 ? 2 : 1) {
        UINT8 sym = pam4 ? GRAY_LEVEL[(bits[k] << 1) | bits[k + 1]] : bits[k];
        if (s.pre_code) sym = prev = UINT8((sym + levels - prev) % levels);
        if (s.invert) sym = UINT8(levels - 1 - sym);
        line.push_back(sym);
    }
    return line;
}

std::vector<UINT8> receive(const std::vector<UINT8>& line, bool pam4, bool invert, bool pre_code)
{
    const UINT8 levels = pam4 ? 4 : 2;
    std::vector<UINT8> bits;
    bits.reserve(pam4 ? line.size() * 2 : line.size());
    UINT8 prev = 0;
    for (UINT8 sym : line) {
        if (invert) sym = UINT8(levels - 1 - sym);
        UINT8 data = sym;
        if (pre_code) data = UINT8((sym + prev) % levels), prev = sym;
        if (pam4) {
            bits.push_back(UINT8(LEVEL_BITS[data] >> 1));
            bits.push_back(UINT8(LEVEL_BITS[data] & 1));
        } else {
            bits.push_back(data);
        }
    }
    return bits;
}

bool checker_locks(const std::vector<UINT8>& c, UINT32 mode, const UINT32 user[USER_WORDS])
{
    size_t wrong = 0, checked = 0;
    if (mode == KAVO_SERDES_PRBS_USER) {
        if (c.size() < USER_BITS) return false;
        auto expected = [&](size_t k) { return UINT8((user[(k % USER_BITS) / 32] >> (k % 32)) & 1); };
        // Align on the first 64 bits, then compare everything.
        size_t best = 0, best_wrong = SIZE_MAX;
        for (size_t r = 0; r < USER_BITS; ++r) {
            size_t w = 0;
            for (size_t k = 0; k < 64 && w < best_wrong; ++k)
                w += c[k] != expected(k + r);
            if (w < best_wrong) best_wrong = w, best = r;
        }
        for (size_t k = 0; k < c.size(); ++k, ++checked)
            wrong += c[k] != expected(k + best);
    } else {
        const auto exps = prbs_exponents(mode);
        if (exps.empty() || c.size() <= exps[0]) return false;
        // Self-synchronising: each bit is predicted from the bits before it.
        for (size_t k = exps[0]; k < c.size(); ++k, ++checked) {
            UINT8 v = 0;
            for (UINT32 e : exps)
                v ^= c[k - e];
            wrong += v != c[k];
        }
        // An all-zero or all-one line satisfies every even-weight recurrence.
        if (std::all_of(c.begin(), c.end(), [&](UINT8 b) { return b == c[0]; })) return false;
    }
    return wrong * 8 <= checked;
}

namespace {
constexpr INT32 TAP_LIMIT[NUM_TAPS] = {8, 16, 63, 24, 8}; // positions -2..+2
constexpr INT32 SWING = 63;

// Channel pulse response at positions -1..+3, from its loss at Nyquist.
void channel_pulse(double loss_db, double h[5])
{
    const double l = std::max(0.0, loss_db);
    h[0] = 0.008 * l;
    h[1] = 1;
    h[2] = 0.02 * l;
    h[3] = 0.006 * l;
    h[4] = 0.002 * l;
}

// Pulse after transmit FIR and channel: positions -3..+5 (index 3 the main).
constexpr UINT32 PULSE = 9, PULSE_MAIN = 3;
void tx_pulse(double loss_db, const kavo_serdes_eq_taps_cfg_t& taps, double p[PULSE])
{
    double fir[NUM_TAPS], h[5];
    tx_fir(taps, fir);
    channel_pulse(loss_db, h);
    std::fill(p, p + PULSE, 0.0);
    for (UINT32 i = 0; i < NUM_TAPS; ++i) // fir position i - 2
        for (UINT32 j = 0; j < 5; ++j)    // channel position j - 1
            p[i + j] += fir[i] * h[j];
}

// Pulse after the receive FFE: positions -5..+7 (index 5 the main).
constexpr UINT32 OUT = PULSE + NUM_TAPS - 1, OUT_MAIN = PULSE_MAIN + MAIN;
void rx_pulse(const double p[PULSE], const double w[NUM_TAPS], double q[OUT])
{
    std::fill(q, q + OUT, 0.0);
    for (UINT32 i = 0; i < PULSE; ++i)
        for (UINT32 j = 0; j < NUM_TAPS; ++j)
            q[i + j] += p[i] * w[j];
}

double depth_margin(const eye& e, UINT32 depth) { return e.sigma_mv * std::sqrt(2 * std::log(10.0) * depth); }
} // namespace

void tx_fir(const kavo_serdes_eq_taps_cfg_t& t, double fir[NUM_TAPS])
{
    const INT32 by_pos[NUM_TAPS] = {t.cm2, t.cm1, t.c0, t.c1, t.c2};
    const bool preset = std::all_of(by_pos, by_pos + NUM_TAPS, [](INT32 v) { return v == 0; });
    for (UINT32 i = 0; i < NUM_TAPS; ++i)
        fir[i] = preset ? (i == MAIN ? 1.0 : 0.0) : double(by_pos[i]) / SWING;
}

VELT_ERROR taps_check(const kavo_serdes_eq_taps_cfg_t& t)
{
    const INT32 by_pos[NUM_TAPS] = {t.cm2, t.cm1, t.c0, t.c1, t.c2};
    INT64 others = 0;
    for (UINT32 i = 0; i < NUM_TAPS; ++i) {
        if (by_pos[i] > TAP_LIMIT[i] || by_pos[i] < (i == MAIN ? 0 : -TAP_LIMIT[i]))
            return KAVO_FW_ERR_NUMBER_OUT_OF_RANGE;
        if (i != MAIN) others += std::abs(by_pos[i]);
    }
    if (t.c0 + others == 0) return VELT_SUCCESS; // the preset
    if (t.c0 + others > SWING || t.c0 <= others) return KAVO_FW_ERR_NUMBER_OUT_OF_RANGE;
    return VELT_SUCCESS;
}

eye eye_model(double loss_db, const kavo_serdes_eq_taps_cfg_t& taps, const double w[NUM_TAPS], bool pam4)
{
    double p[PULSE], q[OUT];
    tx_pulse(loss_db, taps, p);
    rx_pulse(p, w, q);
    eye e;
    e.main = q[OUT_MAIN];
    for (UINT32 k = 0; k < OUT; ++k)
        if (k != OUT_MAIN) e.isi += std::fabs(q[k]);
    const double open = std::max(0.0, e.main - e.isi);
    // The CTLE restores up to 20 dB of loss; PAM4 has three eyes in the swing.
    const double amplitude = 1000.0 * std::pow(10.0, -std::max(0.0, loss_db - 20) / 20) / (pam4 ? 3 : 1);
    e.height_mv = amplitude * open / 2;
    e.width_ui = e.main > 0 ? std::min(1.0, open / e.main) : 0;
    double gain = 0;
    for (UINT32 j = 0; j < NUM_TAPS; ++j)
        gain += w[j] * w[j];
    e.sigma_mv = (2 + 0.15 * std::max(0.0, loss_db)) * std::sqrt(gain);
    return e;
}

double eye_height(const eye& e, UINT32 depth) { return std::max(0.0, e.height_mv - 2 * depth_margin(e, depth)); }

double eye_width(const eye& e, UINT32 depth)
{
    const double half = e.height_mv / 2, k = depth_margin(e, depth);
    return half > k ? e.width_ui * std::sqrt(1 - k / half) : 0;
}

UINT8 ber_decade(const eye& e, double phase_ui, double v_mv)
{
    if (e.width_ui <= 0) return 0;
    const double x = 2 * phase_ui / e.width_ui;
    const double margin = e.height_mv / 2 * std::max(0.0, 1 - x * x) - std::fabs(v_mv);
    if (margin <= 0) return 0;
    const double d = (margin / e.sigma_mv) * (margin / e.sigma_mv) / (2 * std::log(10.0));
    return UINT8(std::min<double>(EYE_MAX_DEPTH, std::floor(d)));
}

void adapt_step(double loss_db, const kavo_serdes_eq_taps_cfg_t& taps, double w[NUM_TAPS])
{
    double p[PULSE], q[OUT];
    tx_pulse(loss_db, taps, p);
    double energy = 0;
    for (double v : p)
        energy += v * v;
    const double mu = 0.25 / energy;
    for (int it = 0; it < 4; ++it) {
        rx_pulse(p, w, q);
        for (UINT32 j = 0; j < NUM_TAPS; ++j) {
            if (j == MAIN) continue;
            double grad = 0; // d/dw_j of the residual cursors' energy
            for (UINT32 k = 0; k < OUT; ++k) {
                if (k == OUT_MAIN || k < j || k - j >= PULSE) continue;
                grad += 2 * q[k] * p[k - j];
            }
            w[j] -= mu * grad;
        }
    }
}

UINT32 ctle_peaking_db10(double loss_db) { return UINT32(std::lround(std::clamp(loss_db, 0.0, 20.0) * 10 * 0.6)); }

fec_counts fec_monitor(double bits, double ber, rng& r)
{
    fec_counts f;
    f.codewords = UINT64(bits / FEC_CODEWORD_BITS);
    const double p_symbol = 1 - std::pow(1 - std::clamp(ber, 0.0, 1.0), 10);
    const double lambda = FEC_SYMBOLS * p_symbol;
    f.symbol_errors = r.poisson(double(f.codewords) * lambda);
    // Codewords by their number of symbol errors (Poisson per codeword).
    double term = std::exp(-lambda), within = term;
    for (UINT32 k = 1; k <= FEC_T; ++k)
        within += term *= lambda / k;
    f.uncorrectable = UINT64(std::llround(double(f.codewords) * std::max(0.0, 1 - within)));
    const double with_errors = double(f.codewords) * (within - std::exp(-lambda));
    f.corrected = std::min<UINT64>(f.symbol_errors, UINT64(std::llround(std::max(0.0, with_errors))));
    if (f.corrected == 0 && f.symbol_errors > 0 && f.uncorrectable == 0) f.corrected = 1;
    return f;
}

std::vector<UINT8> microcode_file(UINT32 version, UINT32 code_bytes, UINT32 seed)
{
    code_bytes = (code_bytes + 3) / 4 * 4;
    UINT32 image = UCODE_IMAGE_HEADER + code_bytes;
    if (image % UCODE_CHUNK == UCODE_CLOSING_SIZE) image += 4;
    std::vector<UINT8> file(UCODE_FILE_HEADER + image, 0);
    char text[96];
    const int n = std::snprintf(text, sizeof(text), "kavo SerDes microcode\nversion 0x%08x\nimage %u bytes\n",
                                version, image);
    std::memcpy(file.data(), text, size_t(n));
    UINT8* img = file.data() + UCODE_FILE_HEADER;
    rng r(seed);
    for (UINT32 i = UCODE_IMAGE_HEADER; i < image; ++i)
        img[i] = UINT8(r.next());
    const UINT32 words[4] = {UCODE_MAGIC, version, image, crc32(img + UCODE_IMAGE_HEADER, image - UCODE_IMAGE_HEADER)};
    std::memcpy(img, words, sizeof(words));
    return file;
}

} // namespace kavo_sim::fw::serdes
