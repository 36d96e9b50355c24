#include "kavo_ipi.h"

#include <unistd.h>

#include "velt_library_options.h"
#include "velt_registers.h"
#include "velt_shared_log.h"

void kavo_ipi::handle_init(UINT32 id, cpu_cfg_handle_t* handle)
{
    device_id = id;
    cpu_handle = handle;
}

bool kavo_ipi::is_ipi_bit_set(UINT32 n) { return int_agr_field_array_IPI_BITS_get(nullptr, cpu_handle, n) != 0; }

void kavo_ipi::ipi_bit_set(UINT32 n) { int_agr_field_array_IPI_BITS_set(nullptr, cpu_handle, n, 1); }

void kavo_ipi::ipi_bit_clear(UINT32 n) { int_agr_field_array_IPI_BITS_set(nullptr, cpu_handle, n, 0); }

namespace {
/* The group of an interrupt number, tested in the order 1, 0, 2, 3; -1 beyond 63. */
int group_of(UINT32 number)
{
    if (number >= 16 && number < 32) return 1;
    if (number < 16) return 0;
    if (number < 48) return 2;
    if (number < 64) return 3;
    return -1;
}

[[noreturn]] void number_too_large(int line)
{
    velt_customer_os_assert(VELT_ERR_FAIL, velt_log_extract_file_name(__FILE__), line);
}
}  // namespace

void kavo_ipi::interrupt_enable_set(UINT32 number, bool enable)
{
    const UINT32 bit = number % 16;
    const UINT32 value = enable ? 1 : 0;
    switch (group_of(number)) {
    case 0: int_agr_field_range_IPI2PCIE_0_E0_set(nullptr, cpu_handle, bit, bit, value); break;
    case 1: int_agr_field_range_IPI2PCIE_1_E1_set(nullptr, cpu_handle, bit, bit, value); break;
    case 2: int_agr_field_range_IPI2PCIE_2_E2_set(nullptr, cpu_handle, bit, bit, value); break;
    case 3: int_agr_field_range_IPI2PCIE_3_E3_set(nullptr, cpu_handle, bit, bit, value); break;
    default: VELT_ASSERT_FAIL(device_id, VELT_ERR_FAIL);
    }
}

void kavo_ipi::interrupt_status_get(UINT32* status) { *status = int_agr_field_IPI2PCIE_0_I0_get(nullptr, cpu_handle); }

bool kavo_ipi::is_interrupt_set(UINT32 number)
{
    UINT32 status = 0;
    switch (group_of(number)) {
    case 0: status = int_agr_field_IPI2PCIE_0_I0_get(nullptr, cpu_handle); break;
    case 1: status = int_agr_field_IPI2PCIE_1_I1_get(nullptr, cpu_handle); break;
    case 2: status = int_agr_field_IPI2PCIE_2_I2_get(nullptr, cpu_handle); break;
    case 3: status = int_agr_field_IPI2PCIE_3_I3_get(nullptr, cpu_handle); break;
    default: number_too_large(__LINE__);
    }
    return ((status >> (number % 16)) & 1u) != 0;
}

void kavo_ipi::interrupt_clear(UINT32 number)
{
    const UINT32 bit_mask = 1u << (number % 16);
    switch (group_of(number)) {
    case 0: int_agr_field_IPI2PCIE_0_I0_set_to_clear(nullptr, cpu_handle, bit_mask); break;
    case 1: int_agr_field_IPI2PCIE_1_I1_set_to_clear(nullptr, cpu_handle, bit_mask); break;
    case 2: int_agr_field_IPI2PCIE_2_I2_set_to_clear(nullptr, cpu_handle, bit_mask); break;
    case 3: int_agr_field_IPI2PCIE_3_I3_set_to_clear(nullptr, cpu_handle, bit_mask); break;
    default: number_too_large(__LINE__);
    }
}

bool kavo_ipi::post_host_request()
{
    // A stale reply indication must not satisfy the coming wait.
    interrupt_clear(VELT_IPI_HTL_DTL_MESSAGE);
    if (int_agr_field_array_IPI_BITS_get(nullptr, cpu_handle, VELT_IPI_HTL_DTL_MESSAGE) != 1) {
        // The firmware still owns the mailbox.
        VELT_RUNTIME_ERROR(device_id, VELT_ERR_FAIL);
        return true;
    }
    ipi_bit_clear(VELT_IPI_HTL_DTL_MESSAGE);
    return false;
}

bool kavo_ipi::device_reply_is_ready()
{
    // A chip whose doorbell reads 0, then 1, then 0 again would send the wait
    // round for ever: past the time-out a further round is not started.
    const UINT64 start = tv_to_microseconds(velt_sys_time_get());
    for (UINT32 round = 0;; ++round) {
        if (int_agr_field_array_IPI_BITS_get(nullptr, cpu_handle, VELT_IPI_HTL_DTL_MESSAGE) == 1) return true;
        if (round > 0 && !velt_option_notimeout.value &&
            tv_to_microseconds(velt_sys_time_get()) - start > KAVO_IPI_REPLY_TIMEOUT_US)
            break;
        if (!velt_option_notimeout.value) {
            // The poll's own time-out is not an answer: the doorbell below decides.
            (void)int_agr_reg_IPI2PCIE_0_INT_poll(nullptr, cpu_handle, 1, 1, VELT_POLL_EQUAL,
                                                  KAVO_IPI_REPLY_TIMEOUT_US);
        } else {
            for (;;) {
                VELT_LOG(device_id, VELT_SHARED_LOG_TRACE, VELT_LOG_SEV_LOW, " Sleeping for %d microseconds\n",
                         (int)KAVO_IPI_NOTIMEOUT_SLEEP_US);
                velt_sys_usleep(KAVO_IPI_NOTIMEOUT_SLEEP_US);
                if ((int_agr_reg_IPI2PCIE_0_INT_read(nullptr, cpu_handle) & 1u) == 1u) break;
            }
        }
        if (int_agr_field_array_IPI_BITS_get(nullptr, cpu_handle, VELT_IPI_HTL_DTL_MESSAGE) != 1) break;
        int_agr_field_IPI2PCIE_0_I0_set_to_clear(nullptr, cpu_handle, 1);
    }
    if (velt_option_notimeout.value) return false;
    VELT_RUNTIME_ERROR(device_id, VELT_ERR_FAIL);
    return false;
}
