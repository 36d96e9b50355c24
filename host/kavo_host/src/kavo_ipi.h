/* The inter-processor interrupt doorbell: the bits through which host and
   firmware hand the mailbox back and forth, and the four interrupt groups the
   firmware raises towards the host. */
#ifndef KAVO_IPI_H
#define KAVO_IPI_H

#include "kavo/kavo_api.h"
#include "velt_handle.h"

/* Longest wait for the firmware's reply when the "notimeout" option is off. */
constexpr UINT32 KAVO_IPI_REPLY_TIMEOUT_US = 6000000;
/* Sleep between reads of the status register when "notimeout" is on. */
constexpr UINT32 KAVO_IPI_NOTIMEOUT_SLEEP_US = 1000;

class kavo_ipi {
public:
    kavo_ipi() = default;
    virtual ~kavo_ipi() = default;

    void handle_init(UINT32 device_id, cpu_cfg_handle_t* handle);

    bool is_ipi_bit_set(UINT32 n);
    void ipi_bit_set(UINT32 n);
    void ipi_bit_clear(UINT32 n);

    /* Interrupt numbers 0..63: group number / 16, bit number mod 16. 64 or more halts. */
    void interrupt_enable_set(UINT32 number, bool enable);
    void interrupt_status_get(UINT32* status);
    bool is_interrupt_set(UINT32 number);
    void interrupt_clear(UINT32 number);

    /* Hands the request mailbox to the firmware; false is success. */
    bool post_host_request();
    /* Waits for the firmware's reply; true when it is there. */
    bool device_reply_is_ready();

    cpu_cfg_handle_t* cpu_handle = nullptr;
    UINT32 device_id = 0;
};

#endif /* KAVO_IPI_H */
