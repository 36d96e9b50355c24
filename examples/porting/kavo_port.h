/* What the two porting examples share: the pure arithmetic of a register
   transport, kept apart from the system calls so that it can be tested on a
   machine without the bus (tests/unit/test_porting_examples.cpp).

   Both examples follow the rules of docs/guide.md: chip addresses are 32-bit
   byte addresses of 32-bit words (always a multiple of 4), a burst covers
   `length_words` consecutive words from its start address, every word crosses
   the bus as the chip's 32-bit value, and a callout returns 0 or a non-zero
   bus status that the library prints in hexadecimal. */
#ifndef KAVO_PORT_H
#define KAVO_PORT_H

#include <stddef.h>
#include <stdint.h>

/* Bus status of the examples: 0xE0000000 | errno for a failed system call, so
   that the code the library prints ("FAILED with error code = e0000005")
   names the cause; KAVO_PORT_ERR_RANGE for an address the transport cannot
   reach, KAVO_PORT_ERR_ALIGN for one that is not a multiple of 4. */
#define KAVO_PORT_ERR_ERRNO(e) (0xE0000000u | ((uint32_t)(e) & 0xFFFFu))
#define KAVO_PORT_ERR_RANGE 0xE0010000u
#define KAVO_PORT_ERR_ALIGN 0xE0020000u

/* ---- SPI framing of the example ----
   One transaction is a 6-byte header and the data words:
     byte 0     opcode: KAVO_SPI_READ or KAVO_SPI_WRITE
     bytes 1-4  the word's chip byte address, most significant byte first
     byte 5     a turnaround byte (0) that gives the chip time to fetch a read
   then each 32-bit word most significant byte first, the address advancing by
   4 per word. This is the framing of the example's bridge; a board whose
   bridge frames differently changes these helpers only. */
#define KAVO_SPI_READ 0x0B
#define KAVO_SPI_WRITE 0x02
#define KAVO_SPI_HEADER_BYTES 6u

/* Writes the header of a transaction at `address` into out[0..5]. */
static inline void kavo_spi_header(uint8_t out[KAVO_SPI_HEADER_BYTES], int write, uint32_t address)
{
    out[0] = (uint8_t)(write ? KAVO_SPI_WRITE : KAVO_SPI_READ);
    out[1] = (uint8_t)(address >> 24);
    out[2] = (uint8_t)(address >> 16);
    out[3] = (uint8_t)(address >> 8);
    out[4] = (uint8_t)address;
    out[5] = 0;
}

/* A word as its four wire bytes, most significant first, whatever the host's byte order. */
static inline void kavo_spi_word_put(uint8_t out[4], uint32_t value)
{
    out[0] = (uint8_t)(value >> 24);
    out[1] = (uint8_t)(value >> 16);
    out[2] = (uint8_t)(value >> 8);
    out[3] = (uint8_t)value;
}

/* The word whose wire bytes are in[0..3]. */
static inline uint32_t kavo_spi_word_get(const uint8_t in[4])
{
    return (uint32_t)in[0] << 24 | (uint32_t)in[1] << 16 | (uint32_t)in[2] << 8 | (uint32_t)in[3];
}

/* How many words of a burst go into the next transaction when one transfer
   holds at most max_transfer_bytes (header included): the library hands a
   burst over whole (up to 16,384 words), the SPI driver limits a transfer
   (spidev: 4096 bytes unless its bufsiz parameter says otherwise). 0 when not
   even one word fits. */
static inline uint32_t kavo_spi_chunk_words(uint32_t remaining_words, uint32_t max_transfer_bytes)
{
    if (max_transfer_bytes < KAVO_SPI_HEADER_BYTES + 4) return 0;
    const uint32_t fit = (max_transfer_bytes - KAVO_SPI_HEADER_BYTES) / 4;
    return remaining_words < fit ? remaining_words : fit;
}

/* ---- PCIe BAR ----
   The example's chip maps its whole 24-bit address space linearly into BAR 0:
   chip byte address A is at BAR offset A. The BAR is little-endian, as PCIe
   is; on a big-endian host each word is swapped after a load and before a
   store. */

/* The BAR offset of `words` words from chip address `address`, or a bus
   status when the range leaves the BAR or the address is not word aligned. */
static inline uint32_t kavo_bar_offset(uint32_t address, uint32_t words, uint64_t bar_size, uint64_t* offset)
{
    if (address % 4 != 0) return KAVO_PORT_ERR_ALIGN;
    if ((uint64_t)address + 4ull * words > bar_size || (words == 0 && address >= bar_size)) return KAVO_PORT_ERR_RANGE;
    *offset = address;
    return 0;
}

/* The chip's value of a word as loaded from (or to be stored to) the
   little-endian BAR: the identity on a little-endian host. */
static inline uint32_t kavo_bar_word(uint32_t raw)
{
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    return __builtin_bswap32(raw);
#else
    return raw;
#endif
}

#endif /* KAVO_PORT_H */
