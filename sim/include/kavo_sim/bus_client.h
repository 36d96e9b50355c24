/* A small hand-written client of the virtual chip that uses nothing but a
   callout table: registers, RAM, the cold-start sequence and raw mailbox
   exchanges. It serves the device's own tests and benchmarks, which must not
   lean on libkavo; applications use libkavo. */
#ifndef KAVO_SIM_BUS_CLIENT_H
#define KAVO_SIM_BUS_CLIENT_H

#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "kavo/kavo_api.h"
#include "kavo_sim/gen/kavo_sim_types.h"
#include "kavo_sim/chip_map.h"

namespace kavo_sim {

struct exchange_result {
    UINT32 status = 0;     // first failing bus status, 0 when the bus was fine
    bool posted = false;   // the doorbell was the host's and was handed over
    bool replied = false;  // the doorbell came back
    UINT32 header[8] = {}; // device_id, sequence_num, operation, result, mode, value, value2, data_size
    std::vector<UINT8> data;
    UINT32 result() const { return header[3]; }
};

class bus_client {
  public:
    bus_client(tavo_callout_api_st* table, UINT32 device_id) : bus_(table->qspi_callout_api_ctx), id_(device_id) {}

    UINT32 read(UINT32 address, UINT32& value) { return note(bus_->qspi_read(nullptr, 0, id_, address, &value)); }
    UINT32 write(UINT32 address, UINT32 value) { return note(bus_->qspi_write(nullptr, 0, id_, address, value)); }
    UINT32 bread(UINT32 address, UINT32* words, UINT32 n)
    {
        return note(bus_->qspi_bread(nullptr, 0, id_, n, address, words));
    }
    UINT32 bwrite(UINT32 address, const UINT32* words, UINT32 n)
    {
        return note(bus_->qspi_bwrite(nullptr, 0, id_, n, address, const_cast<UINT32*>(words)));
    }
    /* The value at address, 0xFFFFFFFF after a bus error (see last_status). */
    UINT32 rd(UINT32 address)
    {
        UINT32 v = 0;
        return read(address, v) == map::BUS_OK ? v : 0xFFFFFFFF;
    }
    UINT32 last_status() const { return last_; }
    void bytes_write(UINT32 address, const void* data, size_t n)
    {
        if (n == 0) return;
        std::vector<UINT32> w((n + 3) / 4, 0);
        std::memcpy(w.data(), data, n);
        bwrite(address, w.data(), UINT32(w.size()));
    }
    std::vector<UINT8> bytes_read(UINT32 address, size_t n)
    {
        if (n == 0) return {};
        std::vector<UINT32> w((n + 3) / 4, 0);
        bread(address, w.data(), UINT32(w.size()));
        std::vector<UINT8> out(n);
        std::memcpy(out.data(), w.data(), n);
        return out;
    }

    /* Processor into reset, RAM on and cleared. */
    void reset_and_clear()
    {
        write(map::SW_RST_HOST_TRIG, map::RESET_MAGIC);
        write(map::SW_RST_HOST_EN, rd(map::SW_RST_HOST_EN) & ~map::SW_RST_HOST_AUTO_CLR_EN);
        write(map::OCR_SHUTDOWN_CTRL, 0);
        write(map::OCR_UNAVAIL, 0);
        write(map::OCR_INIT_CTRL, 0xF);
        for (int i = 0; i < 100 && rd(map::OCR_INIT_STATUS) != 0; ++i) {
        }
        write(map::OCR_INIT_CTRL, 0);
    }
    /* The image of a file (after its 64-byte header) into RAM from address 0. */
    void download(const std::vector<UINT8>& file)
    {
        const size_t image = file.size() > KAVO_FW_HDR_SIZE ? file.size() - KAVO_FW_HDR_SIZE : 0;
        for (size_t off = 0; off < image; off += 256) {
            const size_t n = image - off < 256 ? image - off : 256;
            bytes_write(UINT32(off), file.data() + KAVO_FW_HDR_SIZE + off, n);
        }
    }
    /* Releases the processor with a boot argument; true once the firmware
       has answered the start-up handshake. */
    bool release(UINT32 boot_arg = 0, int polls = 20)
    {
        write(map::APP_SCRATCH + 4 * map::BOOT_ARG_SCRATCH, boot_arg);
        write(map::SW_RST_HOST_TRIG, 0);
        write(map::CA53_CTRL4, 0);
        for (int i = 0; i < polls; ++i) {
            if (rd(map::APP_SCRATCH + 4 * map::BOOT_ARG_SCRATCH) == map::FW_STARTED) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return false;
    }
    bool cold_start(const std::vector<UINT8>& file, UINT32 boot_arg = 0)
    {
        reset_and_clear();
        download(file);
        return release(boot_arg);
    }

    /* One request through the mailbox and doorbell, waiting up to timeout for
       the reply. */
    exchange_result exchange(UINT32 operation, const void* payload = nullptr, UINT32 size = 0,
                             kavo_htl_general_struct_t info = {},
                             std::chrono::milliseconds timeout = std::chrono::milliseconds(2000))
    {
        exchange_result r;
        last_ = map::BUS_OK;
        first_error_ = map::BUS_OK;
        UINT32 hdr[8] = {id_, sequence_++, operation, info.element_id, info.mode, info.parent_id, info.flag, size};
        std::vector<UINT8> msg(sizeof(hdr) + size);
        std::memcpy(msg.data(), hdr, sizeof(hdr));
        if (size) std::memcpy(msg.data() + sizeof(hdr), payload, size);
        bytes_write(map::REQUEST, msg.data(), msg.size());
        write(map::IPI2PCIE_INT, 1);
        if (rd(map::INTER_PROCESSOR_INTS) != 1) {
            r.status = first_error_;
            return r;
        }
        r.posted = true;
        write(map::INTER_PROCESSOR_INTS, 0);
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        while (rd(map::INTER_PROCESSOR_INTS) != 1) {
            if (std::chrono::steady_clock::now() > deadline) {
                r.status = first_error_;
                return r;
            }
            std::this_thread::yield();
        }
        r.replied = true;
        bread(map::RESPONSE, r.header, 8);
        if (r.header[7] <= map::RESPONSE_SIZE - map::HEADER_SIZE) r.data = bytes_read(map::RESPONSE_DATA, r.header[7]);
        r.status = first_error_;
        return r;
    }
    UINT32 next_sequence() const { return sequence_; }

  private:
    UINT32 note(UINT32 status)
    {
        last_ = status;
        if (status != map::BUS_OK && first_error_ == map::BUS_OK) first_error_ = status;
        return status;
    }
    qspi_callout_api_st* bus_;
    UINT32 id_;
    UINT32 sequence_ = 0;
    UINT32 last_ = map::BUS_OK;
    UINT32 first_error_ = map::BUS_OK;
};

} // namespace kavo_sim

#endif
