"""`qvn-dataset prepare`: pictures to shards of network inputs with the
device's bytes, on a local Dask cluster, an existing one, or in process.

The sorted list of pictures is cut into shards of `--shard` pictures; shard
k always covers pictures k*N .. k*N+N-1 of that list, whoever converts it and
whatever failed before, so every run with the same inputs and options writes
the same bytes. One task converts one shard and writes its .npy itself (on a
cluster the output folder must be shared); the client keeps the manifest,
rewritten after every finished shard so that an interrupted run can resume.
"""
import argparse
import csv
import hashlib
import io
import json
import math
import os
import secrets
import sys
import time
from pathlib import Path

import numpy as np

from .failures import (EXIT_CLUSTER, EXIT_CODES_HELP, EXIT_INPUT, EXIT_NOTHING, EXIT_OUTPUT,
                       Failure, UsageError, memory_failure, output_failure, report, shown,
                       task_failure, host)
from .route import (JPEG_ROUTES, REDUCE_FACTORS, ROUTE_BEFORE, convert_frame,
                    convert_picture, float_lists)

PICTURE_SUFFIXES = (".png", ".jpg", ".jpeg")
MANIFEST = "manifest.json"
FORMAT_VERSION = 1
DEFAULT_SHARD = 1024
# The tool's --max-pixels default: the largest tensor plane it makes.
MAX_TENSOR_PIXELS = 1 << 26
NOT_UTF8 = "file name is not valid UTF-8"


# ---------------------------------------------------------------------------
# Options
# ---------------------------------------------------------------------------

def parse_args(argv):
    ap = argparse.ArgumentParser(
        prog="qvn-dataset",
        description="Prepare a training set with the device's bytes (libqvn_kit over Dask).")
    sub = ap.add_subparsers(dest="command", required=True)
    p = sub.add_parser("prepare", help="convert every PNG/JPEG under INPUT_DIR into shards",
                       epilog=EXIT_CODES_HELP,
                       formatter_class=argparse.RawDescriptionHelpFormatter)
    p.add_argument("input_dir", metavar="INPUT_DIR")
    p.add_argument("out_dir", metavar="OUT_DIR")
    p.add_argument("--format", default="nv21", choices=["nv21", "nv12", "bgra", "rgba"],
                   help="camera frame the pictures become, as `qvn-kit preprocess` makes it")
    p.add_argument("--orient", default="0",
                   help="orientation of the frames, undone by the conversion (qvn-kit names "
                        "joined by '|', or a number)")
    p.add_argument("--tensor", default=None, help="CxHxW (3x256x256; 1xHxW with --gray)")
    p.add_argument("--crop", default=None, help="x,y,w,h region of the upright view, pixels")
    p.add_argument("--bgr", action="store_true", help="planes in B,G,R order")
    p.add_argument("--gray", action="store_true", help="one gray plane")
    p.add_argument("--pad", type=int, default=0, help="value of crop pixels outside the frame")
    p.add_argument("--jpeg", default="planes", choices=JPEG_ROUTES,
                   help="planes: 4:2:0 JPEGs go from their own YCbCr planes to the tensor "
                        "(BT.601 full range); rgb: through RGB and a --format frame, as data "
                        "sets were made before (planes)")
    p.add_argument("--reduce", type=int, default=1, choices=REDUCE_FACTORS,
                   help="with --jpeg planes, decode at 1/2, 1/4 or 1/8 scale where the crop "
                        "is at least that much larger than the tensor (1: full size)")
    p.add_argument("--dtype", default="uint8", choices=["uint8", "float32"],
                   help="shard values: bytes, or float32 (value - mean) / std per channel")
    p.add_argument("--mean", default=None,
                   help="with --dtype float32: R,G,B means (one value with --gray; 0)")
    p.add_argument("--std", default=None,
                   help="with --dtype float32: R,G,B standard deviations, finite and "
                        "non-zero (1)")
    p.add_argument("--letterbox", type=int, default=None, metavar="PAD",
                   help="keep the crop's aspect ratio: fit it inside the tensor, centred, "
                        "and pad the rest with this byte 0..255 (before normalisation)")
    p.add_argument("--shard", type=int, default=None,
                   help=f"pictures a shard ({DEFAULT_SHARD}, or fewer where a shard of "
                        f"{DEFAULT_SHARD} would pass --max-shard-mb)")
    p.add_argument("--max-shard-mb", type=int, default=2048,
                   help="largest shard in MiB, which a worker holds in memory (2048)")
    where = p.add_mutually_exclusive_group()
    where.add_argument("--workers", type=int, default=None,
                       help="processes of a local Dask cluster (default: the machine's "
                            "cores); 0 converts in this process without Dask")
    where.add_argument("--scheduler", default=None,
                       help="address of a running Dask scheduler, e.g. tcp://host:8786")
    p.add_argument("--wait", type=float, default=30.0,
                   help="seconds to wait for the scheduler to answer, then for its first "
                        "worker (30)")
    p.add_argument("--resume", action="store_true",
                   help="keep the shards a previous run finished (checked by their SHA-256, and "
                        "their pictures by size and modification time)")
    p.add_argument("--progress", choices=["auto", "always", "never"], default="auto",
                   help="progress bar on stderr (auto: when stderr is a terminal)")
    return ap.parse_args(argv)


def conversion_options(args):
    """The options that decide the bytes, checked; stored in the manifest."""
    try:
        import qvn_kit
    except ImportError as e:
        raise Failure(f"cannot import qvn_kit ({e}): is the kit installed?",
                      EXIT_CLUSTER) from None

    tensor = args.tensor or ("1x256x256" if args.gray else "3x256x256")
    try:
        c, h, w = (int(v) for v in tensor.lower().split("x"))
    except ValueError:
        raise UsageError(f"--tensor {tensor!r} is not CxHxW") from None
    if args.gray and args.bgr:
        raise UsageError("--bgr and --gray exclude each other")
    if c != (1 if args.gray else 3) or h < 1 or w < 1:
        raise UsageError(f"--tensor {tensor} cannot hold the output: the "
                         f"{'gray' if args.gray else 'colour'} converter writes "
                         f"{1 if args.gray else 3} plane(s) of at least 1x1")
    if h * w > MAX_TENSOR_PIXELS:
        raise UsageError(f"--tensor {tensor}: tensor of {w}x{h} pixels is above the limit "
                         f"of {MAX_TENSOR_PIXELS} pixels")
    crop = None
    if args.crop:
        try:
            crop = [int(v) for v in args.crop.split(",")]
        except ValueError:
            crop = []
        if len(crop) != 4:
            raise UsageError(f"--crop {args.crop!r} is not x,y,w,h")
    mean, std = float_lists(args, c)
    options = {"format": args.format, "orient": args.orient, "tensor": [c, h, w],
               "crop": crop, "bgr": args.bgr, "gray": args.gray, "pad": args.pad,
               "jpeg": args.jpeg, "reduce": args.reduce, "dtype": args.dtype,
               "mean": mean, "std": std, "letterbox": args.letterbox,
               "shard": shard_rows(args, c * h * w * (4 if args.dtype == "float32" else 1),
                                   tensor)}
    if args.reduce != 1 and args.jpeg != "planes":
        raise UsageError("--reduce decodes JPEG planes: it needs --jpeg planes")
    # Let the module refuse bad values now rather than once a picture.
    probe = qvn_kit.make_frame(np.zeros((2, 2, 3), np.uint8), args.format)
    try:
        convert_frame(qvn_kit, probe, options)
    except (TypeError, ValueError, OverflowError) as e:
        raise UsageError(str(e)) from None
    return options


def shard_rows(args, row_bytes, tensor):
    """Pictures a shard: --shard, or the default cut so that the batch a
    worker allocates stays within --max-shard-mb; checked before any
    allocation."""
    if args.max_shard_mb < 1:
        raise UsageError("--max-shard-mb must be at least 1")
    limit = args.max_shard_mb << 20
    fit = limit // row_bytes
    if fit < 1:
        raise UsageError(f"--tensor {tensor}: one row takes {row_bytes >> 20} MiB, more than "
                         f"--max-shard-mb {args.max_shard_mb}")
    if args.shard is None:
        return min(DEFAULT_SHARD, fit)
    if args.shard < 1:
        raise UsageError("--shard must be at least 1")
    if args.shard > fit:
        raise UsageError(f"--shard {args.shard} rows of {tensor} take "
                         f"{args.shard * row_bytes >> 20} MiB, more than --max-shard-mb "
                         f"{args.max_shard_mb}: use --shard {fit} or fewer")
    return args.shard


def check_where(args):
    """--workers, --scheduler and --wait, before anything is written."""
    if args.workers is not None and args.workers < 0:
        raise UsageError(f"--workers {args.workers}: give a number of processes, or 0 to "
                         "convert in this process without Dask")
    if not (math.isfinite(args.wait) and args.wait > 0):
        raise UsageError("--wait must be a positive number of seconds")
    if args.scheduler is not None:
        try:
            from distributed.comm.addressing import get_address_host_port
        except ImportError as e:
            raise Failure(f"--scheduler needs Dask ({e}): install python3-distributed",
                          EXIT_CLUSTER) from None
        try:
            hostname, port = get_address_host_port(args.scheduler)
        except ValueError:
            hostname, port = "", 0
        if not hostname or not 0 < port < 65536:
            raise UsageError(f"--scheduler {args.scheduler!r} is not an address like "
                             "tcp://HOST:8786")


# ---------------------------------------------------------------------------
# Work of one shard (runs on a worker)
# ---------------------------------------------------------------------------

_MALLOC_TUNED = False


def keep_freed_memory():
    """Every picture allocates and frees some tens of megabytes. By default
    glibc serves such blocks with mmap or trims them off the heap when they
    are freed (Dask even sets MALLOC_TRIM_THRESHOLD_=65536 in its workers),
    so the next picture faults all of it in again: two to three times the
    time per 1080p picture on a virtual machine. Keep freed memory for reuse
    instead (once per process)."""
    global _MALLOC_TUNED
    if _MALLOC_TUNED:
        return
    _MALLOC_TUNED = True
    try:
        import ctypes

        libc = ctypes.CDLL("libc.so.6")
        libc.mallopt(-1, 1 << 29)  # M_TRIM_THRESHOLD: 512 MiB
        libc.mallopt(-3, 1 << 25)  # M_MMAP_THRESHOLD: 32 MiB, glibc's largest
    except (OSError, AttributeError):
        pass  # another C library: its defaults then


def convert_shard(index, paths, input_dir, out_dir, options):
    """Converts the pictures `paths` (relative to input_dir, which like
    out_dir is absolute: a worker may run in any folder) into
    out_dir/shard-NNNNN.npy. Returns the shard's record for the manifest."""
    import qvn_kit

    keep_freed_memory()
    # A worker that does not see the folders would list every picture as an
    # error, or write its shard where nobody looks: say so instead.
    if not os.path.isdir(input_dir):
        raise Failure(f"a worker on {host()} does not see the input folder "
                      f"'{shown(input_dir)}': every worker must see it at the same path",
                      EXIT_INPUT)
    if not os.path.isdir(out_dir):
        raise Failure(f"a worker on {host()} does not see the output folder "
                      f"'{shown(out_dir)}': every worker must see it at the same path",
                      EXIT_OUTPUT)

    c, h, w = options["tensor"]
    try:
        batch = np.empty((len(paths), c, h, w),
                         np.float32 if options.get("dtype") == "float32" else np.uint8)
    except MemoryError:
        raise memory_failure(index) from None
    sizes, errors, rows = [], [], 0
    for rel in paths:
        try:
            # The kit's reader takes UTF-8 paths; a name that is not UTF-8
            # (kept by os.fsdecode as lone surrogates) cannot be opened.
            try:
                rel.encode("utf-8")
            except UnicodeEncodeError:
                raise ValueError(NOT_UTF8) from None
            width, height = convert_picture(qvn_kit, os.path.join(input_dir, rel), options,
                                            batch[rows])
        except (ValueError, MemoryError) as e:
            errors.append([shown(rel), str(e) or type(e).__name__])
            continue
        sizes.append([width, height])
        rows += 1
    name = shard_name(index)
    digest = hashlib.sha256()
    try:
        size = write_atomically(Path(out_dir) / name,
                                lambda f: np.save(_Hashing(f, digest), batch[:rows],
                                                  allow_pickle=False))
    except OSError as e:
        raise output_failure("write", Path(out_dir) / name, e) from None
    return {"index": index, "file": name, "rows": rows, "sha256": digest.hexdigest(),
            "bytes": size, "sizes": sizes, "errors": errors}


class _Hashing:
    """A file that hashes what is written to it: np.save streams a shard
    through it, so a shard is never copied into memory twice."""

    def __init__(self, f, digest):
        self.f, self.digest = f, digest

    def write(self, data):
        self.digest.update(data)
        return self.f.write(data)


def shard_name(index):
    return f"shard-{index:05d}.npy"


def write_atomically(path, data):
    """Writes `data` (bytes, str, or a function that writes to a binary
    file) through a temporary file in the same folder: a reader (or a
    resumed run) never sees half a file. The file gets the mode of any file
    this process creates (0666 less the umask). Returns its size."""
    path = Path(path)
    while True:
        tmp = path.parent / f".{path.name}.{os.getpid()}.{secrets.token_hex(4)}.tmp"
        try:
            fd = os.open(tmp, os.O_WRONLY | os.O_CREAT | os.O_EXCL | os.O_CLOEXEC, 0o666)
            break
        except FileExistsError:
            continue
    try:
        with os.fdopen(fd, "wb") as f:
            if callable(data):
                data(f)
            else:
                f.write(data if isinstance(data, bytes) else data.encode())
            size = f.tell()
        os.replace(tmp, path)
    except BaseException:
        os.unlink(tmp)
        raise
    return size


def file_sha256(path):
    h = hashlib.sha256()
    with open(path, "rb") as f:
        for block in iter(lambda: f.read(1 << 20), b""):
            h.update(block)
    return h.hexdigest()


# ---------------------------------------------------------------------------
# The run (client side)
# ---------------------------------------------------------------------------

def find_pictures(input_dir, given=None):
    """The sorted pictures under input_dir (relative, '/'-separated; a
    name that is not UTF-8 keeps its bytes as os.fsdecode does) and their
    [size, mtime_ns] stamps, which let --resume notice a changed picture."""
    root, given = Path(input_dir), shown(given or input_dir)
    if not root.is_dir():
        raise Failure(f"input folder '{given}' does not exist", EXIT_INPUT)
    if not os.access(root, os.R_OK | os.X_OK):
        raise Failure(f"input folder '{given}' cannot be read", EXIT_INPUT)
    found = sorted(p.relative_to(root).as_posix() for p in root.rglob("*")
                   if p.is_file() and p.suffix.lower() in PICTURE_SUFFIXES)
    return found, [stamp(os.path.join(input_dir, rel)) for rel in found]


def stamp(path):
    try:
        st = os.stat(path)
    except OSError:
        return None  # gone: the task lists it in errors.csv
    return [st.st_size, st.st_mtime_ns]


def inputs_digest(paths):
    return hashlib.sha256("\n".join(paths).encode("utf-8", "surrogateescape")).hexdigest()


class Progress:
    def __init__(self, total, mode):
        self.total = total
        self.active = mode == "always" or (mode == "auto" and sys.stderr.isatty())
        self.done = 0

    def step(self, pictures):
        self.done += pictures
        if self.active:
            width = 30
            filled = width * self.done // max(self.total, 1)
            sys.stderr.write(f"\rqvn-dataset [{'#' * filled}{'.' * (width - filled)}] "
                             f"{self.done}/{self.total} pictures")
            sys.stderr.flush()

    def close(self):
        if self.active:
            sys.stderr.write("\n")


def start_cluster(args):
    """(client, cluster) for --scheduler or --workers; cluster is None for a
    scheduler that someone else runs."""
    import logging

    try:
        from dask.distributed import Client, LocalCluster
    except ImportError as e:
        raise Failure(f"cannot import Dask ({e}): install python3-distributed, or convert "
                      "without it with --workers 0", EXIT_CLUSTER) from None
    # Failures are reported here, in one line each, not as Dask's log.
    logging.getLogger("distributed").setLevel(logging.CRITICAL)
    if not args.scheduler:
        workers = args.workers or os.cpu_count() or 1
        cluster = LocalCluster(n_workers=workers, threads_per_worker=1, processes=True,
                               dashboard_address=None, silence_logs=40)
        return Client(cluster), cluster
    try:
        client = Client(args.scheduler, timeout=args.wait)
    except OSError:
        raise Failure(f"cannot reach the Dask scheduler at {args.scheduler} within "
                      f"{args.wait:g} s (--wait)", EXIT_CLUSTER) from None
    try:
        if not client.scheduler_info().get("workers"):
            print(f"qvn-dataset: no worker is connected to {args.scheduler}; waiting up to "
                  f"{args.wait:g} s (--wait) for one", file=sys.stderr, flush=True)
            try:
                client.wait_for_workers(1, timeout=args.wait)
            except (OSError, TimeoutError):
                raise Failure(f"no worker joined the Dask scheduler at {args.scheduler} "
                              f"within {args.wait:g} s", EXIT_CLUSTER) from None
    except BaseException:
        client.close()
        raise
    return client, None


def load_resumable(path, manifest, slices, stamps):
    """The shard records of the run at `path` that --resume keeps: those
    whose file is intact and whose pictures are unchanged. A manifest that
    is not one this tool wrote is refused rather than guessed at."""
    def damaged(why):
        return Failure(f"--resume: '{shown(path)}' is damaged ({why}); run without --resume "
                       "to start afresh", EXIT_INPUT)

    try:
        old = json.loads(path.read_text(encoding="utf-8"))
    except OSError as e:
        raise Failure(f"--resume: cannot read '{shown(path)}': {e.strerror}", EXIT_INPUT) from None
    except ValueError as e:  # not UTF-8, not JSON
        raise damaged(str(e).split(":")[0]) from None
    if (not isinstance(old, dict) or old.get("tool") != "qvn-dataset"
            or old.get("format_version") != FORMAT_VERSION
            or not isinstance(old.get("shards"), list)):
        raise damaged("not a qvn-dataset manifest of this version")
    # A set made before the JPEG routes existed was made with the RGB one.
    if (dict(ROUTE_BEFORE, **(old.get("options") or {})) != manifest["options"]
            or old.get("inputs_sha256") != manifest["inputs_sha256"]):
        raise UsageError("--resume: the options or the input pictures differ from the "
                         "run recorded in " + str(path))
    done = {}
    for rec in old["shards"]:
        if not well_formed(rec, slices):
            raise damaged("a shard record does not fit the pictures")
        i, n = rec["index"], manifest["options"]["shard"]
        f = path.parent / rec["file"]
        if (rec.get("stamps") == stamps[i * n:i * n + len(slices[i])]
                and f.is_file() and file_sha256(f) == rec["sha256"]):
            done[i] = rec
    return done


def well_formed(rec, slices):
    def is_int(v):
        return isinstance(v, int) and not isinstance(v, bool)

    try:
        i, rows = rec["index"], rec["rows"]
        return (is_int(i) and 0 <= i < len(slices) and rec["file"] == shard_name(i)
                and is_int(rows) and isinstance(rec["sha256"], str)
                and len(rec["sizes"]) == rows and rows + len(rec["errors"]) == len(slices[i])
                and all(len(s) == 2 and all(map(is_int, s)) for s in rec["sizes"])
                and all(len(e) == 2 and all(isinstance(v, str) for v in e)
                        for e in rec["errors"]))
    except (KeyError, TypeError):
        return False


def make_output(out_dir):
    try:
        out_dir.mkdir(parents=True, exist_ok=True)
    except OSError as e:
        raise output_failure("create the output folder", out_dir, e) from None


def run_prepare(args):
    import qvn_kit

    options = conversion_options(args)
    check_where(args)
    # Tasks get absolute paths: a worker runs in a folder of its own.
    input_dir, out_dir = os.path.abspath(args.input_dir), Path(os.path.abspath(args.out_dir))
    try:
        input_dir.encode("utf-8")
    except UnicodeEncodeError:
        raise UsageError(f"input folder '{shown(input_dir)}': {NOT_UTF8}") from None
    paths, stamps = find_pictures(input_dir, args.input_dir)
    if out_dir.exists() and not out_dir.is_dir():
        raise Failure(f"output folder '{shown(out_dir)}' is a file", EXIT_OUTPUT)
    n = options["shard"]
    slices = [paths[i:i + n] for i in range(0, len(paths), n)]
    manifest = {
        "format_version": FORMAT_VERSION,
        "tool": "qvn-dataset",
        "kit_version": "%d.%d" % tuple(qvn_kit.kit_version),
        "core_version": "%d.%d" % tuple(qvn_kit.core_version),
        "module_version": qvn_kit.__version__,
        "options": options,
        "input_dir": str(Path(input_dir).resolve()),
        "inputs": len(paths),
        "inputs_sha256": inputs_digest(paths),
        "shards": [],
    }

    done = {}
    if args.resume and (out_dir / MANIFEST).exists():
        done = load_resumable(out_dir / MANIFEST, manifest, slices, stamps)
    manifest["shards"] = sorted(done.values(), key=lambda r: r["index"])
    todo = [i for i in range(len(slices)) if i not in done]

    # The cluster first: one that cannot be reached changes nothing here.
    start = time.perf_counter()
    client = cluster = None
    if todo and args.workers != 0:
        client, cluster = start_cluster(args)
    startup = time.perf_counter() - start
    try:
        return convert_all(args, input_dir, out_dir, manifest, slices, stamps, done, todo,
                           client, start, startup)
    finally:
        if client is not None:
            client.close()
        if cluster is not None:
            cluster.close()


def convert_all(args, input_dir, out_dir, manifest, slices, stamps, done, todo, client,
                start, startup):
    options, n = manifest["options"], manifest["options"]["shard"]
    # Nothing is removed before the manifest says the set is incomplete and
    # the index that listed the old shards is gone: an interrupted run never
    # leaves an index that looks usable.
    make_output(out_dir)
    write_manifest(out_dir, manifest, complete=False)
    try:
        # (and the temporary files of a killed run: only names this tool makes)
        stale = [out_dir / "index.csv", out_dir / "errors.csv"]
        for name in ("shard-*.npy", "index.csv", "errors.csv", MANIFEST):
            stale += out_dir.glob(f".{name}.*.tmp")
        for f in stale:
            f.unlink(missing_ok=True)
        # A fresh run leaves no shard of an earlier, larger run behind.
        if not args.resume:
            for old_shard in out_dir.glob("shard-*.npy"):
                old_shard.unlink()
    except OSError as e:
        raise output_failure("remove the previous run's files from", out_dir, e) from None

    progress = Progress(sum(len(slices[i]) for i in todo), args.progress)

    def finished(rec):
        f = out_dir / rec["file"]
        if not f.is_file() or f.stat().st_size != rec["bytes"]:
            raise Failure(f"{rec['file']} was written by a worker but is not in "
                          f"'{shown(out_dir)}': the output folder must be shared by every "
                          "worker and this machine", EXIT_OUTPUT)
        rec["stamps"] = stamps[rec["index"] * n:rec["index"] * n + len(slices[rec["index"]])]
        manifest["shards"].append(rec)
        manifest["shards"].sort(key=lambda r: r["index"])
        write_manifest(out_dir, manifest, complete=False)
        progress.step(len(slices[rec["index"]]))

    try:
        if todo and args.workers == 0:
            for i in todo:
                finished(convert_shard(i, slices[i], input_dir, str(out_dir), options))
        elif todo:
            run_on_dask(client, todo, slices, input_dir, out_dir, options, finished)
    finally:
        progress.close()
    seconds = time.perf_counter() - start

    write_tables(out_dir, manifest, slices)
    manifest["rows"] = sum(r["rows"] for r in manifest["shards"])
    manifest["errors"] = sum(len(r["errors"]) for r in manifest["shards"])
    manifest["converted_now"] = sum(len(slices[i]) for i in todo)
    write_manifest(out_dir, manifest, complete=True)
    converted = manifest["converted_now"]
    rate = converted / seconds if seconds > 0 else 0.0
    print(f"qvn-dataset: {converted} pictures in {seconds:.2f} s, {rate:.1f} pictures/s "
          f"({manifest['rows']} rows in {len(manifest['shards'])} shards, "
          f"{manifest['errors']} errors, {len(done)} shards kept; "
          f"{startup:.2f} s of it starting the cluster)")
    if manifest["inputs"] and manifest["rows"] == 0:
        raise Failure(f"not one of the {manifest['inputs']} pictures converted: errors.csv "
                      "says why",
                      EXIT_NOTHING)
    return 0


def run_on_dask(client, todo, slices, input_dir, out_dir, options, finished):
    """Converts the shards `todo` on the cluster."""
    from dask.distributed import as_completed

    futures = {client.submit(convert_shard, i, slices[i], input_dir, str(out_dir), options,
                             pure=False): i
               for i in todo}
    for future in as_completed(futures):
        try:
            rec = future.result()
        except Exception as e:
            failure = task_failure(e, futures[future])
            if failure is None:
                raise
            raise failure from None
        finished(rec)


def write_manifest(out_dir, manifest, complete):
    manifest["complete"] = complete
    try:
        write_atomically(out_dir / MANIFEST, json.dumps(manifest, indent=1) + "\n")
    except OSError as e:
        raise output_failure("write in the output folder", out_dir, e) from None


def write_tables(out_dir, manifest, slices):
    """index.csv (shard, row, source, width x height) and errors.csv; a
    source that is not UTF-8 is written with its odd bytes as \\xNN."""
    index, errors = io.StringIO(), io.StringIO()
    iw, ew = csv.writer(index, lineterminator="\n"), csv.writer(errors, lineterminator="\n")
    iw.writerow(["shard", "row", "source", "size"])
    ew.writerow(["source", "error"])
    for rec in manifest["shards"]:
        failed = {path for path, _ in rec["errors"]}
        good = [p for p in slices[rec["index"]] if shown(p) not in failed]
        for row, (path, (w, h)) in enumerate(zip(good, rec["sizes"])):
            iw.writerow([rec["file"], row, path, f"{w}x{h}"])
        for path, message in rec["errors"]:
            ew.writerow([path, message])
    try:
        write_atomically(out_dir / "errors.csv", errors.getvalue())
        write_atomically(out_dir / "index.csv", index.getvalue())
    except OSError as e:
        raise output_failure("write in the output folder", out_dir, e) from None


def main(argv=None):
    args = parse_args(sys.argv[1:] if argv is None else argv)
    return report(lambda: run_prepare(args))
