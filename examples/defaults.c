/* A C program: prints a default device configuration and a few result codes by name. */
#include <stdio.h>

#include "kavo/kavo_api.h"

int main(void)
{
    kavo_config_t cfg;
    kavo_config_t_init(&cfg);
    cfg.device_mode = KAVO_DEVICE_MODE_1200G_ENET;
    kavo_config_t_print(&cfg, stdout);

    const VELT_ERROR codes[] = {VELT_SUCCESS, HTL_ERR_DEVICE_OFFLINE, KAVO_ERR_FW_BOOT_FAIL, 0x2110};
    char buffer[64];
    for (unsigned i = 0; i < sizeof(codes) / sizeof(codes[0]); ++i)
        printf("0x%04x %s / %s\n", codes[i], kavo_err_t_string(codes[i]),
               kavo_err_t_print((kavo_err_t)codes[i], buffer, sizeof(buffer)));
    printf("module 33: %s\n", kavo_module_id_t_suffix_print(KAVO_MID_HTL, NULL, 0));
    return 0;
}
