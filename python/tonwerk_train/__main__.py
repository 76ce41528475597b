"""python3 -m tonwerk_train COMMAND ...: see the package's docstring."""
import argparse
import importlib
import sys

COMMANDS = {
    "generate": ("tonwerk_train.render", "render synthetic multitrack songs with General MIDI sounds"),
    "train": ("tonwerk_train.train", "train a model, resuming from OUT/checkpoint.pt"),
    "export": ("tonwerk_train.export", "write a checkpoint as a contract ONNX model"),
    "evaluate": ("tonwerk_train.evaluate", "SDR per stem of a model through the library"),
}


def main(argv):
    parser = argparse.ArgumentParser(prog="python3 -m tonwerk_train")
    commands = parser.add_subparsers(dest="command", required=True)
    for name, (module, text) in COMMANDS.items():
        sub = commands.add_parser(name, help=text, description=text)
        sub.set_defaults(module=module)
        importlib.import_module(module).add_arguments(sub)
    args = parser.parse_args(argv)
    try:
        return importlib.import_module(args.module).run(args)
    except ValueError as error:  # bad data or settings: the message says what, no traceback needed
        print("%s: %s" % (args.command, error), file=sys.stderr)
        return 2


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
