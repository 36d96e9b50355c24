/* Doorbell and interrupt commands, acted on locally in the chip's registers. */
#include "kavo/kavo_api.h"
#include "kavo_command_frame.h"

namespace {
constexpr VELT_ERROR NO_DEVICE = KAVO_ERR_INVALID_DEVICE_ID;
}  // namespace

VELT_ERROR kavo_ipi_interrupt_enable_set(const UINT32 device_id, kavo_ipi_type_t type, BOOL8 enable)
{
    KAVO_COMMAND(frame, device_id);
    frame.trace(", %d, %d", type, enable);
    frame.trace_end();
    kavo_device* device = kavo_device_get(device_id);
    return device ? device->ipi_interrupt_enable_set(type, enable) : NO_DEVICE;
}

VELT_ERROR kavo_ipi_interrupt_status_get(const UINT32 device_id, UINT32* status)
{
    KAVO_STATUS_COMMAND(frame, device_id);
    frame.trace(", [status=0x%p]", (void*)status);
    frame.trace_end();
    kavo_device* device = kavo_device_get(device_id);
    return device ? device->ipi_interrupt_status_get(status) : NO_DEVICE;
}

VELT_ERROR kavo_ipi_is_set(const UINT32 device_id, kavo_ipi_type_t type)
{
    KAVO_STATUS_COMMAND(frame, device_id);
    frame.trace(", %d", type);
    frame.trace_end();
    kavo_device* device = kavo_device_get(device_id);
    return device ? device->ipi_is_set(type) : 0;
}

VELT_ERROR kavo_ipi_clear(const UINT32 device_id, kavo_ipi_type_t type)
{
    KAVO_COMMAND(frame, device_id);
    frame.trace(", %d", type);
    frame.trace_end();
    kavo_device* device = kavo_device_get(device_id);
    return device ? device->ipi_clear(type) : NO_DEVICE;
}

VELT_ERROR kavo_ipi_test_set(const UINT32 device_id)
{
    KAVO_COMMAND(frame, device_id);
    frame.trace_end();
    kavo_device* device = kavo_device_get(device_id);
    return device ? device->ipi_set(VELT_IPI_TEST) : NO_DEVICE;
}
