/* Address map of the virtual kavo chip: the registers it decodes, its on-chip
   RAM, and the places in RAM that host and firmware agree on. */
#ifndef KAVO_SIM_CHIP_MAP_H
#define KAVO_SIM_CHIP_MAP_H

#include "kavo/kavo_types.h"
#include "kavo_sim/gen/kavo_sim_types.h"

namespace kavo_sim::map {

// On-chip RAM: 4 MiB from address 0, four banks of 1 MiB.
constexpr UINT32 RAM_SIZE = 0x400000;
constexpr UINT32 RAM_BANK_SIZE = 0x100000;
constexpr UINT32 RAM_BANKS = 4;

// cpu_cfg, ocr_cfg and int_agr share one window.
constexpr UINT32 CPU_BASE = 0xF00000;
constexpr UINT32 SW_RST_HOST_EN = CPU_BASE + 0x20;
constexpr UINT32 SW_RST_HOST_EN_WRITABLE = ~0x720027F4u;
constexpr UINT32 SW_RST_HOST_AUTO_CLR_EN = 0x80000000;
constexpr UINT32 SW_RST_HOST_TRIG = CPU_BASE + 0x2C;
constexpr UINT32 CA53_CTRL4 = CPU_BASE + 0xB0;
constexpr UINT32 BOOT_INFO = CPU_BASE + 0xF0;
constexpr UINT32 APP_SCRATCH = CPU_BASE + 0x320;
constexpr UINT32 APP_SCRATCH_COUNT = 24;
constexpr UINT32 DEVICE_ID = CPU_BASE + 0x380;

constexpr UINT32 OCR_UNAVAIL = CPU_BASE + 0x10010;
constexpr UINT32 OCR_INIT_CTRL = CPU_BASE + 0x10018;
constexpr UINT32 OCR_INIT_STATUS = CPU_BASE + 0x10020;
constexpr UINT32 OCR_SHUTDOWN_CTRL = CPU_BASE + 0x10028;

constexpr UINT32 DEV_INTB_AGGR_SET = CPU_BASE + 0x2000;
constexpr UINT32 DEV_INTB_AGGR_SET_COUNT = 56;
constexpr UINT32 INTER_PROCESSOR_INTS = CPU_BASE + 0x20E0;
constexpr UINT32 INTER_PROCESSOR_INTS_COUNT = 64;
constexpr UINT32 IPI2PCIE_INT = CPU_BASE + 0x21E0;    // groups 0..3, 4 bytes apart
constexpr UINT32 IPI2PCIE_INT_EN = CPU_BASE + 0x21F0; // groups 0..3, 4 bytes apart
constexpr UINT32 IPI2PCIE_GROUPS = 4;

// The host-visible clock unit (DCSU instance 0).
constexpr UINT32 DCSU_BASE = 0x744000;
constexpr UINT32 DCSU_POST_DIVIDER_UPDATE = DCSU_BASE + 0x10;
constexpr UINT32 DCSU_POST_DIVIDER_CFG_2 = DCSU_BASE + 0x1C; // post dividers 0..3, 6 bits each
constexpr UINT32 DCSU_POST_DIVIDER_CFG_3 = DCSU_BASE + 0x20; // post dividers 4..7
constexpr UINT32 DCSU_POST_DIVIDER_RESET = 0x04040404;

constexpr UINT32 RESET_MAGIC = 0x5AFEC0DE;
constexpr UINT32 BOOT_ARG_SCRATCH = 6; // APP_SCRATCH index of the start-up handshake
constexpr UINT32 FW_STARTED = 0x1001;
constexpr UINT32 WARM_BOOT_ARG = 0xBEEB00BA;

// Shared block in RAM.
constexpr UINT32 DEVICE_STATUS = 0x340000;
constexpr UINT32 REQUEST = 0x340004;
constexpr UINT32 REQUEST_SIZE = 16384;
constexpr UINT32 RESPONSE = 0x344004;
constexpr UINT32 RESPONSE_SIZE = 65536;
constexpr UINT32 RESPONSE_DATA = 0x344024;
constexpr UINT32 HEADER_SIZE = 32;
constexpr UINT32 LOG_BLOCK = 0x354004;
constexpr UINT32 VERSION_WORDS = 0x3FFFC0;
constexpr UINT32 DEVICE_STATUS_RUNNING = 1;

// Log-buffer block, byte offsets from LOG_BLOCK.
namespace log {
constexpr UINT32 CONSOLE_COOKIE = 0;
constexpr UINT32 CONSOLE_WRAP_COUNT = 4;
constexpr UINT32 CONSOLE_WRITE_INDEX = 8;
constexpr UINT32 CONSOLE_BUFFER_SIZE = 12;
constexpr UINT32 CONSOLE_BUFFER_OFFSET = 16;
constexpr UINT32 STATS_COOKIE = 20;
constexpr UINT32 STATS_NUM = 24;
constexpr UINT32 STATS_REC_SIZE = 28;
constexpr UINT32 STATS_OFFSET = 32;
constexpr UINT32 DBG_LOG_COOKIE = 36;
constexpr UINT32 DBG_LOG_INFO_NUM = 40;
constexpr UINT32 DBG_LOG_INFO_REC_SIZE = 44;
constexpr UINT32 DBG_LOG_INFO_OFFSET = 48;
constexpr UINT32 FNC_LOG_COOKIE = 52;
constexpr UINT32 CONSOLE_BUFFER = 68;
constexpr UINT32 CONSOLE_WORDS = 8192;
constexpr UINT32 DBG_LOG_BUFFERS = 32836;
constexpr UINT32 DBG_LOG_BUFFERS_SIZE = 98304;
constexpr UINT32 BLOCK_SIZE = 131140;

constexpr UINT32 CONSOLE_COOKIE_VALUE = 0xFACEF00D;
constexpr UINT32 STATS_COOKIE_VALUE = 0xFADED0FF;
constexpr UINT32 DBG_LOG_COOKIE_VALUE = 0xF00DF00D;

// Debug-log descriptor: name[20], entries, offset, write index, wrap count.
constexpr UINT32 DESC_NAME = 0;
constexpr UINT32 DESC_NAME_SIZE = 20;
constexpr UINT32 DESC_ENTRIES = 20;
constexpr UINT32 DESC_OFFSET = 24;
constexpr UINT32 DESC_WRITE_INDEX = 28;
constexpr UINT32 DESC_WRAP_COUNT = 32;
constexpr UINT32 ENTRY_SIZE = 32;
constexpr UINT32 STATS_RECORD_SIZE = 80;
constexpr UINT64 TICKS_PER_SECOND = 181000000;
} // namespace log

// Bus status of a register callout. Anything but BUS_OK is a failed transaction.
constexpr UINT32 BUS_OK = 0;
constexpr UINT32 BUS_ERR_DECODE = 0xB5000001;      // no block decodes the address
constexpr UINT32 BUS_ERR_NO_CHIP = 0xB5000002;     // no chip with that device id
constexpr UINT32 BUS_ERR_INJECTED = 0xB5000003;    // a fault made the transaction fail
constexpr UINT32 BUS_ERR_RAM_OFFLINE = 0xB5000004; // RAM bank unavailable or shut down
constexpr UINT32 BUS_ERR_LINK = 0xB5000005;        // the socket to kavo-simd failed

} // namespace kavo_sim::map

#endif
