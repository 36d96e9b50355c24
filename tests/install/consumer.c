/* An application outside the source tree, in C11: brings a virtual chip up
   through the installed SDK and configures it. */
#include <stdio.h>
#include <string.h>

#include <kavo/kavo_api.h>
#include <kavo_sim/kavo_sim.h>

int main(void)
{
    char image[512];
    snprintf(image, sizeof(image), "%s/kavo_fw_app_revx.mem", kavo_sim_firmware_dir());
    if (kavo_sim_chip_create(0, NULL) != VELT_SUCCESS) return 1;
    kavo_sdk_init(kavo_sim_callouts());
    kavo_function_logging_set(0);
    if (kavo_fw_filename_set(image) != VELT_SUCCESS) return 2;
    VELT_ERROR rc = kavo_device_init(0, KAVO_INIT_COLD);
    if (rc != VELT_SUCCESS) {
        fprintf(stderr, "consumer: init: %s\n", kavo_err_t_string(rc));
        return 3;
    }
    kavo_config_t cfg;
    kavo_config_t_init(&cfg);
    cfg.device_mode = KAVO_DEVICE_MODE_800G_FGB;
    kavo_status_info_t status;
    memset(&status, 0, sizeof(status));
    rc = kavo_device_config(0, &cfg);
    if (rc == VELT_SUCCESS) rc = kavo_device_status_get(0, &status);
    kavo_device_uninit(0, 1);
    kavo_sim_chip_destroy_all();
    if (rc != VELT_SUCCESS || !status.device_info.fw_is_configured) return 4;
    printf("consumer (C): library %s, firmware 0x%x, configured\n", kavo_version_string(),
           (unsigned)status.device_info.fw_version);
    return 0;
}
