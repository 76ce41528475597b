"""Models and streaming separators over the C library."""
import ctypes
import os
import threading

import numpy as np

from tonwerk import _library

SAMPLE_RATE = 44100
STEMS = ("vocals", "drum", "piano", "acoustic_guitar", "electric_guitar", "bass")
OUTPUTS = STEMS + ("residual", "mix")


class TonwerkError(RuntimeError):
    """A failure reported by the library; `status` is its tw_status code
    (1 invalid argument, 2 buffer overflow, 3 runtime error, 4 out of memory)."""

    def __init__(self, status, message):
        super().__init__(message)
        self.status = status


def _check(status, last_error=None):
    """Raises TonwerkError for a failed call; `last_error` is the library's
    message function (the C library's by default)."""
    if status != 0:
        message = (last_error or _library.load().tw_last_error)().decode("utf-8", "replace")
        raise TonwerkError(status, message or _library.STATUS_NAMES.get(status, "error %d" % status))


def model_bytes(source):
    """A model's bytes from a file path, or `source` itself as bytes."""
    if isinstance(source, (str, os.PathLike)):
        with open(source, "rb") as file:
            return file.read()
    return bytes(source)


def library_version():
    """The C library's version, "MAJOR.MINOR.PATCH"."""
    return _library.load().tw_version().decode()


class Model:
    """A loaded separation model, shared by any number of separators.

    `source` is a file path or the model's bytes; `key` (str or bytes) undoes
    XOR scrambling of the bytes. Loading starts ONNX Runtime on first use.
    """

    def __init__(self, source, key=None):
        lib = _library.load()
        data = model_bytes(source)
        key_bytes = key.encode() if isinstance(key, str) else bytes(key or b"")
        handle = ctypes.c_void_p()
        _check(lib.tw_context_create(data, len(data), key_bytes or None, len(key_bytes), ctypes.byref(handle)))
        self._handle = handle
        self._lib = lib
        # The library's processors of one model must not run at once; ctypes
        # lets threads into the library together, so they queue here.
        self.lock = threading.Lock()
        # The model session holds one stem choice for all its processors.
        self.stem_mask = None

    def claim_stems(self, mask):
        """Fixes the model's stem choice at the first separator's; a
        separator asking for other stems needs a Model of its own."""
        with self.lock:
            if self.stem_mask is None:
                self.stem_mask = mask
        if self.stem_mask != mask:
            asked = [name for i, name in enumerate(STEMS) if mask >> i & 1]
            held = [name for i, name in enumerate(STEMS) if self.stem_mask >> i & 1]
            raise ValueError("this Model serves separators of the stems %s; load another Model for %s"
                             % (held, asked))

    def __del__(self):
        handle = getattr(self, "_handle", None)
        if handle:
            self._lib.tw_context_release(handle)
            self._handle = None


def _stem_mask(stems):
    mask = 0
    for name in stems:
        if name not in STEMS:
            raise ValueError("unknown stem %r; stems are %s" % (name, ", ".join(STEMS)))
        mask |= 1 << STEMS.index(name)
    return mask


def _as_block(block):
    block = np.ascontiguousarray(block, dtype=np.float32)
    if block.ndim != 2 or block.shape[1] != 2:
        raise ValueError("a block must be stereo frames of shape (frames, 2), not %s" % (block.shape,))
    return block


class Separator:
    """One stream of stereo audio at 44100 Hz separated into eight outputs.

    `model` is a Model, a model file path or the model's bytes (then `key`
    applies as for Model). `stems` names the stems to ask the model for; the
    others come back silent and their share stays in "residual". Separators
    sharing a Model must ask for the same stems.
    """

    def __init__(self, model, key=None, stems=STEMS):
        mask = _stem_mask(stems)
        self.model = model if isinstance(model, Model) else Model(model, key)
        self.model.claim_stems(mask)
        self._lib = _library.load()
        self._handle = self._new_processor()
        self._output = _library.TwOutput()

    def _new_processor(self):
        handle = ctypes.c_void_p()
        with self.model.lock:
            _check(self._lib.tw_processor_create(self.model._handle, self.model.stem_mask, ctypes.byref(handle)))
        return handle

    def _destroy(self, handle):
        with self.model.lock:
            self._lib.tw_processor_destroy(handle)

    def _query(self, function, handle=None):
        frames = ctypes.c_size_t()
        _check(function(handle or self._handle, ctypes.byref(frames)))
        return frames.value

    @property
    def latency(self):
        """Frames of input before the first output (257024)."""
        return self._query(self._lib.tw_processor_latency)

    @property
    def max_input(self):
        """Frames one process() call should carry at most right now."""
        return self._query(self._lib.tw_processor_max_input)

    def process(self, block, eof=False):
        """Pushes `block`, shape (frames, 2), and returns None (no output
        yet) or a dict of the eight outputs, each (n, 2) float32. With `eof`
        the stream ends and everything still held comes back. A refused block
        (ValueError, or TonwerkError with status 1 or 2) leaves the stream as
        it was: send it again in smaller pieces."""
        return self._push(self._handle, _as_block(block), eof)

    def _push(self, handle, block, eof):
        pointer = block.ctypes.data_as(ctypes.POINTER(ctypes.c_float))
        with self.model.lock:
            _check(self._lib.tw_processor_process(handle, pointer, block.shape[0], int(bool(eof)),
                                                  ctypes.byref(self._output)))
            frames = self._output.frames
            if frames == 0:
                return None
            # The library's buffers are lent until the next call: copy them out.
            return {name: np.ctypeslib.as_array(self._output.stems[i], shape=(frames, 2)).copy()
                    for i, name in enumerate(OUTPUTS)}

    def separate(self, audio, block_frames=4096):
        """Separates a whole recording, shape (frames, 2), in a stream of its
        own (the streaming state of process() is left alone). Returns the
        eight outputs, each exactly as long as `audio`."""
        audio = _as_block(audio)
        if block_frames <= 0:
            raise ValueError("block_frames must be positive")
        handle = self._new_processor()
        try:
            parts = {name: [] for name in OUTPUTS}
            start = 0
            while True:
                # Never more than the processor takes at once.
                step = min(block_frames, self._query(self._lib.tw_processor_max_input, handle))
                end = min(audio.shape[0], start + step)
                result = self._push(handle, audio[start:end], end == audio.shape[0])
                for name, samples in (result or {}).items():
                    parts[name].append(samples)
                start = end
                if start == audio.shape[0]:
                    break
        finally:
            self._destroy(handle)
        return {name: np.concatenate(chunks) if chunks else np.zeros((0, 2), np.float32)
                for name, chunks in parts.items()}

    def close(self):
        """Ends the stream and frees the processor; further calls raise."""
        if self._handle:
            self._destroy(self._handle)
            self._handle = ctypes.c_void_p()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def __del__(self):
        if getattr(self, "_handle", None):
            self.close()
