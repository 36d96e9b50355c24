"""The Python binding against libkavo and a virtual chip: layouts agree with the
library's, defaults come from it, commands return their outputs and raise on
failure."""
import ctypes
import unittest

import kavo


class Layout(unittest.TestCase):
    def test_records_have_the_sizes_and_offsets_of_the_library(self):
        for name, size in kavo.SIZES.items():
            with self.subTest(record=name):
                self.assertEqual(ctypes.sizeof(getattr(kavo, name)), size)
        for name, member, offset in kavo.OFFSETS:
            with self.subTest(record=name, member=member):
                self.assertEqual(getattr(getattr(kavo, name), member).offset, offset)

    def test_defaults_come_from_the_library(self):
        cfg = kavo.kavo_config_t()
        self.assertEqual(cfg.host_sdk_mode, 6110)
        self.assertEqual(cfg.device_mode, kavo.kavo_device_mode_t.LAST_KAVO_DEVICE_MODE)
        self.assertEqual(list(cfg.macsec_global_bypass), [1, 1, 1])
        self.assertEqual(cfg.ilkn_lane.serdes_port_ids_tx[23], 0xFFFFFFFF)
        self.assertEqual(kavo.kavo_config_t(host_sdk_mode=7).host_sdk_mode, 7)


class Commands(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        kavo.sim.chip_create(0)
        kavo.kavo_sdk_init(kavo.sim.callouts())
        kavo.kavo_function_logging_set(0)
        kavo.kavo_fw_filename_set(kavo.sim.firmware_dir() + "/kavo_fw_app_revx.mem")
        kavo.kavo_device_init(0, kavo.kavo_init_type_t.KAVO_INIT_COLD)

    @classmethod
    def tearDownClass(cls):
        kavo.kavo_device_uninit(0, 0)
        kavo.sim.chip_destroy_all()

    def test_a_configuration_is_read_back_as_sent(self):
        with self.assertRaises(kavo.KavoError) as refused:
            kavo.kavo_device_config_get(0)
        self.assertEqual(refused.exception.name, "KAVO_ERR_FW_NOT_CONFIGURED")
        cfg = kavo.kavo_config_t(device_mode=kavo.kavo_device_mode_t.KAVO_DEVICE_MODE_800G_FGB)
        cfg.ilkn_intf.burst_max = 16
        self.assertIsNone(kavo.kavo_device_config(0, cfg))
        back = kavo.kavo_device_config_get(0)
        self.assertEqual(back.device_mode, kavo.kavo_device_mode_t.KAVO_DEVICE_MODE_800G_FGB)
        self.assertEqual(back.to_dict()["ilkn_intf"]["burst_max"], 16)

    def test_status_and_scalar_outputs(self):
        status = kavo.kavo_device_status_get(0)
        self.assertEqual(status.device_info.fw_version, 0x300002)
        self.assertEqual(kavo.kavo_reg_read(0, 0xF00380), 0x06100000)
        self.assertEqual(kavo.kavo_fw_filename_get(), kavo.sim.firmware_dir() + "/kavo_fw_app_reva.mem")

    def test_arrays_go_out_and_come_back(self):
        sent = [0xC0DE0000 + i for i in range(8)]
        echoed = kavo.kavo_debug_ping(0, 4 * len(sent), sent)
        self.assertEqual(echoed, sent[0])  # the first word of the echo buffer
        with self.assertRaises(kavo.KavoError) as refused:
            kavo.kavo_debug_ping(0, 6, sent)
        self.assertEqual(refused.exception.name, "HTL_ERR_INVALID_REQUEST_DATA_SIZE")


if __name__ == "__main__":
    unittest.main()
