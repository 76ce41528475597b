"""Finding and declaring the C libraries: libtonwerk_c.so / tonwerk_c.dll,
and the live one beside it, libtonwerk_live.so / tonwerk_live.dll."""
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
    _LIVE_NAMES = ("tonwerk_live.dll",)
else:
    _FILE_NAMES = ("libtonwerk_c.so.0", "libtonwerk_c.so")
    _LIVE_NAMES = ("libtonwerk_live.so.0", "libtonwerk_live.so")


class TwOutput(ctypes.Structure):
    _fields_ = [("frames", ctypes.c_size_t), ("stems", ctypes.POINTER(ctypes.c_float) * OUTPUT_COUNT)]


def _candidates(names=_FILE_NAMES):
    """Where to look, in order: $TONWERK_LIBRARY (the C library's file or
    its folder; the live library is looked for in that folder), this
    package's folder, then the system's library search path."""
    configured = os.environ.get("TONWERK_LIBRARY")
    if configured:
        if os.path.isdir(configured):
            return [os.path.join(configured, name) for name in names], True
        if names is _FILE_NAMES:
            return [configured], True
        return [os.path.join(os.path.dirname(configured), name) for name in names], True
    here = os.path.dirname(os.path.abspath(__file__))
    beside = [os.path.join(here, name) for name in names if os.path.exists(os.path.join(here, name))]
    return beside + list(names), False


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
    return _typed(lib, signatures)


class LiveSettings(ctypes.Structure):
    _fields_ = [("size", ctypes.c_uint32), ("stem_mask", ctypes.c_uint32), ("update", ctypes.c_uint32),
                ("lookahead", ctypes.c_uint32), ("max_block", ctypes.c_uint32), ("offline", ctypes.c_int),
                ("threads", ctypes.c_uint32), ("gpu", ctypes.c_int), ("sample_rate", ctypes.c_uint32)]


class LiveLatency(ctypes.Structure):
    _fields_ = [("lookahead", ctypes.c_size_t), ("output_delay", ctypes.c_size_t), ("total", ctypes.c_size_t)]


def _declare_live(lib):
    outputs = ctypes.POINTER(ctypes.POINTER(ctypes.c_float))
    signatures = {
        "tw_live_last_error": (ctypes.c_char_p, []),
        "tw_live_settings_init": (None, [ctypes.POINTER(LiveSettings), ctypes.c_size_t]),
        "tw_live_engine_create": (ctypes.c_int, [ctypes.c_void_p, ctypes.c_size_t, ctypes.POINTER(LiveSettings),
                                                 ctypes.POINTER(ctypes.c_void_p)]),
        "tw_live_engine_destroy": (None, [ctypes.c_void_p]),
        "tw_live_engine_latency": (ctypes.c_int, [ctypes.c_void_p, ctypes.POINTER(LiveLatency)]),
        "tw_live_engine_block_frames": (ctypes.c_int, [ctypes.c_void_p, ctypes.POINTER(ctypes.c_size_t)]),
        "tw_live_engine_process": (ctypes.c_int, [ctypes.c_void_p, ctypes.POINTER(ctypes.c_float), outputs]),
    }
    return _typed(lib, signatures)


def _typed(lib, signatures):
    for name, (restype, argtypes) in signatures.items():
        function = getattr(lib, name)
        function.restype = restype
        function.argtypes = argtypes
    return lib


_loaded = {}


def _load_once(what, names, declare):
    if what not in _loaded:
        candidates, configured = _candidates(names)
        errors = []
        for candidate in candidates:
            try:
                _loaded[what] = declare(ctypes.CDLL(candidate))
                break
            except OSError as error:
                errors.append(str(error))
        else:
            hint = "" if configured else " (set TONWERK_LIBRARY to the library file or its folder)"
            raise OSError("cannot load the Tonwerk %s library" % what + hint + ": " + "; ".join(errors))
    return _loaded[what]


def load():
    """The C library, loaded once per process."""
    return _load_once("C", _FILE_NAMES, _declare)


def load_live():
    """The live library, loaded once per process."""
    return _load_once("live", _LIVE_NAMES, _declare_live)
