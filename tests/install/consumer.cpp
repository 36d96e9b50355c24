// An application outside the source tree, in C++: the records' defaults come
// from their constructors, and the virtual device from its C interface.
#include <kavo/kavo_api.h>
#include <kavo_sim/kavo_sim.h>

#include <cstdio>
#include <string>

int main()
{
    static_assert(KAVO_VERSION_MAJOR == 3, "the installed headers carry the version");
    const std::string image = std::string(kavo_sim_firmware_dir()) + "/kavo_fw_app_revx.mem";
    if (kavo_sim_chip_create(0, nullptr) != VELT_SUCCESS) return 1;
    kavo_sdk_init(kavo_sim_callouts());
    kavo_function_logging_set(0);
    kavo_fw_filename_set(image.c_str());
    VELT_ERROR rc = kavo_device_init(0, KAVO_INIT_COLD);
    kavo_dcsu_cfg_get_t dcsu;
    if (rc == VELT_SUCCESS) rc = kavo_dcsu_cfg_get(0, KAVO_DCSU_INSTANCE_1, &dcsu);
    kavo_device_uninit(0, 0);
    kavo_sim_chip_destroy_all();
    if (rc != VELT_SUCCESS) {
        std::fprintf(stderr, "consumer: %s\n", kavo_err_t_string(rc));
        return 2;
    }
    std::printf("consumer (C++): library %s, clock unit 1 feedback divider %u\n", kavo_version_string(),
                dcsu.fb_int_div);
    return 0;
}
