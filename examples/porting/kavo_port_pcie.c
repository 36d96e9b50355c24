/* A callout table over a PCIe BAR mapped through sysfs: the chip's registers
   and on-chip RAM as 32-bit loads and stores in BAR 0
   (/sys/bus/pci/devices/DDDD:BB:DD.F/resource0, mapped with mmap).

   Usage: kavo_port_pcie 0000:03:00.0 [FIRMWARE_IMAGE]
   brings chip 0 up behind that PCI function and prints its status (as root,
   with the function enabled: echo 1 > /sys/bus/pci/devices/.../enable).

   Every access is one aligned 32-bit volatile load or store: a BAR is device
   memory, where the compiler must neither merge, split nor reorder accesses
   (memcpy may do all three). A burst is a loop of them; writes are posted,
   so a burst write ends with a read back of its last word, which returns
   only once the writes before it have reached the chip. */
#define _DEFAULT_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "kavo/kavo_api.h"
#include "kavo_port.h"
#include "kavo_port_log.h"

#define MAX_CHIPS 32

/* BAR 0 of each chip as mapped, null when none. */
static struct {
    volatile UINT32* base;
    uint64_t size;
} bar[MAX_CHIPS];

/* The word at chip address `address` of chip `device_id`, or a bus status. */
static UINT32 bar_words(UINT32 device_id, UINT32 address, UINT32 words, volatile UINT32** at)
{
    if (device_id >= MAX_CHIPS || bar[device_id].base == NULL) return KAVO_PORT_ERR_RANGE;
    uint64_t offset = 0;
    const UINT32 status = kavo_bar_offset(address, words, bar[device_id].size, &offset);
    if (status != 0) return status;
    *at = bar[device_id].base + offset / 4;
    return 0;
}

static UINT32 bar_read(void* ctx, UINT32 bus, UINT32 device_id, UINT32 address, UINT32* value)
{
    (void)ctx;
    (void)bus;
    volatile UINT32* at = NULL;
    const UINT32 status = bar_words(device_id, address, 1, &at);
    if (status != 0) return status;
    *value = kavo_bar_word(*at);
    /* A function that fell off the bus reads as all ones. */
    return *value == 0xFFFFFFFFu && kavo_bar_word(bar[device_id].base[0]) == 0xFFFFFFFFu ? KAVO_PORT_ERR_ERRNO(EIO) : 0;
}

static UINT32 bar_write(void* ctx, UINT32 bus, UINT32 device_id, UINT32 address, UINT32 value)
{
    (void)ctx;
    (void)bus;
    volatile UINT32* at = NULL;
    const UINT32 status = bar_words(device_id, address, 1, &at);
    if (status != 0) return status;
    *at = kavo_bar_word(value);
    return 0;
}

static UINT32 bar_bread(void* ctx, UINT32 bus, UINT32 device_id, UINT32 words, UINT32 address, UINT32* buffer)
{
    (void)ctx;
    (void)bus;
    volatile UINT32* at = NULL;
    const UINT32 status = bar_words(device_id, address, words, &at);
    if (status != 0) return status;
    for (UINT32 i = 0; i < words; ++i) buffer[i] = kavo_bar_word(at[i]);
    return 0;
}

static UINT32 bar_bwrite(void* ctx, UINT32 bus, UINT32 device_id, UINT32 words, UINT32 address, UINT32* buffer)
{
    (void)ctx;
    (void)bus;
    volatile UINT32* at = NULL;
    const UINT32 status = bar_words(device_id, address, words, &at);
    if (status != 0) return status;
    for (UINT32 i = 0; i < words; ++i) at[i] = kavo_bar_word(buffer[i]);
    if (words > 0) (void)at[words - 1]; /* flush the posted writes */
    return 0;
}

static qspi_callout_api_st bar_bus = {bar_read, bar_write, bar_bread, bar_bwrite};
static tavo_callout_api_st callouts = {&bar_bus, kavo_port_log_print, kavo_port_log_init, NULL};

/* Maps BAR 0 of PCI function `bdf` (DDDD:BB:DD.F) for chip `device_id`. */
static int bar_map(UINT32 device_id, const char* bdf)
{
    char path[128];
    snprintf(path, sizeof(path), "/sys/bus/pci/devices/%s/resource0", bdf);
    const int fd = open(path, O_RDWR | O_SYNC | O_CLOEXEC);
    if (fd < 0) return -1;
    struct stat st;
    if (fstat(fd, &st) != 0 || st.st_size <= 0) {
        close(fd);
        errno = ENODEV;
        return -1;
    }
    void* base = mmap(NULL, (size_t)st.st_size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd); /* the mapping stays */
    if (base == MAP_FAILED) return -1;
    bar[device_id].base = (volatile UINT32*)base;
    bar[device_id].size = (uint64_t)st.st_size;
    return 0;
}

int main(int argc, char** argv)
{
    if (argc < 2 || argc > 3) {
        fprintf(stderr, "usage: %s DDDD:BB:DD.F [FIRMWARE_IMAGE]\n", argv[0]);
        return 2;
    }
    if (bar_map(0, argv[1]) != 0) {
        perror(argv[1]);
        return 3;
    }
    const VELT_ERROR rc = kavo_port_show_status(&callouts, argc == 3 ? argv[2] : NULL);
    munmap((void*)bar[0].base, (size_t)bar[0].size);
    return rc == VELT_SUCCESS ? 0 : 1;
}
