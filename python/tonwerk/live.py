"""Live separation: the model runs every few hops on the sliding
spectrogram, so output follows input by a fraction of a second.

    live = tonwerk.LiveSeparator("model.onnx", update=4, lookahead=4)
    live.latency                 # {"lookahead": 4096, "output_delay": 3072, "total": 7168} frames
    stems = live.separate(audio) # (frames, 2) in, eight outputs aligned with it

For audio callbacks use the C interface's adapter (tonwerk_live.h); this
class runs the engine on the calling thread, for renders and evaluation.
"""
import ctypes

import numpy as np

from tonwerk import _library
from tonwerk import separator
from tonwerk.separator import OUTPUTS, STEMS, _as_block, _stem_mask


def _check(status):
    separator._check(status, _library.load_live().tw_live_last_error)


class LiveSeparator:
    """A live engine on `model` (a file path or the model's bytes): `update`
    hops (1024 frames) of input per model run, `lookahead` frames of future
    context for each frame handed out; `threads` threads per model run."""

    def __init__(self, model, update=4, lookahead=4, stems=STEMS, threads=1):
        self._lib = _library.load_live()
        data = separator.model_bytes(model)
        settings = _library.LiveSettings()
        self._lib.tw_live_settings_init(ctypes.byref(settings), ctypes.sizeof(settings))
        settings.stem_mask, settings.update, settings.lookahead = _stem_mask(stems), update, lookahead
        settings.threads = threads
        handle = ctypes.c_void_p()
        _check(self._lib.tw_live_engine_create(data, len(data), ctypes.byref(settings), ctypes.byref(handle)))
        self._handle = handle
        frames = ctypes.c_size_t()
        _check(self._lib.tw_live_engine_block_frames(self._handle, ctypes.byref(frames)))
        self.block_frames = frames.value
        latency = _library.LiveLatency()
        _check(self._lib.tw_live_engine_latency(self._handle, ctypes.byref(latency)))
        self.latency = {name: getattr(latency, name) for name in ("lookahead", "output_delay", "total")}
        self._outputs = np.zeros((len(OUTPUTS), self.block_frames, 2), np.float32)
        row = ctypes.POINTER(ctypes.c_float)
        self._pointers = (row * len(OUTPUTS))(*(self._outputs[i].ctypes.data_as(row) for i in range(len(OUTPUTS))))

    def process(self, block):
        """One model run: `block`, (block_frames, 2), in; the eight outputs,
        each (block_frames, 2) and `latency["total"]` frames late, out."""
        block = _as_block(block)
        if block.shape[0] != self.block_frames:
            raise ValueError("a block must hold %d frames, not %d" % (self.block_frames, block.shape[0]))
        _check(self._lib.tw_live_engine_process(self._handle, block.ctypes.data_as(ctypes.POINTER(ctypes.c_float)),
                                                self._pointers))
        return {name: self._outputs[i].copy() for i, name in enumerate(OUTPUTS)}

    def separate(self, audio):
        """A whole recording, (frames, 2), through this engine's stream from
        where it stands (a new engine starts from silence): the eight
        outputs with the latency taken off, each exactly as long as `audio`."""
        audio = _as_block(audio)
        delay, frames = self.latency["total"], audio.shape[0]
        blocks = -(-(frames + delay) // self.block_frames)
        padded = np.zeros((blocks * self.block_frames, 2), np.float32)
        padded[:frames] = audio
        parts = [self.process(padded[b * self.block_frames:(b + 1) * self.block_frames]) for b in range(blocks)]
        return {name: np.concatenate([p[name] for p in parts])[delay:delay + frames] for name in OUTPUTS}

    def close(self):
        if getattr(self, "_handle", None):
            self._lib.tw_live_engine_destroy(self._handle)
            self._handle = None

    __del__ = close
