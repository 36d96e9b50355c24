// The firmware log record decoder: texts, data words consumed, bounds.
#include <gtest/gtest.h>

#include <string>

#include "fw_log_print.h"
#include "kavo/kavo_api.h"

namespace {

struct Decoded {
    std::string text;
    UINT32 words;
};

Decoded decode(INT32 code, UINT32 d0, UINT32 d1 = 0, UINT32 d2 = 0, UINT32 d3 = 0, UINT32 d4 = 0, UINT32 size = 1001)
{
    std::string out(size, '#');
    UINT32 words = 2;
    fw_log_print(nullptr, code, d0, d1, d2, d3, d4, out.data(), size, &words);
    return {out.c_str(), words};
}

TEST(FwLogPrint, RegisterAccessFamily)
{
    struct Case {
        INT32 code;
        UINT32 d[5];
        const char* text;
        UINT32 words;
    } cases[] = {
        {6400, {7, 0xFFFFFFFF}, "start of log codes for LUMOHAL d0=7, d1=-1", 2},
        {6401, {3, 4}, "LUMOHAL: Supplied value takes up more bits than the mask. d0=3, d1=4", 2},
        {6402, {0xF00020, 5}, "RD addr=0x00f00020 value=0x00000005 // read addr=0x00f00020, mask=0xffffffff, value=0x00000005", 2},
        {6403, {0xF00020, 5}, "WR addr=0x00f00020 value=0x00000005 // write addr=0x00f00020, mask=0xffffffff, value=0x00000005", 2},
        {6404, {0x10, 0x30}, "SET_MSK addr=0x00000010 value=0x00000030 // write addr=0x00000010, mask=0x00000030, value=0x00000030", 2},
        {6405, {0x10, 0x30}, "RESET_MSK addr=0x00000010 value=0x00000030 // write addr=0x00000010, mask=0x00000030, value=0x00000000", 2},
        {6406, {0x10, 0xF0, 0x20}, "RMW addr=0x00000010 mask=0x000000f0 value=0x00000020 // write addr=0x00000010, mask=0x000000f0, value=0x00000020", 3},
        {6407, {0x10, 1, 1, 500}, "Poll addr=0x00000010 mask=0x00000001 value=0x00000001 timeout=500 usec // read addr=0x00000010, mask=0x00000001, value=0x00000001", 5},
        {6409, {0x10, 0xFF, 0x12}, "RDF addr=0x00000010 mask=0x000000ff value=0x00000012 // read addr=0x00000010, mask=0x000000ff, value=0x00000012", 3},
        {6410, {0x10, 1, 1, 12}, "POLL SUCCESS addr=0x00000010 mask=0x00000001 value=0x00000001 duration=12 usec // read addr=0x00000010, mask=0x00000001, value=0x00000001", 5},
        {6412, {0x10, 1, 0, 9}, "POLL FAILED addr=0x00000010 mask=0x00000001 value=0x00000000 iterations=9 // read addr=0x00000010, mask=0x00000001, value=0x00000000", 5},
        {6413, {250}, "SLEEP_STARTED duration=250 usec", 2},
        {6414, {250}, "SLEEP_FINISHED duration=250 usec", 2},
        // Poll ticks run at 200 per microsecond: 2500 ticks are 12.5 usec.
        {6415, {0x10, 1, 1, 2500}, "POLL SUCCESS addr=0x00000010 mask=0x00000001 value=0x00000001 duration=12.5 usec // read addr=0x00000010, mask=0x00000001, value=0x00000001", 5},
        {6416, {0x10, 1, 0, 201}, "POLL FAILED addr=0x00000010 mask=0x00000001 value=0x00000000 duration=1.0 usec // read addr=0x00000010, mask=0x00000001, value=0x00000000", 5},
        {6417, {0x10, 1, 1, 3}, "POLL ITERATIONS addr=0x00000010 mask=0x00000001 value=0x00000001 iterations=3 // read addr=0x00000010, mask=0x00000001, value=0x00000001", 5},
    };
    for (const Case& c : cases) {
        const Decoded got = decode(c.code, c.d[0], c.d[1], c.d[2], c.d[3], c.d[4]);
        EXPECT_EQ(got.text, c.text) << c.code;
        EXPECT_EQ(got.words, c.words) << c.code;
    }
}

TEST(FwLogPrint, DefectsDebugLogAndBlockForms)
{
    struct Case {
        INT32 code;
        UINT32 d[3];
        const char* text;
        UINT32 words;
    } cases[] = {
        {DEFECTS_LOG_ENABLE, {4, 0x1000, 3}, "DEFECTS: enable ive offset=4 e_addr=0x00001000 bit_num=3 // write addr=0x00001000, mask=0x00000008, value=0x00000008", 3},
        {DEFECTS_LOG_DISABLE, {4, 0x1000, 3}, "DEFECTS: disable ive offset=4 e_addr=0x00001000 bit_num=3 // write addr=0x00001000, mask=0x00000008, value=0x00000000", 3},
        {DEFECTS_LOG_BIND_I, {1, 0x2000, 31}, "DEFECTS: bind ive offset=1 i_addr=0x00002000 bit_num=31 // read addr=0x00002000, mask=0x80000000, value=0x00000000", 3},
        {DBG_LOG_RUNTIME_ERROR_LOG, {0x2105, 7}, "VELT_RUNTIME_ERROR: error log HTL_ERR_DEVICE_OFFLINE (0x2105), d1=7", 2},
        {DBG_LOG_RUNTIME_ERROR_POSSIBLE_LOG, {0x2110, 0}, "RUNTIME_ERROR_POSSIBLE_LOG: error log illegal kavo_err_t (0x2110), d1=0", 2},
        {DBG_LOG_USER_LOG, {1, 2}, "DBG_LOG: user log. d0=1, d1=2", 2},
        {DBG_LOG_ERROR_LOG_END, {1, 2}, "DBG_LOG: end of a string message", 2},
        {PB_LOG_CHNL_PROV, {0x700000, 0x00020005, 0x00010008}, "pb::chnl_prov block=0x00700000, egress_port=5 egress_port_chnl=2 calendar_days=8 data_path=1", 3},
        {SCBS4_LOG_SCHD_INIT, {0x12, 1}, "scbs4::schd_init block=0x00000012, energy_state=VELT_ENERGY_STATE_LOWPWR", 3},
        {PMON_ERR_INVALID_LCLK_GEN, {-2u, 3}, "PMON: Invalid LCLK generator d0=-2, d1=3", 2},
        // A code without a text of its own names itself in words.
        {HTL_ERR_DEVICE_OFFLINE, {1, 2}, "HTL: htl err device offline d0=1, d1=2", 2},
        {65535, {0, 0}, "illegal log code\n", 2},
        {-1, {0, 0}, "illegal log code\n", 2},
    };
    for (const Case& c : cases) {
        const Decoded got = decode(c.code, c.d[0], c.d[1], c.d[2], 0xAAAA, 0xBBBB);
        EXPECT_EQ(got.text, c.text) << c.code;
        EXPECT_EQ(got.words, c.words) << c.code;
    }
}

TEST(FwLogPrint, OutputIsBoundedByItsSize)
{
    EXPECT_EQ(decode(6413, 250, 0, 0, 0, 0, 10).text, "SLEEP_STA");
    EXPECT_EQ(decode(6413, 250, 0, 0, 0, 0, 1).text, "");
    std::string untouched = "keep";
    UINT32 words = 2;
    fw_log_print(nullptr, 6413, 1, 2, 3, 4, 5, untouched.data(), 0, &words);
    EXPECT_EQ(untouched, "keep");
}

}  // namespace
