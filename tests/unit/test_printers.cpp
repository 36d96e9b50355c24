// Generated printers and defaults: every printed shape against golden texts,
// the enumeration name functions' edge cases, and T_init agreeing with the constructor.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "kavo/kavo_api.h"
#include "kavo_test/kavo_ptest_types.h"
#include "kavo_test_log.h"

namespace {

class Printers : public ::testing::Test {
protected:
    void SetUp() override { kavo_test::install_capture(); }
};

TEST_F(Printers, EnumNamesAndIllegalValues)
{
    char buffer[64];
    char small[10];
    struct {
        std::string got;  // copied at once: the cases share one buffer
        const char* expected;
    } cases[] = {
        {kavo_ipi_type_t_print(VELT_IPI_TEST), "VELT_IPI_TEST"},
        {kavo_ipi_type_t_print(LAST_VELT_IPI_TYPE), "LAST_VELT_IPI_TYPE"},
        {kavo_ipi_type_t_print((kavo_ipi_type_t)7), "illegal kavo_ipi_type_t"},
        {kavo_ipi_type_t_print((kavo_ipi_type_t)7, buffer, sizeof(buffer)), "illegal kavo_ipi_type_t (7)"},
        {kavo_ipi_type_t_print((kavo_ipi_type_t)7, small, sizeof(small)), "illegal k"},
        {kavo_ipi_type_t_print(VELT_IPI_TEST, buffer, sizeof(buffer)), "VELT_IPI_TEST"},
        {kavo_ipi_type_t_suffix_print(VELT_IPI_TEST), "TEST"},
        {kavo_ipi_type_t_suffix_print(VELT_IPI_HTL_DTL_MESSAGE, nullptr, 0), "HTL_DTL_MESSAGE"},
        {kavo_ipi_type_t_suffix_print(LAST_VELT_IPI_TYPE), "LAST_VELT_IPI_TYPE"},  // lacks the prefix
        {kavo_ipi_type_t_suffix_print((kavo_ipi_type_t)7), "illegal kavo_ipi_type_t"},
        {kavo_ipi_type_t_suffix_print((kavo_ipi_type_t)7, buffer, sizeof(buffer)), "illegal kavo_ipi_type_t (7)"},
        {kavo_ptest_color_t_print((kavo_ptest_color_t)5), "KAVO_PTEST_COLOR_BLUE"},  // first name of a value
        {kavo_ptest_color_t_suffix_print(KAVO_PTEST_COLOR_GREEN), "GREEN"},
        {kavo_ptest_color_t_print((kavo_ptest_color_t)-2, buffer, sizeof(buffer)), "illegal kavo_ptest_color_t (-2)"},
    };
    for (const auto& c : cases) EXPECT_EQ(c.got, c.expected);
    EXPECT_EQ(kavo_ipi_type_t_print((kavo_ipi_type_t)7, buffer, sizeof(buffer)), buffer);
}

TEST_F(Printers, EveryShapeOfAStructure)
{
    kavo_ptest_all_t v;
    v.u8 = 200;
    v.s64 = -5;
    v.ratio = 0.5;
    v.mask = 0xff00;
    v.addr64 = 0x123456789;
    v.ipi = (kavo_ipi_type_t)9;
    v.long_arr[8] = 42;
    v.colors[1] = KAVO_PTEST_COLOR_GREEN;
    v.elems[1].id = 2;
    v.corr_errors[1][0] = 4;
    v.corr_errors[1][1] = 5;
    v.corr_errors[1][2] = 6;
    std::memcpy(v.name, "abcdefgh", 8);  // fills the member: no terminator
    std::memcpy(v.names[1], "xy", 3);
    v.params.key.key_hi = 0x100000002;
    kavo_ptest_all_t_print(&v, stdout);
    // Eight scalars print on one line, nine one per line.
    EXPECT_EQ(kavo_test::take(),
              "kavo_ptest_all_t:\n"
              "    u8: 200\n"
              "    u32: 7\n"
              "    s32: -3\n"
              "    s64: -5\n"
              "    ratio: 0.500000\n"
              "    mask: 0xff00\n"
              "    addr64: 0x123456789\n"
              "    color: KAVO_PTEST_COLOR_BLUE\n"
              "    ipi: illegal kavo_ipi_type_t\n"
              "    inner:\n"
              "        id: 9\n"
              "        offset: -1\n"
              "    short_arr: [0, 0, 0, 0, 0, 0, 0, 0]\n"
              "    long_arr:\n"
              "    - 3    #long_arr[0]\n"
              "    - 3    #long_arr[1]\n"
              "    - 3    #long_arr[2]\n"
              "    - 3    #long_arr[3]\n"
              "    - 3    #long_arr[4]\n"
              "    - 3    #long_arr[5]\n"
              "    - 3    #long_arr[6]\n"
              "    - 3    #long_arr[7]\n"
              "    - 42    #long_arr[8]\n"
              "    forced_list:\n"
              "    - 0    #forced_list[0]\n"
              "    - 0    #forced_list[1]\n"
              "    forced_inline: [0, 0, 0, 0, 0, 0, 0, 0, 0]\n"
              "    colors:\n"
              "    - KAVO_PTEST_COLOR_RED    # colors[0]\n"
              "    - KAVO_PTEST_COLOR_GREEN    # colors[1]\n"
              "    -   # elems[0]\n"
              "        id: 9\n"
              "        offset: -1\n"
              "    -   # elems[1]\n"
              "        id: 2\n"
              "        offset: -1\n"
              "    corr_errors:\n"
              "    - [0, 0, 0]    # corr_errors[0][:]\n"
              "    - [4, 5, 6]    # corr_errors[1][:]\n"
              "    name: abcdefgh\n"
              "    names:\n"
              "    -     # names[0]\n"
              "    - xy    # names[1]\n"
              "    params:\n"
              "        key:\n"
              "            key_hi: 0x100000002\n"
              "            len: 16\n"
              "            flags: 0\n"
              "        words: [2, 1, 16, 0]\n");
}

TEST_F(Printers, CounterRecordsFollowTheSelection)
{
    kavo_ptest_counts_leaf_t leaf;
    using kavo_test::printed;
    EXPECT_EQ(printed([&] { kavo_ptest_counts_leaf_t_print(&leaf, KAVO_PMON_PRINT_ALL_NON_ZERO); }),
              "kavo_ptest_counts_leaf_t:\n");
    EXPECT_EQ(printed([&] { kavo_ptest_counts_leaf_t_print(&leaf, KAVO_PMON_PRINT_ALL); }),
              "kavo_ptest_counts_leaf_t:\n"
              "    rx_pkts: 0\n"
              "    rx_bytes: 0\n"
              "    total_rcvd_pkt_cnt_lsb: 0\n"
              "    total_rcvd_pkt_cnt_msb: 0\n"
              "    lane_errs:\n"
              "    - 0    #lane_errs[0]\n"
              "    - 0    #lane_errs[1]\n");

    kavo_ptest_counts_t counts;
    counts.leaf.rx_bytes = 5000000000;
    counts.lanes[1].total_rcvd_pkt_cnt_msb = 1;
    counts.lanes[1].lane_errs[1] = 7;
    EXPECT_EQ(printed([&] { counts.print("counts", KAVO_PMON_PRINT_NONE, 0, -1); }), "counts:\n");
    EXPECT_EQ(printed([&] { kavo_ptest_counts_t_print(&counts, KAVO_PMON_PRINT_ALL_NON_ZERO); }),
              "kavo_ptest_counts_t:\n"
              "    leaf:\n"
              "        rx_bytes: 5000000000\n"
              "    0:\n"
              "    1:\n"
              "        total_rcvd_pkt_cnt_msb: 1\n"
              "        lane_errs:\n"
              "        - 7    #lane_errs[1]\n");
}

// The constructor (C++) and T_init (C callers) give the same bytes, whatever was there before.
template <typename T, void (*init)(T*)>
T from_garbage()
{
    alignas(T) unsigned char raw[sizeof(T)];
    std::memset(raw, 0xA5, sizeof(raw));
    T* value = reinterpret_cast<T*>(raw);
    init(value);
    T constructed;
    EXPECT_EQ(std::memcmp(value, &constructed, sizeof(T)), 0);
    return *value;
}

TEST(PrinterDefaults, InitAndConstructorAgree)
{
    // The defaults themselves, word by word as they travel to the firmware.
    const kavo_config_t config = from_garbage<kavo_config_t, kavo_config_t_init>();
    const UINT32* words = reinterpret_cast<const UINT32*>(&config);
    const std::pair<UINT32, UINT32> config_words[] = {{244, 4}, {248, 6110}, {252, 1}, {256, 1}, {260, 1}};
    for (const auto& [offset, value] : config_words) EXPECT_EQ(words[offset / 4], value) << "kavo_config_t @" << offset;
    const kavo_htl_request_t request = from_garbage<kavo_htl_request_t, kavo_htl_request_t_init>();
    const UINT32 request_words[] = {request.device_id,       request.sequence_num,   (UINT32)request.operation,
                                    request.info.element_id, request.info.mode,      request.info.parent_id,
                                    request.info.flag,       request.data_size};
    const UINT32 expected_request[] = {0xFFFFFFFF, 0xFFFFFFFF, 4098, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0, 0};
    for (int i = 0; i < 8; ++i) EXPECT_EQ(request_words[i], expected_request[i]) << "request word " << i;
    EXPECT_EQ(request.data_ptr, nullptr);
    from_garbage<kavo_status_info_t, kavo_status_info_t_init>();
    from_garbage<kavo_ptest_all_t, kavo_ptest_all_t_init>();
    from_garbage<kavo_ptest_counts_t, kavo_ptest_counts_t_init>();
    // A reply the firmware never filled in reads as a failure.
    const kavo_htl_response_t response = from_garbage<kavo_htl_response_t, kavo_htl_response_t_init>();
    EXPECT_EQ(response.result, (VELT_ERROR)VELT_ERR_FAIL);
    EXPECT_EQ(response.device_id, 0xFFFFFFFFu);
    EXPECT_EQ(response.sequence_num, 0xFFFFFFFFu);
    EXPECT_EQ((UINT32)response.operation, 4098u);
    EXPECT_EQ(response.mode | response.value | response.value2 | response.data_size, 0u);
    EXPECT_EQ(response.data_ptr, nullptr);
}

}  // namespace
