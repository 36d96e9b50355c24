// The firmware log record decoder: texts, data words consumed, bounds.
#include <gtest/gtest.h>

#include <string>

#include "fw_log_print.h"
#include "kavo/kavo_api.h"

namespace {

std::pair<std::string, UINT32> decode(INT32 code, std::vector<UINT32> d, UINT32 size = 1001)
{
    d.resize(5);
    std::string out(size, '#');
    UINT32 words = 2;
    fw_log_print(nullptr, code, d[0], d[1], d[2], d[3], d[4], out.data(), size, &words);
    return {out.c_str(), words};
}

TEST(FwLogPrint, TextsDataWordsConsumedAndTheBoundOfTheOutput)
{
    const std::string rd = " // read addr=0x00000010, mask=0x00000001, value=0x00000001";
    const std::tuple<INT32, std::vector<UINT32>, std::string, UINT32> cases[] = {
        {6400, {7, 0xFFFFFFFF}, "start of log codes for LUMOHAL d0=7, d1=-1", 2},
        {6403, {0x20, 5}, "WR addr=0x00000020 value=0x00000005 // write addr=0x00000020, mask=0xffffffff, value=0x00000005", 2},
        {6405, {0x10, 0x30}, "RESET_MSK addr=0x00000010 value=0x00000030 // write addr=0x00000010, mask=0x00000030, value=0x00000000", 2},
        {6406, {0x10, 0xF0, 0x20}, "RMW addr=0x00000010 mask=0x000000f0 value=0x00000020 // write addr=0x00000010, mask=0x000000f0, value=0x00000020", 3},
        {6407, {0x10, 1, 1, 500}, "Poll addr=0x00000010 mask=0x00000001 value=0x00000001 timeout=500 usec" + rd, 5},
        {6413, {250}, "SLEEP_STARTED duration=250 usec", 2},
        // Poll ticks run at 200 per microsecond: 2500 ticks are 12.5 usec.
        {6415, {0x10, 1, 1, 2500}, "POLL SUCCESS addr=0x00000010 mask=0x00000001 value=0x00000001 duration=12.5 usec" + rd, 5},
        {6417, {0x10, 1, 1, 3}, "POLL ITERATIONS addr=0x00000010 mask=0x00000001 value=0x00000001 iterations=3" + rd, 5},
        {DEFECTS_LOG_ENABLE, {4, 0x1000, 3}, "DEFECTS: enable ive offset=4 e_addr=0x00001000 bit_num=3 // write addr=0x00001000, mask=0x00000008, value=0x00000008", 3},
        {DEFECTS_LOG_BIND_I, {1, 0x2000, 31}, "DEFECTS: bind ive offset=1 i_addr=0x00002000 bit_num=31 // read addr=0x00002000, mask=0x80000000, value=0x00000000", 3},
        {DBG_LOG_RUNTIME_ERROR_LOG, {0x2105, 7}, "VELT_RUNTIME_ERROR: error log HTL_ERR_DEVICE_OFFLINE (0x2105), d1=7", 2},
        {DBG_LOG_RUNTIME_ERROR_POSSIBLE_LOG, {0x123456}, "RUNTIME_ERROR_POSSIBLE_LOG: error log illegal kavo_err_t (0x123456), d1=0", 2},
        {PB_LOG_CHNL_PROV, {0x700000, 0x20005, 0x10008}, "pb::chnl_prov block=0x00700000, egress_port=5 egress_port_chnl=2 calendar_days=8 data_path=1", 3},
        {SCBS4_LOG_SCHD_INIT, {0x12, 1}, "scbs4::schd_init block=0x00000012, energy_state=VELT_ENERGY_STATE_LOWPWR", 3},
        {SCBS4_LOG_SCHD_INIT, {0x12, 99}, "scbs4::schd_init block=0x00000012, energy_state=illegal velt_energy_state_t", 3},
        {HTL_ERR_DEVICE_OFFLINE, {1, 2}, "HTL: htl err device offline d0=1, d1=2", 2},  // no text of its own
        {65535, {}, "illegal log code\n", 2},
        {-1, {}, "illegal log code\n", 2},
    };
    for (const auto& [code, d, text, words] : cases) {
        EXPECT_EQ(decode(code, d), std::make_pair(text, words)) << code;
    }
    // The output is bounded by its size, and a size of 0 leaves it alone.
    EXPECT_EQ(decode(6413, {250}, 10).first, "SLEEP_STA");
    EXPECT_EQ(decode(6413, {250}, 1).first, "");
    std::string untouched = "keep";
    UINT32 words = 2;
    fw_log_print(nullptr, 6413, 1, 2, 3, 4, 5, untouched.data(), 0, &words);
    EXPECT_EQ(untouched, "keep");
}

}  // namespace
