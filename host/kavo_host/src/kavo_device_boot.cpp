/* Bringing a chip up: firmware file selection, cold start with RAM test and
   download, the start-up handshake, and warm restart with reload. */
#include <unistd.h>

#include <cstring>

#include "kavo_device.h"
#include "velt_function_stats.h"
#include "velt_library_options.h"
#include "velt_registers.h"
#include "velt_shared_log.h"

namespace {
char* firmware_filename = nullptr;

constexpr UINT32 SW_RST_MAGIC = 0x5AFEC0DE;
constexpr UINT32 SW_RST_HOST_EN_RELOAD = 0x1000000;
constexpr UINT32 DEV_INTB_AGGR_SET_READY = 0x1000000;
constexpr UINT32 DOWNLOAD_CHUNK = 256;
constexpr UINT32 STARTUP_SLEEP_US = 500000;
constexpr UINT32 STARTUP_ROUNDS = 30;
constexpr UINT32 RAM_TEST_WORDS = 10;
}  // namespace

VELT_ERROR kavo_firmware_filename_set(const char* path)
{
    if (path == nullptr) {
        VELT_RUNTIME_ERROR(VELT_LOG_NO_DEVID, KAVO_ERR_FW_IMAGE_PATH_INVALID);
        return KAVO_ERR_FW_IMAGE_PATH_INVALID;
    }
    // The new name is copied before the old one is freed: the caller may hand
    // back the very pointer kavo_fw_filename_get gave it.
    char* copy = static_cast<char*>(velt_customer_os_calloc(std::strlen(path) + 1));
    velt_customer_os_strcpy(copy, path);
    if (firmware_filename != nullptr) velt_customer_os_free(&firmware_filename);
    firmware_filename = copy;
    return VELT_SUCCESS;
}

void kavo_firmware_filename_clear()
{
    if (firmware_filename != nullptr) velt_customer_os_free(&firmware_filename);
}

char* kavo_firmware_filename_get()
{
    if (firmware_filename == nullptr)
        VELT_ASSERT_CODE(kavo_firmware_filename_set("./kavo_fw_app_revx.mem") == VELT_SUCCESS, VELT_LOG_NO_DEVID,
                         VELT_ERR_FAIL);
    return firmware_filename;
}

VELT_ERROR kavo_device::init(kavo_init_type_t init_type)
{
    _sys_ptr = velt_sys_handle_create();
    VELT_ERROR rc = velt_sys_init(_sys_ptr, _device_id);
    if (rc != VELT_SUCCESS) return rc;
    velt_handle_init(&_cpu_handle, &_sys_ptr, VELT_CPU_CFG_BASE_ADDRESS);
    _ipi.handle_init(_device_id, &_cpu_handle);
    _firmware.handle_init(_device_id, &_cpu_handle);
    velt_handle_init(&_dcsu_handle, &_sys_ptr, VELT_DCSU_BASE_ADDRESS);
    rc = is_device_valid();
    if (rc == VELT_SUCCESS) rc = firmware_file_select();
    if (rc == VELT_SUCCESS && init_type != KAVO_INIT_DEBUG_ATTACH) {
        dcsu_clk_config();
        if (init_type == KAVO_INIT_COLD || is_cold_start()) {
            rc = cold_start();
        } else {
            rc = warm_restart();
            // Reading the running version attached the link without a
            // handshake. Whether the firmware was kept or reloaded, the device
            // initialisation's connect then makes the STATUS handshake and sends
            // VELT_FW_OPTIONS, exactly as after a cold start.
            htl.disconnect();
        }
    }
    if (rc == VELT_SUCCESS) {
        _firmware.log_init();
        _firmware.stats_init();
    }
    return rc;
}

VELT_ERROR kavo_device::firmware_file_select()
{
    const bool reva = is_reva_valid();
    if (firmware_filename == nullptr)
        return kavo_firmware_filename_set(reva ? "./kavo_fw_app_reva.mem" : "./kavo_fw_app_revb.mem");
    if (velt_sys_replace_string(firmware_filename, (UINT32)std::strlen(firmware_filename), "revx",
                                reva ? "reva" : "revb") != VELT_SUCCESS)
        VELT_LOG(_device_id, VELT_SHARED_LOG_TRACE, VELT_LOG_SEV_LOW,
                 " \"revx\" to \"reva/revb\" substitution not done. Using file %s\n", firmware_filename);
    return VELT_SUCCESS;
}

VELT_ERROR kavo_device::read_version_info_from_image(FILE* file, kavo_fw_hdr_t* header)
{
    UINT8 raw[KAVO_FW_HDR_SIZE] = {};
    UINT32 offset = 0;
    UINT32 length = KAVO_FW_HDR_SIZE;
    VELT_ERROR rc = velt_sys_file_read(file, raw, &offset, &length);
    VELT_ASSERT_CODE(header != nullptr, _device_id, VELT_SHARED_ERR_MEMCPY_FAILED);
    std::memcpy(static_cast<void*>(header), raw, KAVO_FW_HDR_SIZE);
    return rc;
}

VELT_ERROR kavo_device::get_image_version_info(kavo_fw_hdr_t* header)
{
    FILE* file = velt_sys_file_open(kavo_firmware_filename_get());
    if (file == nullptr) {
        VELT_LOG_ALWAYS(_device_id, KAVO_ERR_FW_IMAGE_DOES_NOT_EXIST, " Firmware image not found, filename=%s\n",
                        kavo_firmware_filename_get());
        return KAVO_ERR_FW_IMAGE_DOES_NOT_EXIST;
    }
    read_version_info_from_image(file, header);
    velt_sys_file_close(file);
    return VELT_SUCCESS;
}

VELT_ERROR kavo_device::get_running_version_info(velt_fw_fixed_version_info_t* version)
{
    kavo_device* device = kavo_device_find(_device_id);
    if (device == nullptr) {
        VELT_RUNTIME_ERROR(_device_id, HTL_ERR_DEVICE_NOT_INIT);
        return HTL_ERR_DEVICE_NOT_INIT;
    }
    device->htl.attach();
    velt_sys_burst_read(_sys_ptr, VELT_FW_VERSION_ADDR, 2, reinterpret_cast<UINT32*>(version));
    return VELT_SUCCESS;
}

void kavo_device::dcsu_clk_config()
{
    if (!is_reva_valid()) return;
    dcsu_field_POST_DIV_BY0_set(nullptr, &_dcsu_handle, 3);
    dcsu_field_POST_UPDATE_EN_set(nullptr, &_dcsu_handle, 1);
    dcsu_field_POST_UPDATE_EN_set(nullptr, &_dcsu_handle, 0);
}

UINT32 kavo_device::ocr_mem_clear(UINT32 mask)
{
    ocr_cfg_field_RAM_INIT_EN_set(nullptr, &_cpu_handle, mask);
    UINT32 timed_out = ocr_cfg_field_RAM_INIT_BUSY_poll(nullptr, &_cpu_handle, 0, VELT_POLL_EQUAL, 1000) != 0 ? 1 : 0;
    ocr_cfg_field_RAM_INIT_EN_set(nullptr, &_cpu_handle, 0);
    return timed_out;
}

VELT_ERROR kavo_device::ram_access_test()
{
    UINT32 pattern[RAM_TEST_WORDS];
    UINT32 readback[RAM_TEST_WORDS] = {};
    for (UINT32 i = 0; i < RAM_TEST_WORDS; ++i) pattern[i] = 0x01020304u + i * 0x01010101u;
    velt_sys_burst_write(_sys_ptr, 0, RAM_TEST_WORDS, pattern);
    velt_sys_burst_read(_sys_ptr, 0, RAM_TEST_WORDS, readback);
    VELT_ERROR rc = VELT_SUCCESS;
    for (UINT32 i = 0; i < RAM_TEST_WORDS; ++i) {
        if (pattern[i] == readback[i]) continue;
        VELT_LOG_ALWAYS(_device_id, KAVO_ERR_FW_SPRAM_WRITE_FAIL,
                        " Test write/read failed at word %d. Expected: 0x%x Actual: 0x%x\n", i, pattern[i], readback[i]);
        rc = KAVO_ERR_FW_SPRAM_WRITE_FAIL;
    }
    return rc;
}

VELT_ERROR kavo_device::download_fw()
{
    FILE* file = velt_sys_file_open(kavo_firmware_filename_get());
    if (file == nullptr) {
        VELT_LOG_ALWAYS(_device_id, KAVO_ERR_FW_IMAGE_DOES_NOT_EXIST, " Firmware image not found, filename=%s\n",
                        kavo_firmware_filename_get());
        return KAVO_ERR_FW_IMAGE_DOES_NOT_EXIST;
    }
    VELT_LOG(_device_id, VELT_SHARED_LOG_TRACE, VELT_LOG_SEV_EVENT, " Starting Firmware Download - %s \n",
             kavo_firmware_filename_get());
    kavo_fw_hdr_t header{};
    read_version_info_from_image(file, &header);
    VELT_LOG(_device_id, VELT_SHARED_LOG_TRACE, VELT_LOG_SEV_EVENT, " Firmware Version - %d_%d_%d_%d \n",
             header.fw_major_num, header.fw_minor_num, header.fw_build_num, header.vcs_id);

    static velt_function_stats burst_stats("velt_sys_burst_write_in_download");
    UINT32 chunk[DOWNLOAD_CHUNK / 4];
    UINT32 offset = KAVO_FW_HDR_SIZE;
    UINT32 address = 0;
    for (UINT32 n = 0;; ++n) {
        UINT32 count = DOWNLOAD_CHUNK;
        VELT_ERROR rc = velt_sys_file_read(file, chunk, &offset, &count);
        offset += count;
        if (rc != VELT_SUCCESS || count == 0) {
            velt_sys_file_close(file);
            return rc;
        }
        if (count % 4 != 0) VELT_ASSERT_FAIL(_device_id, KAVO_ERR_FW_SPRAM_WRITE_FAIL);
        {
            velt_function_stat_measure measure(&burst_stats);
            velt_sys_burst_write(_sys_ptr, address, count / 4, chunk);
        }
        address += count;
        if (n % 100 == 0) {
            std::printf(".");
            std::fflush(stdout);
        }
    }
}

VELT_ERROR kavo_device::cold_start()
{
    cpu_cfg_field_SW_RST_HOST_set(nullptr, &_cpu_handle, SW_RST_MAGIC);
    cpu_cfg_field_SW_RST_HOST_AUTO_CLR_EN_set(nullptr, &_cpu_handle, 0);
    ocr_cfg_field_RAM_LOWPWR_SD_set(nullptr, &_cpu_handle, 0);
    ocr_cfg_field_RAM_UNAVAIL_set(nullptr, &_cpu_handle, 0);
    ocr_mem_clear(15);  // a failed clear does not stop the start: the RAM test below decides
    VELT_ERROR rc = ram_access_test();
    if (rc == VELT_SUCCESS) rc = download_fw();
    if (rc != VELT_SUCCESS) return rc;
    std::printf("\n");
    VELT_LOG(_device_id, VELT_SHARED_LOG_TRACE, VELT_LOG_SEV_EVENT, " Firmware Download Complete\n");
    return bring_cpu_out_of_reset(0);
}

VELT_ERROR kavo_device::bring_cpu_out_of_reset(UINT32 boot_argument)
{
    cpu_cfg_field_array_SCRATCH_set(nullptr, &_cpu_handle, 6, boot_argument);
    cpu_cfg_field_SW_RST_HOST_set(nullptr, &_cpu_handle, 0);
    cpu_cfg_field_SW_SET_CORERESET_set(nullptr, &_cpu_handle, 0);
    VELT_LOG(_device_id, VELT_SHARED_LOG_TRACE, VELT_LOG_SEV_EVENT, " Starting Firmware\n");
    VELT_ERROR rc = startup_is_complete();
    if (rc != VELT_SUCCESS) return rc;
    int_agr_field_array_DEV_INTB_AGGR_SET_set(nullptr, &_cpu_handle, 0, DEV_INTB_AGGR_SET_READY);
    return VELT_SUCCESS;
}

VELT_ERROR kavo_device::startup_is_complete()
{
    VELT_LOG(_device_id, VELT_SHARED_LOG_TRACE, VELT_LOG_SEV_EVENT, " Poll the KAVO FW to see if it is alive or not\n");
    for (UINT32 failed = 0; cpu_cfg_reg_APP_SCRATCH_array_read(nullptr, &_cpu_handle, 6) != KAVO_FW_STARTED_MAGIC;) {
        if (++failed > STARTUP_ROUNDS) return KAVO_ERR_FW_BOOT_FAIL;
        VELT_LOG(_device_id, VELT_SHARED_LOG_TRACE, VELT_LOG_SEV_LOW, " Sleeping for %d microseconds\n", STARTUP_SLEEP_US);
        velt_sys_usleep(STARTUP_SLEEP_US);
    }
    VELT_LOG(_device_id, VELT_SHARED_LOG_TRACE, VELT_LOG_SEV_EVENT, " FW started successfully\n");
    return VELT_SUCCESS;
}

VELT_ERROR kavo_device::warm_restart()
{
    velt_fw_fixed_version_info_t running;
    VELT_ERROR rc = get_running_version_info(&running);
    if (rc != VELT_SUCCESS) return rc;
    const UINT32 word = running.fw_build_number_fixed_loc;
    const UINT32 major = (word >> 20) & 0xFF, minor = (word >> 12) & 0xFF, build = word & 0xFF;
    VELT_LOG(_device_id, VELT_SHARED_LOG_TRACE, VELT_LOG_SEV_LOW, " \nStatus fw_version %x fw_revision %d \n", word,
             running.fw_revision_number_fixed_loc);
    kavo_fw_hdr_t image{};  // a header that could not be read compares as version 0.0.0
    rc = get_image_version_info(&image);
    if (rc != VELT_SUCCESS) return rc;
    VELT_LOG(_device_id, VELT_SHARED_LOG_TRACE, VELT_LOG_SEV_LOW, " \nImage fw_version %x %x %x Revision %d \n",
             image.fw_major_num, image.fw_minor_num, image.fw_build_num, image.vcs_id);

    // A newer minor or build of the same major reloads (the build is compared
    // whatever the minors are); so does another revision of the same version.
    // A different major alone never does.
    const bool same_major = image.fw_major_num == major;
    const bool reload = (same_major && image.fw_minor_num > minor) || (same_major && image.fw_build_num > build) ||
                        (same_major && image.fw_minor_num == minor && image.fw_build_num == build &&
                         image.vcs_id != running.fw_revision_number_fixed_loc) ||
                        velt_option_warm_restart.value != 0;
    if (!reload) return VELT_SUCCESS;
    VELT_LOG(_device_id, VELT_SHARED_LOG_TRACE, VELT_LOG_SEV_EVENT, " Newer FW version found. \n");
    return reload_and_restart();
}

VELT_ERROR kavo_device::reload_and_restart()
{
    VELT_LOG(_device_id, VELT_SHARED_LOG_TRACE, VELT_LOG_SEV_EVENT, " Restarting Device. \n");
    kavo_htl_request_t request;
    request.operation = KAVO_HTL_OPERATION_RESTART;
    request.device_id = _device_id;
    VELT_ERROR rc = send(request);
    if (rc == VELT_SUCCESS) init_reload();  // its result is not reported: the restart request's is
    return rc;
}

VELT_ERROR kavo_device::init_reload()
{
    cpu_cfg_reg_SW_RST_HOST_EN_write(nullptr, &_cpu_handle, SW_RST_HOST_EN_RELOAD);
    cpu_cfg_field_SW_RST_HOST_set(nullptr, &_cpu_handle, SW_RST_MAGIC);
    cpu_cfg_field_SW_RST_HOST_AUTO_CLR_EN_set(nullptr, &_cpu_handle, 0);
    ocr_cfg_field_RAM_LOWPWR_SD_set(nullptr, &_cpu_handle, 3);
    ocr_cfg_field_RAM_LOWPWR_SD_set(nullptr, &_cpu_handle, 0);
    ocr_mem_clear(3);
    VELT_ERROR rc = ram_access_test();
    if (rc == VELT_SUCCESS) rc = download_fw();
    if (rc != VELT_SUCCESS) return rc;
    std::printf("\n");
    VELT_LOG(_device_id, VELT_SHARED_LOG_TRACE, VELT_LOG_SEV_EVENT, " Firmware Download Complete\n");
    return bring_cpu_out_of_reset(KAVO_FW_WARM_BOOT_ARG);
}
