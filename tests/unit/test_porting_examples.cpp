// The pure parts of the porting examples (examples/porting): the SPI
// framing, burst chunking and the BAR's address and byte-order rules. The
// examples themselves need a board; these are what a port gets wrong first.
#include <gtest/gtest.h>

#include <cstring>

#include "../../examples/porting/kavo_port.h"

TEST(porting_examples, SpiFramesCarryTheAddressAndWordsMostSignificantByteFirst)
{
    uint8_t h[KAVO_SPI_HEADER_BYTES];
    kavo_spi_header(h, 1, 0x00F00380);
    const uint8_t write[] = {KAVO_SPI_WRITE, 0x00, 0xF0, 0x03, 0x80, 0x00};
    EXPECT_EQ(std::memcmp(h, write, sizeof(write)), 0);
    kavo_spi_header(h, 0, 0x12345678);
    const uint8_t read[] = {KAVO_SPI_READ, 0x12, 0x34, 0x56, 0x78, 0x00};
    EXPECT_EQ(std::memcmp(h, read, sizeof(read)), 0);

    for (uint32_t v : {0u, 1u, 0x80000000u, 0x06100000u, 0xFACEF00Du, 0xFFFFFFFFu}) {
        uint8_t w[4];
        kavo_spi_word_put(w, v);
        EXPECT_EQ(w[0], v >> 24) << std::hex << v;
        EXPECT_EQ(w[3], v & 0xFF) << std::hex << v;
        EXPECT_EQ(kavo_spi_word_get(w), v) << std::hex << v;
    }
}

TEST(porting_examples, BurstsAreSplitToTheTransferSize)
{
    struct {
        uint32_t remaining, max_bytes, words;
    } cases[] = {
        {1, 4096, 1},           {1022, 4096, 1022}, // 6 + 4088 bytes fit
        {1023, 4096, 1022},     {16384, 4096, 1022},
        {64, 10, 1},            {64, 9, 0}, // not even one word
        {0, 4096, 0},
    };
    for (const auto& c : cases)
        EXPECT_EQ(kavo_spi_chunk_words(c.remaining, c.max_bytes), c.words) << c.remaining << " " << c.max_bytes;
}

TEST(porting_examples, BarAccessesStayInsideTheBarAndOnWords)
{
    const uint64_t size = 0x1000000; // the 24-bit address space
    struct {
        uint32_t address, words, status;
    } cases[] = {
        {0x00F00380, 1, 0},
        {0x00340000, 4096, 0},
        {0x00FFFFFC, 1, 0},
        {0x00FFFFFC, 2, KAVO_PORT_ERR_RANGE},
        {0x01000000, 1, KAVO_PORT_ERR_RANGE},
        {0xFFFFFFFC, 0x40000000, KAVO_PORT_ERR_RANGE}, // no wrap-around
        {0x00F00382, 1, KAVO_PORT_ERR_ALIGN},
    };
    for (const auto& c : cases) {
        uint64_t offset = 1;
        EXPECT_EQ(kavo_bar_offset(c.address, c.words, size, &offset), c.status) << std::hex << c.address;
        if (c.status == 0) {
            EXPECT_EQ(offset, c.address);
        }
    }
    // The chip's word value, whatever the host's byte order.
    const uint32_t raw = 0x06100000;
    uint8_t bytes[4];
    std::memcpy(bytes, &raw, 4);
    const uint32_t little = uint32_t(bytes[0]) | uint32_t(bytes[1]) << 8 | uint32_t(bytes[2]) << 16 | uint32_t(bytes[3]) << 24;
    EXPECT_EQ(kavo_bar_word(little), raw);
}
