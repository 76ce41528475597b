"""Streaming separation of stereo music into stems.

    import tonwerk
    separator = tonwerk.Separator("model.onnx")
    stems = separator.separate(audio)     # audio: (frames, 2) float32 at 44100 Hz
    stems["vocals"]                       # (frames, 2) float32, as long as audio

or block by block, as audio arrives:

    for block in blocks:                  # each (n, 2)
        stems = separator.process(block, eof=is_last)
        if stems is not None:             # the first after 257024 frames
            ...

tonwerk.LiveSeparator runs the live engine (a fraction of a second of delay).
"""
from tonwerk.live import LiveSeparator
from tonwerk.separator import (OUTPUTS, SAMPLE_RATE, STEMS, Model, Separator, TonwerkError,
                               library_version)

__all__ = ["OUTPUTS", "SAMPLE_RATE", "STEMS", "LiveSeparator", "Model", "Separator", "TonwerkError",
           "library_version"]
__version__ = "0.1.0"
