// An application's bring-up sequence on a virtual kavo chip: install the
// callouts, start the device, configure it, query it, release it.
#include <cstdio>

#include "kavo/kavo_api.h"
#include "kavo_sim/kavo_sim.h"

static int check(VELT_ERROR rc, const char* what)
{
    if (rc == VELT_SUCCESS) return 0;
    std::fprintf(stderr, "%s: %s\n", what, kavo_err_t_string(rc));
    return 1;
}

int main()
{
    const UINT32 device = 0;
    if (check(kavo_sim::chip_create(device), "chip_create")) return 1;
    kavo_sdk_init(kavo_sim::callouts());
    kavo_function_logging_set(0);
    kavo_fw_filename_set(KAVO_FW_IMAGE_DIR "/kavo_fw_app_revx.mem");
    if (check(kavo_device_init(device, KAVO_INIT_AUTO), "kavo_device_init")) return 1;

    kavo_config_t cfg;  // defaults; the device mode must be chosen
    cfg.device_mode = KAVO_DEVICE_MODE_800G_FGB;
    cfg.pmon.trigger_period_ms = 500;
    if (check(kavo_device_config(device, &cfg), "kavo_device_config")) return 1;

    kavo_status_info_t status;
    if (check(kavo_device_status_get(device, &status), "kavo_device_status_get")) return 1;
    status.print("status", stdout, 0, -1);

    char reply[256] = {};
    if (check(kavo_debug_cmd(device, "version", sizeof(reply), reply), "kavo_debug_cmd")) return 1;
    std::printf("firmware says: %s\n", reply);
    return check(kavo_device_uninit(device, 1), "kavo_device_uninit");
}
