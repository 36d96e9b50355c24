#include "kavo_device.h"

#include <new>

#include "velt_registers.h"
#include "velt_shared_log.h"

kavo_device_id_lookup device_id_lookup = {};

kavo_device::kavo_device(UINT32 id)
    : htl(id, this), _ipi(), _device_id(id), _sys_ptr(nullptr), _cpu_handle{}, _dcsu_handle{}, _firmware(),
      _mutex_ptr(velt_sys_atomic_create())
{
}

kavo_device::~kavo_device() { velt_sys_atomic_delete(&_mutex_ptr); }

VELT_ERROR kavo_device_create(UINT32 device_id, kavo_device** device)
{
    if (device_id >= KAVO_MAX_DEVICES) {
        VELT_LOG_ALWAYS(device_id, KAVO_ERR_INVALID_DEVICE_ID, " device_id = %d", device_id);
        VELT_RUNTIME_ERROR(device_id, KAVO_ERR_INVALID_DEVICE_ID);
        return KAVO_ERR_INVALID_DEVICE_ID;
    }
    if (device_id_lookup.device[device_id] != nullptr) {
        VELT_RUNTIME_ERROR(device_id, KAVO_ERR_DEVICE_ID_IN_USE);
        return KAVO_ERR_DEVICE_ID_IN_USE;
    }
    // The object comes zeroed from the porting layer: an exhausted heap asserts
    // there (0x1F0B) instead of throwing through the C interface.
    *device = new (velt_customer_os_calloc(sizeof(kavo_device))) kavo_device(device_id);
    device_id_lookup.device[device_id] = *device;
    return VELT_SUCCESS;
}

kavo_device* kavo_device_find(UINT32 device_id)
{
    return device_id < KAVO_MAX_DEVICES ? device_id_lookup.device[device_id] : nullptr;
}

kavo_device* kavo_device_get(UINT32 device_id)
{
    kavo_device* device = kavo_device_find(device_id);
    if (device == nullptr) VELT_LOG_ALWAYS(device_id, KAVO_ERR_INVALID_DEVICE_ID, " device_id = %d", device_id);
    return device;
}

void kavo_device_uninit(UINT32 device_id)
{
    kavo_device* device = kavo_device_find(device_id);
    if (device == nullptr) {
        VELT_LOG_ALWAYS(device_id, KAVO_ERR_INVALID_DEVICE_ID, " device_id = %d. Continuing shutdown of other operations",
                        device_id);
        return;
    }
    if (global_verbosity > VELT_LOG_SEV_EVENT) device->dump_firmware_info(velt_global_log_file_ptr, KAVO_FW_LOG_DUMP_STATS);
    device->uninit();
    device_id_lookup.device[device_id] = nullptr;
    device->~kavo_device();
    velt_customer_os_free(&device);
}

void kavo_device::uninit()
{
    _firmware.ctxt_destroy();
    if (_sys_ptr != nullptr) velt_sys_handle_destroy(_sys_ptr);
    _sys_ptr = nullptr;
}

VELT_ERROR kavo_device::send(kavo_htl_request_t& request, kavo_htl_response_t& response)
{
    kavo_device* device = kavo_device_find(request.device_id);
    if (device == nullptr) {
        VELT_RUNTIME_ERROR(request.device_id, HTL_ERR_DEVICE_NOT_INIT);
        return HTL_ERR_DEVICE_NOT_INIT;
    }
    // Released on every way out: an assertion handler may unwind through here.
    struct held {
        kavo_device* d;
        ~held() { d->unlock(); }
    };
    device->lock();
    held guard{device};
    return device->htl.request_send(request, response);
}

VELT_ERROR kavo_device::send(kavo_htl_request_t& request)
{
    kavo_htl_response_t response;
    return send(request, response);
}

VELT_ERROR kavo_device::reg_read(UINT32 address, UINT32* value)
{
    lock();
    *value = velt_sys_reg_read(_sys_ptr, address);
    unlock();
    return VELT_SUCCESS;
}

VELT_ERROR kavo_device::reg_write(UINT32 address, UINT32 value)
{
    lock();
    velt_sys_reg_write(_sys_ptr, address, value);
    unlock();
    return VELT_SUCCESS;
}

VELT_ERROR kavo_device::is_device_valid()
{
    switch (cpu_cfg_field_DEVICE_ID_get(nullptr, &_cpu_handle)) {
    case 0x6100:
    case 0x6104:
    case 0x6108:
    case 0x6110:
    case 0x61FF: return VELT_SUCCESS;
    default: return KAVO_ERR_INVALID_HW_DEVICE_ID;
    }
}

bool kavo_device::is_reva_valid() { return cpu_cfg_field_REVISION_CODE_get(nullptr, &_cpu_handle) == 0; }

bool kavo_device::is_cold_start() { return cpu_cfg_field_BOOT_INFO_get(nullptr, &_cpu_handle) == 0; }

VELT_ERROR kavo_device::ipi_interrupt_enable_set(kavo_ipi_type_t type, BOOL8 enable)
{
    lock();
    _ipi.interrupt_enable_set(type, enable);
    unlock();
    return VELT_SUCCESS;
}

VELT_ERROR kavo_device::ipi_interrupt_status_get(UINT32* status)
{
    lock();
    _ipi.interrupt_status_get(status);
    unlock();
    return VELT_SUCCESS;
}

UINT32 kavo_device::ipi_is_set(kavo_ipi_type_t type)
{
    lock();
    UINT32 set = _ipi.is_ipi_bit_set(type) ? 1 : 0;
    unlock();
    return set;
}

VELT_ERROR kavo_device::ipi_clear(kavo_ipi_type_t type)
{
    lock();
    _ipi.interrupt_clear(type);
    _ipi.ipi_bit_clear(type);
    unlock();
    return VELT_SUCCESS;
}

VELT_ERROR kavo_device::ipi_set(kavo_ipi_type_t type)
{
    lock();
    _ipi.ipi_bit_set(type);
    unlock();
    return VELT_SUCCESS;
}

VELT_ERROR kavo_device::dump_firmware_info(FILE* file, kavo_fw_log_dump_t kind)
{
    // The views read on-chip RAM: under the device lock like every other
    // access, so a dump never interleaves with another thread's exchange.
    lock();
    VELT_ERROR rc = _firmware.dump(file, kind);
    unlock();
    return rc;
}
