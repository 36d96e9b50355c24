// The physics of one SerDes lane, free of firmware state: PRBS generators and
// the self-synchronising checker, line coding (PAM4 Gray symbols, polarity,
// 1/(1+D) pre-coding), the channel and equaliser eye model, receive FFE
// adaptation, error statistics, and the microcode image format.
#ifndef KAVO_SIM_FW_SERDES_LANE_H
#define KAVO_SIM_FW_SERDES_LANE_H

#include <vector>

#include "kavo/kavo_api.h"

namespace kavo_sim::fw::serdes {

// ---- random numbers: deterministic for a seed ----
struct rng {
    UINT64 state;
    explicit rng(UINT64 seed) : state(seed) {}
    UINT64 next();
    double uniform(); // in (0, 1)
    /* A Poisson count of the given mean (normal approximation above 64). */
    UINT64 poisson(double mean);
};

// ---- patterns on the line ----
constexpr UINT32 USER_WORDS = 10;
constexpr UINT32 USER_BITS = USER_WORDS * 32;

/* The feedback exponents of a PRBS polynomial (x^n + ... + 1, the 1 left out):
   bit k = XOR of bit k - e over the exponents. Empty for non-LFSR patterns. */
std::vector<UINT32> prbs_exponents(UINT32 prbs_mode);
bool prbs_is_pam4_only(UINT32 prbs_mode);

/* What a transmitter puts on the line. */
struct stream {
    enum kind_t { none, mission, prbs, fixed } kind = none;
    UINT32 prbs_mode = KAVO_SERDES_PRBS_NONE;
    UINT32 user[USER_WORDS] = {};
    UINT32 fixed_msw = 0, fixed_lsw = 0;
    bool invert = false;   // transmit polarity inverted
    bool pre_code = false; // transmit 1/(1+D) pre-coding
    UINT64 seed = 1;       // start state of the generator or the scrambler
};

/* The line symbols of n bits of a stream: 0/1 on NRZ, levels 0..3 (Gray coded
   bit pairs, first bit the most significant) on PAM4. */
std::vector<UINT8> transmit(const stream& s, bool pam4, size_t n_bits);
/* The bits a receiver recovers from line symbols, with its own polarity and
   pre-coding settings. */
std::vector<UINT8> receive(const std::vector<UINT8>& line, bool pam4, bool invert, bool pre_code);
/* The checker's verdict on received bits: true when it synchronises to the
   pattern it monitors (at most one prediction in eight wrong). */
bool checker_locks(const std::vector<UINT8>& bits, UINT32 prbs_mode, const UINT32 user[USER_WORDS]);

// ---- equalisation and the eye ----
constexpr UINT32 NUM_TAPS = 5; // positions -2..+2, index 2 the main cursor
constexpr UINT32 MAIN = 2;
constexpr UINT32 EYE_STEPS = 32;
constexpr UINT32 EYE_MV_PER_STEP = 16;
constexpr UINT32 EYE_DEFAULT_DEPTH = 6;
constexpr UINT32 EYE_MAX_DEPTH = 15;

/* Transmit taps by position from a record; the preset when all are zero. */
void tx_fir(const kavo_serdes_eq_taps_cfg_t& taps, double fir[NUM_TAPS]);
/* 0 when the taps are within their ranges and sum limits, else the code. */
VELT_ERROR taps_check(const kavo_serdes_eq_taps_cfg_t& taps);

struct eye {
    double main = 0;      // main cursor after both equalisers
    double isi = 0;       // sum of the residual cursors' magnitudes
    double height_mv = 0; // inter-symbol-limited opening
    double width_ui = 0;
    double sigma_mv = 1;  // random noise at the slicer
};
eye eye_model(double loss_db, const kavo_serdes_eq_taps_cfg_t& taps, const double rx_ffe[NUM_TAPS], bool pam4);
/* Height (mV) and width (UI) where the error ratio is below 10^-depth. */
double eye_height(const eye& e, UINT32 depth);
double eye_width(const eye& e, UINT32 depth);
/* The decade of the error ratio at a phase offset (UI) and a slicer offset (mV). */
UINT8 ber_decade(const eye& e, double phase_ui, double v_mv);
/* One adaptation step: moves the receive FFE weights (main fixed at 1) toward
   the least residual inter-symbol interference. */
void adapt_step(double loss_db, const kavo_serdes_eq_taps_cfg_t& taps, double rx_ffe[NUM_TAPS]);
/* CTLE peaking the adaptation chooses for a loss, 0.1 dB. */
UINT32 ctle_peaking_db10(double loss_db);

// ---- FEC monitor: RS(544,514) over 10-bit symbols ----
constexpr UINT32 FEC_CODEWORD_BITS = 5440;
constexpr UINT32 FEC_SYMBOLS = 544;
constexpr UINT32 FEC_T = 15;
struct fec_counts {
    UINT64 codewords = 0, symbol_errors = 0, corrected = 0, uncorrectable = 0;
};
fec_counts fec_monitor(double bits, double ber, rng& r);

// ---- microcode image ----
/* A microcode file is a 4096-byte file header (text for people; not sent to
   the chip) followed by the image, which the host streams in chunks. The image
   starts with a 32-byte header of words: magic, version, image size in bytes
   (header included) and the CRC-32 of the bytes after the header. An image
   whose last chunk would be exactly 24 bytes is padded by one word, so that the
   24-byte closing request is never mistaken for data. */
constexpr UINT32 UCODE_FILE_HEADER = 4096;
constexpr UINT32 UCODE_CHUNK = 8192;
constexpr UINT32 UCODE_CLOSING_SIZE = 24;
constexpr UINT32 UCODE_IMAGE_HEADER = 32;
constexpr UINT32 UCODE_MAGIC = 0x5344534B; // "KSDS"
constexpr UINT32 UCODE_MAX_IMAGE = 1u << 20;
std::vector<UINT8> microcode_file(UINT32 version, UINT32 code_bytes, UINT32 seed = 1);

} // namespace kavo_sim::fw::serdes

#endif
