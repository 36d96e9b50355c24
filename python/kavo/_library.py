"""Loading libkavo and libkavo_sim, and the shapes every record and command share."""
import ctypes
import os

_libs = {}


def _load(key, env, name):
    if key not in _libs:
        _libs[key] = ctypes.CDLL(os.environ.get(env) or name)
    return _libs[key]


def lib():
    """libkavo.so.1: $KAVO_LIBKAVO, else the dynamic linker's search."""
    return _load("kavo", "KAVO_LIBKAVO", "libkavo.so.1")


def sim_lib():
    """libkavo_sim.so.1: $KAVO_LIBKAVO_SIM, else the dynamic linker's search."""
    lib()  # its symbols first: the virtual device is a user of the SDK's types
    return _load("sim", "KAVO_LIBKAVO_SIM", "libkavo_sim.so.1")


class KavoError(Exception):
    """A command's non-zero result, with the code's name."""

    def __init__(self, code, name=None):
        self.code = code
        if name is None:
            f = lib().kavo_err_t_string
            f.restype, f.argtypes = ctypes.c_char_p, [ctypes.c_uint32]
            name = f(code).decode()
        self.name = name
        super().__init__(f"{name} (0x{code:x})")


def _to_python(value):
    if isinstance(value, (Record, Union)):
        return value.to_dict()
    if isinstance(value, ctypes.Array):
        if value._type_ is ctypes.c_char:
            return bytes(value).split(b"\0", 1)[0].decode(errors="replace")
        return [_to_python(v) for v in value]
    return value


class _Fields:
    """Defaults from the library's own T_init, and the members as a dict."""

    def __init__(self, **members):
        super().__init__()
        init = getattr(lib(), self._init_, None)
        if init is not None:
            init.argtypes, init.restype = [ctypes.c_void_p], None
            init(ctypes.byref(self))
        for name, value in members.items():
            setattr(self, name, value)

    def to_dict(self):
        return {name: _to_python(getattr(self, name)) for name, _ in self._fields_}

    def __repr__(self):
        return f"{type(self).__name__}({self.to_dict()})"


class Record(_Fields, ctypes.Structure):
    _init_ = ""


class Union(_Fields, ctypes.Union):
    _init_ = ""


OUTPUT_TEXT = 65536


def command(name, returns, args, doc):
    """A Python function for one command: inputs as arguments, outputs returned;
    a non-zero result raises KavoError."""
    inputs = [a for a in args if not a[2].startswith("out")]

    def call(*values, **named):
        f = getattr(lib(), name)
        f.argtypes = [a[1] for a in args]
        f.restype = ctypes.c_uint32 if returns == "code" else None
        given = dict(zip([a[0] for a in inputs], values))
        given.update(named)
        missing = [a[0] for a in inputs if a[0] not in given and a[2] == "scalar"]
        if missing:
            raise TypeError(f"{name}() needs {', '.join(missing)}")
        cargs, outputs = [], []
        for arg, ctype, shape, base in args:
            value = given.get(arg)
            if shape == "scalar" or shape == "opaque":
                cargs.append(int(value) if shape == "scalar" and not isinstance(value, float) else value)
            elif shape == "in_record":
                cargs.append(ctypes.byref(value) if value is not None else None)
            elif shape == "in_array":
                cargs.append((base * len(value))(*value) if value is not None else None)
            elif shape == "text":
                cargs.append(value.encode() if isinstance(value, str) else value)
            elif shape == "out_text":
                buffer = ctypes.create_string_buffer(OUTPUT_TEXT)
                cargs.append(ctypes.cast(buffer, ctypes.c_char_p))
                outputs.append(buffer)
            elif shape == "out_text_ptr":
                holder = ctypes.c_char_p()
                cargs.append(ctypes.byref(holder))
                outputs.append(holder)
            elif shape == "out_record":
                holder = base()
                cargs.append(ctypes.byref(holder))
                outputs.append(holder)
            else:  # out_scalar: room for a buffer of them, the first is the result
                holder = (base * (OUTPUT_TEXT // ctypes.sizeof(base)))()
                cargs.append(ctypes.cast(holder, ctype))
                outputs.append(holder)
        rc = f(*cargs)
        if returns == "code" and rc != 0:
            raise KavoError(rc)
        results = []
        for o in outputs:
            if isinstance(o, (Record, Union)):
                results.append(o)
            elif isinstance(o, ctypes.Array) and o._type_ is ctypes.c_char:
                results.append(o.value.decode(errors="replace"))
            elif isinstance(o, ctypes.Array):
                results.append(o[0])
            elif isinstance(o, ctypes.c_char_p):
                results.append(o.value.decode() if o.value is not None else None)
            else:
                results.append(o.value)
        if not results:
            return None
        return results[0] if len(results) == 1 else tuple(results)

    call.__name__ = name
    call.__doc__ = doc
    return call
