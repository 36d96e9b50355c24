/* Inter-processor interrupt commands: the doorbell bits and the interrupt
   groups the firmware raises towards the host, acted on locally in the chip's
   registers. Clearing VELT_IPI_HTL_DTL_MESSAGE takes the mailbox away from the
   firmware: never while commands run. */
#ifndef KAVO_API_IPI_H
#define KAVO_API_IPI_H

#include "kavo/gen/kavo_all_types.h"

#ifdef __cplusplus
extern "C" {
#endif

KAVO_API VELT_ERROR kavo_ipi_interrupt_enable_set(const UINT32 device_id, kavo_ipi_type_t type, BOOL8 enable);
KAVO_API VELT_ERROR kavo_ipi_interrupt_status_get(const UINT32 device_id, UINT32* status);
/* The doorbell bit (0 or 1); 0 for an unknown device. */
KAVO_API VELT_ERROR kavo_ipi_is_set(const UINT32 device_id, kavo_ipi_type_t type);
KAVO_API VELT_ERROR kavo_ipi_clear(const UINT32 device_id, kavo_ipi_type_t type);
KAVO_API VELT_ERROR kavo_ipi_test_set(const UINT32 device_id);

#ifdef __cplusplus
}
#endif

#endif /* KAVO_API_IPI_H */
