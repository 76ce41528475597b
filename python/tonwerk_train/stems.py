"""The stems of the model contract, in its two orders."""

# Output order: the model's "<stem>_output" tensors, the library's stems and
# the rows of every array in this package.
STEMS = ("vocals", "drum", "piano", "acoustic_guitar", "electric_guitar", "bass")
# Flag order: the model's "<stem>_flag" inputs.
FLAG_STEMS = ("vocals", "drum", "bass", "piano", "acoustic_guitar", "electric_guitar")
SAMPLE_RATE = 44100
