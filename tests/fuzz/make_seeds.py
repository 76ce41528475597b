#!/usr/bin/python3
"""Writes the fuzzers' seed corpus into corpus/ next to this script.

Usage: make_seeds.py MODELS_DIR   (the build's generated test models)

model_bytes: identity.onnx and band_split.onnx as they are (key length 0),
and identity.onnx scrambled with the key "key" (first byte 3, the key, the
scrambled bytes). process_schedule and buffer_aggregator: byte strings from a
fixed-seed generator, short and long; the fuzzers read them as choices.
Other files in corpus/ are inputs that once broke a fuzzer, kept as
regressions (process_schedule/empty_interleaved_block: an empty block read in
place from a null pointer; model_bytes/keyed_empty_model: a key and no model
bytes, whose empty buffer was wiped through a null pointer).
"""
import os
import random
import sys


def write(target, name, data):
    folder = os.path.join(os.path.dirname(os.path.abspath(__file__)), "corpus", target)
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, name), "wb") as f:
        f.write(data)


def main(models):
    for name in ("identity", "band_split"):
        with open(os.path.join(models, name + ".onnx"), "rb") as f:
            plain = f.read()
        write("model_bytes", name, b"\x00" + plain)
    key = b"key"
    write("model_bytes", "identity_keyed", bytes([len(key)]) + key +
          bytes(b ^ key[i % len(key)] for i, b in enumerate(open(os.path.join(models, "identity.onnx"), "rb").read())))
    generator = random.Random(20261123)
    for target in ("process_schedule", "buffer_aggregator"):
        for length in (16, 64, 256):
            write(target, "random_%d" % length, bytes(generator.randrange(256) for _ in range(length)))


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    main(sys.argv[1])
