"""A stand-in for tonwerk-separate --serve: it passes the requests on to the
real one ($TONWERK_SEPARATE), whose answers go straight back, but misbehaves
as a test asks through its environment:
  STANDIN_STRAY=DIR  the first server that starts serving after DIR was made
                     (it removes DIR) answers its first request with
                     $STANDIN_LINE alone and never passes that request on, so
                     the song is left for the server that replaces it;
  STANDIN_HANG=TEXT  a request whose input path holds TEXT is never answered,
                     and the song's first stem is left under its temporary name."""
import os
import signal
import stat
import subprocess
import sys

real = subprocess.Popen([os.environ["TONWERK_SEPARATE"], *sys.argv[1:]], stdin=subprocess.PIPE)


def stop(*_):
    """Stopped, it stops the real server too, which then abandons its song or,
    idle, ends at the end of its input (no locks here: a handler may run
    while the main thread holds them)."""
    os.kill(real.pid, signal.SIGTERM)
    os._exit(1)


signal.signal(signal.SIGTERM, stop)


def strays():
    """Whether this server is the one to answer out of turn. Only a server
    fed through a pipe: the check of the options runs one with no input."""
    if not (stat.S_ISFIFO(os.fstat(0).st_mode) and os.environ.get("STANDIN_STRAY")):
        return False
    try:
        os.rmdir(os.environ["STANDIN_STRAY"])
        return True
    except FileNotFoundError:
        return False


stray = strays()
for line in sys.stdin.buffer:
    if stray:
        # Were the request passed on as well, the real server could finish
        # the song before it is stopped, and its replacement skip it.
        print(os.environ["STANDIN_LINE"], flush=True)
        stray = False
        continue
    song, _, outdir = os.fsdecode(line.rstrip(b"\n")).partition("\t")
    if os.environ.get("STANDIN_HANG") and os.environ["STANDIN_HANG"] in song:
        folder = os.path.join(outdir, os.path.splitext(os.path.basename(song))[0])
        os.makedirs(folder, exist_ok=True)
        tag = sys.argv[sys.argv.index("--part-tag") + 1]
        open(os.path.join(folder, ".vocals.wav.part-" + tag), "w").close()
        signal.pause()
    real.stdin.write(line)
    real.stdin.flush()
real.stdin.close()
sys.exit(real.wait())
