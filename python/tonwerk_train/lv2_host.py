"""An offline LV2 host for rendering training material through effect
plugins (guitar amps and cabinets, for a start).

Stock command-line hosts offer plugins no host features, and many plugins
refuse to start without a URID map, leave their atom ports unconnected or
crash without a worker. This host talks to liblilv through ctypes: it
offers urid:map and urid:unmap, the block sizes and sample rate as options,
and a worker that does its work at once (offline, nobody waits for the
audio), connects every control port (defaults, or the values asked for), an
atom sequence to atom inputs (empty, or the MIDI events of the block, so
instruments play too) and a buffer to atom outputs, and runs the plugin over
a whole signal in blocks.

Plugins are found by URI among those installed (LV2_PATH as lilv reads it).
"""
import contextlib
import ctypes
import ctypes.util
import os
import struct
import sys

import numpy as np

BLOCK = 1024
ATOM_CAPACITY = 1 << 16
LV2 = "http://lv2plug.in/ns/lv2core#"
ATOM = "http://lv2plug.in/ns/ext/atom#"
URID = "http://lv2plug.in/ns/ext/urid#"
WORKER = "http://lv2plug.in/ns/ext/worker#"
OPTIONS = "http://lv2plug.in/ns/ext/options#"
BUFSZ = "http://lv2plug.in/ns/ext/buf-size#"
STATE = "http://lv2plug.in/ns/ext/state#"
MIDI_EVENT = "http://lv2plug.in/ns/ext/midi#MidiEvent"


class Feature(ctypes.Structure):
    _fields_ = [("uri", ctypes.c_char_p), ("data", ctypes.c_void_p)]


MapFunction = ctypes.CFUNCTYPE(ctypes.c_uint32, ctypes.c_void_p, ctypes.c_char_p)
UnmapFunction = ctypes.CFUNCTYPE(ctypes.c_char_p, ctypes.c_void_p, ctypes.c_uint32)


class UridMap(ctypes.Structure):
    _fields_ = [("handle", ctypes.c_void_p), ("map", MapFunction)]


class UridUnmap(ctypes.Structure):
    _fields_ = [("handle", ctypes.c_void_p), ("unmap", UnmapFunction)]


RespondFunction = ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_void_p, ctypes.c_uint32, ctypes.c_void_p)
ScheduleFunction = ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_void_p, ctypes.c_uint32, ctypes.c_void_p)


class WorkerSchedule(ctypes.Structure):
    _fields_ = [("handle", ctypes.c_void_p), ("schedule_work", ScheduleFunction)]


class WorkerInterface(ctypes.Structure):
    _fields_ = [("work", ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_void_p, RespondFunction, ctypes.c_void_p,
                                          ctypes.c_uint32, ctypes.c_void_p)),
                ("work_response", ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_void_p, ctypes.c_uint32, ctypes.c_void_p)),
                ("end_run", ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_void_p))]


RetrieveFunction = ctypes.CFUNCTYPE(ctypes.c_void_p, ctypes.c_void_p, ctypes.c_uint32, ctypes.POINTER(ctypes.c_size_t),
                                    ctypes.POINTER(ctypes.c_uint32), ctypes.POINTER(ctypes.c_uint32))


class StateInterface(ctypes.Structure):
    _fields_ = [("save", ctypes.c_void_p),
                ("restore", ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_void_p, RetrieveFunction, ctypes.c_void_p,
                                             ctypes.c_uint32, ctypes.c_void_p))]


class Option(ctypes.Structure):
    _fields_ = [("context", ctypes.c_int), ("subject", ctypes.c_uint32), ("key", ctypes.c_uint32),
                ("size", ctypes.c_uint32), ("type", ctypes.c_uint32), ("value", ctypes.c_void_p)]


class Descriptor(ctypes.Structure):
    _fields_ = [("uri", ctypes.c_char_p), ("instantiate", ctypes.c_void_p),
                ("connect_port", ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_uint32, ctypes.c_void_p)),
                ("activate", ctypes.CFUNCTYPE(None, ctypes.c_void_p)),
                ("run", ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_uint32)),
                ("deactivate", ctypes.CFUNCTYPE(None, ctypes.c_void_p)),
                ("cleanup", ctypes.CFUNCTYPE(None, ctypes.c_void_p)),
                ("extension_data", ctypes.CFUNCTYPE(ctypes.c_void_p, ctypes.c_char_p))]


class Instance(ctypes.Structure):
    _fields_ = [("descriptor", ctypes.POINTER(Descriptor)), ("handle", ctypes.c_void_p), ("pimpl", ctypes.c_void_p)]


def _lilv():
    path = ctypes.util.find_library("lilv-0") or "liblilv-0.so.0"
    lib = ctypes.CDLL(path)
    pointer = ctypes.c_void_p
    signatures = {
        "lilv_world_new": ([], pointer), "lilv_world_load_all": ([pointer], None),
        "lilv_new_uri": ([pointer, ctypes.c_char_p], pointer), "lilv_node_free": ([pointer], None),
        "lilv_world_get_all_plugins": ([pointer], pointer),
        "lilv_plugins_get_by_uri": ([pointer, pointer], pointer),
        "lilv_plugin_get_num_ports": ([pointer], ctypes.c_uint32),
        "lilv_plugin_get_port_by_index": ([pointer, ctypes.c_uint32], pointer),
        "lilv_port_get_symbol": ([pointer, pointer], pointer), "lilv_node_as_string": ([pointer], ctypes.c_char_p),
        "lilv_port_is_a": ([pointer, pointer, pointer], ctypes.c_bool),
        "lilv_port_get_range": ([pointer, pointer, ctypes.POINTER(pointer), ctypes.POINTER(pointer),
                                 ctypes.POINTER(pointer)], None),
        "lilv_node_as_float": ([pointer], ctypes.c_float),
        "lilv_plugin_instantiate": ([pointer, ctypes.c_double, ctypes.POINTER(ctypes.POINTER(Feature))],
                                    ctypes.POINTER(Instance)),
        "lilv_instance_free": ([ctypes.POINTER(Instance)], None), "lilv_world_free": ([pointer], None),
    }
    for name, (arguments, result) in signatures.items():
        function = getattr(lib, name)
        function.argtypes, function.restype = arguments, result
    return lib


class Urids:
    """The host's URID map: URIs numbered from 1 in the order first asked for."""

    def __init__(self):
        self.ids, self.uris = {}, {}
        self.map = UridMap(None, MapFunction(self._map))
        self.unmap = UridUnmap(None, UnmapFunction(lambda handle, urid: self.uris.get(urid)))

    def _map(self, handle, uri):
        if uri not in self.ids:
            self.ids[uri] = len(self.ids) + 1
            self.uris[self.ids[uri]] = uri
        return self.ids[uri]

    def __call__(self, uri):
        return self._map(None, uri.encode())


class Plugin:
    """One instance of an installed plugin at a sample rate. Ports by symbol."""

    def __init__(self, uri, rate):
        self.lib = lib = _lilv()
        self.world = lib.lilv_world_new()
        lib.lilv_world_load_all(self.world)
        node = lib.lilv_new_uri(self.world, uri.encode())
        plugin = lib.lilv_plugins_get_by_uri(lib.lilv_world_get_all_plugins(self.world), node)
        lib.lilv_node_free(node)
        if not plugin:
            raise ValueError("LV2 plugin %s is not installed" % uri)
        self.urids = Urids()
        self.worker, self.responses = None, []
        self.schedule = WorkerSchedule(None, ScheduleFunction(self._schedule))
        self.respond = RespondFunction(self._respond)
        self._option_values = [ctypes.c_int32(BLOCK), ctypes.c_int32(BLOCK), ctypes.c_int32(1),
                               ctypes.c_float(rate)]
        keys = (BUFSZ + "maxBlockLength", BUFSZ + "nominalBlockLength", BUFSZ + "minBlockLength",
                "http://lv2plug.in/ns/ext/parameters#sampleRate")
        types = (ATOM + "Int",) * 3 + (ATOM + "Float",)
        self._options = (Option * 5)(*[Option(0, 0, self.urids(k), 4, self.urids(t), ctypes.addressof(v))
                                       for k, t, v in zip(keys, types, self._option_values)], Option())
        features = [Feature((URID + "map").encode(), ctypes.addressof(self.urids.map)),
                    Feature((URID + "unmap").encode(), ctypes.addressof(self.urids.unmap)),
                    Feature((WORKER + "schedule").encode(), ctypes.addressof(self.schedule)),
                    Feature((OPTIONS + "options").encode(), ctypes.addressof(self._options)),
                    Feature((BUFSZ + "boundedBlockLength").encode(), None)]
        self._features = (ctypes.POINTER(Feature) * (len(features) + 1))(*[ctypes.pointer(f) for f in features], None)
        self._feature_list = features
        self.instance = lib.lilv_plugin_instantiate(plugin, rate, self._features)
        if not self.instance:
            raise ValueError("LV2 plugin %s would not start" % uri)
        extension_data = self.instance.contents.descriptor.contents.extension_data
        interface = extension_data and extension_data((WORKER + "interface").encode())
        if interface:
            self.worker = ctypes.cast(interface, ctypes.POINTER(WorkerInterface)).contents
        self.ports = {}  # symbol -> (index, kinds, default)
        classes = {kind: lib.lilv_new_uri(self.world, uri.encode()) for kind, uri in (
            ("audio", LV2 + "AudioPort"), ("control", LV2 + "ControlPort"), ("atom", ATOM + "AtomPort"),
            ("input", LV2 + "InputPort"), ("output", LV2 + "OutputPort"))}
        for index in range(lib.lilv_plugin_get_num_ports(plugin)):
            port = lib.lilv_plugin_get_port_by_index(plugin, index)
            symbol = lib.lilv_node_as_string(lib.lilv_port_get_symbol(plugin, port)).decode()
            kinds = {kind for kind, node in classes.items() if lib.lilv_port_is_a(plugin, port, node)}
            default, low, high = ctypes.c_void_p(), ctypes.c_void_p(), ctypes.c_void_p()
            lib.lilv_port_get_range(plugin, port, ctypes.byref(default), ctypes.byref(low), ctypes.byref(high))
            value = lib.lilv_node_as_float(default) if default.value else 0.0
            self.ports[symbol] = (index, kinds, value)
            for node in (default, low, high):
                if node.value:
                    lib.lilv_node_free(node)
        for node in classes.values():
            lib.lilv_node_free(node)

    def _schedule(self, handle, size, data):
        """Offline, the work is done at once; its responses wait for the end of the run."""
        return self.worker.work(self.instance.contents.handle, self.respond, None, size, data)

    def _respond(self, handle, size, data):
        self.responses.append(ctypes.string_at(data, size))
        return 0

    def _finish_work(self):
        handle = self.instance.contents.handle
        while self.responses:
            body = self.responses.pop(0)
            self.worker.work_response(handle, len(body), body)
        if self.worker and self.worker.end_run:
            self.worker.end_run(handle)

    def restore(self, values):
        """Hands the plugin a saved state: {key URI: text}, as a preset or a
        session would. Raises if the plugin keeps no state or refuses it."""
        extension_data = self.instance.contents.descriptor.contents.extension_data
        interface = extension_data and extension_data((STATE + "interface").encode())
        if not interface:
            raise ValueError("the plugin keeps no state")
        texts = {self.urids(key): ctypes.create_string_buffer(text.encode()) for key, text in values.items()}
        string_type = self.urids(ATOM + "String")

        def retrieve(handle, key, size, value_type, flags):
            if key not in texts:
                return None
            size[0], value_type[0], flags[0] = len(texts[key]), string_type, 0
            return ctypes.addressof(texts[key])

        callback = RetrieveFunction(retrieve)
        no_features = (ctypes.c_void_p * 1)(None)
        status = ctypes.cast(interface, ctypes.POINTER(StateInterface)).contents.restore(
            self.instance.contents.handle, callback, None, 0, no_features)
        if status != 0:
            raise ValueError("the plugin refused the state (status %d)" % status)

    def _connect(self, index, buffer):
        self.instance.contents.descriptor.contents.connect_port(self.instance.contents.handle, index,
                                                                buffer.ctypes.data)

    def _fill_sequence(self, buffer, events):
        """Writes [(frame within the block, MIDI bytes)] into an atom input as
        one sequence: a header, then each event padded to 8 bytes."""
        body = bytearray(8)  # the sequence's unit and padding: 0, frames
        for frame, data in events:
            body += struct.pack("<qII", frame, len(data), self.urids(MIDI_EVENT)) + data + bytes(-len(data) % 8)
        if len(body) + 8 > ATOM_CAPACITY:
            raise ValueError("%d bytes of events in one block do not fit an atom port" % len(body))
        header = struct.pack("<II", len(body), self.urids(ATOM + "Sequence"))
        buffer.view(np.uint8)[:len(body) + 8] = np.frombuffer(header + bytes(body), np.uint8)

    def process(self, audio, controls=None, events=()):
        """Runs the plugin over audio (inputs, n) float32; controls: {symbol:
        value} over the defaults; events: [(frame, MIDI bytes)] in frame order
        for its atom inputs (an instrument takes (0, n) audio). Returns the
        outputs (outputs, n)."""
        controls, events = controls or {}, list(events)
        unknown = set(controls) - set(self.ports)
        if unknown:
            raise ValueError("no control ports %s" % sorted(unknown))
        connected, inputs, outputs, atom_inputs, atom_outputs = [], [], [], [], []  # the plugin points into these
        sequence, chunk = self.urids(ATOM + "Sequence"), self.urids(ATOM + "Chunk")
        for symbol, (index, kinds, default) in self.ports.items():
            if "control" in kinds:
                buffer = np.array([controls.get(symbol, default)], np.float32)
            elif "atom" in kinds:  # an empty sequence in; room for the plugin's messages out
                buffer = np.zeros(ATOM_CAPACITY // 4, np.uint32)
                buffer[:2] = (8, sequence)
                (atom_outputs if "output" in kinds else atom_inputs).append(buffer)
            else:
                buffer = np.zeros(BLOCK, np.float32)
                (inputs if "input" in kinds else outputs).append(buffer)
            self._connect(index, buffer)
            connected.append(buffer)
        if len(inputs) != len(audio):
            raise ValueError("the plugin takes %d audio inputs, not %d" % (len(inputs), len(audio)))
        descriptor, handle = self.instance.contents.descriptor.contents, self.instance.contents.handle
        if descriptor.activate:  # optional, like deactivate and extension_data
            descriptor.activate(handle)
        out = np.zeros((len(outputs), audio.shape[-1]), np.float32)
        times = np.array([frame for frame, _ in events], np.int64)
        for start in range(0, audio.shape[-1], BLOCK):
            frames = min(BLOCK, audio.shape[-1] - start)
            first, end = np.searchsorted(times, [start, start + frames])
            for buffer in atom_inputs:
                self._fill_sequence(buffer, [(frame - start, data) for frame, data in events[first:end]])
            for buffer, channel in zip(inputs, audio):
                buffer[:frames] = channel[start:start + frames]
            for buffer in atom_outputs:  # the host says how much room there is before every run
                buffer[:2] = (ATOM_CAPACITY - 8, chunk)
            descriptor.run(handle, frames)
            if self.worker:
                self._finish_work()
            for row, buffer in zip(out, outputs):
                row[start:start + frames] = buffer[:frames]
        if descriptor.deactivate:
            descriptor.deactivate(handle)
        return out

    def close(self):
        if self.instance:
            self.lib.lilv_instance_free(self.instance)
            self.lib.lilv_world_free(self.world)
            self.instance = None


@contextlib.contextmanager
def quiet():
    """The plugin and lilv print to the process's descriptors: keep them off the console."""
    sys.stdout.flush()
    sys.stderr.flush()
    saved = [os.dup(1), os.dup(2)]
    with open(os.devnull, "w") as null:
        os.dup2(null.fileno(), 1)
        os.dup2(null.fileno(), 2)
        try:
            yield
        finally:
            os.dup2(saved[0], 1)
            os.dup2(saved[1], 2)
            for descriptor in saved:
                os.close(descriptor)
