#!/usr/bin/env python3
"""Bring-up and a status poll of a virtual kavo chip from Python."""
import kavo

kavo.sim.chip_create(0)
kavo.kavo_sdk_init(kavo.sim.callouts())
kavo.kavo_function_logging_set(0)
kavo.kavo_fw_filename_set(kavo.sim.firmware_dir() + "/kavo_fw_app_revx.mem")
kavo.kavo_device_init(0, kavo.kavo_init_type_t.KAVO_INIT_COLD)

cfg = kavo.kavo_config_t(device_mode=kavo.kavo_device_mode_t.KAVO_DEVICE_MODE_800G_FGB)
kavo.kavo_device_config(0, cfg)
for _ in range(3):
    status = kavo.kavo_device_status_get(0)
    info = status.device_info
    print(f"firmware 0x{info.fw_version:x}, up {info.fw_up_time} s, configured {bool(info.fw_is_configured)}")
try:
    kavo.kavo_dcsu_cfg_get(0, 99)
except kavo.KavoError as e:
    print("refused as expected:", e.name)
kavo.kavo_device_uninit(0, 1)
