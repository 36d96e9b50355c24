"""The virtual kavo device through libkavo_sim's C interface."""
import ctypes

from ._library import KavoError, sim_lib
from ._generated import sim_fault_t, sim_knob_t  # noqa: F401


def _call(name, restype, argtypes, *args):
    f = getattr(sim_lib(), name)
    f.restype, f.argtypes = restype, argtypes
    return f(*args)


def _check(rc):
    if rc != 0:
        raise KavoError(rc)


def chip_create(device_id, revision_b=False, threaded=False, service_time_us=0, clock_step_ns=0):
    class options(ctypes.Structure):
        _fields_ = [("revision_code", ctypes.c_uint32), ("threaded", ctypes.c_uint32),
                    ("service_time_us", ctypes.c_uint32), ("clock_step_ns", ctypes.c_uint32)]
    o = options(1 if revision_b else 0, 1 if threaded else 0, service_time_us, clock_step_ns)
    _check(_call("kavo_sim_chip_create", ctypes.c_uint32, [ctypes.c_uint32, ctypes.c_void_p], device_id,
                 ctypes.byref(o)))


def chip_destroy_all():
    _call("kavo_sim_chip_destroy_all", None, [])


def callouts():
    """The callout table of this process's chips, for kavo_sdk_init."""
    return _call("kavo_sim_callouts", ctypes.c_void_p, [])


def firmware_dir():
    return _call("kavo_sim_firmware_dir", ctypes.c_char_p, []).decode()


def knob_set(device_id, knob, index, value):
    _check(_call("kavo_sim_knob_set", ctypes.c_uint32, [ctypes.c_uint32] * 4, device_id, int(knob), index, value))


def fault_set(device_id, fault, a=0, b=0):
    _check(_call("kavo_sim_fault_set", ctypes.c_uint32, [ctypes.c_uint32] * 4, device_id, int(fault), a, b))


def advance_time(device_id, microseconds):
    _check(_call("kavo_sim_advance_time", ctypes.c_uint32, [ctypes.c_uint32, ctypes.c_uint64], device_id,
                 microseconds))
