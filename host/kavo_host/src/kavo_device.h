/* One kavo_device per chip, found by device id in a table of 32. It owns the
   transport link, the doorbell, the firmware-log reader, the system handle,
   the register-block handles and the device lock, and it boots the chip. */
#ifndef KAVO_DEVICE_H
#define KAVO_DEVICE_H

#include <cstdio>

#include "kavo/kavo_api.h"
#include "kavo_fw_log.h"
#include "kavo_htl.h"
#include "kavo_ipi.h"
#include "velt_handle.h"
#include "velt_sys.h"

constexpr UINT32 KAVO_MAX_DEVICES = 32;

class kavo_device {
  public:
    explicit kavo_device(UINT32 device_id);
    ~kavo_device();
    kavo_device(const kavo_device&) = delete;
    kavo_device& operator=(const kavo_device&) = delete;

    /* Boots or attaches as the init type says: cold start, warm restart or debug attach. */
    VELT_ERROR init(kavo_init_type_t init_type);
    void uninit();

    /* One exchange with the firmware under the device lock; the request's
       device id names the device. The one-argument form expects no payload back. */
    static VELT_ERROR send(kavo_htl_request_t& request, kavo_htl_response_t& response);
    static VELT_ERROR send(kavo_htl_request_t& request);

    VELT_ERROR reg_read(UINT32 address, UINT32* value);
    VELT_ERROR reg_write(UINT32 address, UINT32 value);
    void lock() { velt_sys_atomic_start(_mutex_ptr); }
    void unlock() { velt_sys_atomic_end(_mutex_ptr); }

    VELT_ERROR is_device_valid();
    bool is_reva_valid();
    bool is_cold_start();

    VELT_ERROR ipi_interrupt_enable_set(kavo_ipi_type_t type, BOOL8 enable);
    VELT_ERROR ipi_interrupt_status_get(UINT32* status);
    UINT32 ipi_is_set(kavo_ipi_type_t type);
    VELT_ERROR ipi_clear(kavo_ipi_type_t type);
    VELT_ERROR ipi_set(kavo_ipi_type_t type);

    VELT_ERROR dump_firmware_info(FILE* file, kavo_fw_log_dump_t kind);

    /* Firmware image and versions. */
    VELT_ERROR firmware_file_select();
    VELT_ERROR read_version_info_from_image(FILE* file, kavo_fw_hdr_t* header);
    VELT_ERROR get_image_version_info(kavo_fw_hdr_t* header);
    VELT_ERROR get_running_version_info(velt_fw_fixed_version_info_t* version);

    /* Start-up: cold start, download, warm restart and reload. */
    VELT_ERROR cold_start();
    VELT_ERROR warm_restart();
    VELT_ERROR reload_and_restart();
    VELT_ERROR init_reload();
    VELT_ERROR download_fw();
    VELT_ERROR ram_access_test();
    UINT32 ocr_mem_clear(UINT32 mask);
    void dcsu_clk_config();
    VELT_ERROR bring_cpu_out_of_reset(UINT32 boot_argument);
    VELT_ERROR startup_is_complete();

    UINT32 device_id() const { return _device_id; }
    velt_sys_handle_t sys_handle() const { return _sys_ptr; }
    kavo_htl& link() { return htl; }
    kavo_ipi& ipi() { return _ipi; }
    kavo_fw_log& firmware() { return _firmware; }

  private:
    kavo_htl htl;
    kavo_ipi _ipi;
    UINT32 _device_id;
    velt_sys_handle_t _sys_ptr;
    cpu_cfg_handle_t _cpu_handle;
    dcsu_handle_t _dcsu_handle;
    kavo_fw_log _firmware;
    velt_sys_atomic_t _mutex_ptr;
};

/* The table of devices; it owns the devices it points to. */
struct kavo_device_id_lookup {
    kavo_device* device[KAVO_MAX_DEVICES];
};
extern kavo_device_id_lookup device_id_lookup;

VELT_ERROR kavo_device_create(UINT32 device_id, kavo_device** device);
kavo_device* kavo_device_get(UINT32 device_id);
/* The device of an id, without the log line of an unknown id. */
kavo_device* kavo_device_find(UINT32 device_id);
void kavo_device_uninit(UINT32 device_id);

/* The firmware image file name, shared by all devices. */
VELT_ERROR kavo_firmware_filename_set(const char* path);
char* kavo_firmware_filename_get();
/* Forgets the name set: the next get gives the default again. */
void kavo_firmware_filename_clear();

#endif /* KAVO_DEVICE_H */
