"""Training, export and evaluation of separation models for the Tonwerk
library's model contract.

    python3 -m tonwerk_train generate OUT_DIR         synthetic multitracks
    python3 -m tonwerk_train train ...                fit a model, with checkpoints
    python3 -m tonwerk_train export CKPT... OUT.onnx  a contract model (of several: their average)
    python3 -m tonwerk_train evaluate MODEL SONGS     SDR table through the library
"""
