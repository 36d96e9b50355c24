"""Python binding of libkavo, the host SDK of the kavo transport chip, and of
its virtual device.

Records are ctypes structures with the library's layout and defaults
(``kavo.kavo_config_t()``); enumerations are IntEnums; every command is a
function that takes its inputs, returns its outputs and raises KavoError on a
non-zero result. ``kavo.sim`` creates virtual chips and gives the callout table
to pass to ``kavo_sdk_init``.
"""
from ._generated import *  # noqa: F401,F403
from ._library import KavoError, lib  # noqa: F401
from . import sim  # noqa: F401
