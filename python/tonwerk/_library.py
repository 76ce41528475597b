"""Finding and declaring the C library (libtonwerk_c.so / tonwerk_c.dll)."""
import ctypes
import os
import sys

OUTPUT_COUNT = 8

STATUS_NAMES = {
    1: "invalid argument",
    2: "buffer overflow",
    3: "runtime error",
    4: "out of memory",
}

if sys.platform == "win32":
    _FILE_NAMES = ("tonwerk_c.dll",)
else:
    _FILE_NAMES = ("libtonwerk_c.so.0", "libtonwerk_c.so")


class TwOutput(ctypes.Structure):
    _fields_ = [("frames", ctypes.c_size_t), ("stems", ctypes.POINTER(ctypes.c_float) * OUTPUT_COUNT)]


def _candidates():
    """Where to look, in order: $TONWERK_LIBRARY (the file or its folder),
    this package's folder, then the system's library search path."""
    configured = os.environ.get("TONWERK_LIBRARY")
    if configured:
        if os.path.isdir(configured):
            return [os.path.join(configured, name) for name in _FILE_NAMES], True
        return [configured], True
    here = os.path.dirname(os.path.abspath(__file__))
    beside = [os.path.join(here, name) for name in _FILE_NAMES if os.path.exists(os.path.join(here, name))]
    return beside + list(_FILE_NAMES), False


def _declare(lib):
    size_p = ctypes.POINTER(ctypes.c_size_t)
    opaque_p = ctypes.POINTER(ctypes.c_void_p)
    signatures = {
        "tw_version": (ctypes.c_char_p, []),
        "tw_last_error": (ctypes.c_char_p, []),
        "tw_context_create": (ctypes.c_int, [ctypes.c_void_p, ctypes.c_size_t, ctypes.c_char_p, ctypes.c_size_t,
                                             opaque_p]),
        "tw_context_release": (None, [ctypes.c_void_p]),
        "tw_processor_create": (ctypes.c_int, [ctypes.c_void_p, ctypes.c_uint32, opaque_p]),
        "tw_processor_destroy": (None, [ctypes.c_void_p]),
        "tw_processor_max_input": (ctypes.c_int, [ctypes.c_void_p, size_p]),
        "tw_processor_latency": (ctypes.c_int, [ctypes.c_void_p, size_p]),
        "tw_processor_process": (ctypes.c_int, [ctypes.c_void_p, ctypes.POINTER(ctypes.c_float), ctypes.c_size_t,
                                                ctypes.c_int, ctypes.POINTER(TwOutput)]),
    }
    for name, (restype, argtypes) in signatures.items():
        function = getattr(lib, name)
        function.restype = restype
        function.argtypes = argtypes
    return lib


_loaded = None


def load():
    """The C library, loaded once per process."""
    global _loaded
    if _loaded is None:
        candidates, configured = _candidates()
        errors = []
        for candidate in candidates:
            try:
                _loaded = _declare(ctypes.CDLL(candidate))
                break
            except OSError as error:
                errors.append(str(error))
        else:
            hint = "" if configured else " (set TONWERK_LIBRARY to the library file or its folder)"
            raise OSError("cannot load the Tonwerk C library" + hint + ": " + "; ".join(errors))
    return _loaded
