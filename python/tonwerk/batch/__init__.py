"""Separating many songs on a Dask cluster: python3 -m tonwerk.batch.

Every song is one task. Each worker process keeps one tonwerk-separate
server (its --serve mode), so the model is loaded once per process and the
stems are written by the same code as a tonwerk-separate run: same formats,
resampling, names, and files that appear whole under their final names or
not at all. A song has a time limit; a server that dies or answers out of
turn is replaced and its song asked again; every song's record is appended
to the manifest as it finishes. See `python3 -m tonwerk.batch --help`.
"""
