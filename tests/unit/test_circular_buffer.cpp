// The console ring: the writer and the reader against each other through a
// fake bus that holds the log-buffer block, and the shared-memory location.
#include <gtest/gtest.h>

#include <string>

#include "kavo_fake_bus.h"
#include "kavo_test_log.h"
#include "velt_circular_buffer_reader.h"
#include "velt_circular_buffer_writer.h"
#include "velt_shared_memory.h"

namespace {

constexpr UINT32 BASE = VELT_DEVICE_LOG_BUFFERS_OCR_ADDR;
constexpr UINT32 RING_WORDS = 8192;
const std::string START = "velt_circular_buffer_reader: start of console log\n";
const std::string END = "velt_circular_buffer_reader: end of console log\n";

class CircularBuffer : public ::testing::Test {
protected:
    void SetUp() override
    {
        kavo_test::install_capture(kavo_test::fake_bus::callouts());
        bus.map(BASE, 131140);
        bus.set_word(BASE, VELT_CONSOLE_COOKIE);
        writer.init(word_ptr(8), word_ptr(4), reinterpret_cast<char*>(bus.at(BASE + 68)), RING_WORDS * 4);
        sys = velt_sys_handle_create();
        velt_sys_init(sys, 0);
    }
    void TearDown() override { velt_sys_handle_destroy(sys); }

    volatile UINT32* word_ptr(UINT32 offset) { return reinterpret_cast<volatile UINT32*>(bus.at(BASE + offset)); }
    UINT32 ring(UINT32 index) { return bus.word(BASE + 68 + 4 * index); }
    void write(const std::string& text) { writer.write_char_data(const_cast<char*>(text.data()), (int)text.size()); }
    void start() { reader.console_log_init(sys); }

    kavo_test::fake_bus bus;
    velt_circular_buffer_writer writer;
    velt_circular_buffer_reader reader;
    velt_sys_handle_t sys = nullptr;
};

TEST_F(CircularBuffer, EmptyRingPrintsOnlyTheBanners)
{
    start();
    EXPECT_TRUE(reader.start_reading_from_buffer(stdout));
    EXPECT_EQ(kavo_test::take(), START + END);
}

TEST_F(CircularBuffer, WriterPacksTextAndPublishesTheIndexAfterTheData)
{
    // Lengths 1..8 cover every remainder; a multiple of 4 carries no NUL.
    struct Case {
        std::string text;
        std::vector<UINT32> words;
    } cases[] = {
        {"a", {0, 1, 0x61}},
        {"abcd", {0, 1, 0x64636261}},
        {"abcde", {0, 2, 0x64636261, 0x65}},
        {"abcdefgh", {0, 2, 0x64636261, 0x68676665}},
        {"", {0, 1, 0}},
    };
    UINT32 at = 0;
    for (const Case& c : cases) {
        write(c.text);
        for (UINT32 i = 0; i < c.words.size(); ++i) EXPECT_EQ(ring(at + i), c.words[i]) << c.text << " word " << i;
        at += (UINT32)c.words.size();
        EXPECT_EQ(bus.word(BASE + 8), at);
    }
}

TEST_F(CircularBuffer, WholeBufferPrintsTextsWhoseLengthIsAMultipleOfFour)
{
    write("abcd");
    write("hello\n");
    write("12345678");
    start();
    EXPECT_TRUE(reader.start_reading_from_buffer(stdout));
    EXPECT_EQ(kavo_test::take(), START + "abcdhello\n12345678" + END);
    EXPECT_EQ(reader.read_index(), bus.word(BASE + 8));
}

TEST_F(CircularBuffer, FollowsNewRecordsAfterSkippingToTheEnd)
{
    write("old\n");
    start();
    EXPECT_TRUE(reader.skip_to_end_of_buffer());
    EXPECT_TRUE(reader.check_for_new_data_in_buffer(stdout));
    EXPECT_EQ(kavo_test::take(), "");
    write("new1\n");
    write("new2!");
    EXPECT_TRUE(reader.check_for_new_data_in_buffer(stdout));
    EXPECT_EQ(kavo_test::take(), "\nprinting from _read_index=3 to _write_index=11\nnew1\nnew2!");
}

TEST_F(CircularBuffer, WriterWrapsWhenFewerThanCountPlusFiveWordsRemain)
{
    const std::string text(4 * 1000 - 1, 'x');  // 1000 words per record
    for (int i = 0; i < 8; ++i) write(text);   // 8 * 1002 = 8016 words
    EXPECT_EQ(writer.write_index(), 8016u);
    // 8016 + 1000 + 5 > 8192: marker at 8016, the record goes to word 0.
    write(text);
    EXPECT_EQ(ring(8016), 0u);
    EXPECT_EQ(ring(8017), 0u);
    EXPECT_EQ(ring(1), 1000u);
    EXPECT_EQ(bus.word(BASE + 4), 1u);
    EXPECT_EQ(bus.word(BASE + 8), 1002u);
    // A record that still fits with five words to spare does not wrap.
    velt_circular_buffer_writer fresh;
    fresh.init(word_ptr(8), word_ptr(4), reinterpret_cast<char*>(bus.at(BASE + 68)), 40);  // 10 words
    std::string three = "abcdefghi";  // 3 words: 0 + 3 + 5 = 8 <= 10
    fresh.write_char_data(three.data(), (int)three.size());
    EXPECT_EQ(fresh.wrap_count(), 0u);
    fresh.write_char_data(three.data(), (int)three.size());  // 5 + 3 + 5 > 10
    EXPECT_EQ(fresh.wrap_count(), 1u);
    EXPECT_EQ(fresh.write_index(), 5u);
}

TEST_F(CircularBuffer, ReaderFollowsTheWriterAcrossTheWrap)
{
    start();
    EXPECT_TRUE(reader.skip_to_end_of_buffer());
    const std::string text(4 * 1000 - 1, 'x');
    for (int i = 0; i < 8; ++i) write(text);
    EXPECT_TRUE(reader.check_for_new_data_in_buffer(stdout));
    kavo_test::take();
    write(text);
    EXPECT_TRUE(reader.check_for_new_data_in_buffer(stdout));
    EXPECT_EQ(kavo_test::take(), "\nprinting from _read_index=8016 to _write_index=1002\n"
                                 "\nvelt_circular_buffer_reader: circular buffer wrapped. wrap_count=0\n" +
                                     text);
    EXPECT_EQ(reader.read_wrap_count(), 1u);
}

TEST_F(CircularBuffer, WholeBufferAfterAWrapPrintsOldestFirstAndFragmentsOfOverwrittenRecords)
{
    // Records of 1000 words fill the ring up to 8016; then a short record at 0
    // overwrites the head of the first one, whose tail is printed as fragments.
    std::string first(4 * 1000 - 1, 'A');
    write(first);
    const std::string text(4 * 1000 - 1, 'x');
    for (int i = 0; i < 7; ++i) write(text);
    std::string filler(4 * 1000 - 1, 'N');
    write(filler);  // wraps: words 0..1001
    write("tail\n");  // words 1002..1005
    start();
    EXPECT_TRUE(reader.start_reading_from_buffer(stdout));
    std::string expected = START;
    // Word 1006 onward: the first record (words 2..1001 text) is gone; the
    // second starts at 1002 and is now overwritten up to 1005, so its words
    // 1006..2003 print as fragments of 4 bytes.
    for (UINT32 w = 1006; w < 2004; ++w) expected += w == 2003 ? "xxx" : "xxxx";
    for (int i = 0; i < 6; ++i) expected += text;
    expected += filler + "tail\n" + END;
    EXPECT_EQ(kavo_test::take(), expected);
}

TEST_F(CircularBuffer, WriteIndexBeyondTheRingStopsBothPrintingPaths)
{
    write("x\n");
    bus.set_word(BASE + 8, 9000);
    start();
    EXPECT_TRUE(reader.start_reading_from_buffer(stdout));
    EXPECT_EQ(kavo_test::take(), "velt_circular_buffer_reader: write index is larger than buffer size 8192\n");
    EXPECT_FALSE(reader.check_for_new_data_in_buffer(stdout));
    EXPECT_EQ(kavo_test::take(), "write index 9000 is larger than buffer size 8192, exiting\n");
}

TEST_F(CircularBuffer, ReaderLappedByMoreThanARingReprintsTheWholeRing)
{
    write("first\n");
    start();
    EXPECT_TRUE(reader.skip_to_end_of_buffer());
    EXPECT_EQ(reader.read_index(), 4u);
    // More than one lap of 7-word records: word 4 ends up inside a record.
    const std::string text(4 * 5 - 2, 'y');
    for (int i = 0; i < 1200; ++i) write(text);
    ASSERT_EQ(writer.wrap_count(), 1u);
    EXPECT_TRUE(reader.check_for_new_data_in_buffer(stdout));
    const std::string out = kavo_test::take();
    EXPECT_NE(out.find("\nvelt_circular_buffer_reader: _read_index should be 0, but found 0x"), std::string::npos);
    EXPECT_NE(out.find(" at [4]\n" + START), std::string::npos);
    EXPECT_EQ(out.substr(out.size() - END.size()), END);
    EXPECT_EQ(reader.read_index(), writer.write_index());
}

TEST_F(CircularBuffer, RecordRunningPastTheEndIsReported)
{
    start();
    EXPECT_TRUE(reader.skip_to_end_of_buffer());
    // A corrupted count at word 1 claims more words than the ring holds.
    bus.set_word(BASE + 68 + 4, 9000);
    bus.set_word(BASE + 8, 10);
    EXPECT_TRUE(reader.check_for_new_data_in_buffer(stdout));
    const std::string out = kavo_test::take();
    EXPECT_NE(out.find("\nvelt_circular_buffer_reader:  there are only 8191 words before end of circular buffer "
                       "count=9000,_bufsize=8192,_read_index=1\n" +
                       START),
              std::string::npos);
}

TEST_F(CircularBuffer, LostCookieMeansSharedMemoryOverwritten)
{
    start();
    bus.set_word(BASE, 0);
    EXPECT_FALSE(reader.start_reading_from_buffer(stdout));
    EXPECT_EQ(kavo_test::take(), "shared memory overwritten\n");
    testing::internal::CaptureStdout();
    EXPECT_FALSE(reader.skip_to_end_of_buffer());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "shared memory overwritten\n");
}

TEST_F(CircularBuffer, WaitUntilInitializedReturnsAtOnceWhenTheCookieIsThere)
{
    testing::internal::CaptureStdout();
    reader.wait_until_initialized(sys);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_TRUE(reader.initialized());
}

TEST(SharedMemoryLocation, BothModesReadTheSameWords)
{
    kavo_test::fake_bus bus;
    kavo_test::install_capture(kavo_test::fake_bus::callouts());
    bus.map(0x1000, 64);
    for (UINT32 i = 0; i < 16; ++i) bus.set_word(0x1000 + 4 * i, 0x11111111u * i);
    velt_sys_handle_t sys = velt_sys_handle_create();
    velt_sys_init(sys, 0);
    const velt_ocr_or_shared_memory_location modes[] = {
        velt_ocr_or_shared_memory_location(sys, 0x1000),
        velt_ocr_or_shared_memory_location(reinterpret_cast<volatile UINT32*>(bus.at(0x1000))),
    };
    for (const auto& base : modes) {
        const velt_ocr_or_shared_memory_location at8(base, 8);
        EXPECT_EQ(at8.read_32bit_value(), 0x22222222u);
        EXPECT_EQ(at8.is_shared_memory(), base.is_shared_memory());
        UINT32 words[3] = {};
        at8.read_words_no_flip(words, 1, 3);
        EXPECT_EQ(words[0], 0x33333333u);
        EXPECT_EQ(words[2], 0x55555555u);
        at8.read_bytes_no_flip(words, 8, 8);
        EXPECT_EQ(words[0], 0x44444444u);
        at8.read_bytes_and_flip(words, 4, 4);
        EXPECT_EQ(words[0], 0x33333333u);
        EXPECT_DEATH(at8.read_bytes_no_flip(words, 2, 4), "");
    }
    velt_sys_handle_destroy(sys);
}

}  // namespace
