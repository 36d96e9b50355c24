// The console ring: the writer and the reader against each other through a
// fake bus that holds the log-buffer block.
#include <gtest/gtest.h>

#include <string>

#include "kavo_fake_bus.h"
#include "kavo_test_log.h"
#include "velt_circular_buffer_reader.h"
#include "velt_circular_buffer_writer.h"

namespace {

constexpr UINT32 BASE = VELT_DEVICE_LOG_BUFFERS_OCR_ADDR;
const std::string START = "velt_circular_buffer_reader: start of console log\n";
const std::string END = "velt_circular_buffer_reader: end of console log\n";
const std::string BIG(4 * 1000 - 1, 'x');  // a 1002-word record

class CircularBuffer : public ::testing::Test {
protected:
    void SetUp() override
    {
        kavo_test::install_capture(kavo_test::fake_bus::callouts());
        bus.map(BASE, 131140);
        bus.set_word(BASE, VELT_CONSOLE_COOKIE);
        writer.init(word(8), word(4), reinterpret_cast<char*>(bus.at(BASE + 68)), 8192 * 4);
        sys = velt_sys_handle_create();
        velt_sys_init(sys, 0);
        reader.console_log_init(sys);
    }
    void TearDown() override { velt_sys_handle_destroy(sys); }

    volatile UINT32* word(UINT32 offset) { return reinterpret_cast<volatile UINT32*>(bus.at(BASE + offset)); }
    UINT32 ring(UINT32 index) { return bus.word(BASE + 68 + 4 * index); }
    void write(const std::string& text, int times = 1)
    {
        for (int i = 0; i < times; ++i) writer.write_char_data(const_cast<char*>(text.data()), (int)text.size());
    }

    kavo_test::fake_bus bus;
    velt_circular_buffer_writer writer;
    velt_circular_buffer_reader reader;
    velt_sys_handle_t sys = nullptr;
};

TEST_F(CircularBuffer, WholeRingPrintsBannersAndTextsUpToTheWriteIndex)
{
    EXPECT_TRUE(reader.start_reading_from_buffer(stdout));
    EXPECT_EQ(kavo_test::take(), START + END);
    // Each remainder of the length mod 4; a multiple of 4 carries no NUL, the
    // last one is bounded by the write index; an empty text makes no record.
    for (const char* text : {"abcd", "hello\n", "a", "", "xyz", "12345678"}) write(text);
    EXPECT_EQ(ring(1), 1u);
    EXPECT_EQ(ring(2), 0x64636261u);
    EXPECT_EQ(bus.word(BASE + 8), 17u);
    EXPECT_TRUE(reader.start_reading_from_buffer(stdout));
    EXPECT_EQ(kavo_test::take(), START + "abcdhello\naxyz12345678" + END);
}

TEST_F(CircularBuffer, WriterWrapsWhenFewerThanCountPlusFiveWordsRemain)
{
    write(BIG, 8);  // 8016 words
    EXPECT_EQ(writer.write_index(), 8016u);
    write(BIG);  // 8016 + 1000 + 5 > 8192
    EXPECT_EQ(ring(8016), 0u);
    EXPECT_EQ(ring(8017), 0u);
    EXPECT_EQ(bus.word(BASE + 4), 1u);
    EXPECT_EQ(bus.word(BASE + 8), 1002u);
    velt_circular_buffer_writer small;  // 10 words: a 3-word record fits once with 5 to spare
    small.init(word(8), word(4), reinterpret_cast<char*>(bus.at(BASE + 68)), 40);
    std::string nine = "abcdefghi";
    small.write_char_data(nine.data(), 9);
    EXPECT_EQ(small.wrap_count(), 0u);
    small.write_char_data(nine.data(), 9);
    EXPECT_EQ(small.wrap_count(), 1u);
}

TEST_F(CircularBuffer, ReaderFollowsNewRecordsAcrossTheWrap)
{
    write("old\n");
    EXPECT_TRUE(reader.skip_to_end_of_buffer());
    write("new1\n");
    EXPECT_TRUE(reader.check_for_new_data_in_buffer(stdout));
    EXPECT_EQ(kavo_test::take(), "\nprinting from _read_index=3 to _write_index=7\nnew1\n");
    EXPECT_TRUE(reader.check_for_new_data_in_buffer(stdout));
    EXPECT_EQ(kavo_test::take(), "");
    write(BIG, 8);
    EXPECT_TRUE(reader.check_for_new_data_in_buffer(stdout));
    kavo_test::take();
    write(BIG);
    EXPECT_TRUE(reader.check_for_new_data_in_buffer(stdout));
    EXPECT_EQ(kavo_test::take(), "\nprinting from _read_index=8023 to _write_index=1002\n"
                                 "\nvelt_circular_buffer_reader: circular buffer wrapped. wrap_count=0\n" +
                                     BIG);
}

TEST_F(CircularBuffer, WholeRingAfterAWrapPrintsOldestFirstWithFragmentsOfOverwrittenText)
{
    write(std::string(3999, 'A'));
    write(BIG, 7);
    const std::string newest(3999, 'N');
    write(newest);   // wraps, overwriting the first record exactly
    write("tail\n");  // overwrites the head of the second record (words 1002..1005)
    EXPECT_TRUE(reader.start_reading_from_buffer(stdout));
    std::string expected = START;
    for (UINT32 w = 1006; w < 2003; ++w) expected += "xxxx";
    expected += "xxx";
    for (int i = 0; i < 6; ++i) expected += BIG;
    EXPECT_EQ(kavo_test::take(), expected + newest + "tail\n" + END);
}

TEST_F(CircularBuffer, ReaderLappedByMoreThanARingReprintsTheWholeRing)
{
    write("first\n");
    EXPECT_TRUE(reader.skip_to_end_of_buffer());
    write(std::string(18, 'y'), 1200);  // 7-word records, 8400 words: word 4 is inside one
    EXPECT_TRUE(reader.check_for_new_data_in_buffer(stdout));
    const std::string out = kavo_test::take();
    EXPECT_NE(out.find("\nvelt_circular_buffer_reader: _read_index should be 0, but found 0x79797979 at [4]\n" + START),
              std::string::npos);
    EXPECT_EQ(out.substr(out.size() - END.size()), END);
    EXPECT_EQ(reader.read_index(), writer.write_index());
}

TEST_F(CircularBuffer, CorruptionIsReportedByEveryPath)
{
    bus.set_word(BASE + 8, 9000);  // a write index beyond the ring stops both printing paths
    EXPECT_TRUE(reader.start_reading_from_buffer(stdout));
    EXPECT_EQ(kavo_test::take(), "velt_circular_buffer_reader: write index is larger than buffer size 8192\n");
    EXPECT_FALSE(reader.check_for_new_data_in_buffer(stdout));
    EXPECT_EQ(kavo_test::take(), "write index 9000 is larger than buffer size 8192, exiting\n");
    bus.set_word(BASE + 8, 0);
    EXPECT_TRUE(reader.skip_to_end_of_buffer());
    bus.set_word(BASE + 68 + 4, 9000);  // a count running past the end
    bus.set_word(BASE + 8, 10);
    EXPECT_TRUE(reader.check_for_new_data_in_buffer(stdout));
    EXPECT_NE(kavo_test::take().find("\nvelt_circular_buffer_reader:  there are only 8191 words before end of circular "
                                     "buffer count=9000,_bufsize=8192,_read_index=1\n" + START),
              std::string::npos);
    bus.set_word(BASE, 0);
    EXPECT_FALSE(reader.start_reading_from_buffer(stdout));
    EXPECT_EQ(kavo_test::take(), "shared memory overwritten\n");
    testing::internal::CaptureStdout();
    EXPECT_FALSE(reader.skip_to_end_of_buffer());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "shared memory overwritten\n");
}

}  // namespace
