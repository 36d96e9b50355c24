/* A callout table over Linux spidev: the chip's register and burst accesses
   as SPI transactions on /dev/spidevB.C, one device node per chip.

   Usage: kavo_port_spidev /dev/spidev0.0 [FIRMWARE_IMAGE]
   brings chip 0 up on that SPI device and prints its status.

   The framing (opcode, address, turnaround byte, words most significant byte
   first) is the example bridge's, in kavo_port.h. The library serialises the
   callouts of one chip (its device lock); callouts for different chips may
   run at the same time on different threads, each on its own file
   descriptor, and the kernel serialises transfers on a shared SPI bus. */
#define _DEFAULT_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <linux/spi/spidev.h>

#include "kavo/kavo_api.h"
#include "kavo_port.h"
#include "kavo_port_log.h"

#define MAX_CHIPS 32
#define SPI_SPEED_HZ 20000000u
#define SPI_MAX_TRANSFER 4096u /* spidev's default bufsiz */

/* The file descriptor of each chip's SPI device, -1 when none. */
static int spi_fd[MAX_CHIPS];

/* One transaction: header, then `words` words out of `out` (write) or into `in` (read). */
static UINT32 spi_transaction(UINT32 device_id, int write, UINT32 address, UINT32 words, const UINT32* out,
                              UINT32* in)
{
    if (device_id >= MAX_CHIPS || spi_fd[device_id] < 0) return KAVO_PORT_ERR_RANGE;
    if (address % 4 != 0) return KAVO_PORT_ERR_ALIGN;
    uint8_t tx[SPI_MAX_TRANSFER], rx[SPI_MAX_TRANSFER];
    const size_t bytes = KAVO_SPI_HEADER_BYTES + 4u * words;
    memset(tx, 0, bytes);
    kavo_spi_header(tx, write, address);
    for (UINT32 i = 0; write && i < words; ++i) kavo_spi_word_put(tx + KAVO_SPI_HEADER_BYTES + 4 * i, out[i]);

    struct spi_ioc_transfer xfer;
    memset(&xfer, 0, sizeof(xfer));
    xfer.tx_buf = (unsigned long)tx;
    xfer.rx_buf = (unsigned long)rx;
    xfer.len = (UINT32)bytes;
    xfer.speed_hz = SPI_SPEED_HZ;
    xfer.bits_per_word = 8;
    if (ioctl(spi_fd[device_id], SPI_IOC_MESSAGE(1), &xfer) < 0) return KAVO_PORT_ERR_ERRNO(errno);
    for (UINT32 i = 0; !write && i < words; ++i) in[i] = kavo_spi_word_get(rx + KAVO_SPI_HEADER_BYTES + 4 * i);
    return 0;
}

/* A burst in as many transactions as the transfer size needs. */
static UINT32 spi_burst(UINT32 device_id, int write, UINT32 address, UINT32 words, UINT32* buffer)
{
    while (words > 0) {
        const UINT32 n = kavo_spi_chunk_words(words, SPI_MAX_TRANSFER);
        const UINT32 status = spi_transaction(device_id, write, address, n, buffer, buffer);
        if (status != 0) return status;
        address += 4 * n;
        buffer += n;
        words -= n;
    }
    return 0;
}

static UINT32 spi_read(void* ctx, UINT32 bus, UINT32 device_id, UINT32 address, UINT32* value)
{
    (void)ctx;
    (void)bus;
    return spi_transaction(device_id, 0, address, 1, NULL, value);
}

static UINT32 spi_write(void* ctx, UINT32 bus, UINT32 device_id, UINT32 address, UINT32 value)
{
    (void)ctx;
    (void)bus;
    return spi_transaction(device_id, 1, address, 1, &value, NULL);
}

static UINT32 spi_bread(void* ctx, UINT32 bus, UINT32 device_id, UINT32 words, UINT32 address, UINT32* buffer)
{
    (void)ctx;
    (void)bus;
    return spi_burst(device_id, 0, address, words, buffer);
}

static UINT32 spi_bwrite(void* ctx, UINT32 bus, UINT32 device_id, UINT32 words, UINT32 address, UINT32* buffer)
{
    (void)ctx;
    (void)bus;
    return spi_burst(device_id, 1, address, words, buffer);
}

static qspi_callout_api_st spi_bus = {spi_read, spi_write, spi_bread, spi_bwrite};
static tavo_callout_api_st callouts = {&spi_bus, kavo_port_log_print, kavo_port_log_init, NULL};

/* Opens the SPI device of chip `device_id`: mode 0, 8-bit words, the bus speed. */
static int spi_open(UINT32 device_id, const char* path)
{
    const int fd = open(path, O_RDWR | O_CLOEXEC);
    if (fd < 0) return -1;
    uint8_t mode = SPI_MODE_0, bits = 8;
    uint32_t speed = SPI_SPEED_HZ;
    if (ioctl(fd, SPI_IOC_WR_MODE, &mode) < 0 || ioctl(fd, SPI_IOC_WR_BITS_PER_WORD, &bits) < 0 ||
        ioctl(fd, SPI_IOC_WR_MAX_SPEED_HZ, &speed) < 0) {
        close(fd);
        return -1;
    }
    spi_fd[device_id] = fd;
    return 0;
}

int main(int argc, char** argv)
{
    if (argc < 2 || argc > 3) {
        fprintf(stderr, "usage: %s /dev/spidevB.C [FIRMWARE_IMAGE]\n", argv[0]);
        return 2;
    }
    for (int i = 0; i < MAX_CHIPS; ++i) spi_fd[i] = -1;
    if (spi_open(0, argv[1]) != 0) {
        perror(argv[1]);
        return 3;
    }
    const VELT_ERROR rc = kavo_port_show_status(&callouts, argc == 3 ? argv[2] : NULL);
    close(spi_fd[0]);
    return rc == VELT_SUCCESS ? 0 : 1;
}
